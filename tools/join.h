// The messages of several traces: which sending and which reading are the same message.
//
// A trace tells of its own end of a connection only, and no record names the other one. So the ends
// are joined first, then the messages of both in their order. A connection loses nothing and keeps
// the order, and a ring holds what happened last without a gap: the n-th message that was read is
// therefore the n-th or (n + k)-th that was sent, with the same k for all messages of a direction.
// Where both traces hold the beginning of the connection k is 0; else bytes and times determine it.
// A message counts as lost only where the other trace would have to hold its other end.
#pragma once

#include <qvcl/message.h>

#include <array>
#include <map>

#include "tools/records.h"

namespace trace_reader {

enum class Fate {
    joined,
    ambiguous,   // joined, but another way to join it fits as well
    lost,        // its other end would have to be in the other trace, and is not
    outside,     // its other end may lie before the beginning or after the end of the other trace
    unfinished,  // the call that sends it failed midway, or has not returned
    untraced     // the trace of the process at the other end is not given, or it is not known which
};

// One end of a message: its sending, or its reading.
struct Message {
    // The header and the first bytes of the payload, as many as both ends record.
    std::array<uint8_t, sizeof(CL_MsgHeader) + 16> bytes{};
    uint64_t time = 0;       // when the call that sends it began, or when it had been read
    uint32_t content = 0;    // the same number stands for the same bytes
    uint32_t end = 0;        // the end of the connection
    uint32_t record = 0;     // the told record of the call or the callback
    uint32_t other = kNone;  // the other end of the message
    bool sent = false;
    bool timed = true;     // false: the beginning of the call that sent it is not in the trace
    bool at_exit = false;  // it had been read at the end of the call, not at the beginning
    Fate fate = Fate::untraced;

    // What is known of when it was sent: a call whose beginning is lost began at any time before.
    uint64_t sent_after() const { return timed ? time : 0; }
    CL_MsgHeader header() const { return load<CL_MsgHeader>(bytes, 0); }
};

// One end of a connection.
struct End {
    enum class Role { unknown, connected, accepted };

    uint32_t trace = 0;
    uint64_t handle = 0;
    Role role = Role::unknown;
    bool whole = false;                // its beginning is in the trace
    uint64_t begin = 0;                // when connecting began, or accepting ended
    std::string path;                  // of the server's socket, as far as it is known
    std::vector<uint32_t> sent, read;  // messages in their order
    uint64_t peer_pid = 0;             // the sender of what it read
    uint32_t peer = kNone;             // trace of the process at the other end
    uint32_t other = kNone;            // the other end
};

class Flow {
  public:
    // What a trace covers: what happened in between has left a record in it. What happened in the
    // first or the last microsecond may have been before or after it.
    struct Span {
        uint64_t begin = UINT64_MAX, end = 0;
        bool holds(uint64_t time) const { return time > begin && time < end; }
    };

    // traces[i] is that of dumps[i], at least of its library ring; the dumps are with objects.
    Flow(std::span<const Dump> dumps, std::span<const Trace> traces);

    static bool is_joined(const Message &message) { return message.other != kNone; }
    // Microseconds between the sending and the reading of a joined message.
    std::optional<int64_t> lay(const Message &message) const;

    std::vector<Message> messages;  // in order of the traces and their records
    std::vector<End> ends;
    std::vector<Span> spans;     // by trace
    std::vector<uint64_t> pids;  // by trace; 0 when it is not known

  private:
    friend class Gathering;
    struct Shift;
    struct Pairing;

    std::vector<uint32_t> number_contents();
    std::vector<Pairing> pairings(const std::vector<uint32_t> &order) const;
    bool may_be_one(const End &a, const End &b) const;
    std::pair<int64_t, int64_t> bounds(const End &from, const End &to) const;
    Shift shift(const End &from, const End &to) const;
    void choose(std::vector<Pairing> &pairings);
    void join(const End &from, const End &to, const Shift &shift, bool ambiguous);
    void join_by_bytes(const End &from, const End &to);
    void join(Message &sent, Message &read, bool ambiguous);
    void pair_by_order();
    void find_peers();
    void judge(Message &message) const;

    std::map<std::string, uint32_t> servers_;  // trace of the process that listens at a path
};

}  // namespace trace_reader
