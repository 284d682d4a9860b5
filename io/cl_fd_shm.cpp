// Shared-memory objects: existing segments, opened, mapped, unmapped and closed.
#include <fcntl.h>
#include <sys/mman.h>

#include <qvcl/main.h>
#include <qvcl/shm.h>
#include <qvcl/steps.h>

#include "core/error.h"
#include "diag/traced.h"
#include "io/open_descriptor.h"
#include "loop/live_object.h"

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);
constexpr int32_t kAccess = 3;
constexpr mode_t kMode = 0660;

// A live, open SHM object; who calls makes no difference.
bool is_open(CL_Object *object, CL_ErrInfo *err, uint32_t line = __builtin_LINE()) {
    return qvcl::is_open(fail, object, CL_KIND_SHM, err, line);
}

}  // namespace

CL_Object *cl_openshm(const char *name, int32_t flags, uint64_t size, CL_ErrInfo *err,
                      const char *file, uint32_t line) {
    CL_ErrInfo own;
    if (err == nullptr) err = &own;
    *err = {};
    const int32_t access = flags & kAccess;
    if (access != O_RDONLY && access != O_RDWR) return fail(err, EINVAL);
    if (name == nullptr) return fail(err, EFAULT);
    if (size == 0) return fail(err, EINVAL);
    CL_Object *object = qvcl::open_object(
        fail, CL_KIND_SHM, [=] { return cl_u_shm_open(name, access, kMode); }, err, file, line);
    if (object == nullptr) return nullptr;
    CL_SharedMemory &memory = object->memory;
    qvcl::copy_text(memory.name, sizeof memory.name, name);
    memory.name_length = static_cast<uint32_t>(strlen(name));
    memory.size = size;
    memory.flags = static_cast<uint32_t>(flags);
    memory.address = nullptr;
    memory.unlink_on_close = 0;
    cl_StatusChange_M(object, CL_STATUS_READY, 0, kFile, __LINE__);
    return object;
}

void *CL_MapSHM_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                  uint32_t line) {
    return qvcl::traced_handle(CL_API_MAP_SHM, object, err, callerFlag, file, line,
                               [=](CL_ErrInfo *e) { return cl_mapshm(object, e); });
}

void *cl_mapshm(CL_Object *object, CL_ErrInfo *err) {
    if (!is_open(object, err)) return nullptr;
    CL_SharedMemory &memory = object->memory;
    if (memory.address != nullptr) return fail(err, EBADF);
    const bool writable = (static_cast<int32_t>(memory.flags) & kAccess) == O_RDWR;
    void *address = cl_u_mmap(nullptr, memory.size, PROT_READ | (writable ? PROT_WRITE : 0),
                              MAP_SHARED, object->descriptor, 0);
    if (address == MAP_FAILED) return fail.sys(err);
    memory.address = address;
    return address;
}

uint32_t CL_UnmapSHM_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                       uint32_t line) {
    return qvcl::traced_handle(CL_API_UNMAP_SHM, object, err, callerFlag, file, line,
                               [=](CL_ErrInfo *e) { return cl_unmapshm(object, e); });
}

uint32_t cl_unmapshm(CL_Object *object, CL_ErrInfo *err) {
    if (!is_open(object, err)) return 0;
    CL_SharedMemory &memory = object->memory;
    if (memory.address == nullptr) return fail(err, ENOENT);
    if (cl_u_munmap(memory.address, memory.size) != 0) return fail.sys(err);
    memory.address = nullptr;
    return 1;
}

uint32_t CL_CloseSHM_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                       uint32_t line) {
    return qvcl::traced_handle(CL_API_CLOSE_SHM, object, err, callerFlag, file, line,
                               [=](CL_ErrInfo *e) { return cl_closeshm(object, e, file, line); });
}

uint32_t cl_closeshm(CL_Object *object, CL_ErrInfo *err, const char *file, uint32_t line) {
    if (!is_open(object, err)) return 0;
    const CL_SharedMemory &memory = object->memory;
    if (memory.address != nullptr) return fail(err, ENOENT);
    if (memory.unlink_on_close != 0) {
        // Somebody else's segment may have the name that is left of a longer one.
        if (memory.name_length > sizeof memory.name) return fail(err, ENAMETOOLONG);
        char name[sizeof memory.name + 1] = {};
        memcpy(name, memory.name, sizeof memory.name);
        if (cl_u_shm_unlink(name) != 0 && errno != ENOENT) return fail.sys(err);
    }
    if (cl_u_close(object->descriptor) != 0) return fail.sys(err);
    object->descriptor = -1;
    return CL_DeleteFD_M(object, err, 1, file, line);
}
