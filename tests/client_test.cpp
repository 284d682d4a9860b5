// Message clients: where they connect, what a refused call may change (nothing), what a disconnect
// hands back, and callbacks that take their own connection away.
#include <fcntl.h>
#include <qvcl/client.h>
#include <qvcl/loop.h>
#include <sys/socket.h>

#include "tests/wire.h"

using test::Balance;
using test::Block;
using test::FailsWith;
using test::Socket;
using test::wire_message;

namespace {

class Client : public test::Messaging {
  protected:
    int32_t send(CL_Object *object, Block &block, uint32_t mode) {
        return CL_SendMSGC(object, block.get(), block.size(), mode, 0, &err);
    }
    std::vector<uint32_t> types() const {
        std::vector<uint32_t> result;
        for (const Heard &event : heard)
            result.push_back(event.event.type);
        return result;
    }
};

TEST_F(Client, ConnectsInEveryMode) {
    const std::string name = folder.path(std::string(107 - folder.path("").size(), 'p'));
    const std::string file = folder.put("file", "content"), stale = folder.path("stale");
    const std::string full = folder.path("full"), too_long = name + "p";
    Socket::listening(stale);
    const Socket long_name = Socket::listening(name), small = Socket::listening(full, 0);
    const Socket waiting = Socket::connected(full);
    const std::pair<const char *, int> places[] = {{path.c_str(), 0},
                                                   {name.c_str(), 0},
                                                   {too_long.c_str(), ENAMETOOLONG},
                                                   {nullptr, EFAULT},
                                                   {stale.c_str(), ECONNREFUSED},
                                                   {full.c_str(), EAGAIN},
                                                   {file.c_str(), ECONNREFUSED}};
    CL_Object *client = make(CL_KIND_MSGC);
    for (const auto &[place, code] : places) {
        for (const uint32_t mode : {CL_MODE_SYNC, CL_MODE_IMMEDIATE, CL_MODE_DEFERRED}) {
            SCOPED_TRACE(testing::Message() << (code == 0 ? place : strerror(code)) << mode);
            const bool sync = mode == CL_MODE_SYNC;
            const Balance unconnected = Balance::now();
            EXPECT_EQ(CL_CnctMSGC(client, place, mode, &err), code == 0 && sync ? 1u : 0u);
            if (code != 0) {
                EXPECT_THAT(err, FailsWith(code, CL_MODULE_MSGC));
                EXPECT_EQ(client->status | client->sub_status, 0u);
                EXPECT_EQ(client->descriptor, -1);
                EXPECT_EQ(Balance::now(), unconnected);
                continue;
            }
            EXPECT_EQ(err.err, sync ? 0u : uint32_t{CL_ERR_IN_PROGRESS});
            EXPECT_EQ(client->status, uint32_t{CL_STATUS_READY});
            EXPECT_EQ(client->sub_status, sync ? 0u : uint32_t{CL_SUB_CONNECT_PENDING});
            EXPECT_EQ(fcntl(client->descriptor, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
            EXPECT_EQ(fcntl(client->descriptor, F_GETFD), FD_CLOEXEC);
            EXPECT_EQ(disconnect(client), 1u);
        }
    }
}

// What is asked of a connection in the wrong state, and with arguments that cannot be.
TEST_F(Client, RefusedCallsChangeNothing) {
    std::vector<Socket> peers;
    const auto connected = [&] {
        CL_Object *object = connect();
        peers.push_back(std::move(peer));
        return object;
    };
    CL_Object *idle = connected(), *receiving = connected(), *sending = connected();
    CL_Object *failed = connected(), *pending = make(CL_KIND_MSGC), *fresh = make(CL_KIND_MSGC);
    await(receiving);
    const auto stuffed = stuff(sending);
    peers.back().close();
    EXPECT_EQ(CL_RecvMSGC(failed, buffer.data(), 16, CL_MODE_SYNC, 0, &err), -1);
    EXPECT_EQ(CL_CnctMSGC(pending, path.c_str(), CL_MODE_DEFERRED, &err), 0u);

    Block block(20), elsewhere(20);
    CL_Queue other;
    CL_QUE_InitQT(&other, 0);
    CL_QUE_PutTail(&other, elsewhere.get());
    const auto receive = [&](int code, CL_Object *object, void *into, int32_t size, uint32_t mode) {
        refused("receive", code, CL_MODULE_MSGC,
                [&] { return CL_RecvMSGC(object, into, size, mode, 1, &err) + 1; });
    };
    const auto send = [&](int code, CL_Object *object, CL_MsgBlock *what, int32_t size,
                          uint32_t mode) {
        refused("send", code, CL_MODULE_MSGC,
                [&] { return CL_SendMSGC(object, what, size, mode, 1, &err) + 1; });
    };
    const auto connect = [&](int code, CL_Object *object, uint32_t mode) {
        refused("connect", code, CL_MODULE_MSGC,
                [&] { return CL_CnctMSGC(object, path.c_str(), mode, &err); });
    };
    constexpr uint32_t kSync = CL_MODE_SYNC, kNow = CL_MODE_IMMEDIATE, kLater = CL_MODE_DEFERRED;
    void *const into = buffer.data();
    connect(EINVAL, fresh, 0);
    receive(EBADF, pending, into, 64, kLater);
    connect(EALREADY, pending, kSync);
    receive(EBADF, failed, into, 64, kLater);
    connect(EALREADY, failed, kSync);
    connect(EALREADY, idle, kSync);
    receive(EINVAL, idle, into, 64, 0);
    receive(EINVAL, idle, into, 15, kSync);
    receive(EINVAL, idle, into, -1, kNow);
    receive(EFAULT, idle, nullptr, 64, kSync);
    send(EINVAL, idle, block.get(), 76, 0);
    send(EFAULT, idle, nullptr, 76, kSync);
    send(EINVAL, idle, block.get(), 55, kSync);
    send(EINVAL, idle, block.get(), INT32_MIN, kLater);
    send(EINVAL, idle, elsewhere.get(), 76, kSync);
    send(EINVAL, idle, stuffed->get(), stuffed->size(), kNow);
    send(EINPROGRESS, sending, block.get(), 76, kSync);
    receive(EINPROGRESS, receiving, into, 64, kLater);
    EXPECT_FALSE(block.queued());
    EXPECT_EQ(elsewhere->link.owner, &other);
    EXPECT_EQ(disconnect(sending), 1u);
    CL_QUE_Clear(&other);
}

// Another object watches the connection's socket too, for what the connection does not wait for.
TEST_F(Client, ReadyForWhatNobodyWaitsFor) {
    CL_Object *client = connect();
    list(client, 50);
    await(client);
    cl_StatusChange_M(client, client->status, client->sub_status | 0x100, "test", 1);
    EXPECT_EQ(iterate(), 0u) << "that bit alone asks for nothing";
    CL_Object *other = make(CL_KIND_FD);
    const fd_set set = test::only(client->descriptor);
    const auto count = static_cast<uint32_t>(client->descriptor) + 1;
    ASSERT_EQ(CL_SetFD(other, count, nullptr, &set, nullptr, &err), 1u);
    list(other, 20);
    EXPECT_EQ(CL_EventLoop(&err), CL_LOOP_ERROR);
    EXPECT_THAT(err, FailsWith(CL_ERR_QUEUE, CL_MODULE_MSGC));
    cl_StatusChange_M(client, client->status, 0, "test", 1);
    ASSERT_EQ(CL_SetFD(other, count, &set, nullptr, nullptr, &err), 1u);
    peer.send("x");
    EXPECT_EQ(CL_EventLoop(&err), CL_LOOP_ERROR);
    EXPECT_THAT(err, FailsWith(CL_ERR_QUEUE, CL_MODULE_MSGC));
}

// Also a disconnect that fails hands everything back, and nothing goes on into it.
TEST_F(Client, DisconnectHandsEverythingBack) {
    CL_Object *client = connect();
    list(client);
    for (int number = 0; number < 2 * 2 * 2 * 2 * 2; ++number) {
        SCOPED_TRACE(number);
        const bool want_buffer = (number & 1) != 0, want_blocks = (number & 2) != 0;
        const bool receiving = (number & 4) != 0, lost = (number & 8) != 0;
        const bool fails = (number & 16) != 0;
        reconnect(client);
        if (receiving) {
            await(client);
            peer.send(wire_message("in two parts").substr(0, 18));
            EXPECT_EQ(iterate(), 0u);
        }
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
            const test::Plan plan{{.call = "close", .error = fails ? EIO : 0}};
            EXPECT_EQ(CL_DiscMSGC(client, want_buffer ? &out : nullptr,
                                  want_blocks ? &unsent : nullptr, &err),
                      fails ? 0u : 1u);
        }
        EXPECT_EQ(err.err, fails ? uint32_t{EIO} : 0u);
        EXPECT_EQ(out, !want_buffer ? 1 : receiving ? test::address(buffer.data()) : 0);
        if (want_blocks) {
            const std::vector<CL_MsgBlock *> both = {first->get(), second.get()};
            EXPECT_EQ(test::blocks_of(unsent), lost ? std::vector<CL_MsgBlock *>{} : both);
            CL_QUE_Clear(&unsent);
        }
        EXPECT_FALSE(first->queued() || second.queued());
        EXPECT_EQ(client->connection.receive_buffer, nullptr);
        EXPECT_EQ(client->sub_status, 0u);
        EXPECT_EQ(client->status & CL_STATUS_READY, fails ? uint32_t{CL_STATUS_READY} : 0u);
        EXPECT_EQ(client->descriptor != -1, fails);
        if (!fails || lost) continue;
        peer.receive();
        peer.send(wire_message("in two parts").substr(18));
        EXPECT_EQ(iterate(), 0u);
    }
    EXPECT_TRUE(heard.empty());
    reconnect(client);
    const auto left = stuff(client);
    EXPECT_EQ(CL_DeleteFD(client, &err), 1u);
    EXPECT_FALSE(left->queued()) << "deletion unlinks blocks";
    EXPECT_TRUE(peer.receive().size() > 0 && peer.ended());
}

// What a callback may do to its own connection, whatever it is called for. Nothing of the old
// connection may be reported afterwards.
TEST_F(Client, EverythingIsAllowedInACallback) {
    CL_Object *client = nullptr;
    const auto forget = [&] {
        EXPECT_EQ(CL_DeleteFD(client, &err), 1u) << err;
        client = nullptr;
    };
    const auto connect_again = [&](uint32_t mode) {
        const bool fresh = client == nullptr;
        if (fresh) {
            client = make(CL_KIND_MSGC);
        } else {
            disconnect(client);
        }
        EXPECT_EQ(CL_CnctMSGC(client, path.c_str(), mode, &err), mode == CL_MODE_SYNC ? 1u : 0u);
        peer = listener.accept();
        if (fresh) list(client);
    };
    const struct {
        const char *what;
        std::function<void()> act;
        std::vector<uint32_t> later;  // events of the next iteration
    } acts[] = {
        {"nothing", [] {}, {}},
        {"unlist", [&] { EXPECT_EQ(CL_DelEventList(client, &err), 1u); }, {}},
        {"disconnect", [&] { EXPECT_EQ(disconnect(client), 1u) << err; }, {CL_EVENT_FAILED}},
        {"delete", forget, {}},
        {"reconnect", [&] { connect_again(CL_MODE_SYNC); }, {}},
        {"reconnect later", [&] { connect_again(CL_MODE_DEFERRED); }, {CL_EVENT_CONNECTED}},
        {"replace",
         [&] {
             forget();
             connect_again(CL_MODE_SYNC);
             peer.send(wire_message("new"));
             await(client);
         },
         {CL_EVENT_MESSAGE}},
    };
    enum { kReadLost = CL_EVENT_DISCONNECT, kWriteLost = 100 };
    for (const uint32_t cause : std::initializer_list<uint32_t>{
             CL_EVENT_CONNECTED, CL_EVENT_MESSAGE, CL_EVENT_SENT, kReadLost, kWriteLost}) {
        const bool lost = cause == kReadLost || cause == kWriteLost;
        const bool connects = cause == CL_EVENT_CONNECTED;
        const uint32_t type = lost ? uint32_t{CL_EVENT_DISCONNECT} : cause;
        for (const auto &act : acts) {
            SCOPED_TRACE(testing::Message() << "event " << cause << ": " << act.what);
            const bool stays = &act - acts < 2;
            connect_again(connects ? CL_MODE_IMMEDIATE : CL_MODE_SYNC);
            if (!connects) await(client);
            Block block, unread_by_peer;
            std::unique_ptr<Block> stuffed;
            if (cause == kWriteLost) {
                EXPECT_EQ(send(client, unread_by_peer, CL_MODE_IMMEDIATE), 16);
                stuffed = stuff(client);
            }
            EXPECT_TRUE(cause != CL_EVENT_SENT || send(client, block, CL_MODE_DEFERRED) == -1);
            if (!connects && cause != kReadLost) peer.send(wire_message("old"));
            if (cause == CL_EVENT_MESSAGE) peer.send(wire_message("next"));
            if (lost) peer.close();

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
            if (cause == CL_EVENT_SENT && stays) expected.push_back(CL_EVENT_MESSAGE);
            EXPECT_EQ(types(), expected);
            EXPECT_FALSE(block.queued() || (stuffed && stuffed->queued()));

            heard.clear();
            expected = act.later;
            if (lost && &act == acts) expected = {CL_EVENT_FAILED};
            const bool ends = expected == std::vector<uint32_t>{CL_EVENT_FAILED};
            reply = [](CL_Object *, CL_Event *event) {
                return event->type == CL_EVENT_FAILED ? 1u : 0u;
            };
            EXPECT_EQ(iterate(), ends ? 1u : 0u);
            EXPECT_EQ(types(), expected);
            if (client != nullptr) forget();
        }
    }
}

}  // namespace
