/* Workers, steps and handlers: what the operations and the loop are made of. An application calls
 * none of them; tests call them one by one, and companions build on them.
 *
 * The worker of an operation CL_Name_M is cl_name. The operation writes a trace record, calls its
 * worker, and writes the record again with the result and the error; the worker does all else, with
 * the same arguments, result and errors. A step is a part of an operation or of an iteration of the
 * loop. A comparator orders a queue, as a CL_Comparator. A handler runs when a signal arrives, and
 * sets one field of the main table; everything else runs on the loop's thread.
 *
 * Each check is made once, where the application comes in: a step relies on what its callers have
 * tested, wants an `err` that is not null, and mostly leaves it alone on success.
 *
 * An iteration of the loop, and of the loop of thread.h, where the steps of that name that end in
 * Thread stand for those without:
 *
 *     cl_fdmake       cl_clearlist, cl_move_eventlist, then cl_MakeList... of each listed object;
 *                     as long as nothing changes, the sets are used again instead
 *     cl_sigcheck     cl_TimerCheck when SIGALRM came; if something is pending, it is dispatched,
 *                     and the iteration ends
 *     pselect         with the sets; SIGALRM, SIGCHLD (and SIGUSR1) are open meanwhile; if it was
 *                     interrupted, what is pending is dispatched, and the iteration ends
 *     cl_fdcheck      cl_TimerCheck, cl_TimerCall, then cl_Check... of each listed object
 *
 * What is pending is dispatched by cl_TimerCall, cl_ChildCall and cl_ThreadCallBack, in this order;
 * between two objects too. The steps that dispatch or check return 0 to go on, and any other value
 * ends the loop, which returns it. */
#ifndef QVCL_STEPS_H
#define QVCL_STEPS_H

#include <qvcl/child.h>
#include <qvcl/client.h>
#include <qvcl/conf.h>
#include <qvcl/execcomp.h>
#include <qvcl/file.h>
#include <qvcl/log.h>
#include <qvcl/loop.h>
#include <qvcl/main.h>
#include <qvcl/memory.h>
#include <qvcl/server.h>
#include <qvcl/shm.h>
#include <qvcl/thread.h>
#include <qvcl/timer.h>
#include <qvcl/trace.h>
#include <qvcl/userfd.h>

QVCL_BEGIN

/* Library's life (main.h).
 *
 * CL_Init_M builds the table, then the exec-completion server, and installs the SIGCHLD handler. */

/* Workers of CL_Init_M and CL_End_M. err: as theirs. */
QVCL_API uint32_t cl_init(uint32_t count, const char *execPath, CL_ErrInfo *err);
QVCL_API uint32_t cl_end(CL_ErrInfo *err);

/* Builds the table of count + CL_SPARE_OBJECTS objects. Called once, by CL_Init_M. 1 on success, 0
 * on failure.
 * Errors: ENOMEM (no memory), CL_ERR_QUEUE. */
QVCL_API uint32_t CL_FD_TblInit(uint32_t count, CL_ErrInfo *err);

/* Objects (descriptor.h) and their events (event.h).
 *
 * Every operation on a handle begins with the check. Every callback is called and every status
 * changed in one way, so that all of it is in the trace. What is special to a kind stands in the
 * library's table of kinds: cl_deletefd calls its release (cl_Delete...), the loop its
 * cl_MakeList... and cl_Check..., all declared with the kind below. */

/* Workers of CL_CreateFD_M and CL_DeleteFD_M. err: as theirs. */
QVCL_API CL_Object *cl_createfd(uint32_t kind, CL_Callback callback, uint64_t arg1, uint64_t arg2,
                                CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                uint32_t line);
QVCL_API uint32_t cl_deletefd(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                              const char *file, uint32_t line);

/* 1 when the library is initialised and `object` is a live object, else 0.
 * Errors: CL_ERR_STATE, EBADF (not a live object). */
QVCL_API uint32_t cl_CheckFD(CL_Object *object, CL_ErrInfo *err);

/* The handle test alone, whatever the library's state.
 * Errors: EBADF (not a live object). */
QVCL_API uint32_t cl_CheckFD_sub(CL_Object *object, CL_ErrInfo *err);

/* Calls a callback with a trace record before and after; returns its result. The library calls
 * every application callback this way. callerFlag: 0; file, line: the caller's position. */
QVCL_API uint32_t cl_Callback_M(CL_Callback callback, CL_Object *object, CL_Event *event,
                                uint64_t arg1, uint64_t arg2, uint8_t callerFlag, const char *file,
                                uint32_t line);

/* Changes status and sub-status of a live object, with one trace record. Every change goes this
 * way. Nothing is validated. Result: that of CL_TRC_Write_M. */
QVCL_API uint32_t cl_StatusChange_M(CL_Object *object, uint32_t status, uint32_t sub_status,
                                    const char *file, uint32_t line);

/* Event lists (eventlist.h).
 *
 * An object is added to the pending list; each iteration moves that list into the priority list
 * before it makes the sets, so the walk over the list never meets an object without them. */

/* Workers of CL_AddEventList_M and CL_DelEventList_M. err: as theirs. */
QVCL_API uint32_t cl_addeventlist(CL_Object *object, uint32_t priority, CL_ErrInfo *err,
                                  uint8_t callerFlag);
QVCL_API uint32_t cl_deleventlist(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag);

/* Moves the pending list into the priority list. 0 on success; CL_LOOP_ERROR on failure, with the
 * queue's result as detail. The loop's step; allocates nothing.
 * Errors: CL_ERR_QUEUE. */
QVCL_API uint32_t cl_move_eventlist(CL_ErrInfo *err);

/* Order of the priority list: a and b point to object pointers. */
QVCL_API int pri_compar(const void *a, const void *b);

/* Loops (loop.h, thread.h).
 *
 * The steps of an iteration, above. Both loops make the sets in the same way; they differ in the
 * signals that they look at, and in whose mask they change. */

/* Workers of CL_EventLoop_M, CL_EventLoopThread_M and CL_SetThreadFd_M. err: as theirs. */
QVCL_API uint32_t cl_eventloop(CL_ErrInfo *err);
QVCL_API uint32_t cl_eventloopThread(CL_ErrInfo *err);
QVCL_API uint32_t cl_setThreadFd(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                                 const char *file, uint32_t line);

/* Bits that a look at the signals returns. */
enum { CL_LOOK_CHILD = 1, CL_LOOK_TIMER = 2, CL_LOOK_WAKE = 4 };

/* Builds the descriptor sets from the listed objects. 0, or the value that ends the loop.
 * Errors: EBADF (an object could not take part, and its callback returned 0), CL_ERR_QUEUE. */
QVCL_API uint32_t cl_fdmake(CL_ErrInfo *err);

/* Empties the three sets. */
QVCL_API void cl_clearlist(void);

/* Blocks `set` (keeping the previous mask in `saved`), reads and resets the signal fields, and
 * unblocks it again when something is pending or `always_unblock` is not 0. CL_LOOK_ bits, or
 * CL_LOOP_ERROR.
 * Errors: errno (sigprocmask). */
QVCL_API uint32_t cl_sigcheck(uint32_t always_unblock, const sigset_t *set, sigset_t *saved,
                              CL_ErrInfo *err);
/* As cl_sigcheck, with the wake-up.
 * Errors: errno (pthread_sigmask). */
QVCL_API uint32_t cl_sigcheckThread(uint32_t always_unblock, const sigset_t *set, sigset_t *saved,
                                    CL_ErrInfo *err);

/* Dispatches due timers, then lets every listed object check the sets. 0, or the value that ends
 * the loop. The masks are not needed: what the signal handlers write is read atomically.
 * Errors: CL_ERR_QUEUE. */
QVCL_API uint32_t cl_fdcheck(const sigset_t *set, sigset_t *saved, CL_ErrInfo *err);
/* As cl_fdcheck, with the wake-up.
 * Errors: CL_ERR_QUEUE. */
QVCL_API uint32_t cl_fdcheckThread(const sigset_t *set, sigset_t *saved, CL_ErrInfo *err);

/* Calls every listed THREAD object. 0, the first non-zero value of a callback, or CL_LOOP_ERROR.
 * Errors: CL_ERR_QUEUE. */
QVCL_API uint32_t cl_ThreadCallBack(CL_ErrInfo *err);

/* The SIGUSR1 handler: sets the wake-up flag. */
QVCL_API void clSIGUSR1Action(int signal);

/* Timers (timer.h).
 *
 * The first timer that starts installs the handler and the interval timer, the last one that ends
 * removes them. The handler counts ticks; a look at the signals takes the count and has the timers
 * checked, and those that are due are called from the next place where the loop dispatches. */

/* Workers of CL_StartTIMER_M and CL_StopTIMER_M. err: as theirs. */
QVCL_API uint32_t cl_starttimer(CL_Object *object, uint32_t seconds, uint32_t mode, CL_ErrInfo *err,
                                uint8_t callerFlag);
QVCL_API uint32_t cl_stoptimer(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag);

/* Installs handler and interval timer. 1 on success, 0 on failure.
 * Errors: errno (sigaction, setitimer). */
QVCL_API uint32_t cl_timer_init(CL_ErrInfo *err);
/* Removes both: SIGALRM is ignored. 1 on success, 0 on failure.
 * Errors: CL_ERR_QUEUE (signal failed), errno (setitimer). */
QVCL_API uint32_t cl_timer_end(CL_ErrInfo *err);

/* The SIGALRM handler: counts. */
QVCL_API void cl_sigalm(int signal);

/* Counts `ticks` seconds and marks due timers. 1 when a timer is due; 0 also on failure.
 * Errors: CL_ERR_QUEUE, errno (sysinfo). */
QVCL_API uint32_t cl_TimerCheck(uint32_t ticks, CL_ErrInfo *err);

/* Calls the due timers. 0, a callback's non-zero result, or -1 on failure.
 * Errors: CL_ERR_QUEUE, errno (setitimer). */
QVCL_API int32_t cl_TimerCall(CL_ErrInfo *err);

/* Release of a TIMER object: stops it when it runs. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE, CL_ERR_QUEUE, errno (setitimer). */
QVCL_API uint32_t cl_DeleteTIMER_M(CL_Object *object, CL_ErrInfo *err);

/* Children (child.h).
 *
 * The handler sets a flag; the loop that finds it set reaps whichever children have ended. */

/* The SIGCHLD handler: sets the child signal flag. */
QVCL_API void cl_sigchld(int signal);

/* Installs the handler (CL_Init_M does). 1 on success, 0 on failure.
 * Errors: errno (sigaction). */
QVCL_API uint32_t cl_sigchld_init(CL_ErrInfo *err);

/* Reaps ended children and calls their callbacks. 0, or the value that ends the loop.
 * Errors: CL_ERR_QUEUE, errno (waitpid). */
QVCL_API uint32_t cl_ChildCall(CL_ErrInfo *err);

/* Release of a CHILD object: kills and reaps a running child. 1 on success, 0 on failure.
 * Errors: CL_ERR_QUEUE (with the errno of kill or waitpid as detail when one of them failed). */
QVCL_API uint32_t cl_DeleteCHILD_M(CL_Object *child, CL_ErrInfo *err);

/* Exec-completion channel (execcomp.h).
 *
 * The library's own callbacks for the three kinds of object on that channel; the loop calls them
 * like an application's. The steps behind them are theirs: the report of a connection finds its
 * child, and connections that no child waits for are deleted. */

/* EXECS: accepts a connection when a child waits for a report, else closes it. */
QVCL_API uint32_t cl_ExecSWaitCallback(CL_Object *server, CL_Event *event, uint64_t arg1,
                                       uint64_t arg2);

/* EXECC: matches the report and calls the CHILD object's callback, or closes the connection. */
QVCL_API uint32_t cl_ExecCWaitCallback(CL_Object *connection, CL_Event *event, uint64_t arg1,
                                       uint64_t arg2);

/* END(ExecComp): calls the end callback, and deletes the object unless that callback did. */
QVCL_API uint32_t cl_EndCallback(CL_Object *end, CL_Event *event, uint64_t arg1, uint64_t arg2);

/* Matches the message event of a report connection with a waiting child, which takes over the
 * connection. 0 with *childOut set; 1 when it is no report or nobody waits for it; -1 on failure.
 * Errors: CL_ERR_QUEUE. */
QVCL_API int32_t cl_ExecCompRecv(CL_Object *connection, CL_Event *event, CL_Object **childOut,
                                 CL_ErrInfo *err);

/* Deletes all report connections once no child waits for a report. 1 on success, 0 on failure.
 * Errors: CL_ERR_QUEUE (one could not be deleted). */
QVCL_API uint32_t cl_clear_execc(CL_ErrInfo *err);

/* Release of the EXECS object: deletes all report connections, then closes the server. 1 on
 * success, 0 on failure.
 * Errors: CL_ERR_STATE, CL_ERR_QUEUE, errno (close). */
QVCL_API uint32_t cl_DeleteEXECS_M(CL_Object *server, CL_ErrInfo *err);

/* Message servers (server.h). */

/* Workers of CL_OpenMSGS_M, CL_AcceptMSGS_M and CL_CloseMSGS_M. err: as theirs. */
QVCL_API uint32_t cl_openmsgs(CL_Object *server, const char *path, uint32_t backlog,
                              CL_ErrInfo *err, uint8_t callerFlag);
QVCL_API CL_Object *cl_acceptmsgs(CL_Object *server, CL_Callback callback, uint64_t arg1,
                                  uint64_t arg2, CL_ErrInfo *err, uint8_t callerFlag,
                                  const char *file, uint32_t line);
QVCL_API uint32_t cl_closemsgs(CL_Object *server, CL_ErrInfo *err, uint8_t callerFlag);

/* The loop's step before the wait: adds to the sets. 0, or EBADF when the object cannot take part;
 * its error record says why: EBADF not open, EMFILE descriptor beyond the sets.
 * Errors: EBADF (cannot take part). */
QVCL_API uint32_t cl_MakeListMSGS_M(CL_Object *server);
/* The loop's step after the wait. 0, or the callback's result. */
QVCL_API uint32_t cl_CheckMSGS_M(CL_Object *server);

/* Release of an MSGS object: closes it when it is open. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE, errno (close). */
QVCL_API uint32_t cl_DeleteMSGS_M(CL_Object *server, CL_ErrInfo *err);

/* Message connections (client.h). */

/* Workers of CL_CnctMSGC_M, CL_RecvMSGC_M, CL_SendMSGC_M and CL_DiscMSGC_M. err: as theirs. */
QVCL_API uint32_t cl_cnctmsgc(CL_Object *client, const char *path, uint32_t mode, CL_ErrInfo *err,
                              uint8_t callerFlag);
QVCL_API int32_t cl_recvmsgc(CL_Object *client, void *buffer, int32_t capacity, uint32_t mode,
                             uint32_t timeout, CL_ErrInfo *err, uint8_t callerFlag,
                             const char *file, uint32_t line);
QVCL_API int32_t cl_sendmsgc(CL_Object *client, void *block, int32_t blockSize, uint32_t mode,
                             uint32_t timeout, CL_ErrInfo *err, uint8_t callerFlag,
                             const char *file, uint32_t line);
QVCL_API uint32_t cl_discmsgc(CL_Object *client, uint64_t *receiveBufferOut, CL_Queue *unsentOut,
                              CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line);

/* The loop's step before the wait: adds to the sets. 0, or EBADF when the object cannot take part;
 * its error record says why: EBADF not connected or failed, EMFILE descriptor beyond the sets.
 * Errors: EBADF (cannot take part). */
QVCL_API uint32_t cl_MakeListMSGC_M(CL_Object *client);
/* The loop's step after the wait. 0, or the value that ends the loop.
 * Errors: CL_ERR_QUEUE (ready for what nobody waits for). */
QVCL_API uint32_t cl_CheckMSGC_M(CL_Object *client, CL_ErrInfo *err);

/* Release of MSGC, END(ExecComp) and EXECC objects: disconnects when connected. 1 on success, 0 on
 * failure.
 * Errors: CL_ERR_STATE, errno (close). */
QVCL_API uint32_t cl_DeleteMSGC_M(CL_Object *client, CL_ErrInfo *err);

/* Transfer of messages (message.h).
 *
 * cl_recv and cl_send go on with a message as far as the socket lets them. The loop calls them when
 * the connection is ready, and a send with CL_MODE_IMMEDIATE at once. With CL_MODE_SYNC they are
 * called by cl_recv_sync and cl_send_sync, around a wait that has sets of its own (cl_make_...),
 * keeps the timers counting (cl_msgc_sigcheck) and watches for an end request (cl_recv_end).
 * Failures carry CL_MODULE_MSGC. */

/* Receive step: reads on. 1 when `event` holds CL_EVENT_MESSAGE or CL_EVENT_DISCONNECT, 0 when the
 * socket has no more bytes for now. Each of the errors ends the connection.
 * Errors: EPIPE (peer closed), EMSGSIZE (length above the capacity), EPROTO (another version, or a
 * length below 16), errno (recv). */
QVCL_API uint32_t cl_recv(CL_Object *connection, CL_Event *event, CL_ErrInfo *err);

/* Send step: writes the head of the send queue. Its length when it is out (CL_EVENT_SENT in
 * `event`, block off the queue); 0 when the socket is full; -1 with CL_EVENT_DISCONNECT, or, when
 * nothing is queued, without an event.
 * Errors: CL_ERR_IN_PROGRESS (socket full), CL_ERR_QUEUE (nothing queued), errno (send). */
QVCL_API int32_t cl_send(CL_Object *connection, CL_Event *event, CL_ErrInfo *err);

/* Fills a disconnect event, moving the send queue into it. */
QVCL_API void cl_setdiscivent(CL_Event *event, CL_Object *connection, const CL_ErrInfo *err);

/* Takes the head block off the send queue and fills a send-complete event with it. */
QVCL_API void cl_setsendcmp(CL_Event *event, CL_Object *connection);

/* Synchronous transfer of one message; timeout in seconds, 0 for none. The message length, -1 on
 * failure, or the end callback's result when the end watch fires.
 * Errors: EMFILE (descriptor beyond the wait's sets), ETIMEDOUT, EINTR (end watch), EPIPE (peer
 * closed), EMSGSIZE (length above the capacity), EPROTO (not a message), errno (recv, pselect,
 * sigprocmask, and the calls of timers). */
QVCL_API int32_t cl_recv_sync(CL_Object *connection, uint32_t timeout, CL_ErrInfo *err);
/* The same for sending.
 * Errors: EMFILE (descriptor beyond the wait's sets), ETIMEDOUT, EINTR (end watch), errno (send,
 * pselect, sigprocmask, and the calls of timers). */
QVCL_API int32_t cl_send_sync(CL_Object *connection, uint32_t timeout, CL_ErrInfo *err);

/* Blocks SIGALRM (previous mask in `saved`) and applies timer ticks. 0 with the signal blocked; 2
 * timed out; -1 on failure.
 * Errors: ETIMEDOUT, errno (sigprocmask). */
QVCL_API int32_t cl_msgc_sigcheck(CL_Object *connection, uint32_t timeout, const sigset_t *alarm,
                                  sigset_t *saved, CL_ErrInfo *err);

/* Add the connection (and the end object, unless null) to the sets of a synchronous wait. */
QVCL_API void cl_make_recv_fd(const CL_Object *connection, const CL_Object *end, fd_set *read,
                              int32_t *count);
QVCL_API void cl_make_send_fd(const CL_Object *connection, const CL_Object *end, fd_set *read,
                              fd_set *write, int32_t *count);

/* 1 when the end object's connection delivered an end request or has ended, else 0.
 * Errors: EPIPE (peer closed), EMSGSIZE (message above 20 bytes), EPROTO (not a message), errno
 * (recv). */
QVCL_API uint32_t cl_recv_end(CL_Object *end, CL_ErrInfo *err);

/* User descriptors (userfd.h). */

/* Worker of CL_SetFD_M. err: as its. */
QVCL_API uint32_t cl_setfd(CL_Object *object, uint32_t count, const fd_set *readSet,
                           const fd_set *writeSet, const fd_set *exceptSet, CL_ErrInfo *err,
                           uint8_t callerFlag);

/* The loop's step before the wait: adds to the sets. 0, or EBADF when the object cannot take part;
 * its error record says why.
 * Errors: EBADF (no sets given). */
QVCL_API uint32_t cl_MakeListLFD_M(CL_Object *object, uint8_t callerFlag, const char *file,
                                   uint32_t line);
/* The loop's step after the wait. 0, or the callback's result. err: not used. */
QVCL_API uint32_t cl_CheckLFD_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                                const char *file, uint32_t line);

/* Files and shared memory (file.h, shm.h). */

/* Workers of CL_OpenFile_M and the other operations on files. err: as theirs. */
QVCL_API CL_Object *cl_openfile(const char *path, uint32_t flags, uint32_t mode, CL_ErrInfo *err,
                                const char *file, uint32_t line);
QVCL_API uint32_t cl_closefile(CL_Object *object, CL_ErrInfo *err, const char *file, uint32_t line);
QVCL_API int64_t cl_writefile(CL_Object *object, const void *buffer, uint64_t length,
                              CL_ErrInfo *err);
QVCL_API int64_t cl_readfile(CL_Object *object, void *buffer, uint64_t length, CL_ErrInfo *err);
QVCL_API uint32_t cl_flushfile(CL_Object *object, CL_ErrInfo *err);
QVCL_API int32_t cl_seekfile(CL_Object *object, int32_t offset, uint32_t whence, CL_ErrInfo *err);
QVCL_API uint32_t cl_deletefile(const char *path, CL_ErrInfo *err);

/* Workers of CL_MapSHM_M, CL_UnmapSHM_M and CL_CloseSHM_M; cl_openshm is an operation. err: as
 * theirs. */
QVCL_API void *cl_mapshm(CL_Object *object, CL_ErrInfo *err);
QVCL_API uint32_t cl_unmapshm(CL_Object *object, CL_ErrInfo *err);
QVCL_API uint32_t cl_closeshm(CL_Object *object, CL_ErrInfo *err, const char *file, uint32_t line);

/* Memory (memory.h). */

/* EFAULT when length is not 0 and address is null, else 0. CL_SendMSGC_M asks it before it copies
 * the first bytes of a block into its trace record. */
QVCL_API uint32_t cl_addrchk(const void *address, int32_t length);

/* Log, trace and configuration (log.h, trace.h, conf.h).
 *
 * CL_TRC_Out opens the file with the steps below, and asks for a generation when it was given no
 * path. CL_ReadConf trims each line, asks whether it begins a section, and has it parsed. */

/* Worker of CL_LOG_Init_M. err: as its. */
QVCL_API uint32_t cl_log_init(const char *name, const char *catalogue, const char *altCatalogue,
                              const char *logPath, CL_ErrInfo *err);

/* Worker of CL_TRC_Init_M. */
QVCL_API uint32_t cl_trc_init(int ring, const char *prefix, uint32_t entrySize, uint32_t entryCount,
                              CL_DumpCallback dumpCallback);

/* Steps of CL_TRC_Out. cl_open_trc: opens the file, writes the header text; descriptor or -1.
 * cl_getgen: the generation to use now, noting the next one in prefix.cnf. cl_writegen: writes
 * that file. cl_getpath: copies the directory part of `path`, its last slash included, into `out`
 * (as long as path) and returns it; null with an empty `out` when there is no slash. */
QVCL_API int32_t cl_open_trc(const char *path, const char *headerText);
QVCL_API int32_t cl_getgen(const char *prefix);
QVCL_API void cl_writegen(const char *path, int n);
QVCL_API char *cl_getpath(const char *path, char *out);

/* Steps of CL_ReadConf. cl_delst trims `text` in place and returns its first kept character;
 * cl_issection tells whether a trimmed line is a header; cl_getsection and cl_getmember parse one
 * trimmed line (changing it) and insert the element. line: from 1. Comparators over pointers to
 * element pointers. */
QVCL_API char *cl_delst(char *text);
QVCL_API uint32_t cl_issection(const char *text);
QVCL_API uint32_t cl_getsection(CL_Queue *conf, char *text, uint32_t line,
                                CL_ConfSection **section);
QVCL_API uint32_t cl_getmember(CL_ConfSection *section, char *text, uint32_t line);
QVCL_API int sec_compar(const void *a, const void *b);
QVCL_API int mbr_compar(const void *a, const void *b);

QVCL_END

#endif
