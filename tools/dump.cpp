// Finding the blocks of a file, and following the queues in them.
//
// A dump is an optional header text, then the library ring, the user ring, the main table and the
// descriptor table, then whatever the application appended. Each block begins with an eye-catcher
// that says which it is: its rank in that order. The loader reads from the front; where no block of
// a higher rank begins it reports what lies there and searches for the next eye-catcher, so damage
// to one block does not hide those behind it. Sizes are those that a block's contents call for, cut
// at the end of the file; a header that says otherwise is a problem.
#include "tools/dump.h"

#include <algorithm>
#include <cstring>

#include "tools/modules.h"

namespace trace_reader {

namespace {

// The blocks in the order of the file. All but the main table may be absent.
enum Rank : size_t { kLibraryRing, kUserRing, kMain, kTable, kRanks };
constexpr size_t kEyeSize = sizeof CL_TableHeader::eye;
constexpr char kEyes[kRanks][kEyeSize] = {CL_EYE_LIBTRC, CL_EYE_USRTRC, CL_EYE_MAIN, CL_EYE_FDTBL};
constexpr uint64_t kTextAlignment = 16;
constexpr uint64_t kLongestText = 1 << 20;
constexpr uint64_t kTextPiece = 1024;
constexpr uint64_t kLargestRing = 1 << 28;

// Rank of the block whose eye-catcher is at `bytes`, if that is at least `from`; kRanks otherwise.
size_t rank_of(const uint8_t *bytes, size_t from) {
    while (from < kRanks && memcmp(bytes, kEyes[from], kEyeSize) != 0)
        ++from;
    return from;
}

class Loader {
  public:
    Loader(Dump &dump, const Source &source) : dump_(dump), source_(source) {}
    void blocks();
    void ring(Ring &ring);
    void table(bool with_objects);
    void compare_addresses();

  private:
    size_t rank_at(uint64_t offset, size_t from) const;
    uint64_t find(uint64_t offset, size_t from) const;
    uint64_t first_block();
    Block &block(size_t rank);
    void take(uint64_t offset, size_t rank);
    uint64_t content_size(const Block &block, size_t rank) const;
    uint64_t length(const Block &block, size_t rank);

    Dump &dump_;
    const Source &source_;
};

size_t Loader::rank_at(uint64_t offset, size_t from) const {
    uint8_t bytes[kEyeSize];
    return source_.read(offset, bytes, kEyeSize) == kEyeSize ? rank_of(bytes, from) : kRanks;
}

// Offset of the first block of at least that rank from `offset` on; the file's size when there is
// none. Every byte is looked at: in a damaged file a block may be at any alignment.
uint64_t Loader::find(uint64_t offset, size_t from) const {
    std::vector<uint8_t> piece(65536);
    for (;; offset += piece.size() - (kEyeSize - 1)) {
        const uint64_t got = source_.read(offset, piece.data(), piece.size());
        for (uint64_t i = 0; i + kEyeSize <= got; ++i) {
            if (piece[i] == kEyes[0][0] && rank_of(&piece[i], from) < kRanks) return offset + i;
        }
        if (got < piece.size()) return dump_.size;
    }
}

// Offset of the first block, behind the header text. The text ends with a NUL and at least one zero
// more, up to a multiple of the alignment. It may itself begin like a block; what decides is
// whether a block follows at the place where the text would end.
uint64_t Loader::first_block() {
    std::string text;
    uint64_t got = kTextPiece;
    while (got == kTextPiece && text.size() < kLongestText &&
           text.find('\0') == std::string::npos) {
        const size_t at = text.size();
        text.resize(at + kTextPiece);
        got = source_.read(at, text.data() + at, kTextPiece);
        text.resize(at + got);
    }
    const uint64_t end = std::min(text.find('\0'), text.size()) + 1;
    const uint64_t behind = end + kTextAlignment - end % kTextAlignment;
    if (rank_at(behind, 0) < kRanks) {
        dump_.text = text.substr(0, end - 1);
        return behind;
    }
    const uint64_t first = find(0, 0);
    if (first == dump_.size) {
        dump_.problems.add(0, "no block of a dump in this file");
    } else if (first != 0) {
        dump_.problems.add(0, first, " bytes that are neither a block nor a header text");
    }
    return first;
}

Block &Loader::block(size_t rank) {
    Block *const places[kRanks] = {&dump_.rings[CL_RING_LIBRARY].block,
                                   &dump_.rings[CL_RING_USER].block, &dump_.main_block,
                                   &dump_.table};
    return *places[rank];
}

// The size that the contents of a block call for.
uint64_t Loader::content_size(const Block &block, size_t rank) const {
    if (rank == kMain) return sizeof(CL_MainBlock);
    if (rank == kTable) {
        return dump_.main_block.size != 0
                   ? sizeof(CL_TableHeader) + dump_.capacity * sizeof(CL_Object)
                   : std::max(block.header.size, sizeof(CL_TableHeader));
    }
    CL_TraceRing ring{};
    source_.read(block.offset, &ring, sizeof ring);
    return sizeof ring + ring.entry_count * (uint64_t{ring.entry_size} + sizeof(CL_TraceEntry));
}

// Bytes from the block's offset to its end. The header and the contents should agree; when those of
// a ring do not, either may be damaged, and the ring is taken to end where the next block begins.
uint64_t Loader::length(const Block &block, size_t rank) {
    const uint64_t content = content_size(block, rank);
    if (block.header.size == content) return content;
    dump_.problems.add(block.offset + offsetof(CL_TableHeader, size), kEyes[rank], " of ",
                       block.header.size, " bytes by its header, ", content, " by its contents");
    return rank >= kMain ? content : find(block.offset + kEyeSize, rank + 1) - block.offset;
}

void Loader::take(uint64_t offset, size_t rank) {
    Block &block = this->block(rank);
    block.offset = offset;
    source_.read(offset, &block.header, sizeof block.header);
    const uint64_t whole = length(block, rank);
    block.size = std::min(whole, dump_.size - offset);
    if (block.size < whole) {
        dump_.problems.add(dump_.size, "the file ends ", whole - block.size, " bytes inside ",
                           kEyes[rank]);
    }
    if (rank != kMain) return;
    source_.read(offset, &dump_.main, std::min<uint64_t>(block.size, sizeof dump_.main));
    dump_.capacity = dump_.main.capacity;
    if (dump_.capacity > CL_MAX_OBJECTS + CL_SPARE_OBJECTS) {
        dump_.problems.add(offset + offsetof(CL_MainBlock, capacity), dump_.capacity,
                           " objects are more than a table can have");
        dump_.capacity = CL_MAX_OBJECTS + CL_SPARE_OBJECTS;
    }
}

void Loader::blocks() {
    uint64_t at = first_block();
    size_t rank = 0;
    while (rank < kRanks && at < dump_.size) {
        if (const size_t found = rank_at(at, rank); found < kRanks) {
            take(at, found);
            at += block(found).size;
            rank = found + 1;
            continue;
        }
        if (dump_.main_block.size != 0 && dump_.main.descriptor_table == nullptr) break;
        const uint64_t next = find(at, rank);
        if (next == dump_.size) break;
        dump_.problems.add(at, next - at, " bytes that are no block");
        at = next;
    }
    dump_.application_offset = at;
    if (dump_.main_block.size == 0) dump_.problems.add(dump_.size, "there is no main table");
}

void Loader::ring(Ring &ring) {
    const Block &block = ring.block;
    if (block.size < sizeof ring.head) return;
    source_.read(block.offset, &ring.head, sizeof ring.head);
    if (ring.head.entry_size < CL_TRC_MIN_ENTRY || ring.head.entry_count == 0) {
        dump_.problems.add(block.offset + offsetof(CL_TraceRing, entry_size), "a ring of ",
                           ring.head.entry_count, " entries of ", ring.head.entry_size, " bytes");
        return;
    }
    const uint64_t bytes = std::min(block.size - sizeof ring.head, kLargestRing);
    ring.held = std::min<uint64_t>(ring.head.entry_count, bytes / ring.stride());
    ring.entries = std::make_unique_for_overwrite<uint8_t[]>(ring.held * ring.stride());
    ring.held = source_.read(ring.offset_of(0), ring.entries.get(), ring.held * ring.stride()) /
                ring.stride();
}

void Loader::table(bool with_objects) {
    dump_.table_address = dump_.main_block.size != 0 ? address(dump_.main.descriptor_table)
                                                     : dump_.table.header.address;
    const uint64_t data = dump_.table.size - std::min(dump_.table.size, sizeof(CL_TableHeader));
    const uint64_t slots =
        std::min<uint64_t>(data / sizeof(CL_Object), CL_MAX_OBJECTS + CL_SPARE_OBJECTS);
    if (dump_.main_block.size == 0) dump_.capacity = slots;
    if (!with_objects) return;
    dump_.objects.resize(std::min(slots, dump_.capacity));
    const uint64_t bytes = dump_.objects.size() * sizeof(CL_Object);
    dump_.objects.resize(source_.read(dump_.offset_of(0), dump_.objects.data(), bytes) /
                         sizeof(CL_Object));
}

// The main table holds the addresses of the other blocks: one that has an address must be in the
// file, with the same address in its header.
void Loader::compare_addresses() {
    const CL_MainBlock &main = dump_.main;
    const struct {
        size_t rank;
        size_t place;
        uint64_t there;
    } expected[] = {
        {kLibraryRing, offsetof(CL_MainBlock, library_ring), address(main.library_ring)},
        {kUserRing, offsetof(CL_MainBlock, user_ring), address(main.user_ring)},
        {kTable, offsetof(CL_MainBlock, descriptor_table), address(main.descriptor_table)}};
    if (dump_.main_block.size == 0) return;
    for (const auto &[rank, place, there] : expected) {
        const Block &block = this->block(rank);
        if (block.size == 0 && there != 0) {
            dump_.problems.add(dump_.main_block.offset + place, kEyes[rank], " is missing");
        } else if (block.size != 0 && there != block.header.address) {
            dump_.problems.add(dump_.main_block.offset + place, "another address than that of ",
                               kEyes[rank]);
        }
    }
}

}  // namespace

void Problems::print(Text &out, std::string_view file) const {
    for (const std::string &text : list_)
        out << "qvcl-trace: " << file << ": " << text << '\n';
    if (total_ > list_.size()) {
        out << "qvcl-trace: " << file << ": and " << total_ - list_.size() << " more\n";
    }
}

std::string_view name_of(TimeFrom from) {
    switch (from) {
        case TimeFrom::nothing:
            return "";
        case TimeFrom::header:
            return "its time stamp";
        case TimeFrom::file:
            return "the file's modification time";
        case TimeFrom::snapshot:
            return "the snapshot";
        case TimeFrom::newest_record:
            return "its newest record";
    }
    return "";
}

void Dump::load(const Source &source, bool with_objects) {
    from = &source;
    size = source.size();
    Loader loader(*this, source);
    loader.blocks();
    header = HeaderLines::parse(text);
    time = header.time.value_or(source.modified());
    time_from = header.time ? TimeFrom::header : time != 0 ? TimeFrom::file : TimeFrom::nothing;
    names = names_of(header.modules, header.pid);
    for (Ring &ring : rings)
        loader.ring(ring);
    loader.table(with_objects);
    loader.compare_addresses();
}

std::optional<uint64_t> Dump::slot_of(uint64_t address) const {
    const uint64_t distance = address - address_of(0);
    const uint64_t slot = distance / sizeof(CL_Object);
    if (table_address == 0 || distance % sizeof(CL_Object) != 0 || slot >= capacity) return {};
    return slot;
}

void Dump::put_handle(Text &out, uint64_t address) const {
    if (const auto slot = slot_of(address)) {
        out << '#' << *slot;
    } else {
        out.hex(address);
    }
}

bool Dump::is_live(uint64_t slot) const {
    return trace_reader::address(objects[slot].link.owner) ==
           main_block.header.address + offsetof(CL_MainBlock, used_queue);
}

std::vector<uint64_t> Dump::follow(const QueueView &view) {
    const auto queue = trace_reader::load<CL_Queue>(bytes_of(main), view.place);
    const uint64_t place = main_block.offset + view.place;
    if (queue.link_offset != view.link) {
        problems.add(place + offsetof(CL_Queue, link_offset), view.name, ": links at ",
                     queue.link_offset, " instead of ", view.link);
    }
    std::vector<uint64_t> found;
    uint64_t previous = 0;
    for (uint64_t at = address(queue.head); at != 0;) {
        const auto slot = slot_of(at);
        if (!slot || *slot >= objects.size() || found.size() == objects.size()) {
            const bool circle = slot && *slot < objects.size();
            problems.add(found.empty() ? place : offset_of(found.back()) + view.link, view.name,
                         circle ? ": a circle" : ": leads to an address that is no object here");
            return found;
        }
        const auto link = trace_reader::load<CL_QueueLink>(bytes_of(objects[*slot]), view.link);
        if (address(link.previous) != previous ||
            address(link.owner) != main_block.header.address + view.place) {
            problems.add(offset_of(*slot) + view.link, view.name, ": the link of #", *slot,
                         " leads elsewhere");
        }
        found.push_back(*slot);
        previous = at;
        at = address(link.next);
    }
    if (address(queue.tail) != previous || queue.count != found.size()) {
        problems.add(place, view.name, ": ", queue.count, " elements by its head, ", found.size(),
                     " on the chain, or another tail");
    }
    return found;
}

namespace {
#define QUEUE(name, queue, link) name, offsetof(CL_MainBlock, queue), offsetof(CL_Object, link)
constexpr QueueView kViews[] = {{QUEUE("priority list", priority_list, event_link)},
                                {QUEUE("pending list", pending_list, event_link)},
                                {QUEUE("timer list", timer_list, timer_link)},
                                {QUEUE("child list", child_list, child_link)},
                                {QUEUE("thread list", thread_list, thread_link)},
                                {QUEUE("exec wait list", exec_wait_list, exec_link)},
                                {QUEUE("free queue", free_queue, link)},
                                {QUEUE("used queue", used_queue, link)},
#define KIND_QUEUE(number, symbol, name) \
    {QUEUE(name, kind_queues[CL_KIND_QUEUE_##symbol], kind_link), number},
                                CL_KINDS(KIND_QUEUE)
#undef KIND_QUEUE
};
}  // namespace
constinit const std::span<const QueueView> kQueues = kViews;

}  // namespace trace_reader
