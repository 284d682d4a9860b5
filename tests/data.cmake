# Configuration, trace files, files and shared memory. The configuration's fuzz target is replayed
# over its corpus; to fuzz, build it with clang's -fsanitize=fuzzer instead of fuzz/replay.cpp.
core_test(conf_test LABELS valgrind)
core_test(trace_file_test LABELS valgrind)
core_test(file_test)
core_test(shm_test)

add_executable(conf_fuzz fuzz/conf_fuzz.cpp fuzz/replay.cpp)
target_link_libraries(conf_fuzz PRIVATE qvcl::qvcl)
add_test(NAME fuzz/conf COMMAND conf_fuzz "${CMAKE_CURRENT_SOURCE_DIR}/fuzz/conf_corpus")
set_tests_properties(fuzz/conf PROPERTIES TIMEOUT 30)
