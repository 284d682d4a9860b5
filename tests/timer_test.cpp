/* Timers: when they are due, in which order they are called, and what callbacks may do meanwhile.
 * The uptime is the test's own, so nothing here waits but the one test that uses the real one. */
#include <qvcl/loop.h>
#include <qvcl/timer.h>
#include <sys/time.h>

#include <csignal>

#include "tests/support.h"

namespace {

using test::Action;
using test::Plan;

CL_MainBlock &table() {
    return *CL_MainTable;
}

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
        test::set_uptime(1000);
    }
    CL_Object *timer(Action *action = nullptr) {
        return create(CL_KIND_TIMER, test::call_action, test::address(action));
    }
};

TEST_F(Timer, SharesOneIntervalTimer) {
    CL_Object *first = timer(), *second = timer();
    table().timer_signals = 5;
    Plan plan;
    ASSERT_EQ(CL_StartTIMER(first, 3, CL_TIMER_ONESHOT, &err), 1u);
    EXPECT_EQ(table().timer_signals, 0u);
    ASSERT_EQ(CL_StartTIMER(second, 7, CL_TIMER_PERIODIC, &err), 1u);
    EXPECT_EQ(plan.count("setitimer"), 1);
    EXPECT_EQ(interval_timer().it_interval.tv_sec, 1);
    raise(SIGALRM);
    raise(SIGALRM);
    EXPECT_EQ(table().timer_signals, 2u);

    /* Counting without calling anybody. */
    test::set_uptime(1002);
    CL_CommitTIMER();
    EXPECT_EQ(table().timer_signals, 0u);
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

/* Random starts, stops, deletions and callbacks that do all that, against a list. */
TEST_F(Timer, FollowsItsModel) {
    test::Random random;
    struct State {
        CL_Object *object;
        int64_t start, interval;
        bool periodic, due;
    };
    std::vector<State> running; /* in order of their start */
    std::vector<CL_Object *> stopped;
    int64_t now = 1000;
    std::ptrdiff_t cursor = -1; /* of the pass */
    const auto find = [&](const CL_Object *object) {
        return std::find_if(running.begin(), running.end(),
                            [=](const State &state) { return state.object == object; });
    };
    Action action;
    const auto stop = [&](CL_Object *object) {
        const auto at = find(object);
        if (at - running.begin() <= cursor) {
            cursor--;
        }
        running.erase(at);
        stopped.push_back(object);
    };
    const auto deed = [&](CL_Object *object) {
        const bool runs = find(object) != running.end();
        if (!runs && std::count(stopped.begin(), stopped.end(), object) == 0) {
            return;
        }
        const uint32_t choice = random.below(4);
        if (choice == 0) {
            ASSERT_EQ(CL_StopTIMER(object, &err), runs ? 1u : 0u);
            if (runs) {
                stop(object);
            }
        } else if (choice == 1) {
            const uint32_t seconds = random.below(6);
            const bool periodic = random.below(2) == 0;
            ASSERT_EQ(CL_StartTIMER(object, seconds,
                                    periodic ? CL_TIMER_PERIODIC : CL_TIMER_ONESHOT, &err),
                      runs ? 0u : 1u);
            if (runs) {
                return;
            }
            std::erase(stopped, object);
            running.push_back({object, now, seconds, periodic, false});
        } else if (choice == 2 && random.below(4) == 0) {
            ASSERT_EQ(CL_DeleteFD(object, &err), 1u);
            if (runs) {
                stop(object);
            }
            std::erase(stopped, object);
            stopped.push_back(timer(&action));
            ASSERT_NE(stopped.back(), nullptr);
        }
    };
    const auto any = [&] {
        const auto i = random.below(static_cast<uint32_t>(running.size() + stopped.size()));
        return i < running.size() ? running[i].object : stopped[i - running.size()];
    };
    int calls = 0;
    uint32_t value = 0;
    action = [&](CL_Object *object, CL_Event *) {
        /* The next due timer of the list. */
        do {
            cursor++;
        } while (cursor < std::ssize(running) && !running[static_cast<std::size_t>(cursor)].due);
        calls++;
        EXPECT_LT(cursor, std::ssize(running));
        if (cursor >= std::ssize(running)) {
            return 1u;
        }
        State state = running[static_cast<std::size_t>(cursor)];
        EXPECT_EQ(object, state.object) << "call " << calls;
        if (!state.periodic) {
            stop(object);
        }
        for (uint32_t i = random.below(3); i > 0; i--) {
            deed(random.below(3) == 0 ? object : any());
        }
        value = random.below(10) == 0 ? 1 + random.below(100) : 0;
        if (state.periodic && value == 0) {
            /* Re-armed unless the callback has stopped it, whatever it did then. */
            const auto at = find(object);
            if (at != running.end() && at - running.begin() == cursor) {
                at->due = false;
                at->start += at->interval;
            }
        }
        return value;
    };
    for (int i = 0; i < 30; i++) {
        stopped.push_back(timer(&action));
    }
    for (int step = 0; step < 3000 && !HasFailure(); step++) {
        for (uint32_t i = random.below(4); i > 0; i--) {
            deed(any());
        }
        now += random.below(4);
        test::set_uptime(now);
        bool due = false;
        for (State &state : running) {
            state.due = state.due || now - state.start >= state.interval;
            due = due || state.due;
        }
        ASSERT_EQ(cl_TimerCheck(random.below(3), &err), due ? 1u : 0u);
        if (!due) {
            continue;
        }
        cursor = -1;
        value = 0;
        const int32_t result = cl_TimerCall(&err);
        ASSERT_EQ(result, static_cast<int32_t>(value));
        if (result == 0) {
            for (auto i = cursor + 1; i < std::ssize(running); i++) {
                ASSERT_FALSE(running[static_cast<std::size_t>(i)].due) << "nobody is forgotten";
            }
        }
        cursor = -1;
        ASSERT_EQ(table().timer_cursor, nullptr);
        ASSERT_EQ(table().timer_list.count, running.size());
        for (const State &state : running) {
            ASSERT_EQ(state.object->start_time, static_cast<uint64_t>(state.start));
            ASSERT_EQ(state.object->interval, state.interval);
        }
        ASSERT_EQ(alarm_handler(), running.empty() ? reinterpret_cast<void *>(SIG_IGN)
                                                   : reinterpret_cast<void *>(cl_sigalm));
    }
    EXPECT_GT(calls, 500);
}

/* The largest number of seconds is not the mark of a timer that is due. */
TEST_F(Timer, MayRunForVeryLong) {
    int calls = 0;
    Action action = [&](CL_Object *, CL_Event *) {
        calls++;
        return 0u;
    };
    CL_Object *longest = timer(&action), *due = timer(&action);
    ASSERT_EQ(CL_StartTIMER(longest, UINT32_MAX, CL_TIMER_PERIODIC, &err), 1u);
    ASSERT_EQ(CL_StartTIMER(due, 0, CL_TIMER_ONESHOT, &err), 1u);
    EXPECT_EQ(cl_TimerCheck(0, &err), 1u);
    EXPECT_EQ(cl_TimerCall(&err), 0);
    EXPECT_EQ(calls, 1) << "nobody else is due";
    test::set_uptime(1000 + long{UINT32_MAX});
    EXPECT_EQ(cl_TimerCheck(1, &err), 1u);
    EXPECT_EQ(cl_TimerCall(&err), 0);
    EXPECT_EQ(calls, 2);
}

TEST(Sleep, GoesOnWithWhatIsLeft) {
    Plan plan{{.call = "nanosleep", .error = EINTR, .times = 2},
              {.call = "nanosleep", .nth = 3, .swallow = true}};
    EXPECT_EQ(CL_Sleep(2500), 0);
    const int64_t expected[] = {2'500, 1'250, 625};
    ASSERT_EQ(test::sleeps().size(), 3u);
    for (std::size_t i = 0; i < 3; i++) {
        const timespec &asked = test::sleeps()[i];
        EXPECT_EQ(asked.tv_sec * 1000 + asked.tv_nsec / 1'000'000, expected[i]);
    }
}

/* The one test that lets time pass. */
TEST(TimerClock, RunsInTheLoop) {
    CL_ErrInfo err;
    ASSERT_EQ(CL_Init(5, nullptr, &err), 1u);
    Action action = [](CL_Object *, CL_Event *) { return 42u; };
    CL_Object *object =
        CL_CreateFD(CL_KIND_TIMER, test::call_action, test::address(&action), 0, &err);
    timespec before;
    timespec after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    ASSERT_EQ(CL_StartTIMER(object, 1, CL_TIMER_ONESHOT, &err), 1u);
    EXPECT_EQ(CL_EventLoop(&err), 42u);
    clock_gettime(CLOCK_MONOTONIC, &after);
    const double seconds = static_cast<double>(after.tv_sec - before.tv_sec) +
                           static_cast<double>(after.tv_nsec - before.tv_nsec) / 1e9;
    EXPECT_GE(seconds, 0.9);
    EXPECT_LT(seconds, 5);
    EXPECT_EQ(alarm_handler(), reinterpret_cast<void *>(SIG_IGN));
}

}  // namespace
