// report: what killed the process and what was open; what failed, how often; how often and how long
// by operation and by object; which callbacks were slow, and how long the loop went without any.
#include <algorithm>
#include <cstring>
#include <map>
#include <set>

#include "tools/commands.h"
#include "tools/ending.h"
#include "tools/progress.h"
#include "tools/render.h"

namespace trace_reader {

namespace {

constexpr size_t kSlowest = 10;
constexpr size_t kMostFailures = 20;
constexpr size_t kNameWidth = 28;
constexpr size_t kNumberWidth = 10;

struct Row {
    uint64_t count = 0;
    uint64_t failures = 0;
    std::vector<int64_t> durations;
};
using Rows = std::map<std::string, Row>;

template <class Put>
std::string text_of(Put put) {
    Text text;
    put(text);
    return text.str();
}

void put_rows(Text &out, std::string_view title, Rows &rows) {
    std::vector<Rows::iterator> order;
    for (auto row = rows.begin(); row != rows.end(); ++row)
        order.push_back(row);
    std::ranges::stable_sort(order, std::greater(),
                             [](const auto &row) { return row->second.count; });
    const size_t begin = out.size();
    (out << '\n' << title).column(begin, kNameWidth + 1);
    for (const std::string_view head : {"count", "failed", "p50", "p99", "max"})
        out.right(head, kNumberWidth);
    out << '\n';
    for (const auto &row : order) {
        auto &[name, figures] = *row;
        std::ranges::sort(figures.durations);
        out << name;
        out.column(out.size() - name.size(), kNameWidth);
        out.right(figures.count, kNumberWidth);
        out.right(figures.failures, kNumberWidth);
        for (const size_t percent : {size_t{50}, size_t{99}, size_t{100}}) {
            out.right(percentile(figures.durations, percent), kNumberWidth, "-");
        }
        out << '\n';
    }
}

// Failures that read alike, position included.
struct Failure {
    uint64_t count = 0;
    uint64_t first = 0;
    uint64_t last = 0;
    std::set<uint64_t> objects;
    std::string latest;  // what is known of the last one alone
};
using Failures = std::map<std::string, Failure>;

void put_failure(Text &out, const Dump &dump, const Trace &trace, const Record &record) {
    put_title(out, record);
    const Record *exit = trace.exit_of(record);
    const CL_ErrInfo error = error_of(exit != nullptr && !record.is_callback() ? *exit : record);
    if (const std::string end = child_end(record); !end.empty()) {
        out << ": " << end;
    } else if (record.api() == CL_API_STATUS) {
        out << " failed";
    } else if (error.err != 0) {
        put_error(out << ": ", error);
    } else {
        out << ": failed";
    }
    if (record.is_callback()) {
        put_callback(out << "  ", dump, record);
    } else {
        put_position(out << "  ", record);
    }
}

// Which process a CHILD object stood for, and where it was started: as long as its slot has not
// been taken by another object.
std::string child_of(const Dump &dump, const Record &record, uint64_t handle) {
    const auto slot = dump.slot_of(handle);
    if (child_end(record).empty() || !slot || *slot >= dump.objects.size()) return "";
    const CL_Object &object = dump.objects[*slot];
    const uint64_t created = object.created.seconds * 1000000 + object.created.microseconds;
    if (object.kind != CL_KIND_CHILD || created > record.time) return "";
    Text out;
    out << "process " << object.child.pid << ", started at ";
    out.plain({object.created.file, strnlen(object.created.file, sizeof object.created.file)});
    return (out << ':' << object.created.line).str();
}

void put_failures(Text &out, const Dump &dump, const Failures &failures) {
    if (failures.empty()) return;
    std::vector<Failures::const_iterator> order;
    for (auto row = failures.begin(); row != failures.end(); ++row)
        order.push_back(row);
    std::ranges::stable_sort(order, std::greater(),
                             [](const auto &row) { return row->second.count; });
    const size_t shown = std::min(order.size(), kMostFailures);
    out << '\n';
    out.right("failures", kNumberWidth) << "  first            last             what, where\n";
    for (const auto &row : std::span(order).first(shown)) {
        const auto &[text, failure] = *row;
        out.right(failure.count, kNumberWidth) << "  ";
        out.clock(failure.first) << "  ";
        out.clock(failure.last) << "  " << text;
        if (failure.objects.size() == 1 && *failure.objects.begin() != 0) {
            put_object(out << "  ", dump, *failure.objects.begin());
        } else if (failure.objects.size() > 1) {
            out << "  " << failure.objects.size() << " objects";
        }
        if (!failure.latest.empty()) {
            out << " (" << (failure.count > 1 ? "last: " : "") << failure.latest << ')';
        }
        out << '\n';
    }
    if (shown < order.size()) out << "  and " << order.size() - shown << " others\n";
}

void put_slowest(Text &out, const Dump &dump, const Trace &trace) {
    std::vector<std::pair<int64_t, const Record *>> slow;
    for (const Record &record : trace.records) {
        if (const auto duration = trace.duration(record);
            record.is_callback() && !record.exit && duration) {
            slow.emplace_back(*duration, &record);
        }
    }
    const size_t shown = std::min(slow.size(), kSlowest);
    std::ranges::partial_sort(slow, slow.begin() + static_cast<ptrdiff_t>(shown), std::greater(),
                              &std::pair<int64_t, const Record *>::first);
    out << "\nslowest callbacks\n";
    for (const auto &[duration, record] : std::span(slow).first(shown)) {
        out.right(duration, kNumberWidth, "") << "  ";
        out.clock(record->time) << "  ";
        put_call(out, dump, trace, *record);
        out << '\n';
    }
}

// A gap begins with the end of a callback or the beginning of a loop, and ends with the beginning
// of the next callback or the end of the loop. When the loop's entry record is overwritten its
// callbacks have no call around them; a call of the application's that has none around it either
// shows that no loop is running, and the time from the last callback to there is no gap.
void put_longest_gap(Text &out, const Trace &trace) {
    const Record *from = nullptr, *longest = nullptr;
    int64_t gap = -1;
    for (const Record &record : trace.records) {
        if (!record.is_call()) continue;
        const bool is_loop = record.api() == CL_API_LOOP;
        const bool is_outermost = record.parent == kNone;
        if (is_loop || (record.is_callback() &&
                        (is_outermost || trace.records[record.parent].api() == CL_API_LOOP))) {
            const bool ends_gap = is_loop == record.exit;
            const int64_t length =
                from != nullptr ? static_cast<int64_t>(record.time - from->time) : -1;
            if (ends_gap && length > gap) {
                gap = length;
                longest = from;
            }
            from = ends_gap ? nullptr : &record;
        } else if (is_outermost && load<uint8_t>(record.bytes, offsetof(CL_TrcHead, caller)) == 0) {
            from = nullptr;
        }
    }
    if (longest == nullptr) return;
    out << "longest gap between two iterations that called back: ";
    out.duration(gap) << ", from ";
    out.clock(longest->time) << '\n';
}

// How much of the time went into the callbacks of the loop, those included that are open, and which
// of those that ended took longest: while it ran, nothing else did.
void put_busy(Text &out, const Dump &dump, const Trace &trace) {
    if (trace.records.empty()) return;
    const Record *slowest = nullptr;
    int64_t longest = 0;
    double busy = 0;  // no sum of times is too large for it
    // A file's own time may be that of its copy.
    const uint64_t end =
        trace.until_from == TimeFrom::file ? trace.records.back().time : trace.until;
    for (const Record &record : trace.records) {
        const bool is_outermost =
            record.parent == kNone || trace.records[record.parent].api() == CL_API_LOOP;
        if (!record.is_callback() || record.exit || !is_outermost) continue;
        const auto duration = trace.duration(record);
        busy += static_cast<double>(duration.value_or(static_cast<int64_t>(end - record.time)));
        if (!duration || (slowest != nullptr && *duration <= longest)) continue;
        slowest = &record;
        longest = *duration;
    }
    const auto whole = static_cast<double>(end) - static_cast<double>(trace.records.front().time);
    if (slowest == nullptr || whole <= 0) return;
    out << "callbacks took " << static_cast<int64_t>(std::clamp(busy * 100 / whole, 0., 100.))
        << " % of the time, the slowest that returned ";
    out.duration(longest) << ": ";
    put_call(out, dump, trace, *slowest);
    out << ", at ";
    out.clock(slowest->time) << '\n';
}

// A connection that is listed, but neither receives nor sends nor connects: the loop does not watch
// it, and what the other end sends stays where it is. One whose callback runs may yet be told to.
void put_unwatched(Text &out, const Dump &dump, const Trace &trace) {
    size_t count = 0;
    std::string first;
    for (uint64_t slot = 0; slot < dump.objects.size(); ++slot) {
        const CL_Object &object = dump.objects[slot];
        const uint64_t handle = dump.address_of(slot);
        const bool runs = std::ranges::any_of(
            trace.open, [&](uint32_t i) { return trace.object_of(trace.records[i]) == handle; });
        if (!dump.is_live(slot) || object.kind != CL_KIND_MSGC || runs ||
            (object.status & (CL_STATUS_LISTED | CL_STATUS_FAILED)) != CL_STATUS_LISTED ||
            object.sub_status != 0) {
            continue;
        }
        if (++count == 1) first = text_of([&](Text &t) { put_object(t, dump, handle); });
    }
    if (count == 0) return;
    out << "listed, but not watched, as nothing is pending: " << first;
    if (count > 1) out << " and " << count - 1 << " other connections";
    out << '\n';
}

}  // namespace

bool report(Dumps dumps, const Options &, Text &out) {
    const Dump &dump = dumps.front();
    const Trace trace(dumps.front());
    uint64_t changes = 0, users = 0;
    Rows by_operation, by_object;
    Failures failures;
    Progress progress("counting records", trace.records.size());
    for (const Record &record : trace.records) {
        progress.at(static_cast<uint64_t>(&record - trace.records.data()));
        if (record.api() == CL_API_STATUS) ++changes;
        if (record.ring == CL_RING_USER) ++users;
        if (!trace.is_told(record)) continue;
        if (trace.is_bad(record)) {
            Failure &failure =
                failures[text_of([&](Text &t) { put_failure(t, dump, trace, record); })];
            const uint64_t handle = trace.object_of(record);
            if (++failure.count == 1) failure.first = record.time;
            failure.last = record.time;
            failure.objects.insert(handle);
            failure.latest = child_of(dump, record, handle);
        }
        if (!record.is_call()) continue;
        const auto add = [&](Row &row) {
            ++row.count;
            if (trace.is_bad(record)) ++row.failures;
            if (const auto duration = trace.duration(record)) row.durations.push_back(*duration);
        };
        const uint64_t object = trace.object_of(record);
        add(by_operation[text_of([&](Text &t) { put_title(t, record); })]);
        if (object != 0) add(by_object[text_of([&](Text &t) { put_object(t, dump, object); })]);
    }
    put_killed(out, dump, trace);
    put_origin(out, dump);
    put_open(out, dump, trace);
    out << trace.records.size() << " records, " << changes << " status changes, " << users
        << " of the application";
    if (!trace.records.empty()) {
        const uint64_t first = trace.records.front().time, last = trace.records.back().time;
        out << ", ";
        out.day(first) << ' ';
        out.clock(first) << " to ";
        out.clock(last) << " (";
        out.duration(static_cast<int64_t>(last - first)) << ')';
    }
    out << '\n';
    put_busy(out, dump, trace);
    put_unwatched(out, dump, trace);
    put_longest_gap(out, trace);
    put_failures(out, dump, failures);
    put_rows(out, "operation", by_operation);
    put_rows(out, "object", by_object);
    put_slowest(out, dump, trace);
    return true;
}

}  // namespace trace_reader
