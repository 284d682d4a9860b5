// Listeners of channels.
#include <qvcl/qvcl.h>
#include <sys/socket.h>
#include <cerrno>

#include "core/text.h"
#include "msg/socket.h"
#include "starter/channel.h"

namespace qvcl::channel {

namespace {

constexpr Failure fail{place(__FILE__)};
constexpr mode_t kSocketMode = 0660;  // owner and group may connect
constexpr uint64_t kRest = 100'000'000;

struct Listener : Member {
    CL_ChannelWaiting callback;
    bool accepted;
    char path[CL_MSG_PATH_MAX + 1];
};

// One that nobody was accepted from would be ready in every turn: it rests for a while.
void rest(const Listener &listener) {
    if (CL_StartNestTimer(listener.timer, CL_NEST_MONOTONIC, kRest, 0, nullptr) != 0)
        CL_ChangeNestWatch(listener.watch, 0, nullptr);
}

uint32_t on_rested(CL_NestTimer * /*timer*/, uint64_t /*missed*/, uint64_t arg1,
                   uint64_t /*arg2*/) {
    const auto &listener = *reinterpret_cast<const Listener *>(arg1);
    if (CL_ChangeNestWatch(listener.watch, CL_NEST_READ, nullptr) == 0) rest(listener);
    return 0;
}

uint32_t on_watch(CL_NestWatch * /*watch*/, uint32_t /*ready*/, uint64_t arg1, uint64_t /*arg2*/) {
    auto &listener = *reinterpret_cast<Listener *>(arg1);
    begin_turn();
    listener.accepted = false;
    const uint32_t result =
        told(listener, CL_EVENT_CHANNEL_WAITING, nest::any_function(listener.callback))
            .call(listener.callback, reinterpret_cast<CL_ChannelListener *>(listener.handle),
                  listener.arg1, listener.arg2);
    if (!gone(listener) && !listener.accepted) rest(listener);
    return finish_turn(result);
}

// The listener gets a socket and its file. False with err filled.
bool listen_at(Listener &listener, uint32_t backlog, CL_ErrInfo *err) {
    listener.fd = cl_u_socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener.fd == -1) return fail.sys(err);
    if (cl_u_unlink(listener.path) != 0 && errno != ENOENT) return fail.sys(err);
    const struct sockaddr_un address = socket_address(listener.path);
    if (cl_u_bind(listener.fd, generic(address), sizeof address) != 0) return fail.sys(err);
    if (cl_u_chmod(listener.path, kSocketMode) == 0 &&
        cl_u_listen(listener.fd, static_cast<int>(backlog)) == 0)
        return true;
    fail.sys(err);
    cl_u_unlink(listener.path);
    return false;
}

bool watch(Listener &listener, uint32_t priority, CL_ErrInfo *err, uint8_t callerFlag,
           const char *file, uint32_t line) {
    const uint64_t self = address_of(&listener);
    listener.timer =
        CL_CreateNestTimer_M(priority, on_rested, self, 0, err, callerFlag, file, line);
    if (listener.timer == nullptr) return false;
    listener.watch = CL_CreateNestWatch_M(listener.fd, CL_NEST_READ, priority, on_watch, self, 0,
                                          err, callerFlag, file, line);
    if (listener.watch != nullptr) return true;
    cl_u_unlink(listener.path);
    return false;
}

int accept_one(int fd) {
    for (;;) {
        const int accepted = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (accepted != -1 || (errno != EINTR && errno != ECONNABORTED)) return accepted;
    }
}

}  // namespace

}  // namespace qvcl::channel

using namespace qvcl::channel;
using qvcl::nest::Report;

extern "C" CL_ChannelListener *CL_CreateChannelListener_M(const char *path, uint32_t backlog,
                                                          uint32_t priority,
                                                          CL_ChannelWaiting callback, uint64_t arg1,
                                                          uint64_t arg2, CL_ErrInfo *err,
                                                          uint8_t callerFlag, const char *file,
                                                          uint32_t line) {
    const Report report(err);
    if (qvcl::nest::existing(fail, report) == nullptr) return nullptr;
    if (path == nullptr || callback == nullptr) return fail(report, EFAULT);
    if (qvcl::path_too_long(path)) return fail(report, ENAMETOOLONG);
    auto *listener =
        static_cast<Listener *>(make_member(fail, kListener, sizeof(Listener), report, file, line));
    if (listener == nullptr) return nullptr;
    listener->callback = callback;
    listener->arg1 = arg1;
    listener->arg2 = arg2;
    qvcl::copy_text(listener->path, sizeof listener->path, path);
    if (listen_at(*listener, backlog, report) &&
        watch(*listener, priority, report, callerFlag, file, line))
        return reinterpret_cast<CL_ChannelListener *>(listener->handle);
    delete_member(*listener);
    return nullptr;
}

extern "C" CL_Channel *CL_AcceptChannel_M(CL_ChannelListener *listener,
                                          const CL_ChannelOptions *options, uint64_t arg1,
                                          uint64_t arg2, CL_ErrInfo *err, uint8_t callerFlag,
                                          const char *file, uint32_t line) {
    const Report report(err);
    auto *self = static_cast<Listener *>(live_member(fail, listener, kListener, report));
    if (self == nullptr) return nullptr;
    const int fd = accept_one(self->fd);
    if (fd == -1) return fail.sys(report);
    CL_Channel *channel =
        CL_CreateChannel_M(fd, options, arg1, arg2, report, callerFlag, file, line);
    if (channel == nullptr) {
        cl_u_close(fd);
    } else {
        self->accepted = true;
    }
    return channel;
}

extern "C" uint32_t CL_DeleteChannelListener_M(CL_ChannelListener *listener, CL_ErrInfo *err,
                                               uint8_t /*callerFlag*/, const char * /*file*/,
                                               uint32_t /*line*/) {
    const Report report(err);
    auto *self = static_cast<Listener *>(any_member(fail, listener, kListener, report));
    if (self == nullptr) return 0;
    cl_u_unlink(self->path);
    delete_member(*self);
    return 1;
}
