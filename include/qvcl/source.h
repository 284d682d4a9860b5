/* Companion of libqvcl: sources, which put other libraries on the loop (libqvcl-starter.a).
 *
 * For a library that can be asked which descriptors it waits for and how long, and told to go on
 * when one of them is ready or the time is over. A source asks and tells: its descriptors are
 * watched by the nest (nest.h), its time-out is a timer of the nest.
 *
 *     prepare    the library is asked: when the source is created, after every dispatch, and by
 *                CL_UpdateSource
 *     dispatch   the library is told: a descriptor is ready, or the time is over
 *
 * Nothing asks the library when the application calls it at any other time. It may want something
 * else then (to write what did not fit, to be called at an earlier time), so call CL_UpdateSource.
 *
 * A source allocates when it is created, and never afterwards. It uses nothing but the exported
 * interface. Failures of its own carry CL_MODULE_SOURCE. All functions belong to the loop's
 * thread. A call that fails changes nothing, but for CL_UpdateSource. */
#ifndef QVCL_SOURCE_H
#define QVCL_SOURCE_H

#include <qvcl/nest.h>

QVCL_BEGIN

enum { CL_MODULE_SOURCE = 104 };

enum { CL_SOURCE_LIMIT = 1024 }; /* descriptors of one source */

#define CL_SOURCE_NEVER UINT64_MAX /* no time-out */

typedef struct CL_Source CL_Source;

/* A descriptor that the library waits for. */
typedef struct CL_SourceFD {
    int fd;
    uint32_t events; /* CL_NEST_READ, CL_NEST_WRITE, CL_NEST_HANGUP; what stands there twice counts
                      * together */
} CL_SourceFD;

/* What the library waits for now.
 *
 * fds: to be filled with its descriptors, at most `limit`, that of CL_CreateSource. due: when it
 * wants to be told that the time is over, in nanoseconds of the monotonic clock; one that is past
 * is due in the next turn of the nest; CL_SOURCE_NEVER when it comes. Returns how many descriptors
 * it has filled. It must not update or delete its source. */
typedef uint32_t (*CL_SourcePrepare)(CL_SourceFD *fds, uint32_t limit, uint64_t *due, uint64_t arg1,
                                     uint64_t arg2);

/* Lets the library go on.
 *
 * fd, ready: a descriptor and what it is ready for, CL_NEST_... bits; CL_NEST_ERROR also for one
 * that cannot be watched, a second after it was asked for. -1 and 0 when the time is over. Returns
 * 0 to let the loop go on; any other value ends the loop, which returns it. It may delete its
 * source. */
typedef uint32_t (*CL_SourceDispatch)(CL_Source *source, int fd, uint32_t ready, uint64_t arg1,
                                      uint64_t arg2);

/* A source, whose library is asked at once. limit: the most descriptors that it will wait for, up
 * to CL_SOURCE_LIMIT. priority: of its watches and timer in the nest. The handle, or null on
 * failure.
 * Errors: CL_ERR_STATE (there is no nest), EFAULT (prepare or dispatch null), EINVAL (limit),
 * ENOMEM (no memory), errno (of the first watch or timer that could not be set). */
CL_Source *CL_CreateSource_M(uint32_t limit, uint32_t priority, CL_SourcePrepare prepare,
                             CL_SourceDispatch dispatch, uint64_t arg1, uint64_t arg2,
                             CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line);
#define CL_CreateSource(limit, priority, prepare, dispatch, arg1, arg2, err) \
    CL_CreateSource_M((limit), (priority), (prepare), (dispatch), (arg1), (arg2), (err), CL_HERE)

/* Asks the library again, because the application has called it. 1 on success, 0 on failure: what
 * could not be watched is told by dispatch a second later; the rest is as the library wants it.
 * Errors: CL_ERR_STATE (there is no nest), EBADF (not a live handle), EBUSY (called by prepare),
 * errno (of the first watch or timer that could not be set). */
uint32_t CL_UpdateSource_M(CL_Source *source, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                           uint32_t line);
#define CL_UpdateSource(source, err) CL_UpdateSource_M((source), (err), CL_HERE)

/* Deletes a source; the library and its descriptors are left alone. Delete it before the library's
 * descriptors are closed, and before the nest; afterwards it still gives back its memory. 1 on
 * success, 0 on failure.
 * Errors: EBADF (not a live handle), EBUSY (called by prepare). */
uint32_t CL_DeleteSource_M(CL_Source *source, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                           uint32_t line);
#define CL_DeleteSource(source, err) CL_DeleteSource_M((source), (err), CL_HERE)

QVCL_END

#endif
