// A dump file as validated views. Nothing in the file is believed: sizes are held against the file,
// indexes against their tables, addresses are translated into slots or refused. What does not fit
// becomes a problem with its offset, and reading goes on with whatever is left.
#pragma once

#include <qvcl/main.h>
#include <qvcl/trace.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/header.h"
#include "tools/source.h"
#include "tools/text.h"

namespace trace_reader {

// What is wrong with a file, each with its offset. All problems are counted, the first kKept are
// printed.
class Problems {
  public:
    template <class... Part>
    void add(uint64_t offset, const Part &...parts) {
        if (++total_ > kKept) return;
        Text text;
        text << "offset " << offset << ": ";
        (text << ... << parts);
        list_.push_back(text.str());
    }
    size_t count() const { return total_; }
    void print(Text &out, std::string_view file) const;

  private:
    static constexpr size_t kKept = 20;
    size_t total_ = 0;
    std::vector<std::string> list_;
};

// A block of the file.
struct Block {
    uint64_t offset = 0;
    uint64_t size = 0;  // bytes of it in the file; 0 when the block is absent
    CL_TableHeader header{};
};

struct Ring {
    Block block;
    CL_TraceRing head{};
    uint64_t held = 0;  // entries that are in the file
    std::unique_ptr<uint8_t[]> entries;

    uint64_t stride() const { return uint64_t{head.entry_size} + sizeof(CL_TraceEntry); }
    uint64_t offset_of(uint64_t entry) const {
        return block.offset + sizeof(CL_TraceRing) + entry * stride();
    }
};

// A queue of descriptor objects in the main table.
struct QueueView {
    std::string_view name;
    size_t place;       // offset of the queue in the main table
    size_t link;        // offset of its link in an object
    uint32_t kind = 0;  // the only kind of object on it; 0: any
};
extern const std::span<const QueueView> kQueues;

// What lies at an address of the dumped process, as far as its modules are known.
class Names {
  public:
    virtual ~Names() = default;
    // "on_line (echo_server.c:120)"; "echo_server+0x1a2b" where only the module is known; empty
    // where nothing is.
    virtual std::string name_of(uint64_t address) const = 0;
};

// What says when a dump was taken, or how far a trace reaches.
enum class TimeFrom { nothing, header, file, snapshot, newest_record };
std::string_view name_of(TimeFrom from);  // "its time stamp"

struct Dump {
    std::string name;
    const Source *from = nullptr;  // what was loaded, and must outlive this
    uint64_t size = 0;
    std::string text;  // header text, in front of the blocks
    HeaderLines header;
    // When the dump was taken, in microseconds since the epoch, and what says so; 0 when nothing
    // does. What was open then has been open until then.
    uint64_t time = 0;
    TimeFrom time_from = TimeFrom::nothing;
    std::shared_ptr<const Names> names;  // may be null
    Ring rings[2];                       // by CL_RING_USER and CL_RING_LIBRARY
    Block main_block;
    CL_MainBlock main{};
    Block table;
    uint64_t table_address = 0;
    uint64_t capacity = 0;            // objects in the table of the dumped process
    std::vector<CL_Object> objects;   // those that the file holds; empty unless load() read them
    uint64_t application_offset = 0;  // where what the application appended begins
    Problems problems;

    // Reads the dump; the descriptor table, by far the largest block, only `with_objects`.
    void load(const Source &source, bool with_objects);

    std::optional<uint64_t> slot_of(uint64_t address) const;
    uint64_t address_of(uint64_t slot) const {
        return table_address + sizeof(CL_TableHeader) + slot * sizeof(CL_Object);
    }
    uint64_t offset_of(uint64_t slot) const {
        return table.offset + sizeof(CL_TableHeader) + slot * sizeof(CL_Object);
    }
    bool is_live(uint64_t slot) const;  // its own link says that it is on the used queue
    // The slots on a queue, from its head to its tail or to the first link that cannot be followed.
    // What is wrong with the queue becomes a problem.
    std::vector<uint64_t> follow(const QueueView &view);
    void put_handle(Text &out, uint64_t address) const;  // #4; the address when it is no object's
};

inline uint64_t address(const volatile void *pointer) {
    return reinterpret_cast<uint64_t>(pointer);
}

template <class T>
Bytes bytes_of(const T &object) {
    return {reinterpret_cast<const uint8_t *>(&object), sizeof object};
}

// The value at that offset. Bytes of it that lie behind the end are zero.
template <class T>
T load(Bytes bytes, uint64_t offset) {
    T value{};
    if (offset < bytes.size()) {
        memcpy(&value, bytes.data() + offset, std::min(sizeof value, bytes.size() - offset));
    }
    return value;
}

}  // namespace trace_reader
