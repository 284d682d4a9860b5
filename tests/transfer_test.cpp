/* The transfer steps and the synchronous wait against a raw socket: streams cut anywhere, headers
 * that lie, ends and resets at any byte, a peer that never reads. */
#include <qvcl/client.h>
#include <qvcl/loop.h>
#include <qvcl/timer.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <csignal>

#include "tests/wire.h"

using test::Block;
using test::Fault;
using test::Plan;
using test::wire_header;
using test::wire_message;
using testing::ElementsAre;

namespace {

constexpr int NOTHING = 0;
constexpr long UPTIME = 1000;

class Transfer : public test::Messaging {
  protected:
    void SetUp() override {
        Messaging::SetUp();
        client = connect();
    }

    /* Sets a receive up and lets the steps run on it without the loop. */
    void begin() {
        client->connection.receive_buffer = buffer.data();
        client->connection.receive_capacity = CAPACITY;
        client->connection.received_count = 0;
    }
    uint32_t receive_step() {
        memset(&event, 0xee, sizeof event);
        return cl_recv(client, &event, &err);
    }
    /* Everything that is there, message by message. */
    void take_messages(std::vector<std::string> &got) {
        while (receive_step() == 1) {
            ASSERT_EQ(event.type, uint32_t{CL_EVENT_MESSAGE}) << event.error;
            ASSERT_EQ(event.data, buffer.data());
            got.emplace_back(buffer.data(), static_cast<std::size_t>(event.length));
            begin();
        }
    }
    int32_t receive(uint32_t timeout = 0) {
        return CL_RecvMSGC(client, buffer.data(), CAPACITY, CL_MODE_SYNC, timeout, &err);
    }
    int32_t send(Block &block, uint32_t mode, uint32_t timeout = 0) {
        return CL_SendMSGC(client, block.get(), block.size(), mode, timeout, &err);
    }
    bool room_is_left() const { return client->connection.send_queue.head == nullptr; }

    CL_Object *client = nullptr;
    CL_Event event;
};

const std::vector<std::string> MESSAGES = {wire_message("", 1), wire_message("x", 0),
                                           wire_message(test::pattern(5), 0xffffffff),
                                           wire_message(test::pattern(48), 4), wire_message("", 5)};

std::string joined(const std::vector<std::string> &parts, std::size_t from = 0) {
    std::string all;
    for (; from < parts.size(); from++)
        all += parts[from];
    return all;
}

TEST_F(Transfer, StreamMayBeCutAnywhere) {
    const std::string stream = joined(MESSAGES);
    for (std::size_t first = 0; first <= stream.size(); first++) {
        for (std::size_t second = first; second <= stream.size(); second += 3) {
            std::vector<std::string> got;
            begin();
            const std::size_t cuts[] = {0, first, second, stream.size()};
            for (int piece = 0; piece < 3; piece++) {
                peer.send(stream.substr(cuts[piece], cuts[piece + 1] - cuts[piece]));
                take_messages(got);
            }
            ASSERT_EQ(got, MESSAGES) << "cut at " << first << " and " << second;
        }
    }
    EXPECT_TRUE(guard_intact());
}

TEST_F(Transfer, LoopCollectsWhatComesByteByByte) {
    list(client);
    await(client);
    std::vector<std::string> got;
    reply = [&](CL_Object *, CL_Event *e) {
        got.emplace_back(static_cast<char *>(e->data), static_cast<std::size_t>(e->length));
        await(client);
        return 0u;
    };
    for (const char byte : joined(MESSAGES)) {
        peer.send({&byte, 1});
        ASSERT_EQ(iterate(), 0u) << err;
    }
    EXPECT_EQ(got, MESSAGES);
}

TEST_F(Transfer, NextMessageStaysInTheSocket) {
    peer.send(joined(MESSAGES));
    for (std::size_t i = 0; i < MESSAGES.size(); i++) {
        begin();
        ASSERT_EQ(receive_step(), 1u);
        EXPECT_EQ(test::unread(client->descriptor), joined(MESSAGES, i + 1).size());
        EXPECT_EQ(event.type, uint32_t{CL_EVENT_MESSAGE});
        EXPECT_EQ(event.length, static_cast<int32_t>(MESSAGES[i].size()));
        EXPECT_EQ(event.error, err);
        EXPECT_EQ(event.error.err | event.error.detail, 0u);
        EXPECT_EQ(event.error.module, uint32_t{CL_MODULE_MSGC});
        EXPECT_NE(event.error.line, 0u);
        CL_Event rest = event;
        rest.type = 0, rest.data = nullptr, rest.length = 0, rest.error = {};
        const CL_Event zero{};
        EXPECT_EQ(memcmp(&rest, &zero, sizeof zero), 0) << "no other field is filled";
    }
    begin();
    EXPECT_EQ(receive_step(), 0u);
}

/* The three places that run the receive step. */
enum Way { STEP, LOOP, SYNC };
const char *const WAYS[] = {"step", "loop", "sync"};

TEST_F(Transfer, HeadersMayLie) {
    const struct {
        uint32_t length;
        uint32_t version;
        uint32_t code;
    } headers[] = {
        {0, 0x00010001, EPROTO},
        {1, 0x00010001, EPROTO},
        {15, 0x00010001, EPROTO},
        {16, 0x00010001, NOTHING},
        {CAPACITY, 0x00010001, NOTHING},
        {CAPACITY + 1, 0x00010001, EMSGSIZE},
        {0x7fffffff, 0x00010001, EMSGSIZE},
        {0x80000000, 0x00010001, EPROTO},
        {0x80000010, 0x00010001, EPROTO},
        {0xffffffff, 0x00010001, EPROTO},
        {16, 0x00010000, EPROTO},
        {16, 0x00010002, EPROTO},
        {16, 0x01000100, EPROTO},
        {16, 0, EPROTO},
        {CAPACITY + 1, 0, EMSGSIZE},
        {0x64726167, 0x65676162, EMSGSIZE}, /* text */
    };
    for (const Way way : {STEP, LOOP, SYNC}) {
        for (const auto &header : headers) {
            SCOPED_TRACE(testing::Message() << WAYS[way] << std::hex << " length 0x"
                                            << header.length << " version 0x" << header.version);
            reconnect(client);
            peer.send(wire_header(header.length, header.version) + test::pattern(4096));
            CL_ErrInfo outcome;
            int32_t result = 1;
            if (way == STEP) {
                begin();
                ASSERT_EQ(receive_step(), 1u);
                outcome = event.error;
                EXPECT_EQ(outcome, err);
            } else if (way == LOOP) {
                await(client);
                list(client);
                ASSERT_EQ(iterate(), 0u) << err;
                ASSERT_EQ(heard.size(), 1u);
                event = heard[0].event;
                outcome = event.error;
                EXPECT_EQ(CL_DelEventList(client, &err), 1u);
            } else {
                result = receive();
                outcome = err;
            }
            const bool fine = header.code == NOTHING;
            EXPECT_EQ(outcome.err, header.code);
            EXPECT_EQ(outcome.detail, header.code);
            EXPECT_EQ(outcome.module, uint32_t{CL_MODULE_MSGC});
            EXPECT_EQ(client->status & CL_STATUS_FAILED, fine ? 0u : uint32_t{CL_STATUS_FAILED});
            EXPECT_EQ(client->sub_status, 0u);
            const auto length = static_cast<int32_t>(fine ? header.length : 16);
            EXPECT_EQ(client->connection.received_count, length);
            EXPECT_TRUE(guard_intact());
            if (!fine) {
                EXPECT_EQ(buffer[16], '#') << "no payload of a message that is refused is read";
            }
            if (way == SYNC) {
                EXPECT_EQ(result, fine ? length : -1);
                continue;
            }
            EXPECT_EQ(event.type, uint32_t{fine ? CL_EVENT_MESSAGE : CL_EVENT_DISCONNECT});
            EXPECT_EQ(event.data, buffer.data());
            EXPECT_EQ(event.length, length);
        }
    }
}

TEST_F(Transfer, PeerMayEndAtAnyByte) {
    const std::string message = wire_message("four");
    for (const bool reset : {false, true}) {
        for (std::size_t bytes = 0; bytes <= message.size(); bytes++) {
            SCOPED_TRACE(testing::Message() << (reset ? "reset" : "close") << " after " << bytes);
            reconnect(client);
            Block unread_by_peer;
            if (reset) {
                EXPECT_EQ(send(unread_by_peer, CL_MODE_IMMEDIATE), 16);
            }
            begin();
            peer.send(message.substr(0, bytes / 2));
            EXPECT_EQ(receive_step(), 0u);
            peer.send(message.substr(bytes / 2, bytes - bytes / 2));
            peer.close();
            if (bytes == message.size()) {
                ASSERT_EQ(receive_step(), 1u);
                EXPECT_EQ(event.type, uint32_t{CL_EVENT_MESSAGE});
                begin();
            }
            ASSERT_EQ(receive_step(), 1u);
            EXPECT_EQ(event.type, uint32_t{CL_EVENT_DISCONNECT});
            EXPECT_EQ(event.data, buffer.data());
            EXPECT_EQ(event.length, reset ? -1 : 0);
            EXPECT_THAT(err, test::FailsWith(reset ? ECONNRESET : EPIPE, CL_MODULE_MSGC));
            EXPECT_EQ(event.error, err);
            EXPECT_EQ(client->status, uint32_t{CL_STATUS_READY | CL_STATUS_FAILED});
        }
    }
}

TEST_F(Transfer, SendGoesOnAtAnyByte) {
    list(client);
    for (int32_t cut = 0; cut <= 60; cut++) {
        SCOPED_TRACE(cut);
        Block block(44);
        heard.clear();
        {
            const Plan plan{{.call = "send", .at_most = static_cast<std::size_t>(cut)},
                            {.call = "send", .error = EAGAIN, .nth = 2}};
            ASSERT_EQ(send(block, CL_MODE_IMMEDIATE), cut == 60 ? 60 : -1);
        }
        EXPECT_EQ(block->sent, static_cast<uint32_t>(cut));
        EXPECT_EQ(err.err, cut == 60 ? 0u : uint32_t{CL_ERR_IN_PROGRESS});
        EXPECT_EQ(block.queued(), cut != 60);
        EXPECT_EQ(client->sub_status, cut == 60 ? 0u : uint32_t{CL_SUB_SEND_PENDING});
        EXPECT_EQ(iterate(), 0u);
        EXPECT_EQ(peer.receive(), block.message());
        EXPECT_EQ(client->sub_status, 0u);
        if (cut == 60) {
            EXPECT_TRUE(heard.empty());
            continue;
        }
        ASSERT_EQ(heard.size(), 1u);
        CL_Event expected{};
        expected.type = CL_EVENT_SENT;
        expected.data = block.get();
        EXPECT_EQ(memcmp(&heard[0].event, &expected, sizeof expected), 0);
        EXPECT_FALSE(block.queued());
        EXPECT_EQ(block->sent, 60u);
    }
}

TEST_F(Transfer, FailedSendHandsEverythingBack) {
    for (const int code : {EPIPE, ECONNRESET, ENOBUFS, EBADF}) {
        SCOPED_TRACE(code);
        reconnect(client);
        begin();
        Block first(100), second, third;
        {
            const Plan plan{{.call = "send", .at_most = 3},
                            {.call = "send", .error = EAGAIN, .nth = 2}};
            EXPECT_EQ(send(first, CL_MODE_IMMEDIATE), -1);
        }
        EXPECT_EQ(send(second, CL_MODE_IMMEDIATE), -1);
        EXPECT_EQ(send(third, CL_MODE_DEFERRED), -1);
        const Plan plan{{.call = "send", .error = code}};
        EXPECT_EQ(cl_send(client, &event, &err), -1);
        EXPECT_THAT(err, test::FailsWith(code, CL_MODULE_MSGC));
        EXPECT_EQ(event.type, uint32_t{CL_EVENT_DISCONNECT});
        EXPECT_EQ(event.error, err);
        EXPECT_EQ(event.data, buffer.data());
        EXPECT_EQ(event.length, -1);
        EXPECT_THAT(test::blocks_of(event.queue),
                    ElementsAre(first.get(), second.get(), third.get()));
        EXPECT_EQ(first->sent, 3u);
        EXPECT_EQ(client->connection.send_queue.count, 0u);
        EXPECT_EQ(client->status, uint32_t{CL_STATUS_READY | CL_STATUS_FAILED});
        CL_QUE_Clear(&event.queue);
        event.type = 0;
        EXPECT_EQ(cl_send(client, &event, &err), -1) << "nothing is queued";
        EXPECT_THAT(err, test::FailsWith(CL_ERR_QUEUE, CL_MODULE_MSGC));
        EXPECT_EQ(event.type, 0u);
    }
}

TEST_F(Transfer, WriteFailureEndsTheCheck) {
    list(client);
    await(client);
    Block unread_by_peer;
    EXPECT_EQ(send(unread_by_peer, CL_MODE_IMMEDIATE), 16);
    const auto block = stuff(client);
    peer.send(wire_message("there"));
    peer.close();
    EXPECT_EQ(iterate(), 0u) << err;
    ASSERT_EQ(heard.size(), 1u) << "the message is not read after the connection was lost";
    const auto &lost = heard[0];
    EXPECT_EQ(lost.event.type, uint32_t{CL_EVENT_DISCONNECT});
    EXPECT_EQ(lost.event.length, -1);
    EXPECT_EQ(lost.event.data, buffer.data());
    EXPECT_THAT(lost.blocks, ElementsAre(block->get()));
    EXPECT_EQ(lost.status, uint32_t{CL_STATUS_READY | CL_STATUS_LISTED | CL_STATUS_FAILED});
    EXPECT_EQ(lost.sub_status, uint32_t{CL_SUB_RECV_PENDING});
    EXPECT_FALSE(block->queued()) << "after the callback the block is the application's";
}

TEST_F(Transfer, PeerThatNeverReads) {
    list(client);
    const auto block = stuff(client);
    const uint32_t sent = block->get()->sent;
    EXPECT_GT(sent, 0u);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(iterate(), 0u);
    EXPECT_TRUE(heard.empty());
    EXPECT_EQ(block->get()->sent, sent);
    std::string got;
    while (heard.empty()) {
        got += peer.receive();
        ASSERT_EQ(iterate(), 0u);
    }
    got += peer.receive();
    EXPECT_EQ(got, block->message());
    EXPECT_THAT(heard, ElementsAre(test::IsEvent(CL_EVENT_SENT)));
}

/* ---- The synchronous wait. What happens meanwhile happens just before a pselect. */

class Sync : public Transfer {
  protected:
    void SetUp() override {
        Transfer::SetUp();
        test::set_uptime(UPTIME);
    }
    void TearDown() override {
        CL_MainTable->sync_flag = 0;
        Transfer::TearDown();
    }

    static Fault at_wait(int nth, std::function<void()> what) {
        return {.call = "pselect", .nth = nth, .before = std::move(what)};
    }
    /* Leaves no room in a socket. */
    static void fill(int fd) {
        const std::string bytes(65536, 'x');
        while (::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
        }
    }
    static void tick(long uptime) {
        test::set_uptime(uptime);
        raise(SIGALRM);
    }
    /* The interval timer, its handler and the mask are as without any timer. */
    void expect_quiet() const {
        EXPECT_EQ(client->status & CL_STATUS_RUNNING, 0u);
        EXPECT_EQ(CL_MainTable->timer_list.count, 0u);
        itimerval timer = {};
        EXPECT_EQ(getitimer(ITIMER_REAL, &timer), 0);
        EXPECT_EQ(timer.it_interval.tv_sec, 0);
        struct sigaction action = {};
        EXPECT_EQ(sigaction(SIGALRM, nullptr, &action), 0);
        EXPECT_NE(action.sa_handler, cl_sigalm);
        sigset_t mask;
        EXPECT_EQ(sigprocmask(SIG_BLOCK, nullptr, &mask), 0);
        EXPECT_EQ(sigismember(&mask, SIGALRM), 0);
    }
};

TEST_F(Sync, TakesWhatIsThereAndSendsWithoutWaiting) {
    peer.send(wire_message("now") + wire_message("next"));
    const Plan plan;
    EXPECT_EQ(receive(), 19);
    EXPECT_EQ(err.err, 0u) << err;
    EXPECT_EQ(received().substr(0, 19), wire_message("now"));
    EXPECT_EQ(receive(), 20);
    EXPECT_EQ(plan.count("pselect"), 2);
    Block block(30);
    EXPECT_EQ(send(block, CL_MODE_SYNC), 46);
    EXPECT_EQ(plan.count("pselect"), 2) << "there is nearly always room";
    EXPECT_EQ(peer.receive(), block.message());
    EXPECT_EQ(client->sub_status, 0u);
}

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
        {.call = "pselect", .times = test::FOREVER, .before = [&] { got += peer.receive(); }}};
    EXPECT_EQ(send(block, CL_MODE_SYNC), block.length());
    EXPECT_EQ(err.err, 0u);
    EXPECT_GT(plan.count("pselect"), 1);
    EXPECT_EQ(got + peer.receive(), block.message());
    EXPECT_FALSE(block.queued());
}

TEST_F(Sync, TimesOut) {
    for (const uint32_t seconds : {1u, 3u}) {
        SCOPED_TRACE(seconds);
        reconnect(client);
        test::set_uptime(UPTIME);
        peer.send(wire_message("half").substr(0, 18));
        {
            const Plan plan{at_wait(1, [&] { tick(UPTIME + seconds - 1); }),
                            at_wait(2, [&] { tick(UPTIME + seconds); })};
            EXPECT_EQ(receive(seconds), -1);
            EXPECT_EQ(plan.count("pselect"), 2);
        }
        EXPECT_THAT(err, test::FailsWith(ETIMEDOUT, CL_MODULE_MSGC));
        EXPECT_EQ(client->status, uint32_t{CL_STATUS_READY}) << "the connection lives on";
        expect_quiet();
        peer.send(wire_message("half").substr(18) + wire_message("m"));
        EXPECT_EQ(receive(), -1) << "what is left of the message is taken for a header";
        EXPECT_NE(err.err, 0u);
    }
}

TEST_F(Sync, TimedOutBlockStaysQueued) {
    const auto big = std::make_unique<Block>(std::size_t{1} << 20);
    Block more;
    {
        const Plan plan{at_wait(1, [] { tick(UPTIME + 1); })};
        EXPECT_EQ(send(*big, CL_MODE_SYNC, 1), -1);
    }
    EXPECT_THAT(err, test::FailsWith(ETIMEDOUT, CL_MODULE_MSGC));
    expect_quiet();
    EXPECT_TRUE(big->queued());
    EXPECT_EQ(client->sub_status, 0u) << "the loop does not send it";
    EXPECT_EQ(send(more, CL_MODE_SYNC), -1);
    EXPECT_EQ(err.err, uint32_t{EINPROGRESS});
    EXPECT_EQ(send(more, CL_MODE_DEFERRED), -1);
    EXPECT_EQ(err.err, uint32_t{CL_ERR_IN_PROGRESS});
    CL_Queue unsent;
    EXPECT_EQ(CL_DiscMSGC(client, nullptr, &unsent, &err), 1u);
    EXPECT_THAT(test::blocks_of(unsent), ElementsAre(big->get(), more.get()));
    CL_QUE_Clear(&unsent);
}

TEST_F(Sync, AppliesTicksToAllTimers) {
    CL_Object *timer = make(CL_KIND_TIMER);
    ASSERT_EQ(CL_StartTIMER(timer, 3, CL_TIMER_ONESHOT, &err), 1u);
    {
        const Plan plan{at_wait(1, [] { tick(UPTIME + 1); }),
                        at_wait(2,
                                [&] {
                                    EXPECT_EQ(timer->remaining, 2u);
                                    tick(UPTIME + 3);
                                }),
                        at_wait(3,
                                [&] {
                                    EXPECT_EQ(timer->remaining, uint32_t{CL_TIMER_DUE});
                                    raise(SIGCHLD);
                                }),
                        at_wait(4, [&] { peer.send(wire_message("end")); })};
        EXPECT_EQ(receive(60), 19);
    }
    EXPECT_EQ(err.err, 0u) << err;
    EXPECT_TRUE(heard.empty()) << "callbacks of timers belong to the loop";
    EXPECT_EQ(CL_MainTable->timer_list.count, 1u) << "the connection's own timer is stopped";
    EXPECT_EQ(CL_MainTable->child_signal, 1u) << "other signals are left to the loop";
    EXPECT_EQ(CL_MainTable->timer_signals, 0u);
    EXPECT_EQ(iterate(), 0u);
    EXPECT_THAT(heard, ElementsAre(test::IsEvent(CL_EVENT_TIMER)));
    expect_quiet();
}

/* A tick that the application's mask holds back reaches the wait all the same. */
TEST_F(Sync, OpensTheWaitToBlockedTicks) {
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarm, nullptr);
    const Plan plan{at_wait(1, [] { tick(UPTIME + 1); })};
    EXPECT_EQ(receive(1), -1);
    EXPECT_EQ(err.err, uint32_t{ETIMEDOUT});
    sigprocmask(SIG_UNBLOCK, &alarm, nullptr);
}

TEST_F(Sync, FailsWithTheFirstError) {
    const Fault none = {.call = "pselect", .nth = test::FOREVER};
    const struct {
        Fault first, second;
        uint32_t timeout;
        int code;
        int module;
    } cases[] = {
        {{.call = "pselect", .error = ENOMEM}, none, 0, ENOMEM, CL_MODULE_MSGC},
        {at_wait(1, [this] { peer.send("x"); }),
         {.call = "pselect", .error = EBADF, .nth = 2},
         0,
         EBADF,
         CL_MODULE_MSGC},
        {{.call = "pselect", .error = ENOMEM},
         {.call = "setitimer", .error = EPERM, .nth = 2},
         9,
         ENOMEM,
         CL_MODULE_MSGC},
        {{.call = "sigprocmask", .error = EINVAL}, none, 9, EINVAL, CL_MODULE_MSGC},
        {{.call = "sysinfo", .error = EFAULT}, none, 9, EFAULT, CL_MODULE_TIMER},
        {at_wait(1, [this] { peer.send(wire_message("")); }),
         {.call = "setitimer", .error = EPERM, .nth = 2},
         9,
         EPERM,
         CL_MODULE_TIMER},
        {{.call = "recv", .error = EIO},
         at_wait(1, [this] { peer.send("x"); }),
         9,
         EIO,
         CL_MODULE_MSGC},
        {at_wait(1, [this] { peer.close(); }), none, 9, EPIPE, CL_MODULE_MSGC},
    };
    int number = 0;
    for (const auto &failure : cases) {
        SCOPED_TRACE(number++);
        reconnect(client);
        {
            const Plan plan{failure.first, failure.second};
            EXPECT_EQ(receive(failure.timeout), -1);
        }
        EXPECT_THAT(err, test::FailsWith(failure.code, failure.module));
        if (failure.second.call == "setitimer") { /* what could not be stopped still runs */
            EXPECT_EQ(cl_timer_end(&err), 1u);
        }
        expect_quiet();
    }
}

/* An interval timer that cannot be started leaves the connection's timer on its list. */
TEST_F(Sync, GivesUpATimeLimitThatDoesNotStart) {
    for (const char *const call : {"sigaction", "setitimer"}) {
        {
            const Plan plan{{.call = call, .error = EINVAL}};
            EXPECT_EQ(receive(9), -1);
        }
        EXPECT_THAT(err, test::FailsWith(EINVAL, CL_MODULE_TIMER));
        EXPECT_EQ(CL_DeleteFD(client, &err), 1u) << err;
        ASSERT_EQ(CL_MainTable->timer_list.count, 0u) << "a deleted object is on the timer list";
        expect_quiet();
        client = connect();
    }
}

TEST_F(Sync, RefusesDescriptorsBeyondTheSets) {
    constexpr int BEYOND = FD_SETSIZE + 5;
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max <= BEYOND) GTEST_SKIP() << "no such descriptor here";
    limit.rlim_cur = BEYOND + 1;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_EQ(dup2(client->descriptor, BEYOND), BEYOND);
    const int kept = std::exchange(client->descriptor, BEYOND);
    Block block;
    EXPECT_EQ(receive(1), -1);
    EXPECT_THAT(err, test::FailsWith(EMFILE, CL_MODULE_MSGC));
    EXPECT_EQ(send(block, CL_MODE_SYNC, 1), -1);
    EXPECT_THAT(err, test::FailsWith(EMFILE, CL_MODULE_MSGC));
    expect_quiet();
    list(client);
    EXPECT_EQ(CL_EventLoop(&err), CL_LOOP_ERROR);
    EXPECT_EQ(err.err, uint32_t{EBADF});
    ASSERT_THAT(heard, ElementsAre(test::IsEvent(CL_EVENT_FAILED)));
    EXPECT_THAT(heard[0].event.error, test::FailsWith(EMFILE, CL_MODULE_MSGC));
    EXPECT_EQ(heard[0].status, uint32_t{CL_STATUS_READY | CL_STATUS_LISTED | CL_STATUS_FAILED});
    EXPECT_TRUE(block.queued()) << "as after any failed wait";
    client->descriptor = kept;
    close(BEYOND);
    EXPECT_EQ(disconnect(client), 1u);
    EXPECT_FALSE(block.queued());
}

/* A started program that is asked to end while it waits for a message. */
class EndWatch : public Sync {
  protected:
    void SetUp() override {
        Sync::SetUp();
        watch_end();
        CL_MainTable->sync_flag = 1;
    }
    void TearDown() override {
        parent.close();
        Sync::TearDown();
    }
    void watch_end() {
        if (end != nullptr) {
            EXPECT_EQ(CL_DeleteFD(end, &err), 1u);
        }
        end = make(CL_KIND_END);
        EXPECT_EQ(CL_CnctMSGC_M(end, path.c_str(), CL_MODE_SYNC, 0, &err, 1, "test", 1), 1u) << err;
        parent = listener.accept();
        end->connection.end_callback = test::call_action;
        auto &report = end->connection.report;
        EXPECT_EQ(CL_RecvMSGC_M(end, report, 20, CL_MODE_DEFERRED, 0, &err, 1, "test", 1), -1);
    }
    static std::string end_request() { return wire_message("", CL_MSG_END_REQUEST); }

    test::Socket parent;
    CL_Object *end = nullptr;
};

TEST_F(EndWatch, EndsTheWait) {
    const std::function<void()> acts[] = {
        [this] { parent.send(end_request()); },
        [this] { parent.close(); },
        [this] { parent.send(wire_message("four", 5) + end_request()); },
    };
    for (int number = 0; number < 3 * 2 * 2 * 2; number++) {
        const bool sending = (number & 1) != 0;
        const bool late = (number & 2) != 0;
        const uint32_t answer = (number & 4) != 0 ? 7 : 0;
        const auto &act = acts[number / 8];
        SCOPED_TRACE(testing::Message() << "parent " << number / 8 << (sending ? " send" : " recv")
                                        << (late ? " late " : " early ") << answer);
        reconnect(client);
        watch_end();
        reply = [&](CL_Object *object, CL_Event *) {
            EXPECT_EQ(object, end);
            return answer;
        };
        Block block(1000);
        if (sending) fill(client->descriptor);
        if (!late) act();
        {
            const Plan plan{{.call = "pselect", .error = late ? EINTR : 0},
                            at_wait(2, [&] { act(); })};
            EXPECT_EQ(sending ? send(block, CL_MODE_SYNC, 9) : receive(9),
                      static_cast<int32_t>(answer));
        }
        EXPECT_THAT(err, test::FailsWith(EINTR, CL_MODULE_MSGC));
        ASSERT_EQ(heard.size(), 1u);
        EXPECT_EQ(heard[0].event.type, uint32_t{CL_EVENT_END});
        EXPECT_EQ(heard[0].event.error, CL_ErrInfo{});
        EXPECT_EQ(block.queued(), sending);
        expect_quiet();
        EXPECT_EQ(disconnect(client), 1u);
        EXPECT_FALSE(block.queued());
    }
}

TEST_F(EndWatch, OtherMessagesDoNotDisturb) {
    parent.send(wire_message("four", 1));
    peer.send(wire_message("hello"));
    EXPECT_EQ(receive(9), 21);
    EXPECT_EQ(err.err, 0u);
    parent.send(wire_message("four", 3));
    Block block(10);
    EXPECT_EQ(send(block, CL_MODE_SYNC, 9), 26);
    EXPECT_EQ(peer.receive(), block.message());
    EXPECT_TRUE(heard.empty());
    expect_quiet();
}

TEST_F(EndWatch, MayGiveTheConnectionUp) {
    for (const bool all : {false, true}) {
        SCOPED_TRACE(all ? "delete" : "disconnect");
        parent.send(end_request());
        reply = [&](CL_Object *, CL_Event *) {
            EXPECT_EQ(all ? CL_DeleteFD(client, &err) : disconnect(client), 1u) << err;
            return 3u;
        };
        EXPECT_EQ(receive(9), 3);
        EXPECT_EQ(err.err, uint32_t{EINTR});
        ASSERT_EQ(CL_MainTable->timer_list.count, 0u) << "its time limit runs on";
        expect_quiet();
        if (all) break;
        reconnect(client);
        watch_end();
    }
}

/* Without the flag nobody watches, and a report connection does not watch itself. */
TEST_F(EndWatch, IsOff) {
    parent.send(end_request());
    CL_MainTable->sync_flag = 0;
    peer.send(wire_message("hello"));
    EXPECT_EQ(receive(9), 21);
    CL_MainTable->sync_flag = 1;
    end->sub_status = 0;
    EXPECT_EQ(CL_RecvMSGC_M(end, end->connection.report, 20, CL_MODE_SYNC, 9, &err, 1, "test", 1),
              16);
    EXPECT_TRUE(heard.empty());
}

/* The steps that build a synchronous wait, one by one. */
TEST_F(EndWatch, BuildsItsSets) {
    const struct {
        CL_Object *with;
        std::vector<int> read, write;
    } receives[] = {{nullptr, {client->descriptor}, {}},
                    {end, {client->descriptor, end->descriptor}, {}}},
      sends[] = {{nullptr, {}, {client->descriptor}},
                 {end, {end->descriptor}, {client->descriptor}}};
    const auto expect = [](const fd_set &set, const std::vector<int> &members) {
        for (int fd = 0; fd < FD_SETSIZE; fd++) {
            const bool member = std::find(members.begin(), members.end(), fd) != members.end();
            ASSERT_EQ(FD_ISSET(fd, &set) != 0, member) << fd;
        }
    };
    for (const auto &c : receives) {
        CL_FdSets sets = {};
        int32_t count = 0;
        cl_make_recv_fd(client, c.with, &sets.read, &count);
        expect(sets.read, c.read);
        EXPECT_EQ(count, 1 + *std::max_element(c.read.begin(), c.read.end()));
    }
    for (const auto &c : sends) {
        CL_FdSets sets = {};
        int32_t count = 0;
        cl_make_send_fd(client, c.with, &sets.read, &sets.write, &count);
        expect(sets.read, c.read);
        expect(sets.write, c.write);
        EXPECT_EQ(count, 1 + std::max(client->descriptor, c.with != nullptr ? end->descriptor : 0));
    }
}

TEST_F(Sync, LooksAtTheTicks) {
    sigset_t alarm, saved, now;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    ASSERT_EQ(CL_StartTIMER_M(client, 5, CL_TIMER_ONESHOT, &err, 1, "test", 1), 1u);
    const struct {
        uint64_t ticks;
        long uptime;
        uint32_t timeout;
        int32_t result;
        uint32_t remaining;
    } looks[] = {
        {0, UPTIME + 9, 5, 0, 5}, /* no tick, no look at the uptime */
        {2, UPTIME + 4, 5, 0, 3},
        {2, UPTIME + 5, 0, 0, CL_TIMER_DUE}, /* no time limit in force */
        {1, UPTIME + 5, 5, 2, CL_TIMER_DUE},
    };
    for (const auto &look : looks) {
        CL_MainTable->timer_signals = look.ticks;
        test::set_uptime(look.uptime);
        EXPECT_EQ(cl_msgc_sigcheck(client, look.timeout, &alarm, &saved, &err), look.result);
        EXPECT_EQ(CL_MainTable->timer_signals, 0u);
        EXPECT_EQ(client->remaining, look.remaining);
        EXPECT_EQ(sigismember(&saved, SIGALRM), 0);
        sigprocmask(SIG_UNBLOCK, &alarm, &now);
        EXPECT_EQ(sigismember(&now, SIGALRM), look.result == 0 ? 1 : 0);
    }
    EXPECT_THAT(err, test::FailsWith(ETIMEDOUT, CL_MODULE_MSGC));
    CL_MainTable->timer_signals = 1;
    const Plan plan{{.call = "sigprocmask", .error = EINVAL, .nth = 2}};
    EXPECT_EQ(cl_msgc_sigcheck(client, 5, &alarm, &saved, &err), -1);
    EXPECT_THAT(err, test::FailsWith(EINVAL, CL_MODULE_MSGC));
    sigprocmask(SIG_UNBLOCK, &alarm, nullptr);
    EXPECT_EQ(CL_StopTIMER_M(client, &err, 1, "test", 1), 1u);
}

}  // namespace
