#!/bin/bash
# check.sh <file>...: each program or shared library carries what makes a memory error harder to exploit.
set -euo pipefail

failures=0
expect() { # <file> <what> <condition's exit status>
    if [[ $3 -ne 0 ]]; then
        echo "$1: no $2"
        failures=$((failures + 1))
    fi
}
contains() { # <text> <pattern>
    grep -Eq -- "$2" <<<"$1" && echo 0 || echo 1
}

for file in "$@"; do
    header=$(readelf -hW "$file")
    segments=$(readelf -lW "$file")
    dynamic=$(readelf -dW "$file")
    symbols=$(readelf --dyn-syms -W "$file")
    expect "$file" "position independent code" "$(contains "$header" 'Type: +DYN')"
    if [[ $file != *.so* ]]; then
        expect "$file" "PIE mark" "$(contains "$dynamic" 'FLAGS_1.*PIE')"
    fi
    expect "$file" "read-only relocations" "$(contains "$segments" 'GNU_RELRO')"
    expect "$file" "binding at start" "$(contains "$dynamic" 'BIND_NOW|FLAGS_1.*NOW')"
    expect "$file" "stack that cannot be executed" "$(contains "$segments" 'GNU_STACK.* RW ')"
    expect "$file" "stack protector" "$(contains "$symbols" '__stack_chk_fail')"
    expect "$file" "fortified call" "$(contains "$symbols" '__[a-z]+_chk')"
done
[[ $failures -eq 0 ]]
