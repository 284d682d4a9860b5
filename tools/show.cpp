// show: one line for each call, in the place of its entry record: when it began, how long it took,
// what was called, what it returned. What happened inside the call follows, indented. In front
// stands how the trace ends, unless an option asks for certain lines only.
#include <algorithm>
#include <ctime>

#include "tools/ending.h"
#include "tools/progress.h"
#include "tools/render.h"
#include "tools/show.h"

namespace trace_reader {

namespace {

constexpr size_t kDurationWidth = 8;
constexpr size_t kDeepest = 48;  // columns of indentation at most
// Microseconds. Dates change at a quarter of an hour in every time zone.
constexpr uint64_t kQuarter = 900000000;

bool is_selective(const Options &options) {
    return options.apis.any() || options.slot || options.handle || !options.since.empty() ||
           !options.until.empty() || options.slower || options.failures || options.ring >= 0 ||
           options.last != UINT64_MAX;
}

}  // namespace

void Lines::put_day(uint64_t time) {
    if (time / kQuarter == day_.quarter) return;
    day_.quarter = time / kQuarter;
    Text text;
    if (text.day(time).str() == day_.text) return;
    day_.text = text.str();
    out_ << "-- " << day_.text << " --\n";
}

void Lines::put(const Record &record) {
    const Record *exit = trace_.exit_of(record);
    const bool bad = trace_.is_bad(record);
    put_day(record.time);
    out_.colour(Colour::dim).clock(record.time).colour(Colour::none);
    const auto duration = trace_.duration(record);
    out_ << ' ';
    out_.right(duration, kDurationWidth, "");
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
    Lines::Day day;
    Lines lines(dump, trace, out, day);
    const size_t begin = chosen.size() - std::min<size_t>(chosen.size(), options.last);
    Progress progress("writing lines", chosen.size() - begin, true);
    for (size_t i = begin; i < chosen.size(); ++i) {
        progress.at(i - begin);
        lines.put(trace.records[chosen[i]]);
    }
    return true;
}

}  // namespace trace_reader
