// The stand-ins, but for those that have to do with time (clock.cpp).
#include <dirent.h>
#include <fcntl.h>
#include <nl_types.h>
#include <pthread.h>
#include <qvcl/kit.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kit/judge.h"
#include "kit/outlets.h"

using namespace kit;

namespace {

// The types of a function's result and of its arguments.
template <class... Each>
struct Types;
template <class Result, class... Arguments>
Types<Result, Arguments...> *types_of(Result (*)(Arguments...));
template <size_t kIndex, class List>
struct At;
template <class First, class... Rest>
struct At<0, Types<First, Rest...> *> {
    using Type = First;
};
template <size_t kIndex, class First, class... Rest>
struct At<kIndex, Types<First, Rest...> *> : At<kIndex - 1, Types<Rest...> *> {};

// The descriptor that a call with that first argument is about.
inline int fd_of(int first) {
    return first;
}
template <class Other>
int fd_of(Other) {
    return -1;
}

// The call is made, and fails with the errno that is set.
template <class Call>
void make(const Call &call) {
    const int error = errno;
    call();
    errno = error;
}

// The parts of a transfer that are left of it when it may move no more than so many bytes.
class Parts {
  public:
    Parts(const struct iovec *parts, size_t count, uint64_t at_most)
        : parts_(const_cast<struct iovec *>(parts)), count_(count) {
        if (at_most == UINT64_MAX) return;
        for (count_ = 0; count_ < std::min(count, std::size(cut_)) && at_most != 0; ++count_) {
            const struct iovec &part = parts[count_];
            cut_[count_] = {part.iov_base, std::min<size_t>(part.iov_len, at_most)};
            at_most -= cut_[count_].iov_len;
        }
        parts_ = cut_;
    }
    struct iovec *parts() const {
        return parts_;
    }
    size_t count() const { return count_; }

  private:
    struct iovec *parts_;
    size_t count_;
    struct iovec cut_[16];
};

// Of two processes that make the same segment at once one may go unnoticed.
void note_segment(const char *name, bool made) {
    char(*free)[sizeof page->segments[0]] = nullptr;
    for (auto &segment : page->segments) {
        if (strncmp(segment, name, sizeof segment - 1) == 0) {
            if (!made) segment[0] = '\0';
            return;
        }
        if (segment[0] == '\0') free = &segment;
    }
    if (made && free != nullptr) strncpy(*free, name, sizeof *free - 1);
}

#ifndef QVCL_TSAN
bool looking_up;

// The function behind an allocator's stand-in. False while that is looked up, which may itself
// allocate: an early block, then.
template <class Function>
bool find_allocator(const char *name, Function *&original) {
    if (original == nullptr && !looking_up) {
        looking_up = true;
        void *found = dlsym(RTLD_NEXT, name);
        memcpy(&original, &found, sizeof original);
        looking_up = false;
    }
    return original != nullptr;
}

void *early_block(size_t size) {
    alignas(16) static char early[4096];
    static size_t used;
    void *block = early + used;
    used += (size + 15) & ~size_t{15};
    return used <= sizeof early ? block : nullptr;
}

// Not the allocations of others: judging is for those that a plan can be about.
bool refuses(Call call, const void *caller) {
    if (page == nullptr || (page->fault_count == 0 && !page->note_order && !page->note_sites))
        return false;
    return caller_class(caller) != 4 && judge(call, caller).fail;
}
#endif

}  // namespace

#define P(i, name, argument) At<i, decltype(types_of(&::name))>::Type argument
#define PARAMETERS_0(name)
#define PARAMETERS_1(name) P(1, name, a)
#define PARAMETERS_2(name) PARAMETERS_1(name), P(2, name, b)
#define PARAMETERS_3(name) PARAMETERS_2(name), P(3, name, c)
#define PARAMETERS_4(name) PARAMETERS_3(name), P(4, name, d)
#define PARAMETERS_5(name) PARAMETERS_4(name), P(5, name, e)
#define PARAMETERS_6(name) PARAMETERS_5(name), P(6, name, f)
#define PARAMETERS_7(name) PARAMETERS_6(name), P(7, name, g)
#define ARGUMENTS_0
#define ARGUMENTS_1 a
#define ARGUMENTS_2 a, b
#define ARGUMENTS_3 a, b, c
#define ARGUMENTS_4 a, b, c, d
#define ARGUMENTS_5 a, b, c, d, e
#define ARGUMENTS_6 a, b, c, d, e, f
#define ARGUMENTS_7 a, b, c, d, e, f, g
#define FIRST_0 0
#define FIRST_1 a
#define FIRST_2 a
#define FIRST_3 a
#define FIRST_4 a
#define FIRST_5 a
#define FIRST_6 a
#define FIRST_7 a

#define JUDGE(name, fd) const Verdict verdict = judge(kCall_##name, KIT_CALLER, fd)
// The function `name`, which plans know as `call`.
#define DEFINE_AS(call, count, name, failure, ...)                                             \
    P(0, name, name)(PARAMETERS_##count(name)) noexcept(noexcept(::name(ARGUMENTS_##count))) { \
        JUDGE(call, fd_of(FIRST_##count));                                                     \
        if (verdict.made) make([&] { KIT_REAL(name)(ARGUMENTS_##count); });                    \
        if (verdict.fail) return failure;                                                      \
        __VA_ARGS__;                                                                           \
        if (verdict.swallow) return {};                                                        \
        return KIT_REAL(name)(ARGUMENTS_##count);                                              \
    }
#define DEFINE(count, name, failure) DEFINE_AS(name, count, name, failure, )
#define SHORTEN c = std::min<size_t>(c, verdict.at_most)
#define DEFINE_TRANSFER(count, name, failure) DEFINE_AS(name, count, name, failure, SHORTEN)

extern "C" {

KIT_PLAIN_CALLS(DEFINE)
KIT_TRANSFER_CALLS(DEFINE_TRANSFER)

int open(const char *path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    JUDGE(open, -1);
    return verdict.fail ? -1 : KIT_REAL(open)(path, flags, mode);
}

int openat(int folder, const char *path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    JUDGE(openat, -1);
    return verdict.fail ? -1 : KIT_REAL(openat)(folder, path, flags, mode);
}

// What programs call that were compiled with checks of their buffers, and for large files.
int __open_2(const char *path, int flags);
int __open64_2(const char *path, int flags);
int __openat_2(int folder, const char *path, int flags);
int __openat64_2(int folder, const char *path, int flags);
ssize_t __read_chk(int fd, void *to, size_t size, size_t room);
ssize_t __pread_chk(int fd, void *to, size_t size, off_t at, size_t room);
ssize_t __pread64_chk(int fd, void *to, size_t size, off64_t at, size_t room);
ssize_t __readlink_chk(const char *path, char *to, size_t size, size_t room) noexcept;
ssize_t __recv_chk(int fd, void *to, size_t size, size_t room, int flags);
ssize_t __recvfrom_chk(int fd, void *to, size_t size, size_t room, int flags, struct sockaddr *peer,
                       socklen_t *length);
DEFINE_AS(open, 2, __open_2, -1, )
DEFINE_AS(open, 2, __open64_2, -1, )
DEFINE_AS(openat, 3, __openat_2, -1, )
DEFINE_AS(openat, 3, __openat64_2, -1, )
DEFINE_AS(read, 4, __read_chk, -1, SHORTEN)
DEFINE_AS(pread, 5, __pread_chk, -1, SHORTEN)
DEFINE_AS(pread, 5, __pread64_chk, -1, SHORTEN)
DEFINE_AS(readlink, 4, __readlink_chk, -1, )
DEFINE_AS(recv, 5, __recv_chk, -1, SHORTEN)
DEFINE_AS(recvfrom, 7, __recvfrom_chk, -1, SHORTEN)
// NOLINTNEXTLINE(bugprone-macro-parentheses): of a declaration
#define SAME(name, as) decltype(::name) name [[gnu::alias(#as)]]
SAME(fcntl64, fcntl);
SAME(fopen64, fopen);
SAME(fstat64, fstat);
SAME(ftruncate64, ftruncate);
SAME(lseek64, lseek);
SAME(lstat64, lstat);
SAME(mmap64, mmap);
SAME(open64, open);
SAME(openat64, openat);
SAME(pread64, pread);
SAME(pwrite64, pwrite);
SAME(stat64, stat);

#define DEFINE_PARTS(name)                                                     \
    ssize_t name(int fd, const struct iovec *parts, int count) {               \
        JUDGE(name, fd);                                                       \
        if (verdict.fail) return -1;                                           \
        const Parts cut(parts, static_cast<size_t>(count), verdict.at_most);   \
        return KIT_REAL(name)(fd, cut.parts(), static_cast<int>(cut.count())); \
    }
DEFINE_PARTS(readv)
DEFINE_PARTS(writev)

ssize_t recvmsg(int fd, struct msghdr *message, int flags) {
    JUDGE(recvmsg, fd);
    if (verdict.fail) return -1;
    const Parts cut(message->msg_iov, message->msg_iovlen, verdict.at_most);
    struct msghdr shorter = *message;
    shorter.msg_iov = cut.parts();
    shorter.msg_iovlen = cut.count();
    const ssize_t result = KIT_REAL(recvmsg)(fd, &shorter, flags);
    shorter.msg_iov = message->msg_iov;
    shorter.msg_iovlen = message->msg_iovlen;
    *message = shorter;
    return result;
}

ssize_t sendmsg(int fd, const struct msghdr *message, int flags) {
    JUDGE(sendmsg, fd);
    if (verdict.fail) return -1;
    const Parts cut(message->msg_iov, message->msg_iovlen, verdict.at_most);
    struct msghdr shorter = *message;
    shorter.msg_iov = cut.parts();
    shorter.msg_iovlen = cut.count();
    return KIT_REAL(sendmsg)(fd, &shorter, flags);
}

int fcntl(int fd, int command, ...) {
    va_list more;
    va_start(more, command);
    void *argument = va_arg(more, void *);
    va_end(more);
    JUDGE(fcntl, fd);
    return verdict.fail ? -1 : KIT_REAL(fcntl)(fd, command, argument);
}

int accept(int fd, struct sockaddr *address, socklen_t *length) {
    JUDGE(accept, fd);
    return verdict.fail ? -1 : KIT_REAL(accept)(fd, address, length);
}

int accept4(int fd, struct sockaddr *address, socklen_t *length, int flags) {
    JUDGE(accept4, fd);
    return verdict.fail ? -1 : KIT_REAL(accept4)(fd, address, length, flags);
}

// What is made is noted until it is removed, for whoever asks what a run has left.
int shm_open(const char *name, int flags, mode_t mode) {
    JUDGE(shm_open, -1);
    if (verdict.fail) return -1;
    const int fd = KIT_REAL(shm_open)(name, flags, mode);
    if (fd >= 0 && (flags & O_CREAT) != 0 && page != nullptr) note_segment(name, true);
    return fd;
}

int shm_unlink(const char *name) {
    JUDGE(shm_unlink, -1);
    if (verdict.fail) return -1;
    const int result = KIT_REAL(shm_unlink)(name);
    if (result == 0 && page != nullptr) note_segment(name, false);
    return result;
}

nl_catd catopen(const char *name, int flag) {
    JUDGE(catopen, -1);
    const bool own = outlets.catalogue && from_library(KIT_CALLER);
    if (verdict.fail || (own && outlets.text == nullptr)) return reinterpret_cast<nl_catd>(-1);
    if (!own) return KIT_REAL(catopen)(name, flag);
    ++outlets.open_catalogues;
    return &outlets;
}

char *catgets(nl_catd open, int set, int number, const char *fallback) noexcept {
    JUDGE(catgets, -1);
    if (!verdict.fail && open != &outlets) return KIT_REAL(catgets)(open, set, number, fallback);
    const char *own = !verdict.fail && set == 1 && outlets.text != nullptr
                          ? outlets.text(number, outlets.text_context)
                          : nullptr;
    return const_cast<char *>(own != nullptr ? own : fallback);
}

int catclose(nl_catd open) noexcept {
    JUDGE(catclose, -1);
    if (verdict.fail) return -1;
    if (open != &outlets) return KIT_REAL(catclose)(open);
    --outlets.open_catalogues;
    return 0;
}

// What is told of in the log's lines; else it goes where it always does.
void openlog(const char *identity, int options, int facility) {
    snprintf(outlets.identity, sizeof outlets.identity, "%s/%d/%d/", identity, options, facility);
    if (outlets.line == nullptr) KIT_REAL(openlog)(identity, options, facility);
}
#define PASS_LINE                                                                            \
    va_list arguments;                                                                       \
    va_start(arguments, format);                                                             \
    if (outlets.line == nullptr) {                                                           \
        KIT_REAL(vsyslog)(priority, format, arguments);                                      \
    } else {                                                                                 \
        char text[2400];                                                                     \
        const int length = snprintf(text, sizeof text, "%s%d/", outlets.identity, priority); \
        vsnprintf(text + length, 2048, format, arguments);                                   \
        outlets.line(text, outlets.line_context);                                            \
    }                                                                                        \
    va_end(arguments)

void syslog(int priority, const char *format, ...) {
    PASS_LINE;
}
// What a fortified library calls.
[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int, const char *format, ...) {
    PASS_LINE;
}
void closelog() {
    outlets.identity[0] = '\0';
    if (outlets.line == nullptr) KIT_REAL(closelog)();
}

// The thread sanitizer wants its own allocator to be called first of all.
#ifndef QVCL_TSAN
void *malloc(size_t size) noexcept {
    static void *(*original)(size_t);
    if (!find_allocator("malloc", original)) return early_block(size);
    return refuses(kCall_malloc, KIT_CALLER) ? nullptr : original(size);
}
void *calloc(size_t count, size_t size) noexcept {
    static void *(*original)(size_t, size_t);
    if (!find_allocator("calloc", original)) return early_block(count * size);
    return refuses(kCall_calloc, KIT_CALLER) ? nullptr : original(count, size);
}
void *realloc(void *block, size_t size) noexcept {
    static void *(*original)(void *, size_t);
    if (!find_allocator("realloc", original)) return block == nullptr ? early_block(size) : nullptr;
    return refuses(kCall_realloc, KIT_CALLER) ? nullptr : original(block, size);
}
#endif

}  // extern "C"
