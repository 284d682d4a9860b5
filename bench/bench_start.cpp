// Starting programs: from the fork until the starter knows that the program is up, and children by
// the thousand.
//
// The floor is fork, exec and a pipe on which the program says that it is up. It is told twice:
// with a program that is linked with the library as ours is, and with one that needs the C library
// only, since loading a program takes longer than reporting.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <qvcl/qvcl.h>
#include <qvcl/starter.h>

#include "bench/support.h"

namespace {

constexpr size_t kChildren = 1000;
constexpr uint32_t kUp = 1;  // values that end the loop
constexpr uint32_t kEnded = 2;

// ---------------------------------------------------------------- the starter

char *const *arguments(const char *how) {
    static char *list[3];
    list[0] = const_cast<char *>("started");
    list[1] = const_cast<char *>(how);
    return list;
}

uint32_t on_report(CL_Object * /*child*/, CL_Event *event, uint64_t, uint64_t) {
    return event->type == CL_EVENT_EXEC_COMPLETE ? kUp : kEnded;
}

double until_reported() {
    const CL_Program program = {STARTED, arguments("report"), nullptr, 1};
    CL_ErrInfo err;
    const auto start = bench::Clock::now();
    CL_Object *child = CL_StartProgram(&program, on_report, 0, 0, &err);
    bench::check(child != nullptr && CL_EventLoop(&err) == kUp, "no report");
    const double seconds = bench::since(start);
    bench::check(CL_RequestEnd(child, &err) == 1 && CL_EventLoop(&err) == kEnded &&
                     CL_DeleteFD(child, &err) == 1,
                 "the end of a child");
    return seconds;
}

// arg1: where the children that are left are counted.
uint32_t on_end(CL_Object *child, CL_Event * /*event*/, uint64_t arg1, uint64_t) {
    CL_DeleteFD(child, nullptr);
    return --*reinterpret_cast<size_t *>(arg1) == 0 ? kEnded : 0;
}

void thousand() {
    const CL_Program program = {STARTED_BARE, arguments("exit"), nullptr, 0};
    CL_ErrInfo err;
    size_t left = kChildren;
    for (size_t i = 0; i < kChildren; ++i) {
        bench::check(CL_StartProgram(&program, on_end, reinterpret_cast<uint64_t>(&left), 0,
                                     &err) != nullptr,
                     "CL_StartProgram");
    }
    bench::check(CL_EventLoop(&err) == kEnded, "CL_EventLoop");
}

// ---------------------------------------------------------------- the floor

struct Pipe {
    int ends[2];
    Pipe() { bench::check(pipe2(ends, O_CLOEXEC) == 0, "pipe2"); }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    ~Pipe() {
        close(ends[0]);
        close(ends[1]);
    }
};

pid_t fork_and_exec(const char *program, const char *how, int in, int out) {
    const pid_t pid = fork();
    bench::check(pid >= 0, "fork");
    if (pid != 0) return pid;
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    execv(program, arguments(how));
    _exit(127);
}

// The program writes a byte when it is up, and ends when its input does.
double until_written(const char *program) {
    double seconds;
    pid_t pid;
    {
        Pipe in;
        Pipe out;
        char byte;
        const auto start = bench::Clock::now();
        pid = fork_and_exec(program, "pipe", in.ends[0], out.ends[1]);
        bench::check(read(out.ends[0], &byte, 1) == 1, "no byte");
        seconds = bench::since(start);
    }
    int status;
    bench::check(waitpid(pid, &status, 0) == pid && status == 0, "the end of a child");
    return seconds;
}

// As the starter, it knows of every child that exec has succeeded: the pipe closes.
void thousand_bare() {
    std::vector<pid_t> children;
    for (size_t i = 0; i < kChildren; ++i) {
        Pipe exec;
        char byte;
        children.push_back(fork_and_exec(STARTED_BARE, "exit", STDIN_FILENO, STDOUT_FILENO));
        close(exec.ends[1]);
        exec.ends[1] = -1;
        bench::check(read(exec.ends[0], &byte, 1) == 0, "exec");
    }
    for (const pid_t pid : children) {
        int status;
        bench::check(waitpid(pid, &status, 0) == pid && status == 0, "the end of a child");
    }
}

// ---------------------------------------------------------------- what is compared

template <class Start>
bench::Side side(const char *name, Start start) {
    return {name, [start](size_t n) {
                double seconds = 0;
                while (n-- != 0)
                    seconds += start();
                return seconds;
            }};
}

bench::Comparison reports() {
    return {{side("qvcl", until_reported),
             side("fork + exec + pipe", [] { return until_written(STARTED); }),
             side("the same without the library", [] { return until_written(STARTED_BARE); })},
            {bench::times_of("fork + exec + pipe"),
             {"x the same without the library", [](const bench::Times &t) { return t[0] / t[2]; }}},
            0};
}

bench::Comparison children() {
    const auto timed = [](void (*once)()) {
        return [once] {
            const auto start = bench::Clock::now();
            once();
            return bench::since(start) / kChildren;
        };
    };
    return {{side("qvcl", timed(thousand)), side("fork + exec + waitpid", timed(thousand_bare))},
            {bench::times_of("fork + exec + waitpid")},
            0};
}

}  // namespace

int main(int argc, char **argv) {
    const std::string path = "/tmp/qvcl-bench-" + std::to_string(getpid());
    bench::check(CL_Init(kChildren + 2, path.c_str(), nullptr) == 1, "CL_Init");
    bench::compare("from the start to the report", reports, 201);
    bench::compare("each of 1000 children, started and then reaped", children, 5);
    const int status = bench::run(argc, argv);
    CL_End(nullptr);
    unlink(path.c_str());
    return status;
}
