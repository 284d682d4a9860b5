// How it is told that nothing is torn.
//
// A ring is read in this order: the clock, the head, the entries, the head again, and the beginning
// of the oldest record once more. Kept is what lies from the second head's oldest record up to the
// first head's `next`. That oldest record was written before the clock was read, so it was there
// all the time; and whoever wants to write to what lies behind it must write over it first. A ring
// into which nothing was written meanwhile needs no clock, which may have been set back since.
//
// The tables change inside of operations only, and each of these leaves a record at its beginning
// and at its end: the library ring is their change log. They are of one moment when it did not
// change while they were read, and no operation was open but the loop and callbacks; or when one
// is, and the process sleeps inside of it, with nothing changed from one try to the next.
#include "tools/snapshot.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tools/records.h"

namespace trace_reader {

namespace {

constexpr int kTries = 20;
constexpr useconds_t kPause = 1000;         // microseconds, between tries that look for a rest
constexpr uint64_t kLargestRing = 1 << 28;  // bytes
constexpr size_t kLongestText = 1 << 19;    // half of what a reader takes
constexpr size_t kTextAlignment = 16;

// ---------------------------------------------------------------- rings

// What a record begins with in a ring.
struct Beginning {
    CL_TraceEntry entry;
    uint64_t seconds, microseconds;
    bool is_first() const { return (entry.flags & CL_ENTRY_FIRST) != 0; }
};
static_assert(sizeof(Beginning) <= sizeof(CL_TraceEntry) + CL_TRC_MIN_ENTRY, "any entry holds it");

struct RawRing {
    uint64_t address;
    uint64_t time;  // before the first look
    CL_TraceRing before, after;
    std::vector<uint8_t> block;
    Beginning oldest;  // by `after`, read last

    uint64_t stride() const { return uint64_t{before.entry_size} + sizeof(CL_TraceEntry); }
    uint64_t offset_of(uint64_t entry) const { return sizeof before + entry * stride(); }
};

uint64_t size_of(const CL_TraceRing &head) {
    return sizeof head + head.entry_count * (head.entry_size + uint64_t{sizeof(CL_TraceEntry)});
}

bool is_ring(const CL_TraceRing &head, uint64_t address) {
    return (memcmp(head.header.eye, CL_EYE_LIBTRC, sizeof CL_EYE_LIBTRC) == 0 ||
            memcmp(head.header.eye, CL_EYE_USRTRC, sizeof CL_EYE_USRTRC) == 0) &&
           head.header.address == address && head.entry_count != 0 &&
           head.entry_size >= CL_TRC_MIN_ENTRY && size_of(head) <= kLargestRing;
}

bool fits(const CL_TraceRing &head) {
    return head.oldest < head.entry_count && head.next < head.entry_count && head.wrapped <= 1 &&
           (head.wrapped == 1 || head.oldest == 0);
}

std::optional<RawRing> read_ring(const Memory &memory, uint64_t place, uint64_t address) {
    RawRing ring{};
    ring.address = address;
    ring.time = now();
    const auto before = memory.get<CL_TraceRing>(address);
    if (!before || !is_ring(*before, address)) return {};
    const uint64_t size = size_of(ring.before = *before);
    if (memory.mapped(address, size) < size) return {};
    ring.block.resize(size);
    const uint64_t entries = ring.offset_of(0);
    if (memory.read(address + entries, &ring.block[entries], size - entries) != size - entries) {
        return {};
    }
    // The memory of a ring that was released may be something else's. If a new ring took its place
    // meanwhile, the head that is read now is a new one, too.
    if (memory.get<uint64_t>(place) != address) return {};
    const auto after = memory.get<CL_TraceRing>(address);
    if (!after || !is_ring(*after, address) || size_of(*after) != size ||
        after->entry_size != before->entry_size) {
        return {};
    }
    ring.after = *after;
    if (fits(ring.after)) {
        const auto oldest = memory.get<Beginning>(address + ring.offset_of(ring.after.oldest));
        if (oldest) ring.oldest = *oldest;
    }
    return ring;
}

// Whether the oldest record was there from before the first look to behind the last one.
bool is_proven(const RawRing &ring) {
    if (!fits(ring.before) || !fits(ring.after)) return false;
    const uint64_t start = ring.after.oldest, end = ring.before.next;
    if (start == end && memcmp(&ring.before, &ring.after, sizeof ring.before) != 0) return false;
    if (start == end && ring.before.wrapped == 0) return true;  // and empty
    const uint64_t time = ring.oldest.seconds * 1000000 + ring.oldest.microseconds;
    return ring.oldest.is_first() && time < ring.time &&
           memcmp(&ring.oldest, &ring.block[ring.offset_of(start)], sizeof ring.oldest) == 0;
}

// Leaves only the entries from `start` round to the one before `end` in the block.
void keep(RawRing &ring, uint32_t start, uint32_t end, bool full) {
    const auto clear = [&](uint64_t from, uint64_t to) {
        std::fill(ring.block.begin() + static_cast<ptrdiff_t>(ring.offset_of(from)),
                  ring.block.begin() + static_cast<ptrdiff_t>(ring.offset_of(to)), uint8_t{0});
    };
    const uint32_t count = ring.before.entry_count;
    if (start == end && !full) {
        start = end = 0;
        clear(0, count);
    } else if (start < end) {
        clear(0, start);
        clear(end, count);
    } else {
        clear(end, start);
    }
    ring.before.oldest = start;
    ring.before.next = end;
    ring.before.wrapped = start != 0 || full ? 1 : 0;
}

// Indexes that lead nowhere are left as they are: that is damage, which the reader of the dump
// tells.
void keep_held(RawRing &ring) {
    if (!fits(ring.before)) return;
    const bool full = ring.before.oldest == ring.before.next && ring.before.wrapped != 0 &&
                      load<Beginning>(ring.block, ring.offset_of(ring.before.oldest)).is_first();
    keep(ring, ring.before.oldest, ring.before.next, full);
}

// ---------------------------------------------------------------- tables

struct Tables {
    bool whole = false;
    std::vector<uint8_t> main, table;
};

Tables copy_tables(const Memory &memory, uint64_t address) {
    Tables copy;
    const auto main = memory.get<CL_MainBlock>(address);
    if (!main) return copy;
    const auto *bytes = reinterpret_cast<const uint8_t *>(&*main);
    copy.main.assign(bytes, bytes + sizeof *main);
    const uint64_t place = trace_reader::address(main->descriptor_table);
    const uint64_t capacity = std::min<uint64_t>(main->capacity, CL_MAX_OBJECTS + CL_SPARE_OBJECTS);
    const uint64_t size = sizeof(CL_TableHeader) + capacity * sizeof(CL_Object);
    const auto header = place != 0 ? memory.get<CL_TableHeader>(place) : std::nullopt;
    copy.whole = place == 0 || header;
    if (!header || memcmp(header->eye, CL_EYE_FDTBL, sizeof CL_EYE_FDTBL) != 0) return copy;
    copy.table.resize(memory.mapped(place, size));
    copy.table.resize(memory.read(place, copy.table.data(), copy.table.size()));
    copy.whole = copy.table.size() == size;
    return copy;
}

bool operation_open(const std::vector<uint8_t> &library_ring) {
    Dump dump;
    dump.load(Source(Bytes(library_ring)), false);
    const Trace trace(dump, CL_RING_LIBRARY);
    if (trace.records.empty()) return false;
    const Record &last = trace.records.back();
    const bool is_open = last.is_call() && !last.exit;
    uint32_t i = is_open ? static_cast<uint32_t>(trace.records.size() - 1) : last.parent;
    for (; i != kNone; i = trace.records[i].parent) {
        if (!trace.records[i].is_callback() && trace.records[i].api() != CL_API_LOOP) return true;
    }
    return false;
}

// ---------------------------------------------------------------- one try

struct Look {
    uint64_t time = 0;
    RingCopy library, user;
    Tables tables;
    bool quiet = false;  // no record was written while the tables were read
    bool open = false;   // an operation that may change them is open

    bool whole() const { return library.whole && user.whole && tables.whole && quiet && !open; }
    bool same_as(const Look &other) const {
        return quiet && other.quiet && library.mark == other.library.mark &&
               tables.main == other.tables.main && tables.table == other.tables.table;
    }
};

Look look_at(const Memory &memory, uint64_t main_table, bool at_rest) {
    Look look;
    const auto main = memory.get<CL_MainBlock>(main_table);
    if (!main) return look;
    const uint64_t library = address(main->library_ring);
    look.library = copy_ring(memory, main_table + offsetof(CL_MainBlock, library_ring), at_rest);
    look.time = now();
    look.tables = copy_tables(memory, main_table);
    // Without a library ring nothing tells; then a rest is looked for.
    look.quiet = at_rest || library == 0 ||
                 (!look.library.mark.empty() && look.library.whole &&
                  mark_of(memory, library) == look.library.mark);
    look.open = library == 0 ? !at_rest : look.quiet && operation_open(look.library.block);
    look.user = copy_ring(memory, main_table + offsetof(CL_MainBlock, user_ring), at_rest);
    return look;
}

// The better of both: with as many whole rings as can be had.
void take_better(Look &best, Look &&look) {
    const auto rank = [](const Look &l) {
        return (l.whole() ? 4 : 0) + (l.library.whole ? 2 : 0) + (l.user.whole ? 1 : 0);
    };
    if (best.time == 0 || rank(look) >= rank(best)) best = std::move(look);
}

void append(std::vector<uint8_t> &file, Bytes bytes) {
    file.insert(file.end(), bytes.begin(), bytes.end());
}

std::vector<uint8_t> file_of(const Look &look, HeaderLines header) {
    const std::pair<bool, const char *> parts[] = {
        {look.library.whole, "library ring"},
        {look.user.whole, "user ring"},
        {look.tables.whole && look.quiet && !look.open, "tables"}};
    for (const auto &[whole, what] : parts) {
        if (!whole) header.incomplete.emplace_back(what);
    }
    std::string text = header.text(kLongestText);
    text.push_back('\0');
    text.resize(text.size() + kTextAlignment - text.size() % kTextAlignment);
    std::vector<uint8_t> file;
    file.reserve(text.size() + look.library.block.size() + look.user.block.size() +
                 look.tables.main.size() + look.tables.table.size());
    append(file, {reinterpret_cast<const uint8_t *>(text.data()), text.size()});
    for (const auto *block :
         {&look.library.block, &look.user.block, &look.tables.main, &look.tables.table})
        append(file, *block);
    return file;
}

}  // namespace

std::vector<uint8_t> mark_of(const Memory &memory, uint64_t address) {
    std::vector<uint8_t> mark;
    const auto head = memory.get<CL_TraceRing>(address);
    if (!head || !is_ring(*head, address) || !fits(*head)) return mark;
    const uint64_t stride = head->entry_size + uint64_t{sizeof(CL_TraceEntry)};
    const uint64_t newest = (head->next != 0 ? head->next : head->entry_count) - 1;
    mark.resize(sizeof *head + stride);
    memcpy(mark.data(), &*head, sizeof *head);
    mark.resize(sizeof *head +
                memory.read(address + sizeof *head + newest * stride, &mark[sizeof *head], stride));
    return mark;
}

RingCopy copy_ring(const Memory &memory, uint64_t place, bool at_rest) {
    RingCopy copy;
    const auto address = memory.get<uint64_t>(place);
    copy.whole = address == uint64_t{0};
    if (address.value_or(0) == 0) return copy;
    copy.mark = mark_of(memory, *address);
    std::optional<RawRing> ring = read_ring(memory, place, *address);
    if (!ring) return copy;
    at_rest = at_rest || (!copy.mark.empty() && mark_of(memory, *address) == copy.mark);
    copy.whole = at_rest || is_proven(*ring);
    if (at_rest) {
        keep_held(*ring);
    } else if (copy.whole) {
        const bool full = ring->after.oldest == ring->before.next && ring->before.wrapped != 0;
        keep(*ring, ring->after.oldest, ring->before.next, full);
    } else {
        keep(*ring, 0, 0, false);
    }
    copy.block = std::move(ring->block);
    memcpy(copy.block.data(), &ring->before, sizeof ring->before);
    return copy;
}

Snapshots::Snapshots(const Memory &memory)
    : memory_(memory), modules_(modules_of(memory)), main_(find_main_table(memory, modules_)) {}

Snapshot Snapshots::of_rest(HeaderLines header) const {
    header.modules = modules_;
    return {{}, file_of(look_at(memory_, *main_, true), std::move(header))};
}

Snapshot Snapshots::of_live(const Process &process, bool stop, std::string reason) const {
    Look best, last;
    for (int i = 0; i < kTries && !best.whole(); ++i) {
        if (i != 0 && last.open) usleep(kPause);
        const bool rested = last.open && process.rests();
        const auto hold = stop ? std::make_unique<Hold>(process.pid()) : nullptr;
        if (stop && !hold->failure().empty()) return {hold->failure(), {}};
        Look look = look_at(process, *main_, stop);
        if (rested && look.open && look.same_as(last) && process.rests()) look.open = false;
        last = look;
        take_better(best, std::move(look));
    }
    const std::string failure = process.failure();
    if (!failure.empty()) return {failure, {}};
    HeaderLines header;
    header.reason = std::move(reason);
    header.time = best.time;
    header.pid = static_cast<uint64_t>(process.pid());
    header.command = process.command();
    header.modules = modules_;
    return {{}, file_of(best, std::move(header))};
}

std::vector<uint8_t> Snapshots::rings_of_live() const {
    const auto main = memory_.get<CL_MainBlock>(*main_);
    std::vector<uint8_t> file;
    if (!main) return file;
    for (const size_t ring :
         {offsetof(CL_MainBlock, library_ring), offsetof(CL_MainBlock, user_ring)}) {
        RingCopy copy;
        for (int i = 0; i < kTries && !copy.whole; ++i)
            copy = copy_ring(memory_, *main_ + ring, false);
        if (!copy.whole) return {};
        append(file, copy.block);
    }
    append(file, {reinterpret_cast<const uint8_t *>(&*main), sizeof *main});
    return file;
}

Snapshot snapshot_of(pid_t pid, bool stop) {
    const Process process(pid);
    if (!process.failure().empty()) return {process.failure(), {}};
    const Snapshots snapshots(process);
    if (snapshots.found()) return snapshots.of_live(process, stop, "snapshot by qvcl-trace");
    const std::string failure = process.failure();
    return {!failure.empty() ? failure : "it has not loaded libqvcl", {}};
}

}  // namespace trace_reader
