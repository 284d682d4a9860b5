// Children of this process, forked here and made CHILD objects as a starter does it: how each end
// is told, a dispatch that fails, deletions that kill. No zombie may be left.
#include <qvcl/child.h>
#include <qvcl/loop.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>

#include "tests/support.h"

using test::Action;
using test::Balance;
using test::child_process;
using test::ended_process;
using test::Plan;
using testing::ElementsAre;

namespace {

constexpr uint32_t kStop = 7;

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

    // The object of a child; every event goes to `told`.
    CL_Object *watch(pid_t pid) {
        return adopt(create(CL_KIND_CHILD, test::call_action, test::address(&on_event)), pid);
    }
    uint32_t remove(CL_Object *child) { return CL_DeleteFD(child, &err); }

    struct Told {
        CL_Object *child;
        uint32_t reason, value;
        bool operator==(const Told &other) const = default;
    };
    std::vector<Told> told;
    std::size_t stop_after = 1;
    Action on_event = [this](CL_Object *child, CL_Event *event) {
        EXPECT_EQ(event->type, uint32_t{CL_EVENT_CHILD_END});
        EXPECT_EQ(child->status | child->sub_status, 0u);
        EXPECT_EQ(child->descriptor, -1);
        told.push_back({child, event->exit_reason, event->exit_value});
        return told.size() == stop_after ? kStop : 0;
    };
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
    for (const auto &end : ends) {
        const pid_t pid = child_process(end.life);
        CL_Object *child = watch(pid);
        if (end.value == 5) {  // a stop is no end, and says nothing
            siginfo_t info;
            EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOWAIT), 0);
            EXPECT_EQ(cl_ChildCall(&err), 0u);
            EXPECT_EQ(told.size(), 0u);
            kill(pid, SIGCONT);
        }
        EXPECT_EQ(CL_EventLoop(&err), kStop) << err;
        EXPECT_THAT(told, ElementsAre(Told{child, end.reason, end.value}));
        told.clear();
        EXPECT_EQ(remove(child), 1u) << err;
    }
}

// A dispatch that failed keeps its place; whoever takes the child there off the list moves it.
TEST_F(Children, AFailedDispatchGoesOnWhereItStopped) {
    CL_Object *first = watch(child_process()), *second = watch(ended_process(2));
    {
        const Plan plan({.call = "waitpid", .error = EINVAL});
        EXPECT_EQ(cl_ChildCall(&err), CL_LOOP_ERROR);
        EXPECT_EQ(err.err, uint32_t{EINVAL});
    }
    EXPECT_EQ(CL_MainTable->child_cursor, first);
    EXPECT_EQ(CL_DelEventList_M(first, &err, 1, "test", 1), 1u) << err;
    EXPECT_EQ(cl_ChildCall(&err), kStop) << err;
    EXPECT_THAT(told, ElementsAre(Told{second, CL_CHILD_EXITED, 2}));
    EXPECT_EQ(CL_AddEventList_M(first, CL_PRIORITY_FIRST, &err, 1, "test", 1), 1u) << err;
    EXPECT_EQ(remove(first), 1u) << err;
    EXPECT_EQ(remove(second), 1u) << err;
}

TEST_F(Children, DeletingKillsAndReapsWhoRunsAndNobodyElse) {
    CL_Object *told_already = watch(ended_process());
    EXPECT_EQ(cl_ChildCall(&err), kStop);
    CL_Object *const objects[] = {watch(child_process()), told_already,
                                  create(CL_KIND_CHILD, test::call_action)};
    const Plan plan;
    for (CL_Object *child : objects) {
        EXPECT_EQ(remove(child), 1u) << err;
        EXPECT_EQ(plan.count("kill"), 1) << "the first alone runs";
        EXPECT_EQ(plan.count("waitpid"), 1);
    }
    EXPECT_EQ(told.size(), 1u);
}

TEST_F(Children, OneSignalServesAnyNumberAndOthersChildrenAreLeftAlone) {
    stop_after = 40;
    const pid_t foreign = ended_process(42);
    sigset_t blocked, saved;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGCHLD);
    sigprocmask(SIG_BLOCK, &blocked, &saved);
    std::vector<CL_Object *> children;
    for (std::size_t i = 0; i < stop_after; ++i)
        children.push_back(watch(ended_process(1)));
    __atomic_store_n(&CL_MainTable->child_signal, 0u, __ATOMIC_RELAXED);
    sigprocmask(SIG_SETMASK, &saved, nullptr);
    EXPECT_EQ(CL_MainTable->child_signal, 1u);

    EXPECT_EQ(CL_EventLoop(&err), kStop) << err;
    for (CL_Object *child : children)
        EXPECT_EQ(remove(child), 1u) << err;
    int status = 0;
    EXPECT_EQ(waitpid(foreign, &status, WNOHANG), foreign);
    EXPECT_EQ(WEXITSTATUS(status), 42);
}

}  // namespace
