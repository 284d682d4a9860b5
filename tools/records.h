// The records of a dump in order of age: walked out of the rings, merged by time, and joined in
// pairs. The entry and the exit record of a call are partners; what lies between them happened
// inside that call.
#pragma once

#include <qvcl/trace_table.h>

#include "tools/dump.h"

namespace trace_reader {

constexpr uint32_t kNone = UINT32_MAX;  // no such record

struct Record {
    Bytes bytes;
    uint64_t offset = 0;  // in the file
    uint64_t time = 0;    // microseconds since the epoch
    uint32_t length = 0;  // as it says itself
    int ring = CL_RING_LIBRARY;
    const CL_TrcOperation *operation = nullptr;  // null: the application's record, or unknown
    bool exit = false;
    uint32_t partner = kNone;
    uint32_t parent = kNone;  // the call that was running
    uint32_t depth = 0;       // calls that were running, those with a lost entry record included

    uint8_t api() const { return operation != nullptr ? operation->api : 0; }
    bool is_call() const { return operation != nullptr && operation->api != CL_API_STATUS; }
    bool is_callback() const { return api() == CL_API_CALLBACK; }
};

using Records = std::vector<Record>;
using Joined = std::vector<std::unique_ptr<uint8_t[]>>;  // records that span entries

std::span<const CL_TrcOperation> operations();
std::span<const CL_TrcField> fields(const CL_TrcOperation &operation);
uint64_t number(Bytes bytes, const CL_TrcField &field);  // sign-extended for CL_TRC_SIGNED

class Trace {
  public:
    // ring: CL_RING_USER, CL_RING_LIBRARY, or negative for both. What is wrong goes to the dump,
    // which must outlive the trace.
    explicit Trace(Dump &dump, int ring = -1);

    const Record *partner(const Record &record) const {
        return record.partner == kNone ? nullptr : &records[record.partner];
    }
    // What is told of a call is told where it begins, or where it ends when only that is left. The
    // following are about such a record.
    bool is_told(const Record &record) const { return !record.exit || partner(record) == nullptr; }
    const Record *exit_of(const Record &told) const { return told.exit ? &told : partner(told); }
    // An event's data is in the entry record alone, all else is in the exit record too.
    const Record &fuller(const Record &told) const {
        const Record *exit = exit_of(told);
        return exit != nullptr && !told.is_callback() ? *exit : told;
    }
    bool is_bad(const Record &told) const;                      // either record is
    uint64_t object_of(const Record &told) const;               // address, or 0
    std::optional<int64_t> duration(const Record &told) const;  // microseconds, of a whole call

    Records records;

  private:
    void pair();
    Joined joined_;
};

CL_ErrInfo error_of(const Record &record);
// A call that failed, an event that reports an error, a change to failed.
bool failed(const Record &record);

}  // namespace trace_reader
