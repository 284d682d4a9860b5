/* Tracked memory: who allocated what, when, and what was never given back.
 *
 * Two lists of live blocks, the library's (caller flag 1) and the application's (any other flag),
 * each with its bytes in use and their peak. The application's bytes have a limit. With the
 * environment variable CL_MEM_CHECK set to exactly "1" when the library is loaded, every block is
 * followed by 16 guard bytes that are checked when it is released. CL_End_M reports the blocks
 * that are left.
 *
 * None of these functions fills an error record or writes a trace record. */
#ifndef QVCL_MEMORY_H
#define QVCL_MEMORY_H

#include <qvcl/layouts.h>

QVCL_BEGIN

/* Bytes the application may hold at a time unless CL_memlimit says otherwise. */
#define CL_MEM_DEFAULT_LIMIT 104857600u

/* A zeroed block of `size` bytes, owned by the caller until CL_free_M; null when size is 0, the
 * application's limit would be exceeded (callerFlag 0; reaching it is allowed) or memory is
 * short. file, line: recorded as the allocation position. */
QVCL_API void *CL_malloc_M(uint64_t size, int32_t callerFlag, const char *file, uint32_t line);
#define CL_malloc(size) CL_malloc_M((size), CL_HERE)

/* Releases a block. 1 on success, 0 when it is refused and nothing has changed: data is null, the
 * block belongs to the other flag's list, or its guard was overwritten (one line to the internal
 * log). */
QVCL_API uint32_t CL_free_M(void *data, int32_t callerFlag, const char *file, uint32_t line);
#define CL_free(data) CL_free_M((data), CL_HERE)

/* Number of live blocks: the library's for flag 1, the application's for any other. */
QVCL_API uint32_t CL_nmem_M(int32_t callerFlag);

/* Sets the application's limit in bytes for later allocations (0: none); returns the previous. */
QVCL_API uint64_t CL_memlimit(uint64_t limit);

/* Writes the lists of live blocks to the internal log, oldest first: the application's, and before
 * it the library's when the environment variable CLLIB_DEBUG is exactly "1". The log callback may
 * allocate and release blocks: what it allocates is not listed, what it has released is not either.
 */
QVCL_API void cl_memdisp(void);

/* Writes the same lines to standard output. */
QVCL_API void mem_disp(void);

/* Prints one line to standard output for every block whose guard was overwritten; does nothing
 * without CL_MEM_CHECK. Frees nothing. */
QVCL_API void mem_check(void);

QVCL_END

#endif
