#!/bin/bash
# Static analysis of the library and the console: clang-tidy (.clang-tidy) and cppcheck. Fails on any finding.
# Needs a configured build directory for the compile commands: lint.sh [build directory, build/release].
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

build=${1:-build/release}
folders=(sdk log netip codec client packet sub qos persist stats app)
mapfile -t sources < <(find "${folders[@]}" -name '*.cpp' | sort)
report=$(mktemp)
trap 'rm -f "$report"' EXIT

echo "clang-tidy: ${#sources[@]} files"
printf '%s\n' "${sources[@]}" |
    xargs -P "$(nproc)" -n 4 clang-tidy -p "$build" --quiet --warnings-as-errors='*' >"$report" 2>/dev/null || true
findings=$(grep -Ec '(warning|error): ' "$report" || true)
grep -E -A 3 '(warning|error): ' "$report" || true
echo "clang-tidy: $findings findings"

echo "cppcheck"
cppcheck --enable=warning,performance,portability --std=c++20 --language=c++ -I . --quiet \
    --suppress=missingIncludeSystem --error-exitcode=1 -j "$(nproc)" "${folders[@]}"
echo "cppcheck: 0 findings"
[[ $findings -eq 0 ]]
