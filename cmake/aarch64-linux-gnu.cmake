# Cross build for 64-bit ARM Linux with Debian's cross compiler, against the
# arm64 libraries of a multiarch installation (libgtest-dev:arm64,
# libsystemd-dev:arm64). Test programs run under qemu-aarch64.
#
#   cmake -S . -B build/arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Libraries and their CMake packages only from the arm64 multiarch folders
# and the cross compiler's own; programs (pkg-config, dbus-daemon) are the
# machine's.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)

# The arm64 dynamic loader and libraries are where multiarch puts them, so
# qemu needs no -L. Found here rather than named, so that a machine without
# qemu fails at configure time with the package to install.
find_program(QV_QEMU_AARCH64 qemu-aarch64 qemu-aarch64-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${QV_QEMU_AARCH64})
