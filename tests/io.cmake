# The tests of messages and of the loop that threads can wake.
add_library(test-wire OBJECT wire.cpp)
target_link_libraries(test-wire PUBLIC test-support)

function(io_test name)
    qvcl_test(${name} SOURCES ${name}.cpp LIBS test-support test-wire ${ARGN})
endfunction()

io_test(transfer_test LABELS valgrind)
io_test(server_test)
io_test(client_test)
io_test(exchange_test)
io_test(thread_test LABELS threads valgrind)

# Fuzz target, replayed over a small corpus. To fuzz, build it with clang's -fsanitize=fuzzer
# instead of fuzz/replay.cpp.
add_executable(frame_fuzz fuzz/frame_fuzz.cpp fuzz/replay.cpp)
target_link_libraries(frame_fuzz PRIVATE qvcl::qvcl)
add_test(NAME fuzz/frame COMMAND frame_fuzz "${CMAKE_CURRENT_SOURCE_DIR}/fuzz/frame_corpus")
set_tests_properties(fuzz/frame PROPERTIES TIMEOUT 60)
