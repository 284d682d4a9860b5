# Configuration, trace files, files and shared memory.
core_test(conf_test LABELS valgrind)
core_test(trace_file_test LABELS valgrind)
core_test(file_test)
core_test(shm_test)
