// flow: the messages between the processes of several traces, one line each in order of sending,
// and behind them how long they lay, by pair of processes and type. Messages that only one trace
// can tell of are counted.
#include <algorithm>
#include <map>
#include <tuple>

#include "tools/commands.h"
#include "tools/join.h"
#include "tools/render.h"

namespace trace_reader {

namespace {

constexpr size_t kDurationWidth = 8;
constexpr size_t kNumberWidth = 10;

class FlowText {
  public:
    FlowText(Dumps dumps, const Flow &flow, Text &out);
    void put_messages();
    void put_latencies();
    void put_traces();
    void put_counts();

  private:
    struct Row {
        uint64_t ambiguous = 0, lost = 0;
        std::vector<int64_t> lay;
    };

    const End &end_of(const Message &message) const { return flow_.ends[message.end]; }
    const Message &other(const Message &message) const { return flow_.messages[message.other]; }
    void put_end(Text &out, const End &end) const;
    void put_other_end(Text &out, const End &end, bool with_object) const;
    void put_message(const Message &message);
    void put_fate(const Message &message);

    Dumps dumps_;
    const Flow &flow_;
    Text &out_;
    std::vector<std::string> names_;  // of the traces
};

// A file is named without its folder where that is enough to tell it from the others.
FlowText::FlowText(Dumps dumps, const Flow &flow, Text &out)
    : dumps_(dumps), flow_(flow), out_(out) {
    for (const Dump &dump : dumps)
        names_.push_back(dump.name.substr(dump.name.rfind('/') + 1));
    const std::vector<std::string> brief = names_;
    for (size_t i = 0; i < names_.size(); ++i) {
        if (std::ranges::count(brief, brief[i]) > 1) names_[i] = dumps[i].name;
    }
}

void FlowText::put_end(Text &out, const End &end) const {
    out.plain(names_[end.trace]);
    dumps_[end.trace].put_handle(out << ' ', end.handle);
}

void FlowText::put_other_end(Text &out, const End &end, bool with_object) const {
    if (with_object && end.other != kNone) {
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

void FlowText::put_message(const Message &message) {
    const End &end = end_of(message);
    const CL_MsgHeader header = message.header();
    const auto lay = flow_.lay(message);
    const bool lost = message.fate == Fate::lost;
    out_.colour(Colour::dim).clock(message.time).colour(Colour::none) << ' ';
    out_.right(lay ? Text().duration(*lay).str() : "", kDurationWidth);
    out_.colour(lost ? Colour::red : Colour::none);
    out_ << (lost ? " ! " : message.fate == Fate::ambiguous ? " ? " : "   ");
    if (message.sent) {
        put_end(out_, end);
        put_other_end(out_ << " -> ", end, true);
    } else {
        put_other_end(out_, end, true);
        put_end(out_ << " -> ", end);
    }
    out_ << "  type " << header.type << ", " << header.length << " bytes";
    if (const Bytes payload = part(part(message.bytes, 0, header.length), sizeof header);
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
            out_.right((Text() << count).str(), kNumberWidth);
        for (const size_t percent : {size_t{50}, size_t{99}, size_t{100}}) {
            const auto value = percentile(row->lay, percent);
            out_.right(value ? Text().duration(*value).str() : "-", kNumberWidth);
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
            out_.right((Text() << count).str(), kNumberWidth) << ' ' << text << '\n';
        }
    }
}

}  // namespace

bool flow(Dumps dumps, const Options &, Text &out) {
    std::vector<Trace> traces;
    for (Dump &dump : dumps)
        traces.emplace_back(dump, CL_RING_LIBRARY);
    const Flow flow(dumps, traces);
    FlowText text(dumps, flow, out);
    text.put_messages();
    out << '\n';
    text.put_traces();
    text.put_latencies();
    out << '\n';
    text.put_counts();
    return true;
}

}  // namespace trace_reader
