// What one process can hold: how many of each sort, what one of them costs in memory, and how long
// it takes to make it. Each sort is made in a process of its own, as many as the library, the
// machine's limits or the figure in the table allow, beside the floor: the same descriptors without
// us. Memory is what the process has resident; the kernel's own part of sockets and timers is not
// in it.
#include <fcntl.h>
#include <qvcl/channel.h>
#include <qvcl/nest.h>
#include <qvcl/qvcl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "bench/support.h"

namespace {

CL_ErrInfo err;

// Opened while there are descriptors left.
double resident() {
    static const int file = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    char text[100] = {};
    long pages = 0;
    bench::check(pread(file, text, sizeof text - 1, 0) > 0 && sscanf(text, "%*s %ld", &pages) == 1,
                 "statm");
    return static_cast<double>(pages * sysconf(_SC_PAGESIZE));
}

uint32_t nothing(CL_Object *, CL_Event *, uint64_t, uint64_t) {
    return 0;
}

uint32_t no_timer(CL_NestTimer *, uint64_t, uint64_t, uint64_t) {
    return 0;
}

uint32_t no_watch(CL_NestWatch *, uint32_t, uint64_t, uint64_t) {
    return 0;
}

uint32_t no_message(CL_Channel *, const CL_MsgHeader *, uint64_t, uint64_t) {
    return 0;
}

uint32_t no_end(CL_Channel *, const CL_ErrInfo *, uint64_t, uint64_t) {
    return 0;
}

int descriptor() {
    return eventfd(0, EFD_CLOEXEC);
}

// One end of a pair; the other stays open, as the descriptor that a peer would hold elsewhere.
int connection() {
    int ends[2];
    return socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0 ? ends[0]
                                                                                         : -1;
}

bool object(uint32_t kind) {
    return CL_CreateFD(kind, nothing, 0, 0, &err) != nullptr;
}

bool running_timer() {
    CL_Object *timer = CL_CreateFD(CL_KIND_TIMER, nothing, 0, 0, &err);
    return timer != nullptr && CL_StartTIMER(timer, 3600, CL_TIMER_PERIODIC, &err) != 0;
}

bool nest_timer() {
    CL_NestTimer *timer = CL_CreateNestTimer(0, no_timer, 0, 0, &err);
    return timer != nullptr && CL_StartNestTimer(timer, CL_NEST_MONOTONIC, 3'600'000'000'000u,
                                                 1'000'000'000, &err) != 0;
}

bool nest_watch() {
    const int fd = descriptor();
    return fd != -1 && CL_CreateNestWatch(fd, CL_NEST_READ, 0, no_watch, 0, 0, &err) != nullptr;
}

bool channel(uint32_t size) {
    CL_ChannelOptions options = {};
    options.message = no_message;
    options.closed = no_end;
    options.receive_size = options.send_size = size;
    const int fd = connection();
    return fd != -1 && CL_CreateChannel(fd, &options, 0, 0, &err) != nullptr;
}

struct Row {
    const char *name;
    uint32_t most;
    bool (*make)();
};

const Row kRows[] = {
    {"objects, CHILD", 10'000, [] { return object(CL_KIND_CHILD); }},
    {"objects, TIMER, running", 10'000, running_timer},
    {"objects, message connection, at rest", 10'000, [] { return object(CL_KIND_MSGC); }},
    {"nest timers, running", 1'000'000, nest_timer},
    {"nest watches of eventfds", 1'000'000, nest_watch},
    {"channels with buffers of 4 KiB", 1'000'000, [] { return channel(4096); }},
    {"channels with buffers of 64 KiB", 1'000'000, [] { return channel(0); }},
    {"floor: eventfds", 1'000'000, [] { return descriptor() != -1; }},
    {"floor: pairs of sockets", 1'000'000, [] { return connection() != -1; }},
};

void measure(const Row &row) {
    bench::check(CL_Init(10'000, nullptr, &err) == 1, "CL_Init");
    CL_memlimit(0);
    bench::check(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err) == 1, "CL_CreateNest");
    const double before = resident();
    const auto start = bench::Clock::now();
    uint32_t count = 0;
    while (count < row.most && row.make())
        ++count;
    const double seconds = bench::since(start);
    const double each = (resident() - before) / count;
    printf("%-38s %9u %s  %6.0f bytes each  %s each\n", row.name, count,
           count == row.most ? "      " : "at most", each,
           bench::duration(seconds / count).c_str());
    fflush(stdout);
}

// In a process of its own: the library begins once in each.
template <class Work>
void apart(Work work) {
    const pid_t child = fork();
    bench::check(child != -1, "fork");
    if (child == 0) {
        work();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    bench::check(status == 0, "a row");
}

void begin(uint32_t objects) {
    const double before = resident();
    bench::check(CL_Init(objects, nullptr, &err) == 1, "CL_Init");
    printf("a process that began with %u objects has %.0f KiB more resident\n", objects,
           (resident() - before) / 1024);
    fflush(stdout);
}

}  // namespace

int main() {
    rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    printf("descriptors: at most %llu\n", static_cast<unsigned long long>(files.rlim_max));
    fflush(stdout);
    for (const uint32_t objects : {10u, 300u, 10'000u})
        apart([objects] { begin(objects); });
    for (const Row &row : kRows)
        apart([&row] { measure(row); });
}
