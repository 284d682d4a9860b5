// Message transfer: the resumable steps, and the synchronous wait that runs them without the loop.
//
// All progress lives in the connection (receiving) and in the block at the head of the send queue
// (sending), so a step may stop at any byte and go on in a later iteration. A receive never asks
// for more than the rest of the current message: the next one stays in the socket.
#include <sys/select.h>
#include <csignal>
#include <initializer_list>

#include <qvcl/loop.h>
#include <qvcl/main.h>
#include <qvcl/message.h>
#include <qvcl/steps.h>
#include <qvcl/timer.h>

#include "core/error.h"
#include "core/signal_field.h"
#include "core/text.h"
#include "msg/end_callback.h"
#include "msg/socket.h"
#include "sources/timer_look.h"

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::Pending pending{qvcl::place(__FILE__)};
constexpr qvcl::Success done{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);

void mark_failed(CL_Object *connection) {
    cl_StatusChange_M(connection, connection->status | CL_STATUS_FAILED, connection->sub_status,
                      kFile, __LINE__);
}

// Ends the connection: disconnect event, failed status.
void disconnect(CL_Object *connection, CL_Event *event, const CL_ErrInfo *err) {
    cl_setdiscivent(event, connection, err);
    mark_failed(connection);
}

enum class Read { more, later, over };

// Receives at most `wanted` bytes behind those received; `over` with the disconnect event made.
Read read_on(CL_Object *object, int32_t wanted, CL_Event *event, CL_ErrInfo *err) {
    CL_Connection &connection = object->connection;
    char *at = static_cast<char *>(connection.receive_buffer) + connection.received_count;
    const int32_t got =
        cl_u_recv(object->descriptor, at, static_cast<size_t>(wanted), MSG_NOSIGNAL);
    if (got > 0) {
        connection.received_count += got;
        return Read::more;
    }
    if (got < 0 && errno == EAGAIN) return Read::later;
    if (got < 0) {
        fail.sys(err);
        connection.received_count = -1;
    } else {
        fail(err, EPIPE);
        connection.received_count = 0;
    }
    disconnect(object, event, err);
    return Read::over;
}

// Checks a complete header; false with the disconnect event made.
bool header_fine(CL_Object *object, CL_Event *event, CL_ErrInfo *err) {
    const CL_Connection &connection = object->connection;
    const auto *header = static_cast<const CL_MsgHeader *>(connection.receive_buffer);
    const auto length = static_cast<int32_t>(header->length);
    if (length > connection.receive_capacity) {
        fail(err, EMSGSIZE);
    } else if (header->version != CL_MSG_VERSION || length < CL_MSG_HEADER_SIZE) {
        fail(err, EPROTO);
    } else {
        return true;
    }
    disconnect(object, event, err);
    return false;
}

}  // namespace

uint32_t cl_recv(CL_Object *object, CL_Event *event, CL_ErrInfo *err) {
    CL_Connection &connection = object->connection;
    if (connection.received_count < 0) connection.received_count = 0;  // after a failed transfer
    for (;;) {
        int32_t wanted = CL_MSG_HEADER_SIZE - connection.received_count;
        if (wanted <= 0) {
            if (!header_fine(object, event, err)) return 1;
            const auto *header = static_cast<const CL_MsgHeader *>(connection.receive_buffer);
            wanted = static_cast<int32_t>(header->length) - connection.received_count;
            if (wanted <= 0) break;
        }
        const Read read = read_on(object, wanted, event, err);
        if (read == Read::later) return 0;
        if (read == Read::over) return 1;
    }
    done(err);
    *event = {};
    event->type = CL_EVENT_MESSAGE;
    event->data = connection.receive_buffer;
    event->length = connection.received_count;
    event->error = *err;
    return 1;
}

void cl_setdiscivent(CL_Event *event, CL_Object *object, const CL_ErrInfo *err) {
    CL_Connection &connection = object->connection;
    *event = {};
    event->type = CL_EVENT_DISCONNECT;
    event->data = connection.receive_buffer;
    event->length = connection.received_count;
    CL_QUE_InitQT(&event->queue, 0);
    CL_QUE_Apend(&event->queue, &connection.send_queue);
    event->error = *err;
}

int32_t cl_send(CL_Object *object, CL_Event *event, CL_ErrInfo *err) {
    CL_Connection &connection = object->connection;
    auto *block = static_cast<CL_MsgBlock *>(connection.send_queue.head);
    if (block == nullptr) return fail(err, CL_ERR_QUEUE);
    const uint32_t length = block->header.length;
    while (block->sent < length) {
        const char *rest = reinterpret_cast<const char *>(&block->header) + block->sent;
        const int32_t written =
            cl_u_send(object->descriptor, rest, length - block->sent, MSG_NOSIGNAL);
        if (written >= 0) {
            block->sent += static_cast<uint32_t>(written);
        } else if (errno == EAGAIN) {
            pending(err);
            return 0;
        } else {
            fail.sys(err);
            connection.received_count = -1;
            disconnect(object, event, err);
            return -1;
        }
    }
    done(err);
    cl_setsendcmp(event, object);
    return static_cast<int32_t>(block->sent);
}

void cl_setsendcmp(CL_Event *event, CL_Object *object) {
    *event = {};
    event->type = CL_EVENT_SENT;
    CL_QUE_InitQT(&event->queue, 0);
    event->data = CL_QUE_GetTop(&object->connection.send_queue);
}

// ---------------------------------------------------------------- the synchronous wait

namespace {

// What a synchronous transfer waits for and does; all else is the same in both directions.
struct Direction {
    void (*watch)(const CL_Object *connection, const CL_Object *end, CL_FdSets &sets,
                  int32_t &count);
    fd_set CL_FdSets::*ready;
    int32_t (*step)(CL_Object *connection, CL_ErrInfo *err);   // 0 again, length, or -1
    int32_t (*first)(CL_Object *connection, CL_ErrInfo *err);  // before the first wait, as step
};

int32_t receive_step(CL_Object *connection, CL_ErrInfo *err) {
    CL_Event event;
    if (cl_recv(connection, &event, err) == 0) return 0;
    if (event.type == CL_EVENT_MESSAGE) return event.length;
    CL_QUE_Clear(&event.queue);  // blocks that it took are the caller's again
    return -1;
}

// An answer is hardly ever there when it is asked for, the next message of a stream nearly always.
// So a receive waits at once, but every now and then one looks first; and as long as messages are
// there, so does the next.
int32_t receive_first(CL_Object *connection, CL_ErrInfo *err) {
    constexpr uint32_t kWaitAtOnce = 15;
    uint32_t &pace = connection->connection.pace;
    if (pace < kWaitAtOnce) {
        ++pace;
        return 0;
    }
    const int32_t result = receive_step(connection, err);
    if (result == 0) pace = 0;
    return result;
}

int32_t send_step(CL_Object *connection, CL_ErrInfo *err) {
    CL_Event event = {};
    const int32_t result = cl_send(connection, &event, err);
    if (result < 0) CL_QUE_Clear(&event.queue);
    return result;
}

constexpr Direction kReceive = {
    [](const CL_Object *connection, const CL_Object *end, CL_FdSets &sets, int32_t &count) {
        cl_make_recv_fd(connection, end, &sets.read, &count);
    },
    &CL_FdSets::read,
    receive_step,
    receive_first,
};

constexpr Direction kSend = {
    [](const CL_Object *connection, const CL_Object *end, CL_FdSets &sets, int32_t &count) {
        cl_make_send_fd(connection, end, &sets.read, &sets.write, &count);
    },
    &CL_FdSets::write, send_step,
    send_step,  // there is nearly always room, more than a socket that reports writable has
};

// One synchronous transfer. begin() starts its time limit; then run() makes one pass after another,
// each of them one wait, until the last one has left its result.
//
// Between two passes:
//   - nothing is decided yet: result_ is 0, whatever err says;
//   - a timer of ours runs on the connection exactly when there is a time limit;
//   - SIGALRM is not blocked. It is, while a timer runs, from a look at the ticks to the wait that
//     follows; the wait itself opens it, so that no tick is missed.
class SyncWait {
  public:
    SyncWait(CL_Object *connection, uint32_t timeout, CL_ErrInfo *err, const Direction &direction)
        : connection_(connection), timeout_(timeout), err_(err), direction_(direction) {
        sigemptyset(&alarm_);
        sigaddset(&alarm_, SIGALRM);
        if (end_ == connection_) end_ = nullptr;
    }

    // False with err filled: there is no transfer, and no timer of ours.
    bool begin() {
        if (!qvcl::fits_sets(connection_->descriptor)) return fail(err_, EMFILE);
        const bool taken = (connection_->status & CL_STATUS_RUNNING) != 0;
        if (timeout_ == 0 || CL_StartTIMER_M(connection_, timeout_, CL_TIMER_ONESHOT, err_, 1,
                                             kFile, __LINE__) != 0) {
            return true;
        }
        // One that was refused because somebody else's runs there is not ours; any other is, even
        // when nothing makes it tick.
        if (!taken) stop_timer();
        return false;
    }

    // The length, -1 with err filled, or the end callback's result.
    int32_t run() {
        // An end watch has to be looked at before anything is transferred.
        if (end_ == nullptr) result_ = direction_.first(connection_, err_);
        const bool waits = result_ == 0;
        for (bool last = !waits; !last;)
            last = pass();
        if (timeout_ != 0) stop_timer();
        if (waits) qvcl::leave_tick();  // the ticks that came meanwhile were taken from the loop
        return result_;
    }

  private:
    enum class Wait { ready, interrupted, failed };

    // One wait and what it brought. Whether it was the last one.
    bool pass() {
        CL_FdSets sets = {};
        const Wait waited = wait(sets);
        if (waited == Wait::interrupted) return false;  // the next pass looks at the ticks
        if (waited == Wait::failed) {
            result_ = -1;
            return true;
        }
        if (end_ != nullptr && qvcl::ready_in(end_->descriptor, sets.read) &&
            cl_recv_end(end_, err_) != 0) {
            const qvcl::Told told =
                qvcl::call_end_callback(end_, {}, end_->arg1, end_->arg2, kFile);
            fail(err_, EINTR);
            result_ = static_cast<int32_t>(told.result);
            return true;
        }
        if (qvcl::ready_in(connection_->descriptor, sets.*direction_.ready)) {
            result_ = direction_.step(connection_, err_);
        }
        return result_ != 0;
    }

    // Leaves in the sets what is ready. `failed` with err filled.
    Wait wait(CL_FdSets &sets) {
        int32_t count = 0;
        direction_.watch(connection_, end_, sets, count);
        sigset_t saved;
        const bool ticking = CL_MainTable->timer_list.head != nullptr;
        if (ticking && cl_msgc_sigcheck(connection_, timeout_, &alarm_, &saved, err_) != 0) {
            return Wait::failed;
        }
        if (ticking) sigdelset(&saved, SIGALRM);
        // An empty set is left out: the kernel takes as long over it as over a full one.
        const bool sending = direction_.ready == &CL_FdSets::write;
        const int ready =
            pselect(count, sending && end_ == nullptr ? nullptr : &sets.read,
                    sending ? &sets.write : nullptr, nullptr, nullptr, ticking ? &saved : nullptr);
        const int code = errno;
        if (ticking) cl_u_sigprocmask(SIG_UNBLOCK, &alarm_, nullptr);
        if (ready >= 0) return Wait::ready;
        if (code == EINTR) return Wait::interrupted;
        fail(err_, static_cast<uint32_t>(code));
        return Wait::failed;
    }

    // The end callback may have given the connection up, and the timer with it. One that runs in
    // the same slot then is the own timer of a new TIMER object.
    void stop_timer() {
        if ((connection_->status & CL_STATUS_RUNNING) == 0) return;
        if (connection_->kind == CL_KIND_TIMER) return;
        CL_ErrInfo scratch = {};
        CL_ErrInfo *err = err_->err != 0 ? &scratch : err_;
        if (CL_StopTIMER_M(connection_, err, 1, kFile, __LINE__) == 0) result_ = -1;
    }

    CL_Object *connection_;
    uint32_t timeout_;
    CL_ErrInfo *err_;
    const Direction &direction_;
    CL_Object *end_ = qvcl::end_to_watch();
    sigset_t alarm_;
    int32_t result_ = 0;
};

}  // namespace

int32_t cl_recv_sync(CL_Object *connection, uint32_t timeout, CL_ErrInfo *err) {
    SyncWait wait(connection, timeout, err, kReceive);
    return wait.begin() ? wait.run() : -1;
}

int32_t cl_send_sync(CL_Object *connection, uint32_t timeout, CL_ErrInfo *err) {
    SyncWait wait(connection, timeout, err, kSend);
    if (wait.begin()) return wait.run();
    // The block that stands alone in the queue was not touched: it is the caller's again.
    CL_QUE_Clear(&connection->connection.send_queue);
    return -1;
}

int32_t cl_msgc_sigcheck(CL_Object *connection, uint32_t timeout, const sigset_t *alarm,
                         sigset_t *saved, CL_ErrInfo *err) {
    constexpr int32_t kTimedOut = 2;
    if (cl_u_sigprocmask(SIG_BLOCK, alarm, saved) != 0) return fail.sys(err);
    const uint64_t ticks = qvcl::take(CL_MainTable->timer_signals);
    if (ticks == 0) return 0;
    cl_TimerCheck(static_cast<uint32_t>(ticks), err);
    if (timeout == 0 || connection->remaining != CL_TIMER_DUE) return 0;
    if (cl_u_sigprocmask(SIG_UNBLOCK, alarm, nullptr) != 0) return fail.sys(err);
    fail(err, ETIMEDOUT);
    return kTimedOut;
}

void cl_make_recv_fd(const CL_Object *connection, const CL_Object *end, fd_set *read,
                     int32_t *count) {
    for (const CL_Object *object : {connection, end}) {
        if (object != nullptr && qvcl::fits_sets(object->descriptor)) {
            qvcl::watch(object->descriptor, *read, *count);
        }
    }
}

void cl_make_send_fd(const CL_Object *connection, const CL_Object *end, fd_set *read, fd_set *write,
                     int32_t *count) {
    if (qvcl::fits_sets(connection->descriptor)) {
        qvcl::watch(connection->descriptor, *write, *count);
    }
    cl_make_recv_fd(end, nullptr, read, count);
}

uint32_t cl_recv_end(CL_Object *end, CL_ErrInfo *err) {
    CL_Connection &connection = end->connection;
    if (connection.receive_buffer == nullptr) {  // no receive was set up, or a disconnect failed
        connection.receive_buffer = connection.report;
        connection.receive_capacity = sizeof connection.report;
        connection.received_count = 0;
    }
    CL_Event event;
    if (cl_recv(end, &event, err) == 0) return 0;
    if (event.type == CL_EVENT_DISCONNECT) {
        CL_QUE_Clear(&event.queue);
        return 1;
    }
    if (static_cast<const CL_MsgHeader *>(event.data)->type == CL_MSG_END_REQUEST) return 1;
    connection.receive_capacity = sizeof connection.report;
    connection.received_count = 0;
    return 0;
}
