// What the measurements share: sides that take turns, system calls that are counted, processors.
//
// A figure is a ratio of sides that were measured in one run. The machine is never quiet, so the
// sides take turns in short batches: one batch of each is a round, every round gives one figure,
// and the median of the rounds is what is told, with its quartiles. Absolute times are told beside
// it; they say something about this machine only.
#pragma once

#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

[[noreturn]] inline void give_up(const std::string &what) {
    perror(what.c_str());
    _Exit(1);
}

inline void check(bool fine, const char *what) {
    if (!fine) give_up(what);
}

// ---------------------------------------------------------------- processors

// The n-th processor that this process may use; the last one when there are fewer.
inline int processor(unsigned n) {
    cpu_set_t all;
    check(sched_getaffinity(0, sizeof all, &all) == 0, "sched_getaffinity");
    int found = -1;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (!CPU_ISSET(cpu, &all)) continue;
        found = cpu;
        if (n-- == 0) break;
    }
    return found;
}

inline void pin(int cpu) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    check(sched_setaffinity(0, sizeof one, &one) == 0, "sched_setaffinity");
}

// ---------------------------------------------------------------- comparisons

// One side: does its work n times and returns the seconds that took.
struct Side {
    std::string name;
    std::function<double(size_t n)> run;
};

// A side that works in this process.
template <class Work>
Side local(std::string name, Work work) {
    return {std::move(name), [work](size_t n) {
                const auto start = Clock::now();
                work(n);
                return since(start);
            }};
}

using Times = std::vector<double>;  // seconds of one operation, in the order of the sides

// What a round is reduced to, and what is asked of it: text "at most 1.5" and so on; no limit, no
// verdict.
struct Figure {
    std::string meaning;
    std::function<double(const Times &)> of;
    enum { none, at_most, at_least } asked = none;
    double limit = 0;

    bool met(double value) const {
        return asked == none || (asked == at_most ? value <= limit : value >= limit);
    }
};

// Time of the first side in units of the second's.
inline Figure times_of(const std::string &floor, double limit = 0) {
    return {"x " + floor, [](const Times &t) { return t[0] / t[1]; },
            limit != 0 ? Figure::at_most : Figure::none, limit};
}

// Speed of the first side in units of the second's.
inline Figure speed_of(const std::string &floor, double limit = 0) {
    return {"of the speed of " + floor, [](const Times &t) { return t[1] / t[0]; },
            limit != 0 ? Figure::at_least : Figure::none, limit};
}

struct Comparison {
    std::vector<Side> sides;
    std::vector<Figure> figures;
    double batch_seconds = 1e-3;  // what one side's turn should take
};

inline double quantile(Times values, double q) {
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(lround(q * static_cast<double>(values.size() - 1)))];
}

inline std::string number(double value) {
    char out[64];
    snprintf(out, sizeof out, "%.2f", value);
    return out;
}

inline std::string duration(double seconds) {
    if (seconds < 1e-6) return number(seconds * 1e9) + " ns";
    if (seconds < 1e-3) return number(seconds * 1e6) + " us";
    return number(seconds * 1e3) + " ms";
}

// How often a side's work is repeated for its turn to take that long. The first time of all may
// have more to do.
inline size_t batch_size(const Side &side, double wanted) {
    side.run(1);
    for (size_t n = 1;; n *= 2) {
        const double seconds = side.run(n);
        if (seconds >= wanted) return n;
        if (seconds > wanted / 64) {
            return static_cast<size_t>(static_cast<double>(n) * wanted / seconds) + 1;
        }
    }
}

// The sides' medians, then every figure with its quartiles and whether it is what was asked.
inline void tell(benchmark::State &state, const Comparison &comparison,
                 const std::vector<Times> &rounds) {
    const auto over_rounds = [&](const auto &of) {
        Times all;
        for (const Times &round : rounds)
            all.push_back(of(round));
        return all;
    };
    std::string label;
    for (size_t i = 0; i < comparison.sides.size(); ++i) {
        const double median = quantile(over_rounds([i](const Times &t) { return t[i]; }), 0.5);
        const std::string &name = comparison.sides[i].name;
        label += (i != 0 ? ", " : "") + name + " " + duration(median);
        state.counters[name] = median;
    }
    for (const Figure &figure : comparison.figures) {
        const Times all = over_rounds(figure.of);
        const double median = quantile(all, 0.5);
        label += "\n    " + number(median) + " " + figure.meaning + "  [" +
                 number(quantile(all, 0.25)) + " .. " + number(quantile(all, 0.75)) + "]";
        if (figure.asked != Figure::none) {
            label += figure.asked == Figure::at_most ? "  asked: at most " : "  asked: at least ";
            label += number(figure.limit) + (figure.met(median) ? "" : "  MISSED");
        }
        state.counters[figure.meaning] = median;
    }
    state.SetLabel(label);
}

// Adds a comparison. `make` sets it up just before it is run; what it needs lives in its sides.
inline void compare(const std::string &name, const std::function<Comparison()> &make,
                    int rounds = 101) {
    benchmark::RegisterBenchmark(
        name.c_str(),
        [make](benchmark::State &state) {
            const Comparison comparison = make();
            std::vector<size_t> batches;
            for (const Side &side : comparison.sides)
                batches.push_back(batch_size(side, comparison.batch_seconds));
            std::vector<Times> all;
            for ([[maybe_unused]] auto _ : state) {
                // Nobody pays for whoever went before: the sides take turns in going first, and
                // each has some time to itself before its time is taken.
                Times round(batches.size());
                for (size_t turn = 0; turn < batches.size(); ++turn) {
                    const size_t i = (all.size() + turn) % batches.size();
                    comparison.sides[i].run(batches[i] / 8 + 1);
                    round[i] =
                        comparison.sides[i].run(batches[i]) / static_cast<double>(batches[i]);
                }
                state.SetIterationTime(round.front());
                all.push_back(round);
            }
            tell(state, comparison, all);
        })
        ->Iterations(rounds)
        ->UseManualTime();
}

// ---------------------------------------------------------------- counted system calls

constexpr long kMark = 0x51564d;  // no system call has this number

// Opens and closes the stretch that is counted.
inline void mark() {
    syscall(kMark);
}

struct Calls {
    std::map<std::string, double> by_name;
    double total = 0;

    std::string per(double operations) const {
        std::string out = number(total / operations) + " system calls";
        for (const auto &[name, count] : by_name) {
            out += (name == by_name.begin()->first ? ": " : ", ") + name + " " +
                   number(count / operations);
        }
        return out;
    }
};

inline std::string call_name(unsigned long long number) {
    static const std::map<unsigned long long, const char *> names = {
        {SYS_accept, "accept"},       {SYS_fcntl, "fcntl"},
        {SYS_pselect6, "pselect6"},   {SYS_read, "read"},
        {SYS_recvfrom, "recvfrom"},   {SYS_rt_sigprocmask, "rt_sigprocmask"},
        {SYS_sendto, "sendto"},       {SYS_write, "write"},
        {SYS_setitimer, "setitimer"}, {SYS_epoll_wait, "epoll_wait"},
    };
    const auto found = names.find(number);
    return found != names.end() ? found->second : "call " + std::to_string(number);
}

// Runs `work` in a forked, traced process and counts what it calls between its first two mark()s.
inline Calls count_calls(const std::function<void()> &work) {
    fflush(stdout);
    const pid_t child = fork();
    check(child >= 0, "fork");
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        work();
        fflush(stdout);
        _exit(0);
    }
    Calls calls;
    int marks = 0;
    int status;
    waitpid(child, &status, 0);
    check(ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) == 0,
          "ptrace");
    for (long signal = 0;;) {
        ptrace(PTRACE_SYSCALL, child, nullptr, signal);
        signal = 0;
        waitpid(child, &status, 0);
        if (WIFEXITED(status) || WIFSIGNALED(status)) break;
        if (WSTOPSIG(status) != (SIGTRAP | 0x80)) {
            signal = WSTOPSIG(status);
            continue;
        }
        __ptrace_syscall_info info = {};
        ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
        if (info.op != PTRACE_SYSCALL_INFO_ENTRY) continue;
        if (info.entry.nr == kMark) {
            ++marks;
        } else if (marks == 1) {
            calls.by_name[call_name(info.entry.nr)] += 1;
            calls.total += 1;
        }
    }
    check(WIFEXITED(status) && WEXITSTATUS(status) == 0 && marks >= 2,
          "the counted process failed");
    return calls;
}

// ---------------------------------------------------------------- the report

// One paragraph for each comparison, as soon as it is there.
class Reporter : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context & /*context*/) override {
        double load = 0;
        getloadavg(&load, 1);
        printf("load average at the start: %.2f\n", load);
        return true;
    }
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            printf("%s\n    %s\n", run.run_name.function_name.c_str(), run.report_label.c_str());
        }
        fflush(stdout);
    }
};

inline int run(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace bench
