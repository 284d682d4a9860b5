// The loop that other threads can wake: SIGUSR1 and the THREAD objects. The loop itself is in
// loop_policy.h.
#include <qvcl/steps.h>
#include <qvcl/thread.h>

#include "core/signal_handler.h"
#include "diag/traced.h"
#include "loop/loop_policy.h"

using qvcl::address_of;

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);

struct Threaded {
    static constexpr uint32_t module = CL_MODULE_THREAD;
    static constexpr int signals[] = {SIGCHLD, SIGALRM, SIGUSR1};
    static constexpr bool wakes = true;
    static int mask(int how, const sigset_t *set, sigset_t *saved) {
        const int result = cl_u_pthread_sigmask(how, set, saved);
        return result == -1 ? errno : result;
    }
};
using Loop = qvcl::Loop<Threaded>;

static_assert(sizeof(struct sigaction) == sizeof CL_MainBlock{}.saved_sigusr1);

}  // namespace

uint32_t clSIGUSR1Initialize(CL_ErrInfo *err) {
    CL_ErrInfo own;
    if (err == nullptr) err = &own;
    *err = {};
    CL_MainBlock &main = *CL_MainTable;
    __atomic_store_n(&main.wake_signal, 0u, __ATOMIC_RELEASE);
    struct sigaction found = {};
    if (!qvcl::install_handler(fail, SIGUSR1, clSIGUSR1Action, 0, &found, err)) return 0;
    // A second call must not take our own handler for the application's.
    if (found.sa_handler != clSIGUSR1Action) memcpy(main.saved_sigusr1, &found, sizeof found);
    return 1;
}

uint32_t clSIGUSR1End() {
    cl_u_signal(SIGUSR1, SIG_IGN);
    return 1;
}

void clSIGUSR1Action(int /*signal*/) {
    qvcl::raise_flag(CL_MainTable->wake_signal);
}

uint32_t CL_SetThreadFd_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                          uint32_t line) {
    return qvcl::traced_handle(
        CL_API_SET_THREAD, object, err, callerFlag, file, line,
        [=](CL_ErrInfo *e) { return cl_setThreadFd(object, e, callerFlag, file, line); });
}

uint32_t cl_setThreadFd(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                        const char * /*file*/, uint32_t /*line*/) {
    if (cl_CheckFD(object, err) == 0) return 0;
    if (callerFlag == 0 && object->kind != CL_KIND_THREAD) return fail(err, EBADF);
    const uint32_t listed = object->status & CL_STATUS_LISTED;
    if (object->status != (CL_STATUS_READY | listed)) {
        cl_StatusChange_M(object, CL_STATUS_READY | listed, 0, kFile, __LINE__);
    }
    return 1;
}

uint32_t CL_EventLoopThread_M(CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                              uint32_t line) {
    CL_TrcProcess record = {};
    qvcl::fill_head(record.head, CL_API_LOOP, sizeof record, callerFlag, file, line);
    record.err_address = address_of(err);
    return qvcl::traced(record, err, [](CL_ErrInfo *e) { return cl_eventloopThread(e); });
}

uint32_t cl_eventloopThread(CL_ErrInfo *err) {
    return Loop::run(err);
}

uint32_t cl_sigcheckThread(uint32_t always_unblock, const sigset_t *set, sigset_t *saved,
                           CL_ErrInfo *err) {
    return Loop::sigcheck(always_unblock, set, saved, err);
}

uint32_t cl_fdcheckThread(const sigset_t * /*set*/, sigset_t * /*saved*/, CL_ErrInfo *err) {
    return Loop::fdcheck(nullptr, err);
}

// A callback may list, unlist and delete any THREAD object, its own included. So each object notes
// that this walk has called it, and a walk that may have lost its place starts over, past those.
uint32_t cl_ThreadCallBack(CL_ErrInfo *err) {
    CL_MainBlock &main = *CL_MainTable;
    const CL_Queue &all = main.kind_queues[CL_KIND_QUEUE_THREAD];
    for (auto *o = static_cast<CL_Object *>(all.head); o != nullptr;
         o = static_cast<CL_Object *>(o->kind_link.next)) {
        o->wake.called = 0;
    }
    CL_Object *object = nullptr;
    for (;;) {
        uint32_t status;
        object = static_cast<CL_Object *>(
            CL_QUE_Enum(&main.thread_list, object, CL_QUE_FORWARD, &status));
        if (status != CL_QUE_WALKING) return fail.both(err, CL_ERR_QUEUE, status).ends_loop();
        if (object == nullptr) return 0;
        if (object->wake.called != 0) continue;
        object->wake.called = 1;
        const void *before = object->thread_link.previous;
        CL_Event event = {};
        event.type = CL_EVENT_WAKE;
        const uint32_t result = cl_Callback_M(object->callback, object, &event, object->arg1,
                                              object->arg2, 0, kFile, __LINE__);
        if (result != 0) return result;
        const bool in_place = CL_QUE_Isinque(&main.thread_list, object) != 0 &&
                              object->thread_link.previous == before;
        if (!in_place) object = nullptr;
    }
}
