// Channels against a model of them: random use in every callback, bytes that come and go in any
// pieces; then the library's own connections as the other side, bytes that are no messages, other
// sides that are slow, silent or killed.
#include <qvcl/channel.h>
#include <qvcl/client.h>
#include <qvcl/nest.h>
#include <qvcl/server.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <csignal>
#include <deque>
#include <memory>

#include "tests/wire.h"

using test::address;
using test::Balance;
using test::FailsWith;
using test::Socket;
using testing::AnyOf;
using testing::ElementsAre;

namespace {

constexpr uint32_t kOver = 77;
constexpr uint32_t kIterated = 99;  // the fixture ends each iteration of the loop

std::string bytes_of(const CL_MsgHeader *message) {
    EXPECT_EQ(address(message) % 8, 0u);
    return {reinterpret_cast<const char *>(message), message->length};
}

std::string own_message(std::string_view payload, uint32_t type) {
    return test::wire_header(static_cast<uint32_t>(payload.size()) + 16, 0x00010001, type,
                             static_cast<uint32_t>(getpid())) +
           std::string(payload);
}

// A channel whose callbacks are functions, over one end of a socketpair.
struct Line {
    std::function<uint32_t(const CL_MsgHeader *)> on_message = [this](const CL_MsgHeader *message) {
        heard.push_back(bytes_of(message));
        return 0u;
    };
    std::function<uint32_t()> on_drained = [this] { return ++drained, 0u; };
    std::function<uint32_t(const CL_ErrInfo &)> on_closed = [this](const CL_ErrInfo &why) {
        reason = why.err;
        return kOver;
    };
    CL_Channel *handle = nullptr;
    Socket raw;  // the other end
    std::vector<std::string> heard;
    int drained = 0;
    uint32_t reason = 0;

    static CL_ChannelOptions options() {
        CL_ChannelOptions made = {};
        made.message = [](CL_Channel *, const CL_MsgHeader *message, uint64_t self, uint64_t) {
            return reinterpret_cast<Line *>(self)->on_message(message);
        };
        made.drained = [](CL_Channel *, uint64_t self, uint64_t) {
            return reinterpret_cast<Line *>(self)->on_drained();
        };
        made.closed = [](CL_Channel *channel, const CL_ErrInfo *why, uint64_t self, uint64_t) {
            auto *line = reinterpret_cast<Line *>(self);
            EXPECT_EQ(channel, line->handle);
            return line->on_closed(*why);
        };
        return made;
    }
    void open(const CL_ChannelOptions &with = options()) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        raw = Socket(ends[1]);
        handle = CL_CreateChannel(ends[0], &with, address(this), 0, &err);
        ASSERT_NE(handle, nullptr) << err;
    }
    uint32_t send(std::string_view payload, uint32_t type = 7) {
        return CL_SendChannel(handle, type, payload.data(), static_cast<uint32_t>(payload.size()),
                              &err);
    }
    CL_ErrInfo err = {};
};

class Channel : public test::Messaging {
  protected:
    void SetUp() override {
        Messaging::SetUp();
        ASSERT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err), 1u) << err;
    }
    void TearDown() override {
        CL_DeleteNest(nullptr);
        Messaging::TearDown();
    }
    // Goes on until a callback ends the loop.
    void run(uint32_t expected = kOver) {
        uint32_t result;
        do {
            result = CL_EventLoop(&err);
        } while (result == kIterated);
        EXPECT_EQ(result, expected) << err;
    }
};

// ---- The model

struct Modelled : Line {
    uint32_t longest = 0;             // payload either way
    std::string to_write;             // the raw end's
    std::deque<std::string> to_hear;  // begun to be written, or not yet
    uint64_t unwritten = 0;           // bytes of to_hear that the raw end has not written
    std::string to_read;              // accepted from the channel, not yet read
    bool paused = false;
    bool refused = false;
};

class Model {
  public:
    explicit Model(test::Random &random) : random_(random) {}
    void run(uint32_t turns);

  private:
    uint32_t below(uint32_t bound) { return random_.below(bound); }
    void make();
    void drop(Modelled &line);
    void act_on(Modelled &line);
    uint32_t act();
    uint32_t drive();
    void leave(Modelled &line);
    void settle(Modelled &line);

    test::Random &random_;
    CL_ErrInfo err_ = {};
    std::vector<std::unique_ptr<Modelled>> lines_, gone_;
    uint32_t left_ = 0, told_ = 0, ended_ = 0;
    bool settles_ = false;
};

void Model::make() {
    auto &line = *lines_.emplace_back(std::make_unique<Modelled>());
    CL_ChannelOptions options = Line::options();
    options.receive_size = 16 + below(300);
    options.send_size = 16 + below(300);
    options.most = below(6);
    options.priority = below(3);
    options.idle_limit = below(2) * 3'600'000'000'000;
    line.longest = std::min(options.receive_size, options.send_size) - 16;
    line.on_message = [this, &line](const CL_MsgHeader *message) {
        const std::string bytes = bytes_of(message);
        EXPECT_FALSE(line.paused);
        EXPECT_FALSE(line.to_hear.empty());
        if (line.to_hear.empty()) return kOver;
        EXPECT_EQ(bytes, line.to_hear.front());
        line.to_hear.pop_front();
        ++told_;
        const uint32_t result = act();
        EXPECT_EQ(bytes_of(message), bytes) << "not valid during the call";
        return result;
    };
    line.on_drained = [this, &line] {
        EXPECT_TRUE(std::exchange(line.refused, false));
        return act();
    };
    line.on_closed = [this, &line](const CL_ErrInfo &why) {
        EXPECT_THAT(why.err, AnyOf(uint32_t{EPIPE}, uint32_t{ECONNRESET}));
        EXPECT_EQ(line.raw.fd(), -1);
        EXPECT_FALSE(line.paused);
        EXPECT_TRUE(line.to_hear.empty()) << line.to_hear.size();
        const uint32_t result = act();
        if (line.handle != nullptr) drop(line);
        return result;
    };
    line.open(options);
}

void Model::drop(Modelled &line) {
    EXPECT_EQ(CL_DeleteChannel(line.handle, &err_), 1u) << err_;
    line.handle = nullptr;
    for (auto &one : lines_) {
        if (one.get() == &line) {
            std::swap(one, lines_.back());
            break;
        }
    }
    gone_.push_back(std::move(lines_.back()));  // its callback may run
    lines_.pop_back();
}

// The raw end goes; what it has not written completely is not heard of.
void Model::leave(Modelled &line) {
    while (line.unwritten != 0) {
        line.unwritten -= std::min<uint64_t>(line.unwritten, line.to_hear.back().size());
        line.to_hear.pop_back();
    }
    line.to_write.clear();
    line.raw.close();
}

void Model::act_on(Modelled &line) {
    const bool connected = line.raw.fd() != -1;
    const std::string payload = test::pattern(below(line.longest + 1), below(1000));
    switch (below(12)) {
        case 0:
        case 1:
            if (!connected) return;
            line.to_hear.push_back(test::wire_message(payload));
            line.to_write += line.to_hear.back();
            line.unwritten += line.to_hear.back().size();
            return;
        case 2:
        case 3:
        case 4: {
            const size_t size = std::min<size_t>(line.to_write.size(), below(400));
            if (!connected || size == 0) return;
            const ssize_t done = send(line.raw.fd(), line.to_write.data(), size, MSG_DONTWAIT);
            if (done <= 0) return;
            line.to_write.erase(0, static_cast<size_t>(done));
            line.unwritten -= static_cast<uint64_t>(done);
            return;
        }
        case 5:
        case 6: {
            if (!connected) return;
            const std::string got = line.raw.receive(below(600));
            EXPECT_EQ(got, line.to_read.substr(0, got.size()));
            line.to_read.erase(0, got.size());
            return;
        }
        case 7: {  // refused where the end is only not told yet
            const bool pause = below(3) == 0;
            if ((pause ? CL_PauseChannel_M : CL_ResumeChannel_M)(line.handle, &err_, 0, "", 0) != 0)
                line.paused = pause;
            return;
        }
        case 8:
            CL_FlushChannel(line.handle, &err_);
            return;
        default:
            if (line.send(payload) != 0) {
                line.to_read += own_message(payload, 7);
            } else if (line.err.err == EAGAIN) {
                line.refused = true;
            } else {
                EXPECT_FALSE(connected) << line.err;
            }
    }
}

uint32_t Model::act() {
    for (uint32_t n = below(4); n != 0 && !lines_.empty(); --n) {
        Modelled &line = *lines_[below(static_cast<uint32_t>(lines_.size()))];
        if (below(200) == 0) {
            drop(line);
        } else if (below(200) == 0) {
            leave(line);
        } else {
            act_on(line);
        }
    }
    return below(60) == 0 ? ended_ = 1000 + below(1000) : 0;
}

void Model::settle(Modelled &line) {
    if (line.raw.fd() == -1) return;
    line.raw.send(std::exchange(line.to_write, {}));
    const std::string got = line.raw.receive();
    EXPECT_EQ(got, line.to_read.substr(0, got.size()));
    line.to_read.erase(0, got.size());
}

uint32_t Model::drive() {
    gone_.clear();
    if (settles_) {
        for (const auto &line : lines_)
            settle(*line);
        return --left_ == 0 ? kOver : 0;
    }
    while (lines_.size() < 6)
        make();
    if (--left_ == 0) return ended_ = kOver;
    if (below(3000) == 0) {
        for (const auto &line : lines_)
            leave(*line);
        EXPECT_EQ(CL_DeleteNest(&err_), 1u) << err_;
        return ended_ = 1;
    }
    return act();
}

void Model::run(uint32_t turns) {
    const auto drive_it = [](CL_NestWatch *, uint32_t, uint64_t self, uint64_t) {
        return reinterpret_cast<Model *>(self)->drive();
    };
    left_ = turns;
    const Socket always(eventfd(1, EFD_CLOEXEC));
    for (uint32_t result = 1; result != kOver && !testing::Test::HasFailure();) {
        if (result == 1) {  // a new nest
            CL_CreateNest(CL_PRIORITY_FIRST, 0, &err_);
            ASSERT_NE(
                CL_CreateNestWatch(always.fd(), CL_NEST_READ, 1, drive_it, address(this), 0, &err_),
                nullptr)
                << err_;
            while (!lines_.empty())
                drop(*lines_.back());
        }
        result = CL_EventLoop(&err_);
        if (result != kIterated) {
            EXPECT_EQ(result, ended_) << err_;
        }
    }
    // What both sides have said arrives when nobody stands in the way any more.
    for (const auto &line : lines_) {
        CL_ResumeChannel(line->handle, &err_);
        line->on_drained = [] { return 0u; };
        line->on_message = [&line](const CL_MsgHeader *message) {
            EXPECT_EQ(bytes_of(message), line->to_hear.front());
            line->to_hear.pop_front();
            return 0u;
        };
        line->on_closed = [](const CL_ErrInfo &) { return 0u; };
    }
    settles_ = true;
    left_ = 1000;
    while (CL_EventLoop(&err_) == kIterated) {
    }
    for (const auto &line : lines_) {
        EXPECT_TRUE(line->to_hear.empty()) << line->to_hear.size();
        EXPECT_TRUE(line->raw.fd() == -1 || line->to_read.empty()) << line->to_read.size();
        EXPECT_EQ(CL_DeleteChannel(line->handle, &err_), 1u) << err_;
    }
    EXPECT_GT(told_, turns / 100);
}

TEST_F(Channel, DoesWhatItsModelSays) {
    test::Random random;
    CL_DeleteNest(&err);
    const Balance start = Balance::now();
    Model(random).run(60'000);
    CL_DeleteNest(&err);
    EXPECT_EQ(Balance::now(), start);
}

// ---- The library's own connections as the other side

// Echoes what comes, and says so; the listener accepts one.
uint32_t accept_echo(CL_ChannelListener *listener, uint64_t self, uint64_t) {
    CL_ErrInfo err;
    auto *line = reinterpret_cast<Line *>(self);
    const CL_ChannelOptions options = Line::options();
    line->handle = CL_AcceptChannel(listener, &options, self, 0, &err);
    EXPECT_NE(line->handle, nullptr) << err;
    EXPECT_EQ(CL_AcceptChannel(listener, &options, self, 0, &err), nullptr);
    EXPECT_EQ(err.err, static_cast<uint32_t>(EAGAIN));
    line->on_message = [line](const CL_MsgHeader *message) {
        line->heard.push_back(bytes_of(message));
        EXPECT_EQ(line->send({reinterpret_cast<const char *>(message + 1), message->length - 16},
                             message->type + 1),
                  1u);
        return 0u;
    };
    return 0;
}

TEST_F(Channel, ServesMessageClientsAndOtherChannels) {
    Line server;
    server.on_closed = [&server](const CL_ErrInfo &why) {
        server.reason = why.err;
        return CL_DeleteChannel(server.handle, nullptr) != 0 ? 0u : 1u;
    };
    const std::string at = folder.path("channel");
    CL_ChannelListener *served =
        CL_CreateChannelListener(at.c_str(), 4, 0, accept_echo, address(&server), 0, &err);
    ASSERT_NE(served, nullptr) << err;
    Line client;
    const CL_ChannelOptions options = Line::options();
    client.handle = CL_ConnectChannel(at.c_str(), &options, address(&client), 0, &err);
    ASSERT_NE(client.handle, nullptr) << err;
    client.on_message = [&](const CL_MsgHeader *message) {
        client.heard.push_back(bytes_of(message));
        return client.heard.size() == 100 ? kOver : 0u;
    };
    std::vector<std::string> expected;
    for (uint32_t i = 0; i < 100; ++i) {
        ASSERT_EQ(client.send(test::pattern(i, i), 10), 1u) << client.err;
        expected.push_back(own_message(test::pattern(i, i), 11));
    }
    run();
    EXPECT_EQ(client.heard, expected);
    CL_ChannelPeer who = {};
    EXPECT_EQ(CL_GetChannelPeer(server.handle, &who, &err), 1u) << err;
    EXPECT_EQ(who.pid, getpid());
    EXPECT_EQ(who.uid, getuid());
    CL_DeleteChannel(client.handle, &err);

    server.heard.clear();
    CL_Object *object = make(CL_KIND_MSGC);
    ASSERT_EQ(CL_CnctMSGC(object, at.c_str(), CL_MODE_SYNC, &err), 1u) << err;
    list(object);
    test::Block block(33);
    reply = [](CL_Object *, CL_Event *event) {
        return event->type == CL_EVENT_MESSAGE ? kOver : 0u;
    };
    for (uint32_t i = 1; i <= 3; ++i) {
        await(object);
        EXPECT_EQ(CL_SendMSGC(object, block.get(), block.size(), CL_MODE_DEFERRED, 0, &err), -1);
        run();
        EXPECT_EQ(server.heard.size(), i);
        EXPECT_EQ(server.heard.back(), block.message());
        EXPECT_EQ(received().substr(16, 33), block.message().substr(16));
    }
    disconnect(object);
    CL_DeleteFD(object, &err);
    EXPECT_EQ(CL_DeleteChannelListener(served, &err), 1u) << err;
    EXPECT_EQ(access(at.c_str(), F_OK), -1);
    CL_DeleteChannel(server.handle, &err);
}

TEST_F(Channel, ConnectsToAMessageServer) {
    const std::string at = folder.path("server");
    CL_Object *server = make(CL_KIND_MSGS);
    ASSERT_EQ(CL_OpenMSGS(server, at.c_str(), 4, &err), 1u) << err;
    list(server);
    const CL_ChannelOptions options = Line::options();
    Line client;
    client.handle = CL_ConnectChannel(at.c_str(), &options, address(&client), 0, &err);
    ASSERT_NE(client.handle, nullptr) << err;
    EXPECT_EQ(client.send("hello"), 1u);
    std::vector<std::string> got;
    test::Block block(21);
    reply = [&](CL_Object *object, CL_Event *event) {
        if (event->type == CL_EVENT_CONNECTION) {
            CL_Object *accepted = CL_AcceptMSGS(object, test::call_action, keeper(), 0, &err);
            list(accepted);
            await(accepted);
        } else if (event->type == CL_EVENT_MESSAGE) {
            got.push_back(received().substr(0, 21));
            CL_SendMSGC(object, block.get(), block.size(), CL_MODE_DEFERRED, 0, &err);
        } else if (event->type == CL_EVENT_SENT) {
            CL_DeleteFD(object, &err);
        }
        return 0u;
    };
    run();
    EXPECT_THAT(got, ElementsAre(own_message("hello", 7)));
    EXPECT_THAT(client.heard, ElementsAre(block.message()));
    EXPECT_EQ(client.reason, static_cast<uint32_t>(EPIPE));
    EXPECT_EQ(client.send("x"), 0u);
    EXPECT_THAT(client.err, FailsWith(EBADF, CL_MODULE_CHANNEL));
    CL_DeleteChannel(client.handle, &err);
}

// ---- Other sides that do not behave

TEST_F(Channel, RefusesWhatAMessageConnectionRefuses) {
    test::Random random;
    const uint32_t lengths[] = {0, 15, 16, 17, 64, 65, 66, 0x7fffffff, 0x80000000, 0xffffffff};
    const std::string good = test::wire_message("good");
    for (int round = 0; round < 100; ++round) {
        const uint32_t length = lengths[random.below(std::size(lengths))];
        const uint32_t version = random.below(3) == 0 ? 0x00010002 : 0x00010001;
        const std::string bytes =
            (test::wire_header(length, version) + test::pattern(60)).substr(0, random.below(60));
        SCOPED_TRACE(testing::Message() << length << " " << version << " " << bytes.size());
        Line line;
        CL_ChannelOptions options = Line::options();
        options.receive_size = kCapacity;
        line.open(options);
        line.raw.send(good + bytes);
        line.raw.close();
        run();
        ASSERT_FALSE(line.heard.empty());
        EXPECT_EQ(line.heard[0], good);
        CL_DeleteChannel(line.handle, &err);

        CL_Object *object = connect();
        list(object);
        heard.clear();
        peer.send(good + bytes);
        peer.close();
        uint32_t reason = 0;
        reply = [&](CL_Object *same, CL_Event *event) {
            if (event->type == CL_EVENT_MESSAGE) return await(same), 0u;
            reason = event->error.err;
            CL_DeleteFD(same, &err);
            return kOver;
        };
        await(object);
        run();
        EXPECT_EQ(line.reason, reason);
        EXPECT_EQ(line.heard.size() + 1, heard.size());
    }
}

TEST_F(Channel, WaitsForASlowReader) {
    Line line;
    line.open();
    const std::string payload = test::pattern(1000);
    size_t sent = 0;
    while (line.send(payload) != 0)
        ++sent;
    EXPECT_THAT(line.err, FailsWith(EAGAIN, CL_MODULE_CHANNEL));
    EXPECT_LT(sent, 1000u) << "no bound";
    EXPECT_EQ(CL_FlushChannel(line.handle, &err), 0u);
    EXPECT_THAT(err, FailsWith(EAGAIN, CL_MODULE_CHANNEL));
    line.on_drained = [&] { return ++line.drained, kOver; };
    std::string got;
    std::function<uint32_t()> reader = [&] { return got += line.raw.receive(3000), 0u; };
    CL_NestTimer *reads = CL_CreateNestTimer(
        0,
        [](CL_NestTimer *, uint64_t, uint64_t function, uint64_t) {
            return (*reinterpret_cast<std::function<uint32_t()> *>(function))();
        },
        address(&reader), 0, &err);
    CL_StartNestTimer(reads, 0, 0, 100'000, &err);
    run();
    CL_DeleteNestTimer(reads, &err);
    for (size_t i = 0; i < 30; ++i)
        EXPECT_EQ(line.send(payload), 1u) << line.err;
    while (CL_FlushChannel(line.handle, &err) == 0)
        got += line.raw.receive();
    got += line.raw.receive();
    EXPECT_EQ(got.size(), (sent + 30) * 1016);
    for (size_t at = 0; at < got.size(); at += 1016)
        ASSERT_EQ(got.substr(at, 1016), own_message(payload, 7)) << at;
    CL_DeleteChannel(line.handle, &err);
}

TEST_F(Channel, HearsWhatAKilledPeerHasSaid) {
    Line line;
    line.open();
    const std::string message = test::wire_message("last words");
    const pid_t child = test::child_process([&] {
        for (int i = 0; i < 5; ++i)
            line.raw.send(message);
        line.raw.send(message.substr(0, 20));
        return raise(SIGKILL);
    });
    line.raw.close();
    waitpid(child, nullptr, 0);
    EXPECT_EQ(line.send("to nobody"), 1u);
    run();
    EXPECT_EQ(line.heard, std::vector<std::string>(5, message));
    EXPECT_EQ(line.reason, static_cast<uint32_t>(EPIPE));
    CL_DeleteChannel(line.handle, &err);

    // One that is paused is told by a refusal, and of its end when it goes on.
    line.heard.clear();
    line.open();
    EXPECT_EQ(CL_PauseChannel(line.handle, &err), 1u);
    while (line.send(message) != 0) {
    }
    line.on_drained = [] { return kOver; };
    line.raw.send(message);
    line.raw.close();
    run();
    EXPECT_EQ(line.send("x"), 0u);
    EXPECT_THAT(line.err, FailsWith(EPIPE, CL_MODULE_CHANNEL));
    EXPECT_EQ(CL_FlushChannel(line.handle, &err), 0u);
    EXPECT_EQ(CL_ResumeChannel(line.handle, &err), 1u);
    run();
    EXPECT_THAT(line.heard, ElementsAre(message));
    CL_DeleteChannel(line.handle, &err);
}

TEST_F(Channel, EndsWhoIsSilentOrDoesNotFinish) {
    constexpr uint64_t kMillisecond = 1'000'000;
    for (const bool idle : {true, false}) {
        Line line;
        CL_ChannelOptions options = Line::options();
        (idle ? options.idle_limit : options.message_limit) = 5 * kMillisecond;
        line.open(options);
        line.raw.send(test::wire_message("whole"));
        if (!idle) line.raw.send("a part");
        const uint64_t start = CL_NestTime(CL_NEST_MONOTONIC);
        run();
        EXPECT_GE(CL_NestTime(CL_NEST_MONOTONIC) - start, 4 * kMillisecond);
        EXPECT_EQ(line.reason, static_cast<uint32_t>(ETIMEDOUT));
        EXPECT_EQ(line.heard.size(), 1u);
        CL_DeleteChannel(line.handle, &err);
    }
}

// A callback deletes the nest while others are due, which were made in it.
TEST_F(Channel, OutlivesItsNest) {
    CL_ChannelOptions options = Line::options();
    options.most = 1;
    for (const bool closes : {true, false}) {
        Line first, ends, last, fresh;
        for (Line *line : {&first, &ends, &last}) {
            line->open(options);
            if (closes && line == &ends) continue;
            for (int i = 0; i < 5; ++i)
                line->raw.send(test::wire_message("x"));
        }
        const auto end = [&](auto) { return CL_DeleteNest(&err), kOver; };
        if (closes) ends.raw.close();
        ends.on_closed = end;
        ends.on_message = [&](auto) {
            return ends.heard.emplace_back(), ends.heard.size() < 3 ? 0u : end(0);
        };
        run();
        EXPECT_EQ(first.send("x"), 0u);
        EXPECT_THAT(first.err, FailsWith(CL_ERR_STATE, CL_MODULE_CHANNEL));
        ASSERT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err), 1u) << err;
        fresh.open();
        EXPECT_EQ(fresh.send("x"), 1u) << fresh.err;
        fresh.raw.close();
        run();
        EXPECT_EQ(fresh.reason, static_cast<uint32_t>(EPIPE));
        for (const Line *line : {&first, &ends, &last, &fresh})
            EXPECT_EQ(CL_DeleteChannel(line->handle, &err), 1u) << err;
    }
}

// What came in time is told by a loop that was late; a pause does not count.
TEST_F(Channel, LimitsAreFair) {
    constexpr uint64_t kMillisecond = 1'000'000;
    CL_ChannelOptions options = Line::options();
    options.idle_limit = 8 * kMillisecond;
    options.message_limit = 4 * kMillisecond;
    Line line;
    line.open(options);
    line.raw.send(test::wire_message("in time"));
    usleep(10'000);
    line.on_message = [&](const CL_MsgHeader *) {
        return CL_PauseChannel(line.handle, &err), kOver;
    };
    run();
    EXPECT_EQ(line.reason, 0u);
    const auto over = [](CL_NestTimer *, uint64_t, uint64_t, uint64_t) { return kOver; };
    CL_NestTimer *timer = CL_CreateNestTimer(0, over, 0, 0, &err);
    CL_StartNestTimer(timer, 0, 20 * kMillisecond, 0, &err);
    run();
    EXPECT_EQ(line.reason, 0u) << "paused";
    EXPECT_EQ(CL_ResumeChannel(line.handle, &err), 1u) << err;
    line.raw.send("a part");
    run();
    EXPECT_EQ(line.reason, static_cast<uint32_t>(ETIMEDOUT));
    CL_DeleteChannel(line.handle, &err);

    Line gone;
    gone.open(options);
    gone.raw.send(test::wire_message("in time"));
    usleep(10'000);
    gone.on_message = [&](const CL_MsgHeader *) {
        return CL_DeleteChannel(gone.handle, &err), kOver;
    };
    run();
    CL_DeleteNestTimer(timer, &err);
}

// An error that is not the other side's ends a channel; who ends the loop is told later.
TEST_F(Channel, EndsWhenItCannotWrite) {
    for (const int error : {ENOBUFS, ECONNRESET, EINTR}) {
        Line line;
        line.open();
        line.raw.send(test::wire_message("x"));
        line.on_message = [&](const CL_MsgHeader *) { return line.send("answer"), kOver; };
        {
            const test::Plan plan{{.call = "sendmsg", .error = error, .from_anyone = true},
                                  {.call = "send", .error = error, .from_anyone = true}};
            run();
        }
        EXPECT_EQ(line.send("x"), error == EINTR ? 1u : 0u);
        if (error == ECONNRESET) line.raw.close();
        if (error != EINTR) run();
        EXPECT_EQ(line.reason, error == EINTR ? 0u : static_cast<uint32_t>(error));
        CL_DeleteChannel(line.handle, &err);
    }
}

// What it could not write any more gives a channel that is closed no turns.
TEST_F(Channel, IsStillWhenItIsClosed) {
    Line line;
    line.open();
    EXPECT_EQ(line.send("unsent"), 1u) << line.err;
    shutdown(line.raw.fd(), SHUT_WR);
    int turns = 0;
    const test::Plan plan{
        {.call = "send", .error = EINTR, .times = test::kForever, .from_anyone = true},
        {.call = "epoll_wait",
         .times = test::kForever,
         .before = [&] { ++turns; },
         .from_anyone = true}};
    run();
    EXPECT_EQ(line.reason, static_cast<uint32_t>(EPIPE));
    const auto over = [](CL_NestTimer *, uint64_t, uint64_t, uint64_t) { return kOver; };
    CL_NestTimer *timer = CL_CreateNestTimer(0, over, 0, 0, &err);
    CL_StartNestTimer(timer, 0, 5'000'000, 0, &err);
    turns = 0;
    run();
    EXPECT_LT(turns, 5);
    CL_DeleteNestTimer(timer, &err);
    CL_DeleteChannel(line.handle, &err);
}

// Of room for a message that is more than half of it all, and when there is somebody to tell.
TEST_F(Channel, TellsOfRoomWhenThereIsEnough) {
    const auto over = [](CL_NestTimer *, uint64_t, uint64_t, uint64_t) { return kOver; };
    CL_NestTimer *timer = CL_CreateNestTimer(0, over, 0, 0, &err);
    CL_StartNestTimer(timer, 0, 0, 5'000'000, &err);
    for (const bool tells : {false, true}) {
        CL_ChannelOptions options = Line::options();
        options.send_size = 64;
        if (!tells) options.drained = nullptr;
        Line line;
        line.open(options);
        const std::string payload(40, 'x');
        while (line.send(payload) != 0) {
        }
        run();
        EXPECT_EQ(line.send(payload), 0u);
        EXPECT_THAT(line.err, FailsWith(EAGAIN, CL_MODULE_CHANNEL));
        EXPECT_EQ(line.drained, 0);
        line.raw.receive();
        run();
        run();
        EXPECT_EQ(line.drained, tells ? 1 : 0);
        EXPECT_EQ(line.send(payload), 1u) << line.err;
        CL_DeleteChannel(line.handle, &err);
    }
    CL_DeleteNestTimer(timer, &err);
}

// ---- Refusals

TEST_F(Channel, RefusesWhatIsWrong) {
    const CL_ChannelOptions good = Line::options();
    const Socket plain(eventfd(0, EFD_CLOEXEC));
    const Socket lonely(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const Socket datagrams(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const std::string longest(108, 'x');
    const std::string nobody = folder.path("nobody");
    const Socket full = Socket::listening(folder.path("full"), 0);
    const Socket waits = Socket::connected(folder.path("full"));
    Line line;
    line.open();
    const auto waiting = [](CL_ChannelListener *, uint64_t, uint64_t) { return 0u; };
    const std::string at = folder.path("listener");
    CL_ChannelListener *served = CL_CreateChannelListener(at.c_str(), 8, 0, waiting, 0, 0, &err);
    const Socket client = Socket::connected(at);
    const auto with = [&](const auto &change) {
        static CL_ChannelOptions changed;
        changed = good;
        change(changed);
        return &changed;
    };
    const auto no_message = [](auto &o) { o.message = nullptr; };
    const auto no_closed = [](auto &o) { o.closed = nullptr; };
    const auto small = [](auto &o) { o.receive_size = 15; };
    const auto large = [](auto &o) { o.send_size = CL_CHANNEL_LIMIT_SIZE + 1; };
    const auto huge = [](auto &o) { o.receive_size = o.send_size = 200 << 20; };
    const auto late = [](auto &o) { o.idle_limit = UINT64_MAX; };
    const auto later = [](auto &o) { o.message_limit = UINT64_MAX; };
    auto *stale = reinterpret_cast<CL_Channel *>(&line);
    auto *no_listener = reinterpret_cast<CL_ChannelListener *>(&line);
#define REFUSED(code, ...)       \
    EXPECT_FALSE((__VA_ARGS__)); \
    EXPECT_THAT(err, FailsWith(code, CL_MODULE_CHANNEL)) << #__VA_ARGS__
#define CREATE(fd, options) CL_CreateChannel(fd, options, 0, 0, &err)
#define CONNECT(path, options) CL_ConnectChannel(path, options, 0, 0, &err)
#define ACCEPT(listener, options) CL_AcceptChannel(listener, options, 0, 0, &err)
#define LISTEN(path, callback) CL_CreateChannelListener(path, 1, 0, callback, 0, 0, &err)
    const Balance start = Balance::now();
    REFUSED(EFAULT, CREATE(lonely.fd(), nullptr));
    REFUSED(EFAULT, CREATE(lonely.fd(), with(no_message)));
    REFUSED(EFAULT, CREATE(lonely.fd(), with(no_closed)));
    REFUSED(EINVAL, CREATE(lonely.fd(), with(small)));
    REFUSED(EINVAL, CREATE(lonely.fd(), with(large)));
    REFUSED(EINVAL, CREATE(lonely.fd(), with(late)));
    REFUSED(EINVAL, CREATE(lonely.fd(), with(later)));
    REFUSED(EINVAL, CREATE(datagrams.fd(), &good));
    REFUSED(ENOTSOCK, CREATE(plain.fd(), &good));
    REFUSED(ENOTCONN, CREATE(lonely.fd(), &good));
    REFUSED(EBADF, CREATE(-1, &good));
    REFUSED(ENOMEM, CREATE(client.fd(), with(huge)));
    REFUSED(EFAULT, CONNECT(nullptr, &good));
    REFUSED(EFAULT, CONNECT(at.c_str(), nullptr));
    REFUSED(EINVAL, CONNECT(at.c_str(), with(small)));
    REFUSED(ENAMETOOLONG, CONNECT(longest.c_str(), &good));
    REFUSED(ENOENT, CONNECT(nobody.c_str(), &good));
    REFUSED(EAGAIN, CONNECT(folder.path("full").c_str(), &good));
    REFUSED(ENOMEM, CONNECT(at.c_str(), with(huge)));
    REFUSED(EFAULT, LISTEN(nullptr, waiting));
    REFUSED(EFAULT, LISTEN(at.c_str(), nullptr));
    REFUSED(ENAMETOOLONG, LISTEN(longest.c_str(), waiting));
    REFUSED(ENOENT, LISTEN((nobody + "/x").c_str(), waiting));
    {
        const test::Plan plan({.call = "malloc", .error = ENOMEM});
        REFUSED(ENOMEM, LISTEN(nobody.c_str(), waiting));
    }
    REFUSED(EBADF, ACCEPT(no_listener, &good));
    REFUSED(EFAULT, CL_SendChannel(line.handle, 1, nullptr, 1, &err));
    REFUSED(EMSGSIZE, CL_SendChannel(line.handle, 1, at.data(), 65521, &err));
    REFUSED(EFAULT, CL_GetChannelPeer(line.handle, nullptr, &err));
    REFUSED(EBADF, CL_SendChannel(stale, 1, nullptr, 0, &err));
    REFUSED(EBADF, CL_FlushChannel(stale, &err));
    REFUSED(EBADF, CL_PauseChannel(stale, &err));
    REFUSED(EBADF, CL_ResumeChannel(stale, &err));
    REFUSED(EBADF, CL_GetChannelPeer(stale, nullptr, &err));
    REFUSED(EBADF, CL_DeleteChannel(stale, &err));
    REFUSED(EBADF, CL_DeleteChannelListener(no_listener, &err));
    EXPECT_EQ(Balance::now(), start);
    REFUSED(EFAULT, ACCEPT(served, nullptr));
    const Socket more[] = {Socket::connected(at), Socket::connected(at)};
    REFUSED(EINVAL, ACCEPT(served, with(small)));
    REFUSED(ENOMEM, ACCEPT(served, with(huge)));
    const Socket last = Socket::connected(at);
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const struct rlimit none = {3, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    REFUSED(EMFILE, ACCEPT(served, &good));
    setrlimit(RLIMIT_NOFILE, &limit);

    CL_DeleteNest(&err);
    REFUSED(CL_ERR_STATE, CREATE(client.fd(), &good));
    REFUSED(CL_ERR_STATE, CL_SendChannel(line.handle, 1, nullptr, 0, &err));
    REFUSED(CL_ERR_STATE, CONNECT(at.c_str(), &good));
    REFUSED(CL_ERR_STATE, LISTEN(at.c_str(), waiting));
    CL_CreateNest(CL_PRIORITY_FIRST, 0, &err);
    REFUSED(CL_ERR_STATE, ACCEPT(served, &good));
    REFUSED(CL_ERR_STATE, CL_SendChannel(line.handle, 1, nullptr, 0, &err));
    REFUSED(CL_ERR_STATE, CL_FlushChannel(line.handle, &err));
    REFUSED(CL_ERR_STATE, CL_PauseChannel(line.handle, &err));
    REFUSED(CL_ERR_STATE, CL_ResumeChannel(line.handle, &err));
    REFUSED(CL_ERR_STATE, CL_GetChannelPeer(line.handle, nullptr, &err));
    EXPECT_EQ(CL_DeleteChannel(line.handle, &err), 1u) << err;
    EXPECT_EQ(CL_DeleteChannelListener(served, &err), 1u) << err;
}

}  // namespace
