// qvcl for C++: descriptors of any number, and signals.
//
//     co_await readable(fd);
//     Signals stop{SIGTERM, SIGINT};
//     auto signal = co_await stop.next();
//
// Readiness is a hint: use descriptors that do not block.
#pragma once

#include <qvcl/nest.h>
#include <qvcl/cpp/task.hpp>

#include <array>
#include <csignal>

namespace qvcl {
inline namespace cpp {

/// Watches a descriptor of the application for any number of waits, in both directions. It must be
/// destroyed before the descriptor is closed.
class Watch : private detail::Node {
  public:
    class Ready;

    /// fd: stays the application's. A failure is told by the first wait.
    explicit Watch(int fd, Location at = {}) : at_(at) {
        watch_ = CL_CreateNestWatch_M(fd, 0, 0, on_ready, reinterpret_cast<uint64_t>(this), 0,
                                      &error_, 0, at.file(), at.line());
    }
    ~Watch() override { stop(); }

    /// Waits until it can be read. Gives CL_NEST_... bits: data may be there, the other side gone.
    Ready readable(Location at = {});
    /// Waits until it can be written.
    Ready writable(Location at = {});

  private:
    static uint32_t on_ready(CL_NestWatch * /*watch*/, uint32_t ready, uint64_t self,
                             uint64_t /*arg2*/) {
        reinterpret_cast<Watch *>(self)->tell(ready);
        return detail::scheduler.drain();
    }
    void stop() {
        if (watch_ != nullptr) CL_DeleteNestWatch_M(watch_, nullptr, 0, at_.file(), at_.line());
        watch_ = nullptr;
    }
    void release() override {
        stop();
        error_ = detail::record(CL_ERR_STATE);
        cancel_all(error_);
    }
    inline void tell(uint32_t ready);
    CL_ErrInfo ask(uint32_t events) {
        CL_ErrInfo err = error_;
        if (watch_ == nullptr || (events_ | events) == events_) return err;
        if (CL_ChangeNestWatch_M(watch_, events_ | events, &err, 0, at_.file(), at_.line()) != 0)
            events_ |= events;
        return err;
    }

    CL_NestWatch *watch_ = nullptr;
    CL_ErrInfo error_ = {};
    uint32_t events_ = 0;
    Location at_;
};

/// The wait for a descriptor to be ready.
class [[nodiscard]] Watch::Ready : public detail::Operation<Ready> {
  public:
    static constexpr char kOperation[] = "ready";
    Ready(Watch &watch, uint32_t events, const Location &at)
        : Operation(kOperation, at), watch_(watch), events_(events) {}
    bool start() {
        watch_.waits.push_back(*this);
        error_ = watch_.ask(events_);
        return failed();
    }
    Result<uint32_t> finish() {
        if (failed()) return error();
        return events_;
    }
    // Whether this is what it waits for.
    bool tell(uint32_t ready) {
        const uint32_t told = ready & (events_ | CL_NEST_HANGUP | CL_NEST_ERROR);
        if (told == 0) return false;
        events_ = told;
        complete();
        return true;
    }

  private:
    Watch &watch_;
    uint32_t events_;
};

inline Watch::Ready Watch::readable(Location at) {
    return Ready(*this, CL_NEST_READ, at);
}
inline Watch::Ready Watch::writable(Location at) {
    return Ready(*this, CL_NEST_WRITE, at);
}

// What nobody waits for is not watched any more: it would be told in every turn.
inline void Watch::tell(uint32_t ready) {
    bool told = false;
    for (detail::Wait *wait = waits.first(); wait != nullptr; wait = waits.after(*wait))
        if (!wait->finished()) told |= static_cast<Ready *>(wait)->tell(ready);
    if (told) return;
    events_ = 0;
    CL_ChangeNestWatch_M(watch_, 0, &error_, 0, at_.file(), at_.line());
}

namespace detail {

// A watch for one wait.
class [[nodiscard]] ReadyOnce : public Operation<ReadyOnce> {
  public:
    static constexpr char kOperation[] = "ready";
    ReadyOnce(int fd, uint32_t events, const Location &at)
        : Operation(kOperation, at), fd_(fd), events_(events) {}
    ~ReadyOnce() { stop(); }
    bool start() {
        watch_ = CL_CreateNestWatch_M(fd_, events_, 0, on_ready, reinterpret_cast<uint64_t>(this),
                                      0, &error_, 0, at().file(), at().line());
        return watch_ == nullptr;
    }
    Result<uint32_t> finish() {
        stop();
        if (failed()) return error();
        return events_;
    }

  private:
    static uint32_t on_ready(CL_NestWatch * /*watch*/, uint32_t ready, uint64_t self,
                             uint64_t /*arg2*/) {
        auto &wait = *reinterpret_cast<ReadyOnce *>(self);
        wait.events_ = ready;
        wait.complete();
        wait.stop();
        return scheduler.drain();
    }
    void stop() {
        if (watch_ != nullptr) CL_DeleteNestWatch_M(watch_, nullptr, 0, at().file(), at().line());
        watch_ = nullptr;
    }

    int fd_;
    uint32_t events_;
    CL_NestWatch *watch_ = nullptr;
};

}  // namespace detail

/// Waits until the descriptor can be read; gives CL_NEST_... bits. One wait for a descriptor at a
/// time (EEXIST): a Watch takes two. It costs two system calls a wait, a Watch none.
inline auto readable(int fd, Location at = {}) {
    return detail::ReadyOnce(fd, CL_NEST_READ, at);
}
/// Waits until the descriptor can be written; as readable().
inline auto writable(int fd, Location at = {}) {
    return detail::ReadyOnce(fd, CL_NEST_WRITE, at);
}

/// A signal that came.
struct Signal {
    int number;  ///< SIGTERM, ...
    pid_t pid;   ///< who sent it
    uid_t uid;   ///< whose process that was
    int value;   ///< of sigqueue(3)
};

/// Signals as something to wait for, blocked meanwhile in the calling thread. One that comes again
/// before it was taken counts once, as pending signals do.
class Signals : private detail::Node {
  public:
    class Next;
    /// Up to eight signals, 0 for none. EBUSY for those of the library, SIGALRM and SIGCHLD. A
    /// failure is told by next().
    Signals(int first, int second = 0, int third = 0, int fourth = 0, int fifth = 0, int sixth = 0,
            int seventh = 0, int eighth = 0, Location at = {}) {
        watch(first, at);
        for (const int signal : {second, third, fourth, fifth, sixth, seventh, eighth})
            if (signal != 0) watch(signal, at);
        if (error_.err != 0) release_watchers();
    }
    ~Signals() override { release_watchers(); }

    /// Waits for the next signal; those that came first in the list go first.
    Next next(Location at = {});

  private:
    struct Slot {
        CL_NestSignal *watcher = nullptr;
        Signal signal = {};
        bool pending = false;
    };

    static inline uint32_t on_signal(CL_NestSignal *watcher, const signalfd_siginfo *info,
                                     uint64_t self, uint64_t place);
    void release() override {
        release_watchers();
        error_ = detail::record(CL_ERR_STATE);
        cancel_all(error_);
    }
    void watch(int signal, const Location &at) {
        if (error_.err != 0) return;
        slots_[count_].watcher =
            CL_CreateNestSignal_M(signal, on_signal, reinterpret_cast<uint64_t>(this), count_,
                                  &error_, 0, at.file(), at.line());
        if (slots_[count_].watcher != nullptr) ++count_;
    }
    void release_watchers() {
        while (count_ != 0)
            CL_DeleteNestSignal(slots_[--count_].watcher, nullptr);
    }
    Slot *pending() {
        for (size_t i = 0; i < count_; ++i)
            if (slots_[i].pending) return &slots_[i];
        return nullptr;
    }

    std::array<Slot, 8> slots_;
    size_t count_ = 0;
    CL_ErrInfo error_ = {};
};

/// The wait for a signal.
class [[nodiscard]] Signals::Next : public detail::Operation<Next> {
  public:
    static constexpr char kOperation[] = "Signals::next";
    Next(Signals &signals, const Location &at) : Operation(kOperation, at), signals_(signals) {}
    bool start() {
        error_ = signals_.error_;
        signals_.waits.push_back(*this);
        return failed() || signals_.pending() != nullptr;
    }
    Result<Signal> finish() {
        if (failed()) return error();
        Slot *slot = signals_.pending();
        if (slot == nullptr) return detail::failure(kOperation, EAGAIN);
        slot->pending = false;
        return slot->signal;
    }

  private:
    Signals &signals_;
};

inline Signals::Next Signals::next(Location at) {
    return Next(*this, at);
}

inline uint32_t Signals::on_signal(CL_NestSignal * /*watcher*/, const signalfd_siginfo *info,
                                   uint64_t self, uint64_t place) {
    auto &signals = *reinterpret_cast<Signals *>(self);
    Slot &slot = signals.slots_[place];
    slot.signal = {static_cast<int>(info->ssi_signo), static_cast<pid_t>(info->ssi_pid),
                   info->ssi_uid, info->ssi_int};
    slot.pending = true;
    if (auto *wait = signals.first<Next>()) wait->complete();
    return detail::scheduler.drain();
}

}  // namespace cpp
}  // namespace qvcl
