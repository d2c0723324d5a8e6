# The Windows build's test set-up, read before the project's own warning
# flags: GoogleTest built with the cross compiler from Debian's sources, and
# every test program run under Wine in a prefix inside the build folder.

if(NOT QV_SANITIZE STREQUAL "" OR QV_FUZZ)
  message(FATAL_ERROR "The Windows build has no sanitizers and no fuzzers")
endif()

set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
# Defines GTest::gtest_main, as the Linux build finds it installed.
add_subdirectory(/usr/src/googletest/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
# Its own speed does not matter, its build time does: unoptimised, gtest-all
# compiles in half the time, and it is the longest step of the build.
target_compile_options(gtest PRIVATE -O0 -g0)
target_compile_options(gtest_main PRIVATE -O0 -g0)

# <windows.h> without the OLE headers, whose IStorage would clash with the
# contract's in C, and without the min and max macros.
add_compile_definitions(WIN32_LEAN_AND_MEAN NOMINMAX)

# wine64 is not on PATH; test programs run as `wine64 program`, with the
# environment below, both when ctest runs them and when it lists their tests.
find_program(QV_WINE64 wine64 PATHS /usr/lib/wine NO_DEFAULT_PATH REQUIRED)
find_program(QV_WINESERVER wineserver PATHS /usr/lib/wine NO_DEFAULT_PATH REQUIRED)
set(QV_WINE_ENVIRONMENT
  "WINEPREFIX=${CMAKE_BINARY_DIR}/wine"
  # Loader errors only: a missing DLL says so, nothing else is printed.
  "WINEDEBUG=-all,err+module"
  # No .NET or HTML engine to install into a new prefix.
  "WINEDLLOVERRIDES=mscoree,mshtml="
)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_COMMAND} -E env ${QV_WINE_ENVIRONMENT} ${QV_WINE64})

# For scripts that start and stop the prefix's wineserver around a test run.
list(JOIN QV_WINE_ENVIRONMENT "' '" quoted)
file(WRITE ${CMAKE_BINARY_DIR}/wine.env
  "export '${quoted}'\nQV_WINE64='${QV_WINE64}'\nQV_WINESERVER='${QV_WINESERVER}'\n")
