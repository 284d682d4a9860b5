// qvcl for C++: programs that are started, and being one.
//
//     Process worker = Process::start({"/usr/libexec/worker", "-v"}, {.reports = true}).value();
//     co_await with_deadline(10s, worker.ready());
//     auto end = co_await worker.exit();      // how it ended
//     co_await worker.end(5s);                // asks it to, and kills it when the grace is over
#pragma once

#include <qvcl/child.h>
#include <qvcl/starter.h>
#include <qvcl/cpp/runtime.hpp>
#include <qvcl/cpp/time.hpp>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

namespace qvcl {
inline namespace cpp {

/// One change to the environment of a started program.
struct Variable {
    std::string name;                  ///< which
    std::optional<std::string> value;  ///< none: it is removed
};

/// How a program is started.
struct ProcessOptions {
    bool reports = false;                 ///< it will say that it is up (RuntimeOptions::reports)
    const char *path = nullptr;           ///< of the program; null: the first argument
    std::vector<Variable> environment{};  ///< changes to that of the starter
};

/// How a program ended.
struct Exit {
    uint32_t reason;  ///< CL_CHILD_EXITED or CL_CHILD_KILLED
    uint32_t value;   ///< exit status, or signal

    /// Whether it exited with 0.
    bool ok() const { return reason == CL_CHILD_EXITED && value == 0; }
};

namespace detail {

class Up;
class Exited;
class Ended;

class ProcessNode final : public Node {
  public:
    explicit ProcessNode(const Location &where) : at(where) {}
    ~ProcessNode() override { release(); }

    static inline uint32_t on_event(CL_Object *object, CL_Event *event, uint64_t self,
                                    uint64_t arg2);

    CL_ErrInfo begin(const std::vector<std::string> &arguments, const ProcessOptions &options) {
        if (arguments.empty()) return record(EINVAL);
        std::vector<char *> argv;
        for (const std::string &argument : arguments)
            argv.push_back(const_cast<char *>(argument.c_str()));
        argv.push_back(nullptr);
        std::vector<CL_EnvChange> changes;
        for (const Variable &variable : options.environment) {
            changes.push_back(
                {variable.name.c_str(), variable.value ? variable.value->c_str() : nullptr});
        }
        changes.push_back({nullptr, nullptr});
        const CL_Program program = {options.path != nullptr ? options.path : argv[0], argv.data(),
                                    changes.data(), options.reports ? 1u : 0u};
        reports = options.reports;
        CL_ErrInfo err = {};
        object = CL_StartProgram_M(&program, on_event, reinterpret_cast<uint64_t>(this), 0, &err, 0,
                                   at.file(), at.line());
        if (object != nullptr) pid = static_cast<pid_t>(object->child.pid);
        return err;
    }

    CL_ErrInfo send_signal(int signal) {
        if (object == nullptr) return record(ESRCH);
        return kill(pid, signal) == 0 ? CL_ErrInfo{} : record(errno);
    }
    // Who has reported is asked over its connection; the others know no other way than a signal.
    CL_ErrInfo ask() {
        CL_ErrInfo err = {};
        if (up && object != nullptr && CL_RequestEnd(object, &err) != 0) return {};
        return send_signal(SIGTERM);
    }
    void release() override {
        // Deleting waits for the child, which may ignore the signal that it sends.
        if (object != nullptr) kill(pid, SIGKILL);
        remove();
    }
    void remove() {
        if (object != nullptr && CL_DeleteFD_M(object, nullptr, 0, at.file(), at.line()) != 0)
            object = nullptr;
    }

    CL_Object *object = nullptr;  // while it runs
    pid_t pid = 0;
    bool reports = false;
    bool up = false;
    std::optional<Exit> exit;
    Location at;
};

// What a wait for a process begins with. True when it need not begin.
inline bool wait_for(ProcessNode *node, Wait &wait, CL_ErrInfo &error) {
    if (node == nullptr) {
        error = record(EBADF);
    } else if (!node->exit && node->object == nullptr) {
        error = record(CL_ERR_STATE);
    }
    if (error.err != 0) return true;
    node->waits.push_back(wait);
    return false;
}

class [[nodiscard]] Up : public Operation<Up> {
  public:
    static constexpr char kOperation[] = "ready";
    Up(ProcessNode *node, const Location &where) : Operation(kOperation, where), node_(node) {}
    bool start() {
        if (wait_for(node_, *this, error_)) return true;
        if (!node_->reports) error_ = record(EINVAL);
        return failed() || node_->up || node_->exit;
    }
    Result<> finish() {
        if (!failed() && !node_->up) error_ = record(ESRCH);
        return error();
    }

  private:
    ProcessNode *node_;
};

class [[nodiscard]] Exited : public Operation<Exited> {
  public:
    static constexpr char kOperation[] = "exit";
    Exited(ProcessNode *node, const Location &where) : Operation(kOperation, where), node_(node) {}
    bool start() { return wait_for(node_, *this, error_) || node_->exit; }
    Result<Exit> finish() {
        if (failed()) return error();
        return *node_->exit;
    }

  private:
    ProcessNode *node_;
};

class [[nodiscard]] Ended : public Operation<Ended> {
  public:
    static constexpr char kOperation[] = "end";
    Ended(ProcessNode *node, std::chrono::nanoseconds grace, const Location &where)
        : Operation(kOperation, where), timer_(*this), node_(node), grace_(grace) {}
    bool start() {
        if (wait_for(node_, *this, error_) || node_->exit) return true;
        error_ = timer_.start(CL_NEST_MONOTONIC, grace_, {}, at());
        if (!failed()) error_ = node_->ask();
        return failed();
    }
    Result<Exit> finish() {
        timer_.stop();
        if (failed()) return error();
        return *node_->exit;
    }
    void on_timer(uint64_t /*missed*/) {
        if (finished()) return;
        const CL_ErrInfo err = node_->send_signal(SIGKILL);
        if (err.err != 0) fail(err);
    }

  private:
    Timer<Ended> timer_;
    ProcessNode *node_;
    std::chrono::nanoseconds grace_;
};

inline uint32_t ProcessNode::on_event(CL_Object * /*object*/, CL_Event *event, uint64_t self,
                                      uint64_t /*arg2*/) {
    auto &node = *reinterpret_cast<ProcessNode *>(self);
    if (event->type == CL_EVENT_EXEC_COMPLETE) {
        node.up = true;
        while (auto *wait = node.first<Up>())
            wait->complete();
    } else if (event->type == CL_EVENT_CHILD_END) {
        node.exit = Exit{event->exit_reason, event->exit_value};
        node.remove();
        for (Wait *wait = node.waits.first(); wait != nullptr; wait = node.waits.after(*wait))
            if (!wait->finished()) wait->complete();
    } else {
        node.cancel_all(event->error);
    }
    return scheduler.drain();
}

}  // namespace detail

/// A program that was started. It moves; destroying it kills the program (SIGKILL) and reaps it.
class Process {
  public:
    /// Of no use: every call fails with EBADF.
    Process() = default;

    /// Starts a program. arguments: the first is its path, unless the options name another. ENOENT,
    /// EACCES and the like when it cannot be executed.
    static Result<Process> start(const std::vector<std::string> &arguments,
                                 const ProcessOptions &options = {}, Location at = {}) {
        std::unique_ptr<detail::ProcessNode> node(new (std::nothrow) detail::ProcessNode(at));
        const CL_ErrInfo err =
            node != nullptr ? node->begin(arguments, options) : detail::record(ENOMEM);
        if (err.err != 0) return Error("CL_StartProgram", err);
        return Process(std::move(node));
    }

    /// Waits until it reports that it is up. Result<>: ESRCH when it has ended before, EINVAL when
    /// it was not started as one that reports.
    detail::Up ready(Location at = {}) { return {node_.get(), at}; }
    /// Waits until it has ended. Result<Exit>. Any number of tasks may wait.
    detail::Exited exit(Location at = {}) { return {node_.get(), at}; }
    /// Asks it to end, waits, and kills it when the grace is over. Result<Exit>.
    detail::Ended end(std::chrono::nanoseconds grace, Location at = {}) {
        return {node_.get(), grace, at};
    }
    /// Asks it to end: over its connection when it has reported, else by SIGTERM.
    Result<> ask_to_end() {
        return Error("ask_to_end", node_ != nullptr ? node_->ask() : detail::record(EBADF));
    }
    /// Sends it a signal. ESRCH when it has ended.
    Result<> signal(int number) {
        return Error("signal",
                     node_ != nullptr ? node_->send_signal(number) : detail::record(EBADF));
    }
    /// Its process id.
    pid_t pid() const { return node_ != nullptr ? node_->pid : 0; }
    /// Whether it has not ended yet.
    bool is_running() const { return node_ != nullptr && node_->object != nullptr; }
    /// The object of the C interface, or null when it has ended.
    CL_Object *object() const { return node_ != nullptr ? node_->object : nullptr; }

  private:
    explicit Process(std::unique_ptr<detail::ProcessNode> node) : node_(std::move(node)) {}

    std::unique_ptr<detail::ProcessNode> node_;
};

/// The other side: who started this program, and wants to know when it is up.
class Starter : private detail::Node {
  public:
    class Asked;

    /// Reports that this program is up. status: ENOENT when it was not started by one who waits for
    /// that.
    explicit Starter(Result<> &status, Location at = {}) : at_(at) {
        CL_ErrInfo err = {};
        object_ = CL_StartupComplete_M(on_end, reinterpret_cast<uint64_t>(this), 0, 0, &err, 0,
                                       at.file(), at.line());
        status = Error("CL_StartupComplete", err);
        if (object_ == nullptr) reason_ = err;
    }
    ~Starter() override { remove(); }

    /// Waits until the starter asks this program to end. EPIPE when the starter is gone; the Error
    /// of the report when that failed.
    Asked asked_to_end(Location at = {});

  private:
    static inline uint32_t on_end(CL_Object *object, CL_Event *event, uint64_t self, uint64_t arg2);
    void remove() {
        if (object_ != nullptr) CL_DeleteFD_M(object_, nullptr, 0, at_.file(), at_.line());
        object_ = nullptr;
    }
    void release() override {
        remove();
        reason_ = detail::record(CL_ERR_STATE);
        cancel_all(reason_);
    }

    CL_Object *object_ = nullptr;
    CL_ErrInfo reason_ = {};
    bool asked_ = false;
    Location at_;
};

/// The wait to be asked to end.
class [[nodiscard]] Starter::Asked : public detail::Operation<Asked> {
  public:
    static constexpr char kOperation[] = "asked_to_end";
    Asked(Starter &starter, const Location &at) : Operation(kOperation, at), starter_(starter) {}
    bool start() {
        error_ = starter_.reason_;
        starter_.waits.push_back(*this);
        return failed() || starter_.asked_;
    }
    Result<> finish() { return error(); }

  private:
    Starter &starter_;
};

inline Starter::Asked Starter::asked_to_end(Location at) {
    return Asked(*this, at);
}

inline uint32_t Starter::on_end(CL_Object * /*object*/, CL_Event *event, uint64_t self,
                                uint64_t /*arg2*/) {
    auto &starter = *reinterpret_cast<Starter *>(self);
    starter.object_ = nullptr;  // the library deletes it
    starter.reason_ = event->error;
    starter.asked_ = event->error.err == 0;
    while (auto *wait = starter.first<Asked>())
        wait->fail(event->error);
    return detail::scheduler.drain();
}

/// Tells the service manager, if there is one: "READY=1", for example; as CL_NotifyManager.
inline Result<> notify_manager(const char *state) {
    CL_ErrInfo err = {};
    if (CL_NotifyManager(state, &err) != 0 || err.err == 0) return {};
    return Error("CL_NotifyManager", err);
}

}  // namespace cpp
}  // namespace qvcl
