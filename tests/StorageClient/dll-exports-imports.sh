#!/bin/sh
# Usage: dll-exports-imports.sh <objdump> <DLL> <expected export>...
# Fails unless the DLL exports exactly the expected names and imports from
# Windows' own DLLs alone: the C++ runtime, libgcc and winpthread are linked
# in, and the C runtime is msvcrt.
objdump=$1
dll=$2
shift 2
system_dlls='^(kernel32|msvcrt|ws2_32)\.dll$'
dump=$("$objdump" -p "$dll") || exit 1
exports=$(printf '%s\n' "$dump" |
    sed -n '/^\[Ordinal\/Name Pointer\] Table/,/^$/s/^\t\[ *[0-9]*\] //p' | sort)
expected=$(printf '%s\n' "$@" | sort)
imports=$(printf '%s\n' "$dump" | sed -n 's/^\tDLL Name: //p')
foreign=$(printf '%s\n' "$imports" | grep -Eiv "$system_dlls")
status=0
if [ "$exports" != "$expected" ]; then
    echo "exports of $dll differ"
    echo "expected:"; echo "$expected"
    echo "actual:"; echo "$exports"
    status=1
fi
if [ -n "$foreign" ]; then
    echo "$dll imports from DLLs that are not Windows' own:"; echo "$foreign"
    status=1
fi
echo "exports: $(echo $exports)"
echo "imports: $(echo $imports)"
exit $status
