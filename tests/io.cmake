# The tests of messages, timers, configuration, trace files, files, shared memory and the loop that
# threads can wake.
add_library(test-wire OBJECT wire.cpp)
target_link_libraries(test-wire PUBLIC test-support)

function(io_test name)
    qvcl_test(${name} SOURCES ${name}.cpp LIBS test-support test-wire ${ARGN})
endfunction()

io_test(transfer_test LABELS valgrind)
io_test(server_test)
io_test(client_test)
io_test(exchange_test)
io_test(conf_test LABELS valgrind)
io_test(trace_file_test LABELS valgrind)
io_test(file_test)
io_test(shm_test)
io_test(thread_test LABELS threads valgrind)

# Fuzz targets, replayed over small corpora. To fuzz, build one with clang's -fsanitize=fuzzer
# instead of fuzz/replay.cpp.
foreach(target conf frame)
    add_executable(${target}_fuzz fuzz/${target}_fuzz.cpp fuzz/replay.cpp)
    target_link_libraries(${target}_fuzz PRIVATE qvcl::qvcl)
    add_test(NAME fuzz/${target} COMMAND ${target}_fuzz
        "${CMAKE_CURRENT_SOURCE_DIR}/fuzz/${target}_corpus")
    set_tests_properties(fuzz/${target} PROPERTIES TIMEOUT 60)
endforeach()
