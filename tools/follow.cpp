// follow: the lines of `show`, as they come. They keep its order, so what happens inside a callback
// is told when that has returned; unless it takes long, then what there is of it is told, and the
// line of each call that was open comes once more when it has returned.
#include "tools/looks.h"
#include "tools/show.h"

namespace trace_reader {

namespace {

constexpr int kWait = 200;              // milliseconds
constexpr int64_t kPatience = 1000000;  // microseconds that an open call is waited for
constexpr size_t kFirst = 10;           // lines of what was before

// How many of the fresh records can be told: those in front of the outermost call that is open.
size_t complete(const Looks &looks) {
    const Trace &trace = looks.trace();
    const std::vector<uint32_t> &fresh = looks.fresh();
    for (const uint32_t i : trace.open) {
        const Record &record = trace.records[i];
        if (record.api() == CL_API_LOOP) continue;
        const auto before = static_cast<size_t>(std::ranges::lower_bound(fresh, i) - fresh.begin());
        const bool too_many = fresh.size() - before > trace.records.size() / 4;
        if (static_cast<int64_t>(now() - record.time) < kPatience && !too_many) return before;
        break;
    }
    return fresh.size();
}

class Follower {
  public:
    Follower(Looks &looks, const Options &options, Text &out)
        : looks_(looks), options_(options), out_(out) {}
    bool put(size_t count, bool first);
    uint64_t gaps() const { return gaps_; }
    uint64_t lost_time() const { return lost_time_; }

  private:
    std::vector<uint32_t> wanted(size_t count) const;
    void put_gap();

    Looks &looks_;
    const Options &options_;
    Text &out_;
    Lines::Day day_;
    uint64_t last_ = now();  // time of the newest record that was taken
    uint64_t gaps_ = 0;
    uint64_t lost_time_ = 0;
};

// The told records among the first fresh ones, and those that were told while they were open.
std::vector<uint32_t> Follower::wanted(size_t count) const {
    const Trace &trace = looks_.trace();
    const Filter filter(options_, looks_.dump(), trace);
    std::vector<uint32_t> wanted;
    const auto fresh = std::span(looks_.fresh()).first(count);
    for (const uint32_t i : fresh) {
        const Record &record = trace.records[i];
        const bool was_told = record.exit && record.partner != kNone &&
                              !std::ranges::binary_search(fresh, record.partner);
        if (!trace.is_told(record) && !was_told) continue;
        const uint32_t told = was_told ? record.partner : i;
        const bool of_ring = options_.ring < 0 || record.ring == options_.ring;
        if (of_ring && filter.passes(trace.records[told])) wanted.push_back(told);
    }
    return wanted;
}

void Follower::put_gap() {
    const Record &next = looks_.trace().records[looks_.fresh().front()];
    const uint64_t time = next.time > last_ ? next.time - last_ : 0;
    ++gaps_;
    lost_time_ += time;
    out_.colour(Colour::red) << "-- records were lost here: those of ";
    out_.duration(static_cast<int64_t>(time)) << " --";
    out_.colour(Colour::none) << '\n';
}

// False when nobody takes the output any more.
bool Follower::put(size_t count, bool first) {
    if (looks_.lost() && !looks_.fresh().empty()) put_gap();
    std::vector<uint32_t> lines = wanted(count);
    if (first) {
        const size_t shown = options_.last != UINT64_MAX ? options_.last : kFirst;
        lines.erase(lines.begin(),
                    lines.end() - static_cast<ptrdiff_t>(std::min(lines.size(), shown)));
    }
    Lines writer(looks_.dump(), looks_.trace(), out_, day_);
    for (const uint32_t i : lines)
        writer.put(looks_.trace().records[i]);
    if (count != 0) last_ = looks_.trace().records[looks_.fresh()[count - 1]].time;
    looks_.take(count);
    return out_.flush();
}

}  // namespace

bool follow(Looks &looks, const Options &options, Text &out, Text &err) {
    Follower follower(looks, options, out);
    bool fine = follower.put(complete(looks), true);
    while (fine && looks.next(kWait))
        fine = follower.put(complete(looks), false);
    if (fine) follower.put(looks.fresh().size(), false);
    if (const std::string failure = looks.process().failure(); !failure.empty()) {
        err << "qvcl-trace: pid:" << looks.process().pid() << ": " << failure
            << "; the last look was at ";
        err.clock(looks.dump().time) << '\n';
    }
    if (follower.gaps() == 0) return true;
    err << "qvcl-trace: records were lost " << follower.gaps() << " times, those of ";
    err.duration(static_cast<int64_t>(follower.lost_time())) << " in all\n";
    return false;
}

}  // namespace trace_reader
