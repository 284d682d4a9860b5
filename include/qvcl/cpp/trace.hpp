// qvcl for C++: records of the application's own in the flight recorder (trace.h).
//
//     UserRing ring("/var/lib/mydaemon/trace", 64, 1000);
//     struct Order { uint32_t number; double price; };
//     ring.write(Order{7, 1.5});
//
// Dumps (Runtime::dump) hold the ring beside the library's.
#pragma once

#include <qvcl/trace.h>
#include <qvcl/cpp/result.hpp>

#include <cstring>

namespace qvcl {
inline namespace cpp {

/// A user record: the head that all records have, and a T. `api` is the application's choice.
template <class T>
struct UserRecord {
    CL_TrcHead head;
    T body;
};

/// The user ring; a process has one. Destroying it frees the ring.
class UserRing {
  public:
    /// prefix: of the files of Runtime::dump(nullptr). entry_size: bytes. blocks: adds tables to a
    /// dump with CL_TRC_AddTbl, may be null. Raises the Error when the ring cannot be made.
    UserRing(const char *prefix, uint32_t entry_size, uint32_t entries,
             CL_DumpCallback blocks = nullptr) {
        make(prefix, entry_size, entries, blocks).value();
    }
    /// The same; the Error goes to `status`, and the ring is of no use then.
    UserRing(const char *prefix, uint32_t entry_size, uint32_t entries, CL_DumpCallback blocks,
             Result<> &status) {
        status = make(prefix, entry_size, entries, blocks);
    }
    UserRing(const UserRing &) = delete;
    UserRing &operator=(const UserRing &) = delete;
    ~UserRing() {
        if (made_) CL_TRC_End_M(CL_RING_USER);
    }

    /// Writes a record with the caller's position. E2BIG when the ring has not that many entries.
    template <class T>
    requires std::is_trivially_copyable_v<T> Result<> write(const T &body, uint8_t api = 0,
                                                            Location at = {}) {
        UserRecord<T> record;
        memset(&record, 0, sizeof record);
        record.head.length = sizeof record;
        record.head.api = api;
        memcpy(record.head.file, at.file(), strnlen(at.file(), sizeof record.head.file));
        record.head.line = at.line();
        record.body = body;
        const uint32_t code = CL_TRC_Write_M(&record, CL_RING_USER);
        if (code == 0) return {};
        return detail::failure("CL_TRC_Write", static_cast<int>(code));
    }

  private:
    Result<> make(const char *prefix, uint32_t entry_size, uint32_t entries,
                  CL_DumpCallback blocks) {
        const uint32_t code = CL_TRC_Init_M(prefix, entry_size, entries, blocks, CL_RING_USER);
        made_ = code == 0;
        if (made_) return {};
        return detail::failure("CL_TRC_Init", static_cast<int>(code));
    }

    bool made_ = false;
};

}  // namespace cpp
}  // namespace qvcl
