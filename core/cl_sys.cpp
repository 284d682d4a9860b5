// System calls that survive the library's signals, and a few utilities.
//
// Every wrapper is one line over one retry: the library keeps handlers installed, so any call can
// come back with EINTR at any time.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include <cerrno>

#include <qvcl/main.h>
#include <qvcl/system.h>

#include "core/fd_sets.h"

namespace {

// Calls again while the call returns its failure value and was interrupted.
template <class Result, class Call>
Result retry(Result failure, Call call) {
    for (;;) {
        const Result result = call();
        if (result != failure || errno != EINTR) return result;
    }
}

template <class Call>
int retry(Call call) {
    return retry(-1, call);
}

// A descriptor number that changes hands is not ready any more: what the running iteration of the
// loop found out about it was about whoever had it before. It counts when the number is given up,
// and when it is given out too, because an application may close with a call of its own. Returns
// the number. Atomic, because the wrappers work on any thread; a number that is in no set is only
// looked at.
int not_ready(int fd) {
    if (fd < 0 || fd >= FD_SETSIZE || CL_MainTable == nullptr) return fd;
    const auto number = static_cast<uint32_t>(fd);
    const uint64_t bit = qvcl::bit_of(number);
    for (const auto set : qvcl::kSets) {
        uint64_t *word = qvcl::words(CL_MainTable->sets.*set) + qvcl::word_of(number);
        if ((__atomic_load_n(word, __ATOMIC_RELAXED) & bit) != 0) {
            __atomic_fetch_and(word, ~bit, __ATOMIC_RELAXED);
        }
    }
    return fd;
}

}  // namespace

int cl_u_gettimeofday(struct timeval *time, void *zone) {
    return retry([=] { return gettimeofday(time, zone); });
}
int cl_u_shm_open(const char *name, int flags, mode_t mode) {
    return not_ready(retry([=] { return shm_open(name, flags, mode); }));
}
int cl_u_shm_unlink(const char *name) {
    return retry([=] { return shm_unlink(name); });
}
int cl_u_kill(pid_t pid, int signal) {
    return retry([=] { return kill(pid, signal); });
}
int cl_u_sigemptyset(sigset_t *set) {
    return retry([=] { return sigemptyset(set); });
}
int cl_u_sigaddset(sigset_t *set, int signal) {
    return retry([=] { return sigaddset(set, signal); });
}
int cl_u_sigaction(int signal, const struct sigaction *action, struct sigaction *old) {
    return retry([=] { return sigaction(signal, action, old); });
}
int cl_u_sigprocmask(int how, const sigset_t *set, sigset_t *old) {
    return retry([=] { return sigprocmask(how, set, old); });
}
int cl_u_pthread_sigmask(int how, const sigset_t *set, sigset_t *old) {
    return retry([=] { return pthread_sigmask(how, set, old); });
}
int cl_u_ftruncate(int fd, off_t length) {
    return retry([=] { return ftruncate(fd, length); });
}
void *cl_u_mmap(void *address, size_t length, int protection, int flags, int fd, off_t offset) {
    return retry(MAP_FAILED, [=] { return mmap(address, length, protection, flags, fd, offset); });
}
int cl_u_munmap(void *address, size_t length) {
    return retry([=] { return munmap(address, length); });
}
int cl_u_open(const char *path, int flags, mode_t mode) {
    return not_ready(retry([=] { return open(path, flags, mode); }));
}
int cl_u_close(int fd) {
    not_ready(fd);
    return retry([=] { return close(fd); });
}
int64_t cl_u_write(int fd, const void *data, size_t length) {
    return retry([=] { return static_cast<int>(write(fd, data, length)); });
}
int64_t cl_u_read(int fd, void *data, size_t length) {
    return retry([=] { return static_cast<int>(read(fd, data, length)); });
}
int cl_u_fdatasync(int fd) {
    return retry([=] { return fdatasync(fd); });
}
int cl_u_chmod(const char *path, mode_t mode) {
    return retry([=] { return chmod(path, mode); });
}
int cl_u_unlink(const char *path) {
    return retry([=] { return unlink(path); });
}
int cl_u_fcntl(int fd, int command, int argument) {
    return retry([=] { return fcntl(fd, command, argument); });
}
int cl_u_socket(int domain, int type, int protocol) {
    return not_ready(retry([=] { return socket(domain, type, protocol); }));
}
int cl_u_bind(int fd, const struct sockaddr *address, socklen_t length) {
    return retry([=] { return bind(fd, address, length); });
}
int cl_u_listen(int fd, int backlog) {
    return retry([=] { return listen(fd, backlog); });
}
int cl_u_accept(int fd, struct sockaddr *address, socklen_t *length) {
    return not_ready(retry([=] { return accept(fd, address, length); }));
}
int cl_u_connect(int fd, const struct sockaddr *address, socklen_t length) {
    return retry([=] { return connect(fd, address, length); });
}
int32_t cl_u_send(int fd, const void *data, size_t length, int flags) {
    return retry([=] { return static_cast<int>(send(fd, data, length, flags)); });
}
int32_t cl_u_recv(int fd, void *data, size_t length, int flags) {
    return retry([=] { return static_cast<int>(recv(fd, data, length, flags)); });
}
pid_t cl_u_fork() {
    return retry([] { return fork(); });
}
int cl_u_execv(const char *path, char *const arguments[]) {
    return retry([=] { return execv(path, arguments); });
}
pid_t cl_u_waitpid(pid_t pid, int *status, int options) {
    return retry([=] { return waitpid(pid, status, options); });
}
int cl_u_setitimer(int which, const struct itimerval *value, struct itimerval *old) {
    return retry([=] { return setitimer(static_cast<__itimer_which_t>(which), value, old); });
}
nl_catd cl_u_catopen(const char *name, int flag) {
    return retry(reinterpret_cast<nl_catd>(-1), [=] { return catopen(name, flag); });
}
int cl_u_catclose(nl_catd catalogue) {
    return retry([=] { return catclose(catalogue); });
}
int cl_u_chdir(const char *path) {
    return retry([=] { return chdir(path); });
}
int cl_u_sysinfo(struct sysinfo *info) {
    return retry([=] { return sysinfo(info); });
}

int cl_u_nanosleep(const struct timespec *request, struct timespec *remaining) {
    struct timespec wanted = *request;
    struct timespec left = remaining != nullptr ? *remaining : timespec{};
    for (;;) {
        const int result = nanosleep(&wanted, &left);
        if (result != -1 || errno != EINTR) return result;
        wanted = left;
    }
}

CL_SignalHandler cl_u_signal(int signal, CL_SignalHandler handler) {
    return ::signal(signal, handler);
}
pid_t cl_u_getpid() {
    return getpid();
}
char *cl_u_setlocale(int category, const char *locale) {
    return setlocale(category, locale);
}
int cl_u_setenv(const char *name, const char *value, int overwrite) {
    return setenv(name, value, overwrite);
}
int cl_u_unsetenv(const char *name) {
    return unsetenv(name);
}
char *cl_u_catgets(nl_catd catalogue, int set, int number, const char *fallback) {
    return catgets(catalogue, set, number, fallback);
}

uint64_t CL_GetTime_M(uint64_t *microseconds) {
    struct timeval now;
    if (cl_u_gettimeofday(&now, nullptr) != 0) return 0;
    if (microseconds != nullptr) *microseconds = static_cast<uint64_t>(now.tv_usec);
    return static_cast<uint64_t>(now.tv_sec);
}

uint32_t CL_GetPid() {
    return static_cast<uint32_t>(cl_u_getpid());
}

int CL_Sleep(uint32_t milliseconds) {
    const struct timespec request = {.tv_sec = static_cast<time_t>(milliseconds / 1000),
                                     .tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000};
    return cl_u_nanosleep(&request, nullptr);
}

const char *cl_GetEnvValue(const char *name) {
    return getenv(name);
}

char *cl_strtok(char *text, const char *delimiters, char **saved) {
    return strtok_r(text, delimiters, saved);
}
