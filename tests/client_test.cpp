/* Message clients: every mode with every outcome, who owns a block when, what a refused call may
 * change (nothing), and callbacks that take their own connection away. */
#include <fcntl.h>
#include <qvcl/client.h>
#include <qvcl/loop.h>
#include <qvcl/server.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>

#include "tests/wire.h"

using test::Balance;
using test::Block;
using test::FailsWith;
using test::IsEvent;
using test::Plan;
using test::Socket;
using test::wire_message;
using testing::ElementsAre;

namespace {

constexpr uint32_t READY = CL_STATUS_READY;
constexpr uint32_t LISTED = CL_STATUS_LISTED;
constexpr uint32_t FAILED = CL_STATUS_FAILED;
constexpr auto MODES = {CL_MODE_SYNC, CL_MODE_IMMEDIATE, CL_MODE_DEFERRED};

class Client : public test::Messaging {
  protected:
    int32_t send(CL_Object *object, Block &block, uint32_t mode) {
        return CL_SendMSGC(object, block.get(), block.size(), mode, 0, &err);
    }
    bool goes_on() const { return err.err == CL_ERR_IN_PROGRESS && err.detail == err.err; }
    /* Leaves no room in the socket. */
    static void fill(const CL_Object *object) {
        const std::string bytes(65536, 'x');
        while (::send(object->descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
        }
    }
    static std::vector<uint32_t> types(const std::vector<Heard> &events, const CL_Object *of) {
        std::vector<uint32_t> result;
        for (const Heard &event : events) {
            if (event.object == of) result.push_back(event.event.type);
        }
        return result;
    }
};

TEST_F(Client, ConnectsInEveryMode) {
    const std::string name = folder.path(std::string(107 - folder.root().size() - 1, 'p'));
    const std::string file = folder.path("file"), stale = folder.path("stale");
    const std::string full = folder.path("full"), nowhere = folder.path("nowhere");
    const std::string too_long = name + "p";
    std::ofstream(file) << "content";
    Socket::listening(stale);
    const Socket long_name = Socket::listening(name), small = Socket::listening(full, 0);
    const Socket waiting = Socket::connected(full);
    const struct {
        const char *what;
        const char *at;
        int code;
    } places[] = {
        {"listening", path.c_str(), 0},
        {"107 characters", name.c_str(), 0},
        {"108 characters", too_long.c_str(), ENAMETOOLONG},
        {"null", nullptr, EFAULT},
        {"nothing there", nowhere.c_str(), ENOENT},
        {"nobody listens", stale.c_str(), ECONNREFUSED},
        {"backlog full", full.c_str(), EAGAIN},
        {"a file", file.c_str(), ECONNREFUSED},
        {"a directory", folder.root().c_str(), ECONNREFUSED},
    };
    CL_Object *client = make(CL_KIND_MSGC);
    for (const bool listed : {false, true}) {
        if (listed) {
            EXPECT_EQ(CL_CnctMSGC(client, path.c_str(), CL_MODE_SYNC, &err), 1u);
            list(client);
            EXPECT_EQ(disconnect(client), 1u);
        }
        const uint32_t kept = listed ? LISTED : 0;
        for (const auto &place : places) {
            for (const uint32_t mode : MODES) {
                SCOPED_TRACE(testing::Message() << place.what << " mode " << mode << listed);
                const Balance unconnected = Balance::now();
                const uint32_t result = CL_CnctMSGC(client, place.at, mode, &err);
                if (place.code != 0) {
                    EXPECT_EQ(result, 0u);
                    EXPECT_THAT(err, FailsWith(place.code, CL_MODULE_MSGC));
                    EXPECT_EQ(client->status, kept);
                    EXPECT_EQ(client->sub_status, 0u);
                    EXPECT_EQ(client->descriptor, -1);
                    EXPECT_EQ(Balance::now(), unconnected);
                    continue;
                }
                const bool sync = mode == CL_MODE_SYNC;
                EXPECT_EQ(result, sync ? 1u : 0u);
                if (sync) {
                    EXPECT_THAT(err, test::IsClear());
                } else {
                    EXPECT_THAT(err, FailsWith(CL_ERR_IN_PROGRESS, CL_MODULE_MSGC));
                }
                EXPECT_EQ(client->status, READY | kept);
                EXPECT_EQ(client->sub_status, sync ? 0u : uint32_t{CL_SUB_CONNECT_PENDING});
                EXPECT_STREQ(client->connection.address.sun_path, place.at);
                EXPECT_EQ(fcntl(client->descriptor, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
                EXPECT_EQ(fcntl(client->descriptor, F_GETFD), FD_CLOEXEC);
                if (listed && !sync) {
                    heard.clear();
                    EXPECT_EQ(iterate(), 0u);
                    ASSERT_EQ(heard.size(), 1u);
                    CL_Event expected = {};
                    expected.type = CL_EVENT_CONNECTED;
                    EXPECT_EQ(memcmp(&heard[0].event, &expected, sizeof expected), 0);
                    EXPECT_EQ(client->sub_status, 0u);
                }
                EXPECT_EQ(disconnect(client), 1u);
                EXPECT_EQ(client->status, kept);
            }
        }
    }
}

TEST_F(Client, ConnectSurvivesEveryFailure) {
    CL_Object *client = make(CL_KIND_MSGC);
    const Balance unconnected = Balance::now();
    const struct {
        const char *call;
        int nth;
    } steps[] = {{"socket", 1}, {"fcntl", 1}, {"fcntl", 2}, {"connect", 1}};
    for (const auto &step : steps) {
        for (const int code : {EMFILE, ENOMEM, EACCES, EINTR}) {
            SCOPED_TRACE(testing::Message() << step.call << " " << step.nth << ": " << code);
            const Plan plan{{.call = step.call, .error = code, .nth = step.nth}};
            const uint32_t result = CL_CnctMSGC(client, path.c_str(), CL_MODE_SYNC, &err);
            EXPECT_EQ(plan.hits(), 1);
            if (code == EINTR) {
                EXPECT_EQ(result, 1u) << err;
                EXPECT_EQ(disconnect(client), 1u);
                continue;
            }
            EXPECT_EQ(result, 0u);
            EXPECT_THAT(err, FailsWith(code, CL_MODULE_MSGC));
            EXPECT_EQ(client->status, 0u);
            EXPECT_EQ(client->descriptor, -1);
            EXPECT_EQ(Balance::now(), unconnected);
        }
    }
}

TEST_F(Client, RefusedCallsChangeNothing) {
    CL_Object *fresh = make(CL_KIND_MSGC), *timer = make(CL_KIND_TIMER);
    CL_Object *deleted = make(CL_KIND_MSGC), *report = make(CL_KIND_END);
    EXPECT_EQ(CL_DeleteFD(deleted, &err), 1u);
    std::vector<Socket> peers;
    const auto connected = [&] {
        CL_Object *object = connect();
        peers.push_back(std::move(peer));
        return object;
    };
    CL_Object *idle = connected(), *receiving = connected(), *sending = connected();
    CL_Object *failed = connected(), *pending = make(CL_KIND_MSGC);
    await(receiving);
    const auto stuffed = stuff(sending);
    peers.back().close();
    EXPECT_EQ(CL_RecvMSGC(failed, buffer.data(), 16, CL_MODE_SYNC, 0, &err), -1);
    EXPECT_EQ(CL_CnctMSGC(pending, path.c_str(), CL_MODE_DEFERRED, &err), 0u);

    Block block(20);
    CL_Queue other;
    CL_QUE_InitQT(&other, 0);
    Block elsewhere(20);
    CL_QUE_PutTail(&other, elsewhere.get());
    constexpr int SYNC = CL_MODE_SYNC, NOW = CL_MODE_IMMEDIATE, LATER = CL_MODE_DEFERRED;
    const auto receive = [this](void *to, int32_t capacity, uint32_t mode, uint8_t flag = 0) {
        return [=, this](CL_Object *object) {
            return CL_RecvMSGC_M(object, to, capacity, mode, 1, &err, flag, "t", 1);
        };
    };
    const auto sends = [this](Block &what, int32_t size, uint32_t mode, uint8_t flag = 0) {
        return [=, this, &what](CL_Object *object) {
            return CL_SendMSGC_M(object, what.get(), size, mode, 1, &err, flag, "t", 1);
        };
    };
    const auto connects = [this](uint32_t mode, uint8_t flag = 0) {
        return [=, this](CL_Object *object) {
            const auto *at = path.c_str();
            return CL_CnctMSGC_M(object, at, mode, 0, &err, flag, "t", 1) == 0 ? -1 : 0;
        };
    };
    const auto disconnects = [this](CL_Object *object) {
        uint64_t out = 0;
        CL_Queue unsent = {};
        return CL_DiscMSGC(object, &out, &unsent, &err) == 0 ? -1 : 0;
    };
    void *const into = buffer.data();
    const struct {
        int line;
        CL_Object *object;
        std::function<int32_t(CL_Object *)> call;
        int code;
        int module = CL_MODULE_MSGC;
    } refusals[] = {
        {__LINE__, fresh, receive(into, 64, SYNC), EBADF},
        {__LINE__, fresh, receive(into, 64, LATER), EBADF},
        {__LINE__, fresh, sends(block, 76, SYNC), EBADF},
        {__LINE__, fresh, sends(block, 76, LATER), EBADF},
        {__LINE__, fresh, disconnects, EBADF},
        {__LINE__, fresh, connects(0), EINVAL},
        {__LINE__, fresh, connects(4), EINVAL},
        {__LINE__, fresh, connects(0xffffffff), EINVAL},
        {__LINE__, pending, receive(into, 64, LATER), EBADF},
        {__LINE__, pending, sends(block, 76, NOW), EBADF},
        {__LINE__, pending, connects(SYNC), EALREADY},
        {__LINE__, failed, receive(into, 64, LATER), EBADF},
        {__LINE__, failed, sends(block, 76, NOW), EBADF},
        {__LINE__, failed, connects(SYNC), EALREADY},
        {__LINE__, idle, connects(SYNC), EALREADY},
        {__LINE__, idle, connects(9), EALREADY},
        {__LINE__, idle, receive(into, 64, 0), EINVAL},
        {__LINE__, idle, receive(into, 64, 4), EINVAL},
        {__LINE__, idle, receive(into, 15, SYNC), EINVAL},
        {__LINE__, idle, receive(into, 0, LATER), EINVAL},
        {__LINE__, idle, receive(into, -1, NOW), EINVAL},
        {__LINE__, idle, receive(nullptr, 64, SYNC), EFAULT},
        {__LINE__, idle, sends(block, 76, 0), EINVAL},
        {__LINE__, idle, sends(block, 76, 4), EINVAL},
        {__LINE__, idle, sends(block, 55, SYNC), EINVAL},
        {__LINE__, idle, sends(block, 0, NOW), EINVAL},
        {__LINE__, idle, sends(block, -1, LATER), EINVAL},
        {__LINE__, idle, sends(block, INT32_MIN, LATER), EINVAL},
        {__LINE__, idle, sends(elsewhere, 76, SYNC), EINVAL},
        {__LINE__, idle, sends(elsewhere, 76, LATER), EINVAL},
        {__LINE__, idle, sends(*stuffed, stuffed->size(), NOW), EINVAL},
        {__LINE__, sending, sends(*stuffed, stuffed->size(), LATER), EINVAL},
        {__LINE__, sending, sends(block, 76, SYNC), EINPROGRESS},
        {__LINE__, receiving, receive(into, 64, LATER), EINPROGRESS},
        {__LINE__, receiving, receive(into, 64, SYNC), EINPROGRESS},
        {__LINE__, receiving, receive(into, 1, 9), EINPROGRESS},
        {__LINE__, timer, receive(into, 64, SYNC), EBADF},
        {__LINE__, timer, sends(block, 76, SYNC), EBADF},
        {__LINE__, timer, connects(SYNC), EBADF},
        {__LINE__, timer, disconnects, EBADF},
        {__LINE__, report, connects(SYNC), EBADF},
        {__LINE__, deleted, receive(into, 64, SYNC), EBADF, CL_MODULE_FD},
        {__LINE__, deleted, sends(block, 76, SYNC), EBADF, CL_MODULE_FD},
        {__LINE__, nullptr, connects(SYNC, 1), EBADF, CL_MODULE_FD},
        {__LINE__, nullptr, disconnects, EBADF, CL_MODULE_FD},
    };
    const Balance balance = Balance::now();
    const std::string contents(buffer.begin(), buffer.end());
    const auto bytes_of = [](const auto &thing) {
        return std::string(reinterpret_cast<const char *>(&thing), sizeof thing);
    };
    const auto blocks = [&] {
        return bytes_of(*block.get()) + bytes_of(*elsewhere.get()) + bytes_of(*stuffed->get());
    };
    const std::string blocks_before = blocks();
    for (const auto &refusal : refusals) {
        SCOPED_TRACE(testing::Message() << "row of line " << refusal.line);
        const CL_Object *object = refusal.object;
        const std::string object_before = object != nullptr ? bytes_of(*object) : "";
        err = test::UNTOUCHED;
        const Plan plan;
        EXPECT_EQ(refusal.call(refusal.object), -1);
        EXPECT_THAT(err, FailsWith(refusal.code, refusal.module));
        EXPECT_TRUE(object == nullptr || bytes_of(*object) == object_before);
        EXPECT_EQ(blocks(), blocks_before);
        for (const char *call : {"socket", "recv", "send", "pselect", "close", "setitimer"}) {
            EXPECT_EQ(plan.count(call), 0) << call;
        }
    }
    EXPECT_EQ(Balance::now(), balance);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), contents);
    EXPECT_EQ(CL_SendMSGC(idle, nullptr, 56, CL_MODE_IMMEDIATE, 0, &err), -1);
    EXPECT_THAT(err, FailsWith(EFAULT, CL_MODULE_MSGC));
    EXPECT_EQ(disconnect(sending), 1u);
    CL_QUE_Clear(&other);
}

TEST_F(Client, SendsInEveryMode) {
    enum Outcome { ROOM, NO_ROOM, QUEUED_BEFORE, PEER_GONE };
    CL_Object *client = connect();
    for (const Outcome outcome : {ROOM, NO_ROOM, QUEUED_BEFORE, PEER_GONE}) {
        for (const uint32_t mode : MODES) {
            if (outcome == NO_ROOM && mode == CL_MODE_SYNC) continue; /* would wait */
            SCOPED_TRACE(testing::Message() << "outcome " << outcome << " mode " << mode);
            reconnect(client);
            Block block(100), first;
            if (outcome == NO_ROOM) fill(client);
            if (outcome == PEER_GONE) peer.close();
            if (outcome == QUEUED_BEFORE) {
                EXPECT_EQ(send(client, first, CL_MODE_DEFERRED), -1);
            }
            const int32_t result = send(client, block, mode);
            uint32_t code = CL_ERR_IN_PROGRESS;
            if (outcome == ROOM && mode != CL_MODE_DEFERRED) code = 0;
            if (outcome == QUEUED_BEFORE && mode == CL_MODE_SYNC) code = EINPROGRESS;
            if (outcome == PEER_GONE) code = EPIPE;
            EXPECT_EQ(result, code == 0 ? block.length() : -1);
            EXPECT_EQ(err.err, code);
            EXPECT_EQ(err.detail, code);
            const bool queued = code == CL_ERR_IN_PROGRESS;
            EXPECT_EQ(block.queued(), queued) << "a block is queued as long as the client has it";
            EXPECT_EQ(client->status, code == EPIPE ? READY | FAILED : READY);
            const bool later = queued || outcome == QUEUED_BEFORE;
            EXPECT_EQ(client->sub_status, later ? uint32_t{CL_SUB_SEND_PENDING} : 0u);
            if (code == EPIPE) continue;
            /* Queued behind another: nothing is written. Deferred with room: all of it. */
            if (queued) {
                EXPECT_EQ(block->sent, outcome == ROOM ? 116u : 0u);
            }
            list(client);
            const std::string before_loop = peer.receive();
            for (int i = 0; i < 4; i++)
                EXPECT_EQ(iterate(), 0u);
            std::vector<void *> told;
            for (const Heard &event : heard) {
                EXPECT_EQ(event.event.type, uint32_t{CL_EVENT_SENT});
                told.push_back(event.event.data);
            }
            std::vector<void *> expected;
            if (outcome == QUEUED_BEFORE) expected.push_back(first.get());
            if (queued) expected.push_back(block.get());
            EXPECT_EQ(told, expected) << "each block comes back once";
            EXPECT_FALSE(block.queued() || first.queued());
            EXPECT_EQ(client->sub_status, 0u);
            const std::string all = before_loop + peer.receive();
            if (code != EINPROGRESS) {
                EXPECT_TRUE(all.ends_with(block.message()));
            }
            EXPECT_EQ(CL_DelEventList(client, &err), 1u);
        }
    }
}

TEST_F(Client, SendsInARow) {
    CL_Object *client = connect();
    list(client);
    for (const bool deferred : {true, false}) {
        Block a(1, 1), b(2, 2), c(3, 3);
        Plan plan;
        heard.clear();
        for (Block *block : {&a, &b, &c}) {
            const int32_t result =
                send(client, *block, deferred ? CL_MODE_DEFERRED : CL_MODE_IMMEDIATE);
            EXPECT_EQ(result, deferred ? -1 : block->length());
            EXPECT_EQ(goes_on(), deferred);
        }
        EXPECT_EQ(plan.count("send"), deferred ? 1 : 3);
        for (int i = 0; i < 4; i++)
            EXPECT_EQ(iterate(), 0u);
        EXPECT_EQ(peer.receive(), a.message() + b.message() + c.message());
        ASSERT_EQ(heard.size(), deferred ? 3u : 0u);
        if (!deferred) break;
        EXPECT_EQ(heard[0].event.data, a.get());
        EXPECT_EQ(heard[1].event.data, b.get());
        EXPECT_EQ(heard[2].event.data, c.get());
        EXPECT_EQ(heard[1].sub_status, uint32_t{CL_SUB_SEND_PENDING});
        EXPECT_EQ(heard[2].sub_status, 0u) << "nothing is queued any more";
    }
}

TEST_F(Client, DisconnectHandsEverythingBack) {
    CL_Object *client = connect();
    for (int number = 0; number < 2 * 2 * 2 * 2 * 2; number++) {
        SCOPED_TRACE(number);
        const bool want_buffer = (number & 1) != 0, want_blocks = (number & 2) != 0;
        const bool receiving = (number & 4) != 0, lost = (number & 8) != 0;
        const bool fails = (number & 16) != 0;
        reconnect(client);
        if (receiving) await(client);
        Block second;
        const auto first = stuff(client);
        EXPECT_EQ(send(client, second, CL_MODE_DEFERRED), -1);
        if (lost) {
            peer.close();
            CL_Event event;
            EXPECT_EQ(cl_send(client, &event, &err), -1);
            EXPECT_EQ(event.queue.count, 2u);
            CL_QUE_Clear(&event.queue);
        }
        uint64_t out = 1;
        CL_Queue unsent = {client, client, 9, 9};
        {
            const Plan plan{{.call = "close", .error = fails ? EIO : 0}};
            EXPECT_EQ(CL_DiscMSGC(client, want_buffer ? &out : nullptr,
                                  want_blocks ? &unsent : nullptr, &err),
                      fails ? 0u : 1u);
        }
        if (fails) {
            EXPECT_THAT(err, FailsWith(EIO, CL_MODULE_MSGC));
            EXPECT_NE(client->descriptor, -1);
            EXPECT_EQ(disconnect(client), 1u) << "it can be tried again";
        }
        EXPECT_THAT(err, test::IsClear());
        EXPECT_EQ(out, !want_buffer ? 1 : receiving ? test::address(buffer.data()) : 0);
        if (want_blocks) {
            const std::vector<CL_MsgBlock *> both = {first->get(), second.get()};
            EXPECT_EQ(test::blocks_of(unsent), lost ? std::vector<CL_MsgBlock *>{} : both);
            EXPECT_EQ(unsent.link_offset, 0u);
            CL_QUE_Clear(&unsent);
        }
        EXPECT_FALSE(first->queued() || second.queued());
        EXPECT_EQ(client->status | client->sub_status, 0u);
        EXPECT_EQ(client->descriptor, -1);
        EXPECT_EQ(client->connection.receive_buffer, nullptr);
        EXPECT_EQ(disconnect(client), 0u);
        EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_MSGC));
    }
    reconnect(client);
    const auto left = stuff(client);
    EXPECT_EQ(CL_DeleteFD(client, &err), 1u);
    EXPECT_FALSE(left->queued()) << "deletion unlinks blocks";
    EXPECT_TRUE(peer.receive().size() > 0 && peer.ended());
}

TEST_F(Client, LostBlocksCanBeSentAgain) {
    CL_Object *client = connect();
    list(client);
    const auto big = stuff(client);
    Block small(5);
    EXPECT_EQ(send(client, small, CL_MODE_IMMEDIATE), -1);
    peer.close();
    std::string got;
    reply = [&](CL_Object *, CL_Event *event) {
        EXPECT_EQ(send(client, small, CL_MODE_IMMEDIATE), -1) << "the connection is lost";
        EXPECT_EQ(disconnect(client), 1u);
        EXPECT_EQ(CL_CnctMSGC(client, path.c_str(), CL_MODE_SYNC, &err), 1u);
        peer = listener.accept();
        EXPECT_EQ(send(client, small, CL_MODE_IMMEDIATE), -1) << "it is still in the event";
        EXPECT_EQ(err.err, uint32_t{EINVAL});
        EXPECT_EQ(CL_QUE_GetTop(&event->queue), big->get());
        EXPECT_EQ(CL_QUE_GetTop(&event->queue), small.get());
        EXPECT_EQ(send(client, small, CL_MODE_IMMEDIATE), 21);
        EXPECT_EQ(send(client, *big, CL_MODE_DEFERRED), -1);
        reply = nullptr;
        return 0u;
    };
    EXPECT_EQ(iterate(), 0u) << err;
    ASSERT_THAT(heard, ElementsAre(IsEvent(CL_EVENT_DISCONNECT)));
    EXPECT_THAT(heard[0].event.error, FailsWith(EPIPE, CL_MODULE_MSGC));
    while (heard.size() == 1) {
        got += peer.receive();
        ASSERT_EQ(iterate(), 0u);
    }
    EXPECT_EQ(got + peer.receive(), small.message() + big->message());
}

TEST_F(Client, WriteSideComesFirst) {
    CL_Object *client = connect();
    list(client);
    for (const uint32_t answer : {0u, 5u}) {
        SCOPED_TRACE(answer);
        heard.clear();
        await(client);
        peer.send(wire_message("in"));
        Block block;
        EXPECT_EQ(send(client, block, CL_MODE_DEFERRED), -1);
        reply = [&](CL_Object *, CL_Event *event) {
            return event->type == CL_EVENT_SENT ? answer : 0;
        };
        EXPECT_EQ(iterate(), answer);
        if (answer == 0) {
            EXPECT_THAT(heard, ElementsAre(IsEvent(CL_EVENT_SENT), IsEvent(CL_EVENT_MESSAGE)));
            EXPECT_EQ(client->sub_status, 0u);
            continue;
        }
        EXPECT_THAT(heard, ElementsAre(IsEvent(CL_EVENT_SENT)));
        EXPECT_EQ(iterate(), 0u);
        EXPECT_EQ(heard.size(), 2u) << "the message waits for the next iteration";
    }
}

/* What a callback may do to its own connection, whatever it is called for. Nothing of the old
 * connection may be reported afterwards, and the objects behind it get their turn. */
class InItsCallback : public Client {
  protected:
    void new_connection(uint32_t mode) {
        EXPECT_EQ(CL_CnctMSGC(client, path.c_str(), mode, &err), mode == CL_MODE_SYNC ? 1u : 0u);
        peer = listener.accept();
    }
    void forget() {
        EXPECT_EQ(CL_DeleteFD(client, &err), 1u) << err;
        client = nullptr;
    }
    CL_Object *client = nullptr;
};

TEST_F(InItsCallback, EverythingIsAllowed) {
    const struct {
        const char *what;
        std::function<void()> act;
        std::vector<uint32_t> later; /* events of the next iteration */
    } acts[] = {
        {"nothing", [] {}, {}},
        {"disconnect", [&] { EXPECT_EQ(disconnect(client), 1u) << err; }, {CL_EVENT_FAILED}},
        {"delete", [&] { forget(); }, {}},
        {"unlist", [&] { EXPECT_EQ(CL_DelEventList(client, &err), 1u); }, {}},
        {"reconnect",
         [&] {
             EXPECT_EQ(disconnect(client), 1u);
             new_connection(CL_MODE_SYNC);
         },
         {}},
        {"reconnect later",
         [&] {
             EXPECT_EQ(disconnect(client), 1u);
             new_connection(CL_MODE_DEFERRED);
         },
         {CL_EVENT_CONNECTED}},
        {"reconnect and receive",
         [&] {
             EXPECT_EQ(disconnect(client), 1u);
             new_connection(CL_MODE_SYNC);
             peer.send(wire_message("new"));
             await(client);
         },
         {CL_EVENT_MESSAGE}},
        {"replace",
         [&] {
             forget();
             client = make(CL_KIND_MSGC);
             new_connection(CL_MODE_SYNC);
             list(client);
             peer.send(wire_message("new"));
             await(client);
         },
         {CL_EVENT_MESSAGE}},
    };
    enum { READ_LOST = CL_EVENT_DISCONNECT, WRITE_LOST = 100 };
    const uint32_t events[] = {CL_EVENT_CONNECTED, CL_EVENT_MESSAGE, CL_EVENT_SENT, READ_LOST,
                               WRITE_LOST};
    for (const uint32_t cause : events) {
        const uint32_t type = cause == WRITE_LOST ? uint32_t{CL_EVENT_DISCONNECT} : cause;
        for (const auto &act : acts) {
            SCOPED_TRACE(testing::Message() << "event " << cause << ": " << act.what);
            CL_Object *behind = connect();
            const Socket behind_peer = std::move(peer);
            std::vector<char> other(64);
            list(behind, 50);
            EXPECT_EQ(CL_RecvMSGC(behind, other.data(), 64, CL_MODE_DEFERRED, 0, &err), -1);
            behind_peer.send(wire_message("behind"));

            client = connect();
            if (cause == CL_EVENT_CONNECTED) {
                EXPECT_EQ(disconnect(client), 1u);
                new_connection(CL_MODE_IMMEDIATE);
            } else {
                await(client);
            }
            list(client);
            Block block, unread_by_peer;
            std::unique_ptr<Block> stuffed;
            if (cause == CL_EVENT_MESSAGE) peer.send(wire_message("old") + wire_message("next"));
            if (cause == CL_EVENT_SENT) {
                peer.send(wire_message("old"));
                EXPECT_EQ(send(client, block, CL_MODE_DEFERRED), -1);
            }
            if (cause == WRITE_LOST) {
                EXPECT_EQ(send(client, unread_by_peer, CL_MODE_IMMEDIATE), 16);
                stuffed = stuff(client);
                peer.send(wire_message("old"));
            }
            if (cause == READ_LOST || cause == WRITE_LOST) peer.close();

            heard.clear();
            const CL_Object *const called = client;
            bool done = false;
            reply = [&](CL_Object *object, CL_Event *event) {
                if (object != called || std::exchange(done, true)) return 0u;
                EXPECT_EQ(event->type, type);
                act.act();
                return 0u;
            };
            EXPECT_EQ(iterate(), 0u) << err;
            EXPECT_TRUE(done);
            std::vector<uint32_t> expected = {type};
            const std::string what = act.what;
            if (cause == CL_EVENT_SENT && (what == "nothing" || what == "unlist")) {
                expected.push_back(CL_EVENT_MESSAGE);
            }
            EXPECT_EQ(types(heard, called), expected);
            EXPECT_EQ(types(heard, behind), std::vector<uint32_t>{CL_EVENT_MESSAGE});
            EXPECT_FALSE(block.queued() || (stuffed && stuffed->queued()));

            heard.clear();
            std::vector<uint32_t> later = act.later;
            const bool lost = type == CL_EVENT_DISCONNECT;
            if (lost && what == "nothing") later = {CL_EVENT_FAILED};
            reply = [](CL_Object *, CL_Event *event) {
                return event->type == CL_EVENT_FAILED ? 1u : 0u;
            };
            const bool ends = later == std::vector<uint32_t>{CL_EVENT_FAILED};
            EXPECT_EQ(iterate(), ends ? 1u : 0u);
            std::vector<uint32_t> all;
            for (const Heard &event : heard)
                all.push_back(event.event.type);
            EXPECT_EQ(all, later);
            if (client != nullptr) forget();
            EXPECT_EQ(CL_DeleteFD(behind, &err), 1u);
        }
    }
}

/* Both ends in one process, and transfers that wait inside callbacks of the loop. */
TEST_F(InItsCallback, SynchronousTransfersWork) {
    client = connect();
    list(client);
    await(client);
    peer.send(wire_message("one") + wire_message("two"));
    Block answer(10);
    reply = [&](CL_Object *, CL_Event *event) {
        EXPECT_EQ(event->type, uint32_t{CL_EVENT_MESSAGE});
        EXPECT_EQ(CL_RecvMSGC(client, buffer.data(), CAPACITY, CL_MODE_SYNC, 9, &err), 19);
        EXPECT_EQ(received().substr(16, 3), "two");
        EXPECT_EQ(CL_SendMSGC(client, answer.get(), answer.size(), CL_MODE_SYNC, 9, &err), 26);
        return 0u;
    };
    EXPECT_EQ(iterate(), 0u);
    EXPECT_EQ(heard.size(), 1u);
    EXPECT_EQ(peer.receive(), answer.message());
    EXPECT_EQ(CL_MainTable->timer_list.count, 0u);
}

/* The check of one object with results that do not belong to what it waits for. */
TEST_F(Client, ResultsWithoutAReasonAreAnError) {
    CL_Object *client = connect();
    for (fd_set CL_FdSets::*set : {&CL_FdSets::read, &CL_FdSets::write}) {
        cl_clearlist();
        FD_SET(client->descriptor, &(CL_MainTable->sets.*set));
        EXPECT_EQ(cl_CheckMSGC_M(client, &err), CL_LOOP_ERROR);
        EXPECT_THAT(err, FailsWith(CL_ERR_QUEUE, CL_MODULE_MSGC));
    }
    EXPECT_TRUE(heard.empty());
}

TEST_F(Client, IsWatchedOnlyForWhatIsPending) {
    CL_Object *client = connect();
    const struct {
        uint32_t sub_status;
        bool read, write;
    } rows[] = {{0, false, false},
                {CL_SUB_CONNECT_PENDING, false, true},
                {CL_SUB_RECV_PENDING, true, false},
                {CL_SUB_SEND_PENDING, false, true},
                {CL_SUB_RECV_PENDING | CL_SUB_SEND_PENDING, true, true}};
    for (const auto &row : rows) {
        cl_clearlist();
        client->sub_status = row.sub_status;
        EXPECT_EQ(cl_MakeListMSGC_M(client), 0u);
        const CL_FdSets &sets = CL_MainTable->sets;
        EXPECT_EQ(FD_ISSET(client->descriptor, &sets.read) != 0, row.read);
        EXPECT_EQ(FD_ISSET(client->descriptor, &sets.write) != 0, row.write);
        EXPECT_EQ(CL_MainTable->descriptor_count, row.sub_status == 0 ? 0 : client->descriptor + 1);
    }
    client->sub_status = 0;
    for (const uint32_t status : {LISTED, READY | LISTED | FAILED}) {
        const uint32_t kept = std::exchange(client->status, status);
        EXPECT_EQ(cl_MakeListMSGC_M(client), uint32_t{EBADF});
        EXPECT_EQ(client->status, status | FAILED);
        EXPECT_THAT(client->error, FailsWith(EBADF, CL_MODULE_MSGC));
        client->status = kept;
    }
}

}  // namespace
