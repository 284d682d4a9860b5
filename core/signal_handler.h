// How the library installs its signal handlers.
#pragma once

#include <csignal>

#include <qvcl/main.h>
#include <qvcl/system.h>

#include "core/error.h"

namespace qvcl {

// Installs `handler`, with `flags` besides those that all handlers have. found: receives the action
// that was there, or null. False with err filled.
inline bool install_handler(const Failure &fail, int signal, void (*handler)(int), int flags,
                            struct sigaction *found, CL_ErrInfo *err) {
    const Failure here = fail.at(place(__FILE__));
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART | SA_SIGINFO | flags;
    if (cl_u_sigemptyset(&action.sa_mask) != 0) return here.sys(err);
    if (cl_u_sigaddset(&action.sa_mask, signal) != 0) return here.sys(err);
    if (cl_u_sigaction(signal, &action, found) != 0) return here.sys(err);
    return true;
}

}  // namespace qvcl
