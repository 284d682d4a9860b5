// qvcl-kit run: one run as the options want it. The exit status is the program's.
#include "kit/run.h"

#include <fcntl.h>
#include <qvcl/kit.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "kit/clock.h"

namespace kit {

namespace {

volatile sig_atomic_t program;  // process id

void pass_on(int signal) {
    if (program > 0) kill(program, signal);
}

// "recv:3:ECONNRESET": the third; "recv": the first, with the first errno that it can have.
void add_fault(Page &to, const std::string &text) {
    if (to.fault_count == std::size(to.faults)) throw std::invalid_argument("too many faults");
    Fault &fault = to.faults[to.fault_count++];
    const size_t first = text.find(':'),
                 second = text.find(':', std::min(first, text.size() - 1) + 1);
    fault.call = call_named(text.substr(0, first).c_str());
    if (fault.call == kCallCount)
        throw std::invalid_argument("--fail=" + text + ": no such call can be made to fail");
    fault.nth =
        first == std::string::npos
            ? 1
            : static_cast<int32_t>(number(text.substr(first + 1, second - first - 1), text));
    fault.error = first == std::string::npos || second == std::string::npos
                      ? *errors_of(fault.call)
                      : error_named(text.substr(second + 1));
    if (fault.error == 0) throw std::invalid_argument("--fail=" + text + ": which errno?");
    if (fault.nth < 1) throw std::invalid_argument("--fail=" + text + ": calls count from 1");
    fault.times = 1;
    fault.made = fault.call == kCall_close;  // it closes, whatever it returns
    fault.at_most = UINT64_MAX;
    fault.from = CL_KIT_LIBRARY | CL_KIT_PROGRAM;
}

// "+10d", "+2h", "+90s"
int64_t microseconds_ahead(const std::string &text) {
    const std::string units = "smhdy";
    const int64_t seconds[] = {1, 60, 3600, 86400, 31536000};
    const size_t unit = text.size() > 2 ? units.find(text.back()) : std::string::npos;
    if (text[0] != '+' || unit == std::string::npos) {
        throw std::invalid_argument("--clock=" + text +
                                    ": virtual, +10d (s, m, h, d, y) or virtual+10d");
    }
    return static_cast<int64_t>(number(text.substr(1, text.size() - 2), text)) * seconds[unit] *
           1'000'000;
}

}  // namespace

std::string preloaded_object() {
    char self[4096] = "";
    if (readlink("/proc/self/exe", self, sizeof self - 1) < 0) throw std::runtime_error("/proc?");
    const std::string folder = std::string(self, strrchr(self, '/') + 1);
    for (const std::string &path : {folder + "libqvcl-kit.so", folder + QVCL_KIT_OBJECT})
        if (access(path.c_str(), R_OK) == 0) return path;
    throw std::runtime_error("libqvcl-kit.so is not where it was installed");
}

int error_named(const std::string &name) {
    for (int error = 1; error < 134; ++error) {
        const char *known = strerrorname_np(error);
        if (known != nullptr && name == known) return error;
    }
    return atoi(name.c_str());
}

std::string name_of_error(int error) {
    const char *known = strerrorname_np(error);
    return known != nullptr ? known : std::to_string(error);
}

uint64_t number(const std::string &text, const std::string &what) {
    char *end = nullptr;
    const unsigned long long value = strtoull(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || text[0] == '-')
        throw std::invalid_argument(what + ": not a number: " + text);
    return value;
}

std::vector<std::string> command_of(const std::vector<std::string> &arguments,
                                    const std::string &verb,
                                    const std::function<bool(const std::string &)> &take) {
    auto at = arguments.begin();
    for (; at != arguments.end() && at->starts_with("--"); ++at) {
        if (*at == "--") {
            ++at;
            break;
        }
        if (!take(*at)) throw std::invalid_argument(verb + " takes no " + *at);
    }
    if (at == arguments.end()) throw std::invalid_argument("which program?");
    return {at, arguments.end()};
}

bool option(const std::string &argument, const std::string &name, std::string &value) {
    if (!argument.starts_with("--" + name + "=")) return false;
    value = argument.substr(name.size() + 3);
    return true;
}

SharedPage::SharedPage() : fd_(memfd_create("qvcl-kit", MFD_CLOEXEC)) {
    if (fd_ < 0 || ftruncate(fd_, sizeof(Page)) != 0)
        throw std::runtime_error("no memory to share");
    void *memory = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no memory to share");
    page_ = static_cast<Page *>(memory);
    page_->magic = kMagic;
    page_->disorder_from = CL_KIT_LIBRARY | CL_KIT_PROGRAM;
    path_ = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_);
}

SharedPage::~SharedPage() {
    munmap(page_, sizeof(Page));
    close(fd_);
}

void SharedPage::become(const std::vector<std::string> &command) const {
    std::string preloaded = preloaded_object();
    if (const char *others = getenv("LD_PRELOAD")) preloaded += std::string(":") + others;
    setenv("LD_PRELOAD", preloaded.c_str(), 1);
    setenv(kPageVariable, path_.c_str(), 1);
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    fprintf(stderr, "qvcl-kit: %s: %s\n", arguments[0], strerror(errno));
}

int run_to_end(const SharedPage &shared, const std::vector<std::string> &command) {
    for (const int signal : {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2})
        (void)::signal(signal, pass_on);
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("no process can be made");
    if (pid == 0) {
        for (const int signal : {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2})
            (void)::signal(signal, SIG_DFL);
        shared.become(command);
        _exit(127);
    }
    program = pid;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int run_command(const std::vector<std::string> &arguments) {
    SharedPage shared;
    bool forever = false;
    std::string value, clock;
    uint64_t settle = 0;
    const auto command = command_of(arguments, "run", [&](const std::string &argument) {
        if (option(argument, "fail", value)) {
            add_fault(*shared, value);
        } else if (argument == "--forever") {
            forever = true;
        } else if (option(argument, "short", value)) {
            shared->at_most = number(value, "--short");
        } else if (option(argument, "clock", value)) {
            clock = value;
        } else if (option(argument, "settle", value)) {
            settle = number(value, "--settle") * 1000;
        } else if (option(argument, "seed", value)) {
            shared->seed = number(value, "--seed");
        } else {
            return false;
        }
        return true;
    });
    for (uint32_t i = 0; i < shared->fault_count && forever; ++i)
        shared->faults[i].times = CL_KIT_FOREVER;
    const bool is_virtual = clock.starts_with("virtual");
    const std::string ahead = is_virtual ? clock.substr(7) : clock;
    if (!clock.empty()) {
        begin_clock(shared->clock, is_virtual ? kVirtual : kAhead,
                    ahead.empty() ? 0 : microseconds_ahead(ahead), settle);
    }

    const int status = run_to_end(shared, command);
    for (uint32_t i = 0; i < shared->fault_count; ++i) {
        const Fault &fault = shared->faults[i];
        if (fault.seen.load() < fault.nth) {
            fprintf(stderr, "qvcl-kit: %s was called %d times, so nothing failed\n",
                    name_of(fault.call), fault.seen.load());
        }
    }
    return status;
}

}  // namespace kit
