// The one way to the end callback of a started program, from the loop and from a synchronous
// transfer that watches for the end.
#pragma once

#include <qvcl/main.h>

namespace qvcl {

// Calls the end callback; its result. Until it returns nobody watches for the end: the program has
// just been told, and a starter that is gone would be found again by every transfer in there.
inline uint32_t call_end_callback(CL_Object *end, const CL_ErrInfo &why, uint64_t arg1,
                                  uint64_t arg2, const char *file,
                                  uint32_t line = __builtin_LINE()) {
    CL_Event event = {};
    event.type = CL_EVENT_END;
    event.error = why;
    ++CL_MainTable->end_callbacks;
    const uint32_t result =
        cl_Callback_M(end->connection.end_callback, end, &event, arg1, arg2, 0, file, line);
    --CL_MainTable->end_callbacks;
    return result;
}

// The object that a synchronous transfer watches for the end; null: none.
inline CL_Object *end_to_watch() {
    const CL_MainBlock &main = *CL_MainTable;
    if (main.sync_flag == 0 || main.end_callbacks != 0) return nullptr;
    return static_cast<CL_Object *>(main.kind_queues[CL_KIND_QUEUE_END].head);
}

}  // namespace qvcl
