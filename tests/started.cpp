/* The program that starter_test starts. Its arguments are steps, done one after the other; the exit
 * status of the step that ends it tells the test what it saw. It stands on the companion for what a
 * well-behaved program does, and on a raw socket for everything else. */
#include <fcntl.h>
#include <qvcl/loop.h>
#include <qvcl/qvcl.h>
#include <qvcl/starter.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

namespace {

enum { ENDED_BY_REQUEST = 30, STARTER_LOST = 31, SHUT = 40, UNEXPECTED = 99 };

using Arguments = std::vector<std::string>;

[[noreturn]] void unexpected(const char *what, const CL_ErrInfo &err) {
    fprintf(stderr, "started: %s: error %u module %u\n", what, err.err, err.module);
    _exit(UNEXPECTED);
}

uint32_t on_end(CL_Object *, CL_Event *event, uint64_t, uint64_t) {
    return event->error.err == 0 ? ENDED_BY_REQUEST : STARTER_LOST;
}

CL_Object *report() {
    CL_ErrInfo err;
    if (!CL_Init(5, nullptr, &err)) unexpected("CL_Init", err);
    CL_Object *end = CL_StartupComplete(on_end, 0, 0, 0, &err);
    if (end == nullptr) unexpected("CL_StartupComplete", err);
    return end;
}

/* Runs the loop until the end callback ends it, and ends with its value. */
[[noreturn]] void run() {
    CL_ErrInfo err;
    const uint32_t result = CL_EventLoop(&err);
    if (result == CL_LOOP_ERROR) unexpected("CL_EventLoop", err);
    CL_End(&err);
    _exit(static_cast<int>(result));
}

int raw_connection() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", getenv(CL_STARTER_SOCKET));
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) _exit(UNEXPECTED);
    return fd;
}

/* A message with these fields, `bytes` of it. */
void raw_send(int fd, uint32_t length, uint32_t type, uint32_t sender, size_t bytes) {
    struct {
        CL_MsgHeader header;
        char payload[84];
    } message = {{length, CL_MSG_VERSION, sender, type}, {}};
    if (send(fd, &message, bytes, MSG_NOSIGNAL) != static_cast<ssize_t>(bytes)) _exit(UNEXPECTED);
}

[[noreturn]] void wait_until_shut(int fd) {
    char byte;
    _exit(recv(fd, &byte, 1, 0) <= 0 ? SHUT : UNEXPECTED);
}

/* 0 when no signal is blocked, none but `ignored` is ignored, and no descriptor but `allowed` is
 * open. */
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
    for (const char *at = text.c_str(); *at != '\0';) {
        char *end;
        result.insert(static_cast<int>(strtol(at, &end, 10)));
        at = *end == ',' ? end + 1 : end;
    }
    return result;
}

/* Starts this program again, with its own steps, waits until it is up, and is gone. */
[[noreturn]] void be_a_starter_that_dies(const char *self, const std::string &socket) {
    CL_ErrInfo err;
    char *const arguments[] = {const_cast<char *>(self), const_cast<char *>("report"),
                               const_cast<char *>("run"), nullptr};
    const CL_Program program = {self, arguments, nullptr, 1};
    const auto on_child = [](CL_Object *, CL_Event *event, uint64_t, uint64_t) {
        return event->type == CL_EVENT_EXEC_COMPLETE ? 1u : 2u;
    };
    if (!CL_Init(5, socket.c_str(), &err)) unexpected("CL_Init", err);
    if (!CL_StartProgram(&program, on_child, 0, 0, &err)) unexpected("CL_StartProgram", err);
    if (CL_EventLoop(&err) != 1) unexpected("CL_EventLoop", err);
    unlink(socket.c_str());
    raise(SIGKILL);
    _exit(UNEXPECTED);
}

}  // namespace

int main(int argc, char **argv) {
    int fd = -1;
    CL_Object *end = nullptr;
    const auto own = static_cast<uint32_t>(getpid());
    const rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    const auto argument = [&](int i) { return std::string(i < argc ? argv[i] : ""); };
    for (int i = 1; i < argc; ++i) {
        const std::string step = argv[i];
        /* how it ends */
        if (step == "exit") _exit(std::stoi(argument(i + 1)));
        if (step == "raise") raise(std::stoi(argument(++i)));
        if (step == "run") run();
        if (step == "shut") wait_until_shut(fd);
        if (step == "inherited")
            _exit(inherited(numbers(argument(i + 1)), numbers(argument(i + 2))));
        if (step == "environment") {
            const char *value = getenv(argument(i + 1).c_str());
            _exit(argument(i + 2) != (value != nullptr ? value : "-"));
        }
        if (step == "starter") be_a_starter_that_dies(argv[0], argument(i + 1));
        /* what it says before */
        if (step == "report") end = report();
        if (step == "disconnect") CL_DeleteFD(end, nullptr);
        if (step == "pause") pause();
        if (step == "connect") fd = raw_connection();
        if (step == "good") raw_send(fd, 16, CL_MSG_EXEC_COMPLETE, own, 16);
        if (step == "half") raw_send(fd, 16, CL_MSG_EXEC_COMPLETE, own, 9);
        if (step == "long") raw_send(fd, 21, CL_MSG_EXEC_COMPLETE, own, 21);
        if (step == "type") raw_send(fd, 16, CL_MSG_END_REQUEST, own, 16);
        if (step == "stranger") raw_send(fd, 16, CL_MSG_EXEC_COMPLETE, 1, 16);
    }
    return 0;
}
