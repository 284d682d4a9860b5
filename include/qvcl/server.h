/* Message server endpoints (MSGS): a listening local socket at a path.
 *
 * While it is listed, its callback gets CL_EVENT_CONNECTION whenever a peer waits, again and again
 * until the callback accepts. The accepted connection is an MSGC object (client.h). Failures carry
 * CL_MODULE_MSGS. */
#ifndef QVCL_SERVER_H
#define QVCL_SERVER_H

#include <qvcl/message.h>

QVCL_BEGIN

/* Listens at `path` (at most 107 characters). Any file there is removed first, so the directory
 * must be one that nobody else may write to; the socket file has mode 0660. backlog: of listen(2).
 * 1 on success, 0 on failure: the object is as before.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not an MSGS object), EALREADY (open already), EFAULT
 * (path null), ENAMETOOLONG (path too long), EMFILE (descriptor beyond the loop's sets), errno
 * (socket, fcntl, unlink, bind, chmod, listen). */
QVCL_API uint32_t CL_OpenMSGS_M(CL_Object *server, const char *path, uint32_t backlog,
                                CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                uint32_t line);
#define CL_OpenMSGS(server, path, backlog, err) \
    CL_OpenMSGS_M((server), (path), (backlog), (err), CL_HERE)

/* Accepts a waiting connection as a new MSGC object with the given callback and arguments; ready,
 * not listed, no receive set up. Null on failure.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not an open server), EAGAIN (nobody waits), EMFILE
 * (table full, or descriptor beyond the loop's sets: the connection is closed), CL_ERR_QUEUE, errno
 * (accept, fcntl). */
QVCL_API CL_Object *CL_AcceptMSGS_M(CL_Object *server, CL_Callback callback, uint64_t arg1,
                                    uint64_t arg2, CL_ErrInfo *err, uint8_t callerFlag,
                                    const char *file, uint32_t line);
#define CL_AcceptMSGS(server, callback, arg1, arg2, err) \
    CL_AcceptMSGS_M((server), (callback), (arg1), (arg2), (err), CL_HERE)

/* Closes the socket and removes its file; the object stays listed and may be opened again. 1 on
 * success, 0 on failure.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not an open server), errno (close). */
QVCL_API uint32_t CL_CloseMSGS_M(CL_Object *server, CL_ErrInfo *err, uint8_t callerFlag,
                                 const char *file, uint32_t line);
#define CL_CloseMSGS(server, err) CL_CloseMSGS_M((server), (err), CL_HERE)

QVCL_END

#endif
