# Runs the tests labelled `valgrind` under it:
#   ctest -S cmake/memcheck.cmake,BUILD_DIR
# An error that valgrind reports fails its test; a failed test fails the run.
set(CTEST_SOURCE_DIRECTORY "${CMAKE_CURRENT_LIST_DIR}/..")
set(CTEST_BINARY_DIRECTORY "${CTEST_SCRIPT_ARG}")
# The synonym lets the tests stand in for malloc under valgrind too.
find_program(CTEST_MEMORYCHECK_COMMAND valgrind REQUIRED)
# A test lets an access fail, handles the signal and goes on: that takes all registers.
set(CTEST_MEMORYCHECK_COMMAND_OPTIONS
    "--error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite --track-fds=no --soname-synonyms=somalloc=nouserintercepts --vex-iropt-register-updates=allregs-at-mem-access")
ctest_start(Experimental QUIET)
ctest_memcheck(INCLUDE_LABEL valgrind PARALLEL_LEVEL 2 RETURN_VALUE failed DEFECT_COUNT defects)
if(failed OR NOT defects EQUAL 0)
    file(GLOB logs "${CTEST_BINARY_DIRECTORY}/Testing/Temporary/MemoryChecker.*.log")
    foreach(log IN LISTS logs)
        file(READ "${log}" text)
        if(NOT text MATCHES "ERROR SUMMARY: 0 errors")
            message("${text}")
        endif()
    endforeach()
    message(FATAL_ERROR "valgrind: ${defects} defects")
endif()
