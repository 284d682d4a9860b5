/* Shared-memory objects (SHM): existing POSIX segments, mapped.
 *
 * The library never creates, sizes or removes a segment; it must exist and be at least as large as
 * the size given. SHM objects are never listed. Failures carry CL_MODULE_SHM; a failed system call
 * gives its errno. All handle operations fail with EBADF on an invalid handle or an object that is
 * not an open SHM, and with CL_ERR_STATE. */
#ifndef QVCL_SHM_H
#define QVCL_SHM_H

#include <qvcl/descriptor.h>

QVCL_BEGIN

/* Opens the segment `name`, close-on-exec. flags: O_RDONLY or O_RDWR; other bits are not used.
 * size: bytes to map later. file, line: the caller's position. The handle, or null on failure.
 * Writes no trace record of its own.
 * Errors: EINVAL (access mode, size 0), EFAULT (name null), CL_ERR_STATE, EMFILE (table full),
 * CL_ERR_QUEUE, errno (shm_open, fcntl). */
QVCL_API CL_Object *cl_openshm(const char *name, int32_t flags, uint64_t size, CL_ErrInfo *err,
                               const char *file, uint32_t line);
#define CL_OpenSHM(name, flags, size, err) cl_openshm((name), (flags), (size), (err), CL_FILE_LINE)

/* Maps the segment, shared, readable and with O_RDWR writable. The address, owned by the object;
 * null on failure.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not an open segment, mapped already), errno (mmap).
 */
QVCL_API void *CL_MapSHM_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                           uint32_t line);
#define CL_MapSHM(object, err) CL_MapSHM_M((object), (err), CL_HERE)

/* Unmaps. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not an open segment), ENOENT (not mapped), errno
 * (munmap). */
QVCL_API uint32_t CL_UnmapSHM_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                                const char *file, uint32_t line);
#define CL_UnmapSHM(object, err) CL_UnmapSHM_M((object), (err), CL_HERE)

/* Closes and deletes the object. 1 on success, 0 on failure: the object stays. When the object's
 * memory.unlink_on_close is not 0 (the application may set it), the name is removed first.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not an open segment), ENOENT (still mapped: unmap
 * first), ENAMETOOLONG (the name to remove has more than 140 characters), CL_ERR_QUEUE, errno
 * (shm_unlink, close). */
QVCL_API uint32_t CL_CloseSHM_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                                const char *file, uint32_t line);
#define CL_CloseSHM(object, err) CL_CloseSHM_M((object), (err), CL_HERE)

QVCL_END

#endif
