// Joining takes time in proportion to the number of messages but for sorting them, whatever the
// traces hold: candidates for the other end of a connection come from messages with the same bytes,
// a few for each sending, and each end is tried with a few of them.
#include "tools/join.h"

#include <algorithm>
#include <cerrno>
#include <numeric>

namespace trace_reader {

namespace {

// Readings of the same bytes that are looked at for a sending, and how many of them count.
constexpr size_t kLooked = 16, kVotes = 4;
// Other ends that an end is tried with.
constexpr uint8_t kTried = 8;

template <size_t kSize>
std::string text_of(const char (&text)[kSize]) {
    return {text, strnlen(text, kSize)};
}

// For each place of `text` how far from there on it is the same as `pattern` from its beginning.
std::vector<uint32_t> matches(std::vector<uint32_t> pattern, std::span<const uint32_t> text) {
    const size_t length = pattern.size();
    pattern.push_back(kNone);  // is no content
    pattern.insert(pattern.end(), text.begin(), text.end());
    std::vector<uint32_t> same(pattern.size());
    for (size_t i = 1, from = 0, to = 0; i < pattern.size(); ++i) {
        size_t n = i < to ? std::min<size_t>(to - i, same[i - from]) : 0;
        while (i + n < pattern.size() && pattern[i + n] == pattern[n])
            ++n;
        same[i] = static_cast<uint32_t>(n);
        if (i + n > to) {
            from = i;
            to = i + n;
        }
    }
    same.erase(same.begin(), same.begin() + static_cast<ptrdiff_t>(length) + 1);
    return same;
}

}  // namespace

// The ends and messages of one trace.
class Gathering {
  public:
    Gathering(Flow &flow, uint32_t number, const Dump &dump, const Trace &trace)
        : flow_(flow), number_(number), dump_(dump), trace_(trace) {}
    void run();

  private:
    void span();
    void servers();
    void take(uint32_t index);
    void open(uint64_t handle, End::Role role, uint64_t begin, const std::string &path);
    void send(uint32_t index);
    void receive(uint32_t index);
    void callback(uint32_t index);
    void add(uint64_t handle, Message message, Bytes bytes);
    void listen(uint64_t handle, const std::string &path);
    void look_up_paths();
    const CL_Object *object_at(uint64_t handle) const;

    Flow &flow_;
    uint32_t number_;
    const Dump &dump_;
    const Trace &trace_;
    std::map<uint64_t, uint32_t> open_;      // ends by handle
    std::map<uint64_t, std::string> paths_;  // of servers by handle
};

void Gathering::span() {
    Flow::Span &span = flow_.spans[number_];
    for (const Record &record : trace_.records) {
        if (record.ring != CL_RING_LIBRARY) continue;
        span.begin = std::min(span.begin, record.time);
        span.end = std::max(span.end, record.time);
    }
    // Until the dump there would have been more records. A file's own time says nothing of that:
    // copying changes it.
    if (dump_.time_from != TimeFrom::file) span.end = std::max(span.end, dump_.time);
}

const CL_Object *Gathering::object_at(uint64_t handle) const {
    const auto slot = dump_.slot_of(handle);
    const bool live = slot && *slot < dump_.objects.size() && dump_.is_live(*slot);
    return live ? &dump_.objects[*slot] : nullptr;
}

void Gathering::listen(uint64_t handle, const std::string &path) {
    if (path.empty()) return;
    paths_[handle] = path;
    const auto [server, is_new] = flow_.servers_.try_emplace(path, number_);
    if (!is_new && server->second != number_) server->second = kNone;
}

void Gathering::servers() {
    for (uint64_t slot = 0; slot < dump_.objects.size(); ++slot) {
        const CL_Object &object = dump_.objects[slot];
        if (dump_.is_live(slot) && (object.kind == CL_KIND_MSGS || object.kind == CL_KIND_EXECS)) {
            listen(dump_.address_of(slot), text_of(object.server.address.sun_path));
        }
    }
}

void Gathering::open(uint64_t handle, End::Role role, uint64_t begin, const std::string &path) {
    open_[handle] = static_cast<uint32_t>(flow_.ends.size());
    End &end = flow_.ends.emplace_back();
    end.trace = number_;
    end.handle = handle;
    end.role = role;
    end.whole = role != End::Role::unknown;
    end.begin = begin;
    end.path = path;
}

void Gathering::add(uint64_t handle, Message message, Bytes bytes) {
    memcpy(message.bytes.data(), bytes.data(), std::min(bytes.size(), message.bytes.size()));
    const CL_MsgHeader header = message.header();
    if (header.version != CL_MSG_VERSION || header.length < sizeof header) return;
    // What lies behind a short message in a buffer is none of it.
    for (size_t i = header.length; i < message.bytes.size(); ++i)
        message.bytes[i] = 0;
    if (!open_.contains(handle)) open(handle, End::Role::unknown, 0, {});
    message.end = open_[handle];
    End &end = flow_.ends[message.end];
    (message.sent ? end.sent : end.read).push_back(static_cast<uint32_t>(flow_.messages.size()));
    if (!message.sent && end.peer_pid == 0) end.peer_pid = header.sender;
    // The main table holds the id of the process that loaded the library, maybe a parent.
    if (message.sent) flow_.pids[number_] = header.sender;
    flow_.messages.push_back(message);
}

// A block whose sending was given up midway stays in front of all later ones, so it keeps its place
// in the order.
void Gathering::send(uint32_t index) {
    const Record &told = trace_.records[index];
    const Record *exit = trace_.exit_of(told);
    const auto record = load<CL_TrcSend>(trace_.fuller(told).bytes, 0);
    const bool done = exit != nullptr && !failed(*exit);
    if (record.data_length < sizeof(CL_MsgBlock) ||
        (exit != nullptr && !done && record.error.err != ETIMEDOUT && record.error.err != EINTR)) {
        return;
    }
    CL_MsgHeader header = load<CL_MsgHeader>(record.data, offsetof(CL_MsgBlock, header));
    if (!done) {  // the record may hold the block as it was before the call filled the header
        header.length = record.block_size - CL_MSG_PREFIX_SIZE;
        header.version = CL_MSG_VERSION;
        header.sender = static_cast<uint32_t>(flow_.pids[number_]);
    }
    uint8_t bytes[sizeof Message::bytes];
    memcpy(bytes, record.data + offsetof(CL_MsgBlock, header), sizeof bytes);
    memcpy(bytes, &header, sizeof header);
    Message message;
    message.sent = true;
    message.timed = !told.exit;
    message.time = told.exit ? flow_.spans[number_].begin : told.time;
    message.record = index;
    if (!done) message.fate = Fate::unfinished;
    add(record.handle, message, bytes);
}

void Gathering::receive(uint32_t index) {
    const Record &exit = trace_.records[index];
    const auto record = load<CL_TrcReceive>(exit.bytes, 0);
    if (failed(exit) || static_cast<int32_t>(record.result) < CL_MSG_HEADER_SIZE) return;
    Message message;
    message.time = exit.time;
    message.record = exit.partner != kNone ? exit.partner : index;
    message.at_exit = true;
    add(record.handle, message, record.data);
}

void Gathering::callback(uint32_t index) {
    const Record &entry = trace_.records[index];
    const auto record = load<CL_TrcCallback>(entry.bytes, 0);
    if (record.type != CL_EVENT_MESSAGE) return;
    Message message;
    message.time = entry.time;
    message.record = index;
    add(record.handle, message, part(entry.bytes, sizeof record));
}

void Gathering::take(uint32_t index) {
    const Record &record = trace_.records[index];
    const bool succeeded = record.exit && !failed(record);
    switch (record.api()) {
        case CL_API_SEND_MSGC:
            if (trace_.is_told(record)) send(index);
            break;
        case CL_API_RECV_MSGC:
            if (record.exit) receive(index);
            break;
        case CL_API_CALLBACK:
            if (!record.exit) callback(index);
            break;
        case CL_API_OPEN_MSGS: {
            const auto server = load<CL_TrcOpenServer>(record.bytes, 0);
            if (succeeded) listen(server.handle, text_of(server.path));
            break;
        }
        case CL_API_CNCT_MSGC: {
            const auto connect = load<CL_TrcConnect>(record.bytes, 0);
            const Record *entry = trace_.partner(record);
            if (!succeeded) break;
            open(connect.handle, End::Role::connected, entry != nullptr ? entry->time : record.time,
                 text_of(connect.path));
            break;
        }
        case CL_API_ACCEPT_MSGS: {
            const auto accept = load<CL_TrcAccept>(record.bytes, 0);
            if (!succeeded) break;
            open(accept.result, End::Role::accepted, record.time, paths_[accept.handle]);
            break;
        }
        case CL_API_DISC_MSGC:
        case CL_API_DELETE_FD:
            if (succeeded) open_.erase(load<CL_TrcHandle>(record.bytes, 0).handle);
            break;
        default:
            break;
    }
}

// A connection that was made before the trace began and is there still has its path in the table.
void Gathering::look_up_paths() {
    for (const auto &[handle, index] : open_) {
        End &end = flow_.ends[index];
        const CL_Object *object = object_at(handle);
        if (end.role != End::Role::unknown || object == nullptr ||
            (object->kind != CL_KIND_MSGC && object->kind != CL_KIND_END)) {
            continue;
        }
        end.path = text_of(object->connection.address.sun_path);
        if (!end.path.empty()) end.role = End::Role::connected;
    }
}

void Gathering::run() {
    flow_.pids[number_] = dump_.header.pid.value_or(dump_.main.pid);
    span();
    servers();
    for (uint32_t i = 0; i < trace_.records.size(); ++i) {
        if (trace_.records[i].ring == CL_RING_LIBRARY) take(i);
    }
    look_up_paths();
}

// How the messages that one end read lie over those that the other end sent: read[i] is
// sent[i + by].
struct Flow::Shift {
    bool possible = false;
    bool only = true;  // of those with messages in common
    int64_t by = 0;
    size_t common = 0;
    int64_t lay = 0;  // all that they lay, in microseconds
};

struct Flow::Pairing {
    uint32_t a, b;
    Shift ab, ba;

    size_t common() const { return ab.common + ba.common; }
    int64_t lay() const { return ab.lay + ba.lay; }
};

Flow::Flow(std::span<const Dump> dumps, std::span<const Trace> traces)
    : spans(traces.size()), pids(traces.size()) {
    for (uint32_t i = 0; i < traces.size(); ++i)
        Gathering(*this, i, dumps[i], traces[i]).run();
    std::vector<Pairing> found = pairings(number_contents());
    choose(found);
    pair_by_order();
    find_peers();
    for (Message &message : messages)
        judge(message);
}

std::optional<int64_t> Flow::lay(const Message &message) const {
    if (!is_joined(message)) return {};
    const Message &sent = message.sent ? message : messages[message.other];
    if (!sent.timed) return {};
    return static_cast<int64_t>(messages[sent.other].time - sent.time);
}

// Returns the messages by content, and by time those of one content.
std::vector<uint32_t> Flow::number_contents() {
    std::vector<uint32_t> order(messages.size());
    std::iota(order.begin(), order.end(), 0);
    std::ranges::sort(order, [&](uint32_t a, uint32_t b) {
        const Message &x = messages[a], &y = messages[b];
        const int sign = memcmp(x.bytes.data(), y.bytes.data(), sizeof x.bytes);
        if (sign != 0) return sign < 0;
        return std::tuple(x.time, !x.sent, a) < std::tuple(y.time, !y.sent, b);
    });
    for (size_t i = 1; i < order.size(); ++i) {
        const Message &before = messages[order[i - 1]];
        Message &message = messages[order[i]];
        message.content = before.content + (before.bytes != message.bytes ? 1 : 0);
    }
    return order;
}

bool Flow::may_be_one(const End &a, const End &b) const {
    const auto fits = [&](const End &end, const End &other) {
        return end.peer_pid == 0 || pids[other.trace] == 0 || end.peer_pid == pids[other.trace];
    };
    return &a != &b && (a.role == End::Role::unknown || a.role != b.role) && fits(a, b) &&
           fits(b, a);
}

// Ends that may be those of one connection, since soon after one sent something the other one read
// the same.
std::vector<Flow::Pairing> Flow::pairings(const std::vector<uint32_t> &order) const {
    std::vector<std::pair<uint32_t, uint32_t>> votes;
    std::vector<uint32_t> readings;
    for (auto group = order.begin(); group != order.end();) {
        const auto rest = std::find_if(group, order.end(), [&](uint32_t i) {
            return messages[i].content != messages[*group].content;
        });
        readings.clear();
        std::copy_if(group, rest, std::back_inserter(readings),
                     [&](uint32_t i) { return !messages[i].sent; });
        size_t next = 0;  // reading behind the message in question
        for (; group != rest; ++group) {
            const uint32_t a = messages[*group].end;
            if (!messages[*group].sent) ++next;
            const size_t last =
                messages[*group].sent ? std::min(next + kLooked, readings.size()) : 0;
            size_t count = 0;
            for (size_t i = next; i < last && count < kVotes; ++i) {
                const uint32_t b = messages[readings[i]].end;
                if (!may_be_one(ends[a], ends[b])) continue;
                votes.emplace_back(std::min(a, b), std::max(a, b));
                ++count;
            }
        }
    }
    std::ranges::sort(votes);
    std::vector<std::pair<size_t, std::pair<uint32_t, uint32_t>>> counted;
    for (const auto &vote : votes) {
        if (counted.empty() || counted.back().second != vote) counted.emplace_back(0, vote);
        ++counted.back().first;
    }
    std::ranges::sort(counted, std::greater());
    std::vector<uint8_t> tries(ends.size());
    std::vector<Pairing> found;
    for (const auto &[count, pair] : counted) {
        const auto [a, b] = pair;
        if (tries[a] == kTried || tries[b] == kTried) continue;
        ++tries[a];
        ++tries[b];
        found.push_back({a, b, shift(ends[a], ends[b]), shift(ends[b], ends[a])});
    }
    return found;
}

// The least and the greatest shift that the times and the beginnings of both ends allow: what was
// read had been sent, and what was sent after the reader's trace began was not read before.
std::pair<int64_t, int64_t> Flow::bounds(const End &from, const End &to) const {
    const auto sent = static_cast<int64_t>(from.sent.size());
    const auto read = static_cast<int64_t>(to.read.size());
    int64_t least = from.whole ? 0 : -read, most = to.whole ? 0 : sent;
    int64_t before = 0;  // how many were sent before a reading
    for (int64_t i = 0; i < read; ++i) {
        const uint64_t time = messages[to.read[static_cast<size_t>(i)]].time;
        while (before < sent &&
               messages[from.sent[static_cast<size_t>(before)]].sent_after() <= time)
            ++before;
        if (before < sent || time < spans[from.trace].end) most = std::min(most, before - 1 - i);
    }
    const auto first = std::ranges::find_if(from.sent, [&](uint32_t message) {
        return messages[message].sent_after() > spans[to.trace].begin;
    });
    if (first != from.sent.end()) most = std::min<int64_t>(most, first - from.sent.begin());
    return {least, most};
}

// Of the shifts that fit the greatest, with which the messages lay the shortest time.
Flow::Shift Flow::shift(const End &from, const End &to) const {
    const auto contents = [&](const std::vector<uint32_t> &list) {
        std::vector<uint32_t> numbers;
        numbers.reserve(list.size());
        for (const uint32_t i : list)
            numbers.push_back(messages[i].content);
        return numbers;
    };
    const auto sent = static_cast<int64_t>(from.sent.size());
    const auto read = static_cast<int64_t>(to.read.size());
    const auto [least, most] = bounds(from, to);
    Shift found;
    found.possible = least <= most && (most >= sent || least <= -read);  // nothing in common
    if (sent == 0 || read == 0) return found;
    const auto sent_contents = contents(from.sent), read_contents = contents(to.read);
    const auto from_first_read = matches(read_contents, sent_contents);
    const auto from_first_sent = matches(sent_contents, read_contents);
    for (int64_t by = std::min(most, sent - 1); by >= std::max(least, 1 - read); --by) {
        const int64_t common = by >= 0 ? std::min(read, sent - by) : std::min(sent, read + by);
        const int64_t same = by >= 0 ? from_first_read[static_cast<size_t>(by)]
                                     : from_first_sent[static_cast<size_t>(-by)];
        if (same < common) continue;
        if (found.common != 0) {  // a few that are the same at the ends are a coincidence
            found.only = found.only && 2 * static_cast<size_t>(common) <= found.common;
            continue;
        }
        found.possible = true;
        found.by = by;
        found.common = static_cast<size_t>(common);
        for (int64_t i = std::max<int64_t>(by, 0); i < std::max<int64_t>(by, 0) + common; ++i) {
            const Message &message = messages[from.sent[static_cast<size_t>(i)]];
            if (!message.timed) continue;
            found.lay += static_cast<int64_t>(messages[to.read[static_cast<size_t>(i - by)]].time -
                                              message.time);
        }
    }
    return found;
}

void Flow::join(Message &sent, Message &read, bool ambiguous) {
    sent.other = static_cast<uint32_t>(&read - messages.data());
    read.other = static_cast<uint32_t>(&sent - messages.data());
    sent.fate = read.fate = ambiguous ? Fate::ambiguous : Fate::joined;
}

void Flow::join(const End &from, const End &to, const Shift &shift, bool ambiguous) {
    if (shift.common == 0) return;
    const auto count = static_cast<int64_t>(to.read.size());
    for (size_t i = 0; i < from.sent.size(); ++i) {
        Message &message = messages[from.sent[i]];
        const int64_t place = static_cast<int64_t>(i) - shift.by;
        if (place >= 0 && place < count) {
            join(message, messages[to.read[static_cast<size_t>(place)]], ambiguous || !shift.only);
        } else if (place < 0) {
            message.fate = Fate::outside;
        } else if (message.fate != Fate::unfinished && message.time < spans[to.trace].end) {
            message.fate = Fate::lost;
        }
    }
    for (int64_t i = 0; i < std::min(-shift.by, count); ++i)
        messages[to.read[static_cast<size_t>(i)]].fate = Fate::outside;
}

// For ends with a gap in the records of one of them, or with more than one process: each reading is
// joined with the next sending of the same bytes that was before it.
void Flow::join_by_bytes(const End &from, const End &to) {
    std::map<uint32_t, std::vector<size_t>> places;  // of each content in from.sent
    for (size_t i = 0; i < from.sent.size(); ++i)
        places[messages[from.sent[i]].content].push_back(i);
    size_t next = 0;
    for (const uint32_t index : to.read) {
        Message &read = messages[index];
        const auto found = places.find(read.content);
        if (found == places.end()) continue;
        const auto place = std::ranges::lower_bound(found->second, next);
        if (place == found->second.end() || messages[from.sent[*place]].sent_after() > read.time)
            continue;
        join(messages[from.sent[*place]], read, found->second.size() > 1);
        next = *place + 1;
    }
}

// The pairings with the most messages in common are the ends of one connection. One that might be
// exchanged for another makes what it joins ambiguous.
void Flow::choose(std::vector<Pairing> &pairings) {
    std::ranges::stable_sort(pairings, [](const Pairing &x, const Pairing &y) {
        return std::pair(y.common(), x.lay()) < std::pair(x.common(), y.lay());
    });
    std::vector<std::vector<const Pairing *>> of(ends.size());
    const auto fits = [](const Pairing &p) {
        return p.ab.possible && p.ba.possible && p.common() != 0;
    };
    const auto is_free = [&](const Pairing &p) {
        return ends[p.a].other == kNone && ends[p.b].other == kNone;
    };
    for (const Pairing &pairing : pairings) {
        of[pairing.a].push_back(&pairing);
        of[pairing.b].push_back(&pairing);
    }
    for (const bool by_order : {true, false}) {
        for (const Pairing &pairing : pairings) {
            if (!is_free(pairing) || fits(pairing) != by_order) continue;
            const auto rivals = [&](const Pairing *other) {
                return other != &pairing && fits(*other) && is_free(*other) &&
                       other->common() == pairing.common();
            };
            const bool ambiguous = std::ranges::any_of(of[pairing.a], rivals) ||
                                   std::ranges::any_of(of[pairing.b], rivals);
            End &a = ends[pairing.a], &b = ends[pairing.b];
            a.other = pairing.b;
            b.other = pairing.a;
            if (by_order) {
                join(a, b, pairing.ab, ambiguous);
                join(b, a, pairing.ba, ambiguous);
            } else {
                join_by_bytes(a, b);
                join_by_bytes(b, a);
            }
        }
    }
}

// Ends that have no message in common. A server accepts in the order of connecting.
void Flow::pair_by_order() {
    std::map<std::string, std::array<std::vector<uint32_t>, 2>> by_path;
    for (uint32_t i = 0; i < ends.size(); ++i) {
        const End &end = ends[i];
        if (end.other != kNone || !end.whole || end.path.empty()) continue;
        by_path[end.path][end.role == End::Role::accepted ? 1 : 0].push_back(i);
    }
    const auto begin = [&](uint32_t i) { return ends[i].begin; };
    for (auto &[path, lists] : by_path) {
        auto &[connected, accepted] = lists;
        std::ranges::stable_sort(connected, {}, begin);
        std::ranges::stable_sort(accepted, {}, begin);
        auto next = connected.begin();
        for (const uint32_t i : accepted) {
            End &end = ends[i];
            // Who had connected when the server's trace began may have been accepted before, too.
            while (next != connected.end() &&
                   (ends[*next].begin < spans[end.trace].begin || !may_be_one(end, ends[*next])))
                ++next;
            if (next == connected.end()) break;
            End &other = ends[*next];
            if (other.begin > end.begin) continue;
            end.other = *next++;
            other.other = i;
        }
    }
}

void Flow::find_peers() {
    for (End &end : ends) {
        const auto process = std::ranges::find(pids, end.peer_pid);
        if (end.other != kNone) {
            end.peer = ends[end.other].trace;
        } else if (end.peer_pid != 0 && process != pids.end()) {
            end.peer = static_cast<uint32_t>(process - pids.begin());
        } else if (const auto server = servers_.find(end.path); end.peer_pid == 0 &&
                                                                end.role == End::Role::connected &&
                                                                server != servers_.end()) {
            end.peer = server->second;
        }
    }
}

// What was sent while the reader's trace runs cannot have been read before it. What was read
// meanwhile can have been sent before the sender's trace, unless the connection is younger.
void Flow::judge(Message &message) const {
    const End &end = ends[message.end];
    if (message.fate != Fate::untraced || end.peer == kNone) return;
    const Span &span = spans[end.peer];
    const bool is_young =
        (end.other != kNone && ends[end.other].whole) ||
        (end.whole && end.role == End::Role::connected && end.begin >= span.begin);
    // Of a process with two traces each may hold what the other one does not.
    const bool is_one = std::ranges::count(pids, pids[end.peer]) == 1;
    const bool known = is_one && span.holds(message.sent_after()) && (message.sent || is_young);
    message.fate = known ? Fate::lost : Fate::outside;
}

}  // namespace trace_reader
