# Compile and link options. Warnings, sanitizers and coverage hold for everything built here;
# hardening (qvcl_harden) for what is shipped. Whether warnings are errors is CMake's own
# CMAKE_COMPILE_WARNING_AS_ERROR, which every preset sets.

add_compile_options(
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wcast-qual -Wcast-align -Wformat=2 -Wundef
    -Wvla -Wimplicit-fallthrough
    "$<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes;-Wmissing-prototypes>"
    "$<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast;-Woverloaded-virtual;-Wnon-virtual-dtor;-Wextra-semi>"
    # A designated initialiser leaves fields out on purpose: they are zero.
    -Wno-missing-field-initializers
    "$<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wlogical-op;-Wduplicated-cond>")

if(QVCL_SANITIZE)
    list(JOIN QVCL_SANITIZE "," sanitizers)
    # -O1: the suites run several times faster than with -O0 and stacks stay readable.
    add_compile_options(-fsanitize=${sanitizers} -fno-sanitize-recover=all -O1
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${sanitizers})
    if("thread" IN_LIST QVCL_SANITIZE)
        # It does not understand fences; those there are stand between processes, not threads.
        add_compile_options($<$<C_COMPILER_ID:GNU>:-Wno-tsan>)
    endif()
endif()
if(QVCL_FUZZ)
    # clang's: the fuzzer sees which branches an input reaches. Its main program is linked in tests/.
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(QVCL_COVERAGE)
    add_compile_options(--coverage -fprofile-update=atomic)
    add_link_options(--coverage)
    set(counters "${CMAKE_CURRENT_LIST_DIR}/coverage_exit.c")
    add_library(coverage-exit SHARED "${counters}")
    add_library(coverage-module OBJECT "${counters}")
    target_compile_definitions(coverage-module PRIVATE QVCL_COVERAGE_MODULE)
    foreach(part IN ITEMS exit module)
        set_target_properties(coverage-${part} PROPERTIES
            COMPILE_OPTIONS "" LINK_OPTIONS "" POSITION_INDEPENDENT_CODE ON C_EXTENSIONS ON)
    endforeach()
    link_libraries("$<BUILD_INTERFACE:coverage-exit>" "$<BUILD_INTERFACE:$<TARGET_OBJECTS:coverage-module>>")
endif()

# What distributions build with. Not for the tests: they replace functions of the C library, which
# fortified calls would go past.
function(qvcl_harden target)
    target_compile_options(${target} PRIVATE -fstack-protector-strong -fstack-clash-protection)
    target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now)
    if(NOT QVCL_SANITIZE)
        # Fortification needs the optimiser, and glibc warns without it.
        target_compile_definitions(${target} PRIVATE
            $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
    endif()
endfunction()
