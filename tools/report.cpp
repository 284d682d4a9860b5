// report: how often, how long, how many failures, by operation and by object; which callbacks were
// slow, and how long the loop went without calling any.
#include <algorithm>
#include <map>

#include "tools/commands.h"
#include "tools/render.h"

namespace trace_reader {

namespace {

constexpr size_t kSlowest = 10;
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
        out.right((Text() << figures.count).str(), kNumberWidth);
        out.right((Text() << figures.failures).str(), kNumberWidth);
        const size_t n = figures.durations.size();
        // Percentiles by nearest rank: the smallest value with that share of all at or below it.
        for (const size_t percent : {size_t{50}, size_t{99}, size_t{100}}) {
            out.right(n != 0
                          ? Text().duration(figures.durations[(n * percent + 99) / 100 - 1]).str()
                          : "-",
                      kNumberWidth);
        }
        out << '\n';
    }
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
        out.right(Text().duration(duration).str(), kNumberWidth) << "  ";
        out.clock(record->time) << "  ";
        put_title(out, *record);
        put_object(out << ' ', dump, trace.object_of(*record));
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

}  // namespace

bool report(Dumps dumps, const Options &, Text &out) {
    const Dump &dump = dumps.front();
    const Trace trace(dumps.front());
    uint64_t changes = 0, users = 0;
    Rows by_operation, by_object;
    for (const Record &record : trace.records) {
        if (record.api() == CL_API_STATUS) ++changes;
        if (record.ring == CL_RING_USER) ++users;
        if (!record.is_call() || !trace.is_told(record)) continue;
        const auto add = [&](Row &row) {
            ++row.count;
            if (trace.is_bad(record)) ++row.failures;
            if (const auto duration = trace.duration(record)) row.durations.push_back(*duration);
        };
        const uint64_t object = trace.object_of(record);
        add(by_operation[text_of([&](Text &t) { put_title(t, record); })]);
        if (object != 0) add(by_object[text_of([&](Text &t) { put_object(t, dump, object); })]);
    }
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
    put_longest_gap(out, trace);
    put_rows(out, "operation", by_operation);
    put_rows(out, "object", by_object);
    put_slowest(out, dump, trace);
    return true;
}

}  // namespace trace_reader
