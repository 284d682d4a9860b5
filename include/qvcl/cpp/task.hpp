// qvcl for C++: tasks, and what they wait for.
//
// A Task is a coroutine that starts when it is awaited, spawned or started. One thread runs them
// all, the loop's. Callbacks of the library never run a task: they complete the wait of one, which
// makes it ready, and what is ready runs at the end of the callback, one after the other, nothing
// inside of anything else. So any object may be destroyed anywhere, and no stack grows.
//
// A wait lives in the frame of the task that waits, and takes itself out of every list when that is
// destroyed. Destroying a task cancels it, at whatever it waits for; a task that destroys itself
// runs on to its next wait.
#pragma once

#include <qvcl/cpp/result.hpp>

#include <concepts>
#include <coroutine>
#include <ctime>

namespace qvcl {
inline namespace cpp {

namespace detail {

// ---------------------------------------------------------------- lists

// A place in a List<T, Tag>; T derives from one for each list that it can be on.
template <class Tag>
class Linked {
  public:
    Linked() = default;
    Linked(const Linked &) = delete;
    Linked &operator=(const Linked &) = delete;
    ~Linked() { unlink(); }

    bool linked() const { return next_ != nullptr; }
    void unlink() {
        if (next_ == nullptr) return;
        next_->previous_ = previous_;
        previous_->next_ = next_;
        next_ = previous_ = nullptr;
    }

  private:
    template <class T, class OfTag>
    friend class List;

    void link_before(Linked &other) {
        unlink();
        next_ = &other;
        previous_ = other.previous_;
        previous_->next_ = other.previous_ = this;
    }

    Linked *next_ = nullptr;
    Linked *previous_ = nullptr;
};

template <class T, class Tag>
class List {
  public:
    constexpr List() { head_.next_ = head_.previous_ = &head_; }

    bool empty() const { return head_.next_ == &head_; }
    T *first() { return at(head_.next_); }
    T *after(T &element) { return at(static_cast<Linked<Tag> &>(element).next_); }
    void push_back(T &element) { static_cast<Linked<Tag> &>(element).link_before(head_); }
    void push_front(T &element) { static_cast<Linked<Tag> &>(element).link_before(*head_.next_); }

  private:
    T *at(Linked<Tag> *link) { return link == &head_ ? nullptr : static_cast<T *>(link); }

    Linked<Tag> head_;
};

struct InReady;    // tasks that will run
struct InWaiting;  // tasks that wait for something of the library
struct InRoots;    // tasks that were spawned or started
struct InDoomed;   // tasks that were destroyed while they ran
struct InNode;     // waits for one thing
struct InNodes;    // things that have something of the library's

// ---------------------------------------------------------------- who runs what

class Wait;
class Promise;
class Node;
class OwnerBase;

// What all tasks have: their place in the lists, and who waits for them.
class Promise : public Linked<InReady>,
                public Linked<InWaiting>,
                public Linked<InRoots>,
                public Linked<InDoomed> {
  public:
    explicit Promise(std::coroutine_handle<> handle) : self(handle) {}
    inline ~Promise();

    std::coroutine_handle<> self;
    Promise *awaiter = nullptr;  // the task that awaits this one
    Wait *wait = nullptr;        // what it waits for
    OwnerBase *owner = nullptr;  // of a task that was started
    const char *file = nullptr;  // where it was spawned or started
    uint32_t line = 0;
    bool escapes = false;   // its exception comes out of run(), whoever has its handle
    bool detached = false;  // spawned: nobody awaits it
    bool finished = false;
#if QVCL_EXCEPTIONS
    std::exception_ptr thrown;
#endif
};

// The lists. There is one loop in a process, and one of these.
class Scheduler {
  public:
    // Callbacks in a row that a turn of the loop may make tasks run.
    static constexpr uint32_t kMost = 1000;

    void wake(Promise &task) { ready.push_back(task); }
    void run_next(Promise &task) { ready.push_front(task); }

    // The end of every callback: runs what is ready. The callback's result.
    uint32_t drain() {
        if (draining) return 0;
        draining = true;
        for (uint32_t i = 0; i < kMost && !stopped; ++i) {
            Promise *task = ready.first();
            if (task == nullptr) break;
            static_cast<Linked<InReady> *>(task)->unlink();
            current = task;
            task->self.resume();
            current = nullptr;
            while (Promise *gone = doomed.first())
                gone->self.destroy();
        }
        draining = false;
        if (!stopped && !ready.empty() && again != nullptr) again();
        return stopped ? 1 : 0;
    }

    // Destroys a task, and with it those that it awaits. One that runs is destroyed at its next
    // wait.
    void destroy(Promise &task) {
        for (Promise *at = current; at != nullptr; at = is_root(*at) ? nullptr : at->awaiter) {
            if (at != &task) continue;
            task.awaiter = nullptr;
            task.owner = nullptr;
            task.detached = true;
            doomed.push_back(task);
            return;
        }
        task.self.destroy();
    }

    static bool is_root(Promise &task) { return static_cast<Linked<InRoots> &>(task).linked(); }

    void stop(int value) {
        if (stopped) return;
        stopped = true;
        stop_value = value;
    }

    // Whether an exception is on its way out of run().
    bool stopping() const {
#if QVCL_EXCEPTIONS
        return escaped != nullptr;
#else
        return false;
#endif
    }
#if QVCL_EXCEPTIONS
    // The exception comes out of run().
    void escape(std::exception_ptr thrown) {
        if (!escaped) escaped = std::move(thrown);
        stopped = true;
    }
#endif

    List<Promise, InReady> ready;
    List<Promise, InWaiting> waiting;
    List<Promise, InRoots> roots;
    List<Promise, InDoomed> doomed;
    List<Node, InNodes> nodes;
    Promise *current = nullptr;
    void (*again)() = nullptr;  // has drain called again, by the loop
    int stop_value = 0;
    bool stopped = false;
    bool draining = false;
#if QVCL_EXCEPTIONS
    std::exception_ptr escaped;
#endif
};

inline Scheduler scheduler;

// Calls what is the application's from within a callback: nothing is thrown through the library.
template <class Function>
void guarded(Function &&function) {
#if QVCL_EXCEPTIONS
    try {
        function();
    } catch (...) {
        scheduler.escape(std::current_exception());
    }
#else
    function();
#endif
}

// ---------------------------------------------------------------- waits

// The monotonic clock, as exact as the kernel's tick.
inline uint64_t coarse_milliseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

// A task's wait for something of the library. It is on the list of the node that it waits for, if
// there is one, until it is destroyed: the node tells it when it goes first.
class Wait : public Linked<InNode> {
  public:
    Wait(const char *operation, Location at) : operation_(operation), at_(at) {}

    bool finished() const { return finished_; }
    const char *operation() const { return operation_; }
    const Location &at() const { return at_; }
    uint64_t since() const { return since_; }

    // The end of the wait: the task will run.
    void complete() {
        finished_ = true;
        if (task_ == nullptr || task_->wait != this) return;
        task_->wait = nullptr;
        static_cast<Linked<InWaiting> *>(task_)->unlink();
        scheduler.wake(*task_);
    }
    void fail(const CL_ErrInfo &error) {
        error_ = error;
        complete();
    }
    // The node is gone, or will not do what was waited for.
    void cancel(const CL_ErrInfo &error) {
        unlink();
        if (!finished_ || error_.err == 0) error_ = error;
        if (!finished_) complete();
    }

    void suspend(Promise &task) {
        task_ = &task;
        task.wait = this;
        since_ = coarse_milliseconds();
        scheduler.waiting.push_back(task);
    }

  protected:
    ~Wait() {
        if (task_ != nullptr && task_->wait == this) task_->wait = nullptr;
    }
    Error error() const { return {operation_, error_}; }
    bool failed() const { return error_.err != 0; }

    CL_ErrInfo error_ = {};
    bool finished_ = false;

  private:
    const char *operation_;
    Location at_;
    Promise *task_ = nullptr;
    uint64_t since_ = 0;
};

// What `co_await` waits with: an operation, where that is.
template <class Waited>
class Awaited {
  public:
    explicit Awaited(Waited &waited) : waited_(waited) {}
    bool await_ready() { return waited_.await_ready(); }
    template <std::derived_from<Promise> P>
    void await_suspend(std::coroutine_handle<P> task) {
        waited_.await_suspend(task.promise());
    }
    [[nodiscard]] auto await_resume() { return waited_.await_resume(); }

  private:
    Waited &waited_;
};

// What is awaited. Self has
//     bool start();     finishes at once (true), or begins, and some callback will complete()
//     Result<T> finish();
// It can be neither copied nor moved, and only be awaited where it was made: what it refers to
// lives until the end of that expression.
template <class Self>
class [[nodiscard]] Operation : public Wait {
  public:
    using Wait::Wait;

    Awaited<Self> operator co_await() && { return Awaited<Self>(static_cast<Self &>(*this)); }

    bool await_ready() {
        if (static_cast<Self *>(this)->start()) finished_ = true;
        return finished_;
    }
    void await_suspend(Promise &task) { suspend(task); }
    auto await_resume() {
        struct AtTheEnd {
            Wait &wait;
            ~AtTheEnd() { wait.unlink(); }
        } const at_the_end{*this};
        return static_cast<Self *>(this)->finish();
    }
};

// Something that has objects of the library, and tasks that wait for it.
class Node : public Linked<InNodes> {
  public:
    Node() { scheduler.nodes.push_back(*this); }
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;

    // Gives back what is the library's; the node can do nothing more. More than once is fine.
    virtual void release() = 0;

    // The first unfinished wait of this sort, or null.
    template <class Sort>
    Sort *first() {
        for (Wait *wait = waits.first(); wait != nullptr; wait = waits.after(*wait)) {
            if (!wait->finished() && wait->operation() == Sort::kOperation)
                return static_cast<Sort *>(wait);
        }
        return nullptr;
    }
    // Whether there is one that has not been taken back by its task.
    template <class Sort>
    bool has() {
        for (Wait *wait = waits.first(); wait != nullptr; wait = waits.after(*wait))
            if (wait->operation() == Sort::kOperation) return true;
        return false;
    }
    void cancel_all(const CL_ErrInfo &error) {
        while (Wait *wait = waits.first())
            wait->cancel(error);
    }

    List<Wait, InNode> waits;

    virtual ~Node() { cancel_all(record(ECANCELED)); }
};

// ---------------------------------------------------------------- what tasks return

template <class T>
class Returned : public Promise {
  public:
    using Promise::Promise;
    template <class U>
    requires std::convertible_to<U &&, T>
    void return_value(U &&value) { value_.emplace(std::forward<U>(value)); }
    T take() { return std::move(*value_); }

  private:
    std::optional<T> value_;
};

template <>
class Returned<void> : public Promise {
  public:
    using Promise::Promise;
    void return_void() {}
    void take() {}
};

// The handle of a task that was started; it moves, and the task knows where it is.
class OwnerBase {
  protected:
    Promise *task_ = nullptr;
    friend class Promise;
};

inline Promise::~Promise() {
    if (owner != nullptr) owner->task_ = nullptr;
}

// The end of a task. A spawned one is destroyed; others wait until somebody takes what they return.
struct Final {
    bool await_ready() noexcept { return false; }
    template <class P>
    void await_suspend(std::coroutine_handle<P> self) noexcept {
        Promise &task = self.promise();
        task.finished = true;
        if (task.awaiter != nullptr) {
            scheduler.run_next(*task.awaiter);
            return;
        }
#if QVCL_EXCEPTIONS
        if (task.thrown && (task.detached || task.escapes))
            scheduler.escape(std::exchange(task.thrown, nullptr));
#endif
        if (task.detached) scheduler.doomed.push_back(task);
    }
    void await_resume() noexcept {}
};

}  // namespace detail

template <class T>
class Running;

/// A coroutine that returns a T. It starts when it is awaited (`co_await task()`), spawned or
/// started; destroying it cancels it. An exception that it does not catch goes to whoever awaits
/// it.
template <class T = void>
class [[nodiscard]] Task {
  public:
    /// The coroutine's promise.
    struct promise_type : detail::Returned<T> {
        promise_type()
            : detail::Returned<T>(std::coroutine_handle<promise_type>::from_promise(*this)) {}
        Task get_return_object() {
            return Task(std::coroutine_handle<promise_type>::from_promise(*this));
        }
        std::suspend_always initial_suspend() noexcept { return {}; }
        detail::Final final_suspend() noexcept { return {}; }
        void unhandled_exception() noexcept {
#if QVCL_EXCEPTIONS
            this->thrown = std::current_exception();
#else
            std::terminate();
#endif
        }
    };
    /// What it returns.
    using value_type = T;

    Task(Task &&other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Task &operator=(Task &&other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~Task() {
        cancel();
    }

    /// Destroys the coroutine.
    void cancel() {
        if (auto handle = std::exchange(handle_, nullptr))
            detail::scheduler.destroy(handle.promise());
    }

    /// The wait of one task for another.
    class Awaiter {
      public:
        explicit Awaiter(Task &&task) : task_(std::move(task)) {}
        bool await_ready() const { return false; }
        template <std::derived_from<detail::Promise> P>
        void await_suspend(std::coroutine_handle<P> awaiter) {
            task_.handle_.promise().awaiter = &awaiter.promise();
            detail::scheduler.run_next(task_.handle_.promise());
        }
        T await_resume() { return take(task_.handle_.promise()); }

      private:
        Task task_;
    };
    /// Runs it, and gives what it returns.
    Awaiter operator co_await() && {
        return Awaiter(std::move(*this));
    }

    /// For the layer: gives the coroutine away.
    std::coroutine_handle<promise_type> release() {
        return std::exchange(handle_, nullptr);
    }
    /// For the layer: what a finished task returned, or its exception.
    static T take(promise_type &promise) {
#if QVCL_EXCEPTIONS
        if (promise.thrown) std::rethrow_exception(std::exchange(promise.thrown, nullptr));
#endif
        return promise.take();
    }

  private:
    explicit Task(std::coroutine_handle<promise_type> handle) : handle_(handle) {}

    std::coroutine_handle<promise_type> handle_;
};

/// A task that was started and runs beside the others. Destroying it cancels the task, wherever
/// that stands; `co_await std::move(running)` waits for its end, and gives what it returns. When it
/// is destroyed with an exception that nobody took, the exception comes out of Runtime::run().
template <class T = void>
class [[nodiscard]] Running : private detail::OwnerBase {
  public:
    /// No task.
    Running() = default;
    /// For Runtime::start.
    explicit Running(typename Task<T>::promise_type &task) { own(&task); }
    Running(Running &&other) noexcept { own(other.disown()); }
    Running &operator=(Running &&other) noexcept {
        if (this == &other) return *this;
        cancel();
        own(other.disown());
        return *this;
    }
    ~Running() { cancel(); }

    /// Whether there is a task, ended or not.
    explicit operator bool() const { return task_ != nullptr; }
    /// Whether it has ended by itself, and can be awaited without waiting.
    bool finished() const { return task_ != nullptr && task_->finished; }

    /// Cancels the task.
    void cancel() {
        detail::Promise *task = disown();
        if (task == nullptr) return;
#if QVCL_EXCEPTIONS
        if (task->thrown) detail::scheduler.escape(std::move(task->thrown));
#endif
        detail::scheduler.destroy(*task);
    }

    /// The wait for its end.
    class Awaiter {
      public:
        explicit Awaiter(Running &&running) : running_(std::move(running)) {
            assert(running_.task_ != nullptr);
        }
        bool await_ready() const { return running_.task_->finished; }
        template <std::derived_from<detail::Promise> P>
        void await_suspend(std::coroutine_handle<P> awaiter) {
            running_.task_->awaiter = &awaiter.promise();
        }
        T await_resume() {
            return Task<T>::take(static_cast<typename Task<T>::promise_type &>(*running_.task_));
        }

      private:
        Running running_;
    };
    /// Waits for its end, and gives what it returns.
    Awaiter operator co_await() && {
        return Awaiter(std::move(*this));
    }

  private:
    void own(detail::Promise *task) {
        task_ = task;
        if (task_ != nullptr) task_->owner = this;
    }
    detail::Promise *disown() {
        detail::Promise *task = std::exchange(task_, nullptr);
        if (task != nullptr) task->owner = nullptr;
        return task;
    }
};

namespace detail {

// Makes a task one that runs by itself. detached: until it ends; else until its handle goes.
template <class P>
P &adopt(std::coroutine_handle<P> handle, bool detached, const Location &at) {
    P &task = handle.promise();
    task.detached = detached;
    task.file = at.file();
    task.line = at.line();
    scheduler.roots.push_back(task);
    scheduler.wake(task);
    if (!scheduler.draining && scheduler.again != nullptr) scheduler.again();
    return task;
}

}  // namespace detail

/// Something that tasks tell each other: those that wait run when it is set.
class Event : private detail::Node {
  public:
    class Wait;

    /// Not set.
    Event() = default;
    /// Sets it; all that wait for it run.
    inline void set();
    /// From now on it is not set.
    void reset() { set_ = false; }
    /// Whether it is set.
    bool is_set() const { return set_; }
    /// Waits until it is set.
    Wait wait(Location at = {});

  private:
    void release() override {}

    bool set_ = false;
};

/// The wait for an Event.
class [[nodiscard]] Event::Wait : public detail::Operation<Wait> {
  public:
    static constexpr char kOperation[] = "Event::wait";
    Wait(Event &event, const Location &at) : Operation(kOperation, at), event_(event) {}
    bool start() {
        event_.waits.push_back(*this);
        return event_.set_;
    }
    Result<> finish() { return error(); }

  private:
    Event &event_;
};

inline void Event::set() {
    set_ = true;
    while (auto *wait = first<Wait>())
        wait->complete();
    if (!detail::scheduler.draining && detail::scheduler.again != nullptr)
        detail::scheduler.again();
}

inline Event::Wait Event::wait(Location at) {
    return Wait(*this, at);
}

}  // namespace cpp
}  // namespace qvcl
