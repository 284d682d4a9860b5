/* Companion of libqvcl: channels, connections that read and write messages in bulk
 * (libqvcl-starter.a).
 *
 * A channel is one end of a connection on the nest (nest.h). It carries the messages of message.h:
 * the other end may be a channel or a message connection (client.h), which cannot tell. One read
 * takes whatever has come, up to a buffer full, and each message in it is told by a callback; what
 * is sent is gathered in a buffer and written at once. A header that is none ends the channel, as
 * it ends a message connection.
 *
 * Buffers have the sizes that they were created with. When the one for sending is full, sending is
 * refused, and a callback tells when there is room again. A channel that is paused does not read:
 * the bytes wait in the socket and, when that is full, in the sender.
 *
 * A channel has a turn when the nest finds its socket ready: one read, and the messages in it, at
 * most `most`; the rest in the next turn, after others had theirs. What any channel sent during the
 * turn of one is written at the end of it; what was sent elsewhere, in the nest's next turn. So it
 * is when a buffer is full, or CL_FlushChannel says so.
 *
 * Callbacks return 0 to let the loop go on; any other value ends the loop, which returns it; what
 * was read is told by the next loop. They may create, change and delete anything, their own channel
 * included, and the nest. A channel that was deleted is not called any more.
 *
 * Every batch leaves two records in the library ring, before and after, with the nest's object as
 * handle, the channel as data, and an event of CL_EVENT_CHANNEL_...
 *
 * A handle is valid until it is deleted. Creating allocates (tracked memory of the application);
 * nothing else does. All functions belong to the loop's thread. A call that fails changes nothing.
 * Channels need the nest: when that is deleted they can only be deleted. Failures carry
 * CL_MODULE_CHANNEL, or CL_MODULE_NEST where the nest found them. */
#ifndef QVCL_CHANNEL_H
#define QVCL_CHANNEL_H

#include <sys/types.h>

#include <qvcl/message.h>

QVCL_BEGIN

enum { CL_MODULE_CHANNEL = 103 };

/* Batches and callbacks in the trace, and what their records hold. */
enum {
    CL_EVENT_CHANNEL_READ = 111,    /* messages told; data_length: bytes there; exit_value: how
                                     * many, behind the callbacks */
    CL_EVENT_CHANNEL_WRITE = 112,   /* data_length: bytes to write, then bytes written;
                                     * exit_value: messages gathered since the last one */
    CL_EVENT_CHANNEL_DRAINED = 113, /* data_length: bytes of room */
    CL_EVENT_CHANNEL_CLOSED = 114,  /* exit_value: why, an error code */
    CL_EVENT_CHANNEL_WAITING = 115  /* data: the listener */
};

enum {
    CL_CHANNEL_DEFAULT_SIZE = 65536, /* bytes of a buffer */
    CL_CHANNEL_LIMIT_SIZE = 1 << 30,
    CL_CHANNEL_DEFAULT_MOST = 4096 /* messages of a turn */
};

/* Handles. */
typedef struct CL_Channel CL_Channel;
typedef struct CL_ChannelListener CL_ChannelListener;

/* A message is there. message: header and payload, aligned to 8 bytes; valid during the call. */
typedef uint32_t (*CL_ChannelMessage)(CL_Channel *channel, const CL_MsgHeader *message,
                                      uint64_t arg1, uint64_t arg2);

/* There is room for the message that was refused with EAGAIN, and for half the buffer at least; or
 * the other side does not take any more, and sending will say so. */
typedef uint32_t (*CL_ChannelDrained)(CL_Channel *channel, uint64_t arg1, uint64_t arg2);

/* The channel is at its end, after all messages that came before. Its socket is closed; the handle
 * is still to be deleted. reason: EPIPE (the other side closed, also in the middle of a message),
 * ECONNRESET (the same, with bytes of ours unread), EPROTO (another format version, or a length
 * below 16), EMSGSIZE (a message longer than the buffer), ETIMEDOUT (a time limit), or the errno of
 * a system call; valid during the call. */
typedef uint32_t (*CL_ChannelClosed)(CL_Channel *channel, const CL_ErrInfo *reason, uint64_t arg1,
                                     uint64_t arg2);

/* What a channel is created with; copied. Zero is the default of everything but the callbacks. */
typedef struct CL_ChannelOptions {
    CL_ChannelMessage message;
    CL_ChannelDrained drained; /* may be null */
    CL_ChannelClosed closed;
    uint32_t priority;      /* in the nest */
    uint32_t receive_size;  /* bytes of the buffer for reading, and of the longest message that is
                             * accepted; at least 16; 0: CL_CHANNEL_DEFAULT_SIZE */
    uint32_t send_size;     /* bytes of the buffer for sending, and of the longest message that can
                             * be sent; as receive_size */
    uint32_t most;          /* messages of a turn; 0: CL_CHANNEL_DEFAULT_MOST */
    uint64_t idle_limit;    /* nanoseconds without a byte received that end the channel; 0: none */
    uint64_t message_limit; /* nanoseconds from the first byte of a message to its last; 0: none */
} CL_ChannelOptions;

/* Channels. */

/* Makes a channel of a connected stream socket. fd: on success the channel's, which closes it; on
 * failure still the caller's. options: callbacks, sizes and limits. arg1, arg2: of the callbacks.
 * The handle, or null on failure.
 * Errors: CL_ERR_STATE (there is no nest), EFAULT (options, message or closed null), EINVAL (a size
 * or a limit of the options; not a stream socket), ENOMEM (no memory), errno (getsockopt,
 * getpeername, timerfd_create, timerfd_settime, epoll_ctl). */
CL_Channel *CL_CreateChannel_M(int fd, const CL_ChannelOptions *options, uint64_t arg1,
                               uint64_t arg2, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                               uint32_t line);
#define CL_CreateChannel(fd, options, arg1, arg2, err) \
    CL_CreateChannel_M((fd), (options), (arg1), (arg2), (err), CL_HERE)

/* Connects to the socket at `path` (at most 107 characters), where a channel listener or a message
 * server listens; at once, without retry. The handle, or null on failure.
 * Errors: CL_ERR_STATE (there is no nest), EFAULT (path, options, message or
 * closed null), ENAMETOOLONG (path too long), EINVAL (a size or a limit of the options), ENOMEM (no
 * memory), EAGAIN (the backlog is full), errno (socket, connect, and
 * those of CL_CreateChannel). */
CL_Channel *CL_ConnectChannel_M(const char *path, const CL_ChannelOptions *options, uint64_t arg1,
                                uint64_t arg2, CL_ErrInfo *err, uint8_t callerFlag,
                                const char *file, uint32_t line);
#define CL_ConnectChannel(path, options, arg1, arg2, err) \
    CL_ConnectChannel_M((path), (options), (arg1), (arg2), (err), CL_HERE)

/* Sends a message of this type with `size` bytes of payload (may be null when 0), which are copied.
 * 1 when it is in the buffer; 0 on failure.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle, or at its end), EFAULT
 * (payload null), EMSGSIZE (longer than the buffer), EAGAIN (no room; the drained callback
 * follows), EPIPE (the other side does not take any more; the closed callback follows), errno
 * (timerfd_settime). */
uint32_t CL_SendChannel_M(CL_Channel *channel, uint32_t type, const void *payload, uint32_t size,
                          CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line);
#define CL_SendChannel(channel, type, payload, size, err) \
    CL_SendChannel_M((channel), (type), (payload), (size), (err), CL_HERE)

/* Writes now what was sent and not yet written: before the loop is ended, say, or the channel is
 * deleted, which drops it. 1 when all of it is in the socket; 0 on failure.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle, or at its end), EAGAIN (the
 * socket is full; the rest follows in the loop), EPIPE (the other side does not take any more; the
 * closed callback follows), errno (timerfd_settime). */
uint32_t CL_FlushChannel_M(CL_Channel *channel, CL_ErrInfo *err, uint8_t callerFlag,
                           const char *file, uint32_t line);
#define CL_FlushChannel(channel, err) CL_FlushChannel_M((channel), (err), CL_HERE)

/* Stops reading and telling: no message is told before CL_ResumeChannel, and no end that the other
 * side makes. The time limits stand still. One that is paused stays so. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle, or at its end), errno
 * (epoll_ctl). */
uint32_t CL_PauseChannel_M(CL_Channel *channel, CL_ErrInfo *err, uint8_t callerFlag,
                           const char *file, uint32_t line);
#define CL_PauseChannel(channel, err) CL_PauseChannel_M((channel), (err), CL_HERE)

/* Goes on where CL_PauseChannel stopped, with what was read before first. Time limits begin anew. 1
 * on success, 0 on failure.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle, or at its end), errno
 * (epoll_ctl, timerfd_settime). */
uint32_t CL_ResumeChannel_M(CL_Channel *channel, CL_ErrInfo *err, uint8_t callerFlag,
                            const char *file, uint32_t line);
#define CL_ResumeChannel(channel, err) CL_ResumeChannel_M((channel), (err), CL_HERE)

/* The other side as the kernel knows it: who connected, or who listens; of both ends of a
 * socketpair, who made it. */
typedef struct CL_ChannelPeer {
    pid_t pid; /* 0: not a local socket, or a process that is not to be seen from here */
    uid_t uid;
    gid_t gid;
} CL_ChannelPeer;

/* Who is at the other side; also at the channel's end. peer: filled. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle), EFAULT (peer null). */
uint32_t CL_GetChannelPeer_M(CL_Channel *channel, CL_ChannelPeer *peer, CL_ErrInfo *err,
                             uint8_t callerFlag, const char *file, uint32_t line);
#define CL_GetChannelPeer(channel, peer, err) CL_GetChannelPeer_M((channel), (peer), (err), CL_HERE)

/* Deletes a channel, and closes its socket; what was not written or not told is dropped. Also
 * without the nest. 1 on success, 0 on failure.
 * Errors: EBADF (not a live handle). */
uint32_t CL_DeleteChannel_M(CL_Channel *channel, CL_ErrInfo *err, uint8_t callerFlag,
                            const char *file, uint32_t line);
#define CL_DeleteChannel(channel, err) CL_DeleteChannel_M((channel), (err), CL_HERE)

/* Listeners. */

/* Somebody waits: accept with CL_AcceptChannel, once a call; while more wait the next call follows
 * in the nest's next turn. When a call has accepted nobody, or could not, the next one follows
 * after a tenth of a second. */
typedef uint32_t (*CL_ChannelWaiting)(CL_ChannelListener *listener, uint64_t arg1, uint64_t arg2);

/* Listens at `path` (at most 107 characters) as a message server does (server.h): any file there is
 * removed first, so the directory must be one that nobody else may write to; the socket file has
 * mode 0660. backlog: of listen(2). priority: in the nest. The handle, or null on failure.
 * Errors: CL_ERR_STATE (there is no nest), EFAULT (path or callback null), ENAMETOOLONG (path too
 * long), ENOMEM (no memory), errno (socket, unlink, bind, chmod, listen, epoll_ctl). */
CL_ChannelListener *CL_CreateChannelListener_M(const char *path, uint32_t backlog,
                                               uint32_t priority, CL_ChannelWaiting callback,
                                               uint64_t arg1, uint64_t arg2, CL_ErrInfo *err,
                                               uint8_t callerFlag, const char *file, uint32_t line);
#define CL_CreateChannelListener(path, backlog, priority, callback, arg1, arg2, err)             \
    CL_CreateChannelListener_M((path), (backlog), (priority), (callback), (arg1), (arg2), (err), \
                               CL_HERE)

/* Accepts a connection that waits as a new channel. The handle, or null on failure: the connection
 * keeps waiting after EMFILE and ENFILE, and is closed after any other.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle), EFAULT
 * (options, message or closed null), EINVAL (a size or a limit of the options), EAGAIN (nobody
 * waits), EMFILE (no descriptor left), ENOMEM (no memory), errno (accept4, and those of
 * CL_CreateChannel). */
CL_Channel *CL_AcceptChannel_M(CL_ChannelListener *listener, const CL_ChannelOptions *options,
                               uint64_t arg1, uint64_t arg2, CL_ErrInfo *err, uint8_t callerFlag,
                               const char *file, uint32_t line);
#define CL_AcceptChannel(listener, options, arg1, arg2, err) \
    CL_AcceptChannel_M((listener), (options), (arg1), (arg2), (err), CL_HERE)

/* Deletes a listener: closes its socket and removes the file; its channels stay. Also without the
 * nest. 1 on success, 0 on failure.
 * Errors: EBADF (not a live handle). */
uint32_t CL_DeleteChannelListener_M(CL_ChannelListener *listener, CL_ErrInfo *err,
                                    uint8_t callerFlag, const char *file, uint32_t line);
#define CL_DeleteChannelListener(listener, err) \
    CL_DeleteChannelListener_M((listener), (err), CL_HERE)

QVCL_END

#endif
