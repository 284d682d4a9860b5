// The nest: descriptors, timers, and posts from threads.
//
// The floor under one of many descriptors is a bare epoll loop plus one iteration of the library's
// loop with one object: what the nest adds to both is what is asked about. Both watch the same
// descriptors, all idle but one eventfd that stays ready.
#include <ev.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include <qvcl/nest.h>
#include <qvcl/qvcl.h>

#include "bench/support.h"

namespace {

using bench::check;
using bench::Clock;
using bench::Comparison;
using bench::Side;
using bench::Times;

constexpr uint32_t kDone = 1;

CL_ErrInfo err;

void run_loop() {
    check(CL_EventLoop(&err) == kDone, "CL_EventLoop");
}

uint64_t address(void *of) {
    return reinterpret_cast<uint64_t>(of);
}

struct TheNest {
    TheNest() { check(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err) == 1, "CL_CreateNest"); }
    TheNest(const TheNest &) = delete;
    TheNest &operator=(const TheNest &) = delete;
    ~TheNest() { CL_DeleteNest(&err); }
};

// ---------------------------------------------------------------- descriptors

// The last one is ready.
struct Descriptors {
    std::vector<int> all;
    explicit Descriptors(size_t idle) {
        for (size_t i = 0; i <= idle; ++i)
            all.push_back(eventfd(i == idle ? 1 : 0, EFD_NONBLOCK));
        check(all.back() >= 0, "eventfd");
    }
    Descriptors(const Descriptors &) = delete;
    Descriptors &operator=(const Descriptors &) = delete;
    ~Descriptors() {
        for (const int fd : all)
            close(fd);
    }
};

// The nest's epoll descriptor must be below 1024, so it is made before the many are.
struct Watching {
    TheNest nest;
    Descriptors descriptors;
    size_t left = 0;

    explicit Watching(size_t idle) : descriptors(idle) {
        const auto on_ready = [](CL_NestWatch *, uint32_t, uint64_t arg1, uint64_t) {
            return --*reinterpret_cast<size_t *>(arg1) == 0 ? kDone : 0;
        };
        for (const int fd : descriptors.all) {
            check(CL_CreateNestWatch(fd, CL_NEST_READ, 0, on_ready, address(&left), 0, &err) !=
                      nullptr,
                  "CL_CreateNestWatch");
        }
    }
};

// One iteration of the library's loop with one object that is ready, in a process without a nest.
class Iterations {
  public:
    Iterations() {
        check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_) == 0, "socketpair");
        pid_ = fork();
        check(pid_ >= 0, "fork");
        if (pid_ == 0) serve();
        close(ends_[1]);
    }
    Iterations(const Iterations &) = delete;
    Iterations &operator=(const Iterations &) = delete;
    ~Iterations() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    double run(size_t n) const {
        double seconds = 0;
        check(write(ends_[0], &n, sizeof n) == sizeof n &&
                  read(ends_[0], &seconds, sizeof seconds) == sizeof seconds,
              "iterations");
        return seconds;
    }

  private:
    [[noreturn]] void serve() {
        close(ends_[0]);
        check(CL_Init(10, nullptr, nullptr) == 1, "CL_Init");
        size_t left = 0;
        const auto on_ready = [](CL_Object *, CL_Event *, uint64_t arg1, uint64_t) {
            return --*reinterpret_cast<size_t *>(arg1) == 0 ? kDone : 0;
        };
        const int fd = eventfd(1, EFD_NONBLOCK);
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        CL_Object *object = CL_CreateFD(CL_KIND_FD, on_ready, address(&left), 0, &err);
        check(object != nullptr &&
                  CL_SetFD(object, static_cast<uint32_t>(fd) + 1, &set, nullptr, nullptr, &err) ==
                      1 &&
                  CL_AddEventList(object, CL_PRIORITY_FIRST, &err) == 1,
              "listing");
        while (read(ends_[1], &left, sizeof left) == sizeof left) {
            const auto start = Clock::now();
            run_loop();
            const double seconds = bench::since(start);
            check(write(ends_[1], &seconds, sizeof seconds) == sizeof seconds, "write");
        }
        _exit(0);
    }

    pid_t pid_;
    int ends_[2];
};

struct Bare {
    std::shared_ptr<Watching> watching;  // owns the descriptors
    int epoll = epoll_create1(EPOLL_CLOEXEC);
    struct Watched {
        void (*callback)(Watched *self);
        size_t *left;
    };
    std::vector<Watched> watched;
    size_t left = 0;

    explicit Bare(const std::shared_ptr<Watching> &from) : watching(from) {
        const std::vector<int> &descriptors = from->descriptors.all;
        watched.resize(descriptors.size());
        for (size_t i = 0; i < watched.size(); ++i) {
            watched[i] = {[](Watched *self) { --*self->left; }, &left};
            struct epoll_event event = {EPOLLIN, {.ptr = &watched[i]}};
            check(epoll_ctl(epoll, EPOLL_CTL_ADD, descriptors[i], &event) == 0, "epoll_ctl");
        }
    }
    Bare(const Bare &) = delete;
    Bare &operator=(const Bare &) = delete;
    ~Bare() { close(epoll); }

    void iterate(size_t n) {
        left = n;
        while (left != 0) {
            struct epoll_event events[CL_NEST_DEFAULT_MOST];
            const int found = epoll_wait(epoll, events, CL_NEST_DEFAULT_MOST, -1);
            for (int i = 0; i < found; ++i) {
                auto *one = static_cast<Watched *>(events[i].data.ptr);
                one->callback(one);
            }
        }
    }
};

Comparison one_of(size_t idle, const Iterations &iterations) {
    auto watching = std::make_shared<Watching>(idle);
    auto bare = std::make_shared<Bare>(watching);
    return {{bench::local("nest",
                          [watching](size_t n) {
                              watching->left = n;
                              run_loop();
                          }),
             bench::local("epoll", [bare](size_t n) { bare->iterate(n); }),
             {"iteration", [&iterations](size_t n) { return iterations.run(n); }}},
            {{"x (epoll + an iteration)", [](const Times &t) { return t[0] / (t[1] + t[2]); },
              bench::Figure::at_most, 1.5}}};
}

// ---------------------------------------------------------------- timers

constexpr size_t kTimers = 100'000;
constexpr uint64_t kMillisecond = 1'000'000;

enum class Part { start, stop, expire };

// Seconds that one part of the life of all timers takes; what they wait is not measured.
template <class Timers>
Side life_of(const char *name, Part part) {
    auto timers = std::make_shared<Timers>();
    return {name, [timers, part](size_t n) {
                double seconds[3] = {};
                while (n-- != 0) {
                    const auto take = [&](Part which, auto work) {
                        const auto start = Clock::now();
                        work();
                        seconds[static_cast<int>(which)] += bench::since(start);
                    };
                    if (part == Part::expire) {
                        timers->start(1, 16);
                        usleep(20'000);
                        take(Part::expire, [&] { timers->expire(); });
                    } else {
                        take(Part::start, [&] { timers->start(10'000, 60'000); });
                        take(Part::stop, [&] { timers->stop(); });
                    }
                }
                return seconds[static_cast<int>(part)];
            }};
}

// Milliseconds, spread like random ones.
uint64_t spread(size_t i, uint64_t first, uint64_t last) {
    return first + i * 7919 % (last - first);
}

struct NestTimers {
    TheNest nest;
    std::vector<CL_NestTimer *> all;
    size_t left = 0;

    NestTimers() {
        const auto on_time = [](CL_NestTimer *, uint64_t, uint64_t arg1, uint64_t) {
            return --*reinterpret_cast<size_t *>(arg1) == 0 ? kDone : 0;
        };
        for (size_t i = 0; i < kTimers; ++i)
            all.push_back(CL_CreateNestTimer(0, on_time, address(&left), 0, &err));
    }
    void start(uint64_t first, uint64_t last) {
        for (size_t i = 0; i < kTimers; ++i)
            CL_StartNestTimer(all[i], 0, spread(i, first, last) * kMillisecond, 0, &err);
    }
    void stop() {
        for (CL_NestTimer *timer : all)
            CL_StopNestTimer(timer, &err);
    }
    void expire() {
        left = kTimers;
        run_loop();
    }
};

struct UvTimers {
    uv_loop_t loop;
    std::vector<uv_timer_t> all{kTimers};

    UvTimers() {
        uv_loop_init(&loop);
        for (uv_timer_t &timer : all)
            uv_timer_init(&loop, &timer);
    }
    void start(uint64_t first, uint64_t last) {
        uv_update_time(&loop);
        for (size_t i = 0; i < kTimers; ++i) {
            uv_timer_start(
                &all[i], [](uv_timer_t *) {}, spread(i, first, last), 0);
        }
    }
    void stop() {
        for (uv_timer_t &timer : all)
            uv_timer_stop(&timer);
    }
    void expire() { uv_run(&loop, UV_RUN_DEFAULT); }
};

struct EvTimers {
    struct ev_loop *loop = ev_loop_new(EVBACKEND_EPOLL);
    std::vector<ev_timer> all{kTimers};

    EvTimers() {
        for (ev_timer &timer : all)
            ev_init(&timer, [](struct ev_loop *, ev_timer *, int) {});
    }
    void start(uint64_t first, uint64_t last) {
        ev_now_update(loop);
        for (size_t i = 0; i < kTimers; ++i) {
            ev_timer_set(&all[i], static_cast<double>(spread(i, first, last)) * 1e-3, 0.);
            ev_timer_start(loop, &all[i]);
        }
    }
    void stop() {
        for (ev_timer &timer : all)
            ev_timer_stop(loop, &timer);
    }
    void expire() { ev_run(loop, 0); }
};

Comparison timers(Part part) {
    return {{life_of<NestTimers>("nest", part), life_of<UvTimers>("libuv", part),
             life_of<EvTimers>("libev", part)},
            {bench::times_of("libuv"), {"x libev", [](const Times &t) { return t[0] / t[2]; }}}};
}

// ---------------------------------------------------------------- how late

constexpr size_t kTurns = 200;

// When the turns of a timer of a millisecond were called, and how late a quantile of them was.
struct Turns {
    uint64_t first = 0;
    std::vector<double> late;

    bool note() {
        late.push_back(static_cast<double>(CL_NestTime(CL_NEST_MONOTONIC) - first -
                                           late.size() * kMillisecond) /
                       1e9);
        return late.size() == kTurns;
    }
};

Side late(const char *name, double quantile, void (*run)(Turns &turns)) {
    return {name, [=](size_t n) {
                Turns turns;
                turns.first = CL_NestTime(CL_NEST_MONOTONIC) + kMillisecond;
                run(turns);
                return bench::quantile(turns.late, quantile) * static_cast<double>(n);
            }};
}

void nest_late(Turns &turns) {
    const TheNest nest;
    const auto on_time = [](CL_NestTimer *, uint64_t missed, uint64_t arg1, uint64_t) {
        auto *of = reinterpret_cast<Turns *>(arg1);
        for (; missed != 0; --missed)
            if (of->note()) return kDone;
        return of->note() ? kDone : 0;
    };
    CL_NestTimer *timer = CL_CreateNestTimer(0, on_time, address(&turns), 0, &err);
    CL_StartNestTimer(timer, CL_NEST_ABSOLUTE, turns.first, kMillisecond, &err);
    run_loop();
}

void sleep_late(Turns &turns) {
    for (uint64_t at = turns.first;; at += kMillisecond) {
        const struct timespec time = {static_cast<time_t>(at / 1'000'000'000),
                                      static_cast<long>(at % 1'000'000'000)};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
        if (turns.note()) return;
    }
}

void ev_late(Turns &turns) {
    struct ev_loop *loop = ev_loop_new(EVBACKEND_EPOLL);
    ev_timer timer;
    ev_timer_init(
        &timer,
        [](struct ev_loop *of, ev_timer *self, int) {
            if (static_cast<Turns *>(self->data)->note()) ev_break(of, EVBREAK_ALL);
        },
        1e-3, 1e-3);
    timer.data = &turns;
    ev_timer_start(loop, &timer);
    ev_run(loop, 0);
    ev_loop_destroy(loop);
}

Comparison lateness(double quantile) {
    return {{late("nest", quantile, nest_late), late("clock_nanosleep", quantile, sleep_late),
             late("libev", quantile, ev_late)},
            {bench::times_of("clock_nanosleep"),
             {"x libev", [](const Times &t) { return t[0] / t[2]; }}}};
}

// ---------------------------------------------------------------- posts

constexpr size_t kThreads = 4;

// A loop that other threads post to, until it has been called so many times.
struct Loop {
    size_t left = 0;
    std::atomic<bool> answered = true;  // for one post at a time
    double waited = 0;

    Loop() = default;
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;
    virtual ~Loop() = default;
    virtual void post(uint64_t stamp) = 0;
    virtual void run() = 0;

    bool called(uint64_t stamp) {
        if (stamp != 0) {
            waited += static_cast<double>(CL_NestTime(CL_NEST_MONOTONIC) - stamp) * 1e-9;
            answered = true;
        }
        return --left == 0;
    }
};

struct NestLoop : Loop {
    TheNest nest;
    CL_NestPosts *posts;

    explicit NestLoop(uint32_t capacity) : posts(CL_CreateNestPosts(capacity, 0, nullptr, &err)) {}
    void post(uint64_t stamp) override {
        const auto work = [](uint64_t self, uint64_t at) {
            return reinterpret_cast<Loop *>(self)->called(at) ? kDone : 0;
        };
        CL_ErrInfo own;
        while (CL_NestPost(posts, work, address(static_cast<Loop *>(this)), stamp, &own) == 0)
            sched_yield();
    }
    void run() override { run_loop(); }
};

struct UvLoop : Loop {
    uv_loop_t loop;
    uv_async_t async;
    std::mutex mutex;
    std::deque<uint64_t> queue, taken;

    UvLoop() {
        uv_loop_init(&loop);
        async.data = this;
        uv_async_init(&loop, &async,
                      [](uv_async_t *self) { static_cast<UvLoop *>(self->data)->take(); });
    }
    void take() {
        {
            const std::lock_guard lock(mutex);
            std::swap(queue, taken);
        }
        for (; !taken.empty(); taken.pop_front())
            if (called(taken.front())) uv_stop(&loop);
    }
    void post(uint64_t stamp) override {
        {
            const std::lock_guard lock(mutex);
            queue.push_back(stamp);
        }
        uv_async_send(&async);
    }
    void run() override { uv_run(&loop, UV_RUN_DEFAULT); }
};

// Four threads post as fast as they can.
Side rate(const char *name, const std::function<std::shared_ptr<Loop>()> &make) {
    return {name, [make](size_t n) {
                const std::shared_ptr<Loop> loop = make();
                loop->left = n * kThreads;
                std::vector<std::thread> threads;
                const auto start = Clock::now();
                for (size_t i = 0; i < kThreads; ++i) {
                    threads.emplace_back([&loop, n] {
                        for (size_t left = n; left != 0; --left)
                            loop->post(0);
                    });
                }
                loop->run();
                const double seconds = bench::since(start);
                for (std::thread &thread : threads)
                    thread.join();
                check(loop->left == 0, "posts are lost");
                return seconds / kThreads;
            }};
}

// One post at a time, to a loop that surely waits: from the post to the call.
Side latency(const char *name, const std::function<std::shared_ptr<Loop>()> &make) {
    return {name, [make](size_t n) {
                const std::shared_ptr<Loop> loop = make();
                loop->left = n;
                std::thread poster([&loop, n] {
                    bench::pin(bench::processor(1));
                    for (size_t left = n; left != 0; --left) {
                        while (!loop->answered)
                            sched_yield();
                        for (const auto start = Clock::now();
                             Clock::now() - start < std::chrono::microseconds(30);) {
                        }
                        loop->answered = false;
                        loop->post(CL_NestTime(CL_NEST_MONOTONIC));
                    }
                });
                loop->run();
                poster.join();
                return loop->waited;
            }};
}

Comparison posts(Side (*side)(const char *, const std::function<std::shared_ptr<Loop>()> &)) {
    const auto nest = [](uint32_t capacity) {
        return [capacity] { return std::make_shared<NestLoop>(capacity); };
    };
    return {{side("bounded", nest(4096)), side("growing", nest(0)),
             side("libuv", [] { return std::make_shared<UvLoop>(); })},
            {{"bounded x libuv", [](const Times &t) { return t[0] / t[2]; }},
             {"growing x libuv", [](const Times &t) { return t[1] / t[2]; }}},
            20e-3};
}

}  // namespace

int main(int argc, char **argv) {
    const Iterations iterations;
    struct rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    check(CL_Init(10, nullptr, nullptr) == 1, "CL_Init");
    for (const size_t idle : {10u, 1'000u, 10'000u, 18'000u}) {
        bench::compare("one ready of " + std::to_string(idle),
                       [idle, &iterations] { return one_of(idle, iterations); });
    }
    bench::compare(
        "100,000 timers started", [] { return timers(Part::start); }, 15);
    bench::compare(
        "100,000 timers stopped", [] { return timers(Part::stop); }, 15);
    bench::compare(
        "100,000 timers expired", [] { return timers(Part::expire); }, 15);
    bench::compare(
        "late at 1,000 a second, median", [] { return lateness(0.5); }, 7);
    bench::compare(
        "late at 1,000 a second, 99 %", [] { return lateness(0.99); }, 7);
    bench::compare(
        "posts from 4 threads", [] { return posts(rate); }, 31);
    bench::compare(
        "from a post to its call", [] { return posts(latency); }, 31);
    return bench::run(argc, argv);
}
