// qvcl for C++: shared memory as a span (shm.h).
#pragma once

#include <fcntl.h>
#include <qvcl/shm.h>
#include <qvcl/cpp/file.hpp>

namespace qvcl {
inline namespace cpp {

namespace detail {

inline uint32_t unmap_and_close(CL_Object *object, CL_ErrInfo *err, uint8_t flag, const char *file,
                                uint32_t line) {
    if (object->memory.address != nullptr && CL_UnmapSHM_M(object, err, flag, file, line) == 0)
        return 0;
    return CL_CloseSHM_M(object, err, flag, file, line);
}

}  // namespace detail

/// An existing segment, mapped. It moves; destroying it unmaps and closes it.
class SharedMemory {
  public:
    /// None.
    SharedMemory() = default;

    /// Opens and maps the segment `name`, which must have `size` bytes at least. ENOSPC when it has
    /// not: beyond its end access is a fault.
    static Result<SharedMemory> open(const char *name, size_t size, bool writable = false,
                                     Location at = {}) {
        SharedMemory memory;
        memory.node_.reset(new (std::nothrow) detail::ObjectNode(detail::unmap_and_close, at));
        if (memory.node_ == nullptr) return detail::failure("CL_OpenSHM", ENOMEM);
        CL_ErrInfo err = {};
        CL_Object *&object = memory.node_->object;
        object = cl_openshm(name, writable ? O_RDWR : O_RDONLY, size, &err, at.file(), at.line());
        if (object == nullptr) return Error("CL_OpenSHM", err);
        const off_t end = lseek(object->descriptor, 0, SEEK_END);
        if (end < 0 || static_cast<uint64_t>(end) < size)
            return detail::failure("CL_OpenSHM", ENOSPC);
        if (CL_MapSHM_M(object, &err, 0, at.file(), at.line()) == nullptr)
            return Error("CL_MapSHM", err);
        memory.writable_ = writable;
        return memory;
    }

    /// Its bytes, to read.
    std::span<const std::byte> bytes() const {
        return {static_cast<const std::byte *>(address()), size()};
    }
    /// Its bytes, to write; empty when it was not opened so.
    std::span<std::byte> writable_bytes() {
        if (!writable_) return {};
        return {static_cast<std::byte *>(address()), size()};
    }
    /// A T at its beginning; null when it does not fit.
    template <class T>
    requires std::is_trivially_copyable_v<T>
    const T *as() const {
        return size() >= sizeof(T) ? static_cast<const T *>(address()) : nullptr;
    }
    /// Has closing remove its name.
    void unlink_on_close() {
        if (object() != nullptr) object()->memory.unlink_on_close = 1;
    }
    /// Unmaps and closes it, and tells what that says.
    Result<> close() {
        return Error("CL_CloseSHM", node_ != nullptr ? node_->close() : detail::record(EBADF));
    }
    /// The object of the C interface, or null.
    CL_Object *object() const { return node_ != nullptr ? node_->object : nullptr; }

  private:
    void *address() const { return object() != nullptr ? object()->memory.address : nullptr; }
    size_t size() const { return object() != nullptr ? object()->memory.size : 0; }

    std::unique_ptr<detail::ObjectNode> node_;
    bool writable_ = false;
};

}  // namespace cpp
}  // namespace qvcl
