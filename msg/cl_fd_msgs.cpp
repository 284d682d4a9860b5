// Message server endpoints: a listening local socket at a path, and the connections accepted on it.
#include <sys/stat.h>

#include <qvcl/main.h>
#include <qvcl/server.h>
#include <qvcl/steps.h>

#include "core/error.h"
#include "diag/traced.h"
#include "loop/live_object.h"
#include "loop/watch.h"
#include "msg/socket.h"

using qvcl::address_of;

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);
constexpr mode_t kSocketMode = 0660;  // owner and group may connect

bool listening(const CL_Object *server) {
    return (server->status & CL_STATUS_READY) != 0;
}

// The steps that make the new socket listen; 0 with err filled.
uint32_t listen_at(CL_Object *server, const char *path, uint32_t backlog, CL_ErrInfo *err) {
    struct sockaddr_un &address = server->server.address;
    const int fd = server->descriptor;
    if (cl_u_unlink(path) != 0 && errno != ENOENT) return fail.sys(err);
    address = qvcl::socket_address(path);
    if (cl_u_bind(fd, qvcl::generic(address), sizeof address) != 0) return fail.sys(err);
    if (cl_u_chmod(path, kSocketMode) != 0) return fail.sys(err);
    if (cl_u_listen(fd, static_cast<int>(backlog)) != 0) return fail.sys(err);
    return 1;
}

}  // namespace

uint32_t CL_OpenMSGS_M(CL_Object *server, const char *path, uint32_t backlog, CL_ErrInfo *err,
                       uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcOpenServer record = {};
    qvcl::fill_head(record.head, CL_API_OPEN_MSGS, 0, callerFlag, file, line);
    record.handle = address_of(server);
    record.backlog = backlog;
    record.err_address = address_of(err);
    qvcl::trace_path(record, path);
    return qvcl::traced(record, err, [=](CL_ErrInfo *e) {
        return cl_openmsgs(server, path, backlog, e, callerFlag);
    });
}

uint32_t cl_openmsgs(CL_Object *server, const char *path, uint32_t backlog, CL_ErrInfo *err,
                     uint8_t callerFlag) {
    if (!qvcl::live_object(fail, server, CL_KIND_MSGS, err, callerFlag)) return 0;
    if (listening(server)) return fail(err, EALREADY);
    if (path == nullptr) return fail(err, EFAULT);
    if (qvcl::path_too_long(path)) return fail(err, ENAMETOOLONG);
    if (!qvcl::make_socket(fail, server, err)) return 0;
    if (listen_at(server, path, backlog, err) == 0) return qvcl::abandon_socket(server);
    cl_StatusChange_M(server, CL_STATUS_READY | (server->status & CL_STATUS_LISTED), 0, kFile,
                      __LINE__);
    return 1;
}

CL_Object *CL_AcceptMSGS_M(CL_Object *server, CL_Callback callback, uint64_t arg1, uint64_t arg2,
                           CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcAccept record = {};
    qvcl::fill_head(record.head, CL_API_ACCEPT_MSGS, sizeof record, callerFlag, file, line);
    record.handle = address_of(server);
    record.callback = reinterpret_cast<uint64_t>(callback);
    record.arg1 = arg1;
    record.arg2 = arg2;
    record.err_address = address_of(err);
    return qvcl::traced(record, err, [=](CL_ErrInfo *e) {
        return cl_acceptmsgs(server, callback, arg1, arg2, e, callerFlag, file, line);
    });
}

CL_Object *cl_acceptmsgs(CL_Object *server, CL_Callback callback, uint64_t arg1, uint64_t arg2,
                         CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line) {
    if (!qvcl::live_object(fail, server, CL_KIND_MSGS, err, callerFlag)) return nullptr;
    if (!listening(server)) return fail(err, EBADF);
    CL_Object *client = CL_CreateFD_M(CL_KIND_MSGC, callback, arg1, arg2, err, 1, file, line);
    if (client == nullptr) return nullptr;
    struct sockaddr_un peer;
    socklen_t length = sizeof peer;
    client->descriptor =
        cl_u_accept(server->descriptor, reinterpret_cast<struct sockaddr *>(&peer), &length);
    const bool accepted = client->descriptor != -1;
    if (!accepted) fail.sys(err);
    if (!accepted || !qvcl::prepare_socket(fail, client, err)) {
        CL_ErrInfo scratch;
        CL_DeleteFD_M(client, &scratch, 1, kFile, __LINE__);
        return nullptr;
    }
    cl_StatusChange_M(client, CL_STATUS_READY, 0, kFile, __LINE__);
    return client;
}

uint32_t CL_CloseMSGS_M(CL_Object *server, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                        uint32_t line) {
    return qvcl::traced_handle(CL_API_CLOSE_MSGS, server, err, callerFlag, file, line,
                               [=](CL_ErrInfo *e) { return cl_closemsgs(server, e, callerFlag); });
}

uint32_t cl_closemsgs(CL_Object *server, CL_ErrInfo *err, uint8_t callerFlag) {
    if (!qvcl::live_object(fail, server, CL_KIND_MSGS, err, callerFlag)) return 0;
    if (!listening(server)) return fail(err, EBADF);
    if (cl_u_close(server->descriptor) != 0) return fail.sys(err);
    cl_u_unlink(server->server.address.sun_path);
    server->descriptor = -1;
    cl_StatusChange_M(server, server->status & CL_STATUS_LISTED, 0, kFile, __LINE__);
    return 1;
}

uint32_t cl_DeleteMSGS_M(CL_Object *server, CL_ErrInfo *err) {
    if (!listening(server)) return 1;
    return CL_CloseMSGS_M(server, err, 1, kFile, __LINE__);
}

uint32_t cl_MakeListMSGS_M(CL_Object *server) {
    const bool ready = listening(server);
    if (!ready || !qvcl::fits_sets(server->descriptor)) {
        cl_StatusChange_M(server, server->status | CL_STATUS_FAILED, server->sub_status, kFile,
                          __LINE__);
        fail(&server->error, ready ? EMFILE : EBADF);
        return EBADF;
    }
    qvcl::watch_descriptor(server, true, false);
    return 0;
}

uint32_t cl_CheckMSGS_M(CL_Object *server) {
    if (!qvcl::ready_in(server->descriptor, CL_MainTable->sets.read)) return 0;
    CL_Event event = {};
    event.type = CL_EVENT_CONNECTION;
    return cl_Callback_M(server->callback, server, &event, server->arg1, server->arg2, 0, kFile,
                         __LINE__);
}
