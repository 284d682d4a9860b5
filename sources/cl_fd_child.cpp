// Child processes: reaping without blocking, and reports that started programs have come up.
//
// The SIGCHLD handler only sets a flag. One dispatch asks every watched child whether it has ended,
// so one signal serves any number of them, and children without an object are left alone. The
// dispatch keeps its place in the main table; a deletion moves it back first.
#include <sys/wait.h>
#include <csignal>

#include <qvcl/child.h>
#include <qvcl/loop.h>
#include <qvcl/main.h>
#include <qvcl/message.h>
#include <qvcl/steps.h>
#include <qvcl/system.h>

#include "core/error.h"
#include "core/signal_field.h"
#include "core/signal_handler.h"
#include "core/text.h"
#include "loop/kinds.h"

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);

pid_t pid_of(const CL_Object *child) {
    return static_cast<pid_t>(child->child.pid);
}

void close_connection(CL_Object *child) {
    if (child->descriptor == -1) return;
    cl_u_close(child->descriptor);
    child->descriptor = -1;
}

bool unlist(CL_Object *child) {
    return qvcl::leave_list(&CL_MainTable->child_list, CL_MainTable->child_cursor, child);
}

// Takes the child off the exec-completion wait list, if it is there.
void stop_waiting(CL_Object *child) {
    CL_Queue *list = &CL_MainTable->exec_wait_list;
    if (CL_QUE_Isinque(list, child) != 0) CL_QUE_GetData(list, child);
}

// A deletion that failed has taken the object off the queue of its kind; when one after it has
// reaped the child all the same, nothing is left to kill: the process id may be another's by now.
bool reaped_before(const CL_Object *child) {
    return child->kind_link.owner == nullptr && child->child_link.owner == nullptr;
}

CL_Event end_event(int status) {
    CL_Event event = {};
    event.type = CL_EVENT_CHILD_END;
    if (WIFEXITED(status)) {
        event.exit_reason = CL_CHILD_EXITED;
        event.exit_value = static_cast<uint32_t>(WEXITSTATUS(status));
    } else if (WIFSIGNALED(status)) {
        event.exit_reason = CL_CHILD_KILLED;
        event.exit_value = static_cast<uint32_t>(WTERMSIG(status));
    }
    return event;
}

// Ends the dispatch: the next one begins with the first child. When no child waits to report any
// more, connections that have not reported are closed.
uint32_t end_dispatch(uint32_t result, CL_ErrInfo *err) {
    CL_MainTable->child_cursor = nullptr;
    return cl_clear_execc(err) != 0 ? result : CL_LOOP_ERROR;
}

}  // namespace

void cl_sigchld(int /*signal*/) {
    qvcl::raise_flag(CL_MainTable->child_signal);
}

uint32_t cl_sigchld_init(CL_ErrInfo *err) {
    __atomic_store_n(&CL_MainTable->child_signal, 0u, __ATOMIC_RELEASE);
    return qvcl::install_handler(fail, SIGCHLD, cl_sigchld, SA_NOCLDSTOP, nullptr, err) ? 1 : 0;
}

uint32_t cl_SIGCHLD_end() {
    cl_u_signal(SIGCHLD, SIG_IGN);
    return 1;
}

int32_t cl_envchange(const CL_EnvChange *changes, CL_ErrInfo *err) {
    for (; changes != nullptr && changes->name != nullptr; ++changes) {
        if (changes->value == nullptr) {
            cl_u_unsetenv(changes->name);
        } else if (cl_u_setenv(changes->name, changes->value, 1) != 0) {
            return fail(err, ENOMEM);
        }
    }
    return 0;
}

uint32_t cl_ChildCall(CL_ErrInfo *err) {
    CL_MainBlock &main = *CL_MainTable;
    for (;;) {
        uint32_t walk;
        auto *child = static_cast<CL_Object *>(
            CL_QUE_Enum(&main.child_list, main.child_cursor, CL_QUE_FORWARD, &walk));
        if (walk != CL_QUE_WALKING) return fail.both(err, CL_ERR_QUEUE, walk).ends_loop();
        if (child == nullptr) return end_dispatch(0, err);
        main.child_cursor = child;

        int status = 0;
        const pid_t ended = cl_u_waitpid(pid_of(child), &status, WNOHANG);
        if (ended == 0) continue;
        if (ended == -1) return fail.sys(err).ends_loop();
        CL_Event event = end_event(status);
        close_connection(child);
        stop_waiting(child);
        if (!unlist(child)) return fail(err, CL_ERR_QUEUE);
        cl_StatusChange_M(child, 0, 0, kFile, __LINE__);
        const uint32_t result = cl_Callback_M(child->callback, child, &event, child->arg1,
                                              child->arg2, 0, kFile, __LINE__);
        if (result != 0) return end_dispatch(result, err);
    }
}

uint32_t cl_DeleteCHILD_M(CL_Object *child, CL_ErrInfo *err) {
    if ((child->status & CL_STATUS_READY) == 0 || reaped_before(child)) return 1;
    if (cl_u_kill(pid_of(child), SIGABRT) != 0 && errno != ESRCH) {
        return fail.both(err, CL_ERR_QUEUE, static_cast<uint32_t>(errno));
    }
    if (cl_u_waitpid(pid_of(child), nullptr, 0) == -1) {
        return fail.both(err, CL_ERR_QUEUE, static_cast<uint32_t>(errno));
    }
    close_connection(child);
    if (!unlist(child)) return fail(err, CL_ERR_QUEUE);
    cl_StatusChange_M(child, child->status & ~uint32_t{CL_STATUS_LISTED}, child->sub_status, kFile,
                      __LINE__);
    stop_waiting(child);
    cl_clear_execc(err);
    return 1;
}

int32_t cl_ExecCompRecv(CL_Object *connection, CL_Event *event, CL_Object **childOut,
                        CL_ErrInfo *err) {
    CL_Queue *waiting = &CL_MainTable->exec_wait_list;
    const auto *message = static_cast<const CL_MsgHeader *>(event->data);
    if (message->type != CL_MSG_EXEC_COMPLETE) return 1;
    const uint32_t pid = message->sender;
    auto *child = static_cast<CL_Object *>(
        CL_QUE_Search(waiting, nullptr, &pid, sizeof pid, offsetof(CL_Object, child.pid)));
    *childOut = child;
    if (child == nullptr || (child->sub_status & CL_SUB_EXEC_AWAITED) == 0) return 1;
    if (CL_QUE_GetData(waiting, child) == nullptr) return fail(err, CL_ERR_QUEUE);
    if (child->descriptor == -1) {
        child->descriptor = connection->descriptor;
        connection->descriptor = -1;
        if (CL_DeleteFD_M(connection, err, 1, kFile, __LINE__) == 0) {
            return fail(err, CL_ERR_QUEUE);
        }
        cl_StatusChange_M(
            child, child->status,
            (child->sub_status & ~uint32_t{CL_SUB_EXEC_AWAITED}) | CL_SUB_EXEC_COMPLETE, kFile,
            __LINE__);
    }
    return cl_clear_execc(err) != 0 ? 0 : -1;
}

uint32_t cl_clear_execc(CL_ErrInfo *err) {
    CL_MainBlock &main = *CL_MainTable;
    if (main.exec_wait_list.count != 0) return 1;
    CL_Queue &connections = main.kind_queues[CL_KIND_QUEUE_EXECC];
    while (auto *connection = static_cast<CL_Object *>(connections.head)) {
        CL_ErrInfo own = {};
        if (CL_DeleteFD_M(connection, &own, 1, kFile, __LINE__) == 0) {
            return fail(err, CL_ERR_QUEUE);
        }
    }
    return 1;
}
