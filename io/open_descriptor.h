// Opening what a program that is started later must not inherit.
#pragma once

#include <fcntl.h>
#include <cerrno>

#include <qvcl/system.h>

namespace qvcl {

// Runs `open` and marks the descriptor close-on-exec. -1 with errno, nothing left open.
template <class Open>
int open_close_on_exec(Open open) {
    const int descriptor = open();
    if (descriptor == -1 || cl_u_fcntl(descriptor, F_SETFD, FD_CLOEXEC) != -1) return descriptor;
    const int kept = errno;
    cl_u_close(descriptor);
    errno = kept;
    return -1;
}

}  // namespace qvcl
