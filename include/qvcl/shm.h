/* Shared-memory objects (SHM): existing POSIX segments, mapped.
 *
 * The library never creates, sizes or removes a segment; it must exist and be at least as large as
 * the size given. SHM objects are never listed. Failures carry module 8; a failed system call
 * gives its errno. All handle operations fail with 9 on an invalid handle or an object that is not
 * an open SHM, and with CL_ERR_STATE. */
#ifndef QVCL_SHM_H
#define QVCL_SHM_H

#include <qvcl/descriptor.h>

QVCL_BEGIN

/* Opens the segment `name`, close-on-exec. flags: O_RDONLY or O_RDWR; other bits are not used.
 * size: bytes to map later. file, line: the caller's position. The object, or null. Writes no trace
 * record of its own.
 * Errors: 22 (access mode, size 0), 14 (name null), CL_ERR_STATE, 24 (table full), CL_ERR_QUEUE,
 * errno (shm_open, fcntl). */
QVCL_API CL_Object *cl_openshm(const char *name, int32_t flags, uint64_t size, CL_ErrInfo *err,
                               const char *file, uint32_t line);

/* Maps the segment, shared, readable and with O_RDWR writable. The address, owned by the object;
 * null on failure.
 * Errors: CL_ERR_STATE, 9 (invalid handle, not an open segment, mapped already), errno (mmap). */
QVCL_API void *CL_MapSHM_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                           uint32_t line);
#define CL_MapSHM(object, err) CL_MapSHM_M((object), (err), CL_HERE)
QVCL_API void *cl_mapshm(CL_Object *object, CL_ErrInfo *err);

/* Unmaps. 1, or 0.
 * Errors: CL_ERR_STATE, 9 (invalid handle, not an open segment), 2 (not mapped), errno (munmap). */
QVCL_API uint32_t CL_UnmapSHM_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                                const char *file, uint32_t line);
#define CL_UnmapSHM(object, err) CL_UnmapSHM_M((object), (err), CL_HERE)
QVCL_API uint32_t cl_unmapshm(CL_Object *object, CL_ErrInfo *err);

/* Closes and deletes the object. 1; 0: the object stays. When the object's memory.unlink_on_close
 * is not 0 (the application may set it), the name is removed first.
 * Errors: CL_ERR_STATE, 9 (invalid handle, not an open segment), 2 (still mapped: unmap first), 36
 * (the name to remove has more than 140 characters), CL_ERR_QUEUE, errno (shm_unlink, close). */
QVCL_API uint32_t CL_CloseSHM_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                                const char *file, uint32_t line);
#define CL_CloseSHM(object, err) CL_CloseSHM_M((object), (err), CL_HERE)
QVCL_API uint32_t cl_closeshm(CL_Object *object, CL_ErrInfo *err, const char *file, uint32_t line);

QVCL_END

#endif
