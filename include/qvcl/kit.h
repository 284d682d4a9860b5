/* Test kit: what a program's own tests need to see how it stands up to a system that fails it
 * (libqvcl-kit.a).
 *
 * The archive defines functions of the C library again. Calls of the library, and of the program
 * that is linked with it, come to these definitions first; they pass on to the C library's unless
 * a plan wants a call to fail, to move few bytes or to come later, or a clock is not the real one.
 * Without a plan and with the real clocks a program behaves as if the kit were not there.
 *
 * The same stand-ins come preloaded, for programs that are not linked with them: qvcl-kit(1).
 *
 * The kit is for one test at a time: a plan, the clocks and the log are the process's. Stand-ins
 * may be called by any thread, and in a forked child. */
#ifndef QVCL_KIT_H
#define QVCL_KIT_H

#include <qvcl/main_table.h>

#include <limits.h>
#include <time.h>

QVCL_BEGIN

/* ---- Plans. What is to happen to which calls. */

enum { CL_KIT_FOREVER = INT_MAX, CL_KIT_MAX_FAULTS = 16 };

/* Whose calls count. A plan never hits what is neither the library's nor the program's. */
enum {
    CL_KIT_LIBRARY = 1, /* libqvcl.so */
    CL_KIT_PROGRAM = 2, /* the executable, with what is linked into it */
    CL_KIT_ANYONE = 7   /* all callers, other libraries too */
};

/* What is to happen to calls of one function: to the nth, counted from the moment the plan is in
 * force, and the ones after it, `times` altogether. */
typedef struct CL_KitFault {
    const char *call; /* "recv": one of CL_KitCallName */
    int32_t error;    /* not 0: the call is not made, and fails with this errno */
    int32_t nth;      /* from 1 on */
    int32_t times;    /* CL_KIT_FOREVER: from the nth on */
    uint32_t from;    /* CL_KIT_LIBRARY, ...; 0: CL_KIT_LIBRARY */
    uint64_t at_most; /* limited not 0: a transfer moves no more bytes */
    uint32_t swallow; /* not 0: the call is not made, and its result is 0 */
    uint32_t limited;
    uint32_t made; /* not 0: the call is made, and fails all the same, as close does */
    void (*before)(void *context); /* null, or runs first, whatever else happens to the call */
    void *context;
} CL_KitFault;

/* Puts a plan in force, in place of the one before. faults: `count` of them, copied; none: calls
 * are only noted. 1 on success; 0, and the plan before stays: more than CL_KIT_MAX_FAULTS, a
 * function that no plan can reach, or nth or times below 1. */
uint32_t CL_KitPlan(const CL_KitFault *faults, size_t count);

/* No plan is in force any more. */
void CL_KitEndPlan(void);

/* How many calls a fault of the plan has changed. */
uint32_t CL_KitHits(void);

/* Calls that the library made while the plan has been in force; of one function, or of all (call
 * null). */
size_t CL_KitCount(const char *call);

/* The name of the library's call number `index`, from 0 on, in order; null behind the last. A
 * million are noted. */
const char *CL_KitCall(size_t index);

/* The name of the function number `index` that a plan can reach; null behind the last. */
const char *CL_KitCallName(size_t index);

/* What errno a call can have according to its manual, as a list that ends with 0; null for a
 * function that no plan can reach. */
const int *CL_KitErrors(const char *call);

/* ---- Clocks. */

/* From now on the library's clocks stand at these times, until they are set again: seconds since
 * the system was started, and time of day. Other callers see the real ones. A negative uptime lets
 * both go on. */
void CL_KitSetUptime(int64_t seconds);
void CL_KitSetTime(uint64_t seconds, uint64_t microseconds);

/* Virtual time for the whole process: clocks stand while it works, and when everybody in it waits
 * they are at once at the time when the first wait or timer is due. `seconds`: how far it begins
 * ahead of the real time. Every look at a clock takes a microsecond, so that who spins until it is
 * late gets there. Interval timers, descriptors of timerfd_create and all waits with a time limit
 * follow it. It cannot be left again. 1 on success, 0 when it is in force already. */
uint32_t CL_KitVirtualTime(int64_t seconds);

/* Microseconds of virtual time since it has begun. */
uint64_t CL_KitElapsed(void);

/* What the library has asked nanosleep for: number `index`, from 0 on; 0 behind the last. A sleep
 * that a plan fails with EINTR leaves half of it. The first 64 are noted. */
uint32_t CL_KitSleep(size_t index, struct timespec *asked);

/* ---- Disorder. */

/* From now on transfers are split anywhere, waits and transfers are interrupted (EINTR), those that
 * do not block come too early (EAGAIN), some of what is ready is found a turn later, and calls
 * are delayed. The same seed gives the same run, as far as it depends on this process alone. from:
 * whose calls. seed 0: order again. */
void CL_KitDisorder(uint64_t seed, uint32_t from);

/* ---- Message catalogue and system log. */

/* The library's catalogue holds what `text` returns: null, no text for this number. text null:
 * there is no catalogue. */
void CL_KitCatalogue(const char *(*text)(int number, void *context), void *context);
void CL_KitRealCatalogue(void);
uint64_t CL_KitOpenCatalogues(void); /* of these, that are open */

/* Takes what goes to the system log, as "identity/options/facility/priority/text"; nothing gets
 * there. line null: everything gets there again. */
void CL_KitSystemLog(void (*line)(const char *text, void *context), void *context);

/* ---- Trace records. */

/* Copies the next record of a ring. at: index of the entry where it begins, `ring->oldest` or what
 * was `ring->next` at an earlier time; moved behind the record. record, size: receive as much of it
 * as fits. The record's length; 0 when there is none up to `ring->next` (at equals it), or when the
 * ring is not in order there (it does not). What stands between oldest and next of a full ring,
 * where both are the same, is read by an `at` of ring->oldest + ring->entry_count. */
uint32_t CL_KitNextRecord(const CL_TraceRing *ring, uint32_t *at, void *record, uint32_t size);

/* ---- Balance. */

enum { CL_KIT_MAX_DESCRIPTORS = 1024 };

/* What must be the same before and after something that leaves nothing behind. */
typedef struct CL_KitBalance {
    uint64_t live, free;           /* objects */
    uint64_t listed;               /* on one of the five lists of the loop */
    uint64_t kinds[CL_KIND_COUNT]; /* by kind */
    uint64_t library_blocks, user_blocks;
    uint64_t library_bytes, user_bytes;
    uint64_t catalogues;                               /* open, of CL_KitCatalogue */
    uint64_t blocked_signals;                          /* of the calling thread: bit signal - 1 */
    uint64_t descriptors[CL_KIT_MAX_DESCRIPTORS / 64]; /* open: bit number % 64 */
} CL_KitBalance;

/* Looks at the library's tables, the calling thread's signal mask and the process's descriptors. */
void CL_KitGetBalance(CL_KitBalance *balance);

/* What is different, as "live: 2, was 1; descriptor 5 is open". text, size: receive as much of it
 * as fits, with a NUL. 1 when both are the same. */
uint32_t CL_KitSame(const CL_KitBalance *before, const CL_KitBalance *after, char *text,
                    size_t size);

/* ---- The internal log. */

/* Keeps the lines of the internal log from now on, and none that were kept before. */
void CL_KitKeepLog(void);
void CL_KitForgetLog(void); /* those kept so far */

/* Line number `index`, from 0 on, without time stamp and newline, valid until the next call; null
 * behind the last. Lines up to 256 KB altogether are kept. */
const char *CL_KitLogLine(size_t index);
const char *CL_KitRawLogLine(size_t index); /* as it came */

/* 1 when the lines kept are these, in this order, among others. missing: null, or receives the
 * first that is not there. lines: ends with null. */
uint32_t CL_KitLogHas(const char *const *lines, const char **missing);

QVCL_END

#endif
