#!/bin/sh
# Usage: exported-symbols.sh <platform library> <binary that links it>...
# Fails if the platform library exports a name that none of the binaries
# imports, beyond the type information, tables and virtual thunks of the
# runtime's classes, which some compilers and options need and others not.
# Names are compared demangled, as the version script lists them: a needed
# constructor or destructor brings its sibling variants along.
set -e
platform=$1
shift
extra=$( { nm -D --undefined-only "$@" | awk '$1 ~ /^[Uw]$/ { print $2 }' | c++filt | sed 's/^/import /'
           nm -D --defined-only "$platform" | awk 'NF == 3 { print $3 }' | c++filt | sed 's/^/export /'; } |
         awk '{ kind = $1; sub(/^[a-z]+ /, "") }
              kind == "import" { imported[$0] = 1; next } !($0 in imported) { print }' |
         grep -Ev '^(typeinfo for|typeinfo name for|vtable for|VTT for|virtual thunk to) Quorvendale::Platform::' || true)
if [ -n "$extra" ]; then
    echo "$platform exports what no binary of the product imports:"
    echo "$extra"
    exit 1
fi
echo "$platform: $(nm -D --defined-only "$platform" | wc -l) exports, each one used"
