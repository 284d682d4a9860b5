// Timers: one interval timer and one counter for all of them.
//
// Signals only say that it is time to look; whether a timer is due follows from the uptime alone.
// A dispatch pass keeps its place in the main table, and whoever takes a timer off the list moves
// that place back first, so callbacks may start, stop and delete any timer.
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <csignal>

#include <qvcl/main.h>
#include <qvcl/steps.h>
#include <qvcl/timer.h>

#include "core/error.h"
#include "core/signal_field.h"
#include "core/signal_handler.h"
#include "diag/traced.h"
#include "loop/kinds.h"
#include "loop/live_object.h"
#include "sources/timer_look.h"

using qvcl::address_of;

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);

// Uptime in whole seconds; false with err filled.
bool uptime(int64_t *seconds, CL_ErrInfo *err) {
    struct sysinfo info;
    if (cl_u_sysinfo(&info) != 0) return fail.sys(err);
    *seconds = info.uptime;
    return true;
}

// A timer on the list is due when its `remaining` is CL_TIMER_DUE. Until then `remaining` counts
// down to 0 for whoever reads a dump; what decides is the uptime (cl_TimerCheck). An interval as
// large as the mark counts from one less.
uint32_t countdown(uint32_t seconds) {
    return seconds == CL_TIMER_DUE ? CL_TIMER_DUE - 1 : seconds;
}

// Takes a timer off the list; a dispatch pass that is at it goes on with its successor.
bool take_off(CL_Object *object) {
    CL_MainBlock &main = *CL_MainTable;
    if (!qvcl::leave_list(&main.timer_list, main.timer_cursor, object)) return false;
    object->interval = 0;
    object->remaining = 0;
    return true;
}

// Which expiry of a timer is due. Re-arming moves the start on by an interval; stopping leaves no
// interval, and starting anew has another start.
struct Expiry {
    uint64_t start_time;
    uint32_t interval;

    explicit Expiry(const CL_Object *timer)
        : start_time(timer->start_time), interval(timer->interval) {}
    bool operator==(const Expiry &) const = default;
};

bool end_one_shot(CL_Object *timer, CL_ErrInfo *err) {
    if (!take_off(timer)) return fail(err, CL_ERR_QUEUE);
    cl_StatusChange_M(timer, timer->status & ~uint32_t{CL_STATUS_RUNNING}, timer->sub_status, kFile,
                      __LINE__);
    return true;
}

void rearm(CL_Object *timer) {
    timer->remaining = countdown(timer->interval);
    timer->start_time += timer->interval;
}

// Dispatches one due timer; the callback's result, or -1 with err filled. One-shot timers are
// stopped before their callback, which may thus start them again; periodic ones are re-armed behind
// it, unless the callback has stopped or restarted them, or entered a loop that re-armed them.
int32_t expire(CL_Object *timer, CL_ErrInfo *err) {
    const bool periodic = (timer->sub_status & CL_SUB_PERIODIC) != 0;
    const Expiry told(timer);
    if (!periodic && !end_one_shot(timer, err)) return -1;
    CL_Event event = {};
    event.type = CL_EVENT_TIMER;
    const uint32_t result =
        cl_Callback_M(timer->callback, timer, &event, timer->arg1, timer->arg2, 0, kFile, __LINE__);
    if (result != 0) return static_cast<int32_t>(result);
    if (periodic && told == Expiry(timer)) rearm(timer);
    return 0;
}

int32_t dispatch_pass(CL_ErrInfo *err) {
    CL_MainBlock &main = *CL_MainTable;
    main.timer_cursor = nullptr;
    for (;;) {
        uint32_t status;
        auto *timer = static_cast<CL_Object *>(
            CL_QUE_Enum(&main.timer_list, main.timer_cursor, CL_QUE_FORWARD, &status));
        if (status != CL_QUE_WALKING) return fail.both(err, CL_ERR_QUEUE, status);
        if (timer == nullptr) return 0;
        main.timer_cursor = timer;
        if (timer->remaining != CL_TIMER_DUE) continue;
        if (const int32_t result = expire(timer, err)) return result;
    }
}

}  // namespace

// A tick of no seconds stands above those that are counted: whoever takes it looks at the timers,
// and no timer's remaining seconds change.
void qvcl::leave_tick() {
    constexpr uint64_t kEmptyTick = uint64_t{1} << 32;
    CL_MainBlock &main = *CL_MainTable;
    uint32_t status;
    CL_Object *timer = nullptr;
    do {
        timer =
            static_cast<CL_Object *>(CL_QUE_Enum(&main.timer_list, timer, CL_QUE_FORWARD, &status));
    } while (timer != nullptr && timer->remaining != CL_TIMER_DUE);
    if (timer != nullptr) __atomic_fetch_or(&main.timer_signals, kEmptyTick, __ATOMIC_RELAXED);
}

uint32_t CL_StartTIMER_M(CL_Object *object, uint32_t seconds, uint32_t mode, CL_ErrInfo *err,
                         uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcStartTimer record = {};
    qvcl::fill_head(record.head, CL_API_START_TIMER, sizeof record, callerFlag, file, line);
    record.handle = address_of(object);
    record.seconds = seconds;
    record.mode = mode;
    record.err_address = address_of(err);
    return qvcl::traced(record, err, [=](CL_ErrInfo *e) {
        return cl_starttimer(object, seconds, mode, e, callerFlag);
    });
}

uint32_t cl_starttimer(CL_Object *object, uint32_t seconds, uint32_t mode, CL_ErrInfo *err,
                       uint8_t callerFlag) {
    CL_MainBlock &main = *CL_MainTable;
    if (!qvcl::live_object(fail, object, CL_KIND_TIMER, err, callerFlag)) return 0;
    if ((object->status & CL_STATUS_RUNNING) != 0) return fail(err, EBADF);
    if (mode != CL_TIMER_ONESHOT && mode != CL_TIMER_PERIODIC) return fail(err, EINVAL);
    int64_t now;
    if (!uptime(&now, err)) return 0;
    if (CL_QUE_PutTail(&main.timer_list, object) == 0) return fail(err, CL_ERR_QUEUE);
    object->interval = seconds;
    object->remaining = countdown(seconds);
    object->start_time = static_cast<uint64_t>(now);
    const uint32_t periodic = mode == CL_TIMER_PERIODIC ? CL_SUB_PERIODIC : 0;
    cl_StatusChange_M(object, object->status | CL_STATUS_RUNNING, object->sub_status | periodic,
                      kFile, __LINE__);
    return main.timer_list.count == 1 ? cl_timer_init(err) : 1;
}

uint32_t CL_StopTIMER_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                        uint32_t line) {
    return qvcl::traced_handle(CL_API_STOP_TIMER, object, err, callerFlag, file, line,
                               [=](CL_ErrInfo *e) { return cl_stoptimer(object, e, callerFlag); });
}

uint32_t cl_stoptimer(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag) {
    if (!qvcl::live_object(fail, object, CL_KIND_TIMER, err, callerFlag)) return 0;
    if ((object->status & CL_STATUS_RUNNING) == 0) return fail(err, EBADF);
    if (!take_off(object)) return fail(err, CL_ERR_QUEUE);
    cl_StatusChange_M(object, object->status & ~uint32_t{CL_STATUS_RUNNING},
                      object->sub_status & ~uint32_t{CL_SUB_PERIODIC}, kFile, __LINE__);
    return CL_MainTable->timer_list.count == 0 ? cl_timer_end(err) : 1;
}

uint32_t cl_DeleteTIMER_M(CL_Object *object, CL_ErrInfo *err) {
    if ((object->status & CL_STATUS_RUNNING) == 0) return 1;
    return CL_StopTIMER_M(object, err, 1, kFile, __LINE__);
}

void CL_CommitTIMER() {
    CL_ErrInfo dropped = {};
    const uint64_t ticks = qvcl::take(CL_MainTable->timer_signals);
    if (ticks != 0) cl_TimerCheck(static_cast<uint32_t>(ticks), &dropped);
}

uint32_t cl_TimerCheck(uint32_t ticks, CL_ErrInfo *err) {
    int64_t now;
    if (!uptime(&now, err)) return 0;
    uint32_t due = 0;
    uint32_t status;
    CL_Object *timer = nullptr;
    const auto next = [&] {
        timer = static_cast<CL_Object *>(
            CL_QUE_Enum(&CL_MainTable->timer_list, timer, CL_QUE_FORWARD, &status));
        return timer != nullptr;
    };
    while (next()) {
        timer->remaining = timer->remaining > ticks ? timer->remaining - ticks : 0;
        if (now - static_cast<int64_t>(timer->start_time) >= int64_t{timer->interval}) {
            timer->remaining = CL_TIMER_DUE;
            due = 1;
        }
    }
    if (status != CL_QUE_WALKING) return fail.both(err, CL_ERR_QUEUE, status);
    return due;
}

int32_t cl_TimerCall(CL_ErrInfo *err) {
    CL_MainBlock &main = *CL_MainTable;
    int32_t result = dispatch_pass(err);
    if (main.timer_list.count == 0 && cl_timer_end(err) == 0) result = -1;
    main.timer_cursor = nullptr;
    return result;
}

uint32_t cl_timer_init(CL_ErrInfo *err) {
    __atomic_store_n(&CL_MainTable->timer_signals, uint64_t{0}, __ATOMIC_RELEASE);
    if (!qvcl::install_handler(fail, SIGALRM, cl_sigalm, 0, nullptr, err)) return 0;
    const struct itimerval every_second = {{1, 0}, {1, 0}};
    if (cl_u_setitimer(ITIMER_REAL, &every_second, nullptr) != 0) return fail.sys(err);
    return 1;
}

uint32_t cl_timer_end(CL_ErrInfo *err) {
    const struct itimerval never = {};
    if (cl_u_setitimer(ITIMER_REAL, &never, nullptr) != 0) return fail.sys(err);
    if (cl_u_signal(SIGALRM, SIG_IGN) == SIG_ERR) return fail(err, CL_ERR_QUEUE);
    return 1;
}

void cl_sigalm(int /*signal*/) {
    __atomic_fetch_add(&CL_MainTable->timer_signals, uint64_t{1}, __ATOMIC_RELAXED);
}
