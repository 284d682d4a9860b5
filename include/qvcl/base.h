/* The ground that every other header stands on: linkage, source positions, the error record and its
 * codes.
 *
 * The interface is plain C, usable from C11 and C++17 and later, on 64-bit Linux. Most operations
 * have the form
 *
 *     result CL_Name_M(arguments..., CL_ErrInfo *err, uint8_t callerFlag,
 *                      const char *file, uint32_t line);
 *
 * They return 1 on success and 0 on failure, a handle or null, or a count or -1, and fill `*err`.
 * `err` may be null when the caller does not want the record. `callerFlag` is 0 for the application
 * and 1 for calls that the library makes itself; some kinds, priorities and memory lists are open
 * to flag 1 only. `file` and `line` name the caller's source position; they are recorded in traces,
 * allocations and objects. For each of them there is a macro of the same name without `_M` that
 * supplies the last three arguments: CL_CreateFD(kind, callback, a1, a2, &err).
 *
 * A line that begins with "Errors:" lists the codes that a failing operation leaves in `err`, or
 * returns where it takes no error record: names of <errno.h> and the library's own (below), and
 * "errno" for whatever the system calls behind it report.
 *
 * Nothing here is locked: one thread drives the library, the one that runs the loop. */
#ifndef QVCL_BASE_H
#define QVCL_BASE_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <qvcl/version.h>

#ifdef __cplusplus
#define QVCL_BEGIN extern "C" {
#define QVCL_END }
#else
#define QVCL_BEGIN
#define QVCL_END
#endif

#define QVCL_API __attribute__((visibility("default")))

/* Layouts are file formats: each is pinned beside its declaration. */
#define CL_LAYOUT_AT(type, member, offset) \
    static_assert(offsetof(type, member) == (offset), #type "." #member " has a fixed place")
#define CL_LAYOUT_SIZE(type, size) static_assert(sizeof(type) == (size), #type " has a fixed size")

static_assert(sizeof(void *) == 8, "the layouts are those of a 64-bit process");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "messages and dumps are little-endian");

/* The base name of this source file; positions keep 16 characters of it. */
#ifdef __FILE_NAME__
#define CL_FILE_NAME __FILE_NAME__
#else
#define CL_FILE_NAME (strrchr("/" __FILE__, '/') + 1)
#endif

/* This source position, as the last two arguments of an operation; with the application's caller
 * flag in front, the last three. */
#define CL_FILE_LINE CL_FILE_NAME, __LINE__
#define CL_HERE 0, CL_FILE_LINE

QVCL_BEGIN

/* Error record. `err` is 0 after a success, and it is the only field to test: some successful
 * operations fill `module`, `line` and `version`. Test the result alone where a success leaves the
 * record as the caller passed it in (CL_SetThreadFd_M, CL_End_M, CL_LOG_Init_M, and what steps.h
 * declares), and look at the record of a loop after CL_LOOP_ERROR only. */
typedef struct CL_ErrInfo {
    uint32_t err;     /* errno value or one of the library codes below */
    uint32_t detail;  /* the same code, or the errno of the failed system call */
    uint32_t module;  /* source module that detected the failure, CL_MODULE_... */
    uint32_t line;    /* location number, unique to the failure site within its module */
    uint32_t version; /* CL_VERSION of the library that filled the record */
} CL_ErrInfo;
CL_LAYOUT_SIZE(CL_ErrInfo, 20);

/* Library codes of `err`; every other code is an errno value. */
enum {
    CL_ERR_QUEUE = 0x7ffffffe,       /* an internal queue operation failed */
    CL_ERR_IN_PROGRESS = 0x7ffffffd, /* not a failure: an event will report the end */
    CL_ERR_STATE = 0x7ffffffc        /* the library is not in a state that allows the call */
};

/* Values of `module`. */
enum {
    CL_MODULE_MAIN = 1,   /* lifecycle and exec-completion callbacks */
    CL_MODULE_LOOP = 2,   /* event loop */
    CL_MODULE_FD = 3,     /* descriptor table and event lists */
    CL_MODULE_MSGS = 4,   /* message server endpoints */
    CL_MODULE_MSGC = 5,   /* message transfer and client endpoints */
    CL_MODULE_TIMER = 6,  /* timers */
    CL_MODULE_FILE = 7,   /* file objects */
    CL_MODULE_SHM = 8,    /* shared-memory objects */
    CL_MODULE_USERFD = 9, /* user descriptors */
    CL_MODULE_CHILD = 10, /* child processes */
    CL_MODULE_LOG = 12,   /* log */
    CL_MODULE_THREAD = 17 /* threaded event loop */
};

/* Copies `detail` into `err`: the last step of reporting a failed system call.
 * err: the record to complete, not null. */
QVCL_API void CL_SetIndependErr(CL_ErrInfo *err);

/* Header of the library's large blocks (layouts.h), and of those that an application adds to a dump
 * (CL_TRC_AddTbl). The eye-catcher is NUL-padded; it begins with "!" while the header is being
 * written and with "*" afterwards. */
typedef struct CL_TableHeader {
    char eye[16];
    uint64_t size;    /* total bytes of the block, this header included */
    uint64_t address; /* == address of this header in the process that wrote the block */
} CL_TableHeader;
CL_LAYOUT_AT(CL_TableHeader, size, 16);
CL_LAYOUT_AT(CL_TableHeader, address, 24);
CL_LAYOUT_SIZE(CL_TableHeader, 32);

#define CL_EYE_MAIN "***CL_MAIN***"
#define CL_EYE_FDTBL "***CL_FDTBL***"
#define CL_EYE_LIBTRC "***CL_LIBTRC***"
#define CL_EYE_USRTRC "***CL_USRTRC***"

/* Position record: who did something, and when. */
typedef struct CL_Position {
    char file[16]; /* base name of the source file, not NUL-terminated at 16 characters */
    uint32_t line;
    uint32_t reserved;
    uint64_t seconds; /* since the epoch */
    uint64_t microseconds;
} CL_Position;
CL_LAYOUT_AT(CL_Position, line, 16);
CL_LAYOUT_AT(CL_Position, seconds, 24);
CL_LAYOUT_AT(CL_Position, microseconds, 32);
CL_LAYOUT_SIZE(CL_Position, 40);

/* Fills a position record with the given source position and the current time.
 * position: record to fill, not null. file: at most 16 characters are kept; null gives none. */
QVCL_API void CL_SetPT(CL_Position *position, const char *file, uint32_t line);

QVCL_END

#endif
