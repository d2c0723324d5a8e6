# Build-wide flags and the helpers every folder uses to declare its targets.

if(WIN32)
  include(cmake/Windows.cmake)
elseif(CMAKE_CROSSCOMPILING)
  include(cmake/Emulator.cmake)
endif()
include(cmake/ServiceIdentity.cmake)

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # Every mutex and what it guards are annotated (Platform/Foundation/Mutex.h):
  # an unguarded access is a compile error in the clang builds.
  add_compile_options(-Wthread-safety)
endif()
if(QV_WERROR)
  add_compile_options(-Werror)
endif()

# Error reports carry __FILE__: keep it relative to the source tree so reports
# read the same on every machine and leak no build paths.
add_compile_options("-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")

if(QV_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(QV_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT QV_SANITIZE STREQUAL "")
  message(FATAL_ERROR "QV_SANITIZE must be '', 'address' or 'thread', not '${QV_SANITIZE}'")
endif()

if(QV_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "QV_FUZZ needs clang (libFuzzer)")
  endif()
  # Coverage instrumentation everywhere, so a fuzzer sees into the libraries it links.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

find_package(Threads REQUIRED)
if(NOT WIN32)
  if(QV_TESTS)
    find_package(GTest REQUIRED)
  endif()
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(Systemd REQUIRED IMPORTED_TARGET libsystemd)  # sd-bus
endif()
if(QV_TESTS)
  include(GoogleTest)
endif()

# qv_add_test(<name> SOURCES <files...> LIBRARIES <targets...>)
# One GoogleTest executable; every TEST in it becomes a ctest case.
function(qv_add_test name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;LIBRARIES")
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} ServiceIdentity GTest::gtest_main
                                        Threads::Threads)
  if(QV_TEST_EMULATOR)
    target_compile_definitions(${name} PRIVATE QV_TEST_EMULATOR="${QV_TEST_EMULATOR}")
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 30
                       PROPERTIES TIMEOUT 120)
endfunction()

# qv_add_fuzzer(<name> SOURCES <files...> LIBRARIES <targets...>)
# A libFuzzer target, also run by ctest for a short bounded time.
function(qv_add_fuzzer name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;LIBRARIES")
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  add_test(NAME ${name} COMMAND ${name} -max_total_time=20 -runs=2000000 -rss_limit_mb=2048)
  set_tests_properties(${name} PROPERTIES TIMEOUT 120 LABELS fuzz)
endfunction()

# qv_add_benchmark(<name> SOURCES <files...> LIBRARIES <targets...>)
function(qv_add_benchmark name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;LIBRARIES")
  find_package(benchmark REQUIRED)
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} ServiceIdentity benchmark::benchmark
                                        Threads::Threads)
endfunction()
