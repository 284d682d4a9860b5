// Reading the rings, and joining the records in pairs.
//
// A ring's indexes, counts and flags may all be wrong, and a trace may be made to be slow to read.
// So a ring is walked entry by entry, once; what does not make a whole record is reported and
// skipped. Calls are paired with a stack: an exit record is matched with the innermost open call
// from the same place. Calls above the match never returned (their thread ended, or they were left
// by a jump) and are taken off the stack with it.
#include "tools/records.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include "tools/progress.h"

namespace trace_reader {

namespace {

// An exit record is compared with this many open calls at most, so that pairing takes linear time
// whatever the trace holds.
constexpr size_t kSearched = 64;

const CL_TrcOperation *operation_of(uint8_t api) {
    static const auto table = [] {
        std::array<const CL_TrcOperation *, 256> places{};
        for (const CL_TrcOperation &operation : CL_TRC_OPERATIONS)
            places[operation.api] = &operation;
        return places;
    }();
    return table[api];
}

const CL_TrcField *field_of(const CL_TrcOperation &operation, CL_TrcType type) {
    for (const CL_TrcField &field : fields(operation)) {
        if (field.type == type) return &field;
    }
    return nullptr;
}

// Whether a record of the operation can have that length.
bool length_fits(const CL_TrcOperation &operation, uint64_t length) {
    if (const CL_TrcField *text = field_of(operation, CL_TRC_TEXT)) {
        return length >= text->offset + 7u && length <= text->offset + text->size + 8u;
    }
    if (operation.api == CL_API_SEND_MSGC) {
        return length >= offsetof(CL_TrcSend, data) && length <= operation.length;
    }
    if (operation.api == CL_API_CALLBACK) {
        return length >= operation.length && length <= operation.length + sizeof(CL_FdSets);
    }
    return length == operation.length;
}

// Whether the head's phase and marker are among those that the operation's records have.
bool head_fits(const CL_TrcOperation &operation, const CL_TrcHead &head) {
    switch (operation.api) {
        case CL_API_STATUS:
            return head.phase == 0 && head.marker == CL_MARK_STATUS;
        case CL_API_CALLBACK:
            return head.phase <= 1 && head.marker == (head.phase != 0 ? CL_MARK_CALLBACK_EXIT
                                                                      : CL_MARK_CALLBACK_ENTRY);
        default:
            return head.phase <= 1 &&
                   head.marker == (head.phase != 0 ? CL_MARK_EXIT : CL_MARK_ENTRY);
    }
}

// The records of one ring from the oldest to the newest.
class RingWalk {
  public:
    RingWalk(Dump &dump, int ring, Records &out, Joined &joined)
        : dump_(dump), ring_(dump.rings[ring]), which_(ring), out_(out), joined_(joined) {}
    void run();

  private:
    void bounds();
    uint64_t index(uint64_t k) const { return (start_ + k) % ring_.head.entry_count; }
    const uint8_t *entry(uint64_t k) const;
    CL_TraceEntry head_of(uint64_t k) const;
    uint64_t whole(uint64_t k) const;
    void take(uint64_t k, uint64_t count);

    Dump &dump_;
    const Ring &ring_;
    int which_;
    Records &out_;
    Joined &joined_;
    uint64_t start_ = 0;
    uint64_t used_ = 0;
    bool left_over_ = false;  // what is in entries that are not held is no sign of damage
};

void RingWalk::bounds() {
    const CL_TraceRing &head = ring_.head;
    const uint64_t count = head.entry_count;
    const uint64_t place = ring_.block.offset + offsetof(CL_TraceRing, oldest);
    if (head.oldest >= count || head.next >= count || head.wrapped > 1 ||
        (head.wrapped == 0 && head.oldest != 0)) {
        dump_.problems.add(place, "ring indexes oldest ", head.oldest, ", next ", head.next,
                           ", wrapped ", head.wrapped, " for ", count, " entries");
        used_ = ring_.held;
        return;
    }
    start_ = head.wrapped != 0 ? head.oldest : 0;
    used_ =
        head.next > start_ || head.wrapped == 0 ? head.next - start_ : head.next + count - start_;
    // A record that displaces all others was being written: nothing is held, the entries hold a
    // part of it and what is left of older ones.
    if (head.wrapped != 0 && head.next == start_ && entry(0) != nullptr &&
        (head_of(0).flags & CL_ENTRY_FIRST) == 0) {
        used_ = 0;
        start_ = 0;
        left_over_ = true;
    }
    if (ring_.held < count) {
        dump_.problems.add(ring_.offset_of(ring_.held), count - ring_.held,
                           " entries of a ring are missing");
    }
}

// The k-th entry, counted from the oldest; null when it is not in the file.
const uint8_t *RingWalk::entry(uint64_t k) const {
    return index(k) < ring_.held ? ring_.entries.get() + index(k) * ring_.stride() : nullptr;
}

CL_TraceEntry RingWalk::head_of(uint64_t k) const {
    CL_TraceEntry head{};
    if (const uint8_t *place = entry(k)) memcpy(&head, place, sizeof head);
    return head;
}

// How many entries the record that begins at entry k takes; 0 when no whole record begins there.
uint64_t RingWalk::whole(uint64_t k) const {
    const uint64_t count = head_of(k).remaining;
    if (count == 0 || k + count > used_) return 0;
    for (uint64_t i = 0; i < count; ++i) {
        const CL_TraceEntry head = head_of(k + i);
        const uint32_t flags = (i != 0 ? 0 : CL_ENTRY_FIRST) + (i + 1 < count ? 0 : CL_ENTRY_LAST);
        if (head.flags != flags || head.remaining != count - i) return 0;
    }
    return count;
}

void RingWalk::take(uint64_t k, uint64_t count) {
    const uint64_t data = ring_.head.entry_size;
    Record record;
    record.ring = which_;
    record.offset = ring_.offset_of(index(k));
    record.bytes = {entry(k) + sizeof(CL_TraceEntry), data};
    if (count > 1) {
        auto &whole = joined_.emplace_back(std::make_unique_for_overwrite<uint8_t[]>(count * data));
        for (uint64_t i = 0; i < count; ++i)
            memcpy(&whole[i * data], entry(k + i) + sizeof(CL_TraceEntry), data);
        record.bytes = {whole.get(), count * data};
    }
    const auto head = load<CL_TrcHead>(record.bytes, 0);
    record.length = head.length;
    record.time = head.seconds * 1000000 + head.microseconds;
    if ((head.length + data - 1) / data != count) {
        dump_.problems.add(record.offset, "a record of ", head.length, " bytes in ", count,
                           " entries of ", data);
    }
    record.bytes = record.bytes.first(std::min<size_t>(record.bytes.size(), head.length));
    if (which_ == CL_RING_LIBRARY && record.bytes.size() >= sizeof head) {
        record.operation = operation_of(head.api);
        record.exit = head.phase != 0;
    }
    if (which_ == CL_RING_LIBRARY && record.bytes.size() < sizeof head) {
        dump_.problems.add(record.offset, "a record of ", head.length, " bytes has no whole head");
    } else if (which_ == CL_RING_LIBRARY && record.operation == nullptr) {
        dump_.problems.add(record.offset, "a record of no known operation, API ", head.api);
    } else if (record.operation != nullptr && !length_fits(*record.operation, head.length)) {
        dump_.problems.add(record.offset, record.operation->name, ": a record of ", head.length,
                           " bytes");
    } else if (record.operation != nullptr && !head_fits(*record.operation, head)) {
        dump_.problems.add(record.offset, record.operation->name, ": a record of phase ",
                           head.phase, " with marker ", head.marker);
    }
    if (head.microseconds >= 1000000) {
        dump_.problems.add(record.offset, "a record of ", head.microseconds, " microseconds");
    }
    out_.push_back(record);
}

void RingWalk::run() {
    if (ring_.held == 0) return;
    bounds();
    out_.reserve(std::min(used_, ring_.held));
    bool lost = false;
    Progress progress("reading records", ring_.head.entry_count);
    for (uint64_t k = 0; k < ring_.head.entry_count;) {
        progress.at(k);
        if (entry(k) == nullptr) {
            k += ring_.head.entry_count - index(k);
            continue;
        }
        const uint64_t count = k < used_ ? whole(k) : 0;
        if (count != 0) {
            take(k, count);
        } else if (!lost && k < used_) {
            dump_.problems.add(ring_.offset_of(index(k)), "no record begins in this entry");
        } else if (!lost && !left_over_ && (head_of(k).flags & CL_ENTRY_FIRST) != 0) {
            dump_.problems.add(ring_.offset_of(index(k)), "a record begins in an entry not in use");
        }
        lost = count == 0;
        k += std::max<uint64_t>(count, 1);
    }
}

bool same_call(const Record &entry, const Record &exit) {
    constexpr size_t kPosition = offsetof(CL_TrcHead, file);
    return entry.operation == exit.operation &&
           memcmp(&entry.bytes[kPosition], &exit.bytes[kPosition],
                  sizeof(CL_TrcHead) - kPosition) == 0;
}

}  // namespace

std::span<const CL_TrcOperation> operations() {
    return CL_TRC_OPERATIONS;
}

std::span<const CL_TrcField> fields(const CL_TrcOperation &operation) {
    size_t count = 0;
    while (count < CL_TRC_MAX_FIELDS && operation.fields[count].name != nullptr)
        ++count;
    return {operation.fields, count};
}

uint64_t number(Bytes bytes, const CL_TrcField &field) {
    const bool is_signed = field.type == CL_TRC_SIGNED;
    if (field.size == 8) return load<uint64_t>(bytes, field.offset);
    if (field.size != 4) return load<uint8_t>(bytes, field.offset);
    const auto value = load<uint32_t>(bytes, field.offset);
    return is_signed ? static_cast<uint64_t>(static_cast<int32_t>(value)) : value;
}

Trace::Trace(Dump &dump, int ring) {
    Records user, library;
    if (ring != CL_RING_LIBRARY) RingWalk(dump, CL_RING_USER, user, joined_).run();
    if (ring != CL_RING_USER) RingWalk(dump, CL_RING_LIBRARY, library, joined_).run();
    if (user.empty()) {
        records = std::move(library);
    } else {
        records.reserve(user.size() + library.size());
        auto next = library.begin();
        for (const Record &record : user) {
            while (next != library.end() && next->time <= record.time)
                records.push_back(*next++);
            records.push_back(record);
        }
        records.insert(records.end(), next, library.end());
    }
    pair();
    if (!records.empty()) until = std::ranges::max(records, {}, &Record::time).time;
    if (dump.time >= until && dump.time != 0) {
        until = dump.time;
        until_from = dump.time_from;
    }
}

void Trace::pair() {
    for (uint32_t i = 0; i < records.size(); ++i) {
        Record &record = records[i];
        if (record.is_call() && record.exit) {
            const size_t searched = std::min(open.size(), kSearched);
            const auto found =
                std::find_if(open.rbegin(), open.rbegin() + static_cast<ptrdiff_t>(searched),
                             [&](uint32_t entry) { return same_call(records[entry], record); });
            if (found != open.rbegin() + static_cast<ptrdiff_t>(searched)) {
                record.partner = *found;
                records[*found].partner = i;
                open.erase(std::next(found).base(), open.end());
            }
        }
        record.parent = open.empty() ? kNone : open.back();
        record.depth = static_cast<uint32_t>(open.size());
        if (record.is_call() && !record.exit) open.push_back(i);
    }
    // A call whose entry record is overwritten was running from the beginning of the trace: all
    // that precedes its exit record happened inside it.
    uint32_t enclosing = 0;
    for (auto record = records.rbegin(); record != records.rend(); ++record) {
        record->depth += enclosing;
        const bool entry_is_lost = record->is_call() && record->exit && record->partner == kNone;
        if (entry_is_lost && record->parent == kNone) ++enclosing;
    }
}

std::optional<int64_t> Trace::duration(const Record &told) const {
    const Record *other = partner(told);
    if (other == nullptr) return {};
    return static_cast<int64_t>(other->time - told.time);
}

bool Trace::is_bad(const Record &told) const {
    const Record *other = partner(told);
    return (failed(told) || (other != nullptr && failed(*other))) && !is_consequence(told);
}

// Whether a change to failed is told already: by the call around it, or by the event that the loop
// hands over next for that object.
bool Trace::is_consequence(const Record &status) const {
    constexpr ptrdiff_t kLookedAt = 8;
    if (status.api() != CL_API_STATUS) return false;
    if (status.parent != kNone && !records[status.parent].is_callback()) {
        const Record *exit = partner(records[status.parent]);
        if (exit != nullptr && error_of(*exit).err != 0) return true;
    }
    const uint64_t object = object_of(status);
    const auto from = records.begin() + (&status - records.data());
    const auto end = from + std::min(kLookedAt, records.end() - from);
    return std::any_of(from, end, [&](const Record &record) {
        return record.is_callback() && object_of(record) == object && error_of(record).err != 0;
    });
}

bool Trace::is_open(const Record &told) const {
    return std::ranges::binary_search(open, static_cast<uint32_t>(&told - records.data()));
}

uint64_t Trace::object_of(const Record &told) const {
    if (told.operation == nullptr) return 0;
    if (const CL_TrcField *handle = field_of(*told.operation, CL_TRC_HANDLE)) {
        return number(told.bytes, *handle);
    }
    const CL_TrcField &result = told.operation->result;  // a handle if the call creates an object
    return result.name != nullptr && result.type == CL_TRC_HANDLE
               ? number(fuller(told).bytes, result)
               : 0;
}

CL_ErrInfo error_of(const Record &record) {
    const CL_TrcField *error =
        record.operation != nullptr ? field_of(*record.operation, CL_TRC_ERROR) : nullptr;
    return error != nullptr ? load<CL_ErrInfo>(record.bytes, error->offset) : CL_ErrInfo{};
}

namespace {
bool event_failed(const CL_TrcCallback &event) {
    if (event.type == CL_EVENT_CHILD_END) {
        return event.exit_reason != CL_CHILD_EXITED || event.exit_value != 0;
    }
    CL_Queue unsent;
    static_assert(sizeof unsent == sizeof event.block);
    memcpy(&unsent, event.block, sizeof unsent);
    const bool closed = event.type == CL_EVENT_DISCONNECT && event.error.err == EPIPE &&
                        event.data_length == 0 && unsent.count == 0;
    return event.error.err != 0 && !closed;
}
}  // namespace

bool failed(const Record &record) {
    if (record.operation == nullptr) return false;
    const CL_ErrInfo error = error_of(record);
    switch (record.api()) {
        case CL_API_STATUS: {
            const auto status = load<CL_TrcStatus>(record.bytes, 0);
            return (status.status & ~status.old_status & CL_STATUS_FAILED) != 0;
        }
        case CL_API_CALLBACK:
            return event_failed(load<CL_TrcCallback>(record.bytes, 0));
        case CL_API_RECV_MSGC:
            return record.exit && error.err != 0 && error.err != CL_ERR_IN_PROGRESS &&
                   error.err != EPIPE;
        case CL_API_END:  // its error record is what the caller had in it before
            return record.exit && number(record.bytes, record.operation->result) == 0;
        default:
            return record.exit && error.err != 0 && error.err != CL_ERR_IN_PROGRESS;
    }
}

}  // namespace trace_reader
