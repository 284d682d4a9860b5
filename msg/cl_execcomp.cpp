// The exec-completion channel: the library's own callbacks on both of its ends. The channel itself
// is in several files, because its steps belong to several kinds of object. This is its sequence,
// with the file of each step:
//
//     starter                                          started program
//
//     CL_Init_M opens the EXECS server and
//     lists it (core/cl_main)
//     fork, exec; a CHILD object on the wait list,
//     the path in the environment (starter/)
//                                                      an END object connects, sends
//                                                      EXEC_COMPLETE, awaits a message,
//                                                      is listed (starter/)
//     the server is ready: its connection becomes an
//     EXECC object and awaits the report (here)
//     the report is there: the CHILD with the sender's
//     process id takes the descriptor over, the EXECC
//     object goes (sources/cl_fd_child), the CHILD's
//     callback is told (here)
//     ...                                              ...
//     a message END_REQUEST on that descriptor, or
//     its close (starter/)
//                                                      the end callback is told, then the
//                                                      END object goes (here); a synchronous
//                                                      transfer that watches tells it first
//                                                      (msg/cl_transfer)
//     SIGCHLD: the CHILD closes the descriptor and is
//     told of the end (sources/cl_fd_child)
//
// A stranger may connect as well. Nobody awaits him: his connection is closed when it says anything
// but a report of an awaited child, and with the last child that is awaited.
//
// They have no caller whose error record they could fill: what makes them fail goes into the main
// table, and the loop, which their result ends, hands it to its caller.
#include <cstdio>

#include <qvcl/child.h>
#include <qvcl/client.h>
#include <qvcl/loop.h>
#include <qvcl/server.h>
#include <qvcl/steps.h>

#include "core/error.h"
#include "core/text.h"
#include "msg/end_callback.h"

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);

// Fails a callback for a reason of its own.
uint32_t store(uint32_t line = __builtin_LINE()) {
    return fail(&CL_MainTable->exec_error, CL_ERR_QUEUE, line).ends_loop();
}

// Fails a callback with another operation's error.
uint32_t store(const CL_ErrInfo &error) {
    CL_MainTable->exec_error = error;
    return CL_LOOP_ERROR;
}

// Disconnects and deletes a report connection that is of no use.
uint32_t drop(CL_Object *connection) {
    CL_ErrInfo error = {};
    if (CL_DiscMSGC_M(connection, nullptr, nullptr, &error, 1, kFile, __LINE__) == 0 ||
        CL_DeleteFD_M(connection, &error, 1, kFile, __LINE__) == 0) {
        return store(error);
    }
    return 0;
}

// Turns an accepted connection into one that reports.
bool become_execc(CL_Object *connection) {
    CL_Queue *queues = CL_MainTable->kind_queues;
    if (CL_QUE_GetData(&queues[CL_KIND_QUEUE_MSGC], connection) == nullptr) return false;
    if (CL_QUE_PutTail(&queues[CL_KIND_QUEUE_EXECC], connection) == 0) {
        CL_QUE_PutTail(&queues[CL_KIND_QUEUE_MSGC], connection);
        return false;
    }
    connection->kind = CL_KIND_EXECC;
    return true;
}

// Sets up the deferred receive into the object's own report buffer.
bool await_report(CL_Object *object) {
    CL_ErrInfo error = {};
    auto &report = object->connection.report;
    CL_RecvMSGC_M(object, report, sizeof report, CL_MODE_DEFERRED, 0, &error, 1, kFile, __LINE__);
    return error.err == CL_ERR_IN_PROGRESS;
}

// Calls the end callback, then deletes the object unless the callback did so itself. 1, or 0 with
// err filled.
uint32_t tell_end(CL_Object *end, const CL_ErrInfo &why, uint64_t arg1, uint64_t arg2,
                  uint32_t *result, CL_ErrInfo *err) {
    const qvcl::Told told = qvcl::call_end_callback(end, why, arg1, arg2, kFile);
    *result = told.result;
    return told.left ? CL_DeleteFD_M(end, err, 1, kFile, __LINE__) : 1;
}

uint32_t end_requested(CL_Object *end, uint64_t arg1, uint64_t arg2) {
    uint32_t result;
    CL_ErrInfo error = {};
    return tell_end(end, {}, arg1, arg2, &result, &error) != 0 ? result : store(error);
}

uint32_t parent_lost(CL_Object *end, const CL_Event *event, uint64_t arg1, uint64_t arg2) {
    CL_ErrInfo why = event->error;
    why.err = EPIPE;
    uint32_t result;
    CL_ErrInfo error = {};
    return tell_end(end, why, arg1, arg2, &result, &error) != 0 ? result : store();
}

uint32_t unknown_message(CL_Object *end, uint32_t type) {
    char line[256];
    snprintf(line, sizeof line, "CLLIB:error message was received from the parent process.(%d)",
             static_cast<int>(type));
    cl_inlog_write(line);
    return await_report(end) ? 0 : store();
}

}  // namespace

uint32_t cl_ExecSWaitCallback(CL_Object *server, CL_Event *event, uint64_t /*arg1*/,
                              uint64_t /*arg2*/) {
    if (event->type != CL_EVENT_CONNECTION) return store();
    CL_ErrInfo error = {};
    CL_Object *connection =
        CL_AcceptMSGS_M(server, cl_ExecCWaitCallback, 0, 0, &error, 1, kFile, __LINE__);
    if (connection == nullptr) return error.err == ENOENT ? 0 : store(error);
    if (CL_MainTable->exec_wait_list.count == 0) return drop(connection);
    if (!become_execc(connection)) {
        drop(connection);
        return store();
    }
    if (!await_report(connection)) return drop(connection);
    if (CL_AddEventList_M(connection, CL_PRIORITY_REPORT, &error, 1, kFile, __LINE__) == 0) {
        return store(error);
    }
    return 0;
}

uint32_t cl_ExecCWaitCallback(CL_Object *connection, CL_Event *event, uint64_t /*arg1*/,
                              uint64_t /*arg2*/) {
    if (event->type == CL_EVENT_DISCONNECT || event->type == CL_EVENT_FAILED) {
        return drop(connection);
    }
    if (event->type != CL_EVENT_MESSAGE) return 0;
    CL_ErrInfo error = {};
    CL_Object *child = nullptr;
    const int32_t match = cl_ExecCompRecv(connection, event, &child, &error);
    if (match < 0) return store(error);
    if (match > 0) return drop(connection);
    CL_Event complete = {};
    complete.type = CL_EVENT_EXEC_COMPLETE;
    return cl_Callback_M(child->callback, child, &complete, child->arg1, child->arg2, 0, kFile,
                         __LINE__);
}

uint32_t cl_EndCallback(CL_Object *end, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    switch (event->type) {
        case CL_EVENT_DISCONNECT:
            return parent_lost(end, event, arg1, arg2);
        case CL_EVENT_MESSAGE: {
            const uint32_t type = static_cast<const CL_MsgHeader *>(event->data)->type;
            if (type == CL_MSG_END_REQUEST) return end_requested(end, arg1, arg2);
            return unknown_message(end, type);
        }
        default:
            return store();
    }
}

uint32_t cl_DeleteEXECS_M(CL_Object *server, CL_ErrInfo *err) {
    if ((server->status & CL_STATUS_READY) == 0) return 1;
    CL_Queue &connections = CL_MainTable->kind_queues[CL_KIND_QUEUE_EXECC];
    while (auto *connection = static_cast<CL_Object *>(connections.head)) {
        if (CL_DeleteFD_M(connection, err, 1, kFile, __LINE__) == 0) return 0;
    }
    return CL_CloseMSGS_M(server, err, 1, kFile, __LINE__);
}
