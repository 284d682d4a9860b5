/* Companion of libqvcl: starting programs, and being started (libqvcl-starter.a).
 *
 * A starter starts programs as CHILD objects and learns how each ended (CL_EVENT_CHILD_END) and,
 * when it waits for it, that it has come up (CL_EVENT_EXEC_COMPLETE). The starter called CL_Init
 * with a socket path; the path is handed to the program in the environment variable
 * QVCL_EXEC_SOCKET. The started program reports with CL_StartupComplete and keeps an END(ExecComp)
 * object whose end callback tells it when to end (CL_EVENT_END).
 *
 * It uses nothing but the exported interface. Failures of its own carry CL_MODULE_STARTER. One
 * thread drives it, the loop's. */
#ifndef QVCL_STARTER_H
#define QVCL_STARTER_H

#include <qvcl/child.h>

QVCL_BEGIN

#define CL_STARTER_SOCKET "QVCL_EXEC_SOCKET" /* environment variable with the socket path */

enum { CL_MODULE_STARTER = 100 };

/* What to start. */
typedef struct CL_Program {
    const char *path;            /* of the program, for execv */
    char *const *arguments;      /* argv, ends with null */
    const CL_EnvChange *changes; /* environment, ends with a null name; null for none */
    uint32_t await_report;       /* not 0: the program will report completion */
} CL_Program;

/* Starts a program. callback, arg1, arg2: of the CHILD object, which is ready and listed when the
 * call returns, so that a child which ends or reports at once is not missed. The handle, to be
 * deleted by the caller after CL_EVENT_CHILD_END (deleting it earlier kills the child); null on
 * failure: no child is left behind. file, line: the caller's position.
 * Errors: CL_ERR_STATE, EFAULT (null argument), EINVAL (await_report without an exec-completion
 * server), EMFILE (table full), ENOMEM (environment), CL_ERR_QUEUE, errno (pipe2, fork, or execv in
 * the child: the program does not exist, may not be executed ...). */
CL_Object *CL_StartProgram_M(const CL_Program *program, CL_Callback callback, uint64_t arg1,
                             uint64_t arg2, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                             uint32_t line);
#define CL_StartProgram(program, callback, arg1, arg2, err) \
    CL_StartProgram_M((program), (callback), (arg1), (arg2), (err), CL_HERE)

/* Asks a started program to end. 1 on success (the request was written), 0 on failure.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not a CHILD object, or it has not reported), EAGAIN
 * (its socket is full), errno (send). */
uint32_t CL_RequestEnd(CL_Object *child, CL_ErrInfo *err);

/* In the started program, after CL_Init: reports completion to the starter named by
 * QVCL_EXEC_SOCKET. endCallback, arg1, arg2: called with CL_EVENT_END when the starter asks the
 * program to end or is gone; the object is deleted afterwards. watch_sync: not 0 makes synchronous
 * transfers watch for it too; they end with EINTR, and leave the object to be deleted by the
 * caller. The END(ExecComp) object, or null on failure.
 * Errors: ENOENT (variable not set: the program was not started this way), EFAULT (endCallback
 * null), CL_ERR_STATE, EMFILE (table full, or descriptor beyond the loop's sets), ENAMETOOLONG
 * (path too long), EAGAIN (the starter accepted nobody for ten seconds), CL_ERR_QUEUE, errno
 * (socket, connect, send). */
CL_Object *CL_StartupComplete_M(CL_Callback endCallback, uint64_t arg1, uint64_t arg2,
                                uint32_t watch_sync, CL_ErrInfo *err, uint8_t callerFlag,
                                const char *file, uint32_t line);
#define CL_StartupComplete(endCallback, arg1, arg2, watch_sync, err) \
    CL_StartupComplete_M((endCallback), (arg1), (arg2), (watch_sync), (err), CL_HERE)

/* Sends `state` (for example "READY=1") to the service manager whose datagram socket the
 * environment variable NOTIFY_SOCKET names, as of sd_notify(3). 1 on success, 0 on failure; 0 with
 * err 0 when the variable is not set.
 * Errors: EFAULT (state null), ENAMETOOLONG (path too long), errno (socket, connect, send). */
uint32_t CL_NotifyManager(const char *state, CL_ErrInfo *err);

QVCL_END

#endif
