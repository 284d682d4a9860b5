// The stand-ins, but for those that have to do with time (clock.cpp).
#include <fcntl.h>
#include <nl_types.h>
#include <pthread.h>
#include <qvcl/kit.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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

}  // namespace

#define P(i, name, argument) At<i, decltype(types_of(&::name))>::Type argument
#define PARAMETERS_0(name)
#define PARAMETERS_1(name) P(1, name, a)
#define PARAMETERS_2(name) PARAMETERS_1(name), P(2, name, b)
#define PARAMETERS_3(name) PARAMETERS_2(name), P(3, name, c)
#define PARAMETERS_4(name) PARAMETERS_3(name), P(4, name, d)
#define PARAMETERS_5(name) PARAMETERS_4(name), P(5, name, e)
#define PARAMETERS_6(name) PARAMETERS_5(name), P(6, name, f)
#define ARGUMENTS_0
#define ARGUMENTS_1 a
#define ARGUMENTS_2 a, b
#define ARGUMENTS_3 a, b, c
#define ARGUMENTS_4 a, b, c, d
#define ARGUMENTS_5 a, b, c, d, e
#define ARGUMENTS_6 a, b, c, d, e, f
#define FIRST_0 0
#define FIRST_1 a
#define FIRST_2 a
#define FIRST_3 a
#define FIRST_4 a
#define FIRST_5 a
#define FIRST_6 a

#define JUDGE(name, fd) const Verdict verdict = judge(kCall_##name, KIT_CALLER, fd)
#define DEFINE(count, name, failure, ...)                                                      \
    P(0, name, name)(PARAMETERS_##count(name)) noexcept(noexcept(::name(ARGUMENTS_##count))) { \
        JUDGE(name, fd_of(FIRST_##count));                                                     \
        if (verdict.made) make([&] { KIT_REAL(name)(ARGUMENTS_##count); });                    \
        if (verdict.fail) return failure;                                                      \
        __VA_ARGS__;                                                                           \
        if (verdict.swallow) return {};                                                        \
        return KIT_REAL(name)(ARGUMENTS_##count);                                              \
    }
#define DEFINE_TRANSFER(count, name, failure) \
    DEFINE(count, name, failure, c = std::min<size_t>(c, verdict.at_most))

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

// The look-up may itself allocate. The thread sanitizer wants its own allocator to be called first
// of all.
#ifndef QVCL_TSAN
void *malloc(size_t size) noexcept {
    static void *(*original)(size_t);
    static bool looking;
    if (original == nullptr) {
        alignas(16) static char early[4096];
        static size_t used;
        if (looking) {
            void *block = early + used;
            used += (size + 15) & ~size_t{15};
            return used <= sizeof early ? block : nullptr;
        }
        looking = true;
        void *found = dlsym(RTLD_NEXT, "malloc");
        memcpy(&original, &found, sizeof original);
        looking = false;
    }
    // Not the allocations of others: judging is for those that a plan can be about.
    if (page != nullptr && (page->fault_count != 0 || page->note_order || page->note_sites)) {
        const void *caller = KIT_CALLER;
        if (caller_class(caller) != 4 && judge(kCall_malloc, caller).fail) return nullptr;
    }
    return original(size);
}
#endif

}  // extern "C"
