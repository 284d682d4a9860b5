/* Children of this process, forked here and made CHILD objects as a starter does it: how each end
 * is told, callbacks that change the list, deletions that kill. No zombie may be left. */
#include <qvcl/child.h>
#include <qvcl/loop.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <array>
#include <csignal>

#include "tests/support.h"

using test::Action;
using test::Balance;
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
        {[] { return 255; }, CL_CHILD_EXITED, 255},
        {[] { return raise(SIGKILL); }, CL_CHILD_KILLED, SIGKILL},
        {[] { return raise(SIGSTOP), 5; }, CL_CHILD_EXITED, 5},
    };
    reply = [](CL_Object *, CL_Event *) { return STOP; };
    for (const auto &end : ends) {
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
        {"next", false, [&] { return remove_number(3), 0; }, {0, 1, 2, 4}, {}},
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

/* A dispatch that failed keeps its place; whoever takes the child there off the list moves it. */
TEST_F(Children, AFailedDispatchGoesOnWhereItStopped) {
    CL_Object *first = watch(process()), *second = watch(ended_process(2));
    {
        const Plan plan({.call = "waitpid", .error = EINVAL});
        EXPECT_EQ(cl_ChildCall(&err), CL_LOOP_ERROR);
        EXPECT_EQ(err.err, uint32_t{EINVAL});
    }
    EXPECT_EQ(CL_MainTable->child_cursor, first);
    EXPECT_EQ(CL_DelEventList_M(first, &err, 1, "test", 1), 1u) << err;
    EXPECT_EQ(cl_ChildCall(&err), 0u) << err;
    EXPECT_THAT(told, testing::ElementsAre(Told{second, CL_CHILD_EXITED, 2}));
    EXPECT_EQ(CL_AddEventList_M(first, CL_PRIORITY_FIRST, &err, 1, "test", 1), 1u) << err;
    EXPECT_EQ(remove(first), 1u) << err;
    EXPECT_EQ(remove(second), 1u) << err;
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

}  // namespace
