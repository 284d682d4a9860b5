/* The exec-completion channel, each side in turn with a raw socket as the other: what starters may
 * be told, by whom and in which pieces, and what a started program makes of what its starter sends.
 * The raw side claims any process id, so that no program need be started. */
#include <qvcl/child.h>
#include <qvcl/execcomp.h>
#include <qvcl/loop.h>
#include <qvcl/starter.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <optional>

#include "tests/support.h"

using test::Action;
using test::Balance;
using test::Fault;
using test::Plan;

namespace {

enum { STOP = 7 };
constexpr uint32_t PID = 5000001; /* of nobody: above what the system gives out */
constexpr uint32_t OTHER = 5000002;

std::string message(uint32_t length, uint32_t type, uint32_t sender = PID,
                    uint32_t version = CL_MSG_VERSION) {
    const CL_MsgHeader header = {length, version, sender, type};
    std::string bytes(reinterpret_cast<const char *>(&header), sizeof header);
    if (length > sizeof header && length < 100) bytes.resize(length, 'p');
    return bytes;
}

/* A local stream socket that knows nothing of the library. */
class Raw {
  public:
    explicit Raw(int fd = -1) : fd_(fd) {}
    Raw(Raw &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Raw &operator=(Raw &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Raw() { close(); }
    static Raw connected_to(const std::string &path) {
        Raw raw(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(connect(raw.fd_, name(path), sizeof(sockaddr_un)), 0);
        return raw;
    }
    static Raw listening_at(const std::string &path, int backlog = 5) {
        Raw raw(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(bind(raw.fd_, name(path), sizeof(sockaddr_un)), 0);
        EXPECT_EQ(listen(raw.fd_, backlog), 0);
        return raw;
    }
    Raw accepted() const { return Raw(accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)); }
    void say(std::string_view bytes) const {
        EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    std::string hear() const {
        char bytes[100];
        const ssize_t count = recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT);
        return {bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }
    bool open() const {
        char byte;
        return recv(fd_, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == -1 && errno == EAGAIN;
    }
    void close() {
        if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    }

  private:
    static const sockaddr *name(const std::string &path) {
        static sockaddr_un address;
        address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        return reinterpret_cast<sockaddr *>(&address);
    }
    int fd_;
};

/* Runs the loop for a few rounds: an object that is always readable counts them. */
class Channel : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(mkdtemp(directory), nullptr);
        path = std::string(directory) + "/socket";
    }
    void TearDown() override {
        unlink(path.c_str());
        rmdir(directory);
    }

    void start(const char *exec_path) {
        ASSERT_EQ(CL_Init(20, exec_path, &err), 1u) << err;
        pump_.fill();
        CL_Object *object =
            CL_CreateFD(CL_KIND_FD, test::call_action, test::address(&count_), 0, &err);
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(pump_.out(), &readable);
        CL_SetFD(object, static_cast<uint32_t>(pump_.out()) + 1, &readable, nullptr, nullptr, &err);
        ASSERT_EQ(CL_AddEventList(object, CL_PRIORITY_LAST, &err), 1u) << err;
    }
    /* 0 when nobody ended the loop. */
    uint32_t rounds(int count = 6) {
        left_ = count;
        const uint32_t result = CL_EventLoop(&err);
        return result == ROUNDS_OVER ? 0 : result;
    }

    char directory[32] = "/tmp/qvcl-channel-XXXXXX";
    std::string path;
    CL_ErrInfo err{};

  private:
    static constexpr uint32_t ROUNDS_OVER = 1000;
    test::Pipe pump_;
    int left_ = 0;
    Action count_ = [this](CL_Object *, CL_Event *) { return --left_ > 0 ? 0 : ROUNDS_OVER; };
};

// ---- The starter's side

class Starter : public Channel {
  protected:
    void SetUp() override {
        Channel::SetUp();
        start(path.c_str());
        before = Balance::now();
    }

    /* A CHILD object that waits for the report of `pid`, as a starter prepares it. */
    CL_Object *waiting(uint32_t pid) {
        CL_Object *child =
            CL_CreateFD(CL_KIND_CHILD, test::call_action, test::address(&on_event), 0, &err);
        child->child.pid = pid;
        cl_StatusChange_M(child, CL_STATUS_READY, CL_SUB_EXEC_AWAITED, "test", 1);
        EXPECT_EQ(CL_QUE_PutTail(&CL_MainTable->exec_wait_list, child), 1u);
        EXPECT_EQ(CL_AddEventList_M(child, CL_PRIORITY_FIRST, &err, 1, "test", 1), 1u) << err;
        return child;
    }
    /* There is no process to kill. */
    void remove(CL_Object *child) {
        const Plan plan({{.call = "kill", .swallow = true}, {.call = "waitpid", .swallow = true}});
        EXPECT_EQ(CL_DeleteFD(child, &err), 1u) << err;
    }
    std::size_t connections() const {
        return CL_MainTable->kind_queues[CL_KIND_QUEUE_EXECC].count +
               CL_MainTable->kind_queues[CL_KIND_QUEUE_MSGC].count;
    }

    Balance before;
    std::vector<uint32_t> types;
    Action on_event = [this](CL_Object *, CL_Event *event) {
        types.push_back(event->type);
        return 0;
    };
};

TEST_F(Starter, OnlyAReportOfAWaitingProgramIsTakenAndEverythingElseIsShut) {
    const struct {
        const char *what;
        std::vector<std::string> pieces; /* each sent before some rounds of the loop */
        bool taken, open;
    } cases[] = {
        {"report", {message(16, 1)}, true, true},
        {"in pieces",
         {message(16, 1).substr(0, 5), message(16, 1).substr(5, 10), message(16, 1).substr(15)},
         true,
         true},
        {"twice", {message(16, 1) + message(16, 1)}, true, true},
        {"then an end request", {message(16, 1), message(16, 2)}, true, true},
        {"half a report", {message(16, 1).substr(0, 9)}, false, true},
        {"21 bytes", {message(21, 1)}, false, false},
        {"endless length", {message(0x7fffffff, 1)}, false, false},
        {"no length", {message(0, 1)}, false, false},
        {"other version", {message(16, 1, PID, 0x00010002)}, false, false},
        {"end request", {message(16, 2)}, false, false},
        {"unknown process", {message(16, 1, OTHER)}, false, false},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.what);
        CL_Object *child = waiting(PID);
        {
            const Raw raw = Raw::connected_to(path);
            EXPECT_EQ(rounds(), 0u) << err;
            for (const std::string &piece : test.pieces) {
                raw.say(piece);
                EXPECT_EQ(rounds(), 0u) << err;
            }
            EXPECT_EQ(raw.open(), test.open);
            EXPECT_EQ(types.size(), test.taken ? 1u : 0u);
            EXPECT_EQ(child->status, uint32_t{CL_STATUS_READY | CL_STATUS_LISTED});
            EXPECT_EQ(child->sub_status,
                      test.taken ? uint32_t{CL_SUB_EXEC_COMPLETE} : uint32_t{CL_SUB_EXEC_AWAITED});
            EXPECT_EQ(child->descriptor != -1, test.taken);
            EXPECT_EQ(connections(), test.open && !test.taken ? 1u : 0u);
        }
        EXPECT_EQ(rounds(), 0u) << err; /* the raw side has gone: nothing but the object is left */
        EXPECT_EQ(connections(), 0u);
        EXPECT_EQ(CL_MainTable->exec_wait_list.count, test.taken ? 0u : 1u);
        remove(child);
        types.clear();
        EXPECT_EQ(Balance::now(), before);
    }
}

TEST_F(Starter, SilentStrangersAreShutOutWithTheLastChildThatIsAwaited) {
    enum How { REPORTS, ENDS, IS_DELETED };
    for (const How how : {REPORTS, ENDS, IS_DELETED}) {
        SCOPED_TRACE(testing::Message() << "case " << how);
        CL_Object *last = waiting(PID);
        CL_Object *const first = waiting(OTHER);
        const Raw silent[3] = {Raw::connected_to(path), Raw::connected_to(path),
                               Raw::connected_to(path)};
        const Raw reporter = Raw::connected_to(path);
        reporter.say(message(16, 1, OTHER));
        EXPECT_EQ(rounds(12), 0u) << err;
        EXPECT_EQ(connections(), 3u) << "one child is still awaited";
        remove(first);

        if (how == REPORTS) {
            const Raw other = Raw::connected_to(path);
            other.say(message(16, 1));
            EXPECT_EQ(rounds(), 0u) << err;
        } else if (how == ENDS) {
            const pid_t pid = fork();
            if (pid == 0) _exit(0);
            last->child.pid = static_cast<uint32_t>(pid);
            siginfo_t info;
            EXPECT_EQ(waitid(P_PID, last->child.pid, &info, WEXITED | WNOWAIT), 0);
            EXPECT_EQ(rounds(), 0u) << err;
        } else {
            remove(std::exchange(last, nullptr));
        }
        EXPECT_EQ(types.size(), how == IS_DELETED ? 1u : 2u);
        for (const Raw &raw : silent)
            EXPECT_FALSE(raw.open());
        EXPECT_EQ(connections(), 0u);
        if (last) remove(last);
        types.clear();
    }
    EXPECT_EQ(Balance::now(), before);
}

// ---- The started program's side

class Started : public Channel {
  protected:
    void SetUp() override {
        Channel::SetUp();
        starter.emplace(Raw::listening_at(path));
        test::set_env(CL_STARTER_SOCKET, path.c_str());
        start(nullptr);
        before = Balance::now();
    }

    /* Reports completion; the starter's end of the connection. */
    Raw report(uint32_t watch_sync = 0) {
        end = CL_StartupComplete(test::call_action, test::address(&on_end), 5, watch_sync, &err);
        EXPECT_NE(end, nullptr) << err;
        EXPECT_EQ(end->priority, uint32_t{CL_PRIORITY_REPORT});
        Raw connection = starter->accepted();
        EXPECT_EQ(connection.hear(), message(16, CL_MSG_EXEC_COMPLETE, CL_GetPid()));
        return connection;
    }

    std::optional<Raw> starter;
    CL_Object *end = nullptr;
    Balance before;
    std::vector<CL_ErrInfo> ends;
    uint32_t result = 0;
    std::function<void()> deed;
    Action on_end = [this](CL_Object *object, CL_Event *event) {
        EXPECT_EQ(object, end);
        EXPECT_EQ(event->type, uint32_t{CL_EVENT_END});
        ends.push_back(event->error);
        if (deed) deed();
        return result;
    };
};

TEST_F(Started, TheProgramIsToldToEndByARequestAndByAnyLoss) {
    const std::string request = message(16, CL_MSG_END_REQUEST);
    const struct {
        const char *what;
        std::vector<std::string> pieces;
        bool closes;
        uint32_t err, detail;
    } cases[] = {
        {"request", {request}, false, 0, 0},
        {"in pieces",
         {request.substr(0, 1), request.substr(1, 14), request.substr(15)},
         false,
         0,
         0},
        {"closed in a request", {request.substr(0, 7)}, true, 32, 32},
        {"too long", {message(21, 2)}, false, 32, 90},
        {"no length", {message(0, 2)}, false, 32, 71},
        {"other version", {message(16, 2, PID, 1)}, false, 32, 71},
        {"other messages first", {message(16, 7), message(20, 1), request}, false, 0, 0},
    };
    /* The end callback may delete the object itself, and give its slot to somebody else. */
    std::vector<CL_Object *> strangers;
    const auto replace = [&] {
        EXPECT_EQ(CL_DeleteFD(end, &err), 1u) << err;
        while (CL_Object *stranger = CL_CreateFD(CL_KIND_TIMER, nullptr, 0, 0, &err))
            strangers.push_back(stranger);
    };
    for (const auto &test : cases) {
        for (const bool deletes : {false, true}) {
            const uint32_t value = deletes ? 0 : STOP;
            SCOPED_TRACE(testing::Message() << test.what << ", callback returns " << value);
            result = value;
            deed = deletes ? std::function<void()>(replace) : nullptr;
            Raw connection = report();
            EXPECT_EQ(rounds(), 0u) << err;
            EXPECT_TRUE(ends.empty());
            uint32_t ended = 0;
            for (const std::string &piece : test.pieces) {
                connection.say(piece);
                ended = rounds();
            }
            if (test.closes) {
                connection.close();
                ended = rounds();
            }
            EXPECT_EQ(ended, value);
            EXPECT_EQ(ends.size(), 1u);
            EXPECT_EQ(ends.empty() ? 0 : ends[0].err, test.err);
            EXPECT_EQ(ends.empty() ? 0 : ends[0].detail, test.detail);
            for (CL_Object *stranger : std::exchange(strangers, {}))
                EXPECT_EQ(CL_DeleteFD(stranger, &err), 1u) << err;
            EXPECT_EQ(cl_CheckFD(end, &err), 0u) << "the object is deleted";
            ends.clear();
            connection.close();
            EXPECT_EQ(Balance::now(), before);
        }
    }
}

TEST_F(Started, ASynchronousTransferIsInterruptedByTheEndOnlyWhenAsked) {
    const std::string peer_path = path + ".peer";
    const Raw server = Raw::listening_at(peer_path);
    CL_Object *client = CL_CreateFD(CL_KIND_MSGC, nullptr, 0, 0, &err);
    ASSERT_EQ(CL_CnctMSGC(client, peer_path.c_str(), CL_MODE_SYNC, &err), 1u) << err;
    const Raw peer = server.accepted();
    unlink(peer_path.c_str());
    char buffer[100];
    const auto receive = [&] {
        return CL_RecvMSGC(client, buffer, sizeof buffer, CL_MODE_SYNC, 0, &err);
    };
    result = 99;

    Raw connection = report();
    connection.say(message(16, CL_MSG_END_REQUEST));
    peer.say(message(16, 3));
    EXPECT_EQ(receive(), 16) << "not watched: the request waits for the loop";
    EXPECT_EQ(rounds(), 99u);

    connection = report(1);
    connection.say(message(16, 7));
    peer.say(message(16, 3));
    EXPECT_EQ(receive(), 16) << "another message does not interrupt";
    connection.say(message(16, CL_MSG_END_REQUEST));
    EXPECT_EQ(receive(), 99);
    EXPECT_EQ(err.err, 4u);
    EXPECT_EQ(ends.size(), 2u);

    /* A starter that breaks the rules is lost, like one that is gone. */
    for (const std::string &broken : {message(21, 2), message(0, 2), std::string()}) {
        EXPECT_EQ(CL_DeleteFD_M(end, &err, 1, "test", 1), 1u) << err;
        connection = report(1);
        connection.say(broken);
        if (broken.empty()) {
            EXPECT_EQ(write(end->descriptor, "unread", 6), 6); /* so that the close is a reset */
            connection.close();
        }
        EXPECT_EQ(receive(), 99);
        EXPECT_EQ(err.err, 4u);
    }
    EXPECT_EQ(ends.size(), 5u);

    /* While the end callback runs there is nothing more to be told. */
    EXPECT_EQ(CL_DeleteFD_M(end, &err, 1, "test", 1), 1u) << err;
    connection = report(1);
    connection.close();
    deed = [&] {
        peer.say(message(16, 3));
        EXPECT_EQ(receive(), 16);
    };
    EXPECT_EQ(rounds(), 99u);
    EXPECT_EQ(ends.size(), 6u);
    deed = nullptr;

    /* The second report of a program is such a transfer, too. */
    connection = report(1);
    connection.say(message(16, CL_MSG_END_REQUEST));
    EXPECT_EQ(CL_StartupComplete(test::call_action, 0, 0, 0, &err), nullptr);
    EXPECT_EQ(err.err, 4u);
    EXPECT_EQ(ends.size(), 7u);
    EXPECT_EQ(CL_DeleteFD(client, &err), 1u) << err;
}

/* The library's own callback fails; whoever runs the loop is told with what. */
TEST_F(Started, ALostEndObjectEndsTheLoopWithItsError) {
    const Raw connection = report();
    EXPECT_EQ(CL_DiscMSGC_M(end, nullptr, nullptr, &err, 1, "test", 1), 1u);
    EXPECT_EQ(rounds(), CL_LOOP_ERROR);
    EXPECT_THAT(err, test::FailsWith(CL_ERR_QUEUE, CL_MODULE_MAIN));
    EXPECT_EQ(CL_DeleteFD(end, &err), 1u) << err;
}

TEST_F(Started, EveryStepOfReportingMayFailAndLeavesNothing) {
    const struct {
        const char *what;
        Fault fault;
        uint32_t error, module;
        Fault also = {.call = "nanosleep", .times = 10000, .swallow = true};
    } cases[] = {
        {"connect", {.call = "connect", .error = ECONNREFUSED}, ECONNREFUSED, CL_MODULE_MSGC},
        {"full", {.call = "connect", .error = EAGAIN, .times = 10000}, EAGAIN, CL_MODULE_MSGC},
        {"send", {.call = "send", .error = EPIPE}, EPIPE, CL_MODULE_MSGC},
        {"wait",
         {.call = "send", .error = EAGAIN},
         EBADF,
         CL_MODULE_MSGC,
         {.call = "pselect", .error = EBADF}},
    };
    const auto attempt = [this] {
        return CL_StartupComplete(test::call_action, test::address(&on_end), 0, 1, &err);
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.what);
        const Plan plan({test.fault, test.also});
        EXPECT_EQ(attempt(), nullptr);
        EXPECT_EQ(err.err, test.error);
        EXPECT_EQ(err.module, test.module);
        EXPECT_EQ(CL_MainTable->sync_flag, 0u);
        EXPECT_EQ(Balance::now(), before);
    }
    test::set_env(CL_STARTER_SOCKET, nullptr);
    EXPECT_EQ(attempt(), nullptr);
    EXPECT_THAT(err, test::FailsWith(ENOENT, CL_MODULE_STARTER));
    EXPECT_EQ(Balance::now(), before);
}

}  // namespace
