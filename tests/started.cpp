// The program that starter_test starts. Its arguments are steps, done one after the other; the exit
// status of the step that ends it tells the test what it saw.
#include <fcntl.h>
#include <qvcl/loop.h>
#include <qvcl/qvcl.h>
#include <qvcl/starter.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

enum { kEndedByRequest = 30, kStarterLost = 31, kUnexpected = 99 };

[[noreturn]] void unexpected(const char *what, const CL_ErrInfo &err) {
    fprintf(stderr, "started: %s: error %u module %u\n", what, err.err, err.module);
    _exit(kUnexpected);
}

uint32_t on_end(CL_Object *, CL_Event *event, uint64_t, uint64_t) {
    return event->error.err == 0 ? kEndedByRequest : kStarterLost;
}

void report() {
    CL_ErrInfo err;
    if (!CL_Init(5, nullptr, &err)) unexpected("CL_Init", err);
    if (!CL_StartupComplete(on_end, 0, 0, 0, &err)) unexpected("CL_StartupComplete", err);
}

// Runs the loop until the end callback ends it, and ends with its value.
[[noreturn]] void run() {
    CL_ErrInfo err;
    const uint32_t result = CL_EventLoop(&err);
    if (result == CL_LOOP_ERROR) unexpected("CL_EventLoop", err);
    CL_End(&err);
    _exit(static_cast<int>(result));
}

// 0 when no signal is blocked, none but `ignored` is ignored, and no descriptor but `allowed` is
// open.
int inherited(const std::set<int> &ignored, const std::set<int> &allowed) {
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action;
        if (sigismember(&mask, signal) == 1) return 1;
        if (sigaction(signal, nullptr, &action) != 0) continue;
        if ((action.sa_handler == SIG_IGN) != (ignored.count(signal) != 0)) return 2;
    }
    for (int fd = 0; fd < 1024; ++fd)
        if (fcntl(fd, F_GETFD) != -1 && allowed.count(fd) == 0) return 3;
    return 0;
}

std::set<int> numbers(const std::string &text) {
    std::set<int> result;
    std::istringstream words(text);
    for (std::string word; std::getline(words, word, ',');)
        result.insert(std::stoi(word));
    return result;
}

}  // namespace

int main(int argc, char **argv) {
    const rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    const auto argument = [&](int i) { return std::string(i < argc ? argv[i] : ""); };
    for (int i = 1; i < argc; ++i) {
        const std::string step = argv[i];
        if (step == "exit") _exit(std::stoi(argument(i + 1)));
        if (step == "raise") raise(std::stoi(argument(++i)));
        if (step == "run") run();
        if (step == "inherited")
            _exit(inherited(numbers(argument(i + 1)), numbers(argument(i + 2))));
        if (step == "environment") {
            const char *value = getenv(argument(i + 1).c_str());
            _exit(static_cast<int>(argument(i + 2) != (value != nullptr ? value : "-")));
        }
        if (step == "report") report();
    }
    return 0;
}
