#!/usr/bin/env bash
# Installs the build tree into an empty prefix and uses it as a user would:
# the installed programs run without LD_LIBRARY_PATH, pkg-config and
# find_package(Quorvendale) find the headers, and a private bus whose service
# folder is <prefix>/share/dbus-1/services starts the installed host, which
# serves the installed qvstore.
#
# Usage: installed-tree.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/qv-installed-XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
. "$build/service-identity.env"
package=$package_family_name

fail() { echo "installed-tree: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
unset LD_LIBRARY_PATH
service=$prefix/share/dbus-1/services/$package.service
grep -qF "Exec=\"$prefix/libexec/quorvendale/quorvendale-apphost\" " "$service" &&
    grep -q -- "--library \"$prefix/lib/libQuorvendaleStorageClient.so.1\"\$" \
    "$service" || fail "the service file does not name the installed host and library: $(cat "$service")"
[ "$(ldd "$prefix/libexec/quorvendale/quorvendale-apphost" | grep -c 'not found')" = 0 ] ||
    fail "the installed host does not find its libraries"
[ -e "$prefix/lib/quorvendale/libQuorvendalePlatform.so" ] && [ ! -e "$prefix/lib/libQuorvendalePlatform.so" ] ||
    fail "the platform library is not in its private folder alone"
# The installed qvstore loads the library installed with it, not the build tree's.
loaded=$(LD_DEBUG=files "$prefix/bin/qvstore" --remote 127.0.0.1:1 exists 2>&1 >/dev/null || true)
grep -qF "file=$prefix/lib/libQuorvendaleStorageClient.so.1 " <<<"$loaded" ||
    fail "the installed qvstore does not load the library installed with it"

flags=$(echo $(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs quorvendale))
[ "$flags" = "-I$prefix/include -L$prefix/lib -lQuorvendaleStorageClient -ldl" ] ||
    fail "pkg-config's flags are not the prefix's: $flags"
! "$prefix/bin/qvstore" --help | grep -F "$(realpath "$build")" || fail "qvstore --help names the build tree"

mkdir -p "$work/consumer"
cat >"$work/consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(Consumer CXX)
find_package(Quorvendale REQUIRED)
add_executable(consumer consumer.cpp)
target_link_libraries(consumer PRIVATE Quorvendale::StorageClient)
target_compile_definitions(consumer PRIVATE LIBRARY="${Quorvendale_LIBRARY}")
CMAKE
cat >"$work/consumer/consumer.cpp" <<'CPP'
#include <Quorvendale/Client.hpp>
#include <iostream>
int main() {
    auto storage = Quorvendale::Client::Library(LIBRARY).local();
    if (!storage) return 1;
    storage->write("consumer", "k", "from find_package");
    std::cout << storage->read("consumer", "k") << '\n';
}
CPP
cmake -S "$work/consumer" -B "$work/consumer/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer/build" >/dev/null

export XDG_DATA_HOME=$work/data
"$source/scripts/private-bus" --services "$prefix/share/dbus-1/services" -- bash -c '
    set -e
    printf "a\nb" | "$1/bin/qvstore" write g k
    [ "$("$1/bin/qvstore" read g k)" = "$(printf "a\nb")" ]
    [ "$("$2/consumer/build/consumer")" = "from find_package" ]
' installed "$prefix" "$work" || fail "the installed service did not serve"
[ "$(od -An -c "$XDG_DATA_HOME/Packages/$package/LocalState/g/k" | tr -d ' ')" = 'a\r\nb' ] ||
    fail "the entry is not on disk with CR LF"
echo "installed-tree: the installed host served the installed qvstore and a find_package consumer"
