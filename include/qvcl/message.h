/* Framed messages over local stream sockets: wire format, message block, transfer modes.
 *
 * A message is a 16-byte header and an opaque payload, in host byte order, one after another on the
 * stream. The application sends from and receives into buffers of its own; nothing is copied and
 * nothing allocated.
 *
 * Who owns a buffer, exactly once:
 *
 *   operation                      lent to the connection until
 *   receive, CL_MODE_SYNC          the call returns
 *   receive, other modes           CL_EVENT_MESSAGE or CL_EVENT_DISCONNECT (data), or disconnect
 *                                  (receiveBufferOut)
 *   send, CL_MODE_SYNC, length     the call returns
 *   send, CL_MODE_SYNC, -1         the call returns; but after ETIMEDOUT, EINTR (end request) or a
 *                                  failed wait the block stays queued until disconnect (unsentOut)
 *   send, CL_MODE_IMMEDIATE,       the call returns; no event follows
 *   length
 *   send, -1 and in progress       CL_EVENT_SENT (data), CL_EVENT_DISCONNECT (queue, during the
 *                                  callback), or disconnect (unsentOut)
 *   send, -1 and any other error   never: it is the caller's again
 *
 * A block is on the send queue exactly as long as the connection holds it (block->link.owner).
 *
 * Receive and send are in client.h. */
#ifndef QVCL_MESSAGE_H
#define QVCL_MESSAGE_H

#include <qvcl/descriptor.h>

QVCL_BEGIN

#define CL_MSG_VERSION 0x00010001u

/* Message header: the wire format. */
typedef struct CL_MsgHeader {
    uint32_t length;  /* bytes of the message, this header included; at least 16 */
    uint32_t version; /* CL_MSG_VERSION */
    uint32_t sender;  /* process id of the sender, filled by the send operation */
    uint32_t type;    /* the sender's choice */
} CL_MsgHeader;
CL_LAYOUT_AT(CL_MsgHeader, version, 4);
CL_LAYOUT_AT(CL_MsgHeader, sender, 8);
CL_LAYOUT_AT(CL_MsgHeader, type, 12);
CL_LAYOUT_SIZE(CL_MsgHeader, 16);

/* Message block: what an application sends. Fill header.type and the payload that follows; the
 * send operation fills the rest. Zero the link before the first use. */
typedef struct CL_MsgBlock {
    CL_QueueLink link;  /* send queue */
    uint64_t reserved;  /* the application's */
    uint32_t sent;      /* bytes of the message already written */
    uint32_t reserved2; /* the application's */
    CL_MsgHeader header;
    /* payload */
} CL_MsgBlock;
CL_LAYOUT_AT(CL_MsgBlock, sent, 32);
CL_LAYOUT_AT(CL_MsgBlock, header, 40);
CL_LAYOUT_SIZE(CL_MsgBlock, 56);

enum {
    CL_MSG_HEADER_SIZE = 16,
    CL_MSG_PREFIX_SIZE = 40, /* bytes of a block in front of the message */
    CL_MSG_PATH_MAX = 107    /* characters of a socket path */
};

/* Transfer modes. */
enum {
    CL_MODE_SYNC = 1,      /* the call waits */
    CL_MODE_IMMEDIATE = 2, /* as much as possible now, the rest in the loop */
    CL_MODE_DEFERRED = 3   /* completed in the loop, reported by an event */
};

/* Message types of the exec-completion channel. */
enum { CL_MSG_EXEC_COMPLETE = 1, CL_MSG_END_REQUEST = 2 };

QVCL_END

#endif
