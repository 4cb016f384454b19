#!/bin/bash
# All set-up and all tests: unit, wire and interop on the release build, unit and wire under the address and
# undefined-behaviour sanitizers, the concurrency tests under the thread sanitizer, the fuzzers for a while.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")"

usage() {
    cat <<'TEXT'
usage: ./test.sh [--fast | --preset NAME | --thorough | --coverage | --lint]

Installs what is missing (Debian 12), builds and tests:
  release  all tests: unit, wire, interop, crash, console, package, model, soak, valgrind, bench
  asan     unit and wire tests under AddressSanitizer and UndefinedBehaviorSanitizer
  fuzz     each fuzzer on its known inputs and for 20 s (fuzz/run.sh runs them longer)
  tsan     concurrency tests under ThreadSanitizer

  --fast         release only
  --preset NAME  one of release, debug, asan, fuzz, tsan
  --thorough     the long forms: 500 kills, storms of 60 s, 10 minutes of soak, all unit and wire
                 tests under ThreadSanitizer, each fuzzer for 20 minutes; takes some three hours
  --coverage     lines and branches that unit and wire tests reach, per folder
  --lint         clang-tidy and cppcheck
  --help         print this text
TEXT
}

presets=(release asan fuzz tsan)
thorough=
extra_packages=()
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
        release | debug | asan | fuzz | tsan) presets=("$1") ;;
        *)
            usage >&2
            exit 2
            ;;
        esac
        ;;
    --thorough) thorough=yes ;;
    --coverage)
        presets=(coverage)
        extra_packages=(gcovr)
        ;;
    --lint)
        presets=(lint)
        extra_packages=(clang-tidy cppcheck)
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
install_packages "${build_packages[@]}" "${test_packages[@]}" "${bench_packages[@]}" "${test_commands[@]}" ${extra_packages[@]+"${extra_packages[@]}"}
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
    # So that another checkout of the same sources finds what this one has compiled.
    export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=pch_defines,time_macros
fi
export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1
export UBSAN_OPTIONS=halt_on_error=1:abort_on_error=1:print_stacktrace=1
export TSAN_OPTIONS=halt_on_error=1:abort_on_error=1:second_deadlock_stack=1
jobs=$(nproc)
# Most tests wait more than they compute.
test_jobs=$((2 * jobs))
fuzz_seconds=20
if [[ -n $thorough ]]; then
    fuzz_seconds=1200
    export ZEB_CRASH_KILLS=500 ZEB_STORM_SECONDS=60 ZEB_SOAK_SECONDS=600 ZEB_MODEL_SCENARIOS=20000
    export ZEB_MODEL_SEED=${ZEB_MODEL_SEED-$((SRANDOM % 2147483648))} # printed with every result
fi

# The benchmarks are built and tried once, with the build that they would measure.
bench_of() {
    [[ $1 == release ]] && echo ON || echo OFF
}

# build_and_test <preset> <target> <label filter of ctest>...
build_and_test() {
    local preset=$1 target=$2
    shift 2
    cmake --preset "$preset" -DZEB_BUILD_TESTS=ON -DZEB_BUILD_BENCH="$(bench_of "$preset")" \
        ${launcher[@]+"${launcher[@]}"} >/dev/null
    cmake --build --preset "$preset" -j "$jobs" --target "$target"
    ctest --test-dir "build/$preset" -j "$test_jobs" --output-on-failure --no-tests=error "$@"
}

for preset in "${presets[@]}"; do
    echo "== $preset"
    case $preset in
    release | debug) build_and_test "$preset" all ;;
    asan) build_and_test asan all -L '^(unit|wire)$' ;;
    fuzz) fuzz/run.sh "$fuzz_seconds" ;;
    tsan)
        if [[ -n $thorough ]]; then
            build_and_test tsan all -L '^(unit|wire)$'
        else
            build_and_test tsan zeb_concurrency_tests -L '^concurrency$'
        fi
        ;;
    coverage)
        build_and_test coverage all -L '^(unit|wire|console)$'
        scripts/coverage.sh build/coverage
        ;;
    lint)
        cmake --preset release >/dev/null
        cmake --build --preset release -j "$jobs" --target zeb_sdk_mqtt_broker_static
        scripts/lint.sh build/release
        ;;
    esac
done
