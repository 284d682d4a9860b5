// The first step of every operation on an object.
#pragma once

#include "core/error.h"

namespace qvcl {

inline constexpr uint32_t kStrayRange = 3;  // of location numbers, in whatever module

// Clears the error record and tests the handle: a live object and, unless the library itself calls
// (caller flag not 0), one of the operation's kind. False with err filled.
inline bool live_object(const Failure &fail, CL_Object *object, uint32_t kind, CL_ErrInfo *err,
                        uint8_t callerFlag, uint32_t line = __builtin_LINE()) {
    *err = {};
    if (cl_CheckFD(object, err) == 0) return false;
    if (CL_QUE_Isinque(&CL_MainTable->used_queue, object) == 0) {
        fail.in(kStrayRange)(err, EBADF, line);
        return false;
    }
    if (callerFlag == 0 && object->kind != kind) {
        fail(err, EBADF, line);
        return false;
    }
    return true;
}

}  // namespace qvcl
