// diff: two traces record by record, ring by ring, up to the first difference. What differs from
// run to run anyway (times, addresses, process ids) is masked.
#include <deque>

#include "tools/commands.h"
#include "tools/render.h"

namespace trace_reader {

namespace {

constexpr size_t kContext = 3;

std::string line_of(const Dump &dump, const Record &record) {
    Text line;
    if (record.is_call()) line << (record.exit ? "<- " : "-> ");
    put_record(line, dump, record, Mask::yes);
    if (record.is_call() && record.exit) put_outcome(line << " = ", dump, record, Mask::yes);
    if (record.operation != nullptr) put_position(line << "  ", record);
    return line.str();
}

// Whether both traces have the same records in that ring. The first difference is shown with the
// records before it.
bool same_ring(Dumps dumps, int ring, std::string_view name, Text &out) {
    const Trace a(dumps[0], ring), b(dumps[1], ring);
    const size_t common = std::min(a.records.size(), b.records.size());
    std::deque<std::string> before;
    size_t i = 0;
    for (; i < common; ++i) {
        std::string line = line_of(dumps[0], a.records[i]);
        if (line != line_of(dumps[1], b.records[i])) break;
        if (before.size() == kContext) before.pop_front();
        before.push_back(std::move(line));
    }
    if (i == a.records.size() && i == b.records.size()) {
        out << name << " ring: the same " << i << " records\n";
        return true;
    }
    out << name << " ring: the same " << i << " records, then a difference\n";
    for (const std::string &line : before)
        out << "  " << line << '\n';
    const auto put_side = [&](char sign, const Trace &trace, const Dump &dump) {
        out << sign << ' '
            << (i < trace.records.size() ? line_of(dump, trace.records[i]) : "end of the trace")
            << '\n';
    };
    put_side('-', a, dumps[0]);
    put_side('+', b, dumps[1]);
    return false;
}

}  // namespace

bool diff(Dumps dumps, const Options &, Text &out) {
    const bool library = same_ring(dumps, CL_RING_LIBRARY, "library", out);
    return same_ring(dumps, CL_RING_USER, "user", out) && library;
}

}  // namespace trace_reader
