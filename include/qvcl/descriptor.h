/* Descriptor objects: one fixed table of everything that can cause an event.
 *
 * CL_Init_M allocates the table once. An application asks for an object, sets it up with the
 * operations of its kind, lists it (eventlist.h) and gives it back. A handle is the object's
 * address; it is valid while the object is live, and every operation checks that first. Objects
 * are never freed, only returned to the table, and slots are reused first in, first out.
 *
 * What an object stands for (socket, child, mapping, open file) is released by CL_DeleteFD_M,
 * except the descriptors of FD objects, which stay the application's, and the descriptor of a
 * FILE or SHM object that was not closed first. */
#ifndef QVCL_DESCRIPTOR_H
#define QVCL_DESCRIPTOR_H

#include <stdalign.h>
#include <sys/un.h>

#include <qvcl/event.h>

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

enum {
    CL_KIND_COUNT = 11,
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

/* Message connection (MSGC, END(ExecComp), EXECC). Progress of the message being received lives
 * here, progress of each message being sent in its block. */
typedef struct CL_Connection {
    struct sockaddr_un address; /* zero for accepted connections */
    uint16_t reserved;
    void *receive_buffer; /* the application's; null when no receive was set up */
    CL_Queue send_queue;  /* message blocks not completely sent, oldest first, link offset 0 */
    int32_t receive_capacity;
    int32_t received_count;   /* bytes of the current message; -1 after a failed recv or send */
    CL_Callback end_callback; /* END(ExecComp): the application's */
    uint8_t report[20];       /* END(ExecComp), EXECC: receive buffer of the object's own */
    uint32_t pace;            /* synchronous receives since one looked before it waited */
    uint32_t telling;         /* END(ExecComp): 1 while its end callback runs */
} CL_Connection;

/* Message server (MSGS, EXECS). The path is kept so that close can remove the socket file. */
typedef struct CL_Server {
    struct sockaddr_un address;
} CL_Server;

/* Child process (CHILD). */
typedef struct CL_Child {
    uint8_t reserved[184];
    uint32_t pid;
} CL_Child;

/* Descriptors of the application (FD). */
typedef struct CL_UserSets {
    int32_t count; /* the sets cover descriptors 0 to count - 1 */
    uint32_t reserved;
    CL_FdSets sets;
} CL_UserSets;

/* Thread wake-up (THREAD). */
typedef struct CL_Wake {
    uint32_t called; /* by the walk in progress, or by the last one */
} CL_Wake;

/* Open file (FILE). */
typedef struct CL_File {
    char path[140];
} CL_File;

/* Shared-memory segment (SHM). */
typedef struct CL_SharedMemory {
    char name[140];
    uint32_t name_length; /* of the whole name, of which `name` holds the first 140 characters */
    uint64_t size;        /* bytes to map */
    uint32_t flags;
    uint32_t reserved2;
    void *address; /* of the mapping, or null */
    uint32_t unlink_on_close;
    uint32_t reserved3;
} CL_SharedMemory;

/* What the object adds to the loop's sets, in brief: the loop passes by an object none of whose
 * descriptors is ready without looking at the rest of it. */
typedef struct CL_Watch {
    uint32_t first_word; /* 64-bit words of the sets that hold a descriptor of the object: */
    uint32_t end_word;   /* [first_word, end_word) */
    uint64_t bits[3];    /* when it is one word: its bits there, read, write, except */
} CL_Watch;

/* Descriptor object. Applications read it, the library's operations change it.
 *
 * Between two operations it is on the queues of the main table that its links' owners name:
 *
 *     live    == (link.owner == used_queue)
 *     listed  == (child_link.owner || thread_link.owner || event_link.owner)
 *     status & CL_STATUS_LISTED  ? listed : !listed
 *     status & CL_STATUS_RUNNING ? timer_link.owner == timer_list : !timer_link.owner
 *
 * A deletion that failed leaves it live, but off the queue of its kind. */
struct CL_Object {
    CL_QueueLink link;        /* owner: used_queue, or free_queue; never null */
    CL_QueueLink kind_link;   /* owner: live ? kind_queues[place of kind] : null */
    CL_QueueLink timer_link;  /* owner: timer_list, or null */
    CL_QueueLink child_link;  /* owner: child_list, or null */
    CL_QueueLink thread_link; /* owner: thread_list, or null */
    CL_QueueLink event_link;  /* owner: priority_list or pending_list, or null */
    CL_QueueLink exec_link;   /* owner: exec_wait_list, or null */

    CL_Position created_before; /* these four survive deletion and reuse of the slot */
    CL_Position created;
    CL_Position deleted_before;
    CL_Position deleted;
    uint64_t own_address; /* == address of this object in the process */

    uint32_t kind; /* live: CL_KIND_...; from here on a creation clears everything */
    uint32_t priority;
    uint32_t status;     /* CL_STATUS_... */
    uint32_t sub_status; /* CL_SUB_... */
    CL_Callback callback;
    uint64_t arg1;
    uint64_t arg2;
    uint32_t interval;   /* timer: seconds */
    uint32_t remaining;  /* timer: seconds left, CL_TIMER_DUE when due */
    uint64_t start_time; /* timer: uptime in seconds */
    CL_ErrInfo error;    /* why the object cannot take part in the loop */
    int32_t descriptor;  /* -1: none */

    union {
        uint8_t area[392];
        CL_Server server;
        CL_Connection connection;
        CL_Child child;
        CL_UserSets user;
        CL_Wake wake;
        CL_File file;
        CL_SharedMemory memory;
    };
    CL_Watch watch;
};
CL_LAYOUT_AT(CL_Object, kind_link, 24);
CL_LAYOUT_AT(CL_Object, timer_link, 48);
CL_LAYOUT_AT(CL_Object, child_link, 72);
CL_LAYOUT_AT(CL_Object, thread_link, 96);
CL_LAYOUT_AT(CL_Object, event_link, 120);
CL_LAYOUT_AT(CL_Object, exec_link, 144);
CL_LAYOUT_AT(CL_Object, created_before, 168);
CL_LAYOUT_AT(CL_Object, own_address, 328);
CL_LAYOUT_AT(CL_Object, kind, 336);
CL_LAYOUT_AT(CL_Object, priority, 340);
CL_LAYOUT_AT(CL_Object, status, 344);
CL_LAYOUT_AT(CL_Object, sub_status, 348);
CL_LAYOUT_AT(CL_Object, callback, 352);
CL_LAYOUT_AT(CL_Object, interval, 376);
CL_LAYOUT_AT(CL_Object, start_time, 384);
CL_LAYOUT_AT(CL_Object, error, 392);
CL_LAYOUT_AT(CL_Object, descriptor, 412);
CL_LAYOUT_AT(CL_Object, area, 416);
CL_LAYOUT_AT(CL_Object, connection.receive_buffer, 528);
CL_LAYOUT_AT(CL_Object, connection.send_queue, 536);
CL_LAYOUT_AT(CL_Object, connection.end_callback, 568);
CL_LAYOUT_AT(CL_Object, connection.report, 576);
CL_LAYOUT_AT(CL_Object, child.pid, 600);
CL_LAYOUT_AT(CL_Object, user.sets, 424);
CL_LAYOUT_AT(CL_Object, memory.size, 560);
CL_LAYOUT_AT(CL_Object, watch, 808);
CL_LAYOUT_SIZE(CL_Object, 840);

/* The table is one block: a CL_TableHeader, then capacity objects.
 *
 *     size == sizeof(CL_TableHeader) + capacity * sizeof(CL_Object), address == descriptor_table */
static_assert(sizeof(CL_TableHeader) % alignof(CL_Object) == 0, "objects follow the header");

/* Builds the table of count + CL_SPARE_OBJECTS objects. Called once, by CL_Init_M. 1 on success, 0
 * on failure.
 * Errors: ENOMEM (no memory), CL_ERR_QUEUE. */
QVCL_API uint32_t CL_FD_TblInit(uint32_t count, CL_ErrInfo *err);

/* A new object of `kind`, status 0. callback: with null the object's events are dropped; arg1,
 * arg2: passed to every call of it. Null on failure.
 * Errors: CL_ERR_STATE (library not initialised), EINVAL (no such kind, or one that only the
 * library creates: END, EXECS, EXECC, SHM, FILE), EMFILE (table full), CL_ERR_QUEUE. */
QVCL_API CL_Object *CL_CreateFD_M(uint32_t kind, CL_Callback callback, uint64_t arg1, uint64_t arg2,
                                  CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                  uint32_t line);
#define CL_CreateFD(kind, callback, arg1, arg2, err) \
    CL_CreateFD_M((kind), (callback), (arg1), (arg2), (err), CL_HERE)
QVCL_API CL_Object *cl_createfd(uint32_t kind, CL_Callback callback, uint64_t arg1, uint64_t arg2,
                                CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                uint32_t line);

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
QVCL_API uint32_t cl_deletefd(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                              const char *file, uint32_t line);

/* 1 when the library is initialised and `object` is a live object, else 0.
 * Errors: CL_ERR_STATE, EBADF (not a live object). */
QVCL_API uint32_t cl_CheckFD(CL_Object *object, CL_ErrInfo *err);

/* The handle test alone, whatever the library's state.
 * Errors: EBADF (not a live object). */
QVCL_API uint32_t cl_CheckFD_sub(CL_Object *object, CL_ErrInfo *err);

QVCL_END

#endif
