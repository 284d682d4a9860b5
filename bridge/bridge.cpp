#include "bridge/bridge.h"

#include <zmq.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bridge {

namespace {

constexpr char kName[2] = {'Q', 'B'};
constexpr uint8_t kVersion = 1;
static_assert(ZMQ_POLLIN == 1 && ZMQ_POLLOUT == 2, "as Engine has them");
constexpr int kLingerMs = 1000;  // for the last answers
std::function<void()> when_stopped;
bool stopping;

Head swapped(Head head) {
    head.type = htole32(head.type);
    head.first = htole64(head.first);
    head.sequence = htole64(head.sequence);
    head.round = htole64(head.round);
    head.sent = htole64(head.sent);
    return head;
}

}  // namespace

void fail(const char *what, const CL_ErrInfo &err) {
    fprintf(stderr, "qvcl-bridge: %s: %s\n", what, strerror(static_cast<int>(err.err)));
    exit(EXIT_FAILURE);
}

void fail_errno(const char *what) {
    fprintf(stderr, "qvcl-bridge: %s: %s\n", what, zmq_strerror(errno));
    exit(EXIT_FAILURE);
}

void begin(uint32_t objects, std::function<void()> on_stop) {
    CL_ErrInfo err;
    CL_SetLogCallbackFunction([](int, const char *) { return 0; });
    if (!CL_Init(objects, nullptr, &err)) fail("CL_Init", err);
    if (!CL_CreateNest(CL_PRIORITY_FIRST, 0, &err)) fail("CL_CreateNest", err);
    when_stopped = std::move(on_stop);
    const auto on_signal = [](CL_NestSignal *, const signalfd_siginfo *, uint64_t,
                              uint64_t) -> uint32_t {
        if (stopping) return kStop;
        stopping = true;
        when_stopped();
        return verdict;
    };
    for (const int signal : {SIGTERM, SIGINT}) {
        if (CL_CreateNestSignal(signal, on_signal, 0, 0, &err) == nullptr)
            fail("CL_CreateNestSignal", err);
    }
}

void stop_after(uint32_t seconds) {
    CL_ErrInfo err;
    CL_NestTimer *timer = CL_CreateNestTimer(
        0, [](CL_NestTimer *, uint64_t, uint64_t, uint64_t) { return uint32_t{kStop}; }, 0, 0,
        &err);
    CL_StartNestTimer(timer, 0, seconds * 1'000'000'000ul, 0, &err);
}

void end() {
    CL_ErrInfo err;
    if (!CL_DeleteNest(&err)) fail("CL_DeleteNest", err);
    if (!CL_End(&err)) fail("CL_End", err);
}

// --- The engine ---

void Engine::open(int type) {
    const int64_t largest = static_cast<int64_t>(options_.largest) + int64_t{sizeof(Head)};
    const int high_water = static_cast<int>(options_.queue);
    const int on = 1, linger = kLingerMs;
    context_ = zmq_ctx_new();
    socket_ = zmq_socket(context_, type);
    if (socket_ == nullptr) fail_errno("zmq_socket");
    zmq_setsockopt(socket_, ZMQ_MAXMSGSIZE, &largest, sizeof largest);
    zmq_setsockopt(socket_, ZMQ_SNDHWM, &high_water, sizeof high_water);
    zmq_setsockopt(socket_, ZMQ_RCVHWM, &high_water, sizeof high_water);
    zmq_setsockopt(socket_, ZMQ_LINGER, &linger, sizeof linger);
    zmq_setsockopt(socket_, ZMQ_TCP_KEEPALIVE, &on, sizeof on);
    message_ = new zmq_msg_t;
    zmq_msg_init(static_cast<zmq_msg_t *>(message_));
}

// A name that no other sender has, not this program's next run either. With heartbeats a connection
// that is dead without a word is given up in seconds.
void Engine::connect() {
    const int on = 1, beat = 1000, patience = 5000, soon = 100, late = 2000;
    char name[17] = "q";
    open(ZMQ_DEALER);
    if (getentropy(name + 1, sizeof name - 1) != 0) fail_errno("getentropy");
    zmq_setsockopt(socket_, ZMQ_ROUTING_ID, name, sizeof name);
    zmq_setsockopt(socket_, ZMQ_IMMEDIATE, &on, sizeof on);
    zmq_setsockopt(socket_, ZMQ_HEARTBEAT_IVL, &beat, sizeof beat);
    zmq_setsockopt(socket_, ZMQ_HEARTBEAT_TIMEOUT, &patience, sizeof patience);
    zmq_setsockopt(socket_, ZMQ_RECONNECT_IVL, &soon, sizeof soon);
    zmq_setsockopt(socket_, ZMQ_RECONNECT_IVL_MAX, &late, sizeof late);
    if (zmq_connect(socket_, options_.endpoint.c_str()) != 0) fail_errno(options_.endpoint.c_str());
}

void Engine::bind() {
    const int on = 1;
    open(ZMQ_ROUTER);
    zmq_setsockopt(socket_, ZMQ_ROUTER_HANDOVER, &on, sizeof on);
    if (zmq_bind(socket_, options_.endpoint.c_str()) != 0) fail_errno(options_.endpoint.c_str());
}

Engine::~Engine() {
    CL_ErrInfo err;
    if (source_ != nullptr) CL_DeleteSource(source_, &err);
    if (message_ != nullptr) {
        zmq_msg_close(static_cast<zmq_msg_t *>(message_));
        delete static_cast<zmq_msg_t *>(message_);
    }
    if (socket_ != nullptr) zmq_close(socket_);
    if (context_ != nullptr) zmq_ctx_term(context_);
}

// Its descriptor tells of changes only, and any call may have swallowed one: so each turn goes on
// until there is nothing to do, or is due again at once.
void Engine::put_on_loop(std::function<bool()> turn) {
    CL_ErrInfo err;
    turn_ = std::move(turn);
    const auto prepare = [](CL_SourceFD *fds, uint32_t, uint64_t *due, uint64_t arg,
                            uint64_t) -> uint32_t {
        const Engine &self = *reinterpret_cast<Engine *>(arg);
        size_t size = sizeof fds->fd;
        zmq_getsockopt(self.socket_, ZMQ_FD, &fds->fd, &size);
        fds->events = CL_NEST_READ;
        if (self.left_) *due = 0;
        return 1;
    };
    const auto dispatch = [](CL_Source *, int, uint32_t, uint64_t arg, uint64_t) {
        Engine &self = *reinterpret_cast<Engine *>(arg);
        self.left_ = !self.turn_();
        return verdict;
    };
    left_ = true;
    source_ = CL_CreateSource(1, 0, prepare, dispatch, reinterpret_cast<uint64_t>(this), 0, &err);
    if (source_ == nullptr) fail("CL_CreateSource", err);
}

void Engine::have_turn() {
    CL_ErrInfo err;
    const bool before = left_;
    left_ = !turn_();
    if (left_ != before && !CL_UpdateSource(source_, &err)) fail("CL_UpdateSource", err);
}

bool Engine::send(std::string_view peer, const Head &head, std::string_view payload) {
    Head wire = swapped(head);
    memcpy(wire.name, kName, sizeof kName);
    wire.version = kVersion;
    if (!peer.empty() &&
        zmq_send(socket_, peer.data(), peer.size(), ZMQ_DONTWAIT | ZMQ_SNDMORE) < 0)
        return false;
    zmq_msg_t message;
    if (zmq_msg_init_size(&message, sizeof wire + payload.size()) != 0) return false;
    auto *at = static_cast<char *>(zmq_msg_data(&message));
    memcpy(at, &wire, sizeof wire);
    payload.copy(at + sizeof wire, payload.size());
    if (zmq_msg_send(&message, socket_, ZMQ_DONTWAIT) >= 0) return true;
    zmq_msg_close(&message);
    return false;
}

bool Engine::has(int events) const {
    int all = 0;
    size_t size = sizeof all;
    zmq_getsockopt(socket_, ZMQ_EVENTS, &all, &size);
    return (all & events) != 0;
}

bool Engine::receive_part(bool *more) {
    auto *message = static_cast<zmq_msg_t *>(message_);
    if (zmq_msg_recv(message, socket_, ZMQ_DONTWAIT) < 0) return false;
    *more = zmq_msg_more(message) != 0;
    return true;
}

bool Engine::receive(std::string *peer, Frame *frame) {
    auto *message = static_cast<zmq_msg_t *>(message_);
    bool more;
    while (receive_part(&more)) {
        if (peer != nullptr) {
            peer->assign(static_cast<char *>(zmq_msg_data(message)), zmq_msg_size(message));
            if (!more || !receive_part(&more)) continue;
        }
        const std::string_view bytes(static_cast<char *>(zmq_msg_data(message)),
                                     zmq_msg_size(message));
        bool good = !more && bytes.size() >= sizeof(Head);
        if (good) {
            memcpy(&frame->head, bytes.data(), sizeof(Head));
            good = memcmp(frame->head.name, kName, sizeof kName) == 0 &&
                   frame->head.version == kVersion;
        }
        if (good) {
            frame->head = swapped(frame->head);
            frame->payload = bytes.substr(sizeof(Head));
            return true;
        }
        ++refused;
        while (more && receive_part(&more)) {
        }
    }
    return false;
}

}  // namespace bridge
