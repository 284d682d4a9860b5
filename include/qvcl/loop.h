/* The event loop.
 *
 * Each iteration: newly listed objects join the priority list; every listed object adds its
 * descriptors to three sets; due timers, then ended children are dispatched if their signals came;
 * otherwise pselect waits, with SIGALRM and SIGCHLD open only during the wait. Then due timers, and
 * the listed objects in ascending priority; between two objects due timers and ended children that
 * became pending meanwhile.
 *
 * CL_EventLoop_M returns the value of the callback that ended it, or CL_LOOP_ERROR with err filled
 * (CL_MODULE_LOOP for failures of its own); never 0. With a callback's value err says nothing. It
 * can be entered again: what was due, but not called, is called by the next loop (ended children
 * only after another SIGCHLD), and so is a periodic timer that ended it (timer.h). The sets hold
 * descriptors below 1024; an object with a larger one is reported with CL_EVENT_FAILED, which ends
 * the loop.
 *
 * Loops do not nest: a callback must not enter one. It may use synchronous transfers.
 *
 * The loop's signals are open from its first wait on, even when the application had blocked them
 * before; the masks of other signals are left alone. */
#ifndef QVCL_LOOP_H
#define QVCL_LOOP_H

#include <qvcl/eventlist.h>

QVCL_BEGIN

#define CL_LOOP_ERROR 0xffffffffu

/* Runs the loop. The value of the callback that ended it, or CL_LOOP_ERROR; never 0. A failed
 * exec-completion callback leaves the error of its own step.
 * Errors: EBADF (an object could not take part, and its callback returned 0), CL_ERR_QUEUE, errno
 * (sigprocmask, pselect, and the calls of timers and children). */
QVCL_API uint32_t CL_EventLoop_M(CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                 uint32_t line);
#define CL_EventLoop(err) CL_EventLoop_M((err), CL_HERE)

QVCL_END

#endif
