// The side that accepts: listens at the local socket, keeps what its clients send until the other
// side has delivered it. When it keeps as much as it may, it reads no more, and its clients wait.
#include <cerrno>
#include <cstdio>
#include <deque>
#include <list>
#include <vector>

#include "bridge/bridge.h"

namespace bridge {

namespace {

constexpr uint64_t kPingEvery = 250'000'000;  // nanoseconds, while something is kept
constexpr uint32_t kUnanswered = 4;           // pings; then only every kSeldom-th time
constexpr uint32_t kSeldom = 8;
constexpr uint32_t kMostAnswers = 256;  // of a turn

struct Client {
    CL_Object *connection = nullptr;
    std::vector<uint64_t> buffer;  // aligned as a header
    bool receiving = false;        // with room for its message
};

struct Message {
    uint32_t type;
    std::string payload;
};

class Sender {
  public:
    explicit Sender(const Options &options) : options_(options), engine_(options) {}
    int run();

  private:
    void listen();
    void accept();
    void rest();
    void on_client(Client &client, CL_Event &event);
    void receive(Client &client);
    void drop(Client &client);
    void let_go_on();
    void stop();

    bool turn();
    void take(const Head &answer);
    void ping();

    uint64_t next() const { return first_ + kept_.size(); }

    const Options &options_;
    Engine engine_;
    CL_Object *server_ = nullptr;
    bool accepting_ = false;
    bool stopping_ = false;
    std::list<Client> clients_;
    std::deque<Client *> waiting_;  // for room
    size_t receiving_ = 0;

    std::deque<Message> kept_;  // accepted, not known to be delivered
    uint64_t first_ = 1;        // number of the first kept
    uint64_t sent_ = 1;         // number of the next to send
    uint64_t round_ = 0;
    uint32_t unanswered_ = 0;
};

// --- Clients ---

void Sender::listen() {
    CL_ErrInfo err;
    const auto on_waiting = [](CL_Object *, CL_Event *, uint64_t self, uint64_t) {
        reinterpret_cast<Sender *>(self)->accept();
        return verdict;
    };
    server_ = CL_CreateFD(CL_KIND_MSGS, on_waiting, reinterpret_cast<uint64_t>(this), 0, &err);
    if (server_ == nullptr || !CL_OpenMSGS(server_, options_.path.c_str(), 128, &err))
        fail(options_.path.c_str(), err);
    rest();
}

// Lists the server, or takes it off, as there is room for another client.
void Sender::rest() {
    CL_ErrInfo err;
    const bool room = clients_.size() < options_.clients;
    if (room == accepting_) return;
    if ((room ? CL_AddEventList(server_, 60, &err) : CL_DelEventList(server_, &err)) == 0)
        fail("the local server", err);
    accepting_ = room;
}

void Sender::accept() {
    CL_ErrInfo err;
    const auto callback = [](CL_Object *, CL_Event *event, uint64_t self, uint64_t client) {
        reinterpret_cast<Sender *>(self)->on_client(*reinterpret_cast<Client *>(client), *event);
        return verdict;
    };
    Client &client = clients_.emplace_back();
    client.buffer.resize(options_.largest / 8 + 1);
    client.connection = CL_AcceptMSGS(server_, callback, reinterpret_cast<uint64_t>(this),
                                      reinterpret_cast<uint64_t>(&client), &err);
    if (client.connection == nullptr) {
        clients_.pop_back();
        if (err.err != EAGAIN)
            fprintf(stderr, "qvcl-bridge: a client is refused: error %u\n", err.err);
        return;
    }
    if (!CL_AddEventList(client.connection, 50, &err)) fail("CL_AddEventList", err);
    rest();
    receive(client);
}

void Sender::receive(Client &client) {
    CL_ErrInfo err;
    if (kept_.size() + receiving_ >= options_.queue) {
        waiting_.push_back(&client);
        return;
    }
    CL_RecvMSGC(client.connection, client.buffer.data(), static_cast<int32_t>(options_.largest),
                CL_MODE_DEFERRED, 0, &err);
    client.receiving = err.err == CL_ERR_IN_PROGRESS;
    if (!client.receiving) return drop(client);
    ++receiving_;
}

void Sender::on_client(Client &client, CL_Event &event) {
    if (client.receiving) --receiving_;
    client.receiving = false;
    if (event.type != CL_EVENT_MESSAGE) return drop(client);
    const auto *header = reinterpret_cast<const CL_MsgHeader *>(client.buffer.data());
    kept_.push_back({header->type,
                     {reinterpret_cast<const char *>(header + 1),
                      static_cast<size_t>(event.length) - CL_MSG_HEADER_SIZE}});
    receive(client);
    engine_.have_turn();
}

void Sender::drop(Client &client) {
    CL_ErrInfo err;
    if (!CL_DeleteFD(client.connection, &err)) fail("CL_DeleteFD", err);
    std::erase(waiting_, &client);
    clients_.remove_if([&](const Client &one) { return &one == &client; });
    rest();
    let_go_on();
}

void Sender::let_go_on() {
    while (!waiting_.empty() && kept_.size() + receiving_ < options_.queue) {
        Client &client = *waiting_.front();
        waiting_.pop_front();
        receive(client);
    }
}

// --- The other side ---

bool Sender::turn() {
    Frame frame;
    uint32_t answers = 0;
    while (answers < kMostAnswers && engine_.receive(nullptr, &frame)) {
        ++answers;
        if (frame.head.kind == kAnswer) take(frame.head);
    }
    while (sent_ < next()) {
        const Message &message = kept_[sent_ - first_];
        const Head head = {.kind = kData, .type = message.type, .first = first_, .sequence = sent_};
        if (!engine_.send({}, head, message.payload)) break;
        ++sent_;
    }
    if (stopping_) {
        verdict = kept_.empty() ? kStop : kGoOn;
    } else if (answers != 0) {
        let_go_on();
    }
    return !engine_.is_readable() && (sent_ == next() || !engine_.is_writable());
}

void Sender::take(const Head &answer) {
    unanswered_ = 0;
    if (answer.first >= next() || answer.sequence >= next()) return;  // not about ours
    while (first_ <= answer.first) {
        kept_.pop_front();
        ++first_;
    }
    if (answer.sent != 0 && answer.round == round_ && answer.sequence + 1 < answer.sent) {
        sent_ = answer.sequence + 1;
        ++round_;
    }
    if (sent_ < first_) sent_ = first_;
}

void Sender::ping() {
    if (kept_.empty()) return;
    if (++unanswered_ > kUnanswered && unanswered_ % kSeldom != 0) return;
    engine_.send({}, {.kind = kPing, .first = first_, .sequence = sent_, .round = round_});
    engine_.have_turn();
}

// --- Its life ---

void Sender::stop() {
    CL_ErrInfo err;
    stopping_ = true;
    waiting_.clear();
    for (Client &client : clients_)
        CL_DeleteFD(client.connection, &err);
    clients_.clear();
    CL_DeleteFD(server_, &err);
    if (kept_.empty()) {
        verdict = kStop;
        return;
    }
    stop_after(options_.linger);
}

int Sender::run() {
    CL_ErrInfo err;
    begin(options_.clients + 2, [this] { stop(); });
    engine_.connect();
    listen();
    engine_.put_on_loop([this] { return turn(); });
    const auto on_timer = [](CL_NestTimer *, uint64_t, uint64_t self, uint64_t) {
        reinterpret_cast<Sender *>(self)->ping();
        return verdict;
    };
    CL_NestTimer *timer =
        CL_CreateNestTimer(0, on_timer, reinterpret_cast<uint64_t>(this), 0, &err);
    if (timer == nullptr || !CL_StartNestTimer(timer, 0, kPingEvery, kPingEvery, &err))
        fail("a nest timer", err);

    if (CL_EventLoop(&err) == CL_LOOP_ERROR) fail("CL_EventLoop", err);
    if (!stopping_) stop();
    fprintf(stderr,
            "qvcl-bridge: accepted %lu messages, delivered %lu, not known to be delivered %zu\n",
            next() - 1, first_ - 1, kept_.size());
    return kept_.empty() ? 0 : 1;
}

}  // namespace

int run_sender(const Options &options) {
    return Sender(options).run();
}

}  // namespace bridge
