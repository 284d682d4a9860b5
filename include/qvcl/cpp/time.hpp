// qvcl for C++: time. Waiting for a while or until a time, tickers, and deadlines for any wait.
//
//     co_await after(20ms);
//     auto m = co_await with_deadline(1s, connection.receive());   // ETIMEDOUT when nothing came
//
// Timers are the nest's: by the nanosecond, and they start and stop without a system call as long
// as others are due before.
#pragma once

#include <qvcl/nest.h>
#include <qvcl/cpp/task.hpp>

#include <chrono>

namespace qvcl {
inline namespace cpp {

namespace detail {

// A timer of the nest that tells something of type To; To::on_timer(uint64_t missed).
template <class To>
class Timer {
  public:
    explicit Timer(To &to) : to_(to) {}
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;
    ~Timer() { stop(); }

    // From now on, or at a time; period 0: once.
    CL_ErrInfo start(uint32_t mode, std::chrono::nanoseconds due, std::chrono::nanoseconds period,
                     const Location &at) {
        CL_ErrInfo err = {};
        if (timer_ == nullptr) {
            timer_ = CL_CreateNestTimer_M(0, on_timer, reinterpret_cast<uint64_t>(&to_), 0, &err, 0,
                                          at.file(), at.line());
            if (timer_ == nullptr) return err;
        }
        const int64_t count = due.count() < 0 ? 0 : due.count();
        if (CL_StartNestTimer_M(timer_, mode, static_cast<uint64_t>(count),
                                static_cast<uint64_t>(period.count()), &err, 0, at.file(),
                                at.line()) == 0)
            stop();
        return err;
    }
    void stop() {
        if (timer_ != nullptr) CL_DeleteNestTimer(timer_, nullptr);
        timer_ = nullptr;
    }
    // The nest is gone, and the timer with it.
    void forget() { timer_ = nullptr; }

  private:
    static uint32_t on_timer(CL_NestTimer * /*timer*/, uint64_t missed, uint64_t to,
                             uint64_t /*arg2*/) {
        reinterpret_cast<To *>(to)->on_timer(missed);
        return scheduler.drain();
    }

    To &to_;
    CL_NestTimer *timer_ = nullptr;
};

class [[nodiscard]] After : public Operation<After> {
  public:
    static constexpr char kOperation[] = "after";

    After(uint32_t mode, std::chrono::nanoseconds due, const Location &at)
        : Operation(kOperation, at), timer_(*this), mode_(mode), due_(due) {}

    bool start() {
        error_ = timer_.start(mode_, due_, {}, at());
        return failed();
    }
    void finish() {
        timer_.stop();
        if (failed() && error_.err != ETIMEDOUT) raise(error());
    }
    void on_timer(uint64_t /*missed*/) { complete(); }

  private:
    Timer<After> timer_;
    uint32_t mode_;
    std::chrono::nanoseconds due_;
};

// Time up to which something is waited for.
struct Limit {
    uint32_t mode;
    std::chrono::nanoseconds due;

    template <class Rep, class Period>
    Limit(std::chrono::duration<Rep, Period> duration) : mode(CL_NEST_MONOTONIC), due(duration) {}
    Limit(std::chrono::steady_clock::time_point time)
        : mode(CL_NEST_MONOTONIC | CL_NEST_ABSOLUTE), due(time.time_since_epoch()) {}
};

// An operation that is cut short.
template <class Waited>
class [[nodiscard]] WithDeadline {
  public:
    WithDeadline(const Limit &limit, Waited &&waited, const Location &at)
        : timer_(*this), limit_(limit), waited_(waited), at_(at) {}
    WithDeadline(const WithDeadline &) = delete;
    WithDeadline &operator=(const WithDeadline &) = delete;

    Awaited<WithDeadline> operator co_await() && { return Awaited<WithDeadline>(*this); }

    bool await_ready() {
        if (waited_.await_ready()) return true;
        const CL_ErrInfo err = timer_.start(limit_.mode, limit_.due, {}, at_);
        if (err.err != 0) waited_.cancel(err);
        return waited_.finished();
    }
    void await_suspend(Promise &task) { waited_.await_suspend(task); }
    auto await_resume() {
        timer_.stop();
        return waited_.await_resume();
    }
    void on_timer(uint64_t /*missed*/) {
        if (!waited_.finished()) waited_.cancel(record(ETIMEDOUT));
    }

  private:
    Timer<WithDeadline> timer_;
    Limit limit_;
    Waited &waited_;
    Location at_;
};

// Runs a task, keeps what it returns, and tells that it has ended, however that was.
template <class T>
Task<> run_into(Task<T> task, std::optional<ResultOf<T>> &result, Event &ended) {
    struct AtTheEnd {
        Event &event;
        ~AtTheEnd() { event.set(); }
    } const at_the_end{ended};
    if constexpr (std::is_void_v<T>) {
        co_await std::move(task);
        result.emplace();
    } else {
        result.emplace(co_await std::move(task));
    }
}

}  // namespace detail

/// Waits for a while; at least until the next turn of the loop. A timer that cannot be had raises
/// the Error.
inline auto after(std::chrono::nanoseconds duration, Location at = {}) {
    return detail::After(CL_NEST_MONOTONIC, duration, at);
}
/// Waits until a time of the steady clock.
inline auto until(std::chrono::steady_clock::time_point time, Location at = {}) {
    return detail::After(CL_NEST_MONOTONIC | CL_NEST_ABSOLUTE, time.time_since_epoch(), at);
}
/// Waits until a time of day, and follows the clock when that is set.
inline auto until(std::chrono::system_clock::time_point time, Location at = {}) {
    return detail::After(CL_NEST_WALL | CL_NEST_ABSOLUTE, time.time_since_epoch(), at);
}

/// Any operation, but not longer than that: a duration from now, or a time of the steady clock. The
/// result is the operation's, or its Error with ETIMEDOUT. What can be had at once is had, whatever
/// the time.
template <std::derived_from<detail::Wait> Waited>
auto with_deadline(detail::Limit limit, Waited &&waited, Location at = {}) {
    return detail::WithDeadline<Waited>(limit, std::forward<Waited>(waited), at);
}

/// A whole task, but not longer than that: it is cancelled then, wherever it stands.
template <class T>
Task<detail::ResultOf<T>> with_deadline(detail::Limit limit, Task<T> task, Location at = {}) {
    std::optional<detail::ResultOf<T>> result;
    Event ended;
    Running<> running(
        detail::adopt(detail::run_into(std::move(task), result, ended).release(), false, at));
    const Result<> in_time = co_await with_deadline(limit, ended.wait(at), at);
    if (running.finished()) co_await std::move(running);
    if (result) co_return std::move(*result);
    co_return Error("with_deadline", in_time.error().record());
}

/// Turns at a fixed distance. One that was late does not shift those after it.
class Ticker : private detail::Node {
  public:
    class Next;

    /// Begins to count. A failure is told by next().
    explicit Ticker(std::chrono::nanoseconds period, Location at = {}) : timer_(*this) {
        if (period.count() <= 0) {
            error_ = detail::record(EINVAL);
        } else {
            error_ = timer_.start(CL_NEST_MONOTONIC, period, period, at);
        }
    }

    /// Waits for the next turn, or takes those that have passed since the last call. Gives how many
    /// turns that were: 1 when none was missed.
    Next next(Location at = {});

  private:
    template <class To>
    friend class detail::Timer;

    void release() override {
        timer_.stop();
        error_ = detail::record(CL_ERR_STATE);
        cancel_all(error_);
    }
    void on_timer(uint64_t missed);

    detail::Timer<Ticker> timer_;
    CL_ErrInfo error_ = {};
    uint64_t turns_ = 0;
};

/// The wait for a turn.
class [[nodiscard]] Ticker::Next : public detail::Operation<Next> {
  public:
    static constexpr char kOperation[] = "Ticker::next";
    Next(Ticker &ticker, const Location &at) : Operation(kOperation, at), ticker_(ticker) {}
    bool start() {
        error_ = ticker_.error_;
        ticker_.waits.push_back(*this);
        return failed() || ticker_.turns_ != 0;
    }
    Result<uint64_t> finish() {
        if (failed()) return error();
        return std::exchange(ticker_.turns_, 0);
    }

  private:
    Ticker &ticker_;
};

inline Ticker::Next Ticker::next(Location at) {
    return Next(*this, at);
}

inline void Ticker::on_timer(uint64_t missed) {
    turns_ += missed + 1;
    if (auto *wait = first<Next>()) wait->complete();
}

}  // namespace cpp
}  // namespace qvcl
