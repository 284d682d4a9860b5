/* Children of this process, forked here and made CHILD objects as a starter does it: how each end
 * is told, a dispatch whose callbacks change the list, deletions that kill, and what the library
 * leaves alone. No zombie may be left. */
#include <qvcl/child.h>
#include <qvcl/loop.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <array>
#include <csignal>

#include "tests/support.h"

using test::Action;
using test::Balance;
using test::Fault;
using test::Plan;

namespace {

enum { STOP = 7 };

void wait_until_ended(pid_t pid) {
    siginfo_t info;
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
}

class Children : public test::Library {
  protected:
    void SetUp() override {
        const rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        Library::SetUp();
        before = Balance::now();
    }

    void TearDown() override {
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
        EXPECT_EQ(Balance::now(), before);
        EXPECT_EQ(CL_MainTable->child_cursor, nullptr);
    }

    /* A process that runs `life` and exits with its result; without one it lives until killed. */
    pid_t process(const std::function<int()> &life = nullptr) {
        const pid_t pid = fork();
        if (pid != 0) return pid;
        if (life) _exit(life());
        for (;;)
            pause();
    }
    pid_t ended_process(int status) {
        const pid_t pid = process([&] { return status; });
        wait_until_ended(pid);
        return pid;
    }

    /* The object of a child; every event goes to `told`, the callback returns what `reply` says. */
    CL_Object *watch(pid_t pid) {
        CL_Object *child = create(CL_KIND_CHILD, test::call_action, test::address(&on_event));
        child->child.pid = static_cast<uint32_t>(pid);
        cl_StatusChange_M(child, CL_STATUS_READY, 0, "test", 1);
        EXPECT_EQ(CL_AddEventList_M(child, CL_PRIORITY_FIRST, &err, 1, "test", 1), 1u) << err;
        return child;
    }

    struct Told {
        CL_Object *child;
        uint32_t reason, value;
        bool operator==(const Told &other) const = default;
    };
    std::vector<Told> told;
    Action reply;
    Action on_event = [this](CL_Object *child, CL_Event *event) {
        EXPECT_EQ(event->type, uint32_t{CL_EVENT_CHILD_END});
        EXPECT_EQ(child->status | child->sub_status, 0u);
        EXPECT_EQ(child->descriptor, -1);
        told.push_back({child, event->exit_reason, event->exit_value});
        CL_Event rest = *event;
        rest.type = rest.exit_reason = rest.exit_value = 0;
        const CL_Event zero{};
        EXPECT_EQ(memcmp(&rest, &zero, sizeof zero), 0);
        return reply ? reply(child, event) : 0;
    };

    uint32_t remove(CL_Object *child) { return CL_DeleteFD(child, &err); }

    Balance before;
};

TEST_F(Children, EachEndIsToldThroughTheLoop) {
    const struct {
        std::function<int()> life;
        uint32_t reason, value;
    } ends[] = {
        {[] { return 0; }, CL_CHILD_EXITED, 0},
        {[] { return 3; }, CL_CHILD_EXITED, 3},
        {[] { return 255; }, CL_CHILD_EXITED, 255},
        {[] { return raise(SIGTERM); }, CL_CHILD_KILLED, SIGTERM},
        {[] { return raise(SIGKILL); }, CL_CHILD_KILLED, SIGKILL},
        {[] { return signal(SIGSEGV, SIG_DFL), raise(SIGSEGV); }, CL_CHILD_KILLED, SIGSEGV},
        {[] { return raise(SIGSTOP), 5; }, CL_CHILD_EXITED, 5},
    };
    reply = [](CL_Object *, CL_Event *) { return STOP; };
    for (const auto &end : ends) {
        SCOPED_TRACE(testing::Message() << "reason " << end.reason << " value " << end.value);
        const pid_t pid = process(end.life);
        CL_Object *child = watch(pid);
        if (end.value == 5) { /* a stop is no end, and says nothing */
            EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), std::array<siginfo_t, 1>().data(),
                             WSTOPPED | WNOWAIT),
                      0);
            EXPECT_EQ(cl_ChildCall(&err), 0u);
            EXPECT_EQ(told.size(), 0u);
            kill(pid, SIGCONT);
        }
        EXPECT_EQ(CL_EventLoop(&err), uint32_t{STOP}) << err;
        EXPECT_THAT(told, testing::ElementsAre(Told{child, end.reason, end.value}));
        told.clear();
        EXPECT_EQ(remove(child), 1u) << err;
    }
}

TEST_F(Children, OneDispatchTellsAllThatHaveEndedInListOrder) {
    const pid_t alive = process();
    std::vector<CL_Object *> children;
    std::vector<Told> expected;
    for (uint32_t i = 0; i < 5; ++i) {
        children.push_back(watch(i == 2 ? alive : ended_process(static_cast<int>(i))));
        if (i != 2) expected.push_back({children[i], CL_CHILD_EXITED, i});
    }
    EXPECT_EQ(cl_ChildCall(&err), 0u);
    EXPECT_EQ(told, expected);
    EXPECT_EQ(CL_MainTable->child_list.count, 1u);
    EXPECT_EQ(children[2]->status, uint32_t{CL_STATUS_READY | CL_STATUS_LISTED});
    for (CL_Object *child : children)
        EXPECT_EQ(remove(child), 1u) << err;
}

TEST_F(Children, ACallbackMayChangeTheListItIsCalledFrom) {
    /* Five ended children, 0 to 4; the callback of number 2 does something to the list. Number 1
     * and 3 may be alive instead, where deleting them must kill. */
    std::vector<CL_Object *> children;
    const auto remove_number = [&](std::size_t number) {
        EXPECT_EQ(remove(children[number]), 1u) << err;
        children[number] = nullptr;
    };
    const struct {
        const char *what;
        bool neighbours_alive;
        std::function<uint32_t()> change;
        std::vector<uint32_t> told_now, told_next;
    } cases[] = {
        {"itself", false, [&] { return remove_number(2), 0; }, {0, 1, 2, 3, 4}, {}},
        {"before", false, [&] { return remove_number(1), 0; }, {0, 1, 2, 3, 4}, {}},
        {"next", false, [&] { return remove_number(3), 0; }, {0, 1, 2, 4}, {}},
        {"last", false, [&] { return remove_number(4), 0; }, {0, 1, 2, 3}, {}},
        {"living neighbours",
         true,
         [&] { return remove_number(1), remove_number(3), 0; },
         {0, 2, 4},
         {}},
        {"itself and next",
         false,
         [&] { return remove_number(2), remove_number(3), 0; },
         {0, 1, 2, 4},
         {}},
        {"all others",
         true,
         [&] { return remove_number(1), remove_number(3), remove_number(4), 0; },
         {0, 2},
         {}},
        {"adds one",
         false,
         [&] { return children.push_back(watch(ended_process(5))), 0; },
         {0, 1, 2, 3, 4, 5},
         {}},
        {"ends it", false, [&] { return STOP; }, {0, 1, 2}, {3, 4}},
        {"deletes itself and ends it",
         false,
         [&] { return remove_number(2), STOP; },
         {0, 1, 2},
         {3, 4}},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.what);
        for (uint32_t i = 0; i < 5; ++i) {
            const bool alive = test.neighbours_alive && i % 2 == 1;
            children.push_back(watch(alive ? process() : ended_process(static_cast<int>(i))));
        }
        CL_Object *const second = children[2];
        reply = [&](CL_Object *child, CL_Event *event) {
            return child == second && event->exit_value == 2 ? test.change() : 0;
        };
        const auto values = [&] {
            std::vector<uint32_t> result;
            for (const Told &one : std::exchange(told, {}))
                result.push_back(one.value);
            return result;
        };
        EXPECT_EQ(cl_ChildCall(&err), test.told_next.empty() ? 0u : uint32_t{STOP}) << err;
        EXPECT_EQ(values(), test.told_now);
        EXPECT_EQ(CL_MainTable->child_cursor, nullptr);
        EXPECT_EQ(cl_ChildCall(&err), 0u) << err;
        EXPECT_EQ(values(), test.told_next);
        for (CL_Object *child : children)
            EXPECT_TRUE(!child || remove(child)) << err;
        children.clear();
    }
}

TEST_F(Children, DeletingTheObjectOfAChildThatRunsKillsAndReapsIt) {
    CL_Object *child = watch(process());
    const Plan plan;
    EXPECT_EQ(remove(child), 1u) << err;
    EXPECT_EQ(plan.count("kill"), 1);
    EXPECT_EQ(plan.count("waitpid"), 1);
    EXPECT_TRUE(told.empty());
}

TEST_F(Children, DeletingKillsNobodyWhenNoChildIsLeftOrWasThere) {
    CL_Object *told_already = watch(ended_process(0));
    EXPECT_EQ(cl_ChildCall(&err), 0u);
    CL_Object *never_started = create(CL_KIND_CHILD, test::call_action);
    const Plan plan;
    EXPECT_EQ(remove(told_already), 1u) << err;
    EXPECT_EQ(remove(never_started), 1u) << err;
    EXPECT_EQ(plan.count("kill"), 0);
}

TEST_F(Children, DeletingAnEndedChildThatWasNotToldYetReapsIt) {
    CL_Object *child = watch(ended_process(0));
    EXPECT_EQ(remove(child), 1u) << err;
}

TEST_F(Children, AKillOrWaitThatFailsIsToldAndTheObjectStays) {
    const struct {
        Fault fault;
        bool fails;
    } cases[] = {
        {{.call = "kill", .error = EPERM}, true},
        {{.call = "kill", .error = ESRCH}, false}, /* it has ended: only to be reaped */
        {{.call = "waitpid", .error = ECHILD}, true},
        {{.call = "waitpid", .error = EINTR, .times = 3}, false},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(testing::Message() << test.fault.call << " " << test.fault.error);
        const pid_t pid = ended_process(0);
        CL_Object *child = watch(pid);
        const uint32_t used = CL_MainTable->used_queue.count;
        {
            const Plan plan(test.fault);
            EXPECT_EQ(remove(child), test.fails ? 0u : 1u);
            EXPECT_GT(plan.hits(), 0);
        }
        EXPECT_EQ(CL_MainTable->used_queue.count, used - (test.fails ? 0 : 1));
        if (!test.fails) continue;
        EXPECT_EQ(err.err, CL_ERR_QUEUE);
        EXPECT_EQ(err.detail, static_cast<uint32_t>(test.fault.error));
        EXPECT_EQ(err.module, uint32_t{CL_MODULE_CHILD});
        /* Off its kind queue already, so the ordinary way is closed: back to where it was. */
        EXPECT_EQ(CL_QUE_PutTail(&CL_MainTable->kind_queues[CL_KIND_QUEUE_CHILD], child), 1u);
        EXPECT_EQ(remove(child), 1u) << err;
    }
}

TEST_F(Children, AWaitThatFailsEndsTheDispatchAndTheNextGoesOnBehindIt) {
    std::vector<CL_Object *> children;
    for (int i = 0; i < 3; ++i)
        children.push_back(watch(ended_process(i)));
    {
        const Plan plan(Fault{.call = "waitpid", .error = ECHILD, .nth = 2});
        EXPECT_EQ(cl_ChildCall(&err), CL_LOOP_ERROR);
    }
    EXPECT_THAT(err, test::FailsWith(ECHILD, CL_MODULE_CHILD));
    EXPECT_EQ(CL_MainTable->child_cursor, children[1]);
    EXPECT_EQ(cl_ChildCall(&err), 0u);
    EXPECT_THAT(told, testing::ElementsAre(Told{children[0], CL_CHILD_EXITED, 0},
                                           Told{children[2], CL_CHILD_EXITED, 2}));
    EXPECT_EQ(cl_ChildCall(&err), 0u);
    EXPECT_EQ(told.size(), 3u);
    for (CL_Object *child : children)
        EXPECT_EQ(remove(child), 1u) << err;
}

TEST_F(Children, OneSignalServesAnyNumberAndOthersChildrenAreLeftAlone) {
    constexpr std::size_t COUNT = 40;
    const pid_t foreign = ended_process(42);
    sigset_t blocked, saved;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGCHLD);
    sigprocmask(SIG_BLOCK, &blocked, &saved);
    std::vector<CL_Object *> children;
    for (std::size_t i = 0; i < COUNT; ++i)
        children.push_back(watch(ended_process(1)));
    __atomic_store_n(&CL_MainTable->child_signal, 0u, __ATOMIC_RELAXED);
    sigprocmask(SIG_SETMASK, &saved, nullptr);
    EXPECT_EQ(CL_MainTable->child_signal, 1u);

    reply = [&](CL_Object *, CL_Event *) { return told.size() == COUNT ? STOP : 0; };
    EXPECT_EQ(CL_EventLoop(&err), uint32_t{STOP}) << err;
    for (CL_Object *child : children)
        EXPECT_EQ(remove(child), 1u) << err;
    int status = 0;
    EXPECT_EQ(waitpid(foreign, &status, WNOHANG), foreign);
    EXPECT_EQ(WEXITSTATUS(status), 42);
}

TEST_F(Children, TheHandlerIsInstalledOnceAndEachStepMayFail) {
    struct sigaction action;
    ASSERT_EQ(sigaction(SIGCHLD, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, cl_sigchld);
    EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_SIGINFO | SA_NOCLDSTOP | SA_NOCLDWAIT),
              SA_RESTART | SA_SIGINFO | SA_NOCLDSTOP);
    EXPECT_EQ(sigismember(&action.sa_mask, SIGCHLD), 1);

    for (const char *call : {"sigemptyset", "sigaddset", "sigaction"}) {
        const Plan plan(Fault{.call = call, .error = EINVAL});
        EXPECT_EQ(cl_sigchld_init(&err), 0u) << call;
        EXPECT_THAT(err, test::FailsWith(EINVAL, CL_MODULE_CHILD)) << call;
    }
    EXPECT_EQ(cl_SIGCHLD_end(), 1u);
    EXPECT_EQ(waitpid(process([] { return 0; }), nullptr, 0), -1); /* the system reaps */
    EXPECT_EQ(cl_sigchld_init(&err), 1u);
    EXPECT_EQ(CL_MainTable->child_signal, 0u);
}

TEST_F(Children, EnvironmentChangesAreAppliedInOrderUpToOneThatFails) {
    const auto values = [] {
        std::vector<std::string> result;
        for (const char *name : {"QVCL_A", "QVCL_B", "QVCL_C"}) {
            const char *value = getenv(name);
            result.push_back(value ? value : "-");
        }
        return result;
    };
    const struct {
        std::vector<CL_EnvChange> changes;
        int32_t result;
        std::vector<std::string> expected;
    } cases[] = {
        {{}, 0, {"a", "-", "c"}},
        {{{"QVCL_A", "x"}, {"QVCL_B", ""}, {"QVCL_C", nullptr}}, 0, {"x", "", "-"}},
        {{{"QVCL_A", nullptr}, {"QVCL_A", "y"}, {"QVCL_C", "z"}, {"QVCL_C", nullptr}},
         0,
         {"y", "-", "-"}},
        {{{"QVCL_B", "b"}, {"", "no name"}, {"QVCL_C", "unreached"}}, -1, {"a", "b", "c"}},
    };
    for (const auto &test : cases) {
        test::set_env("QVCL_A", "a");
        test::set_env("QVCL_B", nullptr);
        test::set_env("QVCL_C", "c");
        auto changes = test.changes;
        changes.push_back({nullptr, "end"});
        err = test::UNTOUCHED;
        EXPECT_EQ(cl_envchange(changes.data(), &err), test.result);
        EXPECT_EQ(values(), test.expected);
        if (test.result == 0)
            EXPECT_EQ(err, test::UNTOUCHED);
        else
            EXPECT_THAT(err, test::FailsWith(ENOMEM, CL_MODULE_CHILD));
    }
}

}  // namespace
