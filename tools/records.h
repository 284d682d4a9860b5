// The records of a dump, oldest first: read from both rings, merged by time, and joined in pairs.
//
// A call has an entry and an exit record, which are partners; what lies between them happened
// inside the call. Either may be missing: the entry record when the ring has overwritten it, the
// exit record when the call had not returned. A call is shown once, at its entry record, or at its
// exit record when the entry record is missing; that one is called the told record below.
#pragma once

#include <qvcl/trace_table.h>

#include "tools/dump.h"

namespace trace_reader {

constexpr uint32_t kNone = UINT32_MAX;  // instead of the index of a record

struct Record {
    Bytes bytes;
    uint64_t offset = 0;  // in the file
    uint64_t time = 0;    // microseconds since the epoch
    uint32_t length = 0;  // by its head; `bytes` may be fewer
    int ring = CL_RING_LIBRARY;
    const CL_TrcOperation *operation = nullptr;  // null when it is none of the library's
    bool exit = false;
    uint32_t partner = kNone;
    uint32_t parent = kNone;  // entry record of the innermost call around it
    uint32_t depth = 0;       // number of calls around it, those without an entry record included

    uint8_t api() const { return operation != nullptr ? operation->api : 0; }
    bool is_call() const { return operation != nullptr && operation->api != CL_API_STATUS; }
    bool is_callback() const { return api() == CL_API_CALLBACK; }
};

using Records = std::vector<Record>;
// The bytes of records that take more than one entry, without the entries' headers between them.
using Joined = std::vector<std::unique_ptr<uint8_t[]>>;

std::span<const CL_TrcOperation> operations();
std::span<const CL_TrcField> fields(const CL_TrcOperation &operation);
// The value of a field that is a number; one of type CL_TRC_SIGNED is sign-extended.
uint64_t number(Bytes bytes, const CL_TrcField &field);

class Trace {
  public:
    // ring: CL_RING_USER, CL_RING_LIBRARY, or negative for both. What is wrong with the records
    // becomes problems of the dump, which must outlive the trace.
    explicit Trace(Dump &dump, int ring = -1);

    const Record *partner(const Record &record) const {
        return record.partner == kNone ? nullptr : &records[record.partner];
    }
    // Whether this is a call's told record. Records that are no calls are told themselves.
    bool is_told(const Record &record) const { return !record.exit || partner(record) == nullptr; }
    // The following take a told record.
    const Record *exit_of(const Record &told) const { return told.exit ? &told : partner(told); }
    // The one of both records that holds more: the exit record repeats the entry record and adds
    // results, but for a callback, whose event is in the entry record only.
    const Record &fuller(const Record &told) const {
        const Record *exit = exit_of(told);
        return exit != nullptr && !told.is_callback() ? *exit : told;
    }
    bool is_bad(const Record &told) const;         // whether it is to be told as a failure
    uint64_t object_of(const Record &told) const;  // the object's address, or 0
    std::optional<int64_t> duration(const Record &told) const;  // microseconds, with both records
    bool is_open(const Record &told) const;                     // whether it had not returned
    // Microseconds from a record to the end of the trace.
    int64_t open_for(const Record &record) const {
        return static_cast<int64_t>(until - record.time);
    }

    Records records;
    std::vector<uint32_t> open;  // entry records of the calls that are open, outermost first
    // The end of the trace in microseconds since the epoch, and what says so: when the dump was
    // taken, or when its newest record was written if that is later or all that is known.
    uint64_t until = 0;
    TimeFrom until_from = TimeFrom::newest_record;

  private:
    void pair();
    bool is_consequence(const Record &status) const;
    Joined joined_;
};

CL_ErrInfo error_of(const Record &record);
// Whether the record says so: a call that failed, an event with an error, a change of status to
// failed, a child that was killed or whose exit status is not 0. Being in progress is no failure,
// nor is a peer that closed while nothing was under way: what a receive then says, and the event.
bool failed(const Record &record);

}  // namespace trace_reader
