// Timers: when they are due, in which order they are called, and what callbacks may do meanwhile.
// The uptime is the test's own, so nothing here waits but the one test that uses the real one.
#include <qvcl/loop.h>
#include <qvcl/timer.h>
#include <sys/time.h>

#include <chrono>
#include <csignal>

#include "tests/support.h"

namespace {

using test::Action;
using test::Plan;

void *alarm_handler() {
    struct sigaction action {};
    sigaction(SIGALRM, nullptr, &action);
    return reinterpret_cast<void *>(action.sa_handler);
}
itimerval interval_timer() {
    itimerval value{};
    getitimer(ITIMER_REAL, &value);
    return value;
}

class Timer : public test::Library {
  protected:
    void SetUp() override {
        Library::SetUp();
        CL_KitSetUptime(1000);
    }
    CL_Object *timer(Action *action = nullptr) {
        return create(CL_KIND_TIMER, test::call_action, test::address(action));
    }
};

TEST_F(Timer, SharesOneIntervalTimer) {
    CL_Object *first = timer(), *second = timer();
    CL_MainTable->timer_signals = 5;
    Plan plan;
    ASSERT_EQ(CL_StartTIMER(first, 3, CL_TIMER_ONESHOT, &err), 1u);
    EXPECT_EQ(CL_MainTable->timer_signals, 0u);
    ASSERT_EQ(CL_StartTIMER(second, 7, CL_TIMER_PERIODIC, &err), 1u);
    EXPECT_EQ(plan.count("setitimer"), 1);
    EXPECT_EQ(interval_timer().it_interval.tv_sec, 1);
    raise(SIGALRM);
    raise(SIGALRM);
    EXPECT_EQ(CL_MainTable->timer_signals, 2u);

    // Counting without calling anybody.
    CL_KitSetUptime(1002);
    CL_CommitTIMER();
    EXPECT_EQ(CL_MainTable->timer_signals, 0u);
    EXPECT_EQ(first->remaining, 1u);
    EXPECT_EQ(second->remaining, 5u);
    CL_CommitTIMER();
    EXPECT_EQ(first->remaining, 1u) << "nothing came";

    EXPECT_EQ(CL_StopTIMER(first, &err), 1u);
    EXPECT_EQ(first->interval + first->remaining + first->status, 0u);
    EXPECT_EQ(plan.count("setitimer"), 1);
    EXPECT_EQ(CL_StopTIMER(second, &err), 1u);
    EXPECT_EQ(plan.count("setitimer"), 2);
    EXPECT_EQ(interval_timer().it_value.tv_sec + interval_timer().it_value.tv_usec, 0);
}

// The largest number of seconds is not the mark of a timer that is due.
TEST_F(Timer, MayRunForVeryLong) {
    int calls = 0;
    Action action = [&](CL_Object *, CL_Event *) {
        ++calls;
        return 0u;
    };
    CL_Object *longest = timer(&action), *due = timer(&action);
    ASSERT_EQ(CL_StartTIMER(longest, UINT32_MAX, CL_TIMER_PERIODIC, &err), 1u);
    ASSERT_EQ(CL_StartTIMER(due, 0, CL_TIMER_ONESHOT, &err), 1u);
    EXPECT_EQ(cl_TimerCheck(0, &err), 1u);
    EXPECT_EQ(cl_TimerCall(&err), 0);
    EXPECT_EQ(calls, 1) << "nobody else is due";
    CL_KitSetUptime(1000 + long{UINT32_MAX});
    EXPECT_EQ(cl_TimerCheck(1, &err), 1u);
    EXPECT_EQ(cl_TimerCall(&err), 0);
    EXPECT_EQ(calls, 2);
}

// What counts is the start that its own callback gave it, not the tick that it was told of.
TEST_F(Timer, RestartedByItsCallback) {
    int calls = 0;
    Action action = [&](CL_Object *self, CL_Event *) {
        ++calls;
        EXPECT_EQ(CL_StopTIMER(self, &err), 1u);
        EXPECT_EQ(CL_StartTIMER(self, 7, CL_TIMER_PERIODIC, &err), 1u);
        return 0u;
    };
    ASSERT_EQ(CL_StartTIMER(timer(&action), 3, CL_TIMER_PERIODIC, &err), 1u);
    for (const auto &[uptime, expected] : {std::pair{1005L, 1}, {1011L, 1}, {1012L, 2}}) {
        CL_KitSetUptime(uptime);
        EXPECT_EQ(cl_TimerCheck(1, &err), expected == calls ? 0u : 1u) << uptime;
        EXPECT_EQ(cl_TimerCall(&err), 0);
        EXPECT_EQ(calls, expected) << uptime;
    }
}

TEST(Sleep, GoesOnWithWhatIsLeft) {
    Plan plan{{.call = "nanosleep", .error = EINTR, .times = 2},
              {.call = "nanosleep", .nth = 3, .swallow = true}};
    EXPECT_EQ(CL_Sleep(2500), 0);
    const int64_t expected[] = {2'500, 1'250, 625};
    timespec asked{};
    for (std::size_t i = 0; i < 3; ++i) {
        ASSERT_EQ(CL_KitSleep(i, &asked), 1u);
        EXPECT_EQ(asked.tv_sec * 1000 + asked.tv_nsec / 1'000'000, expected[i]);
    }
    EXPECT_EQ(CL_KitSleep(3, &asked), 0u);
}

// The one test that lets time pass.
TEST(TimerClock, RunsInTheLoop) {
    CL_ErrInfo err;
    ASSERT_EQ(CL_Init(5, nullptr, &err), 1u);
    Action action = [](CL_Object *, CL_Event *) { return 42u; };
    CL_Object *object =
        CL_CreateFD(CL_KIND_TIMER, test::call_action, test::address(&action), 0, &err);
    const auto before = std::chrono::steady_clock::now();
    ASSERT_EQ(CL_StartTIMER(object, 1, CL_TIMER_ONESHOT, &err), 1u);
    EXPECT_EQ(CL_EventLoop(&err), 42u);
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - before;
    EXPECT_GE(passed.count(), 0.9);
    EXPECT_LT(passed.count(), 5);
    EXPECT_EQ(alarm_handler(), reinterpret_cast<void *>(SIG_IGN));
}

}  // namespace
