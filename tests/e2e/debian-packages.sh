#!/usr/bin/env bash
# Builds the Debian packages in a tree of their own (prefix /usr, Debian's
# build flags, no tests), checks them with lintian, then, as root only,
# installs them with dpkg, has the installed qvstore served by a private bus
# whose service folder is /usr/share/dbus-1/services, and purges them, after
# which nothing of them may be left.
#
# Usage: debian-packages.sh WORK_DIR SOURCE_DIR     (exit 77: install skipped)
set -euo pipefail
work=$(realpath -m "$1")
source=$(realpath "$2")
tree=$work/build
packages=(libquorvendalestorageclient1 libquorvendalestorageclient-dev quorvendale-tools python3-quorvendale)
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
    if dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed'; then
        echo "debian-packages: skipped installing: $package is installed on this machine already"
        exit 77
    fi
done
files=$work/files
for deb in "${debs[@]}"; do dpkg-deb -c "$deb"; done | awk '{print substr($6, 2)}' | sort -u >"$files"
trap 'dpkg --purge "${packages[@]}" >/dev/null 2>&1 || true' EXIT
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
"$source/scripts/private-bus" --services /usr/share/dbus-1/services -- bash -c '
    set -e
    printf "a\nb" | qvstore write g k
    [ "$(qvstore read g k)" = "$(printf "a\nb")" ]
    [ "$("$1")" = "$(printf "a\nb")" ]
    status=0; qvstore read g missing 2>/dev/null || status=$?; [ $status = 1 ]
    [ "$(/usr/bin/python3 -c "import quorvendale; print(quorvendale.local().read(\"g\", \"k\"))")" = "$(printf "a\nb")" ]
' installed "$work/consumer/consumer" || fail "the installed service did not serve the installed qvstore"
man -l /usr/share/man/man1/qvstore.1.gz >/dev/null 2>&1 || fail "qvstore(1) does not render"
ldd /usr/bin/quorvendale-apphost | grep -q "=> /usr/.*/quorvendale/libQuorvendalePlatform.so" ||
    fail "the host does not find the platform library in its private folder"

dpkg --purge "${packages[@]}" >/dev/null
trap - EXIT
left=$(while read -r path; do if [ -e "$path" ] && [ ! -d "$path" ]; then echo "$path"; fi; done <"$files")
[ -z "$left" ] || fail "left after purge: $left"
for folder in /usr/include/Quorvendale /usr/lib/*/quorvendale /usr/lib/*/cmake/Quorvendale \
        /usr/lib/python3/dist-packages/quorvendale; do
    [ ! -e "$folder" ] || fail "left after purge: $folder"
done
echo "debian-packages: built, lintian-clean, installed, served the installed qvstore, purged"
