// Objects that stand for an open descriptor: how they begin.
#pragma once

#include <fcntl.h>

#include <qvcl/main.h>
#include <qvcl/system.h>

#include "core/error.h"
#include "core/text.h"
#include "loop/live_object.h"

namespace qvcl {

// An object of `kind` whose descriptor `open` opens, close-on-exec: what a program that is started
// later must not inherit. Null with err filled, and nothing left open.
template <class Open>
CL_Object *open_object(const Failure &fail, uint32_t kind, Open open, CL_ErrInfo *err,
                       const char *file, uint32_t line) {
    const Failure here = fail.at(place(__FILE__));
    CL_Object *object = CL_CreateFD_M(kind, nullptr, 0, 0, err, 1, file, line);
    if (object == nullptr) return nullptr;
    object->descriptor = open();
    if (object->descriptor == -1) {
        here.sys(err);
    } else if (cl_u_fcntl(object->descriptor, F_SETFD, FD_CLOEXEC) == -1) {
        here.sys(err);
        cl_u_close(object->descriptor);
    } else {
        return object;
    }
    CL_ErrInfo scratch;
    CL_DeleteFD_M(object, &scratch, 1, source_name(__FILE__), __LINE__);
    return nullptr;
}

// Whether it is a live, open object of `kind`, whoever asks; false with err filled.
inline bool is_open(const Failure &fail, CL_Object *object, uint32_t kind, CL_ErrInfo *err,
                    uint32_t line = __builtin_LINE()) {
    if (!live_object(fail, object, kind, err, 0, line)) return false;
    if ((object->status & CL_STATUS_READY) != 0) return true;
    return fail.because(Reason::not_open)(err, EBADF, line);
}

}  // namespace qvcl
