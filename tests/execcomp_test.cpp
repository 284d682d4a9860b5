// The exec-completion channel, each side in turn with a raw socket as the other: what starters may
// be told, by whom and in which pieces, and what a started program makes of what its starter sends.
// The raw side claims any process id, so that no program need be started.
#include <qvcl/child.h>
#include <qvcl/execcomp.h>
#include <qvcl/loop.h>
#include <qvcl/starter.h>
#include <sys/wait.h>

#include "tests/wire.h"

using test::Action;
using test::Balance;
using test::Plan;
using test::Socket;

namespace {

constexpr uint32_t kStop = 7;
constexpr uint32_t kPid = 5000001;  // of nobody: above what the system gives out
constexpr uint32_t kOther = 5000002;

std::string message(uint32_t length, uint32_t type, uint32_t sender = kPid,
                    uint32_t version = CL_MSG_VERSION) {
    const std::string padding(length > 16 && length < 100 ? length - 16 : 0, 'p');
    return test::wire_header(length, version, type, sender) + padding;
}

class Channel : public test::Messaging {
  protected:
    uint32_t rounds() { return iterate(6); }
    Balance idle;
};

// ---- The starter's side

class Starter : public Channel {
  protected:
    void SetUp() override {
        exec_path = server.c_str();
        Channel::SetUp();
        idle = Balance::now();
    }
    void TearDown() override { EXPECT_EQ(Balance::now(), idle); }

    // A CHILD object that waits for the report of `pid`, as a starter prepares it.
    CL_Object *waiting(uint32_t pid) {
        CL_Object *child = adopt(make(CL_KIND_CHILD), static_cast<pid_t>(pid));
        cl_StatusChange_M(child, child->status, CL_SUB_EXEC_AWAITED, "test", 1);
        EXPECT_EQ(CL_QUE_PutTail(&CL_MainTable->exec_wait_list, child), 1u);
        return child;
    }
    // There is no process to kill.
    void remove(CL_Object *child) {
        const Plan plan({{.call = "kill", .swallow = true}, {.call = "waitpid", .swallow = true}});
        EXPECT_EQ(CL_DeleteFD(child, &err), 1u) << err;
    }
    static std::size_t connections() {
        return CL_MainTable->kind_queues[CL_KIND_QUEUE_EXECC].count +
               CL_MainTable->kind_queues[CL_KIND_QUEUE_MSGC].count;
    }

    const std::string server = folder.path("server");
};

TEST_F(Starter, OnlyAReportOfAWaitingProgramIsTakenAndEverythingElseIsShut) {
    const std::string report = message(16, 1);
    enum { kTaken, kOpen, kShut };
    const std::pair<std::vector<std::string>, int> cases[] = {
        // each piece before some rounds
        {{report}, kTaken},
        {{report.substr(0, 5), report.substr(5, 10), report.substr(15)}, kTaken},
        {{report + report}, kTaken},
        {{report, message(16, 2)}, kTaken},
        {{report.substr(0, 9)}, kOpen},
        {{message(21, 1)}, kShut},
        {{message(0x7fffffff, 1)}, kShut},
        {{message(0, 1)}, kShut},
        {{message(16, 1, kPid, 0x00010002)}, kShut},
        {{message(16, 2)}, kShut},
        {{message(16, 1, kOther)}, kShut},
    };
    for (const auto &[pieces, fate] : cases) {
        SCOPED_TRACE(testing::PrintToString(pieces));
        const bool taken = fate == kTaken;
        CL_Object *child = waiting(kPid);
        {
            const Socket raw = Socket::connected(server);
            EXPECT_EQ(rounds(), 0u) << err;
            for (const std::string &piece : pieces) {
                raw.send(piece);
                EXPECT_EQ(rounds(), 0u) << err;
            }
            EXPECT_EQ(raw.ended(), fate == kShut);
            EXPECT_EQ(heard.size(), taken ? 1u : 0u);
            EXPECT_EQ(child->status, uint32_t{CL_STATUS_READY | CL_STATUS_LISTED});
            EXPECT_EQ(child->sub_status,
                      taken ? uint32_t{CL_SUB_EXEC_COMPLETE} : uint32_t{CL_SUB_EXEC_AWAITED});
            EXPECT_EQ(child->descriptor != -1, taken);
            EXPECT_EQ(connections(), fate == kOpen ? 1u : 0u);
        }
        EXPECT_EQ(rounds(), 0u) << err;  // the raw side has gone: nothing but the object is left
        EXPECT_EQ(connections(), 0u);
        EXPECT_EQ(CL_MainTable->exec_wait_list.count, taken ? 0u : 1u);
        remove(child);
        heard.clear();
        EXPECT_EQ(Balance::now(), idle);
    }
}

TEST_F(Starter, StrangersAreShutOutWhenNobodyIsAwaited) {
    enum How { kReports, kEnds, kIsDeleted };
    for (const How how : {kReports, kEnds, kIsDeleted}) {
        SCOPED_TRACE(testing::Message() << "case " << how);
        CL_Object *last = waiting(kPid), *const first = waiting(kOther);
        const Socket silent[] = {Socket::connected(server), Socket::connected(server)};
        const Socket reporter = Socket::connected(server);
        reporter.send(message(16, 1, kOther));
        EXPECT_EQ(iterate(12), 0u) << err;
        EXPECT_EQ(connections(), 2u) << "one child is still awaited";
        remove(first);

        const Socket other = Socket::connected(server);
        if (how == kReports) other.send(message(16, 1));
        if (how == kEnds) last->child.pid = static_cast<uint32_t>(test::ended_process());
        if (how == kIsDeleted) remove(std::exchange(last, nullptr));
        EXPECT_EQ(rounds(), 0u) << err;
        EXPECT_EQ(heard.size(), how == kIsDeleted ? 1u : 2u);
        for (const Socket &raw : silent)
            EXPECT_TRUE(raw.ended());
        EXPECT_EQ(other.ended(), how != kReports) << "nor does anybody get in";
        EXPECT_EQ(connections(), 0u);
        if (last != nullptr) remove(last);
        heard.clear();
    }
}

// Fields of the library's lists that are overwritten: the loop ends with the error, and when the
// field is as it was, nothing is lost.
TEST_F(Starter, StrayWritesAreTold) {
    CL_Queue &reporters = CL_MainTable->kind_queues[CL_KIND_QUEUE_EXECC];
    const auto first = [&] { return static_cast<CL_Object *>(reporters.head); };
    const auto last = [&] { return static_cast<CL_Object *>(reporters.tail); };
    const auto next = [] { return static_cast<CL_Object *>(CL_MainTable->free_queue.head); };
    using test::Damage;
    const struct {
        uint32_t code;
        bool early;  // before the reporter is let in
        std::function<void(Damage &, CL_Object *)> damage;
    } rows[] = {
        // clang-format off
        {CL_ERR_QUEUE, true, [&](Damage &d, auto) { d.misplace(reporters); }},
        {CL_ERR_QUEUE, true, [&](Damage &d, auto) { d.take(next()->event_link); }},
        {CL_ERR_QUEUE, true, [&](Damage &d, auto) { d.take(next()->kind_link); }},
        {CL_ERR_QUEUE, true, [](Damage &d, auto) { d.write(CL_MainTable->execs->status, CL_STATUS_LISTED); }},
        {CL_ERR_QUEUE, false, [](Damage &d, CL_Object *child) { d.lose(child->exec_link); }},
        {CL_ERR_QUEUE, false, [&](Damage &d, auto) { d.lose(first()->kind_link); }},
        {CL_ERR_QUEUE, false, [&](Damage &d, auto) { d.lose(last()->kind_link); }},
        {EBADF, false, [&](Damage &d, auto) { d.write(first()->status, CL_STATUS_LISTED); }},
        {0, false, [](Damage &, CL_Object *child) { child->sub_status = 0; }},
        {0, false, [](Damage &, CL_Object *child) { child->descriptor = dup(0); }},
        // clang-format on
    };
    for (int number = 0; const auto &[code, early, damage] : rows) {
        SCOPED_TRACE(testing::Message() << "row " << number++);
        CL_MainTable->exec_error = {};
        CL_Object *child = waiting(kPid);
        Damage field;
        {
            const Socket raw = Socket::connected(server), other = Socket::connected(server);
            if (!early) {
                EXPECT_EQ(rounds(), 0u) << err;
            }
            damage(field, child);
            if (!early) raw.send(message(16, 1));
            EXPECT_EQ(rounds(), code != 0 ? CL_LOOP_ERROR : 0u);
            EXPECT_EQ(err.err, code) << err;
            field.repair();
        }
        remove(child);
        EXPECT_EQ(rounds(), 0u) << err;
        heard.clear();
        EXPECT_EQ(Balance::now(), idle);
    }
    CL_Event connected = {};
    connected.type = CL_EVENT_CONNECTED;
    EXPECT_EQ(cl_ExecCWaitCallback(CL_MainTable->execs, &connected, 0, 0), 0u);
}

// ---- The started program's side

class Started : public Channel {
  protected:
    void SetUp() override {
        Channel::SetUp();
        test::set_env(CL_STARTER_SOCKET, path.c_str());
        idle = Balance::now();
    }

    CL_Object *complete() { return CL_StartupComplete(test::call_action, keeper(), 5, 0, &err); }
    // Reports completion; the starter's end of the connection is `peer`.
    void report() {
        end = complete();
        ASSERT_NE(end, nullptr) << err;
        EXPECT_EQ(end->priority, uint32_t{CL_PRIORITY_REPORT});
        peer = listener.accept();
        EXPECT_EQ(peer.receive(), message(16, CL_MSG_EXEC_COMPLETE, CL_GetPid()));
    }

    CL_Object *end = nullptr;
};

TEST_F(Started, TheProgramIsToldToEndByARequestAndByAnyLoss) {
    const std::string request = message(16, CL_MSG_END_REQUEST), close;
    const struct {
        std::vector<std::string> pieces;  // an empty one closes
        uint32_t detail;                  // 0: it was asked
    } cases[] = {
        {{request}, 0},
        {{request.substr(0, 1), request.substr(1, 14), request.substr(15)}, 0},
        {{request.substr(0, 7), close}, EPIPE},
        {{message(21, 2)}, EMSGSIZE},
        {{message(0, 2)}, EPROTO},
        {{message(16, 2, kPid, 1)}, EPROTO},
        {{message(16, 7), message(20, 1), request}, 0},
    };
    for (int number = 0; number < 2 * static_cast<int>(std::size(cases)); ++number) {
        SCOPED_TRACE(number);
        const auto &[pieces, detail] = cases[number / 2];
        const uint32_t value = number % 2 != 0 ? kStop : 0;
        // The end callback may delete the object itself, and give its slot to somebody else.
        std::vector<CL_Object *> strangers;
        reply = [&](CL_Object *object, CL_Event *) {
            EXPECT_EQ(object, end);
            if (value == kStop) return value;
            EXPECT_EQ(CL_DeleteFD(end, &err), 1u) << err;
            while (CL_Object *stranger = make(number % 4 < 2 ? CL_KIND_TIMER : CL_KIND_END))
                strangers.push_back(stranger);
            return value;
        };
        report();
        EXPECT_EQ(rounds(), 0u) << err;
        EXPECT_TRUE(heard.empty());
        uint32_t ended = 0;
        for (const std::string &piece : pieces) {
            piece.empty() ? peer.close() : peer.send(piece);
            ended = rounds();
        }
        EXPECT_EQ(ended, value);
        ASSERT_EQ(heard.size(), 1u);
        EXPECT_EQ(heard[0].event.type, uint32_t{CL_EVENT_END});
        EXPECT_EQ(heard[0].event.error.err, detail == 0 ? 0u : uint32_t{EPIPE});
        EXPECT_EQ(heard[0].event.error.detail, detail);
        for (CL_Object *stranger : strangers)
            EXPECT_EQ(CL_DeleteFD(stranger, &err), 1u) << err;
        EXPECT_EQ(cl_CheckFD(end, &err), 0u) << "the object is deleted";
        heard.clear();
        peer.close();
        EXPECT_EQ(Balance::now(), idle);
    }
}

// The library's own callback fails; whoever runs the loop is told with what.
TEST_F(Started, ALostEndObjectEndsTheLoopWithItsError) {
    report();
    EXPECT_EQ(CL_DiscMSGC_M(end, nullptr, nullptr, &err, 1, "test", 1), 1u);
    EXPECT_EQ(rounds(), CL_LOOP_ERROR);
    EXPECT_THAT(err, test::FailsWith(CL_ERR_QUEUE, CL_MODULE_MAIN));
    EXPECT_EQ(CL_DeleteFD(end, &err), 1u) << err;
}

// Nor does the loop go on when the object cannot be deleted, or await another message.
TEST_F(Started, AnEndObjectThatStaysEndsTheLoop) {
    for (const bool asked : {true, false}) {
        test::Damage field;
        reply = [&](CL_Object *object, CL_Event *) {
            field.lose(object->kind_link);
            return 0u;
        };
        report();
        asked ? peer.send(message(16, CL_MSG_END_REQUEST)) : peer.close();
        EXPECT_EQ(rounds(), CL_LOOP_ERROR);
        EXPECT_EQ(err.err, uint32_t{CL_ERR_QUEUE});
        field.repair();
        CL_MsgHeader unknown = {};
        CL_Event event = {};
        event.type = CL_EVENT_MESSAGE;
        event.data = &unknown;
        EXPECT_EQ(cl_EndCallback(end, &event, 0, 0), CL_LOOP_ERROR) << "it is not connected";
        EXPECT_EQ(CL_DeleteFD(end, &err), 1u) << err;
        peer.close();
        EXPECT_EQ(Balance::now(), idle);
    }
}

// A starter that has no room for another connection just now is tried again, but not for ever.
TEST_F(Started, ABusyStarterIsTriedAgain) {
    for (const int times : {3, 10000}) {
        const Plan plan({{.call = "connect", .error = EAGAIN, .times = times},
                         {.call = "nanosleep", .times = test::kForever, .swallow = true}});
        end = complete();
        EXPECT_EQ(end != nullptr, times == 3) << err;
        EXPECT_EQ(err.err, times == 3 ? 0u : uint32_t{EAGAIN});
        if (end != nullptr) {
            EXPECT_EQ(CL_DeleteFD(end, &err), 1u) << err;
        }
        EXPECT_EQ(CL_MainTable->sync_flag, 0u);
        EXPECT_EQ(Balance::now(), idle);
    }
    test::set_env(CL_STARTER_SOCKET, nullptr);
    EXPECT_EQ(complete(), nullptr);
    EXPECT_THAT(err, test::FailsWith(ENOENT, CL_MODULE_STARTER));
    EXPECT_EQ(Balance::now(), idle);
}

}  // namespace
