# Sums up which lines of what is shipped the tests of a build folder have reached:
#   ctest -S cmake/coverage.cmake,BUILD_DIR
# Line by line, and file by file, in BUILD_DIR/Testing/CoverageInfo and .../*/Coverage.xml.
set(CTEST_SOURCE_DIRECTORY "${CMAKE_CURRENT_LIST_DIR}/..")
set(CTEST_BINARY_DIRECTORY "${CTEST_SCRIPT_ARG}")
find_program(CTEST_COVERAGE_COMMAND gcov REQUIRED)
set(CTEST_CUSTOM_COVERAGE_EXCLUDE "/tests/" "/examples/" "/usr/" "/build/")
ctest_start(Experimental QUIET)
ctest_coverage(RETURN_VALUE failed)
if(failed)
    message(FATAL_ERROR "gcov: ${failed}")
endif()
