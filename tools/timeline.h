// A timeline in the trace-event format of JSON: processes with a track for each object, and arrows
// from what one of them did to what it made another one do.
//
// Records carry whole microseconds, in which much may happen; a viewer puts what has one time into
// any order. So the beginnings and ends that fall into a microsecond are spread over it evenly, in
// the order of the records: of n, the k-th (from 0) is shown k/n microseconds later. Order and
// nesting are then strictly those of the records, and none has left its microsecond. How long a
// call took in whole microseconds stands in its arguments.
//
// Times count from the whole second in which the first record was written: since the epoch they
// would leave no room for fractions in the numbers that viewers calculate with. The second itself
// is in the member "otherData", and a track of its own shows the wall clock.
#pragma once

#include <map>
#include <set>

#include "tools/records.h"

namespace trace_reader {

// A beginning or end: the rank-th of `count` in its microsecond.
struct Moment {
    uint64_t usec = 0;  // since the epoch
    uint32_t rank = 0;
    uint32_t count = 1;
};

// When each told record of a trace begins and ends. A call whose entry record is overwritten begins
// with the trace; one that is still open ends when the dump was taken; one that was left by a jump
// ends with the call that was jumped to.
class Moments {
  public:
    explicit Moments(const Trace &trace);
    const Moment &begin(uint32_t record) const { return begins_[record]; }
    const Moment &end(uint32_t record) const { return ends_[record]; }
    uint32_t most() const { return most_; }  // beginnings and ends in one microsecond

  private:
    std::vector<Moment> begins_, ends_;  // by the record's index
    uint32_t most_ = 1;
};

class Timeline {
  public:
    // The beginning or the end of a told record of a process, by the order in which the processes
    // were added.
    struct Point {
        size_t process;
        uint32_t record;
        bool end = false;
    };

    // Adds a process. Dump and trace must outlive the timeline.
    void add(const Dump &dump, const Trace &trace);
    // Adds an arrow between two calls, callbacks or changes.
    void arrow(Point from, Point to, std::string name);
    void write(Text &out) const;

  private:
    struct Process {
        const Dump &dump;
        const Trace &trace;
        Moments moments;
        uint64_t number;  // its process id; another one when that is taken
    };
    struct Arrow {
        Point from, to;
        std::string name;
    };
    friend class TimelineWriter;

    std::vector<Process> processes_;
    std::vector<Arrow> arrows_;
    std::set<uint64_t> numbers_{0};  // 0 is the wall clock's
};

}  // namespace trace_reader
