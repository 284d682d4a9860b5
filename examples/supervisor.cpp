// The supervisor of supervisor.c in C++: keeps programs running, each in a task of its own, and
// starts what dies again after a pause that doubles from death to death.
//
//   cpp_supervisor SOCKET CONFIGURATION     as supervisor.c
//   cpp_supervisor SOCKET -- COMMAND...
#include <qvcl/qvcl.hpp>

#include <algorithm>
#include <iterator>
#include <list>
#include <sstream>

using namespace qvcl;
using namespace std::chrono_literals;

struct Program {
    Program(const std::string &title, const std::string &line, uint32_t seconds = 10)
        : name(title), command(line), patience(seconds) {}

    std::string name, command;
    uint32_t patience;
    Process process;
    Event come_up;  // or patience is at an end
    Running<> task;
};

static constexpr auto kGrace = 5s, kCalm = 60s, kLongestPause = 60s;
static int leaks;

static std::vector<std::string> words_of(const std::string &text) {
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}

static void tell_end(const Program &program, const Exit &exit) {
    printf("%s: %s %u\n", program.name.c_str(),
           exit.reason == CL_CHILD_KILLED ? "killed by signal" : "exited with", exit.value);
}

static Task<> keep_running(Program &program) {
    const char *name = program.name.c_str();
    for (std::chrono::seconds pause = 1s;; pause = std::min(pause * 2, kLongestPause)) {
        const auto started = std::chrono::steady_clock::now();
        auto process = Process::start(words_of(program.command), {.reports = true});
        if (process) {
            program.process = std::move(*process);
            printf("%s: started as %d\n", name, program.process.pid());
            const std::chrono::seconds patience(program.patience);
            if (const auto up = co_await with_deadline(patience, program.process.ready())) {
                printf("%s: up\n", name);
            } else if (up.error() == ETIMEDOUT) {
                printf("%s: has not reported in %u s, going on without\n", name, program.patience);
            }
            program.come_up.set();
            tell_end(program, (co_await program.process.exit()).value());
        } else {
            printf("%s: cannot be started: %s\n", name, process.error().code().message().c_str());
            program.come_up.set();
        }
        if (std::chrono::steady_clock::now() - started >= kCalm) pause = 1s;
        printf("%s: starting again in %d s\n", name, static_cast<int>(pause.count()));
        co_await after(pause);
    }
}

static Task<> end(Program &program) {
    program.task.cancel();
    if (!program.process.is_running()) co_return;
    const auto asked = std::chrono::steady_clock::now();
    const auto exit = (co_await program.process.end(kGrace)).value();
    if (std::chrono::steady_clock::now() - asked >= kGrace)
        printf("%s: did not end in %d s\n", program.name.c_str(), static_cast<int>(kGrace.count()));
    tell_end(program, exit);
}

static Task<> supervise(Runtime &rt, std::list<Program> &programs) {
    Signals signals{SIGTERM};
    Running<> starting = rt.start([&]() -> Task<> {
        for (Program &program : programs) {
            program.task = rt.start(keep_running(program));
            (co_await program.come_up.wait()).value();
        }
        printf("all started\n");
        static_cast<void>(notify_manager("READY=1"));  // our own service manager, if any
    });
    (co_await signals.next()).value();
    printf("asking all to end\n");
    starting.cancel();
    std::vector<Running<>> ends;
    for (auto program = programs.rbegin(); program != programs.rend(); ++program)
        ends.push_back(rt.start(end(*program)));
    for (Running<> &one : ends)
        co_await std::move(one);
}

static std::list<Program> read_programs(const char *path) {
    std::list<Program> programs;
    const Conf conf = Conf::read(path).value();
    for (const std::string &name : conf.sections()) {
        programs.emplace_back(name, conf.get(name.c_str(), "command", ""),
                              conf.get(name.c_str(), "patience", 10u).value());
    }
    return programs;
}

int main(int argc, char **argv) try {
    const bool commands = argc > 3 && std::string_view(argv[2]) == "--";
    if (argc != 3 && !commands) {
        fprintf(stderr, "usage: %s SOCKET CONFIGURATION | SOCKET -- COMMAND...\n", argv[0]);
        return EXIT_FAILURE;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    log_to([](std::string_view line) {
        fprintf(stderr, "supervisor: %.*s", static_cast<int>(line.size()), line.data());
        if (line.find(" not released.") != line.npos) ++leaks;
    });
    {
        Runtime rt({.objects = 200, .reports = argv[1]});
        std::list<Program> programs;
        if (!commands) programs = read_programs(argv[2]);
        for (int i = 3; i < argc; ++i)
            programs.emplace_back(argv[i], argv[i]);
        rt.run(supervise(rt, programs)).value();
    }
    if (leaks == 0) printf("leak report clean\n");
    return leaks == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception &error) {
    fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return EXIT_FAILURE;
}
