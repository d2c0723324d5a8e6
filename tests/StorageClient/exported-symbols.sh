#!/bin/sh
# Usage: exported-symbols.sh <shared library> <expected symbol>...
# Fails unless the library defines exactly the expected dynamic symbols.
library=$1
shift
actual=$(nm -D --defined-only "$library" | awk '{ print $3 }' | sort)
expected=$(printf '%s\n' "$@" | sort)
if [ "$actual" != "$expected" ]; then
    echo "exported symbols of $library differ"
    echo "expected:"; echo "$expected"
    echo "actual:"; echo "$actual"
    exit 1
fi
echo "exports: $(echo $actual)"
