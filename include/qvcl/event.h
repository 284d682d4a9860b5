/* Events and callbacks: what the loop hands to an application.
 *
 * A callback receives the object, an event record and the two user arguments given at creation.
 * It returns 0 to let the loop go on; any other value ends the loop, which returns that value.
 * CL_LOOP_ERROR is the loop's own error result and no value for a callback.
 *
 * Callbacks run on the loop's thread, never inside a signal handler. They may create, list,
 * unlist and delete any object, their own included. */
#ifndef QVCL_EVENT_H
#define QVCL_EVENT_H

#include <sys/select.h>

#include <qvcl/queue.h>

QVCL_BEGIN

typedef struct CL_Object CL_Object;

/* Event types and the fields of the record that each fills; all others are zero. */
enum {
    CL_EVENT_CONNECTION = 1,    /* MSGS, EXECS: a connection is waiting */
    CL_EVENT_CONNECTED = 2,     /* MSGC: the connection attempt has completed */
    CL_EVENT_MESSAGE = 3,       /* MSGC: data, length: one whole message, header included */
    CL_EVENT_SENT = 4,          /* MSGC: data: the message block, back in the caller's hands */
    CL_EVENT_DISCONNECT = 5,    /* MSGC: data, length: receive buffer and bytes in it; queue: the
                                 * unsent blocks; error: why */
    CL_EVENT_EXEC_COMPLETE = 6, /* CHILD: the started program has come up */
    CL_EVENT_CHILD_END = 7,     /* CHILD: exit_reason, exit_value */
    CL_EVENT_TIMER = 8,         /* TIMER: the timer expired */
    CL_EVENT_END = 9,           /* END(ExecComp): asked to end, or parent lost (error.err EPIPE) */
    CL_EVENT_DESCRIPTOR = 11,   /* FD: sets: the descriptors that are ready */
    CL_EVENT_FAILED = 12,       /* any listed object: it cannot take part; error: why */
    CL_EVENT_WAKE = 13          /* THREAD: another thread woke the loop */
};

/* Values of exit_reason; exit_value is the exit status or the signal number. */
enum { CL_CHILD_EXITED = 1, CL_CHILD_KILLED = 2 };

/* The three descriptor sets in the form and order that pselect takes them. */
typedef struct CL_FdSets {
    fd_set read;
    fd_set write;
    fd_set except;
} CL_FdSets;
CL_LAYOUT_SIZE(CL_FdSets, 384);

/* Event record. Valid only during the callback. */
typedef struct CL_Event {
    uint32_t type;
    uint32_t reserved1;
    void *data;
    int32_t length; /* bytes */
    uint32_t reserved2;
    CL_Queue queue; /* of message blocks, link offset 0 */
    CL_FdSets sets;
    uint32_t reserved3;
    uint32_t exit_reason;
    uint32_t exit_value;
    CL_ErrInfo error;
} CL_Event;
CL_LAYOUT_AT(CL_Event, data, 8);
CL_LAYOUT_AT(CL_Event, length, 16);
CL_LAYOUT_AT(CL_Event, queue, 24);
CL_LAYOUT_AT(CL_Event, sets, 48);
CL_LAYOUT_AT(CL_Event, exit_reason, 436);
CL_LAYOUT_AT(CL_Event, error, 444);
CL_LAYOUT_SIZE(CL_Event, 464);

/* Function that an object calls. */
typedef uint32_t (*CL_Callback)(CL_Object *object, CL_Event *event, uint64_t arg1, uint64_t arg2);

QVCL_END

#endif
