/* Descriptor objects: one fixed table of everything that can cause an event.
 *
 * CL_Init_M allocates the table once. An application asks for an object, sets it up with the
 * operations of its kind, lists it (eventlist.h) and gives it back. A handle is the object's
 * address (its layout: layouts.h); it is valid while the object is live, and every operation checks
 * that first. Objects are never freed, only returned to the table, and slots are reused first in,
 * first out.
 *
 * What an object stands for (socket, child, mapping, open file) is released by CL_DeleteFD_M,
 * except the descriptors of FD objects, which stay the application's, and the descriptor of a
 * FILE or SHM object that was not closed first. */
#ifndef QVCL_DESCRIPTOR_H
#define QVCL_DESCRIPTOR_H

#include <qvcl/layouts.h>

QVCL_BEGIN

/* Kinds: number, name of the enumerator, name in reports; in the order of the kind queues. */
#define CL_KINDS(KIND)            \
    KIND(1, MSGS, "MSGS")         \
    KIND(2, MSGC, "MSGC")         \
    KIND(3, CHILD, "CHILD")       \
    KIND(4, FD, "FD")             \
    KIND(13, THREAD, "THREAD")    \
    KIND(6, END, "END(ExecComp)") \
    KIND(7, EXECS, "EXECS")       \
    KIND(8, EXECC, "EXECC")       \
    KIND(9, TIMER, "TIMER")       \
    KIND(10, SHM, "SHM")          \
    KIND(11, FILE, "FILE")

/* CL_KIND_MSGS = 1, ... */
enum {
#define CL_KIND_NUMBER(number, symbol, name) CL_KIND_##symbol = (number),
    CL_KINDS(CL_KIND_NUMBER)
#undef CL_KIND_NUMBER
};

/* Places in the main table's kind_queues, in the order of CL_KINDS: CL_KIND_QUEUE_MSGS = 0, ... */
enum {
#define CL_KIND_PLACE(number, symbol, name) CL_KIND_QUEUE_##symbol,
    CL_KINDS(CL_KIND_PLACE) CL_KIND_COUNT
#undef CL_KIND_PLACE
};

enum {
    CL_MAX_OBJECTS = 10000, /* the most that CL_Init_M accepts */
    CL_SPARE_OBJECTS = 10   /* entries beyond the count asked for */
};

/* Bits of `status`. */
enum {
    CL_STATUS_READY = 0x01,   /* set up */
    CL_STATUS_LISTED = 0x04,  /* on an event list */
    CL_STATUS_RUNNING = 0x10, /* a timer that counts */
    CL_STATUS_FAILED = 0x20   /* cannot take part in the loop any more */
};

/* Bits of `sub_status`, by kind. */
enum {
    CL_SUB_CONNECT_PENDING = 0x01, /* MSGC */
    CL_SUB_RECV_PENDING = 0x02,    /* MSGC */
    CL_SUB_SEND_PENDING = 0x104,   /* MSGC: both bits are set and cleared together */
    CL_SUB_PERIODIC = 0x08,        /* TIMER */
    CL_SUB_EXEC_AWAITED = 0x10,    /* CHILD: on the exec-completion wait list */
    CL_SUB_EXEC_COMPLETE = 0x20    /* CHILD: reported; the object holds the connection */
};

/* A new object of `kind`, status 0. callback: with null the object's events are dropped; arg1,
 * arg2: passed to every call of it. Null on failure.
 * Errors: CL_ERR_STATE (library not initialised), EINVAL (no such kind, or one that only the
 * library creates: END, EXECS, EXECC, SHM, FILE), EMFILE (table full), CL_ERR_QUEUE. */
QVCL_API CL_Object *CL_CreateFD_M(uint32_t kind, CL_Callback callback, uint64_t arg1, uint64_t arg2,
                                  CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                  uint32_t line);
#define CL_CreateFD(kind, callback, arg1, arg2, err) \
    CL_CreateFD_M((kind), (callback), (arg1), (arg2), (err), CL_HERE)

/* Releases what the object stands for, unlists it and gives it back; the handle is invalid
 * afterwards. A running child is killed (SIGABRT) and reaped, a running timer stopped, a connection
 * or server closed; blocks of a connection's send queue are unlinked, not freed (those of a
 * CL_EVENT_DISCONNECT are in the event's queue by then: clear that before their memory goes). 1 on
 * success, 0 on failure: when a release failed the object stays live. A CHILD is deleted also when
 * a report connection that nobody needs any more could not be: 1, with CL_ERR_QUEUE in err.
 * Errors: EBADF (invalid handle, or a kind that only the library deletes: EXECS, EXECC, SHM, FILE),
 * CL_ERR_QUEUE, CL_ERR_STATE (library not initialised, and the object has something to release or
 * is listed), errno (close, setitimer). */
QVCL_API uint32_t CL_DeleteFD_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                                const char *file, uint32_t line);
#define CL_DeleteFD(object, err) CL_DeleteFD_M((object), (err), CL_HERE)

QVCL_END

#endif
