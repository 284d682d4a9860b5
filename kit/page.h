// What a run is to be like, and what was seen of it: one page of memory that all its processes
// share. Linked into a test program, it is that program's; preloaded, it is a file that qvcl-kit
// made and whose path is in the environment.
#pragma once

#include <sys/types.h>

#include <atomic>

#include "kit/calls.h"

namespace kit {

constexpr const char *kPageVariable = "QVCL_KIT_PAGE";
constexpr uint64_t kMagic = 0x32746b6c63767120;  // changes with the page's layout

// One of a plan.
struct Fault {
    Call call;
    uint8_t from;
    bool swallow;
    bool made;  // the call is made all the same, and then fails
    int32_t error;
    int32_t nth;
    int32_t times;
    uint64_t at_most;
    uint64_t site;     // 0: any; else calls from there alone are counted
    char program[64];  // the executable's name; empty: any
    void (*before)(void *);
    void *context;
    std::atomic<int32_t> seen;
};

// A place that calls come from: the functions of the program and of the library that are open.
struct Frame {
    uint8_t library;  // 1: libqvcl.so; 0: the executable
    uint32_t offset;  // in the mapped file
};
constexpr size_t kFrames = 10;
struct Site {
    std::atomic<uint64_t> key;  // 0: none
    std::atomic<uint32_t> count;
    Call call;
    uint16_t program;  // index in Page::programs
    uint16_t frames;
    Frame frame[kFrames];
};

// A process that uses the library.
struct Member {
    std::atomic<int32_t> pid;
    uint16_t program;
    std::atomic<uint32_t> hits;  // faults that it has met
};

// Somebody who waits in virtual time.
struct Waiter {
    std::atomic<int32_t> thread;  // 0: none
    std::atomic<int32_t> process;
    std::atomic<uint64_t> until;             // when the wait is over at the latest
    std::atomic<uint64_t> found_nothing_at;  // Page::Clock::turn when it last looked in vain
};

// A process that stops until somebody has looked into it.
struct Halt {
    enum State : int32_t { kFree, kFilling, kHalted, kSeen };
    std::atomic<int32_t> state;
    int32_t pid;
    int32_t signal;  // 0: it ends
    int32_t status;  // with this exit status
    uint64_t address;
    uint16_t program;
};

enum ClockMode : uint32_t { kReal, kAhead, kVirtual };

struct Page {
    uint64_t magic;
    uint32_t fault_count;
    Fault faults[16];
    std::atomic<uint32_t> hits;
    uint64_t at_most;  // bytes of any transfer; 0: no limit
    uint64_t seed;     // 0: order
    uint8_t disorder_from;
    bool note_order;    // of the library's calls
    bool note_sites;    // where calls come from
    bool halt_at_ends;  // crashes, and ends of whoever has met a fault
    bool halt_at_all_ends;

    struct Clock {
        ClockMode mode;
        int64_t ahead;      // microseconds
        uint64_t settle;    // microseconds of real time without anything before time goes on
        int64_t monotonic;  // microseconds when it began
        int64_t real;
        std::atomic<uint64_t> now;   // microseconds since it began
        std::atomic<uint64_t> turn;  // changes when somebody goes on after a wait
        Waiter waiters[256];
    } clock;

    std::atomic<uint32_t> program_count;
    char programs[32][256];  // paths of executables, and of the library
    char library[256];
    Member members[256];
    Halt halts[16];
    char segments[16][64];  // shared memory made and not removed
    Site sites[8192];
    std::atomic<uint64_t> order_count;
    uint16_t order[1 << 20];
};

// The page of this process; null when there is none.
extern Page *page;

}  // namespace kit
