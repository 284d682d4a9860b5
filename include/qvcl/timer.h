/* Timers of whole seconds.
 *
 * All running timers share one interval timer (ITIMER_REAL, SIGALRM every second, only while a
 * timer runs), so neither alarm() nor setitimer() nor SIGALRM is free for the application. The
 * handler only counts. A timer is due when the system's uptime in whole seconds has advanced by its
 * interval; the loop then calls its callback with CL_EVENT_TIMER. Timers that are due together are
 * called in order of their start.
 *
 * A periodic timer keeps its phase, and catches up when the loop was late. It is re-armed after its
 * callback: one whose callback ends the loop stays due, and the next loop calls it again with the
 * first tick. What ends the loop again and again is a one-shot timer that its callback starts
 * again, or a periodic one that its callback stops and starts. */
#ifndef QVCL_TIMER_H
#define QVCL_TIMER_H

#include <qvcl/descriptor.h>

QVCL_BEGIN

/* Modes. */
enum {
    CL_TIMER_ONESHOT = 10, /* stopped just before its callback */
    CL_TIMER_PERIODIC = 11
};

#define CL_TIMER_DUE 0xffffffffu /* value of an object's `remaining` */

/* Starts a stopped TIMER object. seconds: 0 is due at the loop's next look. 1 on success, 0 on
 * failure. When the interval timer cannot be started the result is 0 and the timer stays on its
 * list.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not a timer, runs already), EINVAL (mode),
 * CL_ERR_QUEUE, errno (sysinfo, sigaction, setitimer). */
QVCL_API uint32_t CL_StartTIMER_M(CL_Object *object, uint32_t seconds, uint32_t mode,
                                  CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                  uint32_t line);
#define CL_StartTIMER(object, seconds, mode, err) \
    CL_StartTIMER_M((object), (seconds), (mode), (err), CL_HERE)

/* Stops a running or due timer. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not a timer, not running), CL_ERR_QUEUE, errno
 * (setitimer). */
QVCL_API uint32_t CL_StopTIMER_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                                 const char *file, uint32_t line);
#define CL_StopTIMER(object, err) CL_StopTIMER_M((object), (err), CL_HERE)

/* Brings remaining seconds and due marks up to date; calls no callback. */
QVCL_API void CL_CommitTIMER(void);

QVCL_END

#endif
