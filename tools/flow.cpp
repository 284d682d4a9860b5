// flow: what became of the messages between the processes of several traces, and which connections
// are quiet; then the messages, one line each in order of sending, and how long they lay, by pair
// of processes and type. Messages that only one trace can tell of are counted.
#include <algorithm>
#include <map>
#include <tuple>

#include "tools/commands.h"
#include "tools/ending.h"
#include "tools/join.h"
#include "tools/render.h"

namespace trace_reader {

namespace {

constexpr size_t kDurationWidth = 8;
constexpr size_t kNumberWidth = 10;
constexpr int64_t kQuiet = 1000000;  // microseconds without a message that are worth a line
constexpr size_t kMostQuiet = 5;

class FlowText {
  public:
    FlowText(Dumps dumps, std::span<const Trace> traces, const Flow &flow, Text &out);
    void put_messages();
    void put_latencies();
    void put_traces();
    void put_counts();
    void put_quiet();

  private:
    struct Quiet {  // a connection that is open, and its last message
        int64_t duration;
        const Message *last;
    };
    struct Row {
        uint64_t ambiguous = 0, lost = 0;
        std::vector<int64_t> lay;
    };

    const End &end_of(const Message &message) const { return flow_.ends[message.end]; }
    const Message &other(const Message &message) const { return flow_.messages[message.other]; }
    void put_end(Text &out, const End &end) const;
    void put_other_end(Text &out, const End &end) const;
    std::optional<Quiet> quiet(uint32_t number) const;
    bool is_open(uint32_t number) const;
    void put_route(const Message &message);
    void put_quiet(const Quiet &quiet);
    void put_message(const Message &message);
    void put_fate(const Message &message);

    Dumps dumps_;
    std::span<const Trace> traces_;
    const Flow &flow_;
    Text &out_;
    std::vector<std::string> names_;  // of the traces
    // The connection that an object of a trace stood for last.
    std::map<std::pair<uint32_t, uint64_t>, uint32_t> newest_;
};

// A file is named without its folder where that is enough to tell it from the others.
FlowText::FlowText(Dumps dumps, std::span<const Trace> traces, const Flow &flow, Text &out)
    : dumps_(dumps), traces_(traces), flow_(flow), out_(out) {
    for (const Dump &dump : dumps)
        names_.push_back(dump.name.substr(dump.name.rfind('/') + 1));
    for (uint32_t i = 0; i < flow.ends.size(); ++i)
        newest_[{flow.ends[i].trace, flow.ends[i].handle}] = i;
    const std::vector<std::string> brief = names_;
    for (size_t i = 0; i < names_.size(); ++i) {
        if (std::ranges::count(brief, brief[i]) > 1) names_[i] = dumps[i].name;
    }
}

void FlowText::put_end(Text &out, const End &end) const {
    out.plain(names_[end.trace]);
    dumps_[end.trace].put_handle(out << ' ', end.handle);
}

void FlowText::put_other_end(Text &out, const End &end) const {
    if (end.other != kNone) {
        put_end(out, flow_.ends[end.other]);
    } else if (end.peer != kNone) {
        out.plain(names_[end.peer]);
    } else if (end.peer_pid != 0) {
        out << "process " << end.peer_pid;
    } else if (!end.path.empty()) {
        out << (end.role == End::Role::accepted ? "a client of " : "the server at ");
        out.plain(end.path);
    } else {
        out << '?';
    }
}

void FlowText::put_fate(const Message &message) {
    const End &end = end_of(message);
    switch (message.fate) {
        case Fate::joined:
        case Fate::outside:
        case Fate::untraced:
            break;
        case Fate::ambiguous:
            out_ << "  (ambiguous)";
            break;
        case Fate::lost:
            out_ << (message.sent ? "  not read, " : "  its sending is in no trace");
            if (!message.sent) break;
            out_.duration(static_cast<int64_t>(flow_.spans[end.peer].end - message.time))
                << " to the end of that trace";
            break;
        case Fate::unfinished:
            out_ << "  (sending it did not finish)";
            break;
    }
}

// "server #3 -> client #0  type 2, 80 bytes"
void FlowText::put_route(const Message &message) {
    const End &end = end_of(message);
    if (message.sent) {
        put_end(out_, end);
        put_other_end(out_ << " -> ", end);
    } else {
        put_other_end(out_, end);
        put_end(out_ << " -> ", end);
    }
    const CL_MsgHeader header = message.header();
    out_ << "  type " << header.type << ", " << header.length << " bytes";
}

void FlowText::put_message(const Message &message) {
    const auto lay = flow_.lay(message);
    const bool lost = message.fate == Fate::lost;
    out_.colour(Colour::dim).clock(message.time).colour(Colour::none) << ' ';
    out_.right(lay, kDurationWidth, "");
    out_.colour(lost ? Colour::red : Colour::none);
    out_ << (lost ? " ! " : message.fate == Fate::ambiguous ? " ? " : "   ");
    put_route(message);
    if (const Bytes payload =
            part(part(message.bytes, 0, message.header().length), sizeof(CL_MsgHeader));
        !payload.empty()) {
        (out_ << "  ").dump(payload);
    }
    put_fate(message);
    out_.colour(Colour::none) << '\n';
    out_.spill();
}

void FlowText::put_messages() {
    std::vector<uint32_t> order;
    for (uint32_t i = 0; i < flow_.messages.size(); ++i) {
        const Message &message = flow_.messages[i];
        const bool half = message.fate == Fate::outside || message.fate == Fate::untraced;
        if (!half && (message.sent || message.fate == Fate::lost)) order.push_back(i);
    }
    std::ranges::stable_sort(order, {}, [&](uint32_t i) { return flow_.messages[i].time; });
    for (const uint32_t i : order)
        put_message(flow_.messages[i]);
}

void FlowText::put_latencies() {
    std::map<std::tuple<uint32_t, uint32_t, uint32_t>, Row> rows;  // by both traces and the type
    for (const Message &message : flow_.messages) {
        const End &end = end_of(message);
        if (!message.sent || (!Flow::is_joined(message) && message.fate != Fate::lost)) continue;
        Row &row = rows[{end.trace, end.peer, message.header().type}];
        if (const auto lay = flow_.lay(message)) row.lay.push_back(*lay);
        if (message.fate == Fate::ambiguous) ++row.ambiguous;
        if (message.fate == Fate::lost) ++row.lost;
    }
    std::vector<std::pair<std::string, Row *>> lines;
    size_t width = sizeof "messages";
    for (auto &[key, row] : rows) {
        const auto [from, to, type] = key;
        Text name;
        name.plain(names_[from]) << " -> ";
        name.plain(names_[to]) << "  type " << type;
        lines.emplace_back(name.str(), &row);
        width = std::max(width, name.size());
    }
    size_t begin = out_.size();
    (out_ << "\nmessages").column(begin, width + 1);
    for (const std::string_view head : {"joined", "ambiguous", "not read", "p50", "p99", "max"})
        out_.right(head, kNumberWidth);
    out_ << '\n';
    for (auto &[name, row] : lines) {
        begin = out_.size();
        (out_ << name).column(begin, width);
        std::ranges::sort(row->lay);
        for (const uint64_t count : {row->lay.size(), row->ambiguous, row->lost})
            out_.right(count, kNumberWidth);
        for (const size_t percent : {size_t{50}, size_t{99}, size_t{100}}) {
            out_.right(percentile(row->lay, percent), kNumberWidth, "-");
        }
        out_ << '\n';
    }
}

void FlowText::put_traces() {
    std::vector<std::array<uint64_t, 2>> counts(names_.size());  // read, sent
    for (const Message &message : flow_.messages)
        ++counts[end_of(message).trace][message.sent ? 1 : 0];
    for (size_t i = 0; i < names_.size(); ++i) {
        const Flow::Span &span = flow_.spans[i];
        out_.plain(names_[i]) << ": process " << flow_.pids[i];
        if (!dumps_[i].header.command.empty()) {
            out_.plain((Text() << " (" << dumps_[i].header.command << ')').str());
        }
        out_ << ", " << counts[i][1] << " messages sent and " << counts[i][0] << " read";
        if (span.begin <= span.end) {
            (out_ << ", ").day(span.begin) << ' ';
            out_.clock(span.begin) << " to ";
            out_.clock(span.end);
        }
        out_ << '\n';
    }
}

void FlowText::put_counts() {
    std::map<std::pair<Fate, bool>, uint64_t> counts;  // by fate and whether it is the sending
    for (const Message &message : flow_.messages)
        ++counts[{message.fate, message.sent}];
    static constexpr struct {
        Fate fate;
        bool sent;
        std::string_view text;
    } kLines[] = {{Fate::joined, true, "joined"},
                  {Fate::ambiguous, true, "joined, ambiguous"},
                  {Fate::lost, true, "sent and not read"},
                  {Fate::lost, false, "read, the sending is in no trace"},
                  {Fate::unfinished, true, "whose sending did not finish"},
                  {Fate::outside, true, "sent, the reading is outside the other trace, if at all"},
                  {Fate::outside, false, "read, the sending is outside the other trace"},
                  {Fate::untraced, true, "sent to processes whose trace is not here"},
                  {Fate::untraced, false, "read from processes whose trace is not here"}};
    for (const auto &[fate, sent, text] : kLines) {
        if (const uint64_t count = counts[{fate, sent}]; count != 0 || fate == Fate::joined) {
            out_.right(count, kNumberWidth) << ' ' << text << '\n';
        }
    }
}

// Whether the connection was there when the dump was taken.
bool FlowText::is_open(uint32_t number) const {
    const End &end = flow_.ends[number];
    const Dump &dump = dumps_[end.trace];
    const auto slot = dump.slot_of(end.handle);
    return newest_.at({end.trace, end.handle}) == number && slot && *slot < dump.objects.size() &&
           dump.is_live(*slot);
}

// Of both ends of a connection the first one answers.
std::optional<FlowText::Quiet> FlowText::quiet(uint32_t number) const {
    const End &end = flow_.ends[number];
    if (end.other == kNone || end.other < number || !is_open(number) || !is_open(end.other)) {
        return {};
    }
    const Message *last = nullptr;
    for (const End *e : {&end, &flow_.ends[end.other]}) {
        for (const auto *messages : {&e->sent, &e->read}) {
            if (messages->empty()) continue;
            const Message &message = flow_.messages[messages->back()];
            if (last == nullptr || message.time > last->time) last = &message;
        }
    }
    const uint64_t until =
        std::min(flow_.spans[end.trace].end, flow_.spans[flow_.ends[end.other].trace].end);
    if (last == nullptr || until < last->time) return {};
    const auto duration = static_cast<int64_t>(until - last->time);
    if (duration < kQuiet) return {};
    return Quiet{duration, !last->sent && Flow::is_joined(*last) ? &other(*last) : last};
}

void FlowText::put_quiet(const Quiet &quiet) {
    const Message &message = *quiet.last;
    out_ << "quiet for ";
    out_.duration(quiet.duration) << ": ";
    put_route(message);
    if (const auto lay = flow_.lay(message)) {
        out_ << ", read after ";
        out_.duration(*lay);
        const uint32_t reader = end_of(other(message)).trace;
        const Record &record = traces_[reader].records[other(message).record];
        if (record.is_callback()) put_callback(out_ << " by ", dumps_[reader], record);
    } else if (message.fate == Fate::lost && message.sent) {
        out_ << ", not read";
    }
    out_ << '\n';
    const End &end = end_of(message);
    for (const uint32_t number : {end.trace, flow_.ends[end.other].trace}) {
        const Trace &trace = traces_[number];
        const auto open = std::ranges::find_if(
            trace.open, [&](uint32_t i) { return trace.records[i].api() != CL_API_LOOP; });
        if (open == trace.open.end()) continue;
        const Record &record = trace.records[*open];
        (out_ << "    ").plain(names_[number]) << " is in ";
        put_call(out_, dumps_[number], trace, record);
        out_ << ", for ";
        out_.duration(trace.open_for(record)) << '\n';
    }
}

void FlowText::put_quiet() {
    std::vector<Quiet> all;
    for (uint32_t i = 0; i < flow_.ends.size(); ++i) {
        if (const auto one = quiet(i)) all.push_back(*one);
    }
    // Those that began to be quiet last come last: where many wait, they wait for the first.
    std::ranges::stable_sort(all, std::greater(), &Quiet::duration);
    const size_t shown = std::min(all.size(), kMostQuiet);
    for (const Quiet &one : std::span(all).first(shown))
        put_quiet(one);
    if (shown < all.size()) out_ << "and " << all.size() - shown << " other connections\n";
}

}  // namespace

bool flow(Dumps dumps, const Options &, Text &out) {
    std::vector<Trace> traces;
    for (Dump &dump : dumps)
        traces.emplace_back(dump, CL_RING_LIBRARY);
    const Flow flow(dumps, traces);
    FlowText text(dumps, traces, flow, out);
    text.put_traces();
    text.put_counts();
    text.put_quiet();
    out << '\n';
    text.put_messages();
    text.put_latencies();
    return true;
}

}  // namespace trace_reader
