# Child processes, the exec-completion channel and the starter companion. `started` is the program
# that these tests start.
add_executable(started started.cpp)
target_link_libraries(started PRIVATE qvcl::starter)

qvcl_test(child_test SOURCES child_test.cpp LIBS test-support LABELS valgrind)
qvcl_test(execcomp_test SOURCES execcomp_test.cpp LIBS test-support LABELS valgrind)
qvcl_test(starter_test SOURCES starter_test.cpp LIBS test-support TIMEOUT 60)
target_compile_definitions(starter_test PRIVATE STARTED="$<TARGET_FILE:started>")
add_dependencies(starter_test started)
