/* Flight recorder: rings of trace records in memory, and their dump into a file.
 *
 * Every public operation, callback and status change leaves records in the library ring, from the
 * moment the library is loaded. The application may have a ring of its own, the user ring. Nothing
 * goes to disk until CL_TRC_Out dumps both rings, the main table and the descriptor table byte for
 * byte; qvcl-trace reads that file. What the library's records look like: trace_records.h.
 *
 * A ring (layouts.h) has entries of one size; a record takes as many in a row as it needs, and
 * overwrites the oldest records. Two threads must not write to the same ring at once. None of these
 * functions fills an error record or writes a trace record.
 *
 * Environment: CL_TRC_NUM (entries of the library ring, default 1000, at least 100), CL_TRC_GEN
 * (generations of trace files, default 5). A library ring that memory does not hold, such as one of
 * 2147483647 entries, is not there: `library_ring` of the main table is null, nothing is recorded,
 * and all else works.
 *
 * 1000 entries hold some 60 messages that were received and answered. To make the library ring
 * larger from code, end it and create it again with CL_TRC_LIB_ENTRY bytes an entry. */
#ifndef QVCL_TRACE_H
#define QVCL_TRACE_H

#include <qvcl/layouts.h>

QVCL_BEGIN

/* Values of `ring`. */
enum { CL_RING_USER = 0, CL_RING_LIBRARY = 1 };

enum {
    CL_TRC_PREFIX_MAX = 200, /* characters */
    CL_TRC_MIN_ENTRY = 32,   /* bytes */
    CL_TRC_LIB_ENTRY = 192,  /* bytes of an entry of the library ring */
    CL_TRC_LIB_COUNT = 1000, /* its entries unless CL_TRC_NUM says otherwise */
    CL_TRC_LIB_MIN_COUNT = 100,
    CL_TRC_GENERATIONS = 5
};

/* What every record begins with. A user record needs only `length`, and room for the time. In the
 * library's records
 *
 *     marker == (phase ? CL_MARK_EXIT : CL_MARK_ENTRY)                       of a call
 *     marker == (phase ? CL_MARK_CALLBACK_EXIT : CL_MARK_CALLBACK_ENTRY)     of a callback
 *     marker == CL_MARK_STATUS && phase == 0                                 of a status change */
typedef struct CL_TrcHead {
    uint64_t seconds;      /* time of the write, since the epoch; filled by CL_TRC_Write_M */
    uint64_t microseconds; /* < 1000000 */
    uint8_t reserved[8];
    uint32_t length; /* bytes of the record, this head included */
    uint8_t api;     /* CL_API_... */
    uint8_t phase;   /* 0 before the worker, 1 after */
    uint8_t caller;  /* caller flag; 2 in status changes */
    uint8_t marker;  /* CL_MARK_... */
    char file[16];   /* the caller's position */
    uint32_t line;
    uint32_t reserved2;
} CL_TrcHead;
CL_LAYOUT_AT(CL_TrcHead, length, 24);
CL_LAYOUT_AT(CL_TrcHead, api, 28);
CL_LAYOUT_AT(CL_TrcHead, marker, 31);
CL_LAYOUT_AT(CL_TrcHead, file, 32);
CL_LAYOUT_AT(CL_TrcHead, line, 48);
CL_LAYOUT_SIZE(CL_TrcHead, 56);

enum {
    CL_MARK_CALLBACK_ENTRY = 0,
    CL_MARK_CALLBACK_EXIT = 1,
    CL_MARK_EXIT = 2,
    CL_MARK_ENTRY = 3,
    CL_MARK_STATUS = 255
};

/* Called by CL_TRC_Out after the tables; adds blocks with CL_TRC_AddTbl. */
typedef void (*CL_DumpCallback)(void);

/* Creates a ring of library memory. prefix: of trace file names, at most 200 characters; may be
 * null for the library ring. entrySize: at least 32 bytes; entryCount: at least 1. dumpCallback:
 * kept for the user ring only, may be null. 0 on success, or the error.
 * Errors: EFAULT (user ring without a prefix), ENAMETOOLONG (prefix too long), EINVAL (size or
 * count), EALREADY (the ring exists), ENOMEM (no memory). */
QVCL_API uint32_t CL_TRC_Init_M(const char *prefix, uint32_t entrySize, uint32_t entryCount,
                                CL_DumpCallback dumpCallback, int ring);

/* Frees a ring; for the user ring the dump callback is cleared too. Records for a ring that does
 * not exist are dropped. */
QVCL_API void CL_TRC_End_M(int ring);

/* Appends a record, at least 32 bytes beginning as CL_TrcHead; its time is filled in, also in the
 * caller's copy. ring: CL_RING_USER, any other value is the library's. 0 on success, or the error.
 * Errors: EFAULT (record null), CL_ERR_STATE (no such ring), E2BIG (needs more entries than the
 * ring has). */
QVCL_API uint32_t CL_TRC_Write_M(void *record, int ring);

/* Creates the library ring with the size that CL_TRC_NUM says; the library does it when it is
 * loaded. 0 on success, or the error.
 * Errors: EALREADY (the ring exists), ENOMEM (no memory). */
QVCL_API uint32_t CL_INTRC_Init(void);

/* Dumps rings and tables. path: file to write (mode 0600, truncated); null for the user ring's
 * prefix, the generation number and ".trc" (nothing happens without a user ring or prefix).
 * headerText: put in front, may be null. Symbolic links are followed: the directory must be one
 * that nobody else may write to. Failures are reported to the internal log only; the file then
 * holds what could be written. The dump callback may ask for a dump into another file, which then
 * has no blocks of the application's: the callback is not entered again. One that was left by a
 * jump counts as entered from then on. */
QVCL_API void CL_TRC_Out(const char *path, const char *headerText);

/* Appends a block to the dump in progress, from within a dump callback. 1 on success; 0 when no
 * dump is in progress or the write failed. */
QVCL_API uint32_t CL_TRC_AddTbl(const void *block, uint64_t length);

QVCL_END

#endif
