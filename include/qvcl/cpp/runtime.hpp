// qvcl for C++: the runtime, which begins and ends the library, and runs the loop.
//
//     int main() {
//         qvcl::Runtime rt({.objects = 300});
//         rt.spawn(daemon(rt));
//         return rt.run().value();
//     }
//
// A process has one Runtime in its life, because the library initialises once.
#pragma once

#include <qvcl/nest.h>
#include <qvcl/qvcl.h>
#include <qvcl/recorder.h>
#include <qvcl/cpp/task.hpp>

#include <memory>
#include <new>

namespace qvcl {
inline namespace cpp {

/// What a Runtime is made with.
struct RuntimeOptions {
    /// Descriptor objects that the process needs at a time: one for each server, connection,
    /// program, file and segment. At most CL_MAX_OBJECTS.
    uint32_t objects = 100;
    /// Where started programs report (Process::ready); null: nowhere.
    const char *reports = nullptr;
    /// Place of time, signals, descriptors and posts among the objects of the loop.
    uint32_t priority = 20;
    /// Of tracked memory, in bytes; 0: none.
    uint64_t memory_limit = CL_MEM_DEFAULT_LIMIT;
};

/// The library in use, its nest, and all tasks.
class Runtime {
  public:
    /// Initialises the library; raises the Error when it cannot.
    explicit Runtime(const RuntimeOptions &options = {}, Location at = {}) {
        begin(options, at).value();
    }
    /// The same; the Error goes to `status`, and the runtime is of no use then.
    Runtime(const RuntimeOptions &options, Result<> &status, Location at = {}) {
        status = begin(options, at);
    }
    Runtime(const Runtime &) = delete;
    Runtime &operator=(const Runtime &) = delete;

    /// Destroys all tasks, gives back what is left in servers, connections and the like (which can
    /// only be destroyed then), and ends the library.
    ~Runtime() { end(); }

    /// Makes a task run, until it ends by itself or the runtime is destroyed. Its exception comes
    /// out of run().
    template <class T>
    void spawn(Task<T> task, Location at = {}) {
        detail::adopt(task.release(), true, at);
    }
    /// The same for a function that makes the task, such as a lambda with captures: it lives as
    /// long as the task.
    template <class Function>
    requires std::is_invocable_v<Function &>
    void spawn(Function function, Location at = {}) { spawn(keep(std::move(function)), at); }
    /// Makes a task run; the handle cancels it when it is destroyed, or waits for its end.
    template <class T>
    Running<T> start(Task<T> task, Location at = {}) {
        return Running<T>(detail::adopt(task.release(), false, at));
    }
    /// The same for a function that makes the task, which lives as long as that.
    template <class Function>
    requires std::is_invocable_v<Function &>
    auto start(Function function, Location at = {}) { return start(keep(std::move(function)), at); }

    /// Runs the loop until stop(), and returns its value; or the Error of the loop. That memory or
    /// descriptors are missing is no such Error before it has lasted for five seconds. An exception
    /// that no task has caught ends it too, and comes out here. May be called again; EDEADLK
    /// when it is called by a task.
    Result<int> run(Location at = {}) {
        detail::Scheduler &scheduler = detail::scheduler;
        if (scheduler.draining) return detail::failure("run", EDEADLK);
        CL_ErrInfo err = {};
        scheduler.stopped = scheduler.stopping();
        uint32_t ended = scheduler.drain();
        if (ended == 0) ended = loop(err, at);
#if QVCL_EXCEPTIONS
        if (scheduler.escaped) std::rethrow_exception(std::exchange(scheduler.escaped, nullptr));
#endif
        if (ended == CL_LOOP_ERROR) return Error("CL_EventLoop", err);
        return scheduler.stop_value;
    }
    /// Runs the loop until the task has ended, and returns what that returns, or throws what it has
    /// thrown. ECANCELED when it was stopped before.
    template <class T>
    detail::ResultOf<T> run(Task<T> task, Location at = {}) {
        std::optional<detail::ResultOf<T>> result;
        auto &runner = detail::adopt(into(std::move(task), result).release(), false, at);
        runner.escapes = true;
        const Running<> running(runner);
        const Result<int> ended = run(at);
        if (result) return std::move(*result);
        if (!ended) return ended.error();
        return detail::failure("run", ECANCELED);
    }

    /// Ends run(), when the task or callback that calls this gives the loop back. The first value
    /// counts.
    void stop(int value = 0) {
        detail::scheduler.stop(value);
    }

    /// Has the loop's thread call the function; from any thread. The runtime must be there.
    /// ENOMEM when it could not be posted.
    template <class Function>
    Result<> post(Function function) {
        auto *held = new (std::nothrow) Function(std::move(function));
        if (held == nullptr) return detail::failure("post", ENOMEM);
        CL_ErrInfo err = {};
        const auto address = reinterpret_cast<uint64_t>(held);
        const auto drop = reinterpret_cast<uint64_t>(&drop_one<Function>);
        if (CL_NestPost(posts_, &call_one<Function>, address, drop, &err) != 0) return {};
        delete held;
        return Error("CL_NestPost", err);
    }

    /// Writes a dump: the library's rings and tables, behind lines on why and of what process it
    /// is, and a line `task: ` for each task that waits: where it was spawned, where it waits, for
    /// what, and for how long. path: null for the user ring's next generation.
    inline void dump(const char *path, const char *reason = "on request");
    /// The lines `task: ` of dump().
    inline std::string waiting_tasks() const;

  private:
    template <class Function>
    static std::invoke_result_t<Function &> keep(Function function) {
        co_return co_await function();
    }

    template <class T>
    static Task<> into(Task<T> task, std::optional<detail::ResultOf<T>> &result) {
        if constexpr (std::is_void_v<T>) {
            co_await std::move(task);
            result.emplace();
        } else {
            result.emplace(co_await std::move(task));
        }
        detail::scheduler.stop(0);
    }

    template <class Function>
    static uint32_t call_one(uint64_t function, uint64_t /*drop*/) {
        detail::guarded([function] {
            std::unique_ptr<Function> held(reinterpret_cast<Function *>(function));
            (*held)();
        });
        return detail::scheduler.drain();
    }
    template <class Function>
    static void drop_one(uint64_t function) {
        delete reinterpret_cast<Function *>(function);
    }
    static void drop(CL_NestWork /*work*/, uint64_t function, uint64_t drop_function) {
        reinterpret_cast<void (*)(uint64_t)>(drop_function)(function);
    }

    // What may pass ends the loop, and need not end the daemon: memory or descriptors that are
    // missing, a program that reports and is gone again.
    static bool passes(uint32_t code) {
        return code == ECONNABORTED || code == EAGAIN || code == EMFILE || code == ENFILE ||
               code == ENOBUFS || code == ENOMEM || code == EPERM;
    }
    static uint32_t loop(CL_ErrInfo &err, const Location &at) {
        uint64_t first = 0, last = 0;  // of the failures in a row
        for (;;) {
            const uint32_t ended = CL_EventLoop_M(&err, 0, at.file(), at.line());
            if (ended != CL_LOOP_ERROR || !passes(err.err)) return ended;
            const uint64_t now = detail::coarse_milliseconds();
            if (now - last > 1000) first = now;
            if (now - first > 5000) return ended;
            last = now;
            CL_Sleep(100);
        }
    }

    // Tasks that became ready outside of a callback, or too many for one.
    static uint32_t on_again(CL_NestTimer * /*timer*/, uint64_t /*missed*/, uint64_t /*arg1*/,
                             uint64_t /*arg2*/) {
        return detail::scheduler.drain();
    }
    static void run_again() {
        if (again_ != nullptr) CL_StartNestTimer(again_, CL_NEST_MONOTONIC, 0, 0, nullptr);
    }

    Result<> begin(const RuntimeOptions &options, const Location &at) {
        CL_ErrInfo err = {};
        if (CL_Init_M(options.objects, options.reports, &err, 0, at.file(), at.line()) == 0)
            return Error("CL_Init", err);
        begun_ = true;
        CL_memlimit(options.memory_limit);
        if (CL_CreateNest_M(options.priority, 0, &err, 0, at.file(), at.line()) == 0)
            return Error("CL_CreateNest", err);
        again_ = CL_CreateNestTimer_M(0, on_again, 0, 0, &err, 0, at.file(), at.line());
        if (again_ == nullptr) return Error("CL_CreateNestTimer", err);
        posts_ = CL_CreateNestPosts_M(0, 0, drop, &err, 0, at.file(), at.line());
        if (posts_ == nullptr) return Error("CL_CreateNestPosts", err);
        detail::scheduler.again = run_again;
        return {};
    }

    void end() {
        if (!begun_) return;
        assert(!detail::scheduler.draining);  // no task may end what it runs in
        detail::Scheduler &scheduler = detail::scheduler;
        scheduler.again = nullptr;
        while (detail::Promise *task = scheduler.roots.first())
            task->self.destroy();
        while (detail::Node *node = scheduler.nodes.first()) {
            static_cast<detail::Linked<detail::InNodes> *>(node)->unlink();
            node->release();
        }
        CL_ErrInfo err = {};
        if (posts_ != nullptr) CL_DeleteNestPosts(posts_, nullptr, &err);
        again_ = nullptr;
        CL_DeleteNest(&err);
        CL_End(&err);
    }

    static inline CL_NestTimer *again_ = nullptr;
    CL_NestPosts *posts_ = nullptr;
    bool begun_ = false;
};

inline std::string Runtime::waiting_tasks() const {
    detail::Scheduler &scheduler = detail::scheduler;
    std::string text;
    const uint64_t now = detail::coarse_milliseconds();
    for (detail::Promise *task = scheduler.waiting.first(); task != nullptr;
         task = scheduler.waiting.after(*task)) {
        const detail::Promise *root = task;
        while (root->file == nullptr && root->awaiter != nullptr)
            root = root->awaiter;
        const detail::Wait &wait = *task->wait;
        const uint64_t waited = now - wait.since();
        char line[200];
        snprintf(line, sizeof line,
                 "task: spawned %.40s:%u, waits %.40s:%u %.40s since %llu.%03llu s\n",
                 root->file != nullptr ? root->file : "-", root->line, wait.at().file(),
                 wait.at().line(), wait.operation(), static_cast<unsigned long long>(waited / 1000),
                 static_cast<unsigned long long>(waited % 1000));
        text += line;
    }
    return text;
}

inline void Runtime::dump(const char *path, const char *reason) {
    std::string text(CL_DescribeProcess(reason, nullptr, 0) + 1, '\0');
    const size_t length = CL_DescribeProcess(reason, text.data(), text.size());
    text.resize(length < text.size() ? length : text.size() - 1);
    text += waiting_tasks();
    CL_TRC_Out(path, text.c_str());
}

}  // namespace cpp
}  // namespace qvcl
