/* The library's life and its main table: load, CL_Init_M, CL_End_M.
 *
 * All state of the library is in one table, reached through CL_MainTable. It is dumped byte for
 * byte into trace files, so its layout (main_table.h) is a file format. Applications read it; the
 * library's operations change it.
 *
 * Loading the library makes the table (state CL_STATE_CONSTRUCTED) and the library trace ring.
 * A second copy of the library in the process, opened from another path, uses the table that is
 * there. CL_Init_M makes it usable once per process; CL_End_M ends it, reporting what was not
 * released to the internal log. A forked child has copies of all tables but shares its parent's
 * sockets and files: it may use CL_GetPid, CL_Sleep, the cl_u_ wrappers, cl_envchange, the queue,
 * the allocator and CL_TRC_Out, and should then exec or _exit. */
#ifndef QVCL_MAIN_H
#define QVCL_MAIN_H

#include <qvcl/main_table.h>

QVCL_BEGIN

/* Values of `state`. */
enum { CL_STATE_CONSTRUCTED = 1, CL_STATE_INITIALISED = 2, CL_STATE_ENDED = 3 };
#define CL_STATE_FAILED 0xffffffffu /* CL_Init_M failed half-way; only CL_End_M remains useful */

/* The table: CL_EM_MainTable is its storage, and everything reaches it through CL_MainTable. The
 * storage keeps its size for as long as the library keeps its major version: the loader may have to
 * copy it into a program that names it, where there is as much room as when it was linked. */
QVCL_API extern CL_MainBlock CL_EM_MainTable;
QVCL_API extern CL_MainBlock *CL_MainTable;

/* Initialises the library. count: objects that the application needs, at most 10000. execPath:
 * socket path (at most 107 characters) of the exec-completion server, null or empty for none.
 * SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGUSR2 and SIGPROF are ignored from then on, and SIGCHLD is
 * the library's. 1 on success, 0 on failure: after EPERM, ENAMETOOLONG and EINVAL nothing has
 * changed, and the call may be repeated after the last two; after any other the state is
 * CL_STATE_FAILED.
 * Errors: EPERM (not in the constructed state), ENAMETOOLONG (path too long), EINVAL (count too
 * large), ENOMEM (no memory for the table), EMFILE (server's descriptor beyond the loop's sets),
 * CL_ERR_QUEUE, errno (opening the server, installing the SIGCHLD handler). */
QVCL_API uint32_t CL_Init_M(uint32_t count, const char *execPath, CL_ErrInfo *err,
                            uint8_t callerFlag, const char *file, uint32_t line);
#define CL_Init(count, execPath, err) CL_Init_M((count), (execPath), (err), CL_HERE)

/* Ends the library: deletes the exec-completion server and reports blocks and objects that are left
 * to the internal log (the library's own too when the environment variable CLLIB_DEBUG is exactly
 * "1"); releases nothing else. 1 on success, 0 on failure. A success leaves err as the caller
 * passed it in, but for CL_ERR_QUEUE when the server could not be deleted.
 * Errors: CL_ERR_STATE (not initialised, or ended), CL_ERR_QUEUE (server not deleted; the result is
 * 1). */
QVCL_API uint32_t CL_End_M(CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line);
#define CL_End(err) CL_End_M((err), CL_HERE)

/* Ends the process at once through abort(3). */
QVCL_API void CL_Abort_M(void);

QVCL_END

#endif
