// Two processes exchange random messages through the library: random sizes and modes, little room
// in the sockets, and connections given up half-way. Contents and
// order are checked, and that each block comes back exactly once.
#include <fcntl.h>
#include <qvcl/client.h>
#include <qvcl/loop.h>
#include <qvcl/server.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <csignal>
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

// One end of a connection.
class End {
  public:
    // One process and its ends.
    struct Process {
        test::Random &random;
        bool waits;  // may use synchronous transfers: only one side, or both could wait
        uint32_t open = 0;
    };

    explicit End(Process &owner) : process(owner), buffer(kLongest + 16) { process.open++; }

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
        if (mode == CL_MODE_SYNC) start(id);
    }
    void accept(CL_Object *server) {
        object = CL_AcceptMSGS(server, test::call_action, test::address(&on_event), 0, &err);
        ASSERT_NE(object, nullptr) << err;
        const int little = 1 + static_cast<int>(process.random.below(8000));
        setsockopt(object->descriptor, SOL_SOCKET, SO_SNDBUF, &little, sizeof little);
        ASSERT_EQ(CL_AddEventList(object, 20, &err), 1u) << err;
        receive();
    }
    void receive() {
        while (object != nullptr) {
            const bool wait = process.waits && received < kMessages && process.random.below(4) == 0;
            const int32_t result = CL_RecvMSGC(
                object, buffer.data(), static_cast<int32_t>(buffer.size()),
                wait ? uint32_t{CL_MODE_SYNC} : CL_MODE_IMMEDIATE + process.random.below(2), 0,
                &err);
            if (!wait) {
                ASSERT_EQ(result, -1);
                ASSERT_EQ(err.err, uint32_t{CL_ERR_IN_PROGRESS}) << err;
                return;
            }
            if (result < 0) {
                ASSERT_TRUE(err.err == EPIPE || err.err == ECONNRESET) << err;
                return over();
            }
            check(result);
        }
    }
    uint32_t give_up_at = UINT32_MAX;  // after so many messages received

  private:
    void start(uint32_t id) {
        Block hello(4, kHello);
        memcpy(hello.get() + 1, &id, 4);
        ASSERT_EQ(CL_SendMSGC(object, hello.get(), hello.size(), CL_MODE_SYNC, 0, &err), 20);
        receive();
        if (object != nullptr) pump();
    }

    // Keeps some messages on their way.
    void pump() {
        const uint32_t many = 1 + process.random.below(12);
        while (sent < kMessages && lent.size() < many) {
            const Content content(stream_out, sent++);
            auto block = std::make_unique<Block>(content.size, content.type, content.seed);
            uint32_t mode = CL_MODE_IMMEDIATE + process.random.below(2);
            if (process.waits && lent.empty() && process.random.below(3) == 0) mode = CL_MODE_SYNC;
            const int32_t result = CL_SendMSGC(object, block->get(), block->size(), mode, 0, &err);
            if (result == block->length()) {
                ASSERT_NE(mode, uint32_t{CL_MODE_DEFERRED});
                ASSERT_FALSE(block->queued());
                continue;
            }
            ASSERT_EQ(result, -1);
            if (err.err != CL_ERR_IN_PROGRESS) {
                ASSERT_TRUE(err.err == EPIPE || err.err == ECONNRESET) << err;
                ASSERT_FALSE(block->queued());
                return over();
            }
            ASSERT_NE(mode, uint32_t{CL_MODE_SYNC});
            ASSERT_TRUE(block->queued());
            CL_MsgBlock *key = block->get();
            lent[key] = std::move(block);
        }
    }
    void give_back(CL_MsgBlock *block) {
        ASSERT_EQ(lent.count(block), 1u) << "a block that is not out comes back";
        lent.erase(block);
    }
    void check(int32_t length) {
        const auto *header = reinterpret_cast<const CL_MsgHeader *>(buffer.data());
        ASSERT_EQ(header->length, static_cast<uint32_t>(length));
        if (header->type == kHello) {
            uint32_t id;
            memcpy(&id, header + 1, 4);
            stream_out = 2 * id + 1;
            stream_in = 2 * id;
            return pump();
        }
        const Content content(stream_in, received++);
        ASSERT_EQ(header->type, content.type);
        ASSERT_EQ(header->version, 0x00010001u);
        ASSERT_EQ(header->length, content.size + 16);
        ASSERT_EQ(std::string(buffer.data() + 16, content.size),
                  test::pattern(content.size, content.seed));
        if (received >= give_up_at || (process.waits && received == kMessages && finished()))
            over();
    }
    bool finished() const { return sent == kMessages && lent.empty(); }

    // Gives the connection up; every block that is out comes back now.
    void over() {
        if (object == nullptr) return;
        CL_Queue unsent;
        uint64_t out = 0;
        ASSERT_EQ(CL_DiscMSGC(object, &out, &unsent, &err), 1u) << err;
        ASSERT_EQ(out, test::address(buffer.data()));
        while (auto *block = static_cast<CL_MsgBlock *>(CL_QUE_GetTop(&unsent)))
            give_back(block);
        ASSERT_TRUE(lent.empty());
        ASSERT_EQ(CL_DeleteFD(object, &err), 1u) << err;
        object = nullptr;
        process.open--;
    }

    uint32_t handle(CL_Event *event) {
        switch (event->type) {
            case CL_EVENT_CONNECTED:
                start(stream_out / 2);
                break;
            case CL_EVENT_MESSAGE:
                EXPECT_EQ(event->data, buffer.data());
                check(event->length);
                receive();
                break;
            case CL_EVENT_SENT:
                give_back(static_cast<CL_MsgBlock *>(event->data));
                pump();
                if (process.waits && received == kMessages && finished()) over();
                break;
            case CL_EVENT_DISCONNECT: {
                EXPECT_TRUE(event->error.err == EPIPE || event->error.err == ECONNRESET);
                while (auto *block = static_cast<CL_MsgBlock *>(CL_QUE_GetTop(&event->queue)))
                    give_back(block);
                complete = received == kMessages && finished();
                over();
                break;
            }
            default:
                ADD_FAILURE() << "event " << event->type;
        }
        return process.open == 0 || testing::Test::HasFailure() ? 1 : 0;
    }

    Process &process;
    std::vector<char> buffer;
    std::map<CL_MsgBlock *, std::unique_ptr<Block>> lent;
    CL_Object *object = nullptr;
    uint32_t stream_out = 0, stream_in = 0;
    uint32_t sent = 0, received = 0;
    CL_ErrInfo err = {};
    Action on_event = [this](CL_Object *, CL_Event *event) { return handle(event); };

  public:
    bool complete = false;  // all was sent and received when the other side left
};

// Runs the loop until the last end is over.
void run(const End::Process &process, const std::function<void()> &begin) {
    CL_ErrInfo err;
    ASSERT_EQ(CL_Init(20, nullptr, &err), 1u) << err;
    const Balance before = Balance::now();
    begin();
    EXPECT_EQ(process.open == 0 ? 1u : CL_EventLoop(&err), 1u) << err;
    EXPECT_EQ(Balance::now(), before);
    EXPECT_EQ(CL_End(&err), 1u);
}

int client(test::Random &random, const std::string &path, uint32_t number) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    End::Process process{.random = random, .waits = true};
    std::vector<std::unique_ptr<End>> ends;
    run(process, [&] {
        for (uint32_t i = 0; i < kConnections; ++i) {
            ends.push_back(std::make_unique<End>(process));
            if (i == 1) ends[i]->give_up_at = random.below(kMessages);
            ends[i]->connect(path, number * kConnections + i);
        }
    });
    return testing::Test::HasFailure() ? 1 : 0;
}

TEST(Exchange, TwoProcessesAgree) {
    test::Random random;
    const test::Folder folder;
    const std::string path = folder.path("exchange");
    std::vector<pid_t> children;
    for (uint32_t number = 0; number < kClients; ++number) {
        const uint32_t seed = random.below(UINT32_MAX);
        const pid_t pid = fork();
        if (pid == 0) {
            random.engine().seed(seed);
            const int status = client(random, path, number);
            fflush(nullptr);
            _exit(status);
        }
        children.push_back(pid);
    }
    End::Process process{.random = random, .waits = false};
    std::vector<std::unique_ptr<End>> ends;
    CL_Object *server = nullptr;
    CL_ErrInfo err;
    uint32_t accepted = 0;
    Action on_connection = [&](CL_Object *, CL_Event *) {
        ends.at(accepted++)->accept(server);
        if (accepted == ends.size()) {
            EXPECT_EQ(CL_DeleteFD(server, &err), 1u);
        }
        return 0u;
    };
    run(process, [&] {
        for (uint32_t i = 0; i < kClients * kConnections; ++i)
            ends.push_back(std::make_unique<End>(process));
        server =
            CL_CreateFD(CL_KIND_MSGS, test::call_action, test::address(&on_connection), 0, &err);
        ASSERT_EQ(CL_OpenMSGS(server, path.c_str(), 1, &err), 1u) << err;
        ASSERT_EQ(CL_AddEventList(server, 30, &err), 1u) << err;
    });
    uint32_t complete = 0;
    for (const auto &end : ends)
        complete += end->complete ? 1 : 0;
    EXPECT_GE(complete, kClients) << "connections that were not given up carry everything";
    for (const pid_t pid : children) {
        int status = -1;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0) << "a client found something wrong";
    }
}

}  // namespace
