// File objects: one system call an operation, traced, with the error record filled.
#include <fcntl.h>
#include <unistd.h>

#include <qvcl/file.h>
#include <qvcl/main.h>
#include <qvcl/steps.h>

#include "core/error.h"
#include "diag/traced.h"
#include "io/open_descriptor.h"
#include "loop/live_object.h"

using qvcl::address_of;

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::Success done{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);
constexpr uint32_t kAccess = 3;
constexpr uint32_t kFlags = kAccess | O_CREAT | O_EXCL | O_TRUNC | O_APPEND;

// A live, open FILE object; who calls makes no difference.
bool is_open(CL_Object *object, CL_ErrInfo *err, uint32_t line = __builtin_LINE()) {
    return qvcl::is_open(fail, object, CL_KIND_FILE, err, line);
}

// The end of an operation that is one call on the descriptor: its result, and a record that names
// the place after a success too.
int64_t ended(int64_t result, CL_ErrInfo *err, uint32_t line = __builtin_LINE()) {
    if (result == -1) return fail.sys(err, line);
    done(err, line);
    return result;
}

CL_TrcFileData data_record(uint8_t api, CL_Object *object, const void *buffer, uint64_t length,
                           CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcFileData record = {};
    qvcl::fill_head(record.head, api, sizeof record, callerFlag, file, line);
    record.handle = address_of(object);
    record.buffer = address_of(buffer);
    record.length = length;
    record.err_address = address_of(err);
    return record;
}

void copy_data(CL_TrcFileData &record, const void *buffer, uint64_t length) {
    if (buffer == nullptr || length == 0) return;
    memcpy(record.data, buffer, length < sizeof record.data ? length : sizeof record.data);
}

}  // namespace

CL_Object *CL_OpenFile_M(const char *path, uint32_t flags, uint32_t mode, CL_ErrInfo *err,
                         uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcOpenFile record = {};
    qvcl::fill_head(record.head, CL_API_OPEN_FILE, 0, callerFlag, file, line);
    record.flags = flags;
    record.mode = mode;
    record.err_address = address_of(err);
    qvcl::trace_path(record, path);
    return qvcl::traced(
        record, err, [=](CL_ErrInfo *e) { return cl_openfile(path, flags, mode, e, file, line); });
}

CL_Object *cl_openfile(const char *path, uint32_t flags, uint32_t mode, CL_ErrInfo *err,
                       const char *file, uint32_t line) {
    *err = {};
    if ((flags & kAccess) == kAccess) return fail(err, EINVAL);
    if (path == nullptr) return fail(err, EFAULT);
    CL_Object *object = qvcl::open_object(
        fail, CL_KIND_FILE, [=] { return cl_u_open(path, static_cast<int>(flags & kFlags), mode); },
        err, file, line);
    if (object == nullptr) return nullptr;
    qvcl::copy_text(object->file.path, sizeof object->file.path, path);
    cl_StatusChange_M(object, CL_STATUS_READY, 0, kFile, __LINE__);
    return object;
}

uint32_t CL_CloseFile_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                        uint32_t line) {
    return qvcl::traced_handle(CL_API_CLOSE_FILE, object, err, callerFlag, file, line,
                               [=](CL_ErrInfo *e) { return cl_closefile(object, e, file, line); });
}

uint32_t cl_closefile(CL_Object *object, CL_ErrInfo *err, const char *file, uint32_t line) {
    if (!is_open(object, err)) return 0;
    if (cl_u_close(object->descriptor) != 0) return fail.sys(err);
    object->descriptor = -1;
    return CL_DeleteFD_M(object, err, 1, file, line);
}

int64_t CL_WriteFile_M(CL_Object *object, const void *buffer, uint64_t length, CL_ErrInfo *err,
                       uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcFileData record =
        data_record(CL_API_WRITE_FILE, object, buffer, length, err, callerFlag, file, line);
    copy_data(record, buffer, length);
    return qvcl::traced(record, err,
                        [=](CL_ErrInfo *e) { return cl_writefile(object, buffer, length, e); });
}

int64_t cl_writefile(CL_Object *object, const void *buffer, uint64_t length, CL_ErrInfo *err) {
    if (!is_open(object, err)) return -1;
    return ended(cl_u_write(object->descriptor, buffer, length), err);
}

int64_t CL_ReadFile_M(CL_Object *object, void *buffer, uint64_t length, CL_ErrInfo *err,
                      uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcFileData record =
        data_record(CL_API_READ_FILE, object, buffer, length, err, callerFlag, file, line);
    return qvcl::traced(
        record, err, [=](CL_ErrInfo *e) { return cl_readfile(object, buffer, length, e); },
        [&record, buffer](int64_t result) {
            if (result > 0) copy_data(record, buffer, static_cast<uint64_t>(result));
        });
}

int64_t cl_readfile(CL_Object *object, void *buffer, uint64_t length, CL_ErrInfo *err) {
    if (!is_open(object, err)) return -1;
    return ended(cl_u_read(object->descriptor, buffer, length), err);
}

uint32_t CL_FlushFile_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                        uint32_t line) {
    CL_TrcFlush record = {};
    qvcl::fill_head(record.head, CL_API_FLUSH_FILE, sizeof record, callerFlag, file, line);
    record.handle = address_of(object);
    record.err_address = address_of(err);
    return qvcl::traced(record, err, [=](CL_ErrInfo *e) { return cl_flushfile(object, e); });
}

uint32_t cl_flushfile(CL_Object *object, CL_ErrInfo *err) {
    if (!is_open(object, err)) return 0;
    return ended(cl_u_fdatasync(object->descriptor), err) == 0 ? 1 : 0;
}

int32_t CL_SeekFile_M(CL_Object *object, int32_t offset, uint32_t whence, CL_ErrInfo *err,
                      uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcSeek record = {};
    qvcl::fill_head(record.head, CL_API_SEEK_FILE, sizeof record, callerFlag, file, line);
    record.handle = address_of(object);
    record.offset = offset;
    record.whence = whence;
    record.err_address = address_of(err);
    return qvcl::traced(
        record, err, [=](CL_ErrInfo *e) { return cl_seekfile(object, offset, whence, e); },
        [&record](int32_t result) {  // shown as a 64-bit value
            record.result = static_cast<uint64_t>(int64_t{result});
        });
}

int32_t cl_seekfile(CL_Object *object, int32_t offset, uint32_t whence, CL_ErrInfo *err) {
    if (!qvcl::live_object(fail, object, CL_KIND_FILE, err, 0)) return -1;
    if (whence > SEEK_END) return fail(err, EINVAL);
    if (!is_open(object, err)) return -1;
    const int fd = object->descriptor;
    const off_t before = whence == SEEK_SET ? 0 : lseek(fd, 0, SEEK_CUR);
    const off_t result = before == -1 ? -1 : lseek(fd, offset, static_cast<int>(whence));
    if (result > INT32_MAX) {
        lseek(fd, before, SEEK_SET);
        return fail(err, EOVERFLOW);
    }
    return static_cast<int32_t>(ended(result, err));
}

uint32_t CL_DeleteFile_M(const char *path, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                         uint32_t line) {
    CL_TrcDeleteFile record = {};
    qvcl::fill_head(record.head, CL_API_DELETE_FILE, 0, callerFlag, file, line);
    record.err_address = address_of(err);
    qvcl::trace_path(record, path);
    return qvcl::traced(record, err, [=](CL_ErrInfo *e) { return cl_deletefile(path, e); });
}

uint32_t cl_deletefile(const char *path, CL_ErrInfo *err) {
    *err = {};
    if (path == nullptr) return fail(err, EFAULT);
    if (cl_u_unlink(path) != 0) return fail.sys(err);
    return 1;
}
