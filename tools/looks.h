// Looks at a live process, one after the other: what its rings hold, and what of it is new.
#pragma once

#include <memory>
#include <optional>

#include "tools/records.h"
#include "tools/snapshot.h"

namespace trace_reader {

class Looks {
  public:
    // What ends the looks besides the end of the process: a signal to this one (SIGINT, SIGTERM),
    // and that nobody reads its output any more.
    explicit Looks(pid_t pid);

    const std::string &failure() const { return failure_; }
    Process &process() { return process_; }
    const Snapshots &snapshots() const { return *snapshots_; }

    // Waits until there is something new worth a look, at most so long, and looks. False once there
    // is an end; then the last look is still there.
    bool next(int milliseconds);

    Dump &dump() { return *dump_; }
    const Trace &trace() const { return *trace_; }
    // The records that have not been taken yet, by index, oldest first.
    const std::vector<uint32_t> &fresh() const { return fresh_; }
    void take(size_t count);  // of the fresh ones, that they are not fresh again
    // Whether records between those that were taken and the fresh ones have been overwritten.
    bool lost() const { return lost_; }

  private:
    struct Mark {  // the newest record of a ring that was taken
        uint64_t offset = 0;
        std::vector<uint8_t> head;
    };
    bool worth_a_look(bool late);
    void look();
    void find_fresh();
    bool is_marked(const Record &record) const;

    Process process_;
    std::string failure_;
    std::optional<Snapshots> snapshots_;
    std::shared_ptr<const Names> names_;
    std::vector<uint8_t> seen_[2];  // the rings' marks at the last look
    std::vector<uint8_t> file_;
    std::unique_ptr<Source> source_;
    std::unique_ptr<Dump> dump_;
    std::unique_ptr<Trace> trace_;
    Mark marks_[2];
    std::vector<uint32_t> fresh_;
    bool looked_ = false;
    bool lost_ = false;
};

}  // namespace trace_reader
