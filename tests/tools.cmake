# qvcl-trace; its fuzz target is replayed over a corpus that the tests write themselves. To fuzz, build
# fuzz/trace_fuzz.cpp and tools/ with clang's -fsanitize=fuzzer instead of fuzz/replay.cpp.
if(NOT TARGET qvcl_trace_reader)
    return()
endif()

qvcl_test(trace_tool_test SOURCES trace_tool_test.cpp LIBS qvcl_trace_reader test-support TIMEOUT 60)

add_executable(trace_corpus fuzz/trace_corpus.cpp)
target_include_directories(trace_corpus PRIVATE "${PROJECT_SOURCE_DIR}/tests" "${PROJECT_SOURCE_DIR}/include")
add_executable(trace_fuzz fuzz/trace_fuzz.cpp fuzz/replay.cpp)
target_link_libraries(trace_fuzz PRIVATE qvcl_trace_reader)
set(corpus "${CMAKE_CURRENT_BINARY_DIR}/trace_corpus.d")
add_test(NAME fuzz/trace_corpus COMMAND trace_corpus "${corpus}")
add_test(NAME fuzz/trace COMMAND trace_fuzz "${corpus}")
set_tests_properties(fuzz/trace_corpus PROPERTIES FIXTURES_SETUP trace_corpus TIMEOUT 30)
set_tests_properties(fuzz/trace PROPERTIES FIXTURES_REQUIRED trace_corpus TIMEOUT 60)
