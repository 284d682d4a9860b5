/* File objects (FILE): regular files whose input and output is traced.
 *
 * One system call an operation, nothing buffered. FILE objects are never listed. After a success of
 * write, read, flush and seek err and detail are 0, but module, line and version are filled.
 * Failures carry CL_MODULE_FILE; a failed system call gives its errno. All handle operations fail
 * with EBADF on an invalid handle or an object that is not an open FILE, and with CL_ERR_STATE. */
#ifndef QVCL_FILE_H
#define QVCL_FILE_H

#include <qvcl/descriptor.h>

QVCL_BEGIN

/* Opens a file, close-on-exec. flags: O_RDONLY, O_WRONLY or O_RDWR with any of O_CREAT, O_EXCL,
 * O_TRUNC and O_APPEND; other bits are dropped. mode: permission bits of a file it creates. The
 * handle, or null on failure.
 * Errors: EINVAL (none of the three access modes), EFAULT (path null), CL_ERR_STATE, EMFILE (table
 * full), CL_ERR_QUEUE, errno (open, fcntl). */
QVCL_API CL_Object *CL_OpenFile_M(const char *path, uint32_t flags, uint32_t mode, CL_ErrInfo *err,
                                  uint8_t callerFlag, const char *file, uint32_t line);
#define CL_OpenFile(path, flags, mode, err) CL_OpenFile_M((path), (flags), (mode), (err), CL_HERE)

/* Closes the file and deletes the object. 1 on success, 0 on failure: the object stays and may be
 * closed again.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not an open file), CL_ERR_QUEUE, errno (close). */
QVCL_API uint32_t CL_CloseFile_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                                 const char *file, uint32_t line);
#define CL_CloseFile(object, err) CL_CloseFile_M((object), (err), CL_HERE)

/* One write of `length` bytes at the current offset. Bytes written (may be fewer), or -1 on
 * failure.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not an open file), errno (write). */
QVCL_API int64_t CL_WriteFile_M(CL_Object *object, const void *buffer, uint64_t length,
                                CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                uint32_t line);
#define CL_WriteFile(object, buffer, length, err) \
    CL_WriteFile_M((object), (buffer), (length), (err), CL_HERE)

/* One read of at most `length` bytes. Bytes read, 0 at end of file, or -1 on failure.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not an open file), errno (read). */
QVCL_API int64_t CL_ReadFile_M(CL_Object *object, void *buffer, uint64_t length, CL_ErrInfo *err,
                               uint8_t callerFlag, const char *file, uint32_t line);
#define CL_ReadFile(object, buffer, length, err) \
    CL_ReadFile_M((object), (buffer), (length), (err), CL_HERE)

/* Forces written data to the device (fdatasync). 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not an open file), errno (fdatasync). */
QVCL_API uint32_t CL_FlushFile_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                                 const char *file, uint32_t line);
#define CL_FlushFile(object, err) CL_FlushFile_M((object), (err), CL_HERE)

/* Moves the offset. whence: SEEK_SET, SEEK_CUR or SEEK_END. The new offset, or -1 on failure; when
 * the new offset does not fit 32 signed bits the offset is as before.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not an open file), EINVAL (whence), EOVERFLOW
 * (offset above 32 bits), errno (lseek). */
QVCL_API int32_t CL_SeekFile_M(CL_Object *object, int32_t offset, uint32_t whence, CL_ErrInfo *err,
                               uint8_t callerFlag, const char *file, uint32_t line);
#define CL_SeekFile(object, offset, whence, err) \
    CL_SeekFile_M((object), (offset), (whence), (err), CL_HERE)

/* Removes a file by name; needs neither an object nor an initialised library. 1 on success, 0 on
 * failure.
 * Errors: EFAULT (path null), errno (unlink). */
QVCL_API uint32_t CL_DeleteFile_M(const char *path, CL_ErrInfo *err, uint8_t callerFlag,
                                  const char *file, uint32_t line);
#define CL_DeleteFile(path, err) CL_DeleteFile_M((path), (err), CL_HERE)

QVCL_END

#endif
