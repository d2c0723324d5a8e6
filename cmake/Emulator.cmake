# A Linux cross build's test set-up (the ARM one), read with the build-wide
# flags: the toolchain file names the emulator that runs the test programs.

if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  message(FATAL_ERROR "A Linux cross build runs its tests under an emulator: "
                      "set CMAKE_CROSSCOMPILING_EMULATOR (the toolchain file does)")
endif()
if(NOT QV_SANITIZE STREQUAL "" OR QV_FUZZ)
  message(FATAL_ERROR "The cross build has no sanitizers and no fuzzers")
endif()

# The programs that a test starts itself run under the emulator alone
# (Support/ChildProcess.h); so does the host that the bus starts, through
# the build tree's service file, since binfmt may not know ARM programs.
set(QV_TEST_EMULATOR ${CMAKE_CROSSCOMPILING_EMULATOR})

# Test programs run as child subreapers, which the emulator cannot make them
# itself: a small program of this machine's sets the flag and runs the
# emulator. It is compiled here, as the cross compiler cannot make it.
find_program(QV_HOST_CC NAMES cc gcc REQUIRED)
set(subreaper ${CMAKE_BINARY_DIR}/subreaper)
execute_process(
  COMMAND ${QV_HOST_CC} -O2 -Wall -o ${subreaper} ${CMAKE_CURRENT_LIST_DIR}/subreaper.c
  RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "cannot compile ${CMAKE_CURRENT_LIST_DIR}/subreaper.c with ${QV_HOST_CC}")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${subreaper} ${CMAKE_CROSSCOMPILING_EMULATOR})
