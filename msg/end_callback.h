// The one way to the end callback of a started program, from the loop and from a synchronous
// transfer that watches for the end.
#pragma once

#include <qvcl/main.h>
#include <qvcl/steps.h>

namespace qvcl {

struct Told {
    uint32_t result;  // the callback's
    bool left;        // whether the object is still there
};

// Calls the end callback. While it runs the object says so: nobody watches it, because the program
// has just been told, and a starter that is gone would be found again by every transfer in there.
// The callback may delete the object. Whoever has got its slot then is not telling anything.
inline Told call_end_callback(CL_Object *end, const CL_ErrInfo &why, uint64_t arg1, uint64_t arg2,
                              const char *file, uint32_t line = __builtin_LINE()) {
    CL_Event event = {};
    event.type = CL_EVENT_END;
    event.error = why;
    end->connection.telling = 1;
    const uint32_t result =
        cl_Callback_M(end->connection.end_callback, end, &event, arg1, arg2, 0, file, line);
    CL_ErrInfo scratch;
    const bool left = cl_CheckFD_sub(end, &scratch) != 0 && end->kind == CL_KIND_END &&
                      end->connection.telling != 0;
    if (left) end->connection.telling = 0;
    return {result, left};
}

// The object that a synchronous transfer watches for the end; null: none.
inline CL_Object *end_to_watch() {
    if (CL_MainTable->sync_flag == 0) return nullptr;
    auto *end = static_cast<CL_Object *>(CL_MainTable->kind_queues[CL_KIND_QUEUE_END].head);
    return end != nullptr && end->connection.telling == 0 ? end : nullptr;
}

}  // namespace qvcl
