// Two processes exchange random messages through the library: random sizes and modes, little room
// in the sockets, and connections given up half-way. Contents and order are checked, and that each
// block comes back exactly once.
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
constexpr uint32_t kConnections = 4;
constexpr uint32_t kLongest = 60000;

struct Process {
    test::Random random;
    bool waits = false;  // may use synchronous transfers: only one side, or both could wait
    uint32_t open = kConnections;
};

// One end of a connection.
class End {
  public:
    End(Process &owner, uint32_t stream) : process_(owner), stream_out_(stream) {}

    void connect(const char *path) {
        object_ = CL_CreateFD(CL_KIND_MSGC, test::call_action, test::address(&on_event_), 0, &err_);
        const uint32_t mode = CL_MODE_SYNC + process_.random.below(3);
        while (CL_CnctMSGC(object_, path, mode, &err_) == 0 && err_.err != CL_ERR_IN_PROGRESS) {
            ASSERT_TRUE(err_.err == ENOENT || err_.err == ECONNREFUSED || err_.err == EAGAIN)
                << err_;
            CL_Sleep(1);
        }
        ASSERT_EQ(CL_AddEventList(object_, 20, &err_), 1u) << err_;
        if (mode == CL_MODE_SYNC) receive(), pump();
    }
    void accept(CL_Object *server) {
        object_ = CL_AcceptMSGS(server, test::call_action, test::address(&on_event_), 0, &err_);
        ASSERT_NE(object_, nullptr) << err_;
        const int little = 1 + static_cast<int>(process_.random.below(8000));
        setsockopt(object_->descriptor, SOL_SOCKET, SO_SNDBUF, &little, sizeof little);
        ASSERT_EQ(CL_AddEventList(object_, 20, &err_), 1u) << err_;
        receive();
        pump();
    }
    bool finished() const { return received_ == kMessages && sent_ == kMessages && lent_.empty(); }

    uint32_t give_up_at = UINT32_MAX;  // after so many messages received

  private:
    // Message `number` of a stream.
    static std::unique_ptr<Block> content(uint32_t stream, uint32_t number) {
        std::mt19937 engine(stream * 100003 + number);
        const auto chance = engine() % 10;
        const auto size = engine() % (chance < 6 ? 60 : chance < 9 ? 3000 : kLongest);
        return std::make_unique<Block>(size, number, static_cast<uint32_t>(engine()));
    }
    // Synchronously for a while, and then as a message comes.
    void receive() {
        while (object_ != nullptr) {
            const bool wait =
                process_.waits && received_ < kMessages && process_.random.below(4) == 0;
            const uint32_t mode =
                wait ? uint32_t{CL_MODE_SYNC} : CL_MODE_IMMEDIATE + process_.random.below(2);
            const int32_t result =
                CL_RecvMSGC(object_, buffer_.data(), kLongest + 16, mode, 0, &err_);
            if (!wait) {
                ASSERT_EQ(result, -1);
                ASSERT_EQ(err_.err, uint32_t{CL_ERR_IN_PROGRESS}) << err_;
                return;
            }
            result >= 0 ? check(result) : lost();
        }
    }
    // Keeps some messages on their way.
    void pump() {
        const uint32_t many = 1 + process_.random.below(12);
        while (object_ != nullptr && sent_ < kMessages && lent_.size() < many) {
            auto block = content(stream_out_, sent_++);
            uint32_t mode = CL_MODE_IMMEDIATE + process_.random.below(2);
            if (process_.waits && lent_.empty() && process_.random.below(3) == 0)
                mode = CL_MODE_SYNC;
            const int32_t result =
                CL_SendMSGC(object_, block->get(), block->size(), mode, 0, &err_);
            const bool later = result == -1 && err_.err == CL_ERR_IN_PROGRESS;
            ASSERT_EQ(block->queued(), later);
            ASSERT_FALSE(mode == (later ? CL_MODE_SYNC : CL_MODE_DEFERRED) &&
                         (later || result >= 0));
            if (later) {
                CL_MsgBlock *key = block->get();
                lent_[key] = std::move(block);
            } else if (result != block->length()) {
                lost();
            }
        }
    }
    void check(int32_t length) {
        const std::string expected = content(stream_out_ ^ 1, received_++)->message();
        // All but the sender, who is another process.
        std::string got(buffer_.data(), static_cast<size_t>(length));
        ASSERT_EQ(got.replace(8, 4, expected, 8, 4), expected);
    }
    void give_back(CL_Queue &queue) {
        while (auto *block = static_cast<CL_MsgBlock *>(CL_QUE_GetTop(&queue)))
            ASSERT_EQ(lent_.erase(block), 1u) << "a block that is not out comes back";
    }
    void lost() {
        ASSERT_TRUE(err_.err == EPIPE || err_.err == ECONNRESET) << err_;
        over();
    }
    // Gives the connection up; every block that is out comes back now.
    void over() {
        CL_Queue unsent;
        uint64_t out = 0;
        ASSERT_EQ(CL_DiscMSGC(object_, &out, &unsent, &err_), 1u) << err_;
        ASSERT_EQ(out, test::address(buffer_.data()));
        give_back(unsent);
        ASSERT_TRUE(lent_.empty());
        ASSERT_EQ(CL_DeleteFD(object_, &err_), 1u) << err_;
        object_ = nullptr;
        process_.open--;
    }
    uint32_t handle(CL_Event *event) {
        if (event->type == CL_EVENT_MESSAGE) {
            EXPECT_EQ(event->data, buffer_.data());
            check(event->length);
        }
        if (event->type == CL_EVENT_SENT) {
            EXPECT_EQ(lent_.erase(static_cast<CL_MsgBlock *>(event->data)), 1u);
        } else if (event->type == CL_EVENT_DISCONNECT) {
            give_back(event->queue);
            err_ = event->error;
            lost();
        } else {
            receive();
        }
        pump();
        if (object_ != nullptr && (received_ >= give_up_at || (process_.waits && finished())))
            over();
        return process_.open == 0 || testing::Test::HasFailure() ? 1 : 0;
    }

    Process &process_;
    std::vector<char> buffer_ = std::vector<char>(kLongest + 16);
    std::map<CL_MsgBlock *, std::unique_ptr<Block>> lent_;
    CL_Object *object_ = nullptr;
    uint32_t stream_out_;
    uint32_t sent_ = 0, received_ = 0;
    CL_ErrInfo err_ = {};
    Action on_event_ = [this](CL_Object *, CL_Event *event) { return handle(event); };
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
    const test::Folder folder;
    const std::string path = folder.path("exchange");
    Process process;
    // Connections are accepted in the order in which they were made, and every other is given up.
    std::deque<End> ends;
    const pid_t child = test::child_process([&] {
        process.random.engine().seed(process.random.below(UINT32_MAX));
        process.waits = true;
        run(process, [&] {
            for (uint32_t i = 0; i < kConnections; ++i) {
                End &end = ends.emplace_back(process, 2 * i);
                if (i % 2 != 0) end.give_up_at = process.random.below(kMessages);
                end.connect(path.c_str());
            }
        });
        fflush(nullptr);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    CL_Object *server = nullptr;
    CL_ErrInfo err;
    Action on_connection = [&](CL_Object *, CL_Event *) {
        const auto number = static_cast<uint32_t>(ends.size());
        ends.emplace_back(process, 2 * number + 1).accept(server);
        EXPECT_TRUE(ends.size() < kConnections || CL_DeleteFD(server, &err) == 1);
        return 0u;
    };
    run(process, [&] {
        server =
            CL_CreateFD(CL_KIND_MSGS, test::call_action, test::address(&on_connection), 0, &err);
        ASSERT_EQ(CL_OpenMSGS(server, path.c_str(), 1, &err), 1u) << err;
        ASSERT_EQ(CL_AddEventList(server, 30, &err), 1u) << err;
    });
    for (uint32_t i = 0; i < kConnections; i += 2)
        EXPECT_TRUE(ends[i].finished()) << "connections that are not given up carry everything";
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "the client found something wrong";
}

}  // namespace
