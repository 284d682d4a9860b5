// show: one line for each call, in the place of its entry record: when it began, how long it took,
// what was called, what it returned. What happened inside the call follows, indented. In front
// stands how the trace ends, unless an option asks for certain lines only.
#include <algorithm>
#include <ctime>

#include "tools/commands.h"
#include "tools/ending.h"
#include "tools/render.h"

namespace trace_reader {

namespace {

constexpr size_t kDurationWidth = 8;
constexpr size_t kDeepest = 48;  // columns of indentation at most
// Microseconds. Dates change at a quarter of an hour in every time zone.
constexpr uint64_t kQuarter = 900000000;

class Filter {
  public:
    Filter(const Options &options, const Dump &dump, const Trace &trace)
        : options_(options), trace_(trace) {
        const uint64_t first = trace_.records.empty() ? 0 : trace_.records.front().time;
        since_ = parse_time(options_.since, first).value_or(0);
        until_ = parse_time(options_.until, first).value_or(UINT64_MAX);
        if (options_.handle) handle_ = *options_.handle;
        if (options_.slot) handle_ = dump.address_of(*options_.slot);
    }
    bool passes(const Record &record) const {
        const bool of_calls =
            options_.apis.any() || handle_ || options_.failures || options_.slower;
        if (record.time < since_ || record.time > until_ ||
            (of_calls && record.operation == nullptr)) {
            return false;
        }
        if (options_.apis.any() && !options_.apis[record.api()]) return false;
        if (handle_ && trace_.object_of(record) != *handle_) return false;
        if (options_.failures && !trace_.is_bad(record)) return false;
        return !options_.slower || trace_.duration(record).value_or(INT64_MIN) >= *options_.slower;
    }

  private:
    const Options &options_;
    const Trace &trace_;
    uint64_t since_;
    uint64_t until_;
    std::optional<uint64_t> handle_;
};

bool is_selective(const Options &options) {
    return options.apis.any() || options.slot || options.handle || !options.since.empty() ||
           !options.until.empty() || options.slower || options.failures || options.ring >= 0 ||
           options.last != UINT64_MAX;
}

class Lines {
  public:
    Lines(const Dump &dump, const Trace &trace, Text &out)
        : dump_(dump), trace_(trace), out_(out) {}
    void put(const Record &record);

  private:
    void put_day(uint64_t time);

    const Dump &dump_;
    const Trace &trace_;
    Text &out_;
    uint64_t quarter_ = UINT64_MAX;
    std::string day_;
};

void Lines::put_day(uint64_t time) {
    if (time / kQuarter == quarter_) return;
    quarter_ = time / kQuarter;
    Text text;
    if (text.day(time).str() == day_) return;
    day_ = text.str();
    out_ << "-- " << day_ << " --\n";
}

void Lines::put(const Record &record) {
    const Record *exit = trace_.exit_of(record);
    const bool bad = trace_.is_bad(record);
    put_day(record.time);
    out_.colour(Colour::dim).clock(record.time).colour(Colour::none);
    const auto duration = trace_.duration(record);
    out_ << ' ';
    out_.right(duration ? Text().duration(*duration).str() : "", kDurationWidth);
    out_.colour(bad ? Colour::red : Colour::none) << (bad ? " ! " : "   ");
    out_.fill(std::min(size_t{2} * record.depth, kDeepest));
    put_record(out_, dump_, trace_.fuller(record));
    if (record.is_call()) {
        out_ << " = ";
        if (exit != nullptr) {
            put_outcome(out_, dump_, *exit);
        } else {
            out_ << "? (";
            if (trace_.is_open(record)) {
                put_open_for(out_, trace_, record);
            } else {
                out_ << "not finished";
            }
            out_ << ')';
        }
        if (record.exit) out_ << " (began before the trace)";
    }
    out_.colour(Colour::none);
    if (record.operation != nullptr) {
        out_.colour(Colour::dim) << "  ";
        put_position(out_, record);
        if (load<uint8_t>(record.bytes, offsetof(CL_TrcHead, caller)) == 1) out_ << " (library)";
        out_.colour(Colour::none);
    }
    out_ << '\n';
    out_.spill();
}

}  // namespace

std::optional<uint64_t> parse_time(const std::string &text, uint64_t day) {
    for (const char *format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%H:%M:%S", "%H:%M"}) {
        tm time{};
        const auto second = static_cast<time_t>(day / 1000000);
        localtime_r(&second, &time);
        time.tm_sec = 0;
        const char *rest = strptime(text.c_str(), format, &time);
        if (rest == nullptr) continue;
        uint64_t usec = 0;
        if (*rest == '.') {
            for (uint64_t unit = 100000; *++rest >= '0' && *rest <= '9'; unit /= 10)
                usec += unit * static_cast<uint64_t>(*rest - '0');
        }
        if (*rest != '\0') continue;
        time.tm_isdst = -1;
        return static_cast<uint64_t>(mktime(&time)) * 1000000 + usec;
    }
    return {};
}

bool show(Dumps dumps, const Options &options, Text &out) {
    Dump &dump = dumps.front();
    const Trace trace(dump, options.ring);
    const Filter filter(options, dump, trace);
    std::vector<uint32_t> chosen;
    for (uint32_t i = 0; i < trace.records.size(); ++i) {
        const Record &record = trace.records[i];
        if (trace.is_told(record) && filter.passes(record)) chosen.push_back(i);
    }
    if (!is_selective(options)) {
        put_killed(out, dump, trace);
        put_origin(out, dump);
        put_open(out, dump, trace);
    }
    Lines lines(dump, trace, out);
    const size_t begin = chosen.size() - std::min<size_t>(chosen.size(), options.last);
    for (const uint32_t i : std::span(chosen).subspan(begin))
        lines.put(trace.records[i]);
    return true;
}

}  // namespace trace_reader
