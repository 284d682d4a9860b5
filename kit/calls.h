// The functions of the C library that are stood in for.
//
// CALL(arguments, name, result of a failure) for those whose stand-in is nothing but the verdict
// and the call; TRANSFER the same, with a count of bytes as the third argument. The rest have a
// stand-in of their own in stand_ins.cpp or clock.cpp.
#pragma once

#include <cstdint>

// clang-format off
#define KIT_PLAIN_CALLS(CALL)                                                                     \
    CALL(3, bind, -1) CALL(1, chdir, -1) CALL(2, chmod, -1) CALL(1, close, -1)                    \
    CALL(3, connect, -1) CALL(1, dup, -1) CALL(2, dup2, -1) CALL(3, dup3, -1)                     \
    CALL(1, epoll_create1, -1)                                                                    \
    CALL(4, epoll_ctl, -1) CALL(2, eventfd, -1) CALL(2, execv, -1) CALL(3, execve, -1)            \
    CALL(1, fdatasync, -1) CALL(2, fopen, nullptr) CALL(2, fstat, -1) CALL(1, fsync, -1)          \
    CALL(2, ftruncate, -1) CALL(3, getpeername, -1) CALL(0, getpid, -1) CALL(5, getsockopt, -1)   \
    CALL(3, inotify_add_watch, -1)                                                                \
    CALL(1, inotify_init1, -1) CALL(2, kill, -1) CALL(2, link, -1) CALL(2, listen, -1)            \
    CALL(3, lseek, -1) CALL(2, lstat, -1) CALL(2, mkdir, -1) CALL(6, mmap, MAP_FAILED)            \
    CALL(2, munmap, -1) CALL(1, opendir, nullptr)                                                 \
    CALL(1, pipe, -1) CALL(2, pipe2, -1) CALL(4, pthread_create, errno)                           \
    CALL(3, pthread_sigmask, errno) CALL(3, readlink, -1) CALL(2, rename, -1) CALL(1, rmdir, -1)  \
    CALL(3, setenv, -1) CALL(2, setlocale, nullptr) CALL(5, setsockopt, -1)                       \
    CALL(2, shutdown, -1) CALL(3, sigaction, -1)                                                  \
    CALL(2, sigaddset, -1) CALL(1, sigemptyset, -1) CALL(2, signal, SIG_ERR)                      \
    CALL(3, signalfd, -1) CALL(3, sigprocmask, -1) CALL(3, socket, -1) CALL(4, socketpair, -1)    \
    CALL(2, stat, -1) CALL(2, symlink, -1)                                                        \
    CALL(1, unlink, -1) CALL(1, unsetenv, -1) CALL(3, waitpid, -1)
#define KIT_TRANSFER_CALLS(CALL)                                                                  \
    CALL(4, pread, -1) CALL(4, pwrite, -1) CALL(3, read, -1) CALL(4, recv, -1)                    \
    CALL(6, recvfrom, -1) CALL(4, send, -1) CALL(6, sendto, -1) CALL(3, write, -1)
#define KIT_OTHER_CALLS(CALL)                                                                     \
    CALL(accept) CALL(accept4) CALL(calloc) CALL(catclose) CALL(catgets) CALL(catopen)            \
    CALL(clock_gettime)                                                                           \
    CALL(clock_nanosleep) CALL(epoll_pwait) CALL(epoll_wait) CALL(fcntl) CALL(fork)               \
    CALL(gettimeofday)                                                                            \
    CALL(malloc) CALL(nanosleep) CALL(open) CALL(openat) CALL(poll) CALL(ppoll) CALL(pselect)     \
    CALL(readv) CALL(realloc) CALL(recvmsg) CALL(select) CALL(sendmsg)                            \
    CALL(setitimer) CALL(shm_open) CALL(shm_unlink) CALL(sysinfo) CALL(timerfd_create)            \
    CALL(timerfd_settime) CALL(writev)
// clang-format on

namespace kit {

enum Call : uint16_t {
#define KIT_CALL(count, name, failure) kCall_##name,
#define KIT_OTHER(name) kCall_##name,
    KIT_PLAIN_CALLS(KIT_CALL) KIT_TRANSFER_CALLS(KIT_CALL) KIT_OTHER_CALLS(KIT_OTHER)
#undef KIT_OTHER
#undef KIT_CALL
        kCallCount
};

const char *name_of(Call call);
Call call_named(const char *name);  // kCallCount when there is none
const int *errors_of(Call call);    // ends with 0
bool transfers(Call call);          // moves a count of bytes

}  // namespace kit
