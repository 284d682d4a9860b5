// The loop that threads can wake: that no wake-up is lost, and the signal's handler.
#include <qvcl/loop.h>
#include <qvcl/thread.h>

#include <csignal>
#include <mutex>
#include <thread>

#include "tests/support.h"

using test::Action;
using test::Pipe;
using test::Plan;

namespace {

constexpr uint32_t kStop = 99;

class Threads : public test::Library {
  protected:
    void SetUp() override {
        Library::SetUp();
        ASSERT_EQ(clSIGUSR1Initialize(&err), 1u) << err;
    }
    void TearDown() override { EXPECT_EQ(clSIGUSR1End(), 1u); }

    CL_Object *waker(Action *action) {
        CL_Object *object = create(CL_KIND_THREAD, test::call_action, test::address(action));
        EXPECT_EQ(CL_SetThreadFd(object, &err), 1u) << err;
        EXPECT_EQ(CL_AddEventList(object, 20, &err), 1u) << err;
        return object;
    }
    // The library's handler with its flags.
    static void expect_handler() {
        struct sigaction action = {};
        ASSERT_EQ(sigaction(SIGUSR1, nullptr, &action), 0);
        EXPECT_EQ(action.sa_handler, clSIGUSR1Action);
        EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_SIGINFO | SA_NODEFER),
                  SA_RESTART | SA_SIGINFO);
    }
};

// Producers hand items over in a queue of their own and wake the loop; a wake-up that got lost
// would leave the last items there, and the loop waiting for ever.
TEST_F(Threads, NoWakeUpIsLost) {
    constexpr int kProducers = 4, kItems = 500;
    for (const bool busy : {false, true}) {
        SCOPED_TRACE(busy ? "busy" : "idle");
        const Pipe pipe;
        Action quiet = [](CL_Object *, CL_Event *) { return 0u; };
        if (busy) pipe.fill();
        CL_Object *reader = watch(pipe.out(), &quiet, 20);
        std::mutex mutex;
        std::vector<int> items;
        std::vector<int> next(kProducers, 0);
        int taken = 0;
        Action take = [&](CL_Object *, CL_Event *) {
            const std::lock_guard lock(mutex);
            for (const int item : std::exchange(items, {})) {
                EXPECT_EQ(item % 1000, next[static_cast<std::size_t>(item / 1000)]++);
                ++taken;
            }
            return taken == kProducers * kItems ? kStop : 0u;
        };
        CL_Object *woken = waker(&take);
        sigset_t wake;  // blocked, so that the loop's thread takes what is sent to the process
        sigemptyset(&wake);
        sigaddset(&wake, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &wake, nullptr);
        const pthread_t self = pthread_self();
        std::vector<std::thread> producers;
        for (int producer = 0; producer < kProducers; ++producer) {
            producers.emplace_back([&, producer] {
                for (int i = 0; i < kItems; ++i) {
                    {
                        const std::lock_guard lock(mutex);
                        items.push_back(producer * 1000 + i);
                    }
                    producer % 2 == 0 ? pthread_kill(self, SIGUSR1) : kill(getpid(), SIGUSR1);
                    if (i % 16 == producer) std::this_thread::yield();
                }
            });
        }
        EXPECT_EQ(CL_EventLoopThread(&err), kStop);
        for (std::thread &producer : producers)
            producer.join();
        EXPECT_EQ(taken, kProducers * kItems);
        expect_handler();
        EXPECT_EQ(CL_DeleteFD(woken, &err), 1u);
        EXPECT_EQ(CL_DeleteFD(reader, &err), 1u);
    }
}

TEST_F(Threads, LoopMayRunInAnyThread) {
    Action stop = [](CL_Object *, CL_Event *) { return kStop; };
    waker(&stop);
    uint32_t result = 0;
    std::thread other([&] { result = CL_EventLoopThread(&err); });
    pthread_kill(other.native_handle(), SIGUSR1);
    other.join();
    EXPECT_EQ(result, kStop);
}

void own_handler(int) {}

TEST_F(Threads, HandlerIsInstalledAndRemoved) {
    signal(SIGUSR1, own_handler);
    for (int i = 0; i < 2; ++i) {  // the second finds the library's own handler
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
    for (const uint32_t flag : {0u, 1u, 2u}) {  // the handler writes 1 and nothing else
        CL_MainTable->wake_signal = flag;
        EXPECT_EQ(cl_sigcheckThread(1, &set, &kept, &err), flag == 1 ? 4u : 0u);
        EXPECT_EQ(CL_MainTable->wake_signal, 0u);
    }
    EXPECT_EQ(clSIGUSR1End(), 1u);
    raise(SIGUSR1);
    EXPECT_EQ(CL_MainTable->wake_signal, 0u);
}

}  // namespace
