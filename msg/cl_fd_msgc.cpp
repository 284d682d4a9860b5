// Message client endpoints: connect, receive, send, disconnect, and their part in the loop.
//
// Every operation first checks everything and only then touches the connection or the caller's
// block, so a refused call changes nothing. What a connection waits for is in its sub-status; the
// loop watches a socket only for that.
#include <qvcl/client.h>
#include <qvcl/loop.h>
#include <qvcl/main.h>
#include <qvcl/memory.h>
#include <qvcl/steps.h>
#include <qvcl/timer.h>

#include "core/error.h"
#include "diag/traced.h"
#include "loop/live_object.h"
#include "loop/watch.h"
#include "msg/socket.h"

using qvcl::address_of;
using qvcl::fits_sets;
using qvcl::ready_in;

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::Pending pending{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);

void change(CL_Object *object, uint32_t status, uint32_t sub_status,
            uint32_t line = __builtin_LINE()) {
    cl_StatusChange_M(object, status, sub_status, kFile, line);
}

void set_pending(CL_Object *object, uint32_t bits, uint32_t line = __builtin_LINE()) {
    change(object, object->status, object->sub_status | bits, line);
}

void clear_pending(CL_Object *object, uint32_t bits, uint32_t line = __builtin_LINE()) {
    change(object, object->status, object->sub_status & ~bits, line);
}

// The bit of CL_SUB_SEND_PENDING that is tested. The other one is set and cleared with it, so that
// dumps show both.
constexpr uint32_t kSending = 0x04;
static_assert((CL_SUB_SEND_PENDING & kSending) != 0);

bool awaits(const CL_Object *object, uint32_t bits) {
    return (object->sub_status & bits) != 0;
}

bool is_mode(uint32_t mode) {
    return mode >= CL_MODE_SYNC && mode <= CL_MODE_DEFERRED;
}

// What a receive and a send both need: a connection that is complete and has not failed. False with
// err filled.
bool connected(CL_Object *client, CL_ErrInfo *err, uint8_t callerFlag) {
    if (!qvcl::live_object(fail, client, CL_KIND_MSGC, err, callerFlag)) return false;
    if ((client->status & CL_STATUS_FAILED) != 0) return fail(err, EBADF);
    if ((client->status & CL_STATUS_READY) == 0) return fail(err, EBADF);
    if (awaits(client, CL_SUB_CONNECT_PENDING)) return fail(err, EBADF);
    return true;
}

uint32_t call(CL_Object *object, CL_Event *event, uint32_t line = __builtin_LINE()) {
    return cl_Callback_M(object->callback, object, event, object->arg1, object->arg2, 0, kFile,
                         line);
}

// Reports a transfer. Blocks of a disconnect event that the callback left in its queue are the
// application's again.
uint32_t report(CL_Object *object, CL_Event *event, uint32_t line = __builtin_LINE()) {
    const uint32_t result = call(object, event, line);
    if (event->type == CL_EVENT_DISCONNECT) CL_QUE_Clear(&event->queue);
    return result;
}

}  // namespace

uint32_t CL_CnctMSGC_M(CL_Object *client, const char *path, uint32_t mode, uint32_t reserved,
                       CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcConnect record = {};
    qvcl::fill_head(record.head, CL_API_CNCT_MSGC, 0, callerFlag, file, line);
    record.handle = address_of(client);
    record.mode = mode;
    record.reserved = reserved;
    record.err_address = address_of(err);
    qvcl::trace_path(record, path);
    return qvcl::traced(
        record, err, [=](CL_ErrInfo *e) { return cl_cnctmsgc(client, path, mode, e, callerFlag); });
}

uint32_t cl_cnctmsgc(CL_Object *client, const char *path, uint32_t mode, CL_ErrInfo *err,
                     uint8_t callerFlag) {
    if (!qvcl::live_object(fail, client, CL_KIND_MSGC, err, callerFlag)) return 0;
    if ((client->status & CL_STATUS_READY) != 0) return fail(err, EALREADY);
    if (path == nullptr) return fail(err, EFAULT);
    if (qvcl::path_too_long(path)) return fail(err, ENAMETOOLONG);
    if (!is_mode(mode)) return fail(err, EINVAL);
    CL_Connection &connection = client->connection;
    connection.receive_buffer = nullptr;
    connection.receive_capacity = 0;
    connection.received_count = 0;
    connection.pace = 0;
    CL_QUE_InitQT(&connection.send_queue, 0);
    connection.address = qvcl::socket_address(path);

    if (!qvcl::make_socket(fail, client, err)) return 0;
    if (cl_u_connect(client->descriptor, qvcl::generic(connection.address),
                     sizeof connection.address) != 0) {
        fail.sys(err);
        return qvcl::abandon_socket(client);
    }
    const uint32_t status = CL_STATUS_READY | (client->status & CL_STATUS_LISTED);
    if (mode == CL_MODE_SYNC) {
        change(client, status, 0);
        return 1;
    }
    change(client, status, CL_SUB_CONNECT_PENDING);
    return pending(err);
}

int32_t CL_RecvMSGC_M(CL_Object *client, void *buffer, int32_t capacity, uint32_t mode,
                      uint32_t timeout, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                      uint32_t line) {
    CL_TrcReceive record = {};
    qvcl::fill_head(record.head, CL_API_RECV_MSGC, sizeof record, callerFlag, file, line);
    record.handle = address_of(client);
    record.buffer = address_of(buffer);
    record.capacity = static_cast<uint32_t>(capacity);
    record.mode = mode;
    record.timeout = timeout;
    record.err_address = address_of(err);
    return qvcl::traced(
        record, err,
        [=](CL_ErrInfo *e) {
            return cl_recvmsgc(client, buffer, capacity, mode, timeout, e, callerFlag, file, line);
        },
        [&record, buffer, capacity](int32_t) {
            if (record.error.err != 0) return;
            const size_t size = sizeof record.data;
            const auto held = static_cast<size_t>(capacity);
            memcpy(record.data, buffer, held < size ? held : size);
        });
}

int32_t cl_recvmsgc(CL_Object *client, void *buffer, int32_t capacity, uint32_t mode,
                    uint32_t timeout, CL_ErrInfo *err, uint8_t callerFlag, const char * /*file*/,
                    uint32_t /*line*/) {
    if (!connected(client, err, callerFlag)) return -1;
    if (awaits(client, CL_SUB_RECV_PENDING)) return fail(err, EINPROGRESS);
    if (!is_mode(mode)) return fail(err, EINVAL);
    if (capacity < CL_MSG_HEADER_SIZE) return fail(err, EINVAL);
    if (buffer == nullptr) return fail(err, EFAULT);
    CL_Connection &connection = client->connection;
    connection.receive_buffer = buffer;
    connection.receive_capacity = capacity;
    connection.received_count = 0;
    if (mode == CL_MODE_SYNC) return cl_recv_sync(client, timeout, err);
    set_pending(client, CL_SUB_RECV_PENDING);
    return pending(err);
}

int32_t CL_SendMSGC_M(CL_Object *client, void *block, int32_t blockSize, uint32_t mode,
                      uint32_t timeout, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                      uint32_t line) {
    CL_TrcSend record = {};
    int32_t shown = blockSize < 0 ? 0 : blockSize;
    if (shown > static_cast<int32_t>(sizeof record.data)) shown = sizeof record.data;
    const bool readable = cl_addrchk(block, shown) == 0;
    const auto copy_block = [&record, block, shown, readable] {
        if (readable && shown != 0) memcpy(record.data, block, static_cast<size_t>(shown));
    };
    qvcl::fill_head(record.head, CL_API_SEND_MSGC,
                    offsetof(CL_TrcSend, data) + static_cast<size_t>(shown), callerFlag, file,
                    line);
    record.handle = address_of(client);
    record.block = address_of(block);
    record.block_size = static_cast<uint32_t>(blockSize);
    record.mode = mode;
    record.timeout = timeout;
    record.err_address = address_of(err);
    record.data_length = static_cast<uint32_t>(shown);
    copy_block();
    return qvcl::traced(
        record, err,
        [=](CL_ErrInfo *e) {
            return cl_sendmsgc(client, block, blockSize, mode, timeout, e, callerFlag, file, line);
        },
        [&](int32_t) {
            record.head.length = sizeof record;
            // An end callback (EINTR) may have disconnected and freed the block.
            if (record.error.err != EINTR) copy_block();
        });
}

namespace {

// Sends the block that stands alone in the queue as far as it goes now. In mode 3 even a block that
// went out whole is reported by the loop: it is queued again with nothing left to write.
int32_t send_now(CL_Object *client, CL_MsgBlock *block, uint32_t mode, CL_ErrInfo *err) {
    CL_Event event = {};
    const int32_t result = cl_send(client, &event, err);
    if (result < 0) {
        CL_QUE_Clear(&event.queue);
        return -1;
    }
    if (result > 0 && mode == CL_MODE_IMMEDIATE) return result;
    if (result > 0 && CL_QUE_PutTail(&client->connection.send_queue, block) == 0) {
        return fail(err, CL_ERR_QUEUE);
    }
    set_pending(client, CL_SUB_SEND_PENDING);
    return pending(err);
}

}  // namespace

int32_t cl_sendmsgc(CL_Object *client, void *block, int32_t blockSize, uint32_t mode,
                    uint32_t timeout, CL_ErrInfo *err, uint8_t callerFlag, const char * /*file*/,
                    uint32_t /*line*/) {
    if (!connected(client, err, callerFlag)) return -1;
    if (!is_mode(mode)) return fail(err, EINVAL);
    CL_Queue *queue = &client->connection.send_queue;
    if (mode == CL_MODE_SYNC && queue->count != 0) return fail(err, EINPROGRESS);
    if (blockSize < static_cast<int32_t>(sizeof(CL_MsgBlock))) return fail(err, EINVAL);
    if (block == nullptr) return fail(err, EFAULT);
    auto *message = static_cast<CL_MsgBlock *>(block);
    if (message->link.owner != nullptr) return fail(err, EINVAL);
    message->sent = 0;
    message->header.length = static_cast<uint32_t>(blockSize - CL_MSG_PREFIX_SIZE);
    message->header.version = CL_MSG_VERSION;
    message->header.sender = CL_GetPid();
    CL_QUE_PutTail(queue, message);
    if (queue->count > 1) return pending(err);
    if (mode == CL_MODE_SYNC) return cl_send_sync(client, timeout, err);
    return send_now(client, message, mode, err);
}

uint32_t CL_DiscMSGC_M(CL_Object *client, uint64_t *receiveBufferOut, CL_Queue *unsentOut,
                       CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcDisconnect record = {};
    qvcl::fill_head(record.head, CL_API_DISC_MSGC, sizeof record, callerFlag, file, line);
    record.handle = address_of(client);
    record.buffer_out = address_of(receiveBufferOut);
    record.unsent_out = address_of(unsentOut);
    record.err_address = address_of(err);
    return qvcl::traced(record, err, [=](CL_ErrInfo *e) {
        return cl_discmsgc(client, receiveBufferOut, unsentOut, e, callerFlag, file, line);
    });
}

namespace {

// A disconnect failed when buffer and blocks had been handed back: nothing is pending without them.
uint32_t still_connected(CL_Object *client) {
    const bool blocks = client->connection.send_queue.count != 0;
    clear_pending(client, CL_SUB_RECV_PENDING | (blocks ? 0 : CL_SUB_SEND_PENDING));
    return 0;
}

}  // namespace

uint32_t cl_discmsgc(CL_Object *client, uint64_t *receiveBufferOut, CL_Queue *unsentOut,
                     CL_ErrInfo *err, uint8_t callerFlag, const char * /*file*/,
                     uint32_t /*line*/) {
    if (!qvcl::live_object(fail, client, CL_KIND_MSGC, err, callerFlag)) return 0;
    if ((client->status & CL_STATUS_READY) == 0) return fail(err, EBADF);
    CL_Connection &connection = client->connection;
    if (receiveBufferOut != nullptr) *receiveBufferOut = address_of(connection.receive_buffer);
    connection.receive_buffer = nullptr;
    if (unsentOut != nullptr) {
        CL_QUE_InitQT(unsentOut, 0);
        if (CL_QUE_Apend(unsentOut, &connection.send_queue) == 0) {
            fail(err, CL_ERR_QUEUE);
            return still_connected(client);
        }
    } else {
        CL_QUE_Clear(&connection.send_queue);
    }
    if (client->descriptor != -1 && cl_u_close(client->descriptor) != 0) {
        fail.sys(err);
        return still_connected(client);
    }
    client->descriptor = -1;
    // An end callback may disconnect in the midst of a transfer with a time limit.
    CL_ErrInfo scratch = {};
    cl_DeleteTIMER_M(client, &scratch);
    change(client, client->status & CL_STATUS_LISTED, 0);
    return 1;
}

uint32_t cl_DeleteMSGC_M(CL_Object *client, CL_ErrInfo *err) {
    if ((client->status & CL_STATUS_READY) == 0) return 1;
    return CL_DiscMSGC_M(client, nullptr, nullptr, err, 1, kFile, __LINE__);
}

uint32_t cl_MakeListMSGC_M(CL_Object *client) {
    if ((client->status & CL_STATUS_READY) == 0) {
        change(client, client->status | CL_STATUS_FAILED, client->sub_status);
        fail(&client->error, EBADF);
        return EBADF;
    }
    if ((client->status & CL_STATUS_FAILED) != 0) {
        fail(&client->error, EBADF);
        return EBADF;
    }
    if (!fits_sets(client->descriptor)) {
        change(client, client->status | CL_STATUS_FAILED, client->sub_status);
        fail(&client->error, EMFILE);
        return EBADF;
    }
    qvcl::watch_descriptor(client, awaits(client, CL_SUB_RECV_PENDING),
                           awaits(client, CL_SUB_CONNECT_PENDING | kSending));
    return 0;
}

namespace {

// The write side of a check. `ended`: the connection has nothing more to check in this iteration.
uint32_t check_write(CL_Object *client, CL_ErrInfo *err, bool *ended) {
    CL_Event event = {};
    if (awaits(client, CL_SUB_CONNECT_PENDING)) {
        clear_pending(client, CL_SUB_CONNECT_PENDING);
        event.type = CL_EVENT_CONNECTED;
        return call(client, &event);
    }
    if (!awaits(client, kSending)) {
        return fail(err, CL_ERR_QUEUE).ends_loop();
    }
    CL_ErrInfo scratch = {};
    const int32_t sent = cl_send(client, &event, &scratch);
    if (sent == 0) return 0;
    // A failed transfer has no received count to go on from. An empty queue makes no event.
    *ended = sent < 0;
    if (client->connection.send_queue.count == 0) clear_pending(client, CL_SUB_SEND_PENDING);
    return event.type != 0 ? report(client, &event) : 0;
}

uint32_t check_read(CL_Object *client, CL_ErrInfo *err) {
    if (!awaits(client, CL_SUB_RECV_PENDING)) {
        return fail(err, CL_ERR_QUEUE).ends_loop();
    }
    CL_Event event;
    CL_ErrInfo scratch = {};
    if (cl_recv(client, &event, &scratch) == 0) return 0;
    clear_pending(client, CL_SUB_RECV_PENDING);
    return report(client, &event);
}

}  // namespace

uint32_t cl_CheckMSGC_M(CL_Object *client, CL_ErrInfo *err) {
    const CL_FdSets &sets = CL_MainTable->sets;
    bool ended = false;
    if (ready_in(client->descriptor, sets.write)) {
        const uint32_t result = check_write(client, err, &ended);
        if (result != 0) return result;
    }
    // The callback may have disconnected; a socket that it opened has no result in these sets.
    if (ended || !ready_in(client->descriptor, sets.read)) return 0;
    return check_read(client, err);
}
