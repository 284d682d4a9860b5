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
