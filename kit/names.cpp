// Names of the calls, and what errno each can have.
#include <cerrno>
#include <cstring>

#include "kit/calls.h"

namespace kit {

namespace {

struct Row {
    const char *call;
    int errors[9];
};

// As their manual pages say, without those that tell of a mistake of the caller's (EBADF, EFAULT,
// EINVAL ...). EINTR is among them where the call can wait.
const Row kErrors[] = {
    {"accept", {EAGAIN, ECONNABORTED, EINTR, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM}},
    {"accept4", {EAGAIN, ECONNABORTED, EINTR, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM}},
    {"bind", {EACCES, EADDRINUSE, ENOENT, ENOMEM, ENOTDIR, EROFS}},
    {"calloc", {ENOMEM}},
    {"catclose", {EINTR}},
    {"catgets", {EINTR}},
    {"catopen", {EACCES, EMFILE, ENFILE, ENOENT, ENOMEM}},
    {"chdir", {EACCES, EIO, ENOENT, ENOTDIR}},
    {"chmod", {EACCES, EIO, ENOENT, EPERM, EROFS}},
    {"clock_nanosleep", {EINTR}},
    {"close", {EINTR, EIO, ENOSPC}},
    {"connect", {EACCES, EAGAIN, ECONNREFUSED, EINPROGRESS, EINTR, ENOENT, ETIMEDOUT}},
    {"dup", {EMFILE}},
    {"dup2", {EBUSY, EINTR, EMFILE}},
    {"dup3", {EBUSY, EINTR, EMFILE}},
    {"epoll_create1", {EMFILE, ENFILE, ENOMEM}},
    {"epoll_ctl", {ENOMEM, ENOSPC}},
    {"epoll_pwait", {EINTR}},
    {"epoll_wait", {EINTR}},
    {"eventfd", {EMFILE, ENFILE, ENOMEM}},
    {"execv", {E2BIG, EACCES, EIO, ENOENT, ENOEXEC, ENOMEM, ETXTBSY}},
    {"execve", {E2BIG, EACCES, EIO, ENOENT, ENOEXEC, ENOMEM, ETXTBSY}},
    {"fcntl", {EAGAIN, EINTR, EMFILE}},
    {"fdatasync", {EINTR, EIO, ENOSPC}},
    {"fopen", {EACCES, EMFILE, ENFILE, ENOENT, ENOMEM, ENOSPC}},
    {"fork", {EAGAIN, ENOMEM}},
    {"fstat", {EIO, EOVERFLOW}},
    {"fsync", {EINTR, EIO, ENOSPC}},
    {"ftruncate", {EFBIG, EINTR, EIO, ENOSPC}},
    {"getpeername", {ENOBUFS, ENOTCONN}},
    {"inotify_add_watch", {EACCES, ENOENT, ENOMEM, ENOSPC}},
    {"inotify_init1", {EMFILE, ENFILE, ENOMEM}},
    {"kill", {EPERM, ESRCH}},
    {"link", {EACCES, EEXIST, ENOENT, ENOSPC, EPERM, EROFS, EXDEV}},
    {"listen", {EADDRINUSE}},
    {"lseek", {EOVERFLOW, ESPIPE}},
    {"lstat", {EACCES, EIO, ENOENT}},
    {"malloc", {ENOMEM}},
    {"mkdir", {EACCES, EEXIST, ENOENT, ENOSPC, EROFS}},
    {"mmap", {EAGAIN, ENFILE, ENODEV, ENOMEM}},
    {"munmap", {ENOMEM}},
    {"nanosleep", {EINTR}},
    {"open", {EACCES, EINTR, EIO, EMFILE, ENFILE, ENOENT, ENOSPC, EROFS}},
    {"openat", {EACCES, EINTR, EIO, EMFILE, ENFILE, ENOENT, ENOSPC, EROFS}},
    {"opendir", {EACCES, EMFILE, ENFILE, ENOENT, ENOMEM}},
    {"pipe", {EMFILE, ENFILE}},
    {"pipe2", {EMFILE, ENFILE}},
    {"poll", {EINTR, ENOMEM}},
    {"ppoll", {EINTR, ENOMEM}},
    {"pread", {EAGAIN, EINTR, EIO}},
    {"pselect", {EINTR, ENOMEM}},
    {"pthread_create", {EAGAIN}},
    {"pwrite", {EAGAIN, EDQUOT, EFBIG, EINTR, EIO, ENOSPC}},
    {"read", {EAGAIN, EINTR, EIO}},
    {"readlink", {EACCES, EIO, ENOENT}},
    {"readv", {EAGAIN, EINTR, EIO}},
    {"realloc", {ENOMEM}},
    {"recv", {EAGAIN, ECONNRESET, EINTR, ENOMEM}},
    {"recvfrom", {EAGAIN, ECONNRESET, EINTR, ENOMEM}},
    {"recvmsg", {EAGAIN, ECONNRESET, EINTR, ENOMEM}},
    {"rename", {EACCES, EIO, ENOENT, ENOSPC, EROFS, EXDEV}},
    {"rmdir", {EACCES, EBUSY, ENOENT, ENOTEMPTY, EROFS}},
    {"select", {EINTR, ENOMEM}},
    {"send", {EAGAIN, ECONNRESET, EINTR, ENOBUFS, ENOMEM, EPIPE}},
    {"sendmsg", {EAGAIN, ECONNRESET, EINTR, ENOBUFS, ENOMEM, EPIPE}},
    {"sendto", {EAGAIN, ECONNREFUSED, EINTR, ENOBUFS, ENOMEM, EPIPE}},
    {"setenv", {ENOMEM}},
    {"setlocale", {ENOMEM}},
    {"setsockopt", {ENOBUFS, ENOMEM}},
    {"shm_open", {EACCES, EEXIST, EMFILE, ENFILE, ENOENT, ENOSPC}},
    {"shm_unlink", {EACCES, ENOENT}},
    {"shutdown", {ENOTCONN}},
    {"signalfd", {EMFILE, ENFILE, ENODEV, ENOMEM}},
    {"socket", {EACCES, EAFNOSUPPORT, EMFILE, ENFILE, ENOBUFS, ENOMEM}},
    {"socketpair", {EMFILE, ENFILE, ENOMEM}},
    {"stat", {EACCES, EIO, ENOENT}},
    {"symlink", {EACCES, EEXIST, ENOENT, ENOSPC, EROFS}},
    {"timerfd_create", {EMFILE, ENFILE, ENODEV, ENOMEM}},
    {"unlink", {EACCES, EBUSY, EIO, ENOENT, EPERM, EROFS}},
    {"waitpid", {ECHILD, EINTR}},
    {"write", {EAGAIN, EDQUOT, EFBIG, EINTR, EIO, ENOSPC, EPIPE}},
    {"writev", {EAGAIN, EDQUOT, EFBIG, EINTR, EIO, ENOSPC, EPIPE}},
};

// The others cannot fail for valid arguments; a program that looks at their result must still be
// right.
const Row kOther = {"", {}};

constexpr const char *kNames[] = {
#define KIT_CALL(count, name, failure) #name,
#define KIT_OTHER(name) #name,
    KIT_PLAIN_CALLS(KIT_CALL) KIT_TRANSFER_CALLS(KIT_CALL) KIT_OTHER_CALLS(KIT_OTHER)};
constexpr const char *kTransfers[] = {KIT_TRANSFER_CALLS(KIT_CALL) KIT_OTHER(readv)
                                          KIT_OTHER(recvmsg) KIT_OTHER(sendmsg) KIT_OTHER(writev)};

}  // namespace

const char *name_of(Call call) {
    return kNames[call];
}

Call call_named(const char *name) {
    for (uint16_t i = 0; i < kCallCount; ++i)
        if (strcmp(kNames[i], name) == 0) return static_cast<Call>(i);
    return kCallCount;
}

const int *errors_of(Call call) {
    for (const Row &row : kErrors)
        if (strcmp(row.call, kNames[call]) == 0) return row.errors;
    return kOther.errors;
}

bool transfers(Call call) {
    for (const char *name : kTransfers)
        if (strcmp(name, kNames[call]) == 0) return true;
    return false;
}

}  // namespace kit
