// The transfer steps and the synchronous wait against a raw socket: streams cut anywhere, headers
// that lie, ends and resets at any byte, sends that go on at any byte.
#include <qvcl/client.h>
#include <qvcl/loop.h>
#include <qvcl/starter.h>
#include <qvcl/timer.h>
#include <sys/socket.h>

#include <csignal>
#include <numeric>

#include "tests/wire.h"

using test::Block;
using test::Fault;
using test::Plan;
using test::wire_header;
using test::wire_message;
using testing::ElementsAre;

namespace {

constexpr long kUptime = 1000;

class Transfer : public test::Messaging {
  protected:
    void SetUp() override {
        Messaging::SetUp();
        client = connect();
    }

    // Sets a receive up and lets the steps run on it without the loop.
    void begin() {
        client->connection.receive_buffer = buffer.data();
        client->connection.receive_capacity = kCapacity;
        client->connection.received_count = 0;
    }
    uint32_t receive_step() {
        memset(&event, 0xee, sizeof event);
        return cl_recv(client, &event, &err);
    }
    int32_t receive(uint32_t timeout = 0) {
        return CL_RecvMSGC(client, buffer.data(), kCapacity, CL_MODE_SYNC, timeout, &err);
    }
    int32_t send(Block &block, uint32_t mode, uint32_t timeout = 0) {
        return CL_SendMSGC(client, block.get(), block.size(), mode, timeout, &err);
    }

    CL_Object *client = nullptr;
    CL_Event event;
};

TEST_F(Transfer, HeadersMayLie) {
    const struct {
        uint32_t length, version, code;
    } headers[] = {{0, 0x00010001, EPROTO},
                   {15, 0x00010001, EPROTO},
                   {16, 0x00010001, 0},
                   {kCapacity, 0x00010001, 0},
                   {kCapacity + 1, 0x00010001, EMSGSIZE},
                   {0x7fffffff, 0x00010001, EMSGSIZE},
                   {0x80000010, 0x00010001, EPROTO},
                   {16, 0x01000100, EPROTO},
                   {kCapacity + 1, 0, EMSGSIZE}};
    for (const auto &[length, version, code] : headers) {
        SCOPED_TRACE(testing::Message() << length << " version " << version);
        reconnect(client);
        peer.send(wire_header(length, version) + test::pattern(4096));
        EXPECT_EQ(receive(), code == 0 ? static_cast<int32_t>(length) : -1);
        EXPECT_EQ(err.err, code);
        EXPECT_EQ(client->status & CL_STATUS_FAILED, code == 0 ? 0u : uint32_t{CL_STATUS_FAILED});
        EXPECT_TRUE(guard_intact());
        EXPECT_TRUE(code == 0 || buffer[16] == '#') << "no payload of what is refused is read";
    }
}

TEST_F(Transfer, StreamMayBeCutAndEndAnywhere) {
    const std::string messages[] = {wire_message("", 1), wire_message("x", 0),
                                    wire_message(test::pattern(5), 0xffffffff),
                                    wire_message(test::pattern(48), 4), wire_message("", 5)};
    const auto stream = std::accumulate(std::begin(messages), std::end(messages), std::string());
    for (size_t end = 0, cut = 0; end <= stream.size(); cut < end ? ++cut : (++end, cut = 0)) {
        const bool reset = cut % 2 != 0;
        SCOPED_TRACE(testing::Message() << (reset ? "reset " : "close ") << end << " cut " << cut);
        size_t whole = 0;
        for (const auto *next = messages; whole < end && whole + next->size() <= end; ++next)
            whole += next->size();
        reconnect(client);
        Block unread_by_peer;
        EXPECT_TRUE(!reset || send(unread_by_peer, CL_MODE_IMMEDIATE) == 16);
        std::string got;
        begin();
        for (const auto &piece : {stream.substr(0, cut), stream.substr(cut, end - cut)}) {
            peer.send(piece);
            for (; receive_step() == 1; begin()) {
                ASSERT_EQ(event.type, uint32_t{CL_EVENT_MESSAGE}) << event.error;
                ASSERT_EQ(event.data, buffer.data());
                got.append(buffer.data(), static_cast<size_t>(event.length));
            }
        }
        ASSERT_EQ(got, stream.substr(0, whole));
        peer.close();
        ASSERT_EQ(receive_step(), 1u);
        EXPECT_EQ(event.type, uint32_t{CL_EVENT_DISCONNECT});
        EXPECT_EQ(event.data, buffer.data());
        EXPECT_EQ(event.length, reset ? -1 : 0);
        EXPECT_THAT(err, test::FailsWith(reset ? ECONNRESET : EPIPE, CL_MODULE_MSGC));
        EXPECT_EQ(event.error, err);
        EXPECT_EQ(client->status, uint32_t{CL_STATUS_READY | CL_STATUS_FAILED});
    }
    reconnect(client);
    const auto lent = stuff(client);
    peer.close();
    EXPECT_EQ(receive(), -1);
    EXPECT_FALSE(lent->queued()) << "it is the caller's again";
}

TEST_F(Transfer, SendGoesOnAtAnyByte) {
    list(client);
    for (int32_t cut = 0; cut <= 60; ++cut) {
        SCOPED_TRACE(cut);
        const bool whole = cut == 60;
        Block block(44);
        heard.clear();
        {
            const Plan plan{{.call = "send", .at_most = static_cast<std::size_t>(cut)},
                            {.call = "send", .error = EAGAIN, .nth = 2}};
            ASSERT_EQ(send(block, CL_MODE_IMMEDIATE), whole ? 60 : -1);
        }
        EXPECT_EQ(block->sent, static_cast<uint32_t>(cut));
        EXPECT_EQ(err.err, whole ? 0u : uint32_t{CL_ERR_IN_PROGRESS});
        EXPECT_EQ(block.queued(), !whole);
        EXPECT_EQ(client->sub_status, whole ? 0u : uint32_t{CL_SUB_SEND_PENDING});
        EXPECT_EQ(iterate(), 0u);
        EXPECT_EQ(peer.receive(), block.message());
        EXPECT_EQ(client->sub_status, 0u);
        ASSERT_EQ(heard.size(), whole ? 0u : 1u);
        if (whole) continue;
        EXPECT_EQ(heard[0].event.type, uint32_t{CL_EVENT_SENT});
        EXPECT_EQ(heard[0].event.data, block.get());
        EXPECT_FALSE(block.queued());
        EXPECT_EQ(block->sent, 60u);
    }
}

// ---- The synchronous wait. What happens meanwhile happens just before a pselect.

class Sync : public Transfer {
  protected:
    void SetUp() override {
        Transfer::SetUp();
        CL_KitSetUptime(kUptime);
    }
    void TearDown() override {
        CL_MainTable->sync_flag = 0;
        Transfer::TearDown();
    }

    static Fault at_wait(int nth, std::function<void()> what) {
        return {.call = "pselect", .nth = nth, .before = std::move(what)};
    }
    // Leaves no room in a socket.
    static void fill(int fd) {
        const std::string bytes(65536, 'x');
        while (::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
        }
    }
    static void tick(long uptime) {
        CL_KitSetUptime(uptime);
        raise(SIGALRM);
    }
    // No timer is left, and the mask is as before.
    void expect_quiet() const {
        EXPECT_EQ(client->status & CL_STATUS_RUNNING, 0u);
        EXPECT_EQ(CL_MainTable->timer_list.count, 0u);
        EXPECT_EQ(test::Balance::now().blocked_signals, before.blocked_signals);
    }
};

TEST_F(Sync, WaitsForTheRest) {
    const std::string message = wire_message("in pieces");
    {
        const Plan plan{at_wait(1, [&] { peer.send(message.substr(0, 5)); }),
                        at_wait(2, [&] { peer.send(message.substr(5, 12)); }),
                        {.call = "pselect", .error = EINTR, .nth = 3},
                        at_wait(4, [&] { peer.send(message.substr(17)); })};
        EXPECT_EQ(receive(), 25);
        EXPECT_EQ(plan.count("pselect"), 4);
        EXPECT_EQ(plan.count("sigprocmask"), 0) << "no timer, no tick to miss";
    }
    EXPECT_EQ(err.err, 0u);
    EXPECT_EQ(received().substr(0, 25), message);

    Block block(std::size_t{1} << 20);
    std::string got;
    const Plan plan{
        {.call = "pselect", .times = test::kForever, .before = [&] { got += peer.receive(); }}};
    EXPECT_EQ(send(block, CL_MODE_SYNC), block.length());
    EXPECT_EQ(err.err, 0u);
    EXPECT_GT(plan.count("pselect"), 1);
    EXPECT_EQ(got + peer.receive(), block.message());
    EXPECT_FALSE(block.queued());
}

// A stream is read without waiting for what is there; a request's answer is waited for at once.
TEST_F(Sync, LooksFirstOnlyWhenThatPays) {
    constexpr int kMany = 160;
    for (int i = 0; i < kMany; ++i)
        peer.send(wire_message("stream"));
    {
        const Plan plan;
        for (int i = 0; i < kMany; ++i)
            EXPECT_EQ(receive(), 22);
        EXPECT_LT(plan.count("pselect"), kMany / 10);
    }
    const Plan plan{{.call = "pselect", .times = test::kForever, .before = [&] {
                         peer.send(wire_message("answer"));
                     }}};
    for (int i = 0; i < kMany; ++i)
        EXPECT_EQ(receive(), 22);
    EXPECT_EQ(plan.count("pselect"), kMany);
    EXPECT_LT(plan.count("recv"), 2 * kMany + kMany / 10);
}

// Also a tick that the application's mask holds back reaches the wait.
TEST_F(Sync, TimesOut) {
    peer.send(wire_message("half").substr(0, 18));
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    for (const int how : {SIG_UNBLOCK, SIG_BLOCK}) {
        sigprocmask(how, &alarm, nullptr);
        CL_KitSetUptime(kUptime);
        const Plan plan{at_wait(1, [] { tick(kUptime + 2); }),
                        at_wait(2, [] { tick(kUptime + 3); })};
        EXPECT_EQ(receive(3), -1);
        EXPECT_EQ(plan.count("pselect"), 2);
        EXPECT_THAT(err, test::FailsWith(ETIMEDOUT, CL_MODULE_MSGC));
        EXPECT_EQ(client->status, uint32_t{CL_STATUS_READY}) << "the connection lives on";
    }
    sigprocmask(SIG_UNBLOCK, &alarm, nullptr);

    // The block of a send stays queued.
    const auto big = std::make_unique<Block>(std::size_t{1} << 20);
    Block more;
    {
        const Plan plan{at_wait(1, [] { tick(kUptime + 4); })};
        EXPECT_EQ(send(*big, CL_MODE_SYNC, 1), -1);
    }
    EXPECT_THAT(err, test::FailsWith(ETIMEDOUT, CL_MODULE_MSGC));
    expect_quiet();
    EXPECT_EQ(client->sub_status, 0u) << "the loop does not send it";
    EXPECT_EQ(send(more, CL_MODE_DEFERRED), -1);
    EXPECT_EQ(err.err, uint32_t{CL_ERR_IN_PROGRESS});
    CL_Queue unsent;
    EXPECT_EQ(CL_DiscMSGC(client, nullptr, &unsent, &err), 1u);
    EXPECT_THAT(test::blocks_of(unsent), ElementsAre(big->get(), more.get()));
    CL_QUE_Clear(&unsent);
}

// The connection has a timer that somebody else started: it is not the transfer's to stop.
TEST_F(Sync, LeavesAnothersTimerAlone) {
    ASSERT_EQ(CL_StartTIMER_M(client, 50, CL_TIMER_ONESHOT, &err, 1, "test", 1), 1u);
    Block block;
    EXPECT_EQ(receive(5), -1);
    EXPECT_THAT(err, test::FailsWith(EBADF, CL_MODULE_TIMER));
    EXPECT_EQ(send(block, CL_MODE_SYNC, 5), -1);
    EXPECT_FALSE(block.queued());
    EXPECT_EQ(client->status, uint32_t{CL_STATUS_READY | CL_STATUS_RUNNING});
    EXPECT_EQ(CL_MainTable->timer_list.count, 1u);
    EXPECT_EQ(CL_StopTIMER_M(client, &err, 1, "test", 1), 1u);
}

// A wait in a callback takes the ticks, and the loop looks at the timers all the same.
TEST_F(Sync, AppliesTicksToAllTimers) {
    const test::Pipe always;
    always.fill();
    test::Action wait = [&](CL_Object *, CL_Event *) {
        EXPECT_EQ(receive(60), 19);
        EXPECT_EQ(err.err, 0u) << err;
        EXPECT_TRUE(heard.empty()) << "callbacks of timers belong to the loop";
        EXPECT_EQ(CL_MainTable->timer_list.count, 2u) << "the connection's own timer is stopped";
        EXPECT_EQ(CL_MainTable->child_signal, 1u) << "other signals are left to the loop";
        return 0u;
    };
    watch(always.out(), &wait, 20);
    CL_Object *timer = make(CL_KIND_TIMER), *longer = make(CL_KIND_TIMER);
    ASSERT_EQ(CL_StartTIMER(timer, 3, CL_TIMER_ONESHOT, &err), 1u);
    ASSERT_EQ(CL_StartTIMER(longer, 100, CL_TIMER_ONESHOT, &err), 1u);
    {
        const auto second = [&] {
            EXPECT_EQ(timer->remaining, 2u);
            tick(kUptime + 3);
        };
        const auto child = [&] {
            EXPECT_EQ(timer->remaining, uint32_t{CL_TIMER_DUE});
            raise(SIGCHLD);
        };
        const Plan plan{at_wait(2, [] { tick(kUptime + 1); }),
                        at_wait(3, second),
                        {.call = "pselect", .error = EINTR, .nth = 4, .before = child},
                        at_wait(5, [&] { peer.send(wire_message("end")); })};
        EXPECT_EQ(iterate(), 0u);
    }
    EXPECT_THAT(heard, ElementsAre(test::IsEvent(CL_EVENT_TIMER)));
    EXPECT_EQ(longer->remaining, 98u) << "each tick counts once";
    EXPECT_EQ(CL_StopTIMER(longer, &err), 1u);
    expect_quiet();
}

// A started program that is asked to end while it waits for a message.
class EndWatch : public Sync {
  protected:
    void SetUp() override {
        Sync::SetUp();
        test::set_env(CL_STARTER_SOCKET, path.c_str());
        watch_end();
    }
    void TearDown() override {
        parent.close();
        Sync::TearDown();
    }
    void watch_end(uint32_t watch_sync = 1) {
        if (end != nullptr) {
            EXPECT_EQ(CL_DeleteFD_M(end, &err, 1, "test", 1), 1u);
        }
        CL_MainTable->sync_flag = 0;
        end = CL_StartupComplete(test::call_action, keeper(), 0, watch_sync, &err);
        ASSERT_NE(end, nullptr) << err;
        parent = listener.accept();
    }
    static std::string end_request() { return wire_message("", CL_MSG_END_REQUEST); }

    test::Socket parent;
    CL_Object *end = nullptr;
};

// While the end callback runs nobody watches for the end; what it gives up is not looked at any
// more, and whatever has the connection's slot then is left alone.
TEST_F(EndWatch, EndsTheWait) {
    // Who breaks the rules is lost like one who is gone: with the report unread, a reset, or read.
    const std::string acts[] = {
        end_request(), wire_message("four", 5) + end_request(), wire_header(21), wire_header(0), "",
        "read"};
    enum { kKeeps, kDisconnects, kDeletes };
    for (int number = 0; number < 6 * 3 * 2 * 2 * 2; ++number) {
        const bool sending = (number & 1) != 0, late = (number & 2) != 0;
        const uint32_t answer = (number & 4) != 0 ? 7 : 0;
        const int deed = number / 8 % 3;
        SCOPED_TRACE(testing::Message() << "parent " << number / 24 << (sending ? " send" : " recv")
                                        << (late ? " late " : " early ") << answer << ' ' << deed);
        const auto act = [&, what = acts[number / 24]] {
            if (what.size() >= 16) return parent.send(what);
            EXPECT_TRUE(what.empty() || parent.receive().size() == 16);
            parent.close();
        };
        reconnect(client);
        watch_end();
        auto block = std::make_unique<Block>(1000);
        std::vector<CL_Object *> strangers;
        reply = [&](CL_Object *object, CL_Event *) {
            EXPECT_EQ(object, end);
            if (deed == kKeeps) return answer;
            peer.send(wire_message("goodbye"));
            EXPECT_EQ(receive(), 23);
            EXPECT_EQ(deed == kDeletes ? CL_DeleteFD(client, &err) : disconnect(client), 1u) << err;
            block.reset();
            while (CL_Object *stranger = deed == kDeletes ? make(CL_KIND_TIMER) : nullptr) {
                strangers.push_back(stranger);
                EXPECT_EQ(CL_StartTIMER(stranger, 50, CL_TIMER_ONESHOT, &err), 1u);
            }
            return answer;
        };
        if (sending) fill(client->descriptor);
        if (!late) act();
        {
            const Plan plan{{.call = "pselect", .error = late ? EINTR : 0},
                            at_wait(late ? 2 : test::kForever, act)};
            EXPECT_EQ(sending ? send(*block, CL_MODE_SYNC, 9) : receive(9),
                      static_cast<int32_t>(answer));
        }
        EXPECT_THAT(err, test::FailsWith(EINTR, CL_MODULE_MSGC));
        ASSERT_THAT(heard, ElementsAre(test::IsEvent(CL_EVENT_END)));
        EXPECT_EQ(heard[0].event.error, CL_ErrInfo{});
        EXPECT_EQ(CL_MainTable->timer_list.count, strangers.size());
        for (CL_Object *stranger : strangers)
            ASSERT_EQ(CL_DeleteFD(stranger, &err), 1u);
        expect_quiet();
        if (deed == kDeletes) client = connect();
        if (deed != kKeeps) continue;
        EXPECT_EQ(block->queued(), sending);
        EXPECT_EQ(disconnect(client), 1u);
        EXPECT_FALSE(block->queued());
    }
}

TEST_F(EndWatch, OtherMessagesDoNotDisturb) {
    const auto hear_hello = [&] {
        parent.send(wire_message("four", 1));
        peer.send(wire_message("hello"));
        EXPECT_EQ(receive(9), 21);
        EXPECT_EQ(err.err, 0u);
    };
    hear_hello();
    parent.send(wire_message("four", 3));
    Block block(10);
    EXPECT_EQ(send(block, CL_MODE_SYNC, 9), 26);
    EXPECT_EQ(peer.receive(), block.message());
    expect_quiet();

    // A disconnect that failed has taken its buffer away.
    {
        const Plan plan{{.call = "close", .error = EIO}};
        EXPECT_EQ(CL_DiscMSGC_M(end, nullptr, nullptr, &err, 1, "test", 1), 0u);
    }
    hear_hello();
    EXPECT_TRUE(heard.empty());
    parent.send(end_request());
    EXPECT_EQ(receive(9), 0);
    EXPECT_EQ(err.err, uint32_t{EINTR});

    // A second report is such a transfer, too.
    watch_end();
    parent.send(end_request());
    EXPECT_EQ(CL_StartupComplete(test::call_action, keeper(), 0, 0, &err), nullptr);
    EXPECT_EQ(err.err, uint32_t{EINTR});
    listener.accept();

    // Unless it was asked for, and while the end callback runs, the end waits for the loop.
    for (const uint32_t watch_sync : {0u, 1u}) {
        watch_end(watch_sync);
        parent.send(end_request());
        peer.send(wire_message("hello") + wire_message("hello"));
        EXPECT_TRUE(watch_sync == 1 || receive() == 21);
        reply = [&](CL_Object *, CL_Event *) { return static_cast<uint32_t>(receive()); };
        EXPECT_EQ(iterate(), 21u);
        end = nullptr;
        peer.receive();
    }
}

}  // namespace
