#!/bin/bash
# Builds the micro-benchmarks and prints what they measure.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

modules=(codec sub route client qos)

usage() {
    cat <<TEXT
usage: bench/micro.sh [MODULE...] [--benchmark_OPTION...]

Installs what is missing (Debian 12), builds the micro-benchmarks in build/bench and runs those of the
modules named, of all without a name: ${modules[*]}.

  --help               print this text
  --benchmark_...      goes to each program, for example
                       --benchmark_filter=REGEX, --benchmark_min_time=SECONDS,
                       --benchmark_repetitions=N, --benchmark_format=json, --benchmark_list_tests

Where a name ends in "manual_time", Time is what was measured; CPU includes what puts the benchmark back in
order between two rounds. The warning about a DEBUG build is about Debian's benchmark library, not about what
it measures.
TEXT
}

wanted=()
options=()
for argument in "$@"; do
    case $argument in
    --help)
        usage
        exit 0
        ;;
    --benchmark_*) options+=("$argument") ;;
    *)
        if [[ " ${modules[*]} " != *" $argument "* ]]; then
            usage >&2
            exit 2
        fi
        wanted+=("$argument")
        ;;
    esac
done
[[ ${#wanted[@]} -gt 0 ]] || wanted=("${modules[@]}")

# shellcheck source=scripts/packages.sh
. scripts/packages.sh
install_packages "${build_packages[@]}" "${bench_packages[@]}"

launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
# A build tree of its own: that of the tests neither gains nor loses anything.
cmake --preset release -B build/bench -DZEB_BUILD_BENCH=ON -DZEB_BUILD_TESTS=OFF ${launcher[@]+"${launcher[@]}"} >&2
cmake --build build/bench --target zeb_micro_benchmarks >&2

# Some of them write files in the working directory.
programs=$PWD/build/bench/bench
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
cd "$directory"
for module in "${wanted[@]}"; do
    echo "== $module" >&2
    "$programs/zeb_bench_$module" --benchmark_min_time=0.1 ${options[@]+"${options[@]}"}
done
