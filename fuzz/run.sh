#!/bin/bash
# Build the fuzzers, try every input that once broke one, and let each look for more.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

all=(codec netip sub connections persist)
usage() {
    cat <<TEXT
usage: fuzz/run.sh SECONDS [NAME...]

Runs each fuzzer for SECONDS, one after another, or tries only the known inputs when SECONDS is 0.
Needs clang and its run-time (Debian 12: clang, libclang-rt-14-dev).
NAME is one of: ${all[*]} (all of them by default)

What an earlier run has learnt is kept in build/fuzz/corpus and taken up again. An input that breaks something is
left in build/fuzz/findings; once it is understood it belongs in fuzz/regressions/NAME.
TEXT
}

if [[ ! ${1-} =~ ^[0-9]+$ ]]; then
    usage >&2
    exit 2
fi
seconds=$1
shift
names=("${@:-${all[@]}}")
for name in "${names[@]}"; do
    if [[ " ${all[*]} " != *" $name "* ]]; then
        usage >&2
        exit 2
    fi
done

# The longest input worth while, and the words that it is made of.
declare -A max_len=([codec]=4400 [netip]=8192 [sub]=4096 [connections]=2048 [persist]=6000)
declare -A dict=([codec]=mqtt [netip]=mqtt [sub]=sub [connections]=connections [persist]=persist)

launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake --preset fuzz ${launcher[@]+"${launcher[@]}"} >/dev/null
cmake --build --preset fuzz -j "$(nproc)" --target zeb_fuzzers

parent=/dev/shm
[[ -d $parent && -w $parent ]] || parent=${TMPDIR:-/tmp}
ZEB_FUZZ_DIRECTORY=$(mktemp -d "$parent/zeb-fuzz.XXXXXX")
export ZEB_FUZZ_DIRECTORY
trap 'rm -rf "$ZEB_FUZZ_DIRECTORY"' EXIT
# What was freed is remembered for a while, but not at the price of a quarter of a gigabyte.
export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1:quarantine_size_mb=64
export UBSAN_OPTIONS=halt_on_error=1:abort_on_error=1:print_stacktrace=1

# The lines worth reading of a log; all of it when something broke.
run() {
    local name=$1 log=build/fuzz/$1.log
    shift
    if ! "build/fuzz/fuzz/zeb_fuzz_$name" -timeout=60 "$@" >"$log" 2>&1; then
        cat "$log"
        echo "fuzz: $name: FINDING, see above" >&2
        return 1
    fi
}

for name in "${names[@]}"; do
    seeds=fuzz/corpus/$name
    known=("$seeds"/*)
    [[ ! -d fuzz/regressions/$name ]] || known+=("fuzz/regressions/$name"/*)
    run "$name" "${known[@]}"
    echo "fuzz: $name: ${#known[@]} known inputs, no finding"
    [[ $seconds -gt 0 ]] || continue
    corpus=build/fuzz/corpus/$name
    mkdir -p "$corpus" build/fuzz/findings
    # Inputs are rows of steps or files, so long ones are no worse than short ones.
    run "$name" -max_total_time="$seconds" -len_control=10 -max_len="${max_len[$name]}" -dict="fuzz/dict/${dict[$name]}.dict" \
        -artifact_prefix="build/fuzz/findings/$name-" -print_final_stats=1 "$corpus" "$seeds"
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "build/fuzz/$name.log")
    coverage=$(sed -n 's/.*\(cov: [0-9]* ft: [0-9]*\).*/\1/p' "build/fuzz/$name.log" | tail -1)
    echo "fuzz: $name: $executions executions in $seconds s, $coverage, no finding"
done
