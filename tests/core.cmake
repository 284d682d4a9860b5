# The tests of everything but children, messages, files of traces and configuration, and what all
# tests share: link `test-support`.
# The companion is a shared object here, so that its functions can be stood in for as well.
add_library(test-starter SHARED "${PROJECT_SOURCE_DIR}/starter/cl_starter.cpp")
target_include_directories(test-starter PRIVATE "${PROJECT_SOURCE_DIR}")
target_link_libraries(test-starter PUBLIC qvcl::qvcl)
add_library(test-support OBJECT support.cpp)
target_include_directories(test-support PUBLIC "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/tests")
target_link_libraries(test-support PUBLIC test-starter GTest::gmock ${CMAKE_DL_LIBS})
target_link_options(test-support INTERFACE LINKER:--no-as-needed) # whoever stands in asks for the real one by name
if(QVCL_SANITIZE)
    # A sanitizer calls the stand-ins for the C library before it can watch anything.
    target_compile_options(test-support PRIVATE -fno-sanitize=all -fno-threadsafe-statics)
    if("thread" IN_LIST QVCL_SANITIZE)
        target_compile_definitions(test-support PRIVATE QVCL_TSAN)
    endif()
else()
    # Notes the errors that the public functions report (a sanitizer stands in their way).
    file(GLOB headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/include/qvcl/*.h")
    set(calls "${CMAKE_CURRENT_BINARY_DIR}/produced_calls.inc")
    find_package(Perl REQUIRED)
    add_custom_command(OUTPUT "${calls}"
        COMMAND ${PERL_EXECUTABLE} "${PROJECT_SOURCE_DIR}/doc/headers.pl" calls ${headers} > "${calls}"
        DEPENDS "${PROJECT_SOURCE_DIR}/doc/headers.pl" ${headers} VERBATIM)
    target_sources(test-support PRIVATE produced.cpp "${calls}")
    set_source_files_properties(produced.cpp PROPERTIES OBJECT_DEPENDS "${calls}"
        COMPILE_OPTIONS "-I${CMAKE_CURRENT_BINARY_DIR}")
endif()

function(core_test name)
    qvcl_test(${name} SOURCES ${name}.cpp LIBS test-support ${ARGN})
endfunction()

core_test(queue_test)
core_test(memory_test LABELS valgrind)
core_test(log_test LABELS valgrind)
core_test(ring_test LABELS valgrind)
core_test(descriptor_test)
core_test(damage_test)

core_test(lifecycle_test)
add_executable(dlopen_probe dlopen_probe.cpp)
target_include_directories(dlopen_probe PRIVATE "${PROJECT_SOURCE_DIR}/include")
target_link_libraries(dlopen_probe PRIVATE ${CMAKE_DL_LIBS})
add_dependencies(lifecycle_test dlopen_probe)
target_compile_definitions(lifecycle_test PRIVATE
    QVCL_LIBRARY="$<TARGET_FILE:qvcl>" QVCL_DLOPEN_PROBE="$<TARGET_FILE:dlopen_probe>")
core_test(eventlist_test)
core_test(userfd_test)
core_test(loop_test LABELS threads valgrind)
core_test(timer_test LABELS threads valgrind)
core_test(trace_records_test)

# The sweep runs thousands of small processes.
qvcl_test(faults_test SOURCES faults_test.cpp LIBS test-support TIMEOUT 120)
target_compile_definitions(faults_test PRIVATE QVCL_LIBRARY="$<TARGET_FILE:qvcl>")
