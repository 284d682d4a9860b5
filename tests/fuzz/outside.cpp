// The stand-ins: the program comes first in the search order, so the library's calls arrive here.
#include "tests/fuzz/outside.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

// There when the address sanitizer is.
// NOLINTNEXTLINE(readability-identifier-naming)
extern "C" [[gnu::weak]] void *__asan_region_is_poisoned(void *begin, size_t size);

namespace outside {

World world;

void require(bool fine, const char *what) {
    if (fine) return;
    world.on = false;
    fprintf(stderr, "calls_fuzz: %s\n", what);
    abort();
}

bool World::raise(int signal) {
    const auto handler = handlers.find(signal);
    if (handler == handlers.end() || handler->second == SIG_IGN || handler->second == SIG_DFL)
        return false;
    handler->second(signal);
    return true;
}

namespace {

// Whether the call fails, with errno set; else how many bytes it may move.
bool fails(std::string_view call, size_t *bytes = nullptr) {
    Fault &fault = world.fault;
    if (!world.on || fault.call != call || fault.times == 0) return false;
    if (fault.nth > 1) {
        --fault.nth;
        return false;
    }
    --fault.times;
    ++world.hits;
    if (fault.error == 0) {
        if (bytes != nullptr) *bytes = std::min(*bytes, fault.at_most);
        return false;
    }
    errno = fault.error;
    return true;
}

int hold(int descriptor) {
    if (world.on && descriptor >= 0) world.held.set(static_cast<size_t>(descriptor));
    return descriptor;
}

// The kernel writes past the sanitizer's eyes.
void require_memory(void *data, int64_t length) {
    void *(*const is_poisoned)(void *, size_t) = __asan_region_is_poisoned;
    if (length <= 0 || is_poisoned == nullptr) return;
    require(is_poisoned(data, static_cast<size_t>(length)) == nullptr,
            "bytes read into memory that is not there");
}

}  // namespace
}  // namespace outside

using outside::fails;
using outside::hold;
using outside::world;

#define REAL(name) reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name))
#define CACHED(name) static const auto real = REAL(name)

// Stands in for a function that only may fail.
#define PLAIN(result, name, parameters, arguments, specifier) \
    result name parameters specifier {                        \
        CACHED(name);                                         \
        return fails(#name) ? -1 : real arguments;            \
    }

extern "C" {

PLAIN(int, bind, (int fd, const struct sockaddr *address, socklen_t length), (fd, address, length),
      noexcept)
PLAIN(int, chmod, (const char *path, mode_t mode), (path, mode), noexcept)
PLAIN(int, connect, (int fd, const struct sockaddr *address, socklen_t length),
      (fd, address, length), )
PLAIN(int, fdatasync, (int fd), (fd), )
PLAIN(int, listen, (int fd, int backlog), (fd, backlog), noexcept)
PLAIN(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), noexcept)
PLAIN(int, shm_unlink, (const char *name), (name), )
PLAIN(int, unlink, (const char *path), (path), noexcept)
PLAIN(int, sigprocmask, (int how, const sigset_t *set, sigset_t *old), (how, set, old), noexcept)

int pthread_sigmask(int how, const sigset_t *set, sigset_t *old) noexcept {
    CACHED(pthread_sigmask);
    return fails("pthread_sigmask") ? errno : real(how, set, old);
}

int fcntl(int fd, int command, ...) {
    CACHED(fcntl);
    va_list more;
    va_start(more, command);
    void *argument = va_arg(more, void *);
    va_end(more);
    return fails("fcntl") ? -1 : real(fd, command, argument);
}

int open(const char *path, int flags, ...) {
    CACHED(open);
    va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    return fails("open") ? -1 : hold(real(path, flags, mode));
}

int shm_open(const char *name, int flags, mode_t mode) {
    CACHED(shm_open);
    return fails("shm_open") ? -1 : hold(real(name, flags, mode));
}

// A fault without an error gives a descriptor that no set can hold.
int socket(int domain, int type, int protocol) noexcept {
    CACHED(socket);
    size_t room = SIZE_MAX;
    if (fails("socket", &room)) return -1;
    const int low = real(domain, type, protocol);
    if (room == SIZE_MAX || low == -1) return hold(low);
    const int high = fcntl(low, F_DUPFD, FD_SETSIZE);
    REAL(close)(low);
    return hold(high);
}

int accept(int fd, struct sockaddr *address, socklen_t *length) {
    CACHED(accept);
    return fails("accept") ? -1 : hold(real(fd, address, length));
}

int close(int fd) {
    CACHED(close);
    if (!world.on) return real(fd);
    outside::require(fd >= 0 && world.held.test(static_cast<size_t>(fd)),
                     "somebody else's descriptor closed");
    if (fails("close")) {
        ++world.not_closed;
        return -1;
    }
    world.held.reset(static_cast<size_t>(fd));
    return real(fd);
}

ssize_t read(int fd, void *data, size_t length) {
    CACHED(read);
    if (fails("read", &length)) return -1;
    const ssize_t result = real(fd, data, length);
    outside::require_memory(data, result);
    return result;
}

ssize_t recv(int fd, void *data, size_t length, int flags) {
    CACHED(recv);
    if (fails("recv", &length)) return -1;
    const ssize_t result = real(fd, data, length, flags);
    outside::require_memory(data, result);
    return result;
}

ssize_t send(int fd, const void *data, size_t length, int flags) {
    CACHED(send);
    return fails("send", &length) ? -1 : real(fd, data, length, flags);
}

ssize_t write(int fd, const void *data, size_t length) {
    CACHED(write);
    return fails("write", &length) ? -1 : real(fd, data, length);
}

void *mmap(void *address, size_t length, int protection, int flags, int fd, off_t offset) noexcept {
    CACHED(mmap);
    if (fails("mmap")) return MAP_FAILED;
    void *result = real(address, length, protection, flags, fd, offset);
    if (world.on && result != MAP_FAILED) ++world.mappings;
    return result;
}

int munmap(void *address, size_t length) noexcept {
    CACHED(munmap);
    if (fails("munmap")) return -1;
    const int result = real(address, length);
    if (world.on && result == 0) --world.mappings;
    return result;
}

int sysinfo(struct sysinfo *info) noexcept {
    CACHED(sysinfo);
    if (!world.on) return real(info);
    if (fails("sysinfo")) return -1;
    *info = {};
    info->uptime = world.uptime;
    return 0;
}

int setitimer(__itimer_which_t which, const struct itimerval *value,
              struct itimerval *old) noexcept {
    CACHED(setitimer);
    if (!world.on) return real(which, value, old);
    if (fails("setitimer")) return -1;
    world.ticking = value->it_value.tv_sec != 0;
    return 0;
}

int sigaction(int signal, const struct sigaction *action, struct sigaction *old) noexcept {
    CACHED(sigaction);
    if (!world.on) return real(signal, action, old);
    if (fails("sigaction")) return -1;
    if (old != nullptr) {
        *old = {};
        old->sa_handler = world.handlers[signal];
    }
    if (action != nullptr) world.handlers[signal] = action->sa_handler;
    return 0;
}

__sighandler_t signal(int signal, __sighandler_t handler) noexcept {
    CACHED(signal);
    if (!world.on) return real(signal, handler);
    if (fails("signal")) return SIG_ERR;
    return std::exchange(world.handlers[signal], handler);
}

int kill(pid_t pid, int signal) noexcept {
    CACHED(kill);
    if (!world.on) return real(pid, signal);
    if (fails("kill")) return -1;
    const auto child = world.children.find(pid);
    outside::require(child != world.children.end(), "a signal to somebody else's process");
    if (!child->second.ended) child->second = {true, signal};
    return 0;
}

pid_t waitpid(pid_t pid, int *status, int options) {
    CACHED(waitpid);
    if (!world.on) return real(pid, status, options);
    if (fails("waitpid")) return -1;
    const auto child = world.children.find(pid);
    if (child == world.children.end()) {
        errno = ECHILD;
        return -1;
    }
    if (!child->second.ended) {
        outside::require((options & WNOHANG) != 0, "waits for a child that does not end");
        return 0;
    }
    if (status != nullptr) *status = child->second.status;
    world.children.erase(child);
    return pid;
}

// Nothing ready: the world takes a step, until a signal comes or something is ready.
int pselect(int count, fd_set *read, fd_set *write, fd_set *except, const struct timespec *limit,
            const sigset_t *mask) {
    CACHED(pselect);
    if (!world.on) return real(count, read, write, except, limit, mask);
    if (fails("pselect")) return -1;
    fd_set *const sets[] = {read, write, except};
    fd_set asked[3];
    for (size_t i = 0; i < 3; ++i)
        if (sets[i] != nullptr) asked[i] = *sets[i];
    for (;;) {
        const struct timespec now = {};
        const int result = real(count, read, write, except, &now, nullptr);
        if (result < 0) return result;
        if (world.waits == 0) {
            errno = EIO;
            return -1;
        }
        --world.waits;
        if (result > 0) return result;
        for (size_t i = 0; i < 3; ++i)
            if (sets[i] != nullptr) *sets[i] = asked[i];
        if (world.step()) {
            errno = EINTR;
            return -1;
        }
    }
}

}  // extern "C"
