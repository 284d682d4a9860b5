// Signals as events: one signalfd for all that are watched, which the calling thread has blocked.
#include <qvcl/qvcl.h>
#include <cerrno>

#include "starter/nest.h"

namespace qvcl::nest {

namespace {

constexpr Failure fail{place(__FILE__)};

// A fault that comes while it is blocked ends the process.
bool tells_of_fault(int signal) {
    switch (signal) {
        case SIGSEGV:
        case SIGBUS:
        case SIGFPE:
        case SIGILL:
        case SIGABRT:
        case SIGSYS:
        case SIGTRAP:
            return true;
        default:
            return false;
    }
}

bool is_the_library_s(int signal) {
    if (signal == SIGALRM || signal == SIGCHLD) return true;
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    return signal == SIGUSR1 && action.sa_handler == clSIGUSR1Action;
}

uint32_t refusal(int signal) {
    sigset_t set;
    sigemptyset(&set);
    if (signal == SIGKILL || signal == SIGSTOP || tells_of_fault(signal)) return EINVAL;
    if (sigaddset(&set, signal) != 0) return EINVAL;
    return is_the_library_s(signal) ? EBUSY : 0;
}

sigset_t with(sigset_t set, int signal) {
    sigaddset(&set, signal);
    return set;
}

sigset_t without(sigset_t set, int signal) {
    sigdelset(&set, signal);
    return set;
}

// 0, or errno. Tells whether it was blocked before.
int mask(int how, int signal, bool *blocked_before) {
    sigset_t one, before;
    sigemptyset(&one);
    sigaddset(&one, signal);
    const int error = cl_u_pthread_sigmask(how, &one, &before);
    if (error == 0) *blocked_before = sigismember(&before, signal) == 1;
    return error;
}

// The signalfd reads the signals of this set, and is made when it is not there yet.
bool read_signals(Nest &nest, const sigset_t &set) {
    if (nest.signals != nullptr) return signalfd(nest.signals->source.fd, &set, 0) != -1;
    Handle *signals = nest.handles.take(kSignals, {}, CL_FILE_LINE);
    if (signals == nullptr) return false;
    if (!keep(nest, *signals, signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC))) return false;
    nest.signals = signals;
    return true;
}

bool begin_watching(Nest &nest, int signal) {
    bool before = false;
    errno = mask(SIG_BLOCK, signal, &before);
    if (errno != 0) return false;
    const sigset_t set = with(nest.watched, signal);
    if (!read_signals(nest, set)) {
        const int error = errno;
        if (!before) mask(SIG_UNBLOCK, signal, &before);
        errno = error;
        return false;
    }
    nest.watched = set;
    nest.blocked_before =
        before ? with(nest.blocked_before, signal) : without(nest.blocked_before, signal);
    return true;
}

bool end_watching(Nest &nest, int signal) {
    const sigset_t set = without(nest.watched, signal);
    if (!read_signals(nest, set)) return false;
    bool before;
    const bool unblock = sigismember(&nest.blocked_before, signal) == 0;
    const int error = unblock ? mask(SIG_UNBLOCK, signal, &before) : 0;
    if (error != 0) {
        read_signals(nest, nest.watched);
        errno = error;
        return false;
    }
    nest.watched = set;
    return true;
}

bool is_last(const Nest &nest, const Handle &watcher) {
    for (const Handle *other = nest.watchers; other != nullptr; other = other->watcher.next)
        if (other != &watcher && other->watcher.signal == watcher.watcher.signal) return false;
    return true;
}

void append(Nest &nest, Handle &watcher) {
    Handle **end = &nest.watchers;
    while (*end != nullptr)
        end = &(*end)->watcher.next;
    *end = &watcher;
}

void unlink_watcher(Nest &nest, Handle &watcher) {
    Handle **at = &nest.watchers;
    while (*at != nullptr && *at != &watcher)
        at = &(*at)->watcher.next;
    if (*at != nullptr) *at = watcher.watcher.next;
}

// The first watcher that has not heard of this delivery, and was there when it began.
Handle *next_watcher(const Nest &nest, int signal, uint64_t delivery) {
    for (Handle *at = nest.watchers; at != nullptr; at = at->watcher.next)
        if (at->watcher.signal == signal && at->watcher.heard < delivery) return at;
    return nullptr;
}

// The first value of a watcher that is not 0.
uint32_t deliver(Nest &nest, const struct signalfd_siginfo &info) {
    const uint64_t deleted_before = deleted;
    const uint64_t delivery = ++nest.deliveries;
    const int signal = static_cast<int>(info.ssi_signo);
    uint32_t result = 0;
    while (Handle *watcher = next_watcher(nest, signal, delivery)) {
        watcher->watcher.heard = delivery;
        const uint32_t value = Told(nest, CL_EVENT_NEST_SIGNAL, *watcher)
                                   .length(info.ssi_pid)
                                   .exit(0, info.ssi_signo)
                                   .call(function_of<CL_NestSignalCallback>(*watcher),
                                         reinterpret_cast<CL_NestSignal *>(watcher), &info,
                                         watcher->calls.arg1, watcher->calls.arg2);
        if (result == 0) result = value;
        if (deleted != deleted_before) break;
    }
    return result;
}

}  // namespace

uint32_t signals_ready(Nest &nest, Handle &signals, uint32_t /*events*/) {
    const Life life(signals);
    const uint32_t most = nest.most;
    const int fd = signals.source.fd;
    struct signalfd_siginfo info;
    uint32_t result = 0;
    for (uint32_t called = 0; called < most && result == 0; ++called) {
        if (cl_u_read(fd, &info, sizeof info) != sizeof info) break;
        result = deliver(nest, info);
        if (life.ended()) break;
    }
    return result;
}

// At the nest's end: the signalfd goes, too.
void release_watcher(Nest &nest, Handle &watcher) {
    const int signal = watcher.watcher.signal;
    bool before;
    if (is_last(nest, watcher) && sigismember(&nest.blocked_before, signal) == 0)
        mask(SIG_UNBLOCK, signal, &before);
    unlink_watcher(nest, watcher);
}

}  // namespace qvcl::nest

using namespace qvcl::nest;

extern "C" CL_NestSignal *CL_CreateNestSignal_M(int signal, CL_NestSignalCallback callback,
                                                uint64_t arg1, uint64_t arg2, CL_ErrInfo *err,
                                                uint8_t /*callerFlag*/, const char *file,
                                                uint32_t line) {
    const Report report(err);
    const Calls calls = {0, any_function(callback), arg1, arg2};
    Nest *nest = existing(fail, calls, report);
    if (nest == nullptr) return nullptr;
    if (const uint32_t error = refusal(signal)) return fail(report, error);
    Handle *watcher = nest->handles.take(kSignal, calls, file, line);
    if (watcher == nullptr) return fail(report, ENOMEM);
    if (sigismember(&nest->watched, signal) == 0 && !begin_watching(*nest, signal)) {
        fail.sys(report);
        nest->handles.give_back(watcher);
        return nullptr;
    }
    watcher->watcher = {signal, nullptr, nest->deliveries};
    append(*nest, *watcher);
    return reinterpret_cast<CL_NestSignal *>(watcher);
}

extern "C" uint32_t CL_DeleteNestSignal_M(CL_NestSignal *watcher, CL_ErrInfo *err,
                                          uint8_t /*callerFlag*/, const char * /*file*/,
                                          uint32_t /*line*/) {
    const Report report(err);
    Nest *nest = owner(fail, watcher, kSignal, report);
    if (nest == nullptr) return 0;
    Handle &handle = entry(watcher);
    if (is_last(*nest, handle) && !end_watching(*nest, handle.watcher.signal))
        return fail.sys(report);
    unlink_watcher(*nest, handle);
    nest->handles.give_back(&handle);
    return 1;
}
