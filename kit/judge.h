// What is to happen to a call: asked at the beginning of every stand-in.
//
// Nothing here allocates or takes a lock, and errno is left alone but for a failure that is wanted.
#pragma once

#include <dlfcn.h>

#include <cstring>

#include "kit/page.h"

namespace kit {

struct Verdict {
    bool fail = false;  // with the errno that is set
    bool swallow = false;
    bool made = false;  // and yet fails
    uint64_t at_most = UINT64_MAX;
    bool fewer_ready = false;
    uint32_t dice = 0;
};

// caller: where the call returns to. fd: the descriptor that it is about, or -1.
Verdict judge(Call call, const void *caller, int fd = -1);

// CL_KIT_LIBRARY, CL_KIT_PROGRAM or what is neither.
uint8_t caller_class(const void *caller);
bool from_library(const void *caller);

// The index of this process's executable in the page.
uint16_t this_program();
// The place where a call comes from; 0 where nobody can tell (a program that is linked with the
// stand-ins). frames: as many as kFrames.
[[gnu::weak]] uint64_t site_of(Call call, Frame *frames, uint16_t *count);
// Finds the page the first time that a call is made.
[[gnu::weak]] void attach();
// This process has met a fault.
[[gnu::weak]] void met_fault();

struct Range {
    uintptr_t begin, end;  // of the code
    uintptr_t base;        // where the file's offset 0 is mapped
};
extern Range library_code, program_code;

// The C library's own.
#define KIT_REAL(name)                                 \
    [] {                                               \
        static decltype(&::name) original;             \
        if (original == nullptr) {                     \
            void *next = dlsym(RTLD_NEXT, #name);      \
            memcpy(&original, &next, sizeof original); \
        }                                              \
        return original;                               \
    }()

#define KIT_CALLER __builtin_return_address(0)

}  // namespace kit
