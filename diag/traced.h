// The protocol of every public operation: a record at entry, the worker, the record again with the
// result and the error record.
//
// An operation fills its record's fields and names its worker; the rest is here, once. Only what
// the record covers is ever zeroed or copied.
#pragma once

#include <type_traits>

#include <qvcl/trace_records.h>

#include "core/text.h"

namespace qvcl {

// CL_TRC_Write_M for a record whose bytes behind the first `head_length` lie at `tail`.
uint32_t write_record(CL_TrcHead *head, uint32_t head_length, const void *tail, int ring);

// Fills the head of a zeroed record, in place: a head that is made elsewhere and copied costs more
// than all its fields.
inline void fill_head(CL_TrcHead &head, uint8_t api, size_t length, uint8_t callerFlag,
                      const char *file, uint32_t line) {
    head.length = static_cast<uint32_t>(length);
    head.api = api;
    head.caller = callerFlag;
    head.marker = CL_MARK_ENTRY;
    copy_file_name(head.file, file);
    head.line = line;
}

// The bits of a result as a record shows them; a record of 64 bits shows a 32-bit result with the
// upper half zero.
template <class Result>
uint64_t trace_value(Result result) {
    if constexpr (std::is_pointer_v<Result>) {
        return address_of(result);
    } else {
        return static_cast<std::make_unsigned_t<Result>>(result);
    }
}

// Copies a path into its field; the record ends 8 bytes after the path, 7 bytes after the start of
// the field when there is none.
template <class Record>
void trace_path(Record &record, const char *path) {
    const size_t length = copy_text(record.path, sizeof record.path, path);
    record.head.length =
        static_cast<uint32_t>(offsetof(Record, path) + (path != nullptr ? length + 8 : 7));
}

// Runs `worker(err)` between the two records. at_exit(result) may change the record before the
// second one. The caller's error record may be null; the worker always gets one.
template <class Record, class Worker, class AtExit>
auto traced(Record &record, CL_ErrInfo *err, Worker worker, AtExit at_exit) {
    CL_ErrInfo own = {};
    CL_ErrInfo *used = err != nullptr ? err : &own;
    CL_TRC_Write_M(&record, CL_RING_LIBRARY);
    const auto result = worker(used);
    record.result = static_cast<decltype(record.result)>(trace_value(result));
    record.error = *used;
    record.head.phase = 1;
    record.head.marker = CL_MARK_EXIT;
    at_exit(result);
    CL_TRC_Write_M(&record, CL_RING_LIBRARY);
    return result;
}

template <class Record, class Worker>
auto traced(Record &record, CL_ErrInfo *err, Worker worker) {
    return traced(record, err, worker, [](auto) {});
}

// An operation whose only argument is the handle.
template <class Worker>
auto traced_handle(uint8_t api, const CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                   const char *file, uint32_t line, Worker worker) {
    CL_TrcHandle record = {};
    fill_head(record.head, api, sizeof record, callerFlag, file, line);
    record.handle = address_of(object);
    record.err_address = address_of(err);
    return traced(record, err, worker);
}

}  // namespace qvcl
