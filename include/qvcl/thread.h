/* The loop that other threads can wake.
 *
 * CL_EventLoopThread_M is the loop of loop.h with a third signal: when SIGUSR1 arrives, the
 * callback of every listed THREAD object is called, in order of listing, after timers and children.
 * Masks are those of the calling thread. Failures carry CL_MODULE_THREAD.
 *
 * Other threads send SIGUSR1 to the process or to the loop's thread and call nothing else of the
 * library. Every wake-up between clSIGUSR1Initialize and clSIGUSR1End reaches the loop; several
 * before it looks count as one. A wake-up ends the wait at once only when the loop's thread takes
 * the signal: send it with pthread_kill, or block SIGUSR1 in the other threads. */
#ifndef QVCL_THREAD_H
#define QVCL_THREAD_H

#include <qvcl/loop.h>

QVCL_BEGIN

/* Installs the SIGUSR1 handler and clears the wake-up flag; the action found is kept in the main
 * table. 1 on success, 0 on failure.
 * Errors: errno (sigaction). */
QVCL_API uint32_t clSIGUSR1Initialize(CL_ErrInfo *err);

/* Sets SIGUSR1 to be ignored. Always 1. */
QVCL_API uint32_t clSIGUSR1End(void);

/* Makes a THREAD object ready. 1 on success, with err as the caller passed it in; 0 on failure.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, or not a THREAD object and callerFlag 0). */
QVCL_API uint32_t CL_SetThreadFd_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                                   const char *file, uint32_t line);
#define CL_SetThreadFd(object, err) CL_SetThreadFd_M((object), (err), CL_HERE)

/* As CL_EventLoop_M.
 * Errors: EBADF (an object could not take part, and its callback returned 0), CL_ERR_QUEUE, errno
 * (pthread_sigmask, pselect, and the calls of timers and children). */
QVCL_API uint32_t CL_EventLoopThread_M(CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                       uint32_t line);
#define CL_EventLoopThread(err) CL_EventLoopThread_M((err), CL_HERE)

QVCL_END

#endif
