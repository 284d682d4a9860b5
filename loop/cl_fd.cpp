// The descriptor table: creation, deletion and the validity check of objects.
//
// All objects live in one block for the life of the process. A live object is on the used queue and
// on the queue of its kind, a free one on the free queue and on no other; a handle is valid when it
// lies on an entry boundary of the block and its entry is not free.
#include <cstddef>

#include <qvcl/eventlist.h>
#include <qvcl/memory.h>
#include <qvcl/steps.h>
#include <qvcl/timer.h>

#include "core/error.h"
#include "core/table_header.h"
#include "diag/traced.h"
#include "loop/kinds.h"

using qvcl::address_of;
using qvcl::Kind;

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);

uint64_t first_object(const CL_TableHeader *table) {
    return address_of(table + 1);
}

}  // namespace

uint32_t CL_FD_TblInit(uint32_t count, CL_ErrInfo *err) {
    CL_MainBlock &main = *CL_MainTable;
    const uint32_t capacity = count + CL_SPARE_OBJECTS;
    const uint64_t size = sizeof(CL_TableHeader) + uint64_t{capacity} * sizeof(CL_Object);
    auto *table = static_cast<CL_TableHeader *>(CL_malloc_M(size, 1, kFile, __LINE__));
    if (table == nullptr) return fail(err, ENOMEM);
    main.scratch = static_cast<CL_Object **>(
        CL_malloc_M(uint64_t{capacity} * sizeof(CL_Object *), 1, kFile, __LINE__));
    if (main.scratch == nullptr) {
        CL_free_M(table, 1, kFile, __LINE__);
        return fail(err, ENOMEM);
    }
    qvcl::write_table_header(table, CL_EYE_FDTBL, size);
    main.descriptor_table = table;
    auto *objects = reinterpret_cast<CL_Object *>(table + 1);
    for (uint32_t i = 0; i < capacity; ++i) {
        objects[i].own_address = address_of(&objects[i]);
        objects[i].descriptor = -1;
        if (CL_QUE_PutTail(&main.free_queue, &objects[i]) == 0) return fail(err, CL_ERR_QUEUE);
    }
    main.requested = count;
    main.capacity = capacity;
    return 1;
}

CL_Object *CL_CreateFD_M(uint32_t kind, CL_Callback callback, uint64_t arg1, uint64_t arg2,
                         CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcCreate record = {};
    qvcl::fill_head(record.head, CL_API_CREATE_FD, sizeof record, callerFlag, file, line);
    record.kind = kind;
    record.callback = reinterpret_cast<uint64_t>(callback);
    record.arg1 = arg1;
    record.arg2 = arg2;
    record.err_address = address_of(err);
    return qvcl::traced(record, err, [=](CL_ErrInfo *e) {
        return cl_createfd(kind, callback, arg1, arg2, e, callerFlag, file, line);
    });
}

CL_Object *cl_createfd(uint32_t kind, CL_Callback callback, uint64_t arg1, uint64_t arg2,
                       CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line) {
    CL_MainBlock &main = *CL_MainTable;
    *err = {};
    if (main.state != CL_STATE_INITIALISED) return fail(err, CL_ERR_STATE);
    const Kind *row = qvcl::kind_of(kind);
    if (row == nullptr || !qvcl::allows(row->create, callerFlag)) return fail(err, EINVAL);
    auto *object = static_cast<CL_Object *>(CL_QUE_GetTop(&main.free_queue));
    if (object == nullptr) return fail(err, EMFILE);
    memset(&object->kind, 0, sizeof *object - offsetof(CL_Object, kind));
    object->descriptor = -1;
    if (CL_QUE_PutTail(&main.used_queue, object) == 0) {
        CL_QUE_PutTail(&main.free_queue, object);
        return fail(err, CL_ERR_QUEUE);
    }
    if (CL_QUE_PutTail(qvcl::kind_queue(*row), object) == 0) {
        CL_QUE_GetData(&main.used_queue, object);
        CL_QUE_PutTail(&main.free_queue, object);
        return fail(err, CL_ERR_QUEUE);
    }
    object->created_before = object->created;
    CL_SetPT(&object->created, file, line);
    object->kind = kind;
    cl_StatusChange_M(object, 0, 0, kFile, __LINE__);
    object->callback = callback;
    object->arg1 = arg1;
    object->arg2 = arg2;
    return object;
}

uint32_t CL_DeleteFD_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                       uint32_t line) {
    return qvcl::traced_handle(
        CL_API_DELETE_FD, object, err, callerFlag, file, line,
        [=](CL_ErrInfo *e) { return cl_deletefd(object, e, callerFlag, file, line); });
}

uint32_t cl_deletefd(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                     uint32_t line) {
    CL_MainBlock &main = *CL_MainTable;
    *err = {};
    if (cl_CheckFD_sub(object, err) == 0) return 0;
    const Kind *kind = qvcl::kind_of(object->kind);
    if (kind == nullptr || !qvcl::allows(kind->remove, callerFlag)) return fail(err, EBADF);

    const bool released = kind->release == nullptr || kind->release(object, err) != 0;
    const bool queued = CL_QUE_GetData(qvcl::kind_queue(*kind), object) != nullptr;
    if (!released) return 0;
    if (!queued) return fail(err, CL_ERR_QUEUE);
    // The library may run a timer on an object of any kind: it must not stay on the timer list.
    if (cl_DeleteTIMER_M(object, err) == 0) return 0;
    if ((object->status & CL_STATUS_LISTED) != 0 &&
        CL_DelEventList_M(object, err, 1, kFile, __LINE__) == 0) {
        return 0;
    }
    if (CL_QUE_GetData(&main.used_queue, object) == nullptr) return fail(err, CL_ERR_QUEUE);
    if (CL_QUE_PutTail(&main.free_queue, object) == 0) {
        CL_QUE_PutTail(&main.used_queue, object);
        return fail(err, CL_ERR_QUEUE);
    }
    cl_StatusChange_M(object, 0, 0, kFile, __LINE__);
    object->deleted_before = object->deleted;
    CL_SetPT(&object->deleted, file, line);
    return 1;
}

uint32_t cl_CheckFD(CL_Object *object, CL_ErrInfo *err) {
    if (CL_MainTable->state != CL_STATE_INITIALISED) return fail(err, CL_ERR_STATE);
    return cl_CheckFD_sub(object, err);
}

uint32_t cl_CheckFD_sub(CL_Object *object, CL_ErrInfo *err) {
    const CL_TableHeader *table = CL_MainTable->descriptor_table;
    const uint64_t handle = address_of(object);
    if (table == nullptr) return fail(err, EBADF);
    if (handle < first_object(table) || handle >= address_of(table) + table->size ||
        (handle - first_object(table)) % sizeof(CL_Object) != 0) {
        return fail(err, EBADF);
    }
    if (CL_QUE_Isinque(&CL_MainTable->free_queue, object) != 0) return fail(err, EBADF);
    return 1;
}
