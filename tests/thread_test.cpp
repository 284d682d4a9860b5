/* The loop that threads can wake: that no wake-up is lost, the order of what is pending together,
 * callbacks that change the list they are on, and the signal's handler. */
#include <qvcl/child.h>
#include <qvcl/loop.h>
#include <qvcl/thread.h>
#include <qvcl/timer.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <mutex>
#include <thread>

#include "tests/support.h"

using test::Action;
using test::Balance;
using test::Pipe;
using test::Plan;

namespace {

enum { STOP = 99 };

class Threads : public test::Library {
  protected:
    void SetUp() override {
        Library::SetUp();
        before = Balance::now();
        ASSERT_EQ(clSIGUSR1Initialize(&err), 1u) << err;
    }
    void TearDown() override {
        EXPECT_EQ(clSIGUSR1End(), 1u);
        while (CL_MainTable->used_queue.head != nullptr) {
            auto *object = static_cast<CL_Object *>(CL_MainTable->used_queue.head);
            ASSERT_EQ(CL_DeleteFD(object, &err), 1u) << err;
        }
        EXPECT_EQ(Balance::now(), before);
    }

    /* A listed THREAD object; its callback notes `name` and then does what `action` says. */
    CL_Object *waker(const std::string &name, Action action = nullptr) {
        CL_Object *object = note(CL_KIND_THREAD, name, std::move(action));
        EXPECT_EQ(CL_SetThreadFd(object, &err), 1u) << err;
        EXPECT_EQ(CL_AddEventList(object, 20, &err), 1u) << err;
        return object;
    }
    /* A listed FD object whose pipe is ready. */
    CL_Object *reader(const Pipe &pipe, uint32_t priority, const std::string &name,
                      Action action = nullptr) {
        CL_Object *object = note(CL_KIND_FD, name, std::move(action));
        fd_set set;
        FD_ZERO(&set);
        FD_SET(pipe.out(), &set);
        const auto count = static_cast<uint32_t>(pipe.out()) + 1;
        EXPECT_EQ(CL_SetFD(object, count, &set, nullptr, nullptr, &err), 1u);
        EXPECT_EQ(CL_AddEventList(object, priority, &err), 1u);
        return object;
    }
    CL_Object *note(uint32_t kind, const std::string &name, Action action) {
        actions.push_back([this, name, action = std::move(action)](CL_Object *o, CL_Event *e) {
            told.push_back(name);
            return action ? action(o, e) : 0u;
        });
        return create(kind, test::call_action, test::address(&actions.back()));
    }
    /* A child that has ended, and its listed object. */
    CL_Object *ended_child(const std::string &name, Action action = nullptr) {
        const pid_t pid = fork();
        if (pid == 0) _exit(0);
        siginfo_t info;
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
        CL_Object *child = note(CL_KIND_CHILD, name, std::move(action));
        child->child.pid = static_cast<uint32_t>(pid);
        cl_StatusChange_M(child, CL_STATUS_READY, 0, "test", 1);
        EXPECT_EQ(CL_AddEventList_M(child, 20, &err, 1, "test", 1), 1u) << err;
        return child;
    }
    CL_Object *due_timer(const std::string &name, Action action = nullptr) {
        CL_Object *timer = note(CL_KIND_TIMER, name, std::move(action));
        EXPECT_EQ(CL_StartTIMER(timer, 0, CL_TIMER_ONESHOT, &err), 1u) << err;
        return timer;
    }
    uint32_t loop() { return CL_EventLoopThread(&err); }
    static Action answers(uint32_t value) {
        return [value](CL_Object *, CL_Event *) { return value; };
    }
    static void block(int how) {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        pthread_sigmask(how, &set, nullptr);
    }
    /* The library's handler with its flags. */
    static void expect_handler() {
        struct sigaction action = {};
        ASSERT_EQ(sigaction(SIGUSR1, nullptr, &action), 0);
        EXPECT_EQ(action.sa_handler, clSIGUSR1Action);
        EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_SIGINFO | SA_NODEFER),
                  SA_RESTART | SA_SIGINFO);
    }

    std::deque<Action> actions;
    std::vector<std::string> told;
    Balance before;
};

/* All three that may be pending at one point, at each of the points; and one of them ends the loop:
 * what was pending behind it waits for the next. */
TEST_F(Threads, PendingTogetherAreDispatchedInOrder) {
    enum Point { BEFORE, INTERRUPTED, BETWEEN };
    const std::vector<std::string> order = {"timer", "child", "wake"};
    for (const Point point : {BEFORE, INTERRUPTED, BETWEEN}) {
        for (std::size_t ends = 0; ends <= order.size(); ends++) {
            SCOPED_TRACE(testing::Message() << "point " << point << " ended by " << ends);
            told.clear();
            const Pipe pipe;
            const auto answer = [&](std::size_t index) {
                return answers(index == ends ? 40 + static_cast<uint32_t>(index) : 0);
            };
            CL_Object *timer = nullptr;
            const auto all_at_once = [&] {
                timer = due_timer("timer", answer(0));
                CL_MainTable->timer_signals = 1;
                CL_MainTable->child_signal = 1;
                CL_MainTable->wake_signal = 1;
            };
            CL_Object *child = ended_child("child", answer(1));
            CL_Object *woken = waker("wake", [&](CL_Object *o, CL_Event *e) {
                pipe.fill();
                return answer(2)(o, e);
            });
            bool first_time = true;
            CL_Object *first = reader(pipe, 20, "first", [&](CL_Object *, CL_Event *) {
                if (std::exchange(first_time, false) && point == BETWEEN) all_at_once();
                return 0u;
            });
            CL_Object *last = reader(pipe, 30, "last", answers(STOP));
            CL_MainTable->child_signal = 0; /* the signal that really came is not what counts */
            if (point == BEFORE) all_at_once();
            if (point == BETWEEN) pipe.fill();
            uint32_t result = 0;
            {
                const Plan plan{
                    {.call = "pselect", .error = point == INTERRUPTED ? EINTR : 0, .before = [&] {
                         if (point == INTERRUPTED) all_at_once();
                     }}};
                result = loop();
            }
            const bool ended = ends < order.size();
            EXPECT_EQ(result, ended ? 40 + static_cast<uint32_t>(ends) : uint32_t{STOP});
            std::vector<std::string> expected(
                order.begin(),
                order.begin() + static_cast<std::ptrdiff_t>(std::min(ends + 1, order.size())));
            if (point == BETWEEN) expected.insert(expected.begin(), "first");
            if (!ended && point != BETWEEN) expected.emplace_back("first");
            if (!ended) expected.emplace_back("last");
            EXPECT_EQ(told, expected);
            if (ended) {
                EXPECT_EQ(CL_MainTable->child_signal, ends < 1 ? 1u : 0u);
                EXPECT_EQ(CL_MainTable->wake_signal, ends < 2 ? 1u : 0u);
                told.clear();
                pipe.fill();
                EXPECT_EQ(loop(), uint32_t{STOP});
                expected.assign(order.begin() + static_cast<std::ptrdiff_t>(ends) + 1, order.end());
                expected.insert(expected.end(), {"first", "last"});
                EXPECT_EQ(told, expected) << "nothing is lost";
            }
            for (CL_Object *object : {timer, child, woken, first, last})
                EXPECT_EQ(CL_DeleteFD(object, &err), 1u);
        }
    }
}

/* Producers hand items over in a queue of their own and wake the loop; a wake-up that got lost
 * would leave the last items there, and the loop waiting for ever. */
TEST_F(Threads, NoWakeUpIsLost) {
    constexpr int PRODUCERS = 4, ITEMS = 500;
    for (const bool busy : {false, true}) {
        SCOPED_TRACE(busy ? "busy" : "idle");
        const Pipe pipe;
        if (busy) {
            pipe.fill();
            reader(pipe, 20, "busy");
        }
        std::mutex mutex;
        std::vector<int> items;
        std::vector<int> next(PRODUCERS, 0);
        int taken = 0;
        CL_Object *woken = waker("", [&](CL_Object *, CL_Event *) {
            const std::lock_guard lock(mutex);
            for (const int item : std::exchange(items, {})) {
                EXPECT_EQ(item % 1000, next[static_cast<std::size_t>(item / 1000)]++);
                taken++;
            }
            return taken == PRODUCERS * ITEMS ? uint32_t{STOP} : 0u;
        });
        block(SIG_BLOCK); /* so that the loop's thread takes what is sent to the process */
        const pthread_t self = pthread_self();
        std::vector<std::thread> producers;
        for (int producer = 0; producer < PRODUCERS; producer++) {
            producers.emplace_back([&, producer] {
                for (int i = 0; i < ITEMS; i++) {
                    {
                        const std::lock_guard lock(mutex);
                        items.push_back(producer * 1000 + i);
                    }
                    if (producer % 2 == 0) {
                        pthread_kill(self, SIGUSR1);
                    } else {
                        kill(getpid(), SIGUSR1);
                    }
                    if (i % 16 == producer) std::this_thread::yield();
                }
            });
        }
        EXPECT_EQ(loop(), uint32_t{STOP});
        for (std::thread &producer : producers)
            producer.join();
        EXPECT_EQ(taken, PRODUCERS * ITEMS);
        expect_handler();
        EXPECT_EQ(CL_DeleteFD(woken, &err), 1u);
    }
}

TEST_F(Threads, LoopMayRunInAnyThread) {
    waker("wake", answers(STOP));
    uint32_t result = 0;
    std::thread other([&] { result = loop(); });
    pthread_kill(other.native_handle(), SIGUSR1);
    other.join();
    EXPECT_EQ(result, uint32_t{STOP});
}

/* Four objects; the callback of one of them does something to another, or to itself. Whoever is
 * listed is called, once. */
TEST_F(Threads, CallbacksChangeTheirList) {
    enum Change { UNLIST, DELETE, RELIST, REPLACE, CHANGES };
    constexpr std::size_t COUNT = 4;
    for (const bool crowded : {false, true}) {
        for (int number = 0; number < CHANGES * 16; number++) {
            const auto change = static_cast<Change>(number / 16);
            const std::size_t actor = static_cast<std::size_t>(number) % 4;
            const std::size_t target = static_cast<std::size_t>(number) / 4 % 4;
            SCOPED_TRACE(testing::Message() << "change " << change << " by " << actor << " of "
                                            << target << (crowded ? " crowded" : ""));
            std::vector<CL_Object *> objects(COUNT), fillers;
            std::vector<int> calls(COUNT + 1, 0);
            const auto relist = [&](CL_Object *object) {
                EXPECT_EQ(CL_DelEventList(object, &err), 1u);
                EXPECT_EQ(CL_AddEventList(object, 20, &err), 1u);
            };
            const auto act = [&] {
                CL_Object *&victim = objects[target];
                switch (change) {
                    case UNLIST:
                        EXPECT_EQ(CL_DelEventList(victim, &err), 1u);
                        break;
                    case RELIST:
                        relist(victim);
                        break;
                    case DELETE:
                    case REPLACE:
                        EXPECT_EQ(CL_DeleteFD(victim, &err), 1u);
                        victim = nullptr;
                        if (change == REPLACE) {
                            victim = waker("new", [&](CL_Object *, CL_Event *) {
                                calls[COUNT]++;
                                return 0u;
                            });
                        }
                        break;
                    default:
                        break;
                }
            };
            for (std::size_t i = 0; i < COUNT; i++) {
                objects[i] = waker("", [&, i](CL_Object *, CL_Event *) {
                    if (++calls[i] == 1 && i == actor) act();
                    return 0u;
                });
            }
            while (crowded && CL_MainTable->free_queue.count > 0)
                fillers.push_back(create(CL_KIND_FD)); /* a new object is the one just deleted */
            EXPECT_EQ(cl_ThreadCallBack(&err), 0u) << err;
            for (std::size_t i = 0; i < COUNT; i++) {
                const bool gone = change != RELIST && i == target && i > actor;
                EXPECT_EQ(calls[i], gone ? 0 : 1) << "object " << i;
            }
            EXPECT_LE(calls[COUNT], 1) << "a new one may have to wait for the next wake-up";
            for (CL_Object *object : objects) {
                if (object != nullptr) CL_DeleteFD(object, &err);
            }
            for (CL_Object *object : fillers)
                CL_DeleteFD(object, &err);
            actions.clear();
        }
    }
}

void own_handler(int) {}

TEST_F(Threads, HandlerIsInstalledAndRemoved) {
    signal(SIGUSR1, own_handler);
    for (int i = 0; i < 2; i++) { /* the second finds the library's own handler */
        EXPECT_EQ(clSIGUSR1Initialize(&err), 1u);
        struct sigaction saved = {};
        memcpy(&saved, CL_MainTable->saved_sigusr1, sizeof saved);
        EXPECT_EQ(saved.sa_handler, own_handler);
        expect_handler();
    }
    {
        const Plan plan({.call = "sigaction", .error = EINVAL});
        EXPECT_EQ(clSIGUSR1Initialize(&err), 0u);
        EXPECT_THAT(err, test::FailsWith(EINVAL, CL_MODULE_THREAD));
    }
    sigset_t set, kept;
    sigemptyset(&set);
    for (const uint32_t flag : {0u, 1u, 2u}) { /* the handler writes 1 and nothing else */
        CL_MainTable->wake_signal = flag;
        EXPECT_EQ(cl_sigcheckThread(1, &set, &kept, &err), flag == 1 ? 4u : 0u);
        EXPECT_EQ(CL_MainTable->wake_signal, 0u);
    }
    EXPECT_EQ(clSIGUSR1End(), 1u);
    raise(SIGUSR1);
    EXPECT_EQ(CL_MainTable->wake_signal, 0u);
}

}  // namespace
