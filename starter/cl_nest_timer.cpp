// Timers: a heap for each clock, and a timerfd for each that is in use.
//
// A timerfd is set when a timer starts that is due before what it is set to, and after it has gone
// off; stopping leaves it alone, and a turn in which nothing is due sets it anew. So timers that
// only guard something, and are stopped or started again all the time, cost no system call.
#include <qvcl/qvcl.h>
#include <sys/timerfd.h>
#include <cerrno>
#include <ctime>

#include "starter/nest.h"

namespace qvcl::nest {

namespace {

constexpr Failure fail{place(__FILE__)};

constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kLatest = INT64_MAX;  // the kernel's
constexpr uint32_t kBranches = 4;
constexpr uint32_t kFirstCapacity = 64;
constexpr clockid_t kClockIds[] = {CLOCK_MONOTONIC, CLOCK_REALTIME};

// --- The heap ---

bool before(const Due &a, const Due &b) {
    if (a.at != b.at) return a.at < b.at;
    const uint32_t first = a.timer->calls.priority, second = b.timer->calls.priority;
    if (first != second) return first < second;
    return a.timer->timer.order < b.timer->timer.order;
}

void put(Clock &clock, uint32_t place, const Due &due) {
    clock.heap[place] = due;
    due.timer->timer.place = place + 1;
}

void sift_up(Clock &clock, uint32_t place, const Due &due) {
    while (place != 0) {
        const uint32_t parent = (place - 1) / kBranches;
        if (!before(due, clock.heap[parent])) break;
        put(clock, place, clock.heap[parent]);
        place = parent;
    }
    put(clock, place, due);
}

void sift_down(Clock &clock, uint32_t place, const Due &due) {
    for (;;) {
        const uint64_t first = uint64_t{place} * kBranches + 1;
        if (first >= clock.running) break;
        auto least = static_cast<uint32_t>(first);
        for (uint32_t i = least + 1; i < first + kBranches && i < clock.running; ++i)
            if (before(clock.heap[i], clock.heap[least])) least = i;
        if (!before(clock.heap[least], due)) break;
        put(clock, place, clock.heap[least]);
        place = least;
    }
    put(clock, place, due);
}

void settle(Clock &clock, uint32_t place, const Due &due) {
    if (place != 0 && before(due, clock.heap[(place - 1) / kBranches])) {
        sift_up(clock, place, due);
    } else {
        sift_down(clock, place, due);
    }
}

void leave_heap(Nest &nest, Handle &timer) {
    if (timer.timer.place == 0) return;
    Clock &clock = nest.clocks[timer.timer.clock];
    const uint32_t place = timer.timer.place - 1;
    timer.timer.place = 0;
    const Due last = clock.heap[--clock.running];
    if (place != clock.running) settle(clock, place, last);
}

// Room for one timer more, whichever clock it will run on.
bool reserve(Nest &nest, const char *file, uint32_t line) {
    if (nest.timers < nest.capacity) return true;
    const uint32_t capacity = nest.capacity != 0 ? nest.capacity * 2 : kFirstCapacity;
    Due *heaps[2];
    for (Due *&heap : heaps)
        heap = static_cast<Due *>(CL_malloc_M(sizeof(Due) * capacity, 0, file, line));
    const bool enough = heaps[0] != nullptr && heaps[1] != nullptr;
    for (uint32_t i = 0; i < 2; ++i) {
        Clock &clock = nest.clocks[i];
        if (enough) {
            if (clock.running != 0) memcpy(heaps[i], clock.heap, sizeof(Due) * clock.running);
            std::swap(heaps[i], clock.heap);
        }
        if (heaps[i] != nullptr) CL_free_M(heaps[i], 0, CL_FILE_LINE);
    }
    if (enough) nest.capacity = capacity;
    return enough;
}

// --- The clocks ---

uint64_t time_of(uint32_t clock) {
    struct timespec now;
    clock_gettime(kClockIds[clock], &now);
    return static_cast<uint64_t>(now.tv_sec) * kSecond + static_cast<uint64_t>(now.tv_nsec);
}

// After the wall clock was set back, a periodic timer is due at the first turn of its grid that is
// still to come, and not only when the clock has caught up.
void follow(Timer &timer, uint64_t now) {
    if (timer.period == 0 || timer.due <= now) return;
    uint64_t back = (timer.due - now - 1) / timer.period;
    const uint64_t most = (timer.due - timer.first) / timer.period;
    if (back > most) back = most;
    timer.due -= back * timer.period;
}

void follow_clock(Clock &clock, uint32_t which) {
    const uint64_t now = time_of(which);
    for (uint32_t i = 0; i < clock.running; ++i) {
        Timer &timer = clock.heap[i].timer->timer;
        follow(timer, now);
        clock.heap[i].at = timer.due;
    }
    for (uint32_t i = clock.running; i-- != 0;) {
        const Due due = clock.heap[i];
        sift_down(clock, i, due);
    }
}

// Sets the timerfd, which is not readable afterwards until that time; kNever: not at all. It tells
// when the wall clock was set since it was set last.
bool wind(Nest &nest, uint32_t which, uint64_t at) {
    Clock &clock = nest.clocks[which];
    const int flags = TFD_TIMER_ABSTIME | (which == CL_NEST_WALL ? TFD_TIMER_CANCEL_ON_SET : 0);
    for (;;) {
        struct itimerspec setting = {};
        if (at != kNever) {
            const uint64_t time = at != 0 ? at : 1;  // 0 would stop it
            setting.it_value = {static_cast<time_t>(time / kSecond),
                                static_cast<long>(time % kSecond)};
        }
        if (timerfd_settime(clock.source->source.fd, flags, &setting, nullptr) == 0) break;
        if (errno != ECANCELED) return false;
        follow_clock(clock, which);
        if (clock.running != 0 && clock.heap[0].at < at) at = clock.heap[0].at;
    }
    clock.armed = at;
    return true;
}

bool open_clock(Nest &nest, uint32_t which, const char *file, uint32_t line) {
    Clock &clock = nest.clocks[which];
    if (clock.source != nullptr) return true;
    Handle *source = nest.handles.take(kClock, {}, file, line);
    if (source == nullptr) return false;
    source->source.clock = which;
    if (!keep(nest, *source, timerfd_create(kClockIds[which], TFD_NONBLOCK | TFD_CLOEXEC)))
        return false;
    clock.source = source;
    return true;
}

// --- Calling ---

// The clock whose first timer has been due for longest; null when none is due.
Clock *next_due(Nest &nest) {
    Clock *next = nullptr;
    uint64_t longest = 0;
    for (Clock &clock : nest.clocks) {
        if (clock.running == 0 || clock.heap[0].at > clock.now) continue;
        const uint64_t overdue = clock.now - clock.heap[0].at;
        if (next != nullptr && overdue < longest) continue;
        if (next != nullptr && overdue == longest &&
            !before({0, clock.heap[0].timer}, {0, next->heap[0].timer}))
            continue;
        next = &clock;
        longest = overdue;
    }
    return next;
}

// Takes the first timer off, or gives it its next time. How many turns it has missed.
uint64_t advance(Nest &nest, Clock &clock) {
    Handle &handle = *clock.heap[0].timer;
    Timer &timer = handle.timer;
    if (timer.period == 0) {
        leave_heap(nest, handle);
        return 0;
    }
    const uint64_t missed = (clock.now - timer.due) / timer.period;
    timer.due += (missed + 1) * timer.period;
    sift_down(clock, 0, {timer.due, &handle});
    return missed;
}

uint32_t call_timer(Nest &nest, Clock &clock) {
    Handle &handle = *clock.heap[0].timer;
    const uint64_t missed = advance(nest, clock);
    return Told(nest, CL_EVENT_NEST_TIMER, handle)
        .length(static_cast<int64_t>(missed))
        .call(function_of<CL_NestTimerCallback>(handle), reinterpret_cast<CL_NestTimer *>(&handle),
              missed, handle.calls.arg1, handle.calls.arg2);
}

}  // namespace

uint32_t call_timers(Nest &nest) {
    const uint64_t deleted_before = deleted;
    for (uint32_t i = 0; i < 2; ++i)
        if (nest.clocks[i].running != 0) nest.clocks[i].now = time_of(i);
    uint32_t result = 0;
    for (uint32_t called = 0; called < nest.most && result == 0; ++called) {
        Clock *clock = next_due(nest);
        if (clock == nullptr) break;
        result = call_timer(nest, *clock);
        if (deleted != deleted_before) return result;
    }
    for (Clock &clock : nest.clocks)
        clock.now = 0;
    return result;
}

// A timerfd that has gone off, or whose clock was set: what it is set to is past.
void clock_rang(Nest &nest, Handle &source) {
    nest.clocks[source.source.clock].armed = 0;
}

// One that cannot be set stays readable, and the next turn tries again.
void wind_clocks(Nest &nest) {
    for (uint32_t i = 0; i < 2; ++i) {
        Clock &clock = nest.clocks[i];
        if (clock.armed == 0) wind(nest, i, clock.running != 0 ? clock.heap[0].at : kNever);
    }
}

void release_timer(Nest &nest, Handle &timer) {
    leave_heap(nest, timer);
    --nest.timers;
}

}  // namespace qvcl::nest

using namespace qvcl::nest;

extern "C" CL_NestTimer *CL_CreateNestTimer_M(uint32_t priority, CL_NestTimerCallback callback,
                                              uint64_t arg1, uint64_t arg2, CL_ErrInfo *err,
                                              uint8_t /*callerFlag*/, const char *file,
                                              uint32_t line) {
    const Report report(err);
    const Calls calls = {priority, any_function(callback), arg1, arg2};
    Nest *nest = existing(fail, calls, report);
    if (nest == nullptr) return nullptr;
    if (!reserve(*nest, file, line)) return fail(report, ENOMEM);
    Handle *timer = nest->handles.take(kTimer, calls, file, line);
    if (timer == nullptr) return fail(report, ENOMEM);
    ++nest->timers;
    return reinterpret_cast<CL_NestTimer *>(timer);
}

extern "C" uint32_t CL_StartNestTimer_M(CL_NestTimer *timer, uint32_t mode, uint64_t due,
                                        uint64_t period, CL_ErrInfo *err, uint8_t /*callerFlag*/,
                                        const char *file, uint32_t line) {
    const Report report(err);
    Nest *nest = owner(fail, timer, kTimer, report);
    if (nest == nullptr) return 0;
    const uint32_t which = mode & CL_NEST_WALL;
    if ((mode & ~uint32_t{CL_NEST_WALL | CL_NEST_ABSOLUTE}) != 0) return fail(report, EINVAL);
    if (due > kLatest || period > kLatest) return fail(report, EINVAL);
    const uint64_t now = time_of(which);
    if ((mode & CL_NEST_ABSOLUTE) == 0) due += now;
    if (due > kLatest) return fail(report, EINVAL);
    if (!open_clock(*nest, which, file, line)) return fail.sys(report);

    // What a callback starts is not due in the turn that runs, or it could be called for ever.
    Clock &clock = nest->clocks[which];
    uint64_t at = due > now ? due : now;
    if (at <= clock.now) at = clock.now + 1;
    if (at < clock.armed && !wind(*nest, which, at)) return fail.sys(report);
    Handle &handle = entry(timer);
    leave_heap(*nest, handle);
    handle.timer = {due, period, due, ++nest->starts, which, 0};
    sift_up(clock, clock.running++, {at, &handle});
    return 1;
}

extern "C" uint32_t CL_StopNestTimer_M(CL_NestTimer *timer, CL_ErrInfo *err, uint8_t /*callerFlag*/,
                                       const char * /*file*/, uint32_t /*line*/) {
    const Report report(err);
    Nest *nest = owner(fail, timer, kTimer, report);
    if (nest == nullptr) return 0;
    leave_heap(*nest, entry(timer));
    return 1;
}

extern "C" uint32_t CL_DeleteNestTimer_M(CL_NestTimer *timer, CL_ErrInfo *err,
                                         uint8_t /*callerFlag*/, const char * /*file*/,
                                         uint32_t /*line*/) {
    return remove(fail, timer, kTimer, Report(err));
}

extern "C" uint64_t CL_NestTime(uint32_t mode) {
    return time_of(mode & CL_NEST_WALL);
}
