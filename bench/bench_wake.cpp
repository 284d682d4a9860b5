// Waking a loop from another thread: from the call that wakes until the callback runs.
//
// The floor is a bare pselect loop that a signal with the same kind of handler wakes; libuv's
// uv_async, which writes to an eventfd, stands beside it. Every loop waits on one processor, and
// the thread that wakes it runs on the other.
#include <pthread.h>
#include <sys/select.h>
#include <uv.h>
#include <atomic>
#include <csignal>
#include <memory>
#include <thread>

#include <qvcl/qvcl.h>

#include "bench/support.h"

namespace {

using bench::Clock;

constexpr auto kRest = std::chrono::microseconds(30);  // until a loop surely waits again

// A thread in its loop. Whoever wakes it does so once it is ready and has answered the last time.
class Sleeper {
  public:
    explicit Sleeper(void (*sleep)(Sleeper &)) {
        thread_ = std::thread([this, sleep] {
            bench::pin(bench::processor(1));
            sleep(*this);
        });
        while (!ready_)
            sched_yield();
    }
    Sleeper(const Sleeper &) = delete;
    Sleeper &operator=(const Sleeper &) = delete;
    ~Sleeper() {
        end_ = true;
        wake();
        thread_.join();
    }

    // Seconds from the wake-up to the callback.
    double wake() {
        rest();
        woken_ = Clock::rep{0};
        const auto start = Clock::now();
        ring_();
        while (woken_ == 0)
            sched_yield();
        return std::chrono::duration<double>(Clock::duration(woken_) - start.time_since_epoch())
            .count();
    }

    // For the loop: how it is woken, told just before it waits for the first time.
    void ready(std::function<void()> ring) {
        ring_ = std::move(ring);
        ready_ = true;
    }
    // For its callback: whether the loop is to end.
    bool woken() {
        const bool end = end_;
        woken_ = Clock::now().time_since_epoch().count();
        return end;
    }

  private:
    static void rest() {
        for (const auto start = Clock::now(); Clock::now() - start < kRest;)
            sched_yield();
    }

    std::thread thread_;
    std::function<void()> ring_;
    std::atomic<bool> ready_ = false;
    std::atomic<bool> end_ = false;
    std::atomic<Clock::rep> woken_ = 0;
};

std::function<void()> kill_me(int signal) {
    return [thread = pthread_self(), signal] { pthread_kill(thread, signal); };
}

// ---------------------------------------------------------------- the loops

void library(Sleeper &sleeper) {
    const auto on_wake = [](CL_Object *, CL_Event *, uint64_t arg1, uint64_t) {
        return reinterpret_cast<Sleeper *>(arg1)->woken() ? 1u : 0u;
    };
    CL_ErrInfo err;
    CL_Object *object =
        CL_CreateFD(CL_KIND_THREAD, on_wake, reinterpret_cast<uint64_t>(&sleeper), 0, &err);
    bench::check(object != nullptr && CL_SetThreadFd(object, &err) == 1 &&
                     CL_AddEventList(object, CL_PRIORITY_FIRST, &err) == 1 &&
                     clSIGUSR1Initialize(&err) == 1,
                 "the THREAD object");
    sleeper.ready(kill_me(SIGUSR1));
    bench::check(CL_EventLoopThread(&err) == 1, "CL_EventLoopThread");
    CL_DeleteFD(object, &err);
}

std::atomic<uint32_t> flag = 0;

// SIGUSR1 is the library's here.
void bare(Sleeper &sleeper) {
    struct sigaction action = {};
    action.sa_handler = [](int) { flag = 1; };
    sigaction(SIGUSR2, &action, nullptr);
    sigset_t signals;
    sigset_t saved;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR2);
    sleeper.ready(kill_me(SIGUSR2));
    for (bool end = false; !end;) {
        pthread_sigmask(SIG_BLOCK, &signals, &saved);
        if (flag == 0) pselect(0, nullptr, nullptr, nullptr, nullptr, &saved);
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        if (flag.exchange(0) != 0) end = sleeper.woken();
    }
}

void libuv(Sleeper &sleeper) {
    uv_loop_t loop;
    uv_async_t async;
    uv_loop_init(&loop);
    async.data = &sleeper;
    const auto on_wake = [](uv_async_t *self) {
        if (static_cast<Sleeper *>(self->data)->woken()) {
            uv_close(reinterpret_cast<uv_handle_t *>(self), nullptr);
        }
    };
    uv_async_init(&loop, &async, on_wake);
    sleeper.ready([&async] { uv_async_send(&async); });
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
}

bench::Side side(const char *name, void (*sleep)(Sleeper &)) {
    auto sleeper = std::make_shared<Sleeper>(sleep);
    return {name, [sleeper](size_t n) {
                double seconds = 0;
                while (n-- != 0)
                    seconds += sleeper->wake();
                return seconds;
            }};
}

bench::Comparison wake_up() {
    return {{side("qvcl", library), side("pselect", bare), side("libuv async", libuv)},
            {bench::times_of("pselect"),
             {"x libuv async", [](const bench::Times &t) { return t[0] / t[2]; }}}};
}

}  // namespace

int main(int argc, char **argv) {
    bench::pin(bench::processor(0));
    bench::check(CL_Init(10, nullptr, nullptr) == 1, "CL_Init");
    bench::compare("wake-up from another thread", wake_up);
    return bench::run(argc, argv);
}
