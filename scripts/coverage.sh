#!/bin/bash
# coverage.sh <build directory>: lines and branches that the tests of an instrumented build have reached, per
# folder and in all. Exceptions that the compiler adds on its own are no branches of ours.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

build=$1
# Not /dev/null: gcovr replaces its output file, and as root it can.
scratch=$(mktemp)
trap 'rm -f "$scratch"' EXIT
gcovr=(gcovr --root . --exclude-unreachable-branches --exclude-throw-branches --gcov-ignore-parse-errors -j "$(nproc)")
printf '%-10s %8s %9s\n' folder lines branches
for folder in sdk log netip codec client packet sub qos persist stats app .; do
    filter="$folder/"
    [[ $folder != . ]] || filter='(sdk|log|netip|codec|client|packet|sub|qos|persist|stats|app)/'
    summary=$("${gcovr[@]}" --filter "$filter" --print-summary --output "$scratch" "$build")
    lines=$(sed -n 's/^lines: \([0-9.]*%\).*/\1/p' <<<"$summary")
    branches=$(sed -n 's/^branches: \([0-9.]*%\).*/\1/p' <<<"$summary")
    printf '%-10s %8s %9s\n' "${folder/#./all}" "$lines" "$branches"
done
