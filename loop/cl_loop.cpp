// The plain event loop, and the building of the descriptor sets that both loops share. The loop
// itself is in loop_policy.h.
#include <qvcl/loop.h>
#include <qvcl/steps.h>

#include "diag/traced.h"
#include "loop/known_order.h"
#include "loop/loop_policy.h"

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);

struct Plain {
    static constexpr uint32_t module = CL_MODULE_LOOP;
    static constexpr int signals[] = {SIGCHLD, SIGALRM};
    static constexpr bool wakes = false;
    static int mask(int how, const sigset_t *set, sigset_t *saved) {
        return cl_u_sigprocmask(how, set, saved) == 0 ? 0 : errno;
    }
};
using Loop = qvcl::Loop<Plain>;

// An object that cannot take part ends the loop, after its callback has heard why.
uint32_t report_failed(CL_Object *object, CL_ErrInfo *err) {
    CL_Event event = {};
    event.type = CL_EVENT_FAILED;
    event.error = object->error;
    const uint32_t result = cl_Callback_M(object->callback, object, &event, object->arg1,
                                          object->arg2, 0, kFile, __LINE__);
    if (result == CL_LOOP_ERROR && CL_MainTable->exec_error.err != 0) {
        *err = CL_MainTable->exec_error;
    }
    if (result != 0) return result;
    return fail(err, EBADF).ends_loop();
}

}  // namespace

uint32_t CL_EventLoop_M(CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcProcess record = {};
    qvcl::fill_head(record.head, CL_API_LOOP, sizeof record, callerFlag, file, line);
    record.err_address = qvcl::address_of(err);
    return qvcl::traced(record, err, [](CL_ErrInfo *e) { return cl_eventloop(e); });
}

uint32_t cl_eventloop(CL_ErrInfo *err) {
    return Loop::run(err);
}

uint32_t cl_sigcheck(uint32_t always_unblock, const sigset_t *set, sigset_t *saved,
                     CL_ErrInfo *err) {
    return Loop::sigcheck(always_unblock, set, saved, err);
}

uint32_t cl_fdcheck(const sigset_t * /*set*/, sigset_t * /*saved*/, CL_ErrInfo *err) {
    return Loop::fdcheck(nullptr, err);
}

void cl_clearlist() {
    CL_MainTable->descriptor_count = 0;
    CL_MainTable->sets = {};
    qvcl::forget_order();
}

uint32_t cl_fdmake(CL_ErrInfo *err) {
    return qvcl::make_sets(nullptr, err);
}

uint32_t qvcl::make_sets(KnownOrder *order, CL_ErrInfo *err) {
    CL_MainBlock &main = *CL_MainTable;
    cl_clearlist();
    if (cl_move_eventlist(err) != 0) return CL_LOOP_ERROR;
    if (order != nullptr) order->begin();
    uint32_t status;
    CL_Object *object = nullptr;
    const auto next = [&] {
        object = static_cast<CL_Object *>(
            CL_QUE_Enum(&main.priority_list, object, CL_QUE_FORWARD, &status));
        return object != nullptr;
    };
    while (next()) {
        const Kind *kind = kind_of(object->kind);
        if (kind == nullptr || kind->add == nullptr) {
            return fail.both(err, CL_ERR_QUEUE, object->kind).ends_loop();
        }
        if (kind->add(object) != 0) return report_failed(object, err);
        if (order != nullptr) order->add(object);
    }
    if (status != CL_QUE_WALKING) return fail.both(err, CL_ERR_QUEUE, status).ends_loop();
    if (order != nullptr) order->conclude();
    return 0;
}
