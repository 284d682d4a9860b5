// qvcl for C++: regular files whose input and output is in the trace (file.h).
//
// The calls wait for the system, as those of file.h do.
#pragma once

#include <fcntl.h>
#include <qvcl/file.h>
#include <qvcl/cpp/task.hpp>

#include <memory>
#include <span>
#include <string_view>

namespace qvcl {
inline namespace cpp {

namespace detail {

// An object of the library that one call gives back.
class ObjectNode final : public Node {
  public:
    using Close = uint32_t (*)(CL_Object *, CL_ErrInfo *, uint8_t, const char *, uint32_t);

    ObjectNode(Close with, const Location &at) : at_(at), close_(with) {}
    ~ObjectNode() override { release(); }

    // Linux closes a descriptor whatever close() says of it, and another may have its number by
    // the time of a second try: after a failure only the object is given back.
    CL_ErrInfo close() {
        CL_ErrInfo err = {};
        if (object == nullptr) return record(EBADF);
        const bool closed = close_(object, &err, 0, at_.file(), at_.line()) != 0;
        if (!closed) CL_DeleteFD_M(object, nullptr, 1, at_.file(), at_.line());
        object = nullptr;
        return closed ? CL_ErrInfo{} : err;
    }
    void release() override { close(); }

    CL_Object *object = nullptr;

  private:
    Location at_;
    Close close_;
};

}  // namespace detail

/// An open file. It moves; destroying it closes it.
class File {
  public:
    /// None: every call fails with EBADF.
    File() = default;

    /// Opens a file; flags and mode as CL_OpenFile.
    static Result<File> open(const char *path, uint32_t flags, uint32_t mode = 0640,
                             Location at = {}) {
        File file;
        file.node_.reset(new (std::nothrow) detail::ObjectNode(CL_CloseFile_M, at));
        if (file.node_ == nullptr) return detail::failure("CL_OpenFile", ENOMEM);
        CL_ErrInfo err = {};
        file.node_->object = CL_OpenFile_M(path, flags, mode, &err, 0, at.file(), at.line());
        if (file.node_->object == nullptr) return Error("CL_OpenFile", err);
        return file;
    }

    /// One read. Bytes read; 0 at the end of the file.
    Result<size_t> read(std::span<std::byte> to, Location at = {}) {
        CL_ErrInfo err = {};
        const int64_t count =
            CL_ReadFile_M(object(), to.data(), to.size(), &err, 0, at.file(), at.line());
        if (count < 0) return Error("CL_ReadFile", err);
        return static_cast<size_t>(count);
    }
    /// Writes all of it, in as many writes as that takes. After a failure some of it may be there.
    Result<> write(std::span<const std::byte> bytes, Location at = {}) {
        CL_ErrInfo err = {};
        while (!bytes.empty()) {
            const int64_t count =
                CL_WriteFile_M(object(), bytes.data(), bytes.size(), &err, 0, at.file(), at.line());
            if (count < 0) return Error("CL_WriteFile", err);
            if (count == 0) return detail::failure("CL_WriteFile", EIO);
            bytes = bytes.subspan(static_cast<size_t>(count));
        }
        return {};
    }
    /// The same for text.
    Result<> write(std::string_view text, Location at = {}) {
        return write(std::as_bytes(std::span(text.data(), text.size())), at);
    }
    /// Forces what was written to the device.
    Result<> flush(Location at = {}) {
        CL_ErrInfo err = {};
        if (CL_FlushFile_M(object(), &err, 0, at.file(), at.line()) == 0)
            return Error("CL_FlushFile", err);
        return {};
    }
    /// Moves the offset. whence: SEEK_... The new offset; EOVERFLOW from 2 GB on.
    Result<uint32_t> seek(int32_t offset, uint32_t whence, Location at = {}) {
        CL_ErrInfo err = {};
        const int32_t to = CL_SeekFile_M(object(), offset, whence, &err, 0, at.file(), at.line());
        if (to < 0) return Error("CL_SeekFile", err);
        return static_cast<uint32_t>(to);
    }
    /// Closes it, and tells what that says: also after a failure it is closed.
    Result<> close() {
        return Error("CL_CloseFile", node_ != nullptr ? node_->close() : detail::record(EBADF));
    }
    /// The object of the C interface, or null.
    CL_Object *object() const { return node_ != nullptr ? node_->object : nullptr; }

  private:
    std::unique_ptr<detail::ObjectNode> node_;
};

/// Removes a file by its name.
inline Result<> delete_file(const char *path, Location at = {}) {
    CL_ErrInfo err = {};
    if (CL_DeleteFile_M(path, &err, 0, at.file(), at.line()) == 0)
        return Error("CL_DeleteFile", err);
    return {};
}

}  // namespace cpp
}  // namespace qvcl
