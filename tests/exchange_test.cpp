// Two processes exchange random messages through the library: random sizes and modes, little room
// in the sockets, and connections given up half-way. Contents and
// order are checked, and that each block comes back exactly once.
#include <fcntl.h>
#include <qvcl/client.h>
#include <qvcl/loop.h>
#include <qvcl/server.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <deque>
#include <map>

#include "tests/wire.h"

using test::Action;
using test::Balance;
using test::Block;

namespace {

constexpr uint32_t kMessages = 800;  // each way on each connection
constexpr uint32_t kClients = 2, kConnections = 2;
constexpr uint32_t kLongest = 60000;
constexpr uint32_t kHello = 0xffff0000;  // type of the first message: which connection this is

// What message `number` of a stream holds.
struct Content {
    Content(uint32_t stream, uint32_t number) : type(number) {
        std::mt19937 engine(stream * 100003 + number);
        const auto chance = engine() % 10;
        size = static_cast<uint32_t>(engine() % (chance < 6 ? 60 : chance < 9 ? 3000 : kLongest));
        seed = static_cast<uint32_t>(engine());
    }
    uint32_t type;
    uint32_t size, seed;
};

struct Process {
    test::Random &random;
    bool waits;  // may use synchronous transfers: only one side, or both could wait
    uint32_t open = 0;
};

// One end of a connection.
class End {
  public:
    explicit End(Process &owner) : process(owner) { process.open++; }

    void connect(const std::string &path, uint32_t id) {
        stream_out = 2 * id;
        stream_in = 2 * id + 1;
        object = CL_CreateFD(CL_KIND_MSGC, test::call_action, test::address(&on_event), 0, &err);
        ASSERT_NE(object, nullptr) << err;
        const uint32_t mode = CL_MODE_SYNC + process.random.below(3);
        while (CL_CnctMSGC(object, path.c_str(), mode, &err) == 0 &&
               err.err != CL_ERR_IN_PROGRESS) {
            ASSERT_TRUE(err.err == ENOENT || err.err == ECONNREFUSED || err.err == EAGAIN) << err;
            CL_Sleep(1);
        }
        ASSERT_EQ(CL_AddEventList(object, 20, &err), 1u) << err;
        if (mode == CL_MODE_SYNC) say_hello();
    }
    void accept(CL_Object *server) {
        object = CL_AcceptMSGS(server, test::call_action, test::address(&on_event), 0, &err);
        ASSERT_NE(object, nullptr) << err;
        const int little = 1 + static_cast<int>(process.random.below(8000));
        setsockopt(object->descriptor, SOL_SOCKET, SO_SNDBUF, &little, sizeof little);
        ASSERT_EQ(CL_AddEventList(object, 20, &err), 1u) << err;
        receive();
    }

    uint32_t give_up_at = UINT32_MAX;  // after so many messages received
    bool complete = false;             // all was sent and received when the other side left

  private:
    void say_hello() {
        const uint32_t id = stream_out / 2;
        Block hello(4, kHello);
        memcpy(hello.get() + 1, &id, 4);
        ASSERT_EQ(CL_SendMSGC(object, hello.get(), hello.size(), CL_MODE_SYNC, 0, &err), 20);
        receive();
        pump();
    }
    // Synchronously for a while, and then as a message comes.
    void receive() {
        while (object != nullptr) {
            const bool wait = process.waits && received < kMessages && process.random.below(4) == 0;
            const uint32_t mode =
                wait ? uint32_t{CL_MODE_SYNC} : CL_MODE_IMMEDIATE + process.random.below(2);
            const int32_t result = CL_RecvMSGC(object, buffer.data(), kLongest + 16, mode, 0, &err);
            if (result >= 0 && wait) {
                check(result);
            } else if (wait) {
                lost();
            } else {
                ASSERT_EQ(result, -1);
                ASSERT_EQ(err.err, uint32_t{CL_ERR_IN_PROGRESS}) << err;
                return;
            }
        }
    }
    // Keeps some messages on their way.
    void pump() {
        const uint32_t many = 1 + process.random.below(12);
        while (object != nullptr && sent < kMessages && lent.size() < many) {
            const Content content(stream_out, sent++);
            auto block = std::make_unique<Block>(content.size, content.type, content.seed);
            uint32_t mode = CL_MODE_IMMEDIATE + process.random.below(2);
            if (process.waits && lent.empty() && process.random.below(3) == 0) mode = CL_MODE_SYNC;
            const int32_t result = CL_SendMSGC(object, block->get(), block->size(), mode, 0, &err);
            const bool later = result == -1 && err.err == CL_ERR_IN_PROGRESS;
            ASSERT_EQ(block->queued(), later);
            ASSERT_FALSE(mode == (later ? CL_MODE_SYNC : CL_MODE_DEFERRED) &&
                         (later || result >= 0));
            if (later) {
                CL_MsgBlock *key = block->get();
                lent[key] = std::move(block);
            } else if (result != block->length()) {
                lost();
            }
        }
    }
    void check(int32_t length) {
        const auto *header = reinterpret_cast<const CL_MsgHeader *>(buffer.data());
        ASSERT_EQ(header->length, static_cast<uint32_t>(length));
        if (header->type == kHello) {
            memcpy(&stream_in, header + 1, 4);
            stream_in *= 2;
            stream_out = stream_in + 1;
            return pump();
        }
        const Content content(stream_in, received++);
        ASSERT_EQ(header->type, content.type);
        ASSERT_EQ(header->version, 0x00010001u);
        ASSERT_EQ(header->length, content.size + 16);
        ASSERT_EQ(std::string(buffer.data() + 16, content.size),
                  test::pattern(content.size, content.seed));
    }
    bool finished() const { return received == kMessages && sent == kMessages && lent.empty(); }
    void give_back(CL_Queue &queue) {
        while (auto *block = static_cast<CL_MsgBlock *>(CL_QUE_GetTop(&queue)))
            ASSERT_EQ(lent.erase(block), 1u) << "a block that is not out comes back";
    }
    void lost() {
        ASSERT_TRUE(err.err == EPIPE || err.err == ECONNRESET) << err;
        over();
    }
    // Gives the connection up; every block that is out comes back now.
    void over() {
        CL_Queue unsent;
        uint64_t out = 0;
        ASSERT_EQ(CL_DiscMSGC(object, &out, &unsent, &err), 1u) << err;
        ASSERT_EQ(out, test::address(buffer.data()));
        give_back(unsent);
        ASSERT_TRUE(lent.empty());
        ASSERT_EQ(CL_DeleteFD(object, &err), 1u) << err;
        object = nullptr;
        process.open--;
    }
    uint32_t handle(CL_Event *event) {
        switch (event->type) {
            case CL_EVENT_CONNECTED:
                say_hello();
                break;
            case CL_EVENT_MESSAGE:
                EXPECT_EQ(event->data, buffer.data());
                check(event->length);
                receive();
                break;
            case CL_EVENT_SENT:
                EXPECT_EQ(lent.erase(static_cast<CL_MsgBlock *>(event->data)), 1u);
                pump();
                break;
            case CL_EVENT_DISCONNECT:
                give_back(event->queue);
                complete = finished();
                err = event->error;
                lost();
                break;
            default:
                ADD_FAILURE() << "event " << event->type;
        }
        if (object != nullptr && (received >= give_up_at || (process.waits && finished()))) over();
        return process.open == 0 || testing::Test::HasFailure() ? 1 : 0;
    }

    Process &process;
    std::vector<char> buffer = std::vector<char>(kLongest + 16);
    std::map<CL_MsgBlock *, std::unique_ptr<Block>> lent;
    CL_Object *object = nullptr;
    uint32_t stream_out = 0, stream_in = 0;
    uint32_t sent = 0, received = 0;
    CL_ErrInfo err = {};
    Action on_event = [this](CL_Object *, CL_Event *event) { return handle(event); };
};

// Runs the loop until the last end is over.
void run(const Process &process, const std::function<void()> &begin) {
    CL_ErrInfo err;
    ASSERT_EQ(CL_Init(20, nullptr, &err), 1u) << err;
    const Balance before = Balance::now();
    begin();
    EXPECT_EQ(process.open == 0 ? 1u : CL_EventLoop(&err), 1u) << err;
    EXPECT_EQ(Balance::now(), before);
    EXPECT_EQ(CL_End(&err), 1u);
}

TEST(Exchange, TwoProcessesAgree) {
    test::Random random;
    const test::Folder folder;
    const std::string path = folder.path("exchange");
    Process process{.random = random, .waits = true};
    std::deque<End> ends;
    const auto client = [&](uint32_t number, uint32_t seed) {
        random.engine().seed(seed);
        run(process, [&] {
            for (uint32_t i = 0; i < kConnections; ++i) {
                End &end = ends.emplace_back(process);
                if (i == 1) end.give_up_at = random.below(kMessages);
                end.connect(path, number * kConnections + i);
            }
        });
        fflush(nullptr);
        return testing::Test::HasFailure() ? 1 : 0;
    };
    std::vector<pid_t> children;
    for (uint32_t number = 0; number < kClients; ++number) {
        const uint32_t seed = random.below(UINT32_MAX);
        children.push_back(test::child_process([&] { return client(number, seed); }));
    }
    process.waits = false;
    CL_Object *server = nullptr;
    CL_ErrInfo err;
    uint32_t accepted = 0, complete = 0;
    Action on_connection = [&](CL_Object *, CL_Event *) {
        ends[accepted++].accept(server);
        EXPECT_TRUE(accepted < ends.size() || CL_DeleteFD(server, &err) == 1);
        return 0u;
    };
    run(process, [&] {
        while (ends.size() < kClients * kConnections)
            ends.emplace_back(process);
        server =
            CL_CreateFD(CL_KIND_MSGS, test::call_action, test::address(&on_connection), 0, &err);
        ASSERT_EQ(CL_OpenMSGS(server, path.c_str(), 1, &err), 1u) << err;
        ASSERT_EQ(CL_AddEventList(server, 30, &err), 1u) << err;
    });
    for (const End &end : ends)
        complete += end.complete ? 1 : 0;
    EXPECT_GE(complete, kClients) << "connections that were not given up carry everything";
    for (const pid_t pid : children) {
        int status = -1;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0) << "a client found something wrong";
    }
}

}  // namespace
