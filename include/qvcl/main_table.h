/* The main table: all state of the library, in one block that dumps hold byte for byte, so that its
 * layout is a file format. Whoever reads a dump, and the library, look at it field by field; how an
 * application reaches it is in main.h. */
#ifndef QVCL_MAIN_TABLE_H
#define QVCL_MAIN_TABLE_H

#include <qvcl/descriptor.h>
#include <qvcl/log.h>
#include <qvcl/trace.h>

QVCL_BEGIN

/* Main table. The three signal fields are written by signal handlers at any time: atomic access.
 * A pointer to an object is null or the address of an entry of the descriptor table. */
typedef struct CL_MainBlock {
    CL_TableHeader header; /* size == sizeof(CL_MainBlock) */
    uint32_t version;      /* == CL_VERSION */
    uint32_t pid;          /* of the process that loaded the library */
    uint32_t state;        /* CL_STATE_... */
    uint32_t capacity;     /* == (descriptor_table ? requested + CL_SPARE_OBJECTS : 0) */
    uint32_t requested;    /* objects that the application asked for, <= CL_MAX_OBJECTS */
    uint32_t reserved1;
    CL_TableHeader *descriptor_table; /* null, or the table: as in descriptor.h */
    CL_Object **scratch;              /* capacity pointers, lent to the sorted insertion */
    CL_Object *execs;                 /* exec-completion server, or null */
    CL_ErrInfo exec_error;            /* stored exec-completion error */
    uint32_t reserved2;

    /* Each queue of objects has the link_offset of the CL_Object field that is named here. */
    CL_Queue free_queue;                 /* link */
    CL_Queue used_queue;                 /* link */
    CL_Queue kind_queues[CL_KIND_COUNT]; /* kind_link */
    uint32_t sync_flag; /* not 0: synchronous transfers watch the first END(ExecComp) object */
    uint32_t reserved3;
    CL_Queue timer_list;    /* timer_link */
    CL_Queue child_list;    /* child_link */
    CL_Queue priority_list; /* event_link */
    CL_Queue pending_list;  /* event_link */
    CL_Queue thread_list;   /* thread_link */
    CL_Object *loop_cursor;
    CL_Object *timer_cursor;
    CL_Object *child_cursor;
    CL_Queue exec_wait_list; /* exec_link */
    char exec_path[108];
    uint32_t reserved4;

    uint64_t timer_signals; /* SIGALRM: counted, in the lower half; not 0: look at the timers */
    uint32_t child_signal;  /* SIGCHLD: 1 */
    uint32_t wake_signal;   /* SIGUSR1: 1 */
    uint32_t timer_dispatched;
    int32_t descriptor_count; /* highest descriptor in the sets plus one */
    CL_FdSets sets;
    uint64_t reserved5;

    CL_TraceRing *library_ring; /* null, or library_ring->header.address == library_ring */
    CL_TraceRing *user_ring;    /* null, or user_ring->header.address == user_ring */
    int32_t trace_fd;           /* -1 while no dump is in progress */
    uint32_t reserved6;
    CL_DumpCallback dump_callback;
    uint32_t generations;
    uint32_t reserved7;

    uint32_t memory_check; /* 1: blocks have guards */
    uint32_t reserved8;
    uint64_t memory_limit; /* of the application, bytes; 0: none */
    uint64_t library_bytes;
    uint64_t user_bytes;
    uint64_t library_peak;
    uint64_t user_peak;
    CL_Queue library_blocks;
    CL_Queue user_blocks;

    uint32_t log_ready;
    char log_name[32];
    char log_catalogue[256];
    char log_alt_catalogue[256];
    char log_path[256];
    uint32_t log_size;
    uint32_t log_rotations;
    uint32_t reserved9;
    uint64_t saved_sigusr1[19]; /* struct sigaction found by clSIGUSR1Initialize */
    CL_LogCallback log_callback;
} CL_MainBlock;
CL_LAYOUT_AT(CL_MainBlock, version, 32);
CL_LAYOUT_AT(CL_MainBlock, pid, 36);
CL_LAYOUT_AT(CL_MainBlock, state, 40);
CL_LAYOUT_AT(CL_MainBlock, capacity, 44);
CL_LAYOUT_AT(CL_MainBlock, requested, 48);
CL_LAYOUT_AT(CL_MainBlock, descriptor_table, 56);
CL_LAYOUT_AT(CL_MainBlock, scratch, 64);
CL_LAYOUT_AT(CL_MainBlock, execs, 72);
CL_LAYOUT_AT(CL_MainBlock, exec_error, 80);
CL_LAYOUT_AT(CL_MainBlock, free_queue, 104);
CL_LAYOUT_AT(CL_MainBlock, used_queue, 128);
CL_LAYOUT_AT(CL_MainBlock, kind_queues, 152);
CL_LAYOUT_AT(CL_MainBlock, sync_flag, 416);
CL_LAYOUT_AT(CL_MainBlock, timer_list, 424);
CL_LAYOUT_AT(CL_MainBlock, child_list, 448);
CL_LAYOUT_AT(CL_MainBlock, priority_list, 472);
CL_LAYOUT_AT(CL_MainBlock, pending_list, 496);
CL_LAYOUT_AT(CL_MainBlock, thread_list, 520);
CL_LAYOUT_AT(CL_MainBlock, loop_cursor, 544);
CL_LAYOUT_AT(CL_MainBlock, timer_cursor, 552);
CL_LAYOUT_AT(CL_MainBlock, child_cursor, 560);
CL_LAYOUT_AT(CL_MainBlock, exec_wait_list, 568);
CL_LAYOUT_AT(CL_MainBlock, exec_path, 592);
CL_LAYOUT_AT(CL_MainBlock, timer_signals, 704);
CL_LAYOUT_AT(CL_MainBlock, child_signal, 712);
CL_LAYOUT_AT(CL_MainBlock, wake_signal, 716);
CL_LAYOUT_AT(CL_MainBlock, timer_dispatched, 720);
CL_LAYOUT_AT(CL_MainBlock, descriptor_count, 724);
CL_LAYOUT_AT(CL_MainBlock, sets, 728);
CL_LAYOUT_AT(CL_MainBlock, library_ring, 1120);
CL_LAYOUT_AT(CL_MainBlock, user_ring, 1128);
CL_LAYOUT_AT(CL_MainBlock, trace_fd, 1136);
CL_LAYOUT_AT(CL_MainBlock, dump_callback, 1144);
CL_LAYOUT_AT(CL_MainBlock, generations, 1152);
CL_LAYOUT_AT(CL_MainBlock, memory_check, 1160);
CL_LAYOUT_AT(CL_MainBlock, memory_limit, 1168);
CL_LAYOUT_AT(CL_MainBlock, library_bytes, 1176);
CL_LAYOUT_AT(CL_MainBlock, user_bytes, 1184);
CL_LAYOUT_AT(CL_MainBlock, library_peak, 1192);
CL_LAYOUT_AT(CL_MainBlock, user_peak, 1200);
CL_LAYOUT_AT(CL_MainBlock, library_blocks, 1208);
CL_LAYOUT_AT(CL_MainBlock, user_blocks, 1232);
CL_LAYOUT_AT(CL_MainBlock, log_ready, 1256);
CL_LAYOUT_AT(CL_MainBlock, log_name, 1260);
CL_LAYOUT_AT(CL_MainBlock, log_catalogue, 1292);
CL_LAYOUT_AT(CL_MainBlock, log_size, 2060);
CL_LAYOUT_AT(CL_MainBlock, log_rotations, 2064);
CL_LAYOUT_AT(CL_MainBlock, saved_sigusr1, 2072);
CL_LAYOUT_AT(CL_MainBlock, log_callback, 2224);
CL_LAYOUT_SIZE(CL_MainBlock, 2232);

QVCL_END

#endif
