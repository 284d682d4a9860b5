/* Layouts of the blocks of memory that a dump holds byte for byte: objects, rings, allocated
 * blocks. That of the main table is in main_table.h, that of records in trace_records.h.
 *
 * Readers of dumps and the library itself look at them; an application reads an object now and
 * then, and has no need of the rest. Every offset is a file format, and pinned. The formulas hold
 * between two operations; `qvcl-trace check` holds dumps against them. */
#ifndef QVCL_LAYOUTS_H
#define QVCL_LAYOUTS_H

#include <stdalign.h>
#include <sys/un.h>

#include <qvcl/event.h>

QVCL_BEGIN

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
 * A deletion that failed leaves it live, but off the queue of its kind. The descriptor table is one
 * block, a CL_TableHeader and then capacity objects:
 *
 *     size == sizeof(CL_TableHeader) + capacity * sizeof(CL_Object), address == descriptor_table */
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

static_assert(sizeof(CL_TableHeader) % alignof(CL_Object) == 0, "objects follow the header");

/* Header of a block of tracked memory, directly in front of the caller's data. */
typedef struct CL_BlockHeader {
    CL_QueueLink link; /* in the library's or the application's allocation queue */
    CL_Position allocated;
    CL_Position released;
    uint64_t size; /* bytes that the caller asked for */
} CL_BlockHeader;
CL_LAYOUT_AT(CL_BlockHeader, allocated, 24);
CL_LAYOUT_AT(CL_BlockHeader, released, 64);
CL_LAYOUT_AT(CL_BlockHeader, size, 104);
CL_LAYOUT_SIZE(CL_BlockHeader, 112);

#define CL_MEM_GUARD "****************" /* the 16 guard bytes behind the data */

/* Ring block; the entries follow. At any moment, also while a record is being written, and also for
 * a reader in another process:
 *
 *     header.size == sizeof(CL_TraceRing) + entry_count * (entry_size + sizeof(CL_TraceEntry))
 *     oldest < entry_count    next < entry_count    wrapped is 0 or 1    oldest == 0 unless wrapped
 *     held are the entries from oldest round to the one before next; while oldest == next, all of
 *     them when wrapped is 1 and none when it is 0
 *     what is held are whole records with all their bytes, oldest first
 *
 * A write first moves oldest off the records that it is about to overwrite, then fills entries that
 * are not held, and last stores next, once a record, with release order. When it has to overwrite
 * all records, the entry at oldest lacks CL_ENTRY_FIRST until the new one is whole: the ring then
 * holds nothing. A reader that copies a ring takes the head (next with acquire order), then the
 * entries, then the head and the header at oldest again, and drops what oldest has left meanwhile,
 * all of it when the ring holds nothing any more. That does not tell whether the writer has gone
 * round once in between; the times of the records do. */
typedef struct CL_TraceRing {
    CL_TableHeader header;
    char prefix[256];     /* of file names; zero when none was given */
    uint32_t entry_size;  /* data bytes per entry, >= CL_TRC_MIN_ENTRY */
    uint32_t entry_count; /* >= 1 */
    uint32_t oldest;      /* < entry_count: entry where the oldest record begins; 0 until wrapped */
    uint32_t next;        /* < entry_count: entry that the next write fills */
    uint32_t wrapped;     /* 1 once next has come back to 0, else 0 */
    uint32_t reserved;
} CL_TraceRing;
CL_LAYOUT_AT(CL_TraceRing, prefix, 32);
CL_LAYOUT_AT(CL_TraceRing, entry_size, 288);
CL_LAYOUT_AT(CL_TraceRing, entry_count, 292);
CL_LAYOUT_AT(CL_TraceRing, oldest, 296);
CL_LAYOUT_AT(CL_TraceRing, next, 300);
CL_LAYOUT_AT(CL_TraceRing, wrapped, 304);
CL_LAYOUT_SIZE(CL_TraceRing, 312);

/* Entry header; entry_size data bytes follow. Bytes that a short last slice does not cover keep
 * what was there. A record of `length` bytes has n = ceil(length / entry_size) entries, one behind
 * the other, entry 0 behind the last; this is its i-th, from 0. */
typedef struct CL_TraceEntry {
    uint32_t flags;     /* (i == 0 ? CL_ENTRY_FIRST : 0) | (i == n - 1 ? CL_ENTRY_LAST : 0) */
    uint32_t remaining; /* n - i: entries to the record's last, this one included */
} CL_TraceEntry;
CL_LAYOUT_SIZE(CL_TraceEntry, 8);

enum { CL_ENTRY_FIRST = 1, CL_ENTRY_LAST = 2 };

QVCL_END

#endif
