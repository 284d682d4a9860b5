// Writing a timeline: calls and callbacks are complete events, everything else instants.
#include "tools/timeline.h"

#include <algorithm>

#include "tools/ending.h"
#include "tools/progress.h"
#include "tools/render.h"

namespace trace_reader {

Moments::Moments(const Trace &trace) : begins_(trace.records.size()), ends_(trace.records.size()) {
    const Records &records = trace.records;
    std::vector<Moment *> order;
    order.reserve(records.size() + records.size() / 8);
    const auto add = [&](Moment &moment, uint64_t usec) {
        moment.usec = usec;
        order.push_back(&moment);
    };
    std::vector<uint32_t> open;
    const auto close = [&](uint64_t usec) {
        add(ends_[open.back()], usec);
        open.pop_back();
    };
    const auto lost = [&](uint32_t i) {
        return records[i].is_call() && records[i].exit && records[i].partner == kNone;
    };
    for (auto i = static_cast<uint32_t>(records.size()); i-- != 0;) {
        if (lost(i) && records[i].parent == kNone) add(begins_[i], records.front().time);
    }
    for (uint32_t i = 0; i < records.size(); ++i) {
        const Record &record = records[i];
        if (record.is_call() && record.partner != kNone && record.exit) {
            while (open.back() != record.partner)
                close(record.time);
            close(record.time);
        } else if (lost(i)) {
            // Inside another call nothing tells where it began.
            if (record.parent != kNone) add(begins_[i], record.time);
            add(ends_[i], record.time);
        } else {
            add(begins_[i], record.time);
            if (record.is_call()) open.push_back(i);
        }
    }
    while (!open.empty())
        close(trace.until);
    for (auto run = order.begin(); run != order.end();) {
        const auto end = std::find_if(run, order.end(),
                                      [&](const Moment *m) { return m->usec != (*run)->usec; });
        const auto count = static_cast<uint32_t>(end - run);
        for (uint32_t rank = 0; rank < count; ++rank, ++run) {
            (*run)->rank = rank;
            (*run)->count = count;
        }
        most_ = std::max(most_, count);
    }
}

namespace {

constexpr uint64_t kSecond = 1000000;
constexpr uint64_t kClockMarks = 20;
constexpr size_t kLongestName = 80;

// The name of a process: what was run, else the file that it dumped.
std::string name_of(const Dump &dump) {
    if (dump.header.command.empty()) return dump.name;
    return dump.header.command.substr(0, kLongestName);
}

}  // namespace

class TimelineWriter {
  public:
    TimelineWriter(const Timeline &timeline, Text &out);
    void run();

  private:
    struct Tracks {
        std::map<uint64_t, uint64_t> by_object;  // by address; track 0 is the process
        uint64_t of(const Dump &dump, uint64_t object);
    };
    struct When {
        uint64_t whole, fraction;
    };

    When when(const Moment &moment) const {
        return {moment.usec - base_, moment.rank * unit_ / moment.count};
    }
    When when(const Timeline::Point &point) const;
    void put_time(std::string_view name, const When &time);
    void put_head(std::string_view phase, uint64_t process, uint64_t track);
    void put_text(std::string_view key, std::string_view value);
    void put_name(std::string_view what, uint64_t process, uint64_t track, std::string_view name);
    void put_order(std::string_view what, uint64_t process, uint64_t track, uint64_t order);
    void put_clock();
    void put_process(size_t index);
    void put_event(const Timeline::Process &process, uint32_t index, uint64_t track);
    void put_arguments(const Timeline::Process &process, const Record &record, const Record *exit);
    void put_arrow_end(size_t id, std::string_view phase, const Timeline::Point &point,
                       std::string_view name);

    const Timeline &timeline_;
    Text &out_;
    std::vector<Tracks> tracks_;  // by process
    uint64_t base_ = UINT64_MAX;
    uint64_t last_ = 0;
    uint64_t unit_ = 1000;  // a microsecond in the smallest fraction that is written
    std::string_view between_;
};

// Addresses that are in no slot get track numbers behind those of the slots.
uint64_t TimelineWriter::Tracks::of(const Dump &dump, uint64_t object) {
    if (const auto slot = dump.slot_of(object)) return by_object[object] = *slot + 1;
    if (object == 0) return by_object[0] = 0;
    return by_object.try_emplace(object, dump.capacity + 1 + by_object.size()).first->second;
}

TimelineWriter::TimelineWriter(const Timeline &timeline, Text &out)
    : timeline_(timeline), out_(out), tracks_(timeline.processes_.size()) {
    for (const Timeline::Process &process : timeline_.processes_) {
        for (const Record &record : process.trace.records) {
            base_ = std::min(base_, record.time / kSecond * kSecond);
            last_ = std::max(last_, record.time);
        }
        if (!process.trace.open.empty()) last_ = std::max(last_, process.trace.until);
        while (unit_ < process.moments.most())
            unit_ *= 10;
    }
    if (base_ == UINT64_MAX) base_ = 0;
}

void TimelineWriter::put_time(std::string_view name, const When &time) {
    out_ << ",\"" << name << "\":" << time.whole << '.';
    for (uint64_t unit = unit_ / 10; unit != 0; unit /= 10)
        out_ << static_cast<char>('0' + time.fraction / unit % 10);
}

void TimelineWriter::put_head(std::string_view phase, uint64_t process, uint64_t track) {
    out_ << between_ << R"({"ph":")" << phase << R"(","pid":)" << process << R"(,"tid":)" << track;
    between_ = ",\n";
}

void TimelineWriter::put_text(std::string_view key, std::string_view value) {
    out_.quoted(key, Escape::json) << ':';
    out_.quoted(value, Escape::json);
}

void TimelineWriter::put_name(std::string_view what, uint64_t process, uint64_t track,
                              std::string_view name) {
    put_head("M", process, track);
    out_ << R"(,"name":")" << what << R"(","args":{)";
    put_text(what == "process_labels" ? "labels" : "name", name);
    out_ << "}}";
}

void TimelineWriter::put_order(std::string_view what, uint64_t process, uint64_t track,
                               uint64_t order) {
    put_head("M", process, track);
    out_ << R"(,"name":")" << what << R"(","args":{"sort_index":)" << order << "}}";
}

// A ruler: slices of a round length that bear the time of day at which they begin.
void TimelineWriter::put_clock() {
    Text day;
    day.day(base_);
    put_name("process_name", 0, 0, "wall clock, local time");
    put_name("process_labels", 0, 0,
             "one track for each object: callbacks, in them the calls; names with ! failed, with "
             "... were still open");
    put_name("thread_name", 0, 0, day.str());
    const uint64_t first = timeline_.processes_.front().trace.records.empty()
                               ? base_
                               : timeline_.processes_.front().trace.records.front().time;
    const uint64_t begin = std::clamp(first, base_, last_), span = last_ - begin;
    uint64_t step = 1;  // 2, 5, 10, 20 ...
    for (uint64_t i = 0; span / step > kClockMarks; ++i)
        step = i % 3 == 1 ? step / 2 * 5 : step * 2;
    for (uint64_t at = (begin - base_) / step * step, mark = 0;
         at <= last_ - base_ && mark <= kClockMarks; at += step, ++mark) {
        put_head("X", 0, 0);
        Text name;
        name.clock(base_ + at);
        put_time("ts", {at, 0});
        put_time("dur", {step, 0});
        out_ << R"(,"name":)";
        out_.quoted(name.str(), Escape::json) << R"(,"cat":"clock"})";
    }
}

void TimelineWriter::put_arguments(const Timeline::Process &process, const Record &record,
                                   const Record *exit) {
    const auto &[dump, trace, moments, number] = process;
    out_ << R"(,"args":{)";
    if (record.operation != nullptr && !record.is_call()) {
        Text change;
        put_record(change, dump, record);
        put_text("change", change.str());
    } else if (record.operation != nullptr) {
        each_argument(dump, trace.fuller(record), Mask::no, [&](std::string_view name, auto write) {
            Text value;
            write(value);
            put_text(name, value.str());
            out_ << ',';
        });
        Text outcome, duration, position;
        if (exit != nullptr) put_outcome(outcome, dump, *exit);
        put_text("result", exit != nullptr ? outcome.str() : "not finished");
        out_ << ',';
        if (const auto usec = trace.duration(record)) {
            duration.duration(*usec);
        } else if (exit != nullptr) {
            duration << "began before the trace";
        } else if (trace.is_open(record)) {
            put_open_for(duration, trace, record);
            duration << " by " << name_of(trace.until_from);
        } else {
            duration << "left by a jump";
        }
        put_text("duration", duration.str());
        out_ << ',';
        put_position(position, record);
        put_text("position", position.str());
    } else {
        Text text;
        put_record(text, dump, record);
        put_text("data", text.str());
    }
    out_ << "}}";
}

void TimelineWriter::put_event(const Timeline::Process &process, uint32_t index, uint64_t track) {
    const auto &[dump, trace, moments, number] = process;
    const Record &record = trace.records[index];
    const bool bad = trace.is_bad(record), open = trace.is_open(record);
    const When begin = when(moments.begin(index));
    put_head(record.is_call() ? "X" : "i", number, track);
    put_time("ts", begin);
    if (record.is_call()) {
        When end = when(moments.end(index));
        const bool borrow = end.fraction < begin.fraction;
        // The clock may have been set back meanwhile.
        const bool back = end.whole < begin.whole + (borrow ? 1 : 0);
        end.fraction += (borrow ? unit_ : 0) - begin.fraction;
        end.whole -= begin.whole + (borrow ? 1 : 0);
        put_time("dur", back ? When{0, 0} : end);
    } else {
        out_ << R"(,"s":"t")";
    }
    Text name;
    put_title(name << (bad ? "! " : ""), record);
    (out_ << R"(,"name":)").quoted((name << (open ? " ..." : "")).str(), Escape::json);
    out_ << R"(,"cat":")"
         << (bad                    ? "error"
             : open                 ? "open"
             : record.is_callback() ? "callback"
             : record.is_call()     ? "call"
                                    : "event")
         << '"' << (bad ? R"(,"cname":"terrible")" : "");
    put_arguments(process, record, trace.exit_of(record));
    out_.spill();
}

void TimelineWriter::put_process(size_t index) {
    const Timeline::Process &process = timeline_.processes_[index];
    const auto &[dump, trace, moments, number] = process;
    put_name("process_name", number, 0, name_of(dump));
    put_order("process_sort_index", number, 0, index + 1);
    Progress progress("writing records", trace.records.size(), true);
    for (uint32_t i = 0; i < trace.records.size(); ++i) {
        progress.at(i);
        const Record &record = trace.records[i];
        if (trace.is_told(record)) {
            put_event(process, i, tracks_[index].of(dump, trace.object_of(record)));
        }
    }
    for (const auto &[object, track] : tracks_[index].by_object) {
        Text name;
        if (object != 0) {
            put_object(name, dump, object);
        } else {
            name << "process";
        }
        put_name("thread_name", number, track, name.str());
        put_order("thread_sort_index", number, track, track);
    }
}

// A viewer binds an arrow to the slice around its point, of which the end is no part any more.
TimelineWriter::When TimelineWriter::when(const Timeline::Point &point) const {
    const Moments &moments = timeline_.processes_[point.process].moments;
    if (!point.end) return when(moments.begin(point.record));
    When end = when(moments.end(point.record));
    if (end.whole == 0 && end.fraction == 0) return end;
    if (end.fraction == 0) --end.whole;
    end.fraction = (end.fraction != 0 ? end.fraction : unit_) - 1;
    return end;
}

void TimelineWriter::put_arrow_end(size_t id, std::string_view phase, const Timeline::Point &point,
                                   std::string_view name) {
    const auto &[dump, trace, moments, number] = timeline_.processes_[point.process];
    put_head(phase, number,
             tracks_[point.process].of(dump, trace.object_of(trace.records[point.record])));
    put_time("ts", when(point));
    out_ << R"(,"id":)" << id << R"(,"cat":"flow","name":)";
    out_.quoted(name, Escape::json) << (phase == "f" ? R"(,"bp":"e"})" : "}");
    out_.spill();
}

void TimelineWriter::run() {
    Text day;
    day.day(base_);
    (day << ' ').clock(base_);
    out_ << R"({"displayTimeUnit":"ms","otherData":{"clock_start_us":)" << base_ << ',';
    put_text("clock_start", day.str());
    out_ << R"(},"traceEvents":[)" << '\n';
    put_clock();
    for (size_t i = 0; i < tracks_.size(); ++i)
        put_process(i);
    for (size_t id = 0; id < timeline_.arrows_.size(); ++id) {
        const Timeline::Arrow &arrow = timeline_.arrows_[id];
        put_arrow_end(id + 1, "s", arrow.from, arrow.name);
        put_arrow_end(id + 1, "f", arrow.to, arrow.name);
    }
    out_ << "\n]}\n";
}

void Timeline::add(const Dump &dump, const Trace &trace) {
    uint64_t number = dump.main.pid;
    while (!numbers_.insert(number).second)
        ++number;
    processes_.push_back({dump, trace, Moments(trace), number});
}

void Timeline::arrow(Point from, Point to, std::string name) {
    arrows_.push_back({from, to, std::move(name)});
}

void Timeline::write(Text &out) const {
    TimelineWriter(*this, out).run();
}

}  // namespace trace_reader
