/* Companion of libqvcl: the nest, which brings finer timers, all descriptors, posts and signals to
 * the loop (libqvcl-starter.a).
 *
 * Timers by the nanosecond, descriptors of any number, work posted from other threads, signals as
 * events, the exit of any process. All of it hangs on one epoll descriptor, which is one FD object
 * of the library: the loop sees that one object, whatever is in it. A process has one nest at most.
 *
 * When the loop dispatches the nest's object, the nest takes a turn:
 *
 *     1. due timers, by due time, then by priority, then in the order of their starts; only those
 *        that were running when the turn began
 *     2. what else is ready (watches, posts, signals, processes), in ascending priority; where that
 *        is equal, in the order in which it became ready
 *
 * and gives the loop back after a bounded number of callbacks: `most` timers, `most` descriptors,
 * and of a descriptor that stands for many events (posts, signals) `most` of each. What is left
 * then, or because a callback ended the loop, is there for the next turn. Smaller priorities come
 * first; any value will do.
 *
 * Callbacks return 0 to let the loop go on; any other value ends the loop, which returns it. They
 * may create, change and delete anything in the nest, their own handle included, and the nest. What
 * is deleted, stopped or no longer watched is not called any more, though it was ready. Every
 * callback leaves two records in the library ring, as the library's own do, with the nest's object
 * as handle, the handle here as data, and an event of CL_EVENT_NEST_...
 *
 * A handle is valid until it is deleted, or the nest is. Creating allocates (tracked memory of the
 * application); starting, stopping, changing and callbacks do not. All functions but CL_NestPost
 * and CL_NestTime belong to the loop's thread. A call that fails changes nothing.
 *
 * It uses nothing but the exported interface. Failures of its own carry CL_MODULE_NEST. */
#ifndef QVCL_NEST_H
#define QVCL_NEST_H

#include <sys/signalfd.h>
#include <sys/types.h>

#include <qvcl/event.h>

QVCL_BEGIN

enum { CL_MODULE_NEST = 102 };

/* Events of the nest's callbacks in the trace, and what their records hold. */
enum {
    CL_EVENT_NEST_TIMER = 101,  /* data: the timer; data_length: turns missed, at most INT32_MAX */
    CL_EVENT_NEST_WATCH = 102,  /* data: the watch; data_length: what is ready, CL_NEST_... */
    CL_EVENT_NEST_POST = 103,   /* data: the queue */
    CL_EVENT_NEST_SIGNAL = 104, /* data: the watcher; data_length: the sender's process;
                                 * exit_value: the signal */
    CL_EVENT_NEST_PROCESS = 105 /* data: the handle; data_length: the process; exit_reason,
                                 * exit_value: as CL_NestExit */
};

enum {
    CL_NEST_DEFAULT_MOST = 256, /* callbacks of a turn, each sort */
    CL_NEST_LIMIT_MOST = 4096
};

/* Handles. */
typedef struct CL_NestTimer CL_NestTimer;
typedef struct CL_NestWatch CL_NestWatch;
typedef struct CL_NestPosts CL_NestPosts;
typedef struct CL_NestSignal CL_NestSignal;
typedef struct CL_NestProcess CL_NestProcess;

/* The nest. */

/* Makes the nest, and lists its object. priority: its place on the event list, CL_PRIORITY_FIRST to
 * CL_PRIORITY_LAST. most: callbacks of a turn, each sort, up to CL_NEST_LIMIT_MOST; 0:
 * CL_NEST_DEFAULT_MOST. The nest takes an object, and an epoll descriptor below 1024, the limit of
 * the loop's sets: make it before descriptors get that many. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE (library not initialised), EALREADY (there is a nest), EINVAL (priority,
 * most), EMFILE (no object left, or descriptor beyond the loop's sets), ENOMEM (no memory),
 * CL_ERR_QUEUE, errno (epoll_create1). */
uint32_t CL_CreateNest_M(uint32_t priority, uint32_t most, CL_ErrInfo *err, uint8_t callerFlag,
                         const char *file, uint32_t line);
#define CL_CreateNest(priority, most, err) CL_CreateNest_M((priority), (most), (err), CL_HERE)

/* Deletes the nest, and whatever is in it, as if one by one: all handles are invalid afterwards. No
 * thread may post any more. Delete it before CL_End. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE (there is no nest), CL_ERR_QUEUE (its object could not be deleted). */
uint32_t CL_DeleteNest_M(CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line);
#define CL_DeleteNest(err) CL_DeleteNest_M((err), CL_HERE)

/* Timers.
 *
 * Nanoseconds on one of two clocks. The monotonic clock goes on evenly from the start of the
 * system, and stands still while that is suspended. The wall clock is the time of day: a timer on
 * it follows the clock when somebody sets it, also backwards.
 *
 * A periodic timer is due at its first time and every period after that, however late its callback
 * was: it does not drift. Turns that have passed completely are not made up for, but counted. */

/* Bits of `mode`. */
enum {
    CL_NEST_MONOTONIC = 0,
    CL_NEST_WALL = 1,
    CL_NEST_ABSOLUTE = 2 /* `due` is a time of that clock; without it, from now on */
};

/* missed: turns of a periodic timer that passed since the one before this call, without one. */
typedef uint32_t (*CL_NestTimerCallback)(CL_NestTimer *timer, uint64_t missed, uint64_t arg1,
                                         uint64_t arg2);

/* A timer that does not run yet. callback, arg1, arg2: what it calls, and with what. The handle, or
 * null on failure.
 * Errors: CL_ERR_STATE (there is no nest), EFAULT (callback null), ENOMEM (no memory). */
CL_NestTimer *CL_CreateNestTimer_M(uint32_t priority, CL_NestTimerCallback callback, uint64_t arg1,
                                   uint64_t arg2, CL_ErrInfo *err, uint8_t callerFlag,
                                   const char *file, uint32_t line);
#define CL_CreateNestTimer(priority, callback, arg1, arg2, err) \
    CL_CreateNestTimer_M((priority), (callback), (arg1), (arg2), (err), CL_HERE)

/* Starts a timer; one that runs is started anew. mode: CL_NEST_... bits. due: nanoseconds from now,
 * or a time; one that is past is due at once. period: nanoseconds from turn to turn, 0 for a timer
 * that stops just before its callback. 1 on success, 0 on failure: it runs on, or not, as it did.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle), EINVAL (mode; due or period
 * reaches beyond 2^63 nanoseconds), errno (timerfd_create, timerfd_settime, epoll_ctl). */
uint32_t CL_StartNestTimer_M(CL_NestTimer *timer, uint32_t mode, uint64_t due, uint64_t period,
                             CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line);
#define CL_StartNestTimer(timer, mode, due, period, err) \
    CL_StartNestTimer_M((timer), (mode), (due), (period), (err), CL_HERE)

/* Stops a timer; one that does not run stays so. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle). */
uint32_t CL_StopNestTimer_M(CL_NestTimer *timer, CL_ErrInfo *err, uint8_t callerFlag,
                            const char *file, uint32_t line);
#define CL_StopNestTimer(timer, err) CL_StopNestTimer_M((timer), (err), CL_HERE)

/* Deletes a timer, which is stopped. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle). */
uint32_t CL_DeleteNestTimer_M(CL_NestTimer *timer, CL_ErrInfo *err, uint8_t callerFlag,
                              const char *file, uint32_t line);
#define CL_DeleteNestTimer(timer, err) CL_DeleteNestTimer_M((timer), (err), CL_HERE)

/* The time by CL_NEST_MONOTONIC or CL_NEST_WALL, in nanoseconds. Any thread may ask. */
uint64_t CL_NestTime(uint32_t mode);

/* Watches.
 *
 * A watch tells when one of the application's descriptors is ready, again in every turn while it
 * is. Readiness is a hint: use descriptors that do not block. Delete the watch before the
 * descriptor is closed. The watch of one that was closed first still tells what happens to its file
 * while a duplicate keeps that open, until the watch is deleted or another one takes its number. */

/* Bits of `events` and `ready`. */
enum {
    CL_NEST_READ = 1,
    CL_NEST_WRITE = 2,
    CL_NEST_HANGUP = 4, /* the other side sends no more; told unasked when it is gone altogether */
    CL_NEST_ERROR = 8   /* told unasked */
};

/* ready: CL_NEST_... bits. */
typedef uint32_t (*CL_NestWatchCallback)(CL_NestWatch *watch, uint32_t ready, uint64_t arg1,
                                         uint64_t arg2);

/* Watches a descriptor. events: CL_NEST_... bits to tell; with none the watch is at rest, and
 * nothing is told. The descriptor stays the application's. The handle, or null on failure.
 * Errors: CL_ERR_STATE (there is no nest), EFAULT (callback null), EINVAL (events; the nest's own
 * descriptor), EBADF (not an open descriptor), EPERM (a file of a sort that is always ready, as
 * regular files are), EEXIST (it has a watch; watch a duplicate), ENOMEM (no memory), errno
 * (epoll_ctl). */
CL_NestWatch *CL_CreateNestWatch_M(int fd, uint32_t events, uint32_t priority,
                                   CL_NestWatchCallback callback, uint64_t arg1, uint64_t arg2,
                                   CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                   uint32_t line);
#define CL_CreateNestWatch(fd, events, priority, callback, arg1, arg2, err) \
    CL_CreateNestWatch_M((fd), (events), (priority), (callback), (arg1), (arg2), (err), CL_HERE)

/* Tells other events from now on, also in the turn that runs. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle, or its descriptor was closed),
 * ENOENT, EEXIST (its descriptor was closed, and the number is another file's, another watch's),
 * EINVAL (events), errno (epoll_ctl). */
uint32_t CL_ChangeNestWatch_M(CL_NestWatch *watch, uint32_t events, CL_ErrInfo *err,
                              uint8_t callerFlag, const char *file, uint32_t line);
#define CL_ChangeNestWatch(watch, events, err) \
    CL_ChangeNestWatch_M((watch), (events), (err), CL_HERE)

/* Deletes a watch, also one whose descriptor was closed. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle). */
uint32_t CL_DeleteNestWatch_M(CL_NestWatch *watch, CL_ErrInfo *err, uint8_t callerFlag,
                              const char *file, uint32_t line);
#define CL_DeleteNestWatch(watch, err) CL_DeleteNestWatch_M((watch), (err), CL_HERE)

/* Posts.
 *
 * Work that any thread hands to the loop's, which calls it. What one thread posts to one queue is
 * called in that order. A bounded queue has room for so many posts at a time, allocated when it is
 * created, and refuses more; a growing one allocates each post (malloc, on the posting thread). */

/* Work to call on the loop's thread, with what was posted. */
typedef uint32_t (*CL_NestWork)(uint64_t arg1, uint64_t arg2);

/* Takes back a post that was left when its queue was deleted. It must not use the nest. */
typedef void (*CL_NestDrop)(CL_NestWork work, uint64_t arg1, uint64_t arg2);

/* A queue for posts. capacity: posts that it holds at a time, up to 2^20, rounded up to a power of
 * two; 0: it grows. drop: called for each post that is left at the end; may be null. The handle, or
 * null on failure.
 * Errors: CL_ERR_STATE (there is no nest), EINVAL (capacity), ENOMEM (no memory), errno
 * (eventfd, epoll_ctl). */
CL_NestPosts *CL_CreateNestPosts_M(uint32_t capacity, uint32_t priority, CL_NestDrop drop,
                                   CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                   uint32_t line);
#define CL_CreateNestPosts(capacity, priority, drop, err) \
    CL_CreateNestPosts_M((capacity), (priority), (drop), (err), CL_HERE)

/* Posts work, from any thread, and wakes the loop. err: this thread's own record, or null. 1 on
 * success; 0 on failure: the post is still the caller's.
 * Errors: EFAULT (posts or work null), EAGAIN (a bounded queue is full), ENOMEM (a growing queue,
 * and no memory). */
uint32_t CL_NestPost(CL_NestPosts *posts, CL_NestWork work, uint64_t arg1, uint64_t arg2,
                     CL_ErrInfo *err);

/* Deletes a queue, to which no thread may post any more. What was not called goes to its drop
 * function, in order. left: how many that were; may be null. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle). */
uint32_t CL_DeleteNestPosts_M(CL_NestPosts *posts, uint64_t *left, CL_ErrInfo *err,
                              uint8_t callerFlag, const char *file, uint32_t line);
#define CL_DeleteNestPosts(posts, left, err) CL_DeleteNestPosts_M((posts), (left), (err), CL_HERE)

/* Signals.
 *
 * The first watcher of a signal blocks it in the calling thread, and the last one that is deleted
 * unblocks it there, unless it was blocked before; what is pending then does what its disposition
 * says. Threads take over the mask of the one that makes them: watch before you make threads, or
 * block the signal in them. Several watchers of a signal are all called, in the order of their
 * creation, before one that ends the loop does. */

/* info: the signal, who sent it (ssi_pid, ssi_uid), why (ssi_code), with what (ssi_int, ssi_ptr);
 * valid during the call. */
typedef uint32_t (*CL_NestSignalCallback)(CL_NestSignal *watcher,
                                          const struct signalfd_siginfo *info, uint64_t arg1,
                                          uint64_t arg2);

/* Watches a signal. The handle, or null on failure.
 * Errors: CL_ERR_STATE (there is no nest), EFAULT (callback null), EINVAL (no signal, one that
 * cannot be blocked, or one that tells of a fault: SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT,
 * SIGSYS, SIGTRAP), EBUSY (the library's: SIGALRM, SIGCHLD, and SIGUSR1 after clSIGUSR1Initialize),
 * ENOMEM (no memory), errno (pthread_sigmask, signalfd, epoll_ctl). */
CL_NestSignal *CL_CreateNestSignal_M(int signal, CL_NestSignalCallback callback, uint64_t arg1,
                                     uint64_t arg2, CL_ErrInfo *err, uint8_t callerFlag,
                                     const char *file, uint32_t line);
#define CL_CreateNestSignal(signal, callback, arg1, arg2, err) \
    CL_CreateNestSignal_M((signal), (callback), (arg1), (arg2), (err), CL_HERE)

/* Deletes a watcher. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle), errno (pthread_sigmask,
 * signalfd). */
uint32_t CL_DeleteNestSignal_M(CL_NestSignal *watcher, CL_ErrInfo *err, uint8_t callerFlag,
                               const char *file, uint32_t line);
#define CL_DeleteNestSignal(watcher, err) CL_DeleteNestSignal_M((watcher), (err), CL_HERE)

/* Processes.
 *
 * Tells once that a process has ended, whoever started it. It reaps nobody: a child of this
 * process stays for waitpid, or for its CHILD object. */

/* How a process ended. reason: CL_CHILD_EXITED or CL_CHILD_KILLED, with exit status or signal
 * number as value; 0 for a process that is not a child of this one, or was reaped before. */
typedef struct CL_NestExit {
    pid_t pid;
    uint32_t reason;
    uint32_t value;
} CL_NestExit;

/* end: valid during the call. */
typedef uint32_t (*CL_NestProcessCallback)(CL_NestProcess *process, const CL_NestExit *end,
                                           uint64_t arg1, uint64_t arg2);

/* Watches for the end of a process. The handle, to be deleted also after the event; null on
 * failure.
 * Errors: CL_ERR_STATE (there is no nest), EFAULT (callback null), EINVAL (pid below 1, or that of
 * a thread), ESRCH (there is no such process), ENOMEM (no memory), errno (pidfd_open,
 * epoll_ctl). */
CL_NestProcess *CL_CreateNestProcess_M(pid_t pid, uint32_t priority,
                                       CL_NestProcessCallback callback, uint64_t arg1,
                                       uint64_t arg2, CL_ErrInfo *err, uint8_t callerFlag,
                                       const char *file, uint32_t line);
#define CL_CreateNestProcess(pid, priority, callback, arg1, arg2, err) \
    CL_CreateNestProcess_M((pid), (priority), (callback), (arg1), (arg2), (err), CL_HERE)

/* Deletes the handle; the process is left alone. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle). */
uint32_t CL_DeleteNestProcess_M(CL_NestProcess *process, CL_ErrInfo *err, uint8_t callerFlag,
                                const char *file, uint32_t line);
#define CL_DeleteNestProcess(process, err) CL_DeleteNestProcess_M((process), (err), CL_HERE)

QVCL_END

#endif
