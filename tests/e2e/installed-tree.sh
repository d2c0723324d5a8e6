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
set(CMAKE_CXX_STANDARD 14)  # the imported targets raise it to what Client.hpp needs
find_package(Quorvendale REQUIRED)
add_executable(consumer consumer.cpp)
target_link_libraries(consumer PRIVATE Quorvendale::StorageClient)
target_compile_definitions(consumer PRIVATE LIBRARY="${Quorvendale_LIBRARY}")
CMAKE
cat >"$work/consumer/consumer.cpp" <<'CPP'
#include <Quorvendale/Client.hpp>
#include <iostream>
int main() {
    const auto storage = Quorvendale::Client::Library(LIBRARY).local();
    storage.write("consumer", "k", "from find_package");
    std::cout << storage.read("consumer", "k") << '\n';
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

# The README's first programs in C++, C and Python, run as printed against the
# installed tree (LD_LIBRARY_PATH, as the README says for a prefix of one's
# own), the Python package installed with pip from the source tree, offline:
# with the service, then with no session bus.
example() {  # the sh block after the line "<!-- example: $1 ..."
    awk -v name="$1" 'index($0, "<!-- example: " name " ") == 1 {found = 1; next}
        found && $0 == "```sh" {inside = 1; next} inside && $0 == "```" {exit} inside {print}' \
        "$source/README.md"
}
cp -r "$source/python" "$work/python"  # pip builds in the folder it is given
/usr/bin/python3 -m venv --system-site-packages "$work/venv"
"$work/venv/bin/pip" install -q --no-index --no-build-isolation "$work/python" >/dev/null ||
    fail "pip install ./python failed"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig LD_LIBRARY_PATH=$prefix/lib PATH=$work/venv/bin:$PATH
for language in cpp c python; do
    mkdir -p "$work/readme/$language"
    example $language >"$work/readme/$language/example.sh"
    [ -s "$work/readme/$language/example.sh" ] || fail "README has no $language example"
done
run_examples() {  # each example's exit status, standard output and error, in its folder
    for language in cpp c python; do
        (cd "$work/readme/$language" && status=0 && bash -e example.sh >out 2>err || status=$?
         echo $status >status)
    done
}
XDG_DATA_HOME=$work/readme-data "$source/scripts/private-bus" --services "$prefix/share/dbus-1/services" \
    -- bash -c "$(declare -f run_examples); work=$work; run_examples"
expect() {  # LANGUAGE STATUS OUT ERR-PREFIX
    local folder=$work/readme/$1
    [ "$(cat "$folder/status")" = "$2" ] && [ "$(cat "$folder/out")" = "$3" ] &&
        [[ "$(cat "$folder/err")" == "$4"* ]] ||
        fail "the README's $1 example: exit $(cat "$folder/status"), output '$(cat "$folder/out")', errors '$(cat "$folder/err")'"
}
expect cpp 0 $'theme: dark\nfont: not set' ""
expect c 0 "theme: dark" "settings: Exception:"
expect python 0 $'theme: dark\nfont: not set' ""
DBUS_SESSION_BUS_ADDRESS=unix:path=$work/no-bus run_examples
unreachable="settings: the storage service cannot be reached: no session bus answered, or the service failed to start (AppUnavailable)"
expect cpp 1 "" "$unreachable"
[ "$(wc -l <"$work/readme/cpp/err")" = 1 ] || fail "the C++ example's error is not one line"
[ "$(cat "$work/readme/c/status")" = 1 ] &&
    [ "$(head -n 2 "$work/readme/c/out")" = $'Error: UwpClient connection failed\nException:' ] ||
    fail "the README's C example without a service: $(cat "$work/readme/c/out")"
expect python 1 "" "$unreachable"
echo "installed-tree: the installed host served the installed qvstore, a find_package consumer and the README's examples"
