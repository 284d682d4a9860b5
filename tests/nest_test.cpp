// The nest against a model of it: random use in every callback, with clocks that the test moves;
// then posts from threads, a year of turns, refusals, and system calls that fail.
#include <fcntl.h>
#include <poll.h>
#include <qvcl/nest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <memory>
#include <thread>

#include "tests/support.h"

using test::address;
using test::Balance;

namespace {

// ---- Clocks that stand until the test moves them

bool standing;
uint64_t now[2];  // CL_NEST_MONOTONIC, CL_NEST_WALL
struct {
    int fd = -1;
    uint64_t at = 0;  // 0: not set
} timerfds[2];
bool wall_was_set;
bool fail_settime;
std::function<void()> on_turn;
std::function<void()> on_cancelled;

void set_really(int fd, long nanoseconds) {
    const struct itimerspec setting = {{}, {0, nanoseconds}};
    EXPECT_EQ(syscall(SYS_timerfd_settime, fd, 0, &setting, nullptr), 0);
}

void ring(int which) {
    set_really(timerfds[which].fd, 1);
    struct pollfd readable = {timerfds[which].fd, POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, -1), 1);
}

void move_clock(int which, uint64_t to) {
    now[which] = to;
    if (timerfds[which].at != 0 && timerfds[which].at <= to) ring(which);
}

void set_wall_clock(uint64_t to) {
    now[CL_NEST_WALL] = to;
    if (timerfds[CL_NEST_WALL].fd == -1) return;
    wall_was_set = true;
    ring(CL_NEST_WALL);
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t id, struct timespec *time) noexcept {
    if (!standing || (id != CLOCK_MONOTONIC && id != CLOCK_REALTIME))
        return static_cast<int>(syscall(SYS_clock_gettime, id, time));
    const uint64_t at = now[id == CLOCK_REALTIME ? CL_NEST_WALL : CL_NEST_MONOTONIC];
    *time = {static_cast<time_t>(at / 1'000'000'000), static_cast<long>(at % 1'000'000'000)};
    return 0;
}

int timerfd_settime(int fd, int flags, const struct itimerspec *setting,
                    struct itimerspec *old) noexcept {
    if (std::exchange(fail_settime, false)) {
        errno = EIO;
        return -1;
    }
    if (!standing) return static_cast<int>(syscall(SYS_timerfd_settime, fd, flags, setting, old));
    const int which = (flags & TFD_TIMER_CANCEL_ON_SET) != 0 ? CL_NEST_WALL : CL_NEST_MONOTONIC;
    const auto at = static_cast<uint64_t>(setting->it_value.tv_sec) * 1'000'000'000 +
                    static_cast<uint64_t>(setting->it_value.tv_nsec);
    timerfds[which] = {fd, at};
    set_really(fd, 0);
    move_clock(which, now[which]);
    if (which != CL_NEST_WALL || at == 0 || !std::exchange(wall_was_set, false)) return 0;
    if (on_cancelled) on_cancelled();
    errno = ECANCELED;
    return -1;
}

int epoll_wait(int epoll, struct epoll_event *events, int most, int timeout) {
    if (on_turn) on_turn();
    return static_cast<int>(syscall(SYS_epoll_pwait, epoll, events, most, timeout, nullptr, 0));
}

}  // extern "C"

namespace {

// ---- The model

constexpr uint32_t kDone = 77;
constexpr int kSignals[] = {SIGUSR2, SIGHUP};

struct Timed {
    CL_NestTimer *handle;
    uint32_t priority;
    bool running = false;
    uint32_t clock = 0;
    uint64_t due = 0, at = 0, period = 0, first = 0, order = 0;
};

struct Watched {
    CL_NestWatch *handle;
    uint32_t priority;
    int ends[2];
    uint32_t events;
    bool readable = false, alone = false;
    uint32_t found = 0;  // what the turn's look has found
    bool owed = false;   // and no change of events has withdrawn
    uint32_t waited = 0;

    uint32_t ready() const {
        return (alone      ? CL_NEST_READ | CL_NEST_WRITE | CL_NEST_HANGUP
                : readable ? CL_NEST_READ | CL_NEST_WRITE
                           : uint32_t{CL_NEST_WRITE});
    }
    static uint32_t told(uint32_t found, uint32_t events) {
        return events == 0 ? 0 : found & (events | CL_NEST_HANGUP);
    }
};

struct Queued {
    CL_NestPosts *handle;
    uint32_t priority;
    size_t capacity;
    std::deque<uint64_t> left;
    uint32_t called = 0, waited = 0;
    bool found = false;
};

struct Hearing {
    CL_NestSignal *handle;
    int signal;
};

template <class Item>
using Items = std::vector<std::unique_ptr<Item>>;

class Model {
  public:
    explicit Model(test::Random &random) : random_(random) {}

    void run(uint32_t turns);

  private:
    enum class Phase { timers, ready, over };

    void begin();
    void end_turn();
    uint32_t act();
    void act_on_timer();
    void act_on_watch();
    void act_on_queue();
    void act_on_signal();
    void start(Timed &timer);
    void post(Queued &queue);
    void forget();
    void end_nest();

    bool before(const Timed &a, const Timed &b) const;
    Timed *due() const;
    void enter_ready(uint32_t priority);
    uint32_t on_timer(Timed &timer, uint64_t missed);
    uint32_t on_watch(Watched &watch, uint32_t ready);
    uint32_t on_post(Queued &queue, uint64_t number);
    uint32_t on_signal(const Hearing &watcher, int signal);
    uint32_t drive();
    void follow_clock();

    template <class Item>
    Item &any(Items<Item> &items) {
        return *items[below(items.size())];
    }
    template <class Item>
    void drop(Items<Item> &items, const Item &item) {
        std::erase_if(items, [&](const auto &one) { return one.get() == &item; });
    }
    uint32_t below(size_t bound) { return random_.below(static_cast<uint32_t>(bound)); }
    bool once_in(uint32_t n) { return below(n) == 0; }
    // How many turns a ready descriptor may have to wait.
    uint32_t patience() const {
        return most_ == CL_NEST_DEFAULT_MOST
                   ? 0
                   : 2 * (static_cast<uint32_t>(watches_.size() + queues_.size() + 4) / most_ + 2);
    }

    test::Random &random_;
    CL_ErrInfo err_{};
    uint32_t turns_left_ = 0;
    uint32_t most_ = 0;
    Items<Timed> timers_;
    Items<Watched> watches_;
    Items<Queued> queues_;
    Items<Hearing> hearing_;
    std::vector<const Hearing *> to_hear_;
    bool pending_[2] = {};
    uint32_t seen_ = 0;  // signals delivered
    uint64_t orders_ = 0, numbers_ = 0;

    Phase phase_ = Phase::over;
    uint32_t timers_called_ = 0;
    uint32_t last_priority_ = 0;
    uint32_t ended_ = 0;  // value that ends the loop
    bool ran_[2] = {};    // a timer was running on that clock when the turn began
    int driver_ = -1;
};

Model *model;

bool Model::before(const Timed &a, const Timed &b) const {
    const auto key = [](const Timed &timer) {
        return std::tuple(timer.at - now[timer.clock], timer.priority, timer.order);
    };
    return static_cast<int64_t>(std::get<0>(key(a))) != static_cast<int64_t>(std::get<0>(key(b)))
               ? static_cast<int64_t>(std::get<0>(key(a))) <
                     static_cast<int64_t>(std::get<0>(key(b)))
               : key(a) < key(b);
}

Timed *Model::due() const {
    Timed *first = nullptr;
    for (const auto &timer : timers_) {
        if (ran_[timer->clock] && timer->running && timer->at <= now[timer->clock] &&
            (first == nullptr || before(*timer, *first)))
            first = timer.get();
    }
    return first;
}

uint32_t Model::on_timer(Timed &timer, uint64_t missed) {
    EXPECT_EQ(phase_, Phase::timers);
    EXPECT_EQ(&timer, due());
    EXPECT_LE(++timers_called_, most_);
    if (timer.period == 0) {
        timer.running = false;
        EXPECT_EQ(missed, 0u);
    } else {
        uint64_t turns = 0;
        for (; timer.due <= now[timer.clock]; ++turns)
            timer.due += timer.period;
        EXPECT_EQ(missed, turns - 1);
        timer.at = timer.due;
    }
    return act();
}

// The first callback of something that is ready: no timer is left, unless they are too many.
void Model::enter_ready(uint32_t priority) {
    if (phase_ == Phase::timers) {
        EXPECT_TRUE(timers_called_ == most_ || due() == nullptr);
        phase_ = Phase::ready;
    }
    EXPECT_EQ(phase_, Phase::ready);
    EXPECT_GE(priority, last_priority_);
    last_priority_ = priority;
}

uint32_t Model::on_watch(Watched &watch, uint32_t ready) {
    enter_ready(watch.priority);
    EXPECT_EQ(ready, Watched::told(watch.found, watch.events));
    EXPECT_NE(ready, 0u);
    watch.owed = false;
    watch.found = 0;
    return act();
}

uint32_t Model::on_post(Queued &queue, uint64_t number) {
    enter_ready(queue.priority);
    EXPECT_LE(++queue.called, most_);
    if (queue.left.empty()) {
        ADD_FAILURE() << "a post comes twice";
        return kDone;
    }
    EXPECT_EQ(number, queue.left.front());
    queue.left.pop_front();
    return act();
}

// All watchers that were there when the first one hears hear it, in the order of their creation.
uint32_t Model::on_signal(const Hearing &watcher, int signal) {
    const size_t which = signal == kSignals[0] ? 0 : 1;
    if (to_hear_.empty()) {
        enter_ready(0);
        EXPECT_TRUE(std::exchange(pending_[which], false));
        for (const auto &one : hearing_)
            if (one->signal == signal) to_hear_.push_back(one.get());
        ++seen_;
    }
    EXPECT_EQ(&watcher, to_hear_.front());
    to_hear_.erase(to_hear_.begin());
    const uint32_t before = ended_;
    const uint32_t result = act();
    return before != 0 ? ended_ = before, result : result;
}

// ---- What callbacks do

void Model::start(Timed &timer) {
    const uint32_t clock = below(2);
    const bool absolute = once_in(2);
    const uint64_t delay = once_in(4) ? 0 : below(300);
    const uint64_t due = absolute ? now[clock] + delay - below(100) : now[clock] + delay;
    const uint64_t period = once_in(2) ? 0 : 1 + below(120);
    fail_settime = once_in(20);
    const uint32_t done =
        CL_StartNestTimer(timer.handle, clock | (absolute ? uint32_t{CL_NEST_ABSOLUTE} : 0),
                          absolute ? due : delay, period, &err_);
    fail_settime = false;
    if (done == 0) {
        EXPECT_EQ(err_.err, static_cast<uint32_t>(EIO)) << err_;
        return;
    }
    uint64_t at = std::max(due, now[clock]);
    if (phase_ == Phase::timers && ran_[clock]) at = std::max(at, now[clock] + 1);
    timer = {timer.handle, timer.priority, true, clock, due, at, period, due, ++orders_};
}

void Model::act_on_timer() {
    if (timers_.size() < 3 || (timers_.size() < 40 && once_in(3))) {
        auto timer = std::make_unique<Timed>();
        timer->priority = below(3);
        const auto callback = [](CL_NestTimer *handle, uint64_t missed, uint64_t self, uint64_t) {
            auto *timed = reinterpret_cast<Timed *>(self);
            EXPECT_EQ(handle, timed->handle);
            return model->on_timer(*timed, missed);
        };
        timer->handle =
            CL_CreateNestTimer(timer->priority, callback, address(timer.get()), 0, &err_);
        ASSERT_NE(timer->handle, nullptr) << err_;
        start(*timer);
        timers_.push_back(std::move(timer));
        return;
    }
    Timed &timer = any(timers_);
    switch (below(6)) {
        case 0:
            EXPECT_EQ(CL_DeleteNestTimer(timer.handle, &err_), 1u) << err_;
            return drop(timers_, timer);
        case 1:
            EXPECT_EQ(CL_StopNestTimer(timer.handle, &err_), 1u) << err_;
            timer.running = false;
            return;
        default:
            start(timer);
    }
}

void Model::act_on_watch() {
    if (watches_.size() < 2 || (watches_.size() < 12 && once_in(4))) {
        auto watch = std::make_unique<Watched>();
        watch->priority = 1 + below(5);
        watch->events = below(8);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, watch->ends), 0);
        const auto callback = [](CL_NestWatch *, uint32_t ready, uint64_t self, uint64_t) {
            return model->on_watch(*reinterpret_cast<Watched *>(self), ready);
        };
        watch->handle = CL_CreateNestWatch(watch->ends[0], watch->events, watch->priority, callback,
                                           address(watch.get()), 0, &err_);
        ASSERT_NE(watch->handle, nullptr) << err_;
        watches_.push_back(std::move(watch));
        return;
    }
    Watched &watch = any(watches_);
    char byte = 'x';
    switch (below(6)) {
        case 0:
            EXPECT_EQ(CL_DeleteNestWatch(watch.handle, &err_), 1u) << err_;
            close(watch.ends[0]);
            if (!watch.alone) close(watch.ends[1]);
            return drop(watches_, watch);
        case 1:
            if (!watch.alone) close(watch.ends[1]);
            watch.alone = true;
            return;
        case 2:
        case 3:
            if (watch.readable) {
                EXPECT_EQ(read(watch.ends[0], &byte, 1), 1);
            } else if (!watch.alone) {
                EXPECT_EQ(write(watch.ends[1], &byte, 1), 1);
            }
            watch.readable = !watch.readable && !watch.alone;
            return;
        default:
            watch.events = below(8);
            EXPECT_EQ(CL_ChangeNestWatch(watch.handle, watch.events, &err_), 1u) << err_;
            watch.owed = watch.owed && Watched::told(watch.found, watch.events) != 0;
    }
}

void Model::post(Queued &queue) {
    const auto work = [](uint64_t self, uint64_t number) {
        return model->on_post(*reinterpret_cast<Queued *>(self), number);
    };
    const uint64_t number = ++numbers_;
    const bool full = queue.capacity != 0 && queue.left.size() == queue.capacity;
    EXPECT_EQ(CL_NestPost(queue.handle, work, address(&queue), number, &err_), full ? 0u : 1u);
    EXPECT_EQ(err_.err, full ? static_cast<uint32_t>(EAGAIN) : 0u);
    if (!full) queue.left.push_back(number);
}

void Model::act_on_queue() {
    if (queues_.empty() || (queues_.size() < 4 && once_in(4))) {
        auto queue = std::make_unique<Queued>();
        queue->priority = 1 + below(5);
        queue->capacity = once_in(2) ? 0 : 2u << below(3);
        const auto dropped = [](CL_NestWork, uint64_t self, uint64_t number) {
            auto &left = reinterpret_cast<Queued *>(self)->left;
            EXPECT_EQ(number, left.front());
            left.pop_front();
        };
        queue->handle = CL_CreateNestPosts(static_cast<uint32_t>(queue->capacity), queue->priority,
                                           dropped, &err_);
        ASSERT_NE(queue->handle, nullptr) << err_;
        queues_.push_back(std::move(queue));
    }
    Queued &queue = any(queues_);
    if (!once_in(8)) return post(queue);
    const uint64_t expected = queue.left.size();
    uint64_t left = UINT64_MAX;
    EXPECT_EQ(CL_DeleteNestPosts(queue.handle, &left, &err_), 1u) << err_;
    EXPECT_EQ(left, expected);
    EXPECT_TRUE(queue.left.empty());
    drop(queues_, queue);
}

void Model::act_on_signal() {
    const size_t which = below(2);
    const int signal = kSignals[which];
    const auto count = [&] {
        return std::count_if(hearing_.begin(), hearing_.end(),
                             [&](const auto &one) { return one->signal == signal; });
    };
    if (hearing_.size() < 5 && once_in(3)) {
        auto watcher = std::make_unique<Hearing>();
        watcher->signal = signal;
        const auto callback = [](CL_NestSignal *, const struct signalfd_siginfo *info,
                                 uint64_t self, uint64_t) {
            EXPECT_EQ(info->ssi_pid, static_cast<uint32_t>(getpid()));
            return model->on_signal(*reinterpret_cast<Hearing *>(self),
                                    static_cast<int>(info->ssi_signo));
        };
        watcher->handle = CL_CreateNestSignal(signal, callback, address(watcher.get()), 0, &err_);
        ASSERT_NE(watcher->handle, nullptr) << err_;
        hearing_.push_back(std::move(watcher));
    } else if (!hearing_.empty() && once_in(3)) {
        Hearing &watcher = any(hearing_);
        EXPECT_EQ(CL_DeleteNestSignal(watcher.handle, &err_), 1u) << err_;
        std::erase(to_hear_, &watcher);
        const size_t its = watcher.signal == kSignals[0] ? 0 : 1;
        const int gone = watcher.signal;
        drop(hearing_, watcher);
        if (std::none_of(hearing_.begin(), hearing_.end(),
                         [&](const auto &one) { return one->signal == gone; }))
            pending_[its] = false;
    } else {
        raise(signal);
        pending_[which] = count() != 0;
    }
}

// The model has no longer what the nest has no longer.
void Model::forget() {
    for (const auto &watch : watches_) {
        close(watch->ends[0]);
        if (!watch->alone) close(watch->ends[1]);
    }
    close(driver_);
    timers_.clear();
    watches_.clear();
    queues_.clear();
    hearing_.clear();
    to_hear_.clear();
    pending_[0] = pending_[1] = false;
    timerfds[0] = timerfds[1] = {};
    wall_was_set = false;
    phase_ = Phase::over;
}

void Model::end_nest() {
    EXPECT_EQ(CL_DeleteNest(&err_), 1u) << err_;
    for (const auto &queue : queues_)
        EXPECT_TRUE(queue->left.empty()) << "posts are lost";
    forget();
}

uint32_t Model::act() {
    for (uint32_t n = below(3); n != 0; --n) {
        void (Model::*const kinds[])() = {&Model::act_on_timer, &Model::act_on_timer,
                                          &Model::act_on_watch, &Model::act_on_queue,
                                          &Model::act_on_signal};
        (this->*kinds[below(std::size(kinds))])();
    }
    if (once_in(400)) {
        end_nest();
        begin();
    }
    if (!once_in(60)) return 0;
    if (to_hear_.empty()) phase_ = Phase::over;
    return ended_ = 1000 + below(1000);
}

// ---- Turns

void Model::begin() {
    most_ = once_in(2) ? uint32_t{CL_NEST_DEFAULT_MOST} : 1 + below(5);
    ASSERT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, most_, &err_), 1u) << err_;
    driver_ = eventfd(1, 0);
    const auto callback = [](CL_NestWatch *, uint32_t, uint64_t, uint64_t) {
        return model->drive();
    };
    ASSERT_NE(CL_CreateNestWatch(driver_, CL_NEST_READ, 1000, callback, 0, 0, &err_), nullptr);
    act_on_timer();
}

uint32_t Model::drive() {
    enter_ready(1000);
    if (--turns_left_ == 0) return ended_ = kDone;
    if (once_in(20)) {
        set_wall_clock(now[CL_NEST_WALL] - 400 + below(1000));
    } else if (once_in(2)) {
        const uint32_t step = once_in(10) ? 1000 : below(50);
        move_clock(CL_NEST_MONOTONIC, now[CL_NEST_MONOTONIC] + step);
        move_clock(CL_NEST_WALL, now[CL_NEST_WALL] + step);
    }
    return act();
}

void Model::follow_clock() {
    for (const auto &timer : timers_) {
        if (!timer->running || timer->clock != CL_NEST_WALL) continue;
        while (timer->period != 0 && timer->due > now[CL_NEST_WALL] + timer->period &&
               timer->due >= timer->first + timer->period)
            timer->due -= timer->period;
        timer->at = timer->due;
    }
}

void Model::end_turn() {
    EXPECT_TRUE(to_hear_.empty());
    for (const auto &watch : watches_) {
        watch->waited = phase_ != Phase::over && watch->owed ? watch->waited + 1 : 0;
        EXPECT_LE(watch->waited, patience());
        watch->found = Watched::told(watch->ready(), watch->events);
        watch->owed = watch->found != 0;
    }
    for (const auto &queue : queues_) {
        const bool passed_over = phase_ != Phase::over && queue->found && queue->called == 0;
        queue->waited = passed_over ? queue->waited + 1 : 0;
        EXPECT_LE(queue->waited, patience());
        queue->found = !queue->left.empty();
        queue->called = 0;
    }
    for (uint32_t clock = 0; clock < 2; ++clock) {
        ran_[clock] = std::any_of(timers_.begin(), timers_.end(), [=](const auto &timer) {
            return timer->running && timer->clock == clock;
        });
    }
    phase_ = Phase::timers;
    timers_called_ = 0;
    last_priority_ = 0;
    ended_ = 0;
}

void Model::run(uint32_t turns) {
    turns_left_ = turns;
    on_turn = [this] { end_turn(); };
    on_cancelled = [this] { follow_clock(); };
    begin();
    while (!testing::Test::HasFailure()) {
        const uint32_t result = CL_EventLoop(&err_);
        EXPECT_EQ(result, ended_) << err_;
        if (result == kDone) break;
        phase_ = Phase::over;
    }
    end_nest();
    on_turn = on_cancelled = nullptr;
    EXPECT_GT(seen_, 0u);
}

class Nest : public test::Library {
  protected:
    ~Nest() override { standing = false; }
};

TEST_F(Nest, DoesWhatItsModelSays) {
    test::Random random;
    const Balance before = Balance::now();
    standing = true;
    now[CL_NEST_MONOTONIC] = 100'000;
    now[CL_NEST_WALL] = 1'000'000;
    Model one(random);
    model = &one;
    one.run(10'000);
    EXPECT_EQ(Balance::now(), before);
}

// ---- What the model leaves out

// A wall clock that is set back to before a timer which was past already when it started.
TEST_F(Nest, ClockIsSetBackToTheBeginning) {
    standing = true;
    now[CL_NEST_WALL] = 1'000'000;
    ASSERT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err), 1u) << err;
    const auto end = [](CL_NestTimer *, uint64_t, uint64_t, uint64_t) { return kDone; };
    CL_NestTimer *timer = CL_CreateNestTimer(0, end, 0, 0, &err);
    ASSERT_EQ(CL_StartNestTimer(timer, CL_NEST_WALL | CL_NEST_ABSOLUTE, 0, 0, &err), 1u) << err;
    set_wall_clock(500);
    EXPECT_EQ(CL_EventLoop(&err), kDone) << err;
    EXPECT_EQ(CL_DeleteNest(&err), 1u) << err;
}

// Four threads post to a bounded queue and to a growing one.
TEST_F(Nest, ThreadsPost) {
    constexpr uint64_t kThreads = 4, kEach = 20'000;
    ASSERT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err), 1u) << err;
    CL_NestPosts *queues[] = {CL_CreateNestPosts(64, 0, nullptr, &err),
                              CL_CreateNestPosts(0, 1, nullptr, &err)};
    static uint64_t next[2][kThreads], called;
    const auto work = [](uint64_t which, uint64_t number) {
        uint64_t &expected = next[which % 2][which / 2];
        EXPECT_EQ(number, expected);
        expected = number + 1;
        return ++called == 2 * kThreads * kEach ? kDone : 0;
    };
    std::vector<std::thread> threads;
    for (uint64_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            CL_ErrInfo own;
            for (uint64_t number = 0; number < kEach; ++number) {
                for (const uint64_t queue : {UINT64_C(0), UINT64_C(1)}) {
                    while (CL_NestPost(queues[queue], work, 2 * i + queue, number, &own) == 0) {
                        EXPECT_EQ(own.err, static_cast<uint32_t>(EAGAIN));
                        std::this_thread::yield();
                    }
                }
            }
        });
    }
    EXPECT_EQ(CL_EventLoop(&err), kDone) << err;
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(CL_DeleteNest(&err), 1u) << err;
}

// Two posts that come when the loop has found the queue empty, and before it says so: their thread
// believes it awake, and the turn ends between them.
TEST_F(Nest, PostsAreNotForgottenAtTheLastMoment) {
    ASSERT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, 1, &err), 1u) << err;
    CL_NestPosts *queue = CL_CreateNestPosts(0, 0, nullptr, &err);
    static int called;
    const auto post = [&] {
        const auto work = [](uint64_t, uint64_t) { return ++called == 3 ? kDone : 0; };
        EXPECT_EQ(CL_NestPost(queue, work, 0, 0, &err), 1u) << err;
    };
    post();
    const test::Plan plan({.call = "read", .before = [&] { post(), post(); }});
    EXPECT_EQ(CL_EventLoop(&err), kDone) << err;
    EXPECT_EQ(CL_DeleteNest(&err), 1u) << err;
}

// Descriptors that are closed before their watch is deleted: of one a duplicate stays open, and the
// number goes to another pipe, whose watch must be told, and no other one.
TEST_F(Nest, ClosedFirst) {
    const Balance before = Balance::now();
    ASSERT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err), 1u) << err;
    int first[2], second[2];
    ASSERT_EQ(pipe(first), 0);
    const auto told = [](CL_NestWatch *, uint32_t, uint64_t value, uint64_t) {
        return static_cast<uint32_t>(value);
    };
    CL_NestWatch *stale = CL_CreateNestWatch(first[0], CL_NEST_READ, 0, told, 1, 0, &err);
    const int duplicate = dup(first[0]);
    close(first[0]);
    ASSERT_EQ(pipe(second), 0);
    ASSERT_EQ(second[0], first[0]);
    EXPECT_EQ(CL_ChangeNestWatch(stale, CL_NEST_WRITE, &err), 0u);
    EXPECT_EQ(err.err, static_cast<uint32_t>(ENOENT));
    CL_NestWatch *watch = CL_CreateNestWatch(second[0], CL_NEST_READ, 0, told, 2, 0, &err);
    ASSERT_NE(watch, nullptr) << err;
    EXPECT_EQ(CL_ChangeNestWatch(stale, CL_NEST_WRITE, &err), 0u);
    EXPECT_EQ(err.err, static_cast<uint32_t>(EEXIST));
    EXPECT_EQ(CL_DeleteNestWatch(stale, &err), 1u) << err;
    ASSERT_EQ(write(first[1], "x", 1), 1);
    int turns = 0;
    on_turn = [&] { ++turns; };
    CL_NestTimer *timer = CL_CreateNestTimer(
        0, [](CL_NestTimer *, uint64_t, uint64_t, uint64_t) { return 3u; }, 0, 0, &err);
    ASSERT_EQ(CL_StartNestTimer(timer, CL_NEST_MONOTONIC, 20'000'000, 0, &err), 1u) << err;
    EXPECT_EQ(CL_EventLoop(&err), 3u) << err;
    EXPECT_LE(turns, 3) << "the file that nobody watches keeps the loop awake";
    EXPECT_EQ(write(second[1], "x", 1), 1);
    EXPECT_EQ(CL_EventLoop(&err), 2u) << err;
    on_turn = nullptr;
    EXPECT_EQ(CL_DeleteNest(&err), 1u) << err;
    for (const int fd : {duplicate, first[1], second[0], second[1]})
        close(fd);
    EXPECT_EQ(Balance::now(), before);
}

// Children that exit and are killed, one that was reaped before, and one of a child's.
TEST_F(Nest, Processes) {
    ASSERT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err), 1u) << err;
    static std::vector<std::tuple<pid_t, uint32_t, uint32_t>> ends;
    const auto ended = [](CL_NestProcess *process, const CL_NestExit *end, uint64_t, uint64_t) {
        CL_ErrInfo own;
        ends.emplace_back(end->pid, end->reason, end->value);
        EXPECT_EQ(CL_DeleteNestProcess(process, &own), 1u) << own;
        return ends.size() == 3 ? kDone : 0;
    };
    std::vector<pid_t> children;
    for (int i = 0; i < 3; ++i) {
        children.push_back(fork());
        if (children.back() == 0) {
            if (i == 1) pause();
            _exit(3);
        }
        ASSERT_NE(
            CL_CreateNestProcess(children.back(), static_cast<uint32_t>(i), ended, 0, 0, &err),
            nullptr)
            << err;
    }
    kill(children[1], SIGTERM);
    EXPECT_EQ(waitpid(children[2], nullptr, 0), children[2]);
    EXPECT_EQ(CL_EventLoop(&err), kDone) << err;
    EXPECT_THAT(ends, testing::UnorderedElementsAre(
                          std::tuple(children[0], uint32_t{CL_CHILD_EXITED}, 3u),
                          std::tuple(children[1], uint32_t{CL_CHILD_KILLED}, uint32_t{SIGTERM}),
                          std::tuple(children[2], 0u, 0u)));
    EXPECT_EQ(CL_DeleteNest(&err), 1u) << err;
}

// ---- Refusals

struct Refusal {
    const char *what;
    int code;
    std::function<bool()> call;
};

uint32_t on_timer(CL_NestTimer *, uint64_t, uint64_t, uint64_t) {
    return 0;
}
uint32_t on_watch(CL_NestWatch *, uint32_t, uint64_t, uint64_t) {
    return 0;
}
uint32_t on_work(uint64_t, uint64_t) {
    return 0;
}
uint32_t on_signal(CL_NestSignal *, const struct signalfd_siginfo *, uint64_t, uint64_t) {
    return 0;
}
uint32_t on_end(CL_NestProcess *, const CL_NestExit *, uint64_t, uint64_t) {
    return 0;
}

class NestRefuses : public Nest {
  protected:
    // Every one fails with its code, and leaves all as it is.
    void all_fail(const std::vector<Refusal> &refusals) {
        for (const Refusal &refusal : refusals) {
            const Balance before = Balance::now();
            EXPECT_FALSE(refusal.call()) << refusal.what;
            EXPECT_EQ(err.err, static_cast<uint32_t>(refusal.code)) << refusal.what << ' ' << err;
            EXPECT_EQ(Balance::now(), before) << refusal.what;
        }
    }
    // The operations that need what the code says is missing.
    std::vector<Refusal> creations(int code) {
        return {
            {"timer", code, [&] { return CL_CreateNestTimer(0, on_timer, 0, 0, &err) != nullptr; }},
            {"watch", code, [&] { return create_watch(ends[0]) != nullptr; }},
            {"posts", code, [&] { return CL_CreateNestPosts(4, 0, nullptr, &err) != nullptr; }},
            {"signal", code,
             [&] { return CL_CreateNestSignal(SIGUSR2, on_signal, 0, 0, &err) != nullptr; }},
            {"process", code,
             [&] { return CL_CreateNestProcess(getpid(), 0, on_end, 0, 0, &err) != nullptr; }},
        };
    }
    template <class Public>
    static Public *as(void *handle) {
        return static_cast<Public *>(handle);
    }
    std::vector<Refusal> uses(int code, void *handle) {
        return {
            {"start", code,
             [=, this] { return CL_StartNestTimer(as<CL_NestTimer>(handle), 0, 1, 0, &err); }},
            {"stop", code, [=, this] { return CL_StopNestTimer(as<CL_NestTimer>(handle), &err); }},
            {"delete timer", code,
             [=, this] { return CL_DeleteNestTimer(as<CL_NestTimer>(handle), &err); }},
            {"change", code,
             [=, this] { return CL_ChangeNestWatch(as<CL_NestWatch>(handle), 1, &err); }},
            {"delete watch", code,
             [=, this] { return CL_DeleteNestWatch(as<CL_NestWatch>(handle), &err); }},
            {"delete posts", code,
             [=, this] { return CL_DeleteNestPosts(as<CL_NestPosts>(handle), nullptr, &err); }},
            {"delete signal", code,
             [=, this] { return CL_DeleteNestSignal(as<CL_NestSignal>(handle), &err); }},
            {"delete process", code,
             [=, this] { return CL_DeleteNestProcess(as<CL_NestProcess>(handle), &err); }},
        };
    }
    CL_NestWatch *create_watch(int fd, uint32_t events = CL_NEST_READ) {
        return CL_CreateNestWatch(fd, events, 0, on_watch, 0, 0, &err);
    }

    test::Pipe pipe;
    int ends[2] = {pipe.out(), pipe.in()};
};

TEST_F(NestRefuses, WithoutNestAndStaleHandles) {
    all_fail(creations(CL_ERR_STATE));
    all_fail(uses(CL_ERR_STATE, &err));
    all_fail({{"delete", CL_ERR_STATE, [&] { return CL_DeleteNest(&err); }},
              {"most", EINVAL,
               [&] { return CL_CreateNest(CL_PRIORITY_FIRST, CL_NEST_LIMIT_MOST + 1, &err); }},
              {"priority", EINVAL, [&] { return CL_CreateNest(CL_PRIORITY_LAST + 1, 0, &err); }}});
    ASSERT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err), 1u) << err;
    CL_NestTimer *timer = CL_CreateNestTimer(0, on_timer, 0, 0, &err);
    ASSERT_EQ(CL_DeleteNestTimer(timer, &err), 1u) << err;
    for (void *wrong : {static_cast<void *>(&err), static_cast<void *>(timer),
                        static_cast<void *>(reinterpret_cast<char *>(timer) + 1)})
        all_fail(uses(EBADF, wrong));
    EXPECT_EQ(CL_End(&err), 1u) << err;
    all_fail(creations(CL_ERR_STATE));
    all_fail({{"after the end", CL_ERR_STATE,
               [&] { return CL_CreateNest(CL_PRIORITY_FIRST, 0, &err); }}});
    EXPECT_EQ(CL_DeleteNest(&err), 1u) << err;
}

TEST_F(NestRefuses, WrongArguments) {
    const int nest = dup(ends[0]);  // the number that its epoll descriptor will have
    close(nest);
    ASSERT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err), 1u) << err;
    CL_NestTimer *timer = CL_CreateNestTimer(0, on_timer, 0, 0, &err);
    CL_NestWatch *watch = create_watch(ends[0]);
    CL_NestPosts *posts = CL_CreateNestPosts(2, 0, nullptr, &err);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(CL_NestPost(posts, on_work, 0, 0, &err), 1u) << err;
    const int around = epoll_create1(EPOLL_CLOEXEC);
    struct epoll_event readable = {EPOLLIN, {}};
    ASSERT_EQ(epoll_ctl(around, EPOLL_CTL_ADD, nest, &readable), 0);
    const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    const auto start = [&](uint32_t mode, uint64_t due, uint64_t period) {
        return [=, this] { return CL_StartNestTimer(timer, mode, due, period, &err); };
    };
    const auto hear = [&](int signal) {
        return [=, this] { return CL_CreateNestSignal(signal, on_signal, 0, 0, &err) != nullptr; };
    };
    const auto wait_for = [&](pid_t pid) {
        return [=, this] { return CL_CreateNestProcess(pid, 0, on_end, 0, 0, &err) != nullptr; };
    };
    const auto watches = [&](int fd, uint32_t events) {
        return [=, this] { return create_watch(fd, events) != nullptr; };
    };
    ASSERT_EQ(start(0, INT64_MAX / 2, 0)(), 1u) << err;
    EXPECT_TRUE(hear(SIGUSR1)());
    ASSERT_EQ(clSIGUSR1Initialize(&err), 1u) << err;
    all_fail({
        {"second", EALREADY, [&] { return CL_CreateNest(CL_PRIORITY_FIRST, 0, &err); }},
        {"timer", EFAULT, [&] { return CL_CreateNestTimer(0, nullptr, 0, 0, &err) != nullptr; }},
        {"mode", EINVAL, start(4, 1, 0)},
        {"due", EINVAL, start(CL_NEST_ABSOLUTE, UINT64_C(1) << 63, 0)},
        {"due from now", EINVAL, start(0, INT64_MAX, 0)},
        {"period", EINVAL, start(0, 1, UINT64_C(1) << 63)},
        {"clock", EIO, [&] { return fail_settime = true, start(0, 1, 0)(); }},
        {"watch", EFAULT,
         [&] { return CL_CreateNestWatch(ends[1], 1, 0, nullptr, 0, 0, &err) != nullptr; }},
        {"events", EINVAL, watches(ends[1], 16)},
        {"changed events", EINVAL, [&] { return CL_ChangeNestWatch(watch, 16, &err); }},
        {"descriptor", EBADF, watches(-1, 1)},
        {"file", EPERM, watches(file, 0)},
        {"twice", EEXIST, watches(ends[0], CL_NEST_READ)},
        {"itself", EINVAL, watches(nest, CL_NEST_READ)},
        {"loop", ELOOP, watches(around, CL_NEST_READ)},
        {"capacity", EINVAL,
         [&] { return CL_CreateNestPosts((1u << 20) + 1, 0, nullptr, &err) != nullptr; }},
        {"full", EAGAIN, [&] { return CL_NestPost(posts, on_work, 0, 0, &err); }},
        {"no queue", EFAULT, [&] { return CL_NestPost(nullptr, on_work, 0, 0, &err); }},
        {"no work", EFAULT, [&] { return CL_NestPost(posts, nullptr, 0, 0, &err); }},
        {"signal", EFAULT,
         [&] { return CL_CreateNestSignal(SIGUSR2, nullptr, 0, 0, &err) != nullptr; }},
        {"no signal", EINVAL, hear(0)},
        {"SIGKILL", EINVAL, hear(SIGKILL)},
        {"SIGSTOP", EINVAL, hear(SIGSTOP)},
        {"SIGSEGV", EINVAL, hear(SIGSEGV)},
        {"SIGCHLD", EBUSY, hear(SIGCHLD)},
        {"SIGUSR1", EBUSY, hear(SIGUSR1)},
        {"end", EFAULT,
         [&] { return CL_CreateNestProcess(getpid(), 0, nullptr, 0, 0, &err) != nullptr; }},
        {"pid", EINVAL, wait_for(-1)},
        {"no process", ESRCH, wait_for(INT32_MAX)},
    });
    ASSERT_EQ(dup2(file, ends[0]), ends[0]);
    all_fail({{"closed", EPERM, [&] { return CL_ChangeNestWatch(watch, CL_NEST_WRITE, &err); }}});
    clSIGUSR1End();
    EXPECT_EQ(CL_DeleteNest(&err), 1u) << err;
    close(around);
    close(file);
}

// What the system does not give.
TEST_F(NestRefuses, WithoutMemoryDescriptorsMasks) {
    uint64_t &memory_limit = CL_MainTable->memory_limit;
    const auto create = [&] { return CL_CreateNest(CL_PRIORITY_FIRST, 0, &err); };
    memory_limit = 1;
    all_fail({{"nest", ENOMEM, create}});
    memory_limit = 0;
    struct rlimit as_it_is;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &as_it_is), 0);
    const struct rlimit none = {0, as_it_is.rlim_max};
    const auto without_descriptors = [&](const std::vector<Refusal> &refusals) {
        for (const Refusal &refusal : refusals) {
            EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
            EXPECT_FALSE(refusal.call()) << refusal.what;
            EXPECT_EQ(err.err, static_cast<uint32_t>(EMFILE)) << refusal.what;
            EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &as_it_is), 0);
        }
    };
    without_descriptors({{"nest", EMFILE, create}});
    const auto fill = [&] { return CL_CreateFD(CL_KIND_FD, test::call_action, 0, 0, &err); };
    while (fill() != nullptr) {
    }
    EXPECT_EQ(create(), 0u) << "no object";
    CL_Object *last = nullptr;
    while ((last = static_cast<CL_Object *>(CL_MainTable->used_queue.head)) != nullptr)
        CL_DeleteFD(last, &err);
    while (dup(ends[0]) < FD_SETSIZE - 1) {  // what follows is beyond the sets
        ASSERT_FALSE(HasFailure());
    }
    all_fail({{"descriptor", EMFILE, create}});
    close_range(static_cast<unsigned>(ends[1]) + 1, ~0u, 0);
    // Nor need its object be the nest's any more.
    for (const bool taken : {false, true}) {
        ASSERT_EQ(create(), 1u) << err;
        CL_DeleteFD(static_cast<CL_Object *>(CL_MainTable->used_queue.head), &err);
        while (taken && fill() != nullptr) {
        }
        EXPECT_EQ(CL_DeleteNest(&err), 1u) << err;
    }
    while ((last = static_cast<CL_Object *>(CL_MainTable->used_queue.head)) != nullptr)
        CL_DeleteFD(last, &err);
    ASSERT_EQ(create(), 1u) << err;
    memory_limit = CL_MainTable->user_bytes;
    all_fail(creations(ENOMEM));
    memory_limit = 0;
    std::vector<Refusal> needing = creations(EMFILE);
    needing.erase(needing.begin(), needing.begin() + 2);
    without_descriptors(needing);
    CL_NestSignal *watcher = CL_CreateNestSignal(SIGUSR2, on_signal, 0, 0, &err);
    ASSERT_NE(watcher, nullptr) << err;
    {
        const test::Plan plan({.call = "pthread_sigmask", .error = EINVAL});
        all_fail({{"mask", EINVAL, [&] { return CL_DeleteNestSignal(watcher, &err); }}});
    }
    EXPECT_EQ(CL_DeleteNest(&err), 1u) << err;
}

}  // namespace
