// A daemon that is kept busy for a while, and what became of everything: soak SECONDS [SEED]
//
// One loop echoes messages of random sizes to client processes, of which some are killed, sees
// bursts of children end, and is woken by threads. The clients compare every byte; at the end
// nothing may be lost, doubled or left. Prints one line of figures; scripts/soak adds them up.
#include <dirent.h>
#include <qvcl/qvcl.h>
#include <qvcl/steps.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Message = std::vector<char>;

constexpr size_t kClients = 8;
constexpr uint32_t kLongest = 60000;
enum ClientEnd { kFine, kLost, kDoubled, kWrong, kNoServer };

struct Figures {
    std::atomic<uint64_t> messages, wakeups, lost, doubled, wrong;
    uint64_t clients, killed, children;
};
Figures *figures;  // the clients write it, too
std::mt19937 random_engine;
std::string path;
std::atomic<int> threads;
CL_ErrInfo err;

uint32_t below(uint32_t bound) {
    return static_cast<uint32_t>(random_engine() % bound);
}

// Nothing that can fail here has a reason to.
void must(bool fine, const char *what) {
    if (fine) return;
    fprintf(stderr, "soak: %s: error %u of module %u, %s\n", what, err.err, err.module,
            strerror(errno));
    _exit(1);
}

// ---------------------------------------------------------------- a client, in a process of its
// own

[[noreturn]] void client(uint32_t seed) {
    std::mt19937 random(seed);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const timeval patience = {20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        _exit(kNoServer);
    std::deque<Message> expected;
    const auto count = static_cast<uint32_t>(1 + random() % 1000);
    for (uint32_t sent = 0, received = 0; received < count;) {
        if (sent < count && expected.size() < 8 && random() % 3 != 0) {
            Message message(16 + random() % (random() % 8 == 0 ? kLongest : 600));
            for (char &byte : message)
                byte = static_cast<char>(random());
            const CL_MsgHeader header = {static_cast<uint32_t>(message.size()), CL_MSG_VERSION,
                                         static_cast<uint32_t>(getppid()), sent++};
            memcpy(message.data(), &header, sizeof header);
            if (send(fd, message.data(), message.size(), MSG_NOSIGNAL) !=
                static_cast<ssize_t>(message.size()))
                _exit(kLost);
            expected.push_back(std::move(message));
        } else if (!expected.empty()) {
            Message got(expected.front().size());
            if (recv(fd, got.data(), got.size(), MSG_WAITALL) != static_cast<ssize_t>(got.size()))
                _exit(kLost);
            CL_MsgHeader header;
            memcpy(&header, got.data(), sizeof header);
            if (header.type != received) _exit(header.type < received ? kDoubled : kWrong);
            if (got != expected.front()) _exit(kWrong);
            expected.pop_front();
            ++received;
            ++figures->messages;
        }
    }
    _exit(kFine);
}

// ---------------------------------------------------------------- the server

struct Peer {
    CL_Object *object = nullptr;
    Message buffer = Message(16 + kLongest);
};
std::map<CL_Object *, Peer> peers;

void give_up(CL_Object *object) {
    CL_Queue unsent = {};
    must(CL_DiscMSGC(object, nullptr, &unsent, &err) == 1, "disconnect");
    while (void *block = CL_QUE_GetTop(&unsent))
        CL_free(block);
    must(CL_DeleteFD(object, &err) == 1, "delete");
    peers.erase(object);
}

uint32_t on_peer(CL_Object *object, CL_Event *event, uint64_t, uint64_t) {
    const Peer &peer = peers[object];
    if (event->type == CL_EVENT_SENT) CL_free(event->data);
    if (event->type == CL_EVENT_DISCONNECT || event->type == CL_EVENT_FAILED) {
        while (void *block = CL_QUE_GetTop(&event->queue))
            CL_free(block);
        give_up(object);
    }
    if (event->type != CL_EVENT_MESSAGE) return 0;
    const auto length = static_cast<uint32_t>(event->length);
    auto *block = static_cast<CL_MsgBlock *>(CL_malloc(CL_MSG_PREFIX_SIZE + length));
    must(block != nullptr, "memory");
    memcpy(&block->header, event->data, length);
    const uint32_t mode = CL_MODE_IMMEDIATE + below(2);
    const auto size = static_cast<int32_t>(CL_MSG_PREFIX_SIZE + length);
    if (CL_SendMSGC(object, block, size, mode, 0, &err) != -1) {
        CL_free(block);
    } else if (err.err != CL_ERR_IN_PROGRESS) {  // it was killed
        CL_free(block);
        give_up(object);
        return 0;
    }
    CL_RecvMSGC(object, const_cast<char *>(peer.buffer.data()),
                static_cast<int32_t>(peer.buffer.size()), CL_MODE_DEFERRED, 0, &err);
    must(err.err == CL_ERR_IN_PROGRESS, "receive");
    return 0;
}

uint32_t on_server(CL_Object *server, CL_Event *, uint64_t, uint64_t) {
    CL_Object *object = CL_AcceptMSGS(server, on_peer, 0, 0, &err);
    must(object != nullptr, "accept");
    Peer &peer = peers[object];
    CL_RecvMSGC(object, peer.buffer.data(), static_cast<int32_t>(peer.buffer.size()),
                CL_MODE_DEFERRED, 0, &err);
    must(CL_AddEventList(object, 20 + below(80), &err) == 1, "list");
    return 0;
}

// ---------------------------------------------------------------- children

struct Kid {
    bool is_client;
    uint32_t reason, value;  // how it is to end
};
std::map<pid_t, Kid> kids;

uint32_t on_kid(CL_Object *child, CL_Event *event, uint64_t pid, uint64_t) {
    const auto found = kids.find(static_cast<pid_t>(pid));
    if (found == kids.end()) {
        ++figures->doubled;
        return 0;
    }
    const Kid &kid = found->second;
    if (event->exit_reason != kid.reason || event->exit_value != kid.value) {
        const uint32_t end =
            event->exit_reason == CL_CHILD_EXITED ? event->exit_value : uint32_t{kWrong};
        // One that was to be killed may have been done before.
        const bool done = kid.is_client && event->exit_reason == CL_CHILD_EXITED && end == kFine;
        if (!done)
            ++(end == kLost ? figures->lost : end == kDoubled ? figures->doubled : figures->wrong);
    }
    kids.erase(found);
    must(CL_DeleteFD(child, &err) == 1, "delete of a child");
    return 0;
}

// As a starter does it.
void start(bool is_client) {
    const uint32_t value = is_client ? 0 : below(256);
    const bool dies = !is_client && below(4) == 0;
    const uint32_t seed = below(1u << 31);
    const pid_t parent = getpid(), pid = fork();
    must(pid != -1, "fork");
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(1);
        if (is_client) client(seed);
        if (dies) raise(SIGKILL);
        _exit(static_cast<int>(value));
    }
    CL_Object *child = CL_CreateFD(CL_KIND_CHILD, on_kid, static_cast<uint64_t>(pid), 0, &err);
    must(child != nullptr, "child");
    child->child.pid = static_cast<uint32_t>(pid);
    cl_StatusChange_M(child, CL_STATUS_READY, 0, "soak", 1);
    must(CL_AddEventList_M(child, CL_PRIORITY_FIRST, &err, 1, "soak", 1) == 1, "list a child");
    kids[pid] = {is_client, dies ? uint32_t{CL_CHILD_KILLED} : uint32_t{CL_CHILD_EXITED},
                 dies ? uint32_t{SIGKILL} : value};
    ++(is_client ? figures->clients : figures->children);
}

void kill_one() {
    auto kid = kids.begin();
    std::advance(kid, below(static_cast<uint32_t>(kids.size())));
    if (!kid->second.is_client || kid->second.reason == CL_CHILD_KILLED) return;
    kill(kid->first, SIGKILL);
    kid->second.reason = CL_CHILD_KILLED;
    kid->second.value = SIGKILL;
    ++figures->killed;
}

// ---------------------------------------------------------------- wake-ups

std::atomic<uint64_t> ticket, seen;

void wake(pthread_t loop, const std::atomic<bool> &stop) {
    while (!stop) {
        const uint64_t mine = ++ticket;
        pthread_kill(loop, SIGUSR1);
        const auto limit = Clock::now() + std::chrono::seconds(20);
        while (seen < mine && Clock::now() < limit)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        ++(seen < mine ? figures->lost : figures->wakeups);
    }
    --threads;
}

// ---------------------------------------------------------------- all of it

struct Soak {
    Clock::time_point end;
    CL_Object *server = nullptr;
    std::atomic<bool> stop = false;
};

uint32_t on_tick(CL_Object *, CL_Event *, uint64_t timer, uint64_t argument) {
    auto &soak = *reinterpret_cast<Soak *>(argument);
    uint64_t expirations;
    must(read(static_cast<int>(timer), &expirations, sizeof expirations) > 0, "timer");
    size_t clients = 0;
    for (const auto &[pid, kid] : kids)
        clients += kid.is_client ? 1 : 0;
    if (Clock::now() >= soak.end) {
        soak.stop = true;
        return kids.empty() && peers.empty() && threads == 0 ? 1 : 0;
    }
    for (uint32_t n = below(10) == 0 ? below(12) : 0; n > 0; --n)
        start(false);
    if (clients < kClients) start(true);
    if (!kids.empty() && below(20) == 0) kill_one();
    return 0;
}

int descriptors() {
    int count = 0;
    DIR *folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr)
        ++count;
    closedir(folder);
    return count;
}

long resident_kilobytes() {
    long pages = 0;
    FILE *file = fopen("/proc/self/statm", "re");
    must(file != nullptr && fscanf(file, "%*d %ld", &pages) == 1, "statm");
    fclose(file);
    return pages * 4;
}

void run(long seconds) {
    Soak soak;
    soak.end = Clock::now() + std::chrono::seconds(seconds);
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    const itimerspec often = {{0, 5'000'000}, {0, 5'000'000}};
    timerfd_settime(timer, 0, &often, nullptr);
    CL_Object *clock = CL_CreateFD(CL_KIND_FD, on_tick, static_cast<uint64_t>(timer),
                                   reinterpret_cast<uint64_t>(&soak), &err);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(timer, &set);
    must(CL_SetFD(clock, static_cast<uint32_t>(timer) + 1, &set, nullptr, nullptr, &err) == 1 &&
             CL_AddEventList(clock, 12, &err) == 1,
         "clock");
    soak.server = CL_CreateFD(CL_KIND_MSGS, on_server, 0, 0, &err);
    must(CL_OpenMSGS(soak.server, path.c_str(), 64, &err) == 1 &&
             CL_AddEventList(soak.server, 100, &err) == 1,
         "server");
    CL_Object *bell = CL_CreateFD(
        CL_KIND_THREAD,
        [](CL_Object *, CL_Event *, uint64_t, uint64_t) {
            seen = ticket.load();
            return 0u;
        },
        0, 0, &err);
    must(clSIGUSR1Initialize(&err) == 1 && CL_SetThreadFd(bell, &err) == 1 &&
             CL_AddEventList(bell, 12, &err) == 1,
         "wake-up");
    sigset_t all, none;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &none);
    threads = 2;
    std::thread wakers[] = {std::thread(wake, pthread_self(), std::cref(soak.stop)),
                            std::thread(wake, pthread_self(), std::cref(soak.stop))};
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    must(CL_EventLoopThread(&err) == 1, "loop");
    for (std::thread &waker : wakers)
        waker.join();
    for (CL_Object *object : {clock, soak.server, bell})
        must(CL_DeleteFD(object, &err) == 1, "delete at the end");
    close(timer);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) return 2;
    const long seconds = atol(argv[1]);
    const unsigned seed = argc > 2 ? static_cast<unsigned>(atol(argv[2])) : std::random_device{}();
    random_engine.seed(seed);
    path = "/tmp/qvcl-soak-" + std::to_string(getpid());
    void *shared =
        mmap(nullptr, sizeof(Figures), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    must(shared != MAP_FAILED && CL_Init(300, nullptr, &err) == 1, "begin");
    figures = new (shared) Figures{};
    run(seconds / 10 + 1);  // what is needed once is there now
    const CL_MainBlock &main = *CL_MainTable;
    const int open = descriptors();
    const long memory = resident_kilobytes();
    run(seconds - seconds / 10 - 1);
    const uint64_t leaked = main.used_queue.count + main.user_blocks.count;
    printf(
        "seed=%u seconds=%ld messages=%lu clients=%lu killed=%lu children=%lu wakeups=%lu "
        "lost=%lu doubled=%lu wrong=%lu leaked=%lu descriptor_growth=%d memory_growth_kb=%ld\n",
        seed, seconds, figures->messages.load(), figures->clients, figures->killed,
        figures->children, figures->wakeups.load(), figures->lost.load(), figures->doubled.load(),
        figures->wrong.load(), leaked, descriptors() - open, resident_kilobytes() - memory);
    const uint64_t bad = figures->lost + figures->doubled + figures->wrong + leaked;
    return bad == 0 && descriptors() == open && CL_End(&err) == 1 ? 0 : 1;
}
