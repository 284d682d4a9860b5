// The side that delivers: takes the messages of any number of senders, each sender's in order and
// once, and writes them to the local socket. When it holds as much as it may, it reads no more.
#include <cerrno>
#include <cstdio>
#include <deque>
#include <map>
#include <vector>

#include "bridge/bridge.h"

namespace bridge {

namespace {

constexpr uint32_t kMostFrames = 256;         // of a turn
constexpr uint64_t kFirstPause = 50'000'000;  // nanoseconds between attempts to connect
constexpr uint64_t kLongestPause = 1'000'000'000;
constexpr size_t kMostPeers = 1000;

struct Peer {
    uint64_t expected = 0;   // number of its next message; 0: nothing known
    uint64_t delivered = 0;  // up to this
    uint64_t heard = 0;
    uint32_t held = 0;  // messages
    bool owed = false;  // an answer
};

struct Held {
    Peer *peer;
    uint64_t sequence;
    std::vector<uint64_t> block;  // CL_MsgBlock and payload
    int32_t size;
};

class Receiver {
  public:
    explicit Receiver(const Options &options)
        : options_(options), engine_(options), reply_(options.largest / 8 + 1) {}
    int run();

  private:
    bool turn();
    void take(const std::string &name, const Frame &frame);
    void hold(Peer &peer, const Frame &frame);
    Peer &peer_of(const std::string &name);
    void answer();
    bool answer(const std::string &name, Peer &peer, const Head *ping);

    void connect();
    void disconnect();
    void deliver();
    void delivered_one();
    void on_daemon(CL_Event &event);
    void receive_reply();
    void stop();

    const Options &options_;
    Engine engine_;
    std::map<std::string, Peer> peers_;
    uint64_t heard_ = 0;
    std::deque<Held> held_;
    bool lent_ = false;  // the first held to the connection
    bool connected_ = false;
    bool stopping_ = false;
    CL_Object *daemon_ = nullptr;
    CL_NestTimer *again_ = nullptr;
    uint64_t pause_ = kFirstPause;
    std::vector<uint64_t> reply_;
    uint64_t delivered_ = 0, doubled_ = 0;
};

// --- Senders ---

bool Receiver::turn() {
    std::string name;
    Frame frame;
    uint32_t frames = 0;
    while (!stopping_ && frames < kMostFrames && held_.size() < options_.queue &&
           engine_.receive(&name, &frame)) {
        ++frames;
        take(name, frame);
    }
    deliver();
    answer();
    if (stopping_ && held_.empty()) verdict = kStop;
    return stopping_ || held_.size() >= options_.queue || !engine_.is_readable();
}

// Forgets who is silent for longest and has nothing here, when there are too many.
Peer &Receiver::peer_of(const std::string &name) {
    if (peers_.size() >= kMostPeers && !peers_.contains(name)) {
        auto oldest = peers_.end();
        for (auto at = peers_.begin(); at != peers_.end(); ++at) {
            if (at->second.held == 0 &&
                (oldest == peers_.end() || at->second.heard < oldest->second.heard))
                oldest = at;
        }
        if (oldest != peers_.end()) peers_.erase(oldest);
    }
    Peer &peer = peers_[name];
    peer.heard = ++heard_;
    return peer;
}

void Receiver::take(const std::string &name, const Frame &frame) {
    const Head &head = frame.head;
    const bool sound = head.first != 0 && head.sequence >= head.first &&
                       frame.payload.size() <= options_.largest - CL_MSG_HEADER_SIZE;
    if (!sound || (head.kind != kData && head.kind != kPing)) {
        ++engine_.refused;
        return;
    }
    Peer &peer = peer_of(name);
    if (peer.expected < head.first) {
        peer.expected = head.first;
        peer.delivered = head.first - 1;
    }
    if (head.kind == kPing) {
        answer(name, peer, &head);
    } else if (head.sequence == peer.expected) {
        hold(peer, frame);
    } else if (head.sequence < peer.expected) {
        ++doubled_;
        peer.owed = true;
    }  // else something before it is lost, and its sender will notice
}

void Receiver::hold(Peer &peer, const Frame &frame) {
    const size_t size = sizeof(CL_MsgBlock) + frame.payload.size();
    Held &held = held_.emplace_back(Held{
        &peer, peer.expected++, std::vector<uint64_t>(size / 8 + 1), static_cast<int32_t>(size)});
    auto *block = reinterpret_cast<CL_MsgBlock *>(held.block.data());
    block->header.type = frame.head.type;
    memcpy(block + 1, frame.payload.data(), frame.payload.size());
    ++peer.held;
}

bool Receiver::answer(const std::string &name, Peer &peer, const Head *ping) {
    Head head = {.kind = kAnswer, .first = peer.delivered, .sequence = peer.expected - 1};
    if (ping != nullptr) {
        head.round = ping->round;
        head.sent = ping->sequence;
    }
    return engine_.send(name, head);
}

// An answer that cannot be sent is not needed: the next one, at the latest that to a ping, says it.
void Receiver::answer() {
    for (auto &[name, peer] : peers_) {
        if (peer.owed) answer(name, peer, nullptr);
        peer.owed = false;
    }
}

// --- The local daemon ---

void Receiver::connect() {
    CL_ErrInfo err;
    connected_ = CL_CnctMSGC(daemon_, options_.path.c_str(), CL_MODE_SYNC, &err) != 0 &&
                 CL_AddEventList(daemon_, 50, &err);
    if (!connected_) return disconnect();
    pause_ = kFirstPause;
    receive_reply();
    engine_.have_turn();
}

// And tries again later. What is held stays, the first message from its beginning.
void Receiver::disconnect() {
    CL_ErrInfo err;
    CL_DelEventList(daemon_, &err);
    CL_DiscMSGC(daemon_, nullptr, nullptr, &err);
    connected_ = lent_ = false;
    if (!CL_StartNestTimer(again_, 0, pause_, 0, &err)) fail("CL_StartNestTimer", err);
    pause_ = pause_ * 2 < kLongestPause ? pause_ * 2 : kLongestPause;
}

// A receive notices when the daemon is gone. What it replies, nobody has asked for.
void Receiver::receive_reply() {
    CL_ErrInfo err;
    CL_RecvMSGC(daemon_, reply_.data(), static_cast<int32_t>(options_.largest), CL_MODE_DEFERRED, 0,
                &err);
    if (err.err != CL_ERR_IN_PROGRESS) disconnect();
}

void Receiver::delivered_one() {
    Held &held = held_.front();
    held.peer->delivered = held.sequence;
    held.peer->owed = true;
    --held.peer->held;
    held_.pop_front();
    ++delivered_;
}

void Receiver::deliver() {
    CL_ErrInfo err;
    while (connected_ && !lent_ && !held_.empty()) {
        auto *block = reinterpret_cast<CL_MsgBlock *>(held_.front().block.data());
        block->link = {};
        block->sent = 0;
        if (CL_SendMSGC(daemon_, block, held_.front().size, CL_MODE_IMMEDIATE, 0, &err) >= 0) {
            delivered_one();
        } else if (err.err == CL_ERR_IN_PROGRESS) {
            lent_ = true;
        } else {
            disconnect();
        }
    }
}

void Receiver::on_daemon(CL_Event &event) {
    switch (event.type) {
        case CL_EVENT_MESSAGE:
            return receive_reply();
        case CL_EVENT_SENT:
            lent_ = false;
            delivered_one();
            return engine_.have_turn();
        default:
            CL_QUE_Clear(&event.queue);
            disconnect();
    }
}

// --- Its life ---

void Receiver::stop() {
    stopping_ = true;
    if (held_.empty()) {
        verdict = kStop;
        return;
    }
    stop_after(options_.linger);
}

int Receiver::run() {
    CL_ErrInfo err;
    begin(2, [this] { stop(); });
    engine_.bind();
    const auto callback = [](CL_Object *, CL_Event *event, uint64_t self, uint64_t) {
        reinterpret_cast<Receiver *>(self)->on_daemon(*event);
        return verdict;
    };
    const auto on_again = [](CL_NestTimer *, uint64_t, uint64_t self, uint64_t) {
        reinterpret_cast<Receiver *>(self)->connect();
        return verdict;
    };
    const auto self = reinterpret_cast<uint64_t>(this);
    daemon_ = CL_CreateFD(CL_KIND_MSGC, callback, self, 0, &err);
    again_ = CL_CreateNestTimer(0, on_again, self, 0, &err);
    if (daemon_ == nullptr || again_ == nullptr) fail("CL_CreateFD", err);
    engine_.put_on_loop([this] { return turn(); });
    if (!CL_StartNestTimer(again_, 0, 0, 0, &err)) fail("CL_StartNestTimer", err);

    if (CL_EventLoop(&err) == CL_LOOP_ERROR) fail("CL_EventLoop", err);
    answer();
    CL_DeleteFD(daemon_, &err);
    fprintf(stderr,
            "qvcl-bridge: delivered %lu messages, not delivered %zu, doubles dropped %lu, "
            "frames refused %lu\n",
            delivered_, held_.size(), doubled_, engine_.refused);
    return held_.empty() ? 0 : 1;
}

}  // namespace

int run_receiver(const Options &options) {
    return Receiver(options).run();
}

}  // namespace bridge
