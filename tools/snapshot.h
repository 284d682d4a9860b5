// What another process has in its rings and tables, laid out as a dump file in memory.
//
// The process goes on while it is read, so what was read may be torn. That is recognised, and read
// again. What could not be had whole in so many tries is left out when it is a ring, and said to be
// of more than one moment when it is the tables: "incomplete" in the header text.
#pragma once

#include <qvcl/main_table.h>

#include "tools/memory.h"
#include "tools/process.h"

namespace trace_reader {

// A ring as the block of a dump: the records that were whole, all else zero.
struct RingCopy {
    bool whole = false;          // false: nothing could be had
    std::vector<uint8_t> block;  // empty when there is no ring
    std::vector<uint8_t> mark;   // what changes with every record
};

// The head of a ring and its newest entry: what changes with every record. Empty when there is
// none.
std::vector<uint8_t> mark_of(const Memory &memory, uint64_t address);

// Reads once the ring whose address is at `place`; that may be 0: there is none. at_rest: nobody
// writes to it.
RingCopy copy_ring(const Memory &memory, uint64_t place, bool at_rest);

struct Snapshot {
    std::string failure;        // one line; empty when there is a snapshot
    std::vector<uint8_t> file;  // the bytes of a dump
};

class Snapshots {
  public:
    explicit Snapshots(const Memory &memory);

    bool found() const { return main_.has_value(); }  // the library's main table
    uint64_t main_table() const { return main_.value_or(0); }
    std::vector<Module> &modules() { return modules_; }

    // Of memory in which nothing changes; the header's modules are filled in.
    Snapshot of_rest(HeaderLines header) const;
    // Of a process that runs on, or is stopped for the moment of each try. `memory` is its.
    Snapshot of_live(const Process &process, bool stop, std::string reason) const;
    // A dump of the rings and the main table only, by what can be had at once; empty when a ring
    // cannot be had.
    std::vector<uint8_t> rings_of_live() const;

  private:
    const Memory &memory_;
    std::vector<Module> modules_;
    std::optional<uint64_t> main_;
};

// The same for who looks once.
Snapshot snapshot_of(pid_t pid, bool stop);

}  // namespace trace_reader
