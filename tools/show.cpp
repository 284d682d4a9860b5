// show: one line a call, where its entry record stands: when, how long, what, with which result;
// what happened inside it follows, indented.
#include <algorithm>
#include <ctime>

#include "tools/commands.h"
#include "tools/render.h"

namespace trace_reader {

namespace {

constexpr size_t kDurationWidth = 8;
constexpr size_t kDeepest = 48;           // columns of indentation
constexpr uint64_t kQuarter = 900000000;  // time zones change the date at some quarter of an hour

class Filter {
  public:
    Filter(const Options &o, const Dump &dump, const Trace &t) : options(o), trace(t) {
        const uint64_t first = trace.records.empty() ? 0 : trace.records.front().time;
        since = parse_time(options.since, first).value_or(0);
        until = parse_time(options.until, first).value_or(UINT64_MAX);
        if (options.handle) handle = *options.handle;
        if (options.slot) handle = dump.address_of(*options.slot);
    }
    bool passes(const Record &record) const {
        const bool of_calls = options.apis.any() || handle || options.failures || options.slower;
        if (record.time < since || record.time > until ||
            (of_calls && record.operation == nullptr)) {
            return false;
        }
        if (options.apis.any() && !options.apis[record.api()]) return false;
        if (handle && trace.object_of(record) != *handle) return false;
        if (options.failures && !trace.is_bad(record)) return false;
        return !options.slower || trace.duration(record).value_or(INT64_MIN) >= *options.slower;
    }

  private:
    const Options &options;
    const Trace &trace;
    uint64_t since;
    uint64_t until;
    std::optional<uint64_t> handle;
};

class Lines {
  public:
    Lines(const Dump &d, const Trace &t, Text &o) : dump(d), trace(t), out(o) {}
    void put(const Record &record);

  private:
    void put_day(uint64_t time);

    const Dump &dump;
    const Trace &trace;
    Text &out;
    uint64_t quarter = UINT64_MAX;
    std::string day;
};

void Lines::put_day(uint64_t time) {
    if (time / kQuarter == quarter) return;
    quarter = time / kQuarter;
    Text text;
    if (text.day(time).str() == day) return;
    day = text.str();
    out << "-- " << day << " --\n";
}

void Lines::put(const Record &record) {
    const Record *exit = trace.exit_of(record);
    const bool bad = trace.is_bad(record);
    put_day(record.time);
    out.colour(Colour::dim).clock(record.time).colour(Colour::none);
    const auto duration = trace.duration(record);
    out << ' ';
    out.right(duration ? Text().duration(*duration).str() : "", kDurationWidth);
    out.colour(bad ? Colour::red : Colour::none) << (bad ? " ! " : "   ");
    out.fill(std::min(size_t{2} * record.depth, kDeepest));
    put_record(out, dump, trace.fuller(record));
    if (record.is_call()) {
        out << " = ";
        if (exit != nullptr) {
            put_outcome(out, dump, *exit);
        } else {
            out << "? (not finished)";
        }
        if (record.exit) out << " (began before the trace)";
    }
    out.colour(Colour::none);
    if (record.operation != nullptr) {
        out.colour(Colour::dim) << "  ";
        put_position(out, record);
        if (load<uint8_t>(record.bytes, offsetof(CL_TrcHead, caller)) == 1) out << " (library)";
        out.colour(Colour::none);
    }
    out << '\n';
    out.spill();
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
    Lines lines(dump, trace, out);
    const size_t begin = chosen.size() - std::min<size_t>(chosen.size(), options.last);
    for (const uint32_t i : std::span(chosen).subspan(begin))
        lines.put(trace.records[i]);
    return true;
}

}  // namespace trace_reader
