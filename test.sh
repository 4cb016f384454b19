#!/bin/bash
# All set-up and all tests: unit, wire and interop on the release build, unit and wire under the address and
# undefined-behaviour sanitizers, the concurrency tests under the thread sanitizer, the fuzzers for a while.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")"

usage() {
    cat <<'TEXT'
usage: ./test.sh [--fast | --preset NAME]

Installs what is missing (Debian 12), builds and tests:
  release  unit, wire and interop tests
  asan     unit and wire tests under AddressSanitizer and UndefinedBehaviorSanitizer
  tsan     concurrency tests under ThreadSanitizer
  fuzz     each fuzzer on its known inputs and for 20 s (fuzz/run.sh runs them longer)

  --fast         release only
  --preset NAME  one of release, debug, asan, tsan, fuzz
  --help         print this text
TEXT
}

presets=(release asan tsan fuzz)
while [[ $# -gt 0 ]]; do
    case $1 in
    --help)
        usage
        exit 0
        ;;
    --fast) presets=(release) ;;
    --preset)
        shift
        case ${1-} in
        release | debug | asan | tsan | fuzz) presets=("$1") ;;
        *)
            usage >&2
            exit 2
            ;;
        esac
        ;;
    *)
        usage >&2
        exit 2
        ;;
    esac
    shift
done

# shellcheck source=scripts/packages.sh
. scripts/packages.sh
install_packages "${build_packages[@]}" "${test_packages[@]}" "${test_commands[@]}"
[[ " ${presets[*]} " != *" fuzz "* ]] || install_packages "${fuzz_packages[@]}"

# The one client that Debian does not package. It is installed again only when the lock file changes.
npm_dir=build/deps/npm
if ! cmp -s tests/interop/package-lock.json "$npm_dir/installed-lock.json"; then
    mkdir -p "$npm_dir"
    cp tests/interop/package.json tests/interop/package-lock.json "$npm_dir"
    (cd "$npm_dir" && npm ci --no-audit --no-fund --loglevel=error)
    cp tests/interop/package-lock.json "$npm_dir/installed-lock.json"
fi

launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1
export UBSAN_OPTIONS=halt_on_error=1:abort_on_error=1:print_stacktrace=1
export TSAN_OPTIONS=halt_on_error=1:abort_on_error=1:second_deadlock_stack=1
jobs=$(nproc)

fuzz_seconds=20
for preset in "${presets[@]}"; do
    echo "== $preset"
    if [[ $preset == fuzz ]]; then
        fuzz/run.sh "$fuzz_seconds"
        continue
    fi
    case $preset in
    release | debug) labels=() target=all ;;
    asan) labels=(-L '^(unit|wire)$') target=all ;;
    tsan) labels=(-L '^concurrency$') target=zeb_concurrency_tests ;;
    esac
    cmake --preset "$preset" -DZEB_BUILD_TESTS=ON ${launcher[@]+"${launcher[@]}"} >/dev/null
    cmake --build --preset "$preset" -j "$jobs" --target "$target"
    ctest --test-dir "build/$preset" -j 2 --output-on-failure --no-tests=error ${labels[@]+"${labels[@]}"}
done
