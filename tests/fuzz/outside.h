// The world of calls_fuzz: what is outside the library, in one process and without waiting.
//
// Time, signals and children are made up: they move only when an input says so, handlers are called
// like functions, and a wait in which nothing is ready lets the world take its next step instead of
// sleeping. Sockets, files and mappings are real ones, and every one that the library opens is
// noted, so that it can close only what is its own and leave nothing open.
#pragma once

#include <sys/types.h>

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>

namespace outside {

// What a fault does to the calls of one function.
struct Fault {
    std::string_view call;
    int error = 0;              // 0: it is shortened, not refused
    unsigned nth = 1;           // from this one on,
    unsigned times = 1;         // as many
    size_t at_most = SIZE_MAX;  // bytes of a transfer
};
constexpr std::string_view kCalls[] = {
    "accept",    "bind",       "chmod",     "close",       "connect", "fcntl",
    "fdatasync", "kill",       "listen",    "lseek",       "mmap",    "munmap",
    "open",      "pselect",    "read",      "recv",        "send",    "pthread_sigmask",
    "shm_open",  "shm_unlink", "setitimer", "signal",      "socket",  "sysinfo",
    "sigaction", "unlink",     "waitpid",   "sigprocmask", "write"};

struct Child {
    bool ended = false;
    int status = 0;
};

struct World {
    bool on = false;  // the library is running: its calls are looked at
    Fault fault;
    unsigned hits = 0;         // calls that faults have changed
    unsigned waits = 0;        // that are left; then they fail
    bool (*step)() = nullptr;  // the world's next step; whether a signal came
    long uptime = 0;
    bool ticking = false;
    std::map<int, void (*)(int)> handlers;
    std::map<pid_t, Child> children;  // not reaped
    std::bitset<4096> held;           // the library's descriptors
    int mappings = 0;
    unsigned not_closed = 0;

    // The signal comes; whether anybody hears it.
    bool raise(int signal);
};
extern World world;

// The harness calls the C library, or looks at what the library did.
struct Paused {
    Paused() { world.on = false; }
    ~Paused() { world.on = true; }
    Paused(const Paused &) = delete;
    Paused &operator=(const Paused &) = delete;
};

// Stops everything when something is not as it has to be.
void require(bool fine, const char *what);

}  // namespace outside
