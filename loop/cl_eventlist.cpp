// Event lists: which objects take part in the loop, and in which order.
//
// An object that joins while the loop walks the priority list waits in the pending list, and one
// that leaves moves the loop's cursor back first; so the walk goes on correctly whatever a callback
// lists, unlists or deletes.
#include <qvcl/eventlist.h>
#include <qvcl/steps.h>

#include "core/error.h"
#include "diag/traced.h"
#include "loop/kinds.h"
#include "loop/known_order.h"
#include "util/sorted_run.h"

using qvcl::address_of;
using qvcl::Kind;

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);

// The kind of a valid object that this caller may list; null with err filled.
const Kind *listable(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag) {
    *err = {};
    if (cl_CheckFD(object, err) == 0) return nullptr;
    const Kind *kind = qvcl::kind_of(object->kind);
    if (kind == nullptr || !qvcl::allows(kind->list, callerFlag)) return fail(err, EBADF);
    return kind;
}

bool priority_allowed(uint32_t priority, uint8_t callerFlag) {
    if (callerFlag != 0) return priority <= CL_PRIORITY_LIBRARY_LAST;
    return priority >= CL_PRIORITY_FIRST && priority <= CL_PRIORITY_LAST;
}

}  // namespace

uint32_t CL_AddEventList_M(CL_Object *object, uint32_t priority, CL_ErrInfo *err,
                           uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcAddList record = {};
    qvcl::fill_head(record.head, CL_API_ADD_LIST, sizeof record, callerFlag, file, line);
    record.handle = address_of(object);
    record.priority = priority;
    record.err_address = address_of(err);
    return qvcl::traced(record, err, [=](CL_ErrInfo *e) {
        return cl_addeventlist(object, priority, e, callerFlag);
    });
}

uint32_t cl_addeventlist(CL_Object *object, uint32_t priority, CL_ErrInfo *err,
                         uint8_t callerFlag) {
    const Kind *kind = listable(object, err, callerFlag);
    if (kind == nullptr) return 0;
    if ((object->status & CL_STATUS_READY) == 0) return fail(err, EBADF);
    if ((object->status & CL_STATUS_LISTED) != 0) return fail(err, EBADF);
    if (!priority_allowed(priority, callerFlag)) return fail(err, EINVAL);
    const bool appended = CL_QUE_PutTail(&(CL_MainTable->*kind->event_list), object) != 0;
    if (qvcl::has_priority(*kind)) {
        if (!appended) return fail.both(err, CL_ERR_QUEUE, CL_QUE_REFUSED);
        object->priority = priority;
    } else if (!appended) {
        return fail(err, EBADF);
    }
    cl_StatusChange_M(object, object->status | CL_STATUS_LISTED, object->sub_status, kFile,
                      __LINE__);
    return 1;
}

uint32_t CL_DelEventList_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                           uint32_t line) {
    return qvcl::traced_handle(
        CL_API_DEL_LIST, object, err, callerFlag, file, line,
        [=](CL_ErrInfo *e) { return cl_deleventlist(object, e, callerFlag); });
}

uint32_t cl_deleventlist(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag) {
    CL_MainBlock &main = *CL_MainTable;
    const Kind *kind = listable(object, err, callerFlag);
    if (kind == nullptr) return 0;
    if ((object->status & CL_STATUS_LISTED) == 0) return fail(err, EBADF);
    CL_Queue *joined = &(main.*kind->event_list);
    CL_Queue *walked = qvcl::has_priority(*kind) ? &main.priority_list : joined;
    const bool removed =
        (kind->cursor != nullptr && qvcl::leave_list(walked, main.*kind->cursor, object)) ||
        CL_QUE_GetData(joined, object) != nullptr;
    if (!removed) return fail(err, CL_ERR_QUEUE);
    cl_StatusChange_M(object, object->status & ~uint32_t{CL_STATUS_LISTED}, object->sub_status,
                      kFile, __LINE__);
    return 1;
}

uint32_t cl_move_eventlist(CL_ErrInfo *err) {
    CL_MainBlock &main = *CL_MainTable;
    qvcl::forget_order();  // the insertions need its array
    if (main.pending_list.head == nullptr) return 0;
    qvcl::SortedRun run(&main.priority_list, reinterpret_cast<void **>(main.scratch),
                        main.capacity);
    uint32_t result = CL_QUE_INSERTED;
    while (result == CL_QUE_INSERTED && main.pending_list.head != nullptr) {
        void *object = CL_QUE_GetTop(&main.pending_list);
        result = run.insert(object, CL_QUE_SORTED_AFTER, pri_compar);
        if (result != CL_QUE_INSERTED) CL_QUE_PutTail(&main.pending_list, object);
    }
    qvcl::forget_order();
    if (result == CL_QUE_INSERTED) return 0;
    return fail.both(err, CL_ERR_QUEUE, result).ends_loop();
}

int pri_compar(const void *a, const void *b) {
    const auto priority = [](const void *slot) {
        return (*static_cast<const CL_Object *const *>(slot))->priority;
    };
    return static_cast<int>(priority(a) - priority(b));
}
