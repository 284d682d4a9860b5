// Watches: the application's descriptors, of any number, by readiness.
#include <cerrno>

#include "starter/nest.h"

namespace qvcl::nest {

namespace {

constexpr Failure fail{place(__FILE__)};

struct Bit {
    uint32_t ours;
    uint32_t asked;  // of epoll
    uint32_t told;   // by epoll
};
constexpr Bit kBits[] = {
    {CL_NEST_READ, EPOLLIN, EPOLLIN},
    {CL_NEST_WRITE, EPOLLOUT, EPOLLOUT},
    {CL_NEST_HANGUP, EPOLLRDHUP, EPOLLRDHUP | EPOLLHUP},
    {CL_NEST_ERROR, EPOLLERR, EPOLLERR},
};
constexpr uint32_t kAllBits = CL_NEST_READ | CL_NEST_WRITE | CL_NEST_HANGUP | CL_NEST_ERROR;

uint32_t asked_of_epoll(uint32_t events) {
    uint32_t asked = 0;
    for (const Bit &bit : kBits)
        if ((events & bit.ours) != 0) asked |= bit.asked;
    return asked;
}

// Adds the descriptor also when nothing is to be told yet, so that one which cannot be watched is
// refused at once.
bool add(Nest &nest, Handle &watch, int fd, uint32_t asked) {
    if (!attach(nest, watch, fd, asked != 0 ? asked : uint32_t{EPOLLERR})) return false;
    return change(nest, watch, asked);
}

}  // namespace

// What was asked for may have changed since epoll was asked.
uint32_t watch_ready(Nest &nest, Handle &watch, uint32_t events) {
    events &= watch.source.events | EPOLLERR | EPOLLHUP;
    uint32_t ready = 0;
    for (const Bit &bit : kBits)
        if ((events & bit.told) != 0) ready |= bit.ours;
    if (ready == 0 || watch.source.events == 0) return 0;
    return Told(nest, CL_EVENT_NEST_WATCH, watch)
        .length(ready)
        .call(function_of<CL_NestWatchCallback>(watch), reinterpret_cast<CL_NestWatch *>(&watch),
              ready, watch.calls.arg1, watch.calls.arg2);
}

}  // namespace qvcl::nest

using namespace qvcl::nest;

extern "C" CL_NestWatch *CL_CreateNestWatch_M(int fd, uint32_t events, uint32_t priority,
                                              CL_NestWatchCallback callback, uint64_t arg1,
                                              uint64_t arg2, CL_ErrInfo *err,
                                              uint8_t /*callerFlag*/, const char *file,
                                              uint32_t line) {
    const Report report(err);
    const Calls calls = {priority, any_function(callback), arg1, arg2};
    Nest *nest = existing(fail, calls, report);
    if (nest == nullptr) return nullptr;
    if ((events & ~kAllBits) != 0) return fail(report, EINVAL);
    Handle *watch = nest->handles.take(kWatch, calls, file, line);
    if (watch == nullptr) return fail(report, ENOMEM);
    if (add(*nest, *watch, fd, asked_of_epoll(events)))
        return reinterpret_cast<CL_NestWatch *>(watch);
    fail.sys(report);
    remove(*nest, *watch);
    return nullptr;
}

extern "C" uint32_t CL_ChangeNestWatch_M(CL_NestWatch *watch, uint32_t events, CL_ErrInfo *err,
                                         uint8_t /*callerFlag*/, const char * /*file*/,
                                         uint32_t /*line*/) {
    const Report report(err);
    Nest *nest = owner(fail, watch, kWatch, report);
    if (nest == nullptr) return 0;
    if ((events & ~kAllBits) != 0) return fail(report, EINVAL);
    if (!change(*nest, entry(watch), asked_of_epoll(events))) return fail.sys(report);
    return 1;
}

extern "C" uint32_t CL_DeleteNestWatch_M(CL_NestWatch *watch, CL_ErrInfo *err,
                                         uint8_t /*callerFlag*/, const char * /*file*/,
                                         uint32_t /*line*/) {
    return remove(fail, watch, kWatch, Report(err));
}
