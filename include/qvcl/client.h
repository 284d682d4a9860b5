/* Message client endpoints (MSGC): one end of a connection that carries messages (message.h).
 *
 * An application connects an object to a server's path, or accepts one from a server of its own. It
 * receives one message at a time into its own buffer, sends blocks in order, and disconnects.
 * Callback events: CONNECTED, MESSAGE, SENT, DISCONNECT, FAILED. After CL_EVENT_DISCONNECT the
 * object is failed and only disconnect or delete is useful; it can then connect again. The same
 * holds after a send that meets the end (errno): no event follows, and the next iteration ends the
 * loop when the connection is still listed. A listed connection is watched only for what is
 * pending. Failures carry CL_MODULE_MSGC. */
#ifndef QVCL_CLIENT_H
#define QVCL_CLIENT_H

#include <qvcl/message.h>

QVCL_BEGIN

/* Connects to the server at `path` (at most 107 characters). CL_MODE_SYNC: 1 connected, 0 on
 * failure. Other modes: 0, with CL_ERR_IN_PROGRESS in err when CL_EVENT_CONNECTED follows in the
 * loop. No retry: a server that is missing, refuses or is full fails the call. reserved: recorded
 * only.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not MSGC), EALREADY (connected already), EFAULT
 * (path null), ENAMETOOLONG (path too long), EINVAL (mode), EMFILE (descriptor beyond the loop's
 * sets), CL_ERR_IN_PROGRESS, errno (socket, fcntl, connect). */
QVCL_API uint32_t CL_CnctMSGC_M(CL_Object *client, const char *path, uint32_t mode,
                                uint32_t reserved, CL_ErrInfo *err, uint8_t callerFlag,
                                const char *file, uint32_t line);
#define CL_CnctMSGC(client, path, mode, err) \
    CL_CnctMSGC_M((client), (path), (mode), 0, (err), CL_HERE)

/* Receives one message, header included, into `buffer` of `capacity` bytes (at least 16; the
 * largest message accepted). CL_MODE_SYNC: waits at most `timeout` seconds (0: no limit) and
 * returns the message length. Other modes: -1 with CL_ERR_IN_PROGRESS; CL_EVENT_MESSAGE follows. -1
 * on failure.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not MSGC, not connected, failed, connect pending),
 * EINPROGRESS (a receive is pending), EINVAL (mode, capacity), EFAULT (buffer null),
 * CL_ERR_IN_PROGRESS, ETIMEDOUT (CL_MODE_SYNC; what was read of the message is lost), EPIPE
 * (CL_MODE_SYNC: peer closed), EMSGSIZE (CL_MODE_SYNC: message above capacity), EPROTO
 * (CL_MODE_SYNC: not a message), EINTR (CL_MODE_SYNC: end watch; the result is the end callback's),
 * EMFILE (CL_MODE_SYNC: descriptor beyond the wait's sets), errno (with CL_MODE_SYNC: recv,
 * pselect, and the calls of timers). */
QVCL_API int32_t CL_RecvMSGC_M(CL_Object *client, void *buffer, int32_t capacity, uint32_t mode,
                               uint32_t timeout, CL_ErrInfo *err, uint8_t callerFlag,
                               const char *file, uint32_t line);
#define CL_RecvMSGC(client, buffer, capacity, mode, timeout, err) \
    CL_RecvMSGC_M((client), (buffer), (capacity), (mode), (timeout), (err), CL_HERE)

/* Sends a message block (CL_MsgBlock and its payload) of `blockSize` bytes, at least 56; fills
 * length, version and sender of its header. The message length when it went out within the call
 * (CL_MODE_SYNC, CL_MODE_IMMEDIATE); -1 with CL_ERR_IN_PROGRESS when the loop goes on with it and
 * CL_EVENT_SENT follows (CL_MODE_IMMEDIATE when the socket is full or other blocks are queued,
 * CL_MODE_DEFERRED always). -1 on failure.
 * Errors: CL_ERR_STATE, EBADF (as receive), EINVAL (mode, size, block still queued), EINPROGRESS
 * (CL_MODE_SYNC while blocks are queued), EFAULT (block null), CL_ERR_IN_PROGRESS, CL_ERR_QUEUE,
 * ETIMEDOUT (CL_MODE_SYNC), EINTR (CL_MODE_SYNC: end watch; the result is the end callback's),
 * EMFILE (CL_MODE_SYNC: descriptor beyond the wait's sets), errno (send; with CL_MODE_SYNC also
 * pselect and the calls of timers). */
QVCL_API int32_t CL_SendMSGC_M(CL_Object *client, void *block, int32_t blockSize, uint32_t mode,
                               uint32_t timeout, CL_ErrInfo *err, uint8_t callerFlag,
                               const char *file, uint32_t line);
#define CL_SendMSGC(client, block, blockSize, mode, timeout, err) \
    CL_SendMSGC_M((client), (block), (blockSize), (mode), (timeout), (err), CL_HERE)

/* Ends the connection. receiveBufferOut: receives the address of the receive buffer last set up.
 * unsentOut: made a queue that receives the unsent blocks; without it they are only unlinked.
 * Either may be null. The object stays listed. 1 on success; 0 on failure: after a failed close
 * everything is handed back and nothing is pending, but it is still connected.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not MSGC, not connected), CL_ERR_QUEUE, errno
 * (close). */
QVCL_API uint32_t CL_DiscMSGC_M(CL_Object *client, uint64_t *receiveBufferOut, CL_Queue *unsentOut,
                                CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                uint32_t line);
#define CL_DiscMSGC(client, receiveBufferOut, unsentOut, err) \
    CL_DiscMSGC_M((client), (receiveBufferOut), (unsentOut), (err), CL_HERE)

QVCL_END

#endif
