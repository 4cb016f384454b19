#!/bin/sh
# check_wrapped.sh LIBRARY FUNCTION...: what the library asks for memory by is among these functions, so that no
# request escapes the test that refuses each.
set -eu
library=$1
shift
wrapped=" $* "
kinds='malloc|calloc|realloc|reallocarray|free|strdup|strndup|aligned_alloc|posix_memalign|memalign|mmap|munmap'
kinds="$kinds|fopen|fdopen|opendir|fdopendir|getline|asprintf|_Zn[wa].*|_Zd[la].*"
found=$(nm -u "$library" 2>/dev/null | awk '$1 == "U" {print $2}' | sort -u | grep -xE "$kinds")
for function in $found; do
    case $wrapped in
    *" $function "*) ;;
    *)
        echo "not wrapped: $function" >&2
        exit 1
        ;;
    esac
done
[ -n "$found" ]
