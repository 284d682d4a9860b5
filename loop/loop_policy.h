// The event loop, once for both of its variants. A policy says which signals the loop waits for,
// how they are masked and which module its failures name:
//
//     module                           CL_MODULE_... of the loop's own failures
//     signals                          the signals of the loop
//     wakes                            whether SIGUSR1 wakes THREAD objects
//     mask(how, set, saved)            0, or the error number
//
// Order within one iteration, and what keeps a signal from being lost:
//
//     build the sets -> block the signals, look at their fields -> dispatch, or wait with them open
//     -> unblock -> due timers -> each object's check, and between two objects another look.
//
// The fields are atomics, so only the look before a wait needs the signals blocked: a signal that
// arrives after it stays pending and ends the wait. All other looks cost no system call.
#pragma once

#include <sys/select.h>
#include <csignal>

#include <qvcl/child.h>
#include <qvcl/steps.h>
#include <qvcl/thread.h>
#include <qvcl/timer.h>

#include "core/error.h"
#include "core/signal_field.h"
#include "loop/kinds.h"
#include "loop/known_order.h"
#include "loop/watch.h"

namespace qvcl {

template <class Policy>
struct Loop {
    static constexpr Failure fail{place(__FILE__), Policy::module};

    // Reads and resets the signal fields.
    //
    // Timers and descriptors take turns: timers called in front of a wait have used theirs, and
    // timer_dispatched says so until the wait. A tick that comes in between marks timers as due but
    // does not call them, and gives the turn back; so the loop goes on to the wait, however long
    // the timers' callbacks take. timer_dispatched is 1 exactly while
    //
    //     timers have been called since the last wait, by the look in front of the next one,
    //     some timer is still on the list, and no tick has been looked at since.
    static uint32_t look(CL_ErrInfo *err) {
        CL_MainBlock &main = *CL_MainTable;
        uint32_t bits = take(main.child_signal) != 0 ? CL_LOOK_CHILD : 0;
        const uint64_t ticks = take(main.timer_signals);
        if (Policy::wakes && take(main.wake_signal) == 1) bits |= CL_LOOK_WAKE;
        if (ticks != 0) {
            const bool due = cl_TimerCheck(static_cast<uint32_t>(ticks), err) != 0;
            if (main.timer_dispatched != 0) {
                main.timer_dispatched = 0;
            } else if (due) {
                bits |= CL_LOOK_TIMER;
            }
        }
        return bits;
    }

    // What a look took but nobody dispatched is there again for the next look. Due timers stay
    // marked on their list.
    static void put_back(uint32_t bits) {
        if ((bits & CL_LOOK_CHILD) != 0) raise_flag(CL_MainTable->child_signal);
        if ((bits & CL_LOOK_WAKE) != 0) raise_flag(CL_MainTable->wake_signal);
    }

    // Timers, then children, then the wake-up; the first that ends the loop keeps the rest for
    // later.
    static uint32_t dispatch(uint32_t bits, CL_ErrInfo *err) {
        if (bits == 0) return 0;
        uint32_t result = 0;
        if ((bits & CL_LOOK_TIMER) != 0) result = static_cast<uint32_t>(cl_TimerCall(err));
        bits &= ~uint32_t{CL_LOOK_TIMER};
        if (result == 0 && (bits & CL_LOOK_CHILD) != 0) {
            bits &= ~uint32_t{CL_LOOK_CHILD};
            result = cl_ChildCall(err);
        }
        if (result == 0 && (bits & CL_LOOK_WAKE) != 0) {
            bits &= ~uint32_t{CL_LOOK_WAKE};
            result = cl_ThreadCallBack(err);
        }
        put_back(bits);
        return result;
    }

    static uint32_t sigcheck(uint32_t always_unblock, const sigset_t *set, sigset_t *saved,
                             CL_ErrInfo *err) {
        if (const int code = Policy::mask(SIG_BLOCK, set, saved)) {
            return fail(err, static_cast<uint32_t>(code)).ends_loop();
        }
        const uint32_t bits = look(err);
        if (bits == 0 && always_unblock == 0) return bits;
        if (const int code = Policy::mask(SIG_UNBLOCK, set, nullptr)) {
            put_back(bits);
            return fail(err, static_cast<uint32_t>(code)).ends_loop();
        }
        return bits;
    }

    // `order`: what the loop knows of the list; null: nothing.
    static uint32_t fdcheck(const KnownOrder *order, CL_ErrInfo *err) {
        CL_MainBlock &main = *CL_MainTable;
        const uint64_t ticks = take(main.timer_signals);
        // Without a timer there is no uptime to read.
        if (main.timer_list.head != nullptr &&
            cl_TimerCheck(static_cast<uint32_t>(ticks), err) != 0) {
            if (const int32_t result = cl_TimerCall(err)) return static_cast<uint32_t>(result);
        }
        main.loop_cursor = nullptr;
        if (order != nullptr && order->known()) {
            if (const uint32_t result = check_in_known_order(*order, err)) return result;
        }
        for (;;) {
            uint32_t status;
            auto *object = static_cast<CL_Object *>(
                CL_QUE_Enum(&main.priority_list, main.loop_cursor, CL_QUE_FORWARD, &status));
            if (status != CL_QUE_WALKING) return fail(err, CL_ERR_QUEUE).ends_loop();
            main.loop_cursor = object;
            if (object == nullptr) return 0;
            if (const uint32_t result = check_object(object, err)) return result;
        }
    }

    static uint32_t run(CL_ErrInfo *err) {
        CL_ErrInfo own = {};
        CL_MainTable->timer_dispatched = 0;
        sigset_t set;
        sigemptyset(&set);
        for (const int signal : Policy::signals)
            sigaddset(&set, signal);
        KnownOrder order;
        uint32_t result = 0;
        while (result == 0)
            result = iterate(&set, &order, &own);
        *err = own;
        return result;
    }

  private:
    // One object's check, and the look before the next one.
    static uint32_t check_object(CL_Object *object, CL_ErrInfo *err) {
        const Kind *kind = kind_of(object->kind);
        if (kind == nullptr || kind->check == nullptr) return fail(err, CL_ERR_QUEUE).ends_loop();
        if (const uint32_t result = kind->check(object, err)) {
            const CL_ErrInfo &stored = CL_MainTable->exec_error;
            if (stored.err != 0) *err = stored;
            return result;
        }
        return dispatch(look(err), err);
    }

    // Whether a look would find anything: this much costs nothing after every object.
    static bool signalled() {
        const CL_MainBlock &main = *CL_MainTable;
        uint64_t any = __atomic_load_n(&main.timer_signals, __ATOMIC_RELAXED) |
                       __atomic_load_n(&main.child_signal, __ATOMIC_RELAXED);
        if (Policy::wakes) any |= __atomic_load_n(&main.wake_signal, __ATOMIC_RELAXED);
        return any != 0;
    }

    // The walk over the priority list as long as nothing changes it: objects that are not ready
    // are passed by. It leaves the cursor where the walk over the list itself goes on.
    static uint32_t check_in_known_order(const KnownOrder &order, CL_ErrInfo *err) {
        constexpr uint32_t kAhead = 8;  // objects, so that memory keeps up with the walk
        CL_MainBlock &main = *CL_MainTable;
        const uint32_t count = order.count();
        for (uint32_t i = 1; i <= count; ++i) {
            if (i + kAhead <= count) __builtin_prefetch(&order.at(i + kAhead)->watch);
            CL_Object *object = order.at(i);
            const bool ready = may_be_ready(object->watch, main.sets);
            if (!ready && !signalled()) continue;
            main.loop_cursor = object;
            if (const uint32_t result =
                    ready ? check_object(object, err) : dispatch(look(err), err)) {
                return result;
            }
            // What happened in there may have changed the list itself: then ask the list.
            if (!order.known() || object->event_link.owner != &main.priority_list) return 0;
        }
        if (count != 0) main.loop_cursor = order.at(count);
        return 0;
    }

    static uint32_t iterate(const sigset_t *set, KnownOrder *order, CL_ErrInfo *err) {
        CL_MainBlock &main = *CL_MainTable;
        if (order->known() && main.pending_list.head == nullptr) {
            order->repeat_sets();
        } else if (const uint32_t result = make_sets(order, err)) {
            return result;
        }
        sigset_t saved;
        const uint32_t bits = sigcheck(0, set, &saved, err);
        if (bits == CL_LOOP_ERROR) return bits;
        if (bits != 0) {
            if ((bits & CL_LOOK_TIMER) != 0) main.timer_dispatched = 1;
            const uint32_t result = dispatch(bits, err);
            if (main.timer_list.head == nullptr) main.timer_dispatched = 0;
            return result;
        }

        // The wait is open to the loop's signals even when the application had blocked them.
        for (const int signal : Policy::signals)
            sigdelset(&saved, signal);
        const int ready = pselect(main.descriptor_count, order->for_wait(0), order->for_wait(1),
                                  order->for_wait(2), nullptr, &saved);
        const int code = errno;
        main.timer_dispatched = 0;
        Policy::mask(SIG_UNBLOCK, set, nullptr);
        if (ready >= 0) return fdcheck(order, err);
        if (code != EINTR) return fail(err, static_cast<uint32_t>(code)).ends_loop();
        return dispatch(look(err), err);
    }
};

}  // namespace qvcl
