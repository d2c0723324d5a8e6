#!/usr/bin/env bash
# Builds the Debian packages in a tree of their own (prefix /usr, Debian's
# build flags, no tests), checks them with lintian, then, as root only,
# installs them with dpkg, checks the systemd user unit, has the installed
# qvstore served by a private bus whose service folder is
# /usr/share/dbus-1/services and reads the host's counters before and after,
# installs them again over themselves and uses them again, and purges them,
# after which nothing of them may be left.
#
# Usage: debian-packages.sh WORK_DIR SOURCE_DIR     (exit 77: install skipped)
set -euo pipefail
work=$(realpath -m "$1")
source=$(realpath "$2")
tree=$work/build
packages=(libquorvendalestorageclient1 quorvendale-service libquorvendalestorageclient-dev quorvendale-tools
          python3-quorvendale)
fail() { echo "debian-packages: $*" >&2; exit 1; }

eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
export CFLAGS="$CPPFLAGS $CFLAGS" CXXFLAGS="$CPPFLAGS $CXXFLAGS" LDFLAGS
cmake -S "$source" -B "$tree" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_INSTALL_PREFIX=/usr -DQV_TESTS=OFF -DQV_BENCH=OFF >/dev/null
cmake --build "$tree" -j "$(nproc)" >/dev/null
rm -rf "$work/debs"
(cd "$tree" && cpack -G DEB -B "$work/debs" >/dev/null)
debs=("$work"/debs/*.deb)
[ ${#debs[@]} = ${#packages[@]} ] || fail "expected ${packages[*]}, got: ${debs[*]}"
for deb in "${debs[@]}"; do
    echo "== $(basename "$deb")"
    dpkg-deb -f "$deb" Package Version Depends Recommends
    dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print "   ", $6, $7, $8}'
done
echo "== lintian"
lintian --fail-on error "${debs[@]}" || fail "lintian found errors"

[ "$(id -u)" = 0 ] || { echo "debian-packages: skipped installing: dpkg -i needs root"; exit 77; }
for package in "${packages[@]}"; do
    if dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep "ok installed" >/dev/null; then
        echo "debian-packages: skipped installing: $package is installed on this machine already"
        exit 77
    fi
done
files=$work/files
for deb in "${debs[@]}"; do dpkg-deb -c "$deb"; done | awk '{print substr($6, 2)}' | sort -u >"$files"
manager=""
end_manager() {
    if [ -n "$manager" ]; then
        kill -KILL "$manager" 2>/dev/null || true
        wait "$manager" 2>/dev/null || true
        manager=""
    fi
}
trap 'end_manager; dpkg --purge "${packages[@]}" >/dev/null 2>&1 || true' EXIT
dpkg -i "${debs[@]}" >/dev/null

export XDG_DATA_HOME=$work/data
rm -rf "$XDG_DATA_HOME" "$work/consumer"
mkdir -p "$work/consumer"
# A program built with pkg-config that loads the library by its SONAME.
cat >"$work/consumer/consumer.cpp" <<'CPP'
#include <Quorvendale/Client.hpp>
#include <iostream>
int main() {
    std::cout << Quorvendale::Client::Library().local().read("g", "k") << '\n';
}
CPP
g++ -std=c++17 -o "$work/consumer/consumer" "$work/consumer/consumer.cpp" \
    $(pkg-config --cflags --libs quorvendale)
# Served by the installed host; `qvstore status` never starts it, and its
# counters rise by what was done.
use_installed() {
    rm -rf "$XDG_DATA_HOME"
    "$source/scripts/private-bus" --services /usr/share/dbus-1/services -- bash -c '
        set -e
        status=0; qvstore status 2>"$2/status.err" || status=$?
        [ $status = 3 ] && grep -q "not running" "$2/status.err"
        printf "a\nb" | qvstore write g k
        [ "$(qvstore read g k)" = "$(printf "a\nb")" ]
        [ "$("$1")" = "$(printf "a\nb")" ]
        status=0; qvstore read g missing 2>/dev/null || status=$?; [ $status = 1 ]
        [ "$(/usr/bin/python3 -c "import quorvendale; print(quorvendale.local().read(\"g\", \"k\"))")" = "$(printf "a\nb")" ]
        qvstore status | grep -q "^requests .*write 1"
        before=$(qvstore status --json)
        qvstore write g k2 v
        after=$(qvstore status --json)
        writes() { sed "s/.*\"write\":\([0-9]*\).*/\1/" <<<"$1"; }
        [ "$(writes "$before")" = 1 ] && [ "$(writes "$after")" = 2 ]
        busctl --user introspect "$3" /org/quorvendale/AppServiceHost org.quorvendale.AppServiceHost |
            grep -q "^\.RequestsFailed *property *t "
        [ "$(busctl --user get-property "$3" /org/quorvendale/AppServiceHost \
                org.quorvendale.AppServiceHost Version)" = "s \"$4\"" ]
    ' installed "$work/consumer/consumer" "$work" "$package" "$version"
}
. "$tree/service-identity.env"
package=$package_family_name
version=$(dpkg-deb -f "$work"/debs/quorvendale-service_*.deb Version | sed 's/-[^-]*$//')
use_installed || fail "the installed service did not serve the installed qvstore"

man -l /usr/share/man/man1/qvstore.1.gz >/dev/null 2>&1 || fail "qvstore(1) does not render"
man -l /usr/share/man/man1/quorvendale-apphost.1.gz >/dev/null 2>&1 ||
    fail "quorvendale-apphost(1) does not render"
host=/usr/libexec/quorvendale/quorvendale-apphost
ldd "$host" | grep "=> /usr/.*/quorvendale/libQuorvendalePlatform.so" >/dev/null ||
    fail "the host does not find the platform library in its private folder"
library=$(ls /usr/lib/*/libQuorvendaleStorageClient.so.1.*)
[[ $library =~ \.so\.1\.[0-9]+\.[0-9]+$ ]] || fail "the library file is not named after its SONAME: $library"
flags=$(echo $(pkg-config --cflags --libs quorvendale))
[ "$flags" = "-lQuorvendaleStorageClient -ldl" ] || fail "pkg-config's flags are not clean: $flags"
# No path of the build in anything installed; qvstore names none either.
while read -r path; do
    if [ -f "$path" ] && grep -qF "$source" "$path"; then fail "$path names the build: $source"; fi
done <"$files"
if qvstore --help | grep -F "$source" >/dev/null; then fail "qvstore --help names the build"; fi
unit=/usr/lib/systemd/user/quorvendale-storage.service
grep -qx "SystemdService=quorvendale-storage.service" /usr/share/dbus-1/services/"$package".service ||
    fail "the D-Bus service file does not name the systemd unit"
# The user manager's tools want a runtime folder of the user's, which a root
# session need not have.
mkdir -p -m 700 "$work/runtime"
verified=$(XDG_RUNTIME_DIR=$work/runtime systemd-analyze --user verify "$unit" 2>&1) ||
    fail "systemd-analyze rejects the unit: $verified"
[ -z "$verified" ] || fail "systemd-analyze warns about the unit: $verified"

# Activation through a systemd user manager, as in a session that has one:
# the manager's own session bus asks it to start the unit. The manager runs
# only where the machine was booted with systemd (it looks for
# /run/systemd/system), so where that folder is missing it runs in a mount
# namespace that has it; and in a PID namespace of its own, whose every
# process ends when the namespace's first one does (unshare --kill-child).
through_user_manager() (
    set -e
    # The unit's /tmp and /var/tmp are its own (PrivateTmp=): a home under
    # them, as a build tree in a clone under /tmp would give, is out of its
    # sight. A user's home never is.
    home=$(mktemp -d /dev/shm/qv-manager-XXXXXX)
    export XDG_RUNTIME_DIR=$home HOME=$home DBUS_SESSION_BUS_ADDRESS=unix:path=$home/bus
    unset XDG_DATA_HOME
    unshare --mount --propagation private --pid --fork --mount-proc --kill-child sh -c '
        [ -d /run/systemd/system ] || { mount -t tmpfs tmpfs /run/systemd && mkdir /run/systemd/system; }
        /lib/systemd/systemd --user; exit $?' >"$home/manager.log" 2>&1 &
    manager=$!
    trap 'status=$?; end_manager; [ $status = 0 ] ||
        echo "debian-packages: activation through a user manager failed; it said: $(cat "$home/manager.log")" >&2
        rm -rf "$home"' EXIT
    for _ in $(seq 300); do [ -S "$home/bus" ] && break; sleep 0.1; done
    qvstore write g k "through systemd"
    [ "$(qvstore read g k)" = "through systemd" ]
    [ -f "$home/.local/share/Packages/$package/LocalState/g/k" ]
    # The manager's own API on the session bus (its private socket, which
    # systemctl uses, refuses a client now and then from outside its PID
    # namespace).
    unit=/org/freedesktop/systemd1/unit/quorvendale_2dstorage_2eservice
    property() { busctl --user get-property org.freedesktop.systemd1 $unit "org.freedesktop.systemd1.$1" "$2"; }
    [ "$(property Service MainPID)" = "u $(qvstore status --json | sed 's/.*"ProcessId":\([0-9]*\).*/\1/')" ]
    for _ in $(seq 50); do
        text=$(property Service StatusText)
        [[ $text =~ ^s\ \"0\ connections,\ [0-9]+\ requests\"$ ]] && break
        sleep 0.1
    done
    [[ $text =~ ^s\ \"0\ connections,\ [0-9]+\ requests\"$ ]] || { echo "status text: $text" >&2; false; }
    busctl --user call org.freedesktop.systemd1 /org/freedesktop/systemd1 \
        org.freedesktop.systemd1.Manager StopUnit ss quorvendale-storage.service replace >/dev/null
    for _ in $(seq 50); do [ "$(property Unit ActiveState)" = 's "inactive"' ] && break; sleep 0.1; done
    status=0; qvstore status 2>/dev/null || status=$?; [ $status = 3 ]
)
through_user_manager

# Installed again over itself, it serves as before.
dpkg -i "${debs[@]}" >/dev/null
use_installed || fail "the packages installed over themselves did not serve"

dpkg --purge "${packages[@]}" >/dev/null
trap - EXIT
left=$(while read -r path; do if [ -e "$path" ] && [ ! -d "$path" ]; then echo "$path"; fi; done <"$files")
[ -z "$left" ] || fail "left after purge: $left"
for folder in /usr/include/Quorvendale /usr/lib/*/quorvendale /usr/lib/*/cmake/Quorvendale \
        /usr/libexec/quorvendale /usr/lib/python3/dist-packages/quorvendale; do
    [ ! -e "$folder" ] || fail "left after purge: $folder"
done
echo "debian-packages: built, lintian-clean, installed, served the installed qvstore, reinstalled, purged"
