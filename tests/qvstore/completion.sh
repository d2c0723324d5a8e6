#!/usr/bin/env bash
# qvstore's bash completion, sourced as bash-completion does, for the built
# qvstore: commands and options, files only where a FILE goes, and the keys
# of a group from a service on a private bus, then with no bus at all.
#
# Usage: completion.sh COMPLETION_FILE QVSTORE SERVICE_FILE PRIVATE_BUS
set -euo pipefail
completion=$1 qvstore=$2 service=$3 private_bus=$4
scratch=$(mktemp -d "${TMPDIR:-/tmp}/qv-completion-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/services" && cp "$service" "$scratch/services/"
export XDG_DATA_HOME=$scratch/data

# Runs the bash completion of the words given (the last one being completed)
# and prints what it offers, one a line, sorted.
cat >"$scratch/offer" <<SCRIPT
#!/usr/bin/env bash
. "$completion"
COMP_WORDS=("$qvstore" "\$@")
COMP_CWORD=\$#
_qvstore
printf '%s\n' "\${COMPREPLY[@]}" | sort
SCRIPT
chmod +x "$scratch/offer"
fail() { echo "completion: $*" >&2; exit 1; }
expect() {  # EXPECTED WORDS...
    local expected=$1 offered
    shift
    offered=$(cd "$scratch" && ./offer "$@" | paste -sd ' ')
    [ "$offered" = "$expected" ] || fail "for '$*': offered '$offered', expected '$expected'"
}

touch "$scratch/entries.json"
export -f expect fail
export scratch
"$private_bus" --services "$scratch/services" -- bash -euc '
    qvstore=$1
    "$qvstore" write g alpha 1 && "$qvstore" write g beta 2 && "$qvstore" write g "with space" 3
    expect "read remove" re
    expect "-- --default --help --library --quiet --remote --verbose --version -h -q -v" read -
    expect "--json" list --j
    expect "--default" read --d
    expect "alpha beta with\\ space" read g ""
    expect "alpha" -q read g a
    expect "with\\ space" remove -- g w
    expect "" write g alpha ""
    expect "" import ""
    expect "entries.json" import g e
' completion "$qvstore" || exit 1
DBUS_SESSION_BUS_ADDRESS= XDG_RUNTIME_DIR=$scratch/none expect "" read g ""
echo "completion: commands, options, files and the group's keys"
