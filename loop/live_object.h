// The first step of every operation on an object.
#pragma once

#include <qvcl/steps.h>

#include "core/error.h"

namespace qvcl {

// Clears the error record and tests the handle: a live object and, unless the library itself calls
// (caller flag not 0), one of the operation's kind. False with err filled.
inline bool live_object(const Failure &fail, CL_Object *object, uint32_t kind, CL_ErrInfo *err,
                        uint8_t callerFlag, uint32_t line = __builtin_LINE()) {
    *err = {};
    if (cl_CheckFD(object, err) == 0) return false;
    if (CL_QUE_Isinque(&CL_MainTable->used_queue, object) == 0) {
        return fail.because(Reason::not_live)(err, EBADF, line);
    }
    if (callerFlag == 0 && object->kind != kind) {
        return fail.because(Reason::wrong_kind)(err, EBADF, line);
    }
    return true;
}

}  // namespace qvcl
