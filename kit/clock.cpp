// Virtual time.
//
// Time stands while anybody works. Who waits looks, without waiting, whether there is something for
// him. When all who wait have looked in vain since the last of them went on, nothing can happen any
// more but that time passes, and it goes to the earliest moment that somebody waits for. So a
// message from one process of the run to another always comes before a time limit. Who is not known
// to wait (a process that computes, or waits in a call without a time limit) holds time up for as
// long as it is not asleep.
//
// An interval timer is kept here and raises its signal when it is due; a descriptor of
// timerfd_create is an event counter, which is read like one.
#include "kit/clock.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <qvcl/kit.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "kit/judge.h"

namespace kit {

Standing standing;

namespace {

constexpr uint64_t kNever = UINT64_MAX;
constexpr int64_t kMillion = 1'000'000;

int64_t microseconds_of(const timespec &time) {
    return time.tv_sec * kMillion + time.tv_nsec / 1000;
}
timespec timespec_of(int64_t microseconds) {
    return {microseconds / kMillion, microseconds % kMillion * 1000};
}
timeval timeval_of(int64_t microseconds) {
    return {microseconds / kMillion, microseconds % kMillion};
}
// Rounded up, so that nobody wakes before his time.
uint64_t duration(const timespec &time) {
    return static_cast<uint64_t>(time.tv_sec * kMillion + (time.tv_nsec + 999) / 1000);
}

int32_t thread_id() {
    return static_cast<int32_t>(syscall(SYS_gettid));
}
int32_t process_id() {
    return static_cast<int32_t>(syscall(SYS_getpid));
}

uint64_t now() {
    return page->clock.now.load();
}
void advance_to(uint64_t time) {
    uint64_t current = now();
    while (current < time && !page->clock.now.compare_exchange_weak(current, time)) {
    }
}

// ---- Timers of this process

struct Timer {
    int32_t pid = 0;  // whose it is: forked children inherit none
    int fd = -1;
    uint64_t due = kNever;
    uint64_t interval = 0;
    int clock = CLOCK_MONOTONIC;
    bool of_library = false;
};
Timer interval_timer;
Timer descriptors[64];

// How often it has expired since it was looked at last.
uint64_t expired(Timer &timer) {
    if (timer.pid != process_id() || timer.due > now()) return 0;
    uint64_t times = 1;
    if (timer.interval != 0) times += (now() - timer.due) / timer.interval;
    timer.due = timer.interval != 0 ? timer.due + times * timer.interval : kNever;
    return times;
}

// The library has a tick every second while one of its timers runs, and looks at the clock to see
// whether one is due. Ticks before that do nothing, and are passed over.
uint64_t next_tick() {
    static CL_MainBlock *const *table;
    if (table == nullptr) {
        void *found = dlsym(RTLD_DEFAULT, "CL_MainTable");
        memcpy(&table, &found, sizeof found);
    }
    const uint64_t tick = interval_timer.due, second = interval_timer.interval;
    if (!interval_timer.of_library || second == 0 || table == nullptr || *table == nullptr)
        return tick;
    int64_t first = INT64_MAX;  // uptime at which a timer is due
    const void *next = (*table)->timer_list.head;
    for (uint32_t left = (*table)->timer_list.count; left > 0 && next != nullptr; --left) {
        const auto *timer = static_cast<const CL_Object *>(next);
        first = std::min(first, static_cast<int64_t>(timer->start_time) + int64_t{timer->interval});
        next = timer->timer_link.next;
    }
    if (first >= INT64_MAX / kMillion) return tick;
    const int64_t due = first * kMillion - page->clock.ahead - page->clock.monotonic;
    if (due <= static_cast<int64_t>(tick)) return tick;
    return tick + (static_cast<uint64_t>(due) - tick + second - 1) / second * second;
}

uint64_t next_timer() {
    uint64_t next = kNever;
    const int32_t pid = process_id();
    if (interval_timer.pid == pid && interval_timer.due != kNever) next = next_tick();
    for (const Timer &timer : descriptors)
        if (timer.pid == pid && timer.fd >= 0) next = std::min(next, timer.due);
    return next;
}

void fire_timers() {
    if (expired(interval_timer) != 0) syscall(SYS_kill, process_id(), SIGALRM);
    for (Timer &timer : descriptors) {
        if (timer.fd < 0) continue;
        const uint64_t times = expired(timer);
        if (times != 0) syscall(SYS_write, timer.fd, &times, sizeof times);
    }
}

void set(Timer &timer, const timespec &first, const timespec &interval, uint64_t from) {
    timer.pid = process_id();
    timer.interval = duration(interval);
    const bool stops = first.tv_sec == 0 && first.tv_nsec == 0;
    timer.due = stops ? kNever : from + duration(first);
}

void get(const Timer &timer, timespec &left, timespec &interval) {
    const bool runs = timer.pid == process_id() && timer.due != kNever;
    left = timespec_of(
        runs ? std::max<int64_t>(1, static_cast<int64_t>(timer.due) - static_cast<int64_t>(now()))
             : 0);
    interval = timespec_of(runs ? static_cast<int64_t>(timer.interval) : 0);
}

// ---- Waiting

// The state of a thread, of which /proc says whether it sleeps, has ended or works.
char state_of(int32_t process, int32_t thread) {
    char path[64], text[512] = "";
    snprintf(path, sizeof path, "/proc/%d/task/%d/stat", process, thread);
    const auto fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC));
    if (fd < 0) return 'X';
    syscall(SYS_read, fd, text, sizeof text - 1);
    syscall(SYS_close, fd);
    const char *name_end = strrchr(text, ')');
    return name_end != nullptr && name_end[1] == ' ' ? name_end[2] : 'X';
}

Waiter *take_place(int32_t process, int32_t thread) {
    for (Waiter &waiter : page->clock.waiters) {
        int32_t nobody = 0;
        if (!waiter.thread.compare_exchange_strong(nobody, thread)) continue;
        waiter.process = process;
        return &waiter;
    }
    return nullptr;
}

Waiter *this_waiter() {
    static thread_local Waiter *own;
    const int32_t thread = thread_id();
    if (own != nullptr && own->thread.load() == thread) return own;
    for (Waiter &waiter : page->clock.waiters)  // where the parent has announced it
        if (waiter.thread.load() == thread) return own = &waiter;
    return own = take_place(process_id(), thread);
}

// The earliest moment that somebody waits for, if all who wait have looked in vain at this turn;
// 0 if not all have. asleep: who is in a call that does not wait in virtual time counts, too.
uint64_t next_moment(uint64_t turn, bool asleep) {
    uint64_t next = kNever;
    for (Waiter &waiter : page->clock.waiters) {
        const int32_t thread = waiter.thread.load();
        if (thread == 0) continue;
        if (waiter.found_nothing_at.load() == turn) {
            next = std::min(next, waiter.until.load());
            continue;
        }
        if (!asleep || thread < 0) return 0;
        const char state = state_of(waiter.process.load(), thread);
        if (state == 'X' || state == 'Z') {
            waiter.thread = 0;
        } else if (state != 'S' || waiter.found_nothing_at.load() != 0) {
            return 0;
        }
    }
    return next;
}

// Looks in turns until `look` finds something (a result other than 0), or `limit` microseconds have
// passed (kNever: without limit). Signals reach the thread within a look alone, which takes a time
// limit and the mask for it.
template <class Look>
int wait(uint64_t limit, const sigset_t *mask, const Look &look) {
    constexpr uint64_t kSlice = 1000, kPatience = 20;
    sigset_t all, before;
    sigfillset(&all);
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, &before, size_t{8});
    const sigset_t *inside = mask != nullptr ? mask : &before;
    Page::Clock &clock = page->clock;
    Waiter *self = this_waiter();
    const uint64_t until = limit == kNever ? kNever : now() + limit;
    int result = 0;
    for (uint64_t in_vain = 0;; ++in_vain) {
        const uint64_t turn = clock.turn.load();
        fire_timers();
        result = look(0, inside);
        if (result != 0 || now() >= until) break;
        uint64_t next = std::min(until, next_timer());
        if (self != nullptr) {
            self->until = next;
            self->found_nothing_at = turn;
            next = next_moment(turn, in_vain > kPatience);
        }
        if (next != 0 && next != kNever) {
            if (clock.settle != 0) result = look(clock.settle, inside);
            if (result != 0) break;
            if (clock.turn.load() == turn) advance_to(next);
            in_vain = 0;
        } else {
            result = look(next == kNever ? 10 * kSlice : kSlice, inside);
            if (result != 0) break;
        }
    }
    const int error = errno;
    if (self != nullptr) self->found_nothing_at = 0;
    clock.turn.fetch_add(1);
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &before, nullptr, size_t{8});
    errno = error;
    return result;
}

int sleep_for(uint64_t microseconds) {
    return wait(microseconds, nullptr, [](uint64_t slice, const sigset_t *mask) {
        timespec time = timespec_of(static_cast<int64_t>(slice));
        return static_cast<int>(syscall(SYS_ppoll, nullptr, 0, &time, mask, size_t{8}));
    });
}

int wait_poll(pollfd *fds, nfds_t count, uint64_t limit, const sigset_t *mask) {
    return wait(limit, mask, [=](uint64_t slice, const sigset_t *inside) {
        timespec time = timespec_of(static_cast<int64_t>(slice));
        return static_cast<int>(syscall(SYS_ppoll, fds, count, &time, inside, size_t{8}));
    });
}

int wait_select(int count, fd_set *sets[3], uint64_t limit, const sigset_t *mask) {
    fd_set asked[3];
    for (int i = 0; i < 3; ++i)
        if (sets[i] != nullptr) asked[i] = *sets[i];
    return wait(limit, mask, [&](uint64_t slice, const sigset_t *inside) {
        for (int i = 0; i < 3; ++i)
            if (sets[i] != nullptr) *sets[i] = asked[i];
        timespec time = timespec_of(static_cast<int64_t>(slice));
        return KIT_REAL(pselect)(count, sets[0], sets[1], sets[2], &time, inside);
    });
}

int wait_epoll(int epoll, epoll_event *events, int most, uint64_t limit, const sigset_t *mask) {
    return wait(limit, mask, [=](uint64_t slice, const sigset_t *inside) {
        // Its own wait of no length does not look at signals.
        pollfd ready = {epoll, POLLIN, 0};
        timespec time = timespec_of(static_cast<int64_t>(slice));
        const long found = syscall(SYS_ppoll, &ready, 1, &time, inside, size_t{8});
        return found <= 0 ? static_cast<int>(found)
                          : static_cast<int>(syscall(SYS_epoll_pwait, epoll, events, most, 0,
                                                     nullptr, size_t{8}));
    });
}

uint64_t limit_of(const timespec *time) {
    return time == nullptr ? kNever : duration(*time);
}
uint64_t limit_of(int milliseconds) {
    return milliseconds < 0 ? kNever : static_cast<uint64_t>(milliseconds) * 1000;
}

// ---- Looking at clocks

enum class Which { monotonic, real };

// Whether that clock is one of ours.
bool ours(clockid_t clock, Which &which) {
    switch (clock) {
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
        case CLOCK_TAI:
            which = Which::real;
            return true;
        case CLOCK_MONOTONIC:
        case CLOCK_MONOTONIC_RAW:
        case CLOCK_MONOTONIC_COARSE:
        case CLOCK_BOOTTIME:
            which = Which::monotonic;
            return true;
        default:
            return false;
    }
}

int64_t real_clock(clockid_t clock) {
    timespec time{};
    syscall(SYS_clock_gettime, clock, &time);
    return microseconds_of(time);
}

int64_t read_clock(Which which) {
    Page::Clock &clock = page->clock;
    if (clock.mode == kVirtual) {
        const auto passed = static_cast<int64_t>(clock.now.fetch_add(1) + 1);
        return clock.ahead + passed + (which == Which::real ? clock.real : clock.monotonic);
    }
    return clock.ahead + real_clock(which == Which::real ? CLOCK_REALTIME : CLOCK_MONOTONIC);
}

// Thins out what a wait has found, but for one.
int fewer(uint32_t dice, int count, fd_set *sets[3], int found) {
    const int kept = static_cast<int>(dice % static_cast<uint32_t>(found));
    int seen = 0;
    for (int set = 0; set < 3; ++set) {
        for (int fd = 0; sets[set] != nullptr && fd < count; ++fd) {
            if (FD_ISSET(fd, sets[set]) && seen++ != kept && (dice >> (seen % 24) & 1) != 0) {
                FD_CLR(fd, sets[set]);
                --found;
            }
        }
    }
    return found;
}
int fewer(uint32_t dice, pollfd *fds, nfds_t count, int found) {
    const int kept = static_cast<int>(dice % static_cast<uint32_t>(found));
    int seen = 0;
    for (nfds_t i = 0; i < count; ++i) {
        if (fds[i].revents != 0 && seen++ != kept && (dice >> (seen % 24) & 1) != 0) {
            fds[i].revents = 0;
            --found;
        }
    }
    return found;
}

}  // namespace

bool virtual_time() {
    if (attach != nullptr) attach();
    return page != nullptr && page->clock.mode == kVirtual;
}
bool other_time() {
    if (attach != nullptr) attach();
    return page != nullptr && page->clock.mode != kReal;
}

}  // namespace kit

using namespace kit;

#define JUDGE(name, fd) const Verdict verdict = judge(kCall_##name, KIT_CALLER, fd)

template <class Real>
static int poll_judged(const Verdict &verdict, struct pollfd *fds, nfds_t count, uint64_t limit,
                       const sigset_t *mask, Real real) {
    if (verdict.fail) return -1;
    const int found = virtual_time() ? wait_poll(fds, count, limit, mask) : real();
    return verdict.fewer_ready && found > 1 ? fewer(verdict.dice, fds, count, found) : found;
}

// A test program may have its own of these, which then stand in.
#pragma weak clock_gettime
#pragma weak timerfd_settime
#pragma weak epoll_wait

extern "C" {

int gettimeofday(struct timeval *time, void *zone) noexcept {
    JUDGE(gettimeofday, -1);
    if (verdict.fail) return -1;
    if (standing.seconds >= 0 && from_library(KIT_CALLER)) {
        *time = {standing.seconds, standing.microseconds};
        return 0;
    }
    if (!other_time()) return KIT_REAL(gettimeofday)(time, zone);
    *time = timeval_of(read_clock(Which::real));
    return 0;
}

int sysinfo(struct sysinfo *info) noexcept {
    JUDGE(sysinfo, -1);
    if (verdict.fail) return -1;
    const int result = KIT_REAL(sysinfo)(info);
    if (standing.uptime >= 0 && from_library(KIT_CALLER)) {
        info->uptime = standing.uptime;
    } else if (other_time()) {
        info->uptime = read_clock(Which::monotonic) / kMillion;
    }
    return result;
}

int clock_gettime(clockid_t clock, struct timespec *time) noexcept {
    JUDGE(clock_gettime, -1);
    if (verdict.fail) return -1;
    Which which{};
    if (!other_time() || !ours(clock, which)) return KIT_REAL(clock_gettime)(clock, time);
    *time = timespec_of(read_clock(which));
    return 0;
}

time_t time(time_t *result) noexcept {
    if (!other_time()) return KIT_REAL(time)(result);
    const time_t seconds = read_clock(Which::real) / kMillion;
    if (result != nullptr) *result = seconds;
    return seconds;
}

int setitimer(__itimer_which_t which, const struct itimerval *value,
              struct itimerval *before) noexcept {
    JUDGE(setitimer, -1);
    if (verdict.fail) return -1;
    if (verdict.swallow) return 0;
    if (!virtual_time() || which != ITIMER_REAL) return KIT_REAL(setitimer)(which, value, before);
    if (before != nullptr) getitimer(which, before);
    if (value == nullptr) return 0;
    set(interval_timer, {value->it_value.tv_sec, value->it_value.tv_usec * 1000},
        {value->it_interval.tv_sec, value->it_interval.tv_usec * 1000}, now());
    interval_timer.of_library = from_library(KIT_CALLER);
    return 0;
}

int getitimer(__itimer_which_t which, struct itimerval *value) noexcept {
    if (!virtual_time() || which != ITIMER_REAL) return KIT_REAL(getitimer)(which, value);
    timespec left, interval;
    get(interval_timer, left, interval);
    value->it_value = timeval_of(microseconds_of(left));
    value->it_interval = timeval_of(microseconds_of(interval));
    return 0;
}

unsigned alarm(unsigned seconds) noexcept {
    if (!virtual_time()) return KIT_REAL(alarm)(seconds);
    itimerval before{};
    getitimer(ITIMER_REAL, &before);
    set(interval_timer, {seconds, 0}, {}, now());
    interval_timer.of_library = false;
    const bool rounds_up = before.it_value.tv_usec >= 500'000 || before.it_value.tv_sec == 0;
    return static_cast<unsigned>(before.it_value.tv_sec) +
           (rounds_up && (before.it_value.tv_sec | before.it_value.tv_usec) != 0 ? 1 : 0);
}

int timerfd_create(__clockid_t clock, int flags) noexcept {
    JUDGE(timerfd_create, -1);
    if (verdict.fail) return -1;
    if (!virtual_time()) return KIT_REAL(timerfd_create)(clock, flags);
    static_assert(int{TFD_NONBLOCK} == int{EFD_NONBLOCK} && int{TFD_CLOEXEC} == int{EFD_CLOEXEC});
    const auto fd = static_cast<int>(syscall(SYS_eventfd2, 0, flags));
    for (Timer &timer : descriptors) {
        // One of this number has been closed in the meantime.
        if (fd < 0 || (timer.fd >= 0 && timer.fd != fd && timer.pid == process_id())) continue;
        timer = {process_id(), fd, kNever, 0, clock, false};
        return fd;
    }
    if (fd >= 0) syscall(SYS_close, fd);
    if (fd >= 0) errno = EMFILE;
    return -1;
}

int timerfd_gettime(int fd, struct itimerspec *value) noexcept {
    if (virtual_time()) {
        for (const Timer &timer : descriptors) {
            if (timer.fd != fd) continue;
            get(timer, value->it_value, value->it_interval);
            return 0;
        }
    }
    return KIT_REAL(timerfd_gettime)(fd, value);
}

int timerfd_settime(int fd, int flags, const struct itimerspec *value,
                    struct itimerspec *before) noexcept {
    JUDGE(timerfd_settime, fd);
    if (verdict.fail) return -1;
    for (Timer &timer : descriptors) {
        if (!virtual_time() || timer.fd != fd) continue;
        if (before != nullptr) get(timer, before->it_value, before->it_interval);
        uint64_t counted = 0;  // settings start anew
        pollfd ready = {fd, POLLIN, 0};
        timespec none{};
        if (syscall(SYS_ppoll, &ready, 1, &none, nullptr, size_t{8}) == 1)
            syscall(SYS_read, fd, &counted, sizeof counted);
        set(timer, value->it_value, value->it_interval, now());
        if ((flags & TFD_TIMER_ABSTIME) != 0 && timer.due != kNever) {
            Which which = Which::monotonic;
            ours(timer.clock, which);
            const int64_t origin =
                page->clock.ahead +
                (which == Which::real ? page->clock.real : page->clock.monotonic);
            timer.due = static_cast<uint64_t>(
                std::max<int64_t>(0, microseconds_of(value->it_value) - origin));
        }
        fire_timers();
        return 0;
    }
    return KIT_REAL(timerfd_settime)(fd, flags, value, before);
}

// ---- Waits

int pselect(int count, fd_set *in, fd_set *out, fd_set *exceptions, const struct timespec *limit,
            const sigset_t *mask) {
    JUDGE(pselect, -1);
    if (verdict.fail) return -1;
    if (verdict.swallow) return 0;
    fd_set *sets[3] = {in, out, exceptions};
    const int found = virtual_time() ? wait_select(count, sets, limit_of(limit), mask)
                                     : KIT_REAL(pselect)(count, in, out, exceptions, limit, mask);
    return verdict.fewer_ready && found > 1 ? fewer(verdict.dice, count, sets, found) : found;
}

int select(int count, fd_set *in, fd_set *out, fd_set *exceptions, struct timeval *limit) {
    JUDGE(select, -1);
    if (verdict.fail) return -1;
    fd_set *sets[3] = {in, out, exceptions};
    const uint64_t microseconds =
        limit == nullptr ? kNever
                         : static_cast<uint64_t>(limit->tv_sec * kMillion + limit->tv_usec);
    const int found = virtual_time() ? wait_select(count, sets, microseconds, nullptr)
                                     : KIT_REAL(select)(count, in, out, exceptions, limit);
    return verdict.fewer_ready && found > 1 ? fewer(verdict.dice, count, sets, found) : found;
}

int poll(struct pollfd *fds, nfds_t count, int limit) {
    JUDGE(poll, -1);
    return poll_judged(verdict, fds, count, limit_of(limit), nullptr,
                       [=] { return KIT_REAL(poll)(fds, count, limit); });
}

int ppoll(struct pollfd *fds, nfds_t count, const struct timespec *limit, const sigset_t *mask) {
    JUDGE(ppoll, -1);
    return poll_judged(verdict, fds, count, limit_of(limit), mask,
                       [=] { return KIT_REAL(ppoll)(fds, count, limit, mask); });
}

// With a check of the array's size.
int __poll_chk(struct pollfd *fds, nfds_t count, int limit, size_t room);
int __poll_chk(struct pollfd *fds, nfds_t count, int limit, size_t room) {
    JUDGE(poll, -1);
    return poll_judged(verdict, fds, count, limit_of(limit), nullptr,
                       [=] { return KIT_REAL(__poll_chk)(fds, count, limit, room); });
}

int __ppoll_chk(struct pollfd *fds, nfds_t count, const struct timespec *limit,
                const sigset_t *mask, size_t room);
int __ppoll_chk(struct pollfd *fds, nfds_t count, const struct timespec *limit,
                const sigset_t *mask, size_t room) {
    JUDGE(ppoll, -1);
    return poll_judged(verdict, fds, count, limit_of(limit), mask,
                       [=] { return KIT_REAL(__ppoll_chk)(fds, count, limit, mask, room); });
}

int epoll_wait(int epoll, struct epoll_event *events, int most, int limit) {
    JUDGE(epoll_wait, -1);
    if (verdict.fail) return -1;
    if (verdict.fewer_ready) most = 1;
    return virtual_time() ? wait_epoll(epoll, events, most, limit_of(limit), nullptr)
                          : KIT_REAL(epoll_wait)(epoll, events, most, limit);
}

int epoll_pwait(int epoll, struct epoll_event *events, int most, int limit, const sigset_t *mask) {
    JUDGE(epoll_pwait, -1);
    if (verdict.fail) return -1;
    if (verdict.fewer_ready) most = 1;
    return virtual_time() ? wait_epoll(epoll, events, most, limit_of(limit), mask)
                          : KIT_REAL(epoll_pwait)(epoll, events, most, limit, mask);
}

int nanosleep(const struct timespec *request, struct timespec *remaining) {
    if (from_library(KIT_CALLER)) note_sleep(*request);
    JUDGE(nanosleep, -1);
    if (verdict.swallow) return 0;
    if (verdict.fail) {
        if (remaining != nullptr) *remaining = timespec_of(microseconds_of(*request) / 2);
        return -1;
    }
    if (!virtual_time()) return KIT_REAL(nanosleep)(request, remaining);
    const uint64_t end = now() + duration(*request);
    if (sleep_for(duration(*request)) == 0) return 0;
    if (remaining != nullptr)
        *remaining = timespec_of(static_cast<int64_t>(end - std::min(end, now())));
    return -1;
}

int clock_nanosleep(clockid_t clock, int flags, const struct timespec *request,
                    struct timespec *remaining) {
    JUDGE(clock_nanosleep, -1);
    if (verdict.fail) return errno;
    Which which{};
    if (!virtual_time() || !ours(clock, which))
        return KIT_REAL(clock_nanosleep)(clock, flags, request, remaining);
    uint64_t limit = duration(*request);
    if ((flags & TIMER_ABSTIME) != 0) {
        const int64_t ahead = microseconds_of(*request) - read_clock(which);
        limit = static_cast<uint64_t>(std::max<int64_t>(0, ahead));
    }
    const uint64_t end = now() + limit;
    if (sleep_for(limit) == 0) return 0;
    if (remaining != nullptr && (flags & TIMER_ABSTIME) == 0)
        *remaining = timespec_of(static_cast<int64_t>(end - std::min(end, now())));
    return errno;
}

// Time waits for the child, too.
pid_t fork() noexcept {
    JUDGE(fork, -1);
    if (verdict.fail) return -1;
    if (verdict.swallow) return 0;
    if (!virtual_time()) return KIT_REAL(fork)();
    constexpr int32_t kUnborn = -1;
    Waiter *place = take_place(kUnborn, kUnborn);
    const pid_t pid = KIT_REAL(fork)();
    if (place == nullptr) return pid;
    // Whoever of the two is first says whose it is.
    const int32_t child = pid == 0 ? process_id() : std::max<pid_t>(pid, 0);
    place->process = child;
    place->thread = child;
    return pid;
}

int usleep(useconds_t microseconds) {
    if (!virtual_time()) return KIT_REAL(usleep)(microseconds);
    return sleep_for(microseconds);
}

unsigned sleep(unsigned seconds) {
    if (!virtual_time()) return KIT_REAL(sleep)(seconds);
    const uint64_t end = now() + uint64_t{seconds} * kMillion;
    if (sleep_for(uint64_t{seconds} * kMillion) == 0) return 0;
    return static_cast<unsigned>((end - std::min(end, now()) + kMillion - 1) / kMillion);
}

int pause() {
    if (!virtual_time()) return KIT_REAL(pause)();
    return sleep_for(kNever);
}

int sigsuspend(const sigset_t *mask) {
    if (!virtual_time()) return KIT_REAL(sigsuspend)(mask);
    return wait_poll(nullptr, 0, kNever, mask);
}

}  // extern "C"
