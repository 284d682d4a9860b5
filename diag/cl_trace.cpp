// Trace rings: where every public call leaves its records.
//
// A write is two checks, one clock read and one copy per entry; nothing is formatted, nothing
// allocated. The indexes keep one rule, between any two stores: from `oldest` round to `next` lie
// whole records, so a reader can walk from `oldest` by the entry counts alone, and one in another
// process may do so while a record is written (trace.h, CL_TraceRing). Hence the order: make room,
// fill, publish.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <qvcl/main.h>
#include <qvcl/memory.h>
#include <qvcl/steps.h>
#include <qvcl/system.h>
#include <qvcl/trace.h>

#include "core/table_header.h"
#include "core/text.h"
#include "diag/traced.h"

namespace {

constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);

CL_TraceRing *&ring_field(int ring) {
    return ring != CL_RING_USER ? CL_MainTable->library_ring : CL_MainTable->user_ring;
}

// The library ring's entry count: what CL_TRC_NUM says when it is a number.
uint32_t library_entries() {
    const char *value = qvcl::setting("CL_TRC_NUM");
    if (value == nullptr) return CL_TRC_LIB_COUNT;
    char *end;
    const auto count = static_cast<int32_t>(strtol(value, &end, 0));
    if (*end != '\0') return CL_TRC_LIB_COUNT;
    return count < CL_TRC_LIB_MIN_COUNT ? uint32_t{CL_TRC_LIB_MIN_COUNT}
                                        : static_cast<uint32_t>(count);
}

uint32_t generations() {
    const char *value = qvcl::setting("CL_TRC_GEN");
    const long count = value != nullptr ? strtol(value, nullptr, 0) : 0;
    if (count < 1) return CL_TRC_GENERATIONS;
    return count < INT32_MAX ? static_cast<uint32_t>(count) : uint32_t{INT32_MAX};
}

// A record in one or two pieces.
struct Pieces {
    const char *head;
    uint32_t head_length;
    const char *tail;

    void copy(char *to, uint32_t at, uint32_t length) const {
        if (at < head_length) {
            const uint32_t left = head_length - at;
            const uint32_t part = length < left ? length : left;
            memcpy(to, head + at, part);
            to += part;
            at += part;
            length -= part;
        }
        if (length != 0 && tail != nullptr) memcpy(to, tail + (at - head_length), length);
    }
};

// What is stored before it is seen before what is stored after it, in other processes too.
void store_in_order() {
#ifndef __SANITIZE_THREAD__  // which does not know fences
    __atomic_thread_fence(__ATOMIC_RELEASE);
#endif
}

// Entries of an odd size are not aligned, so their headers are copied.
char *entry_at(CL_TraceRing *ring, uint32_t index) {
    return reinterpret_cast<char *>(ring + 1) +
           size_t{index} * (ring->entry_size + sizeof(CL_TraceEntry));
}

void put_header(char *entry, CL_TraceEntry header) {
    memcpy(entry, &header, sizeof header);
}

// The index `step` entries, at most the ring's count, behind another: no division, no overflow.
uint32_t behind(uint32_t index, uint32_t step, uint32_t count) {
    const uint32_t to_end = count - index;
    return step < to_end ? index + step : step - to_end;
}

// Takes away the oldest records that lie in the `entries` entries from `next` on. Returns whether
// that leaves none: "oldest == next" then looks like a full ring, so the entry there must not look
// like the first of a record.
bool make_room(CL_TraceRing *ring, uint32_t entries) {
    const uint32_t count = ring->entry_count;
    const uint32_t next = ring->next;
    uint32_t oldest = ring->oldest;
    const bool wrapped = ring->wrapped != 0;
    uint32_t room = wrapped && oldest >= next ? oldest - next : count - (next - oldest);
    while (room < entries) {
        CL_TraceEntry old;
        memcpy(&old, entry_at(ring, oldest), sizeof old);
        const uint32_t used = count - room;
        const uint32_t given = old.remaining - 1 < used ? old.remaining : used;
        room += given;
        oldest = behind(oldest, given, count);
    }
    if (room == count) put_header(entry_at(ring, next), {});
    if (!wrapped && entries >= count - next) __atomic_store_n(&ring->wrapped, 1, __ATOMIC_RELEASE);
    __atomic_store_n(&ring->oldest, oldest, __ATOMIC_RELEASE);
    store_in_order();
    return room == count;
}

// Fills the entries of a record from `next` on; returns the index behind them.
uint32_t fill_entries(CL_TraceRing *ring, const Pieces &record, uint32_t length, uint32_t entries,
                      uint32_t first) {
    const uint32_t size = ring->entry_size;
    uint32_t index = ring->next;
    uint32_t at = 0;
    for (; entries != 0; --entries, first = 0) {
        char *entry = entry_at(ring, index);
        const uint32_t slice = length - at < size ? length - at : size;
        const uint32_t last = entries == 1 ? uint32_t{CL_ENTRY_LAST} : 0u;
        put_header(entry, {first | last, entries});
        record.copy(entry + sizeof(CL_TraceEntry), at, slice);
        at += slice;
        index = behind(index, 1, ring->entry_count);
    }
    return index;
}

}  // namespace

uint32_t CL_TRC_Init_M(const char *prefix, uint32_t entrySize, uint32_t entryCount,
                       CL_DumpCallback dumpCallback, int ring) {
    if (prefix == nullptr && ring == CL_RING_USER) return EFAULT;
    if (prefix != nullptr && strnlen(prefix, CL_TRC_PREFIX_MAX + 1) > CL_TRC_PREFIX_MAX) {
        return ENAMETOOLONG;
    }
    if (entryCount == 0 || entrySize < CL_TRC_MIN_ENTRY) return EINVAL;
    return cl_trc_init(ring, prefix, entrySize, entryCount, dumpCallback);
}

uint32_t cl_trc_init(int ring, const char *prefix, uint32_t entrySize, uint32_t entryCount,
                     CL_DumpCallback dumpCallback) {
    CL_TraceRing *&field = ring_field(ring);
    if (field != nullptr) return EALREADY;
    uint64_t size = uint64_t{entrySize} + sizeof(CL_TraceEntry);
    if (__builtin_mul_overflow(size, uint64_t{entryCount}, &size) ||
        __builtin_add_overflow(size, sizeof(CL_TraceRing), &size)) {
        return ENOMEM;
    }
    auto *block = static_cast<CL_TraceRing *>(CL_malloc_M(size, 1, kFile, __LINE__));
    if (block == nullptr) return ENOMEM;
    qvcl::write_table_header(&block->header, ring != CL_RING_USER ? CL_EYE_LIBTRC : CL_EYE_USRTRC,
                             size);
    qvcl::copy_text(block->prefix, sizeof block->prefix, prefix);
    block->entry_size = entrySize;
    block->entry_count = entryCount;
    field = block;
    if (ring == CL_RING_USER) CL_MainTable->dump_callback = dumpCallback;
    CL_MainTable->generations = generations();
    return 0;
}

void CL_TRC_End_M(int ring) {
    CL_TraceRing *&field = ring_field(ring);
    CL_free_M(field, 1, kFile, __LINE__);
    field = nullptr;
    if (ring == CL_RING_USER) CL_MainTable->dump_callback = nullptr;
}

uint32_t CL_TRC_Write_M(void *record, int ring) {
    if (record == nullptr) return EFAULT;
    auto *head = static_cast<CL_TrcHead *>(record);
    return qvcl::write_record(head, head->length, nullptr, ring);
}

uint32_t qvcl::write_record(CL_TrcHead *head, uint32_t head_length, const void *tail, int ring) {
    CL_TraceRing *block = ring_field(ring);
    if (block == nullptr) return CL_ERR_STATE;
    const uint32_t size = block->entry_size;
    const uint32_t length = head->length;
    // Most records fit one entry: that needs no division.
    const uint32_t entries =
        length <= size ? static_cast<uint32_t>(length != 0) : (length - 1) / size + 1;
    if (entries > block->entry_count) return E2BIG;
    head->seconds = CL_GetTime_M(&head->microseconds);

    if (entries == 0) return 0;

    const Pieces record = {reinterpret_cast<const char *>(head), head_length,
                           static_cast<const char *>(tail)};
    char *entry = entry_at(block, block->next);
    const bool alone = make_room(block, entries);
    const uint32_t first = alone ? 0u : uint32_t{CL_ENTRY_FIRST};
    const uint32_t next = fill_entries(block, record, length, entries, first);
    __atomic_store_n(&block->next, next, __ATOMIC_RELEASE);
    if (alone) {
        store_in_order();
        const uint32_t last = entries == 1 ? uint32_t{CL_ENTRY_LAST} : 0u;
        put_header(entry, {CL_ENTRY_FIRST | last, entries});
    }
    return 0;
}

uint32_t CL_INTRC_Init() {
    return CL_TRC_Init_M(nullptr, CL_TRC_LIB_ENTRY, library_entries(), nullptr, CL_RING_LIBRARY);
}
