// The fault sweep: every call that the library makes to the C library, in every public operation,
// fails in turn, once and for ever, with each of its errors, is interrupted, or moves few bytes.
//
// One driver runs each case in a process of its own. One oracle looks at what is left: the
// operation's error record tells that error, nothing is leaked, the library works on. Cases where
// an operation rightly succeeds or answers with another code are listed with the reason.
#include <fcntl.h>
#include <qvcl/channel.h>
#include <qvcl/nest.h>
#include <qvcl/recorder.h>
#include <qvcl/source.h>
#include <qvcl/starter.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <iostream>
#include <map>
#include <regex>
#include <sstream>

#include "tests/wire.h"

namespace {

using test::Action;
using test::Fault;
using test::Plan;
using test::Socket;
using test::table;

// What an operation said.
struct Outcome {
    bool failed = false;
    CL_ErrInfo err{};
    bool reports = true;  // has an error record to fill
};

// What the handles of a nest have been told in this process.
enum { kTimer, kWatch, kPost, kSignal, kSource, kMessage, kClosed, kTold };
int told[kTold];
template <int kWhat, class... Arguments>
uint32_t count(Arguments...) {
    return ++told[kWhat], 0;
}

// What a scenario has at hand; made anew in each process.
struct World {
    CL_ErrInfo err{};
    std::string path, segment;
    std::vector<Socket> sockets;  // of the test
    CL_Object *object = nullptr;
    uint8_t buffer[256] = "";
    struct {
        CL_MsgBlock block{};
        uint8_t payload[4] = "";  // few enough for any socket, byte by byte
    } message;
    Action action, count_down;
    std::unique_ptr<test::Pipe> pipe;
    bool begun = false;
    uint32_t last_event = 0;
    CL_ErrInfo event_error{};
    test::Balance at_begin;

    // Of the companion's scenarios.
    CL_NestTimer *timer = nullptr;
    CL_NestPosts *posts = nullptr;
    CL_NestSignal *signal = nullptr;
    CL_Source *source = nullptr;
    CL_ChannelListener *listener = nullptr;
    CL_Channel *channel = nullptr, *accepted = nullptr;
    int fds[2] = {-1, -1};  // that the source wants
    pid_t zombie = 0;

    Outcome outcome(bool well) const { return {!well, err}; }
    // Of an operation without an error record.
    static Outcome silent(bool well = true) { return {.failed = !well, .reports = false}; }

    void begin(const char *exec_path = nullptr) {
        EXPECT_EQ(CL_Init(20, exec_path, &err), 1u) << err;
        begun = true;
        at_begin = test::Balance::now();
    }
    void make(uint32_t kind) {
        action = [this](CL_Object *, CL_Event *event) {
            last_event = event->type;
            event_error = event->error;
            return 1u;
        };
        object = CL_CreateFD_M(kind, test::call_action, test::address(&action), 0, &err, 1, "w", 1);
    }
    void open_server() {
        make(CL_KIND_MSGS);
        EXPECT_EQ(CL_OpenMSGS(object, path.c_str(), 5, &err), 1u) << err;
    }
    void listen() {
        sockets.push_back(Socket::listening(path));
        make(CL_KIND_MSGC);
    }
    // A connection whose other end is the test's last socket.
    void connect_client() {
        listen();
        EXPECT_EQ(CL_CnctMSGC(object, path.c_str(), CL_MODE_SYNC, &err), 1u) << err;
        sockets.push_back(sockets.back().accept());
    }
    void peer_sends(uint32_t length) {
        sockets.back().send(test::wire_message(std::string(length - 16, 'x')));
    }
    int32_t receive(uint32_t mode, uint32_t limit = 0) {
        return CL_RecvMSGC(object, buffer, sizeof buffer, mode, limit, &err);
    }
    int32_t send(uint32_t mode, uint32_t limit = 0) {
        return CL_SendMSGC(object, &message, sizeof message, mode, limit, &err);
    }
    void start_timer(uint32_t seconds) {
        make(CL_KIND_TIMER);
        CL_StartTIMER(object, seconds, seconds == 0 ? CL_TIMER_ONESHOT : CL_TIMER_PERIODIC, &err);
    }
    void open_log() { CL_LOG_Init_M("faults", "nowhere", "neither", path.c_str(), &err); }
    void open_file() { object = CL_OpenFile(path.c_str(), O_RDWR | O_CREAT, 0600, &err); }
    void open_segment() { object = cl_openshm(segment.c_str(), O_RDWR, 4096, &err, "w", 1); }
    bool open_ring() { return CL_TRC_Init_M(path.c_str(), 64, 10, nullptr, CL_RING_USER) == 0; }
    void child(bool ended) {
        make(CL_KIND_CHILD);
        const pid_t pid = ended ? test::ended_process(3) : test::child_process();
        object->child.pid = static_cast<uint32_t>(pid);
        cl_StatusChange_M(object, CL_STATUS_READY, 0, "w", 1);
        EXPECT_EQ(CL_AddEventList_M(object, 20, &err, 1, "w", 1), 1u);
        table().child_signal = ended ? 1 : 0;
    }
    // A loop that a callback ends; a transfer that failed shows in its event.
    Outcome loop(bool threaded = false) {
        const uint32_t result = threaded ? CL_EventLoopThread(&err) : CL_EventLoop(&err);
        if (result == CL_LOOP_ERROR) return {true, err};
        if (last_event == CL_EVENT_DISCONNECT) return {true, event_error};
        return {};
    }
    // The rest of an operation that is in progress.
    Outcome end_in_loop() {
        if (err.err != CL_ERR_IN_PROGRESS) return outcome(false);
        list();
        return loop();
    }
    // An object that is always ready and ends the loop when it has turned so often.
    void end_after(int turns) {
        count_down = [left = turns](CL_Object *, CL_Event *) mutable {
            return --left > 0 ? 0u : 1u;
        };
        if (pipe != nullptr) return;
        pipe = std::make_unique<test::Pipe>();
        pipe->fill();
        CL_Object *last =
            CL_CreateFD(CL_KIND_FD, test::call_action, test::address(&count_down), 0, &err);
        EXPECT_EQ(test::watch_readable(last, pipe->out(), &err), 1u) << err;
        EXPECT_EQ(CL_AddEventList(last, CL_PRIORITY_LAST, &err), 1u);
    }
    void list() { EXPECT_EQ(CL_AddEventList(object, 20, &err), 1u) << err; }

    // What the handles are to be made of; one descriptor is beyond those that are mostly used.
    void ready_to_make() {
        EXPECT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err), 1u) << err;
        unlink((path + "1").c_str());
        sockets.push_back(Socket::listening(path + "1"));
        EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
        EXPECT_EQ(dup3(fds[0], 500, O_CLOEXEC), 500);
        close(std::exchange(fds[0], 500));
        EXPECT_EQ(write(fds[1], "x", 1), 1);
        zombie = test::ended_process(3);
    }
    static uint32_t wanted(CL_SourceFD *all, uint32_t, uint64_t *due, uint64_t fds, uint64_t) {
        *due = CL_NestTime(CL_NEST_MONOTONIC) + 1'000'000'000;
        all[0] = {reinterpret_cast<const int *>(fds)[1], CL_NEST_WRITE};
        return 1;
    }
    static uint32_t answer(CL_Channel *channel, const CL_MsgHeader *, uint64_t, uint64_t) {
        CL_SendChannel(channel, 1, nullptr, 0, nullptr);
        return ++told[kMessage], 0;
    }
    static uint32_t accept(CL_ChannelListener *listener, uint64_t self, uint64_t) {
        auto &world = *reinterpret_cast<World *>(self);
        if (world.accepted == nullptr)
            world.accepted = CL_AcceptChannel(listener, &options(), 0, 0, nullptr);
        return 0;
    }
    static const CL_ChannelOptions &options() {
        static CL_ChannelOptions made{};
        made.message = answer;
        made.closed = count<kClosed>;
        made.idle_limit = made.message_limit = 3'600'000'000'000;
        return made;
    }
    // One of each kind, until one cannot be had.
    bool one_of_each() {
        CL_NestSignal *other = nullptr;
        const auto hear = [this](int number) {
            return CL_CreateNestSignal(number, count<kSignal>, 0, 0, &err);
        };
        return (timer = CL_CreateNestTimer(0, count<kTimer>, 0, 0, &err)) != nullptr &&
               CL_StartNestTimer(timer, CL_NEST_WALL, 1'000'000'000, 1, &err) != 0 &&
               CL_StartNestTimer(timer, CL_NEST_MONOTONIC, 0, 1, &err) != 0 &&
               CL_CreateNestWatch(sockets[0].fd(), 0, 0, count<kWatch>, 0, 0, &err) != nullptr &&
               CL_CreateNestWatch(fds[0], CL_NEST_READ, 0, count<kWatch>, 0, 0, &err) != nullptr &&
               (posts = CL_CreateNestPosts(4, 0, nullptr, &err)) != nullptr &&
               (signal = hear(SIGUSR2)) != nullptr && hear(SIGUSR2) != nullptr &&
               (other = hear(SIGHUP)) != nullptr && CL_DeleteNestSignal(other, &err) != 0 &&
               CL_CreateNestProcess(zombie, 0, count<kTold - 1>, 0, 0, &err) != nullptr &&
               (listener = CL_CreateChannelListener(path.c_str(), 5, 0, accept, test::address(this),
                                                    0, &err)) != nullptr &&
               (channel = CL_ConnectChannel((path + "1").c_str(), &options(), 0, 0, &err)) !=
                   nullptr &&
               (source = CL_CreateSource(2, 0, wanted, count<kSource>, test::address(fds), 0,
                                         &err)) != nullptr;
    }
    // A year's work in a few turns: all is ready, and epoll holds a file that has no watch any
    // more.
    void work() {
        ready_to_make();
        EXPECT_TRUE(one_of_each()) << err;
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        const auto watch = [&](int fd) {
            return CL_CreateNestWatch(fd, CL_NEST_READ, 0, count<kWatch>, 0, 0, &err);
        };
        CL_NestWatch *stale = watch(ends[0]);
        const Socket closed(eventfd(0, EFD_CLOEXEC));
        watch(closed.fd());
        sockets.emplace_back(dup(ends[0]));
        close(ends[0]);
        EXPECT_EQ(write(ends[1], "x", 1), 1);
        sockets.emplace_back(ends[1]);
        EXPECT_EQ(CL_DeleteNestWatch(stale, &err), 1u) << err;
        sockets.push_back(Socket::connected(path));
        sockets.push_back(sockets[0].accept());
        peer_sends(40);
        raise(SIGUSR2);
    }
    // A nest that has met a fault tells all the same what is ready.
    void expect_work() {
        memset(told, 0, sizeof *told * kClosed);
        raise(SIGUSR2);
        EXPECT_EQ(CL_UpdateSource(source, &err), 1u) << err;
        EXPECT_EQ(CL_NestPost(posts, count<kPost>, 0, 0, &err), 1u) << err;
        if (told[kClosed] == 0) peer_sends(40);
        end_after(20);
        EXPECT_FALSE(loop().failed) << err;
        for (int i = 0; i < kMessage; ++i)
            EXPECT_GT(told[i], 0) << i;
        EXPECT_GT(told[kMessage] + told[kClosed], 0);
    }
};

struct Scenario {
    const char *name;
    std::function<void(World &)> prepare;
    std::function<Outcome(World &)> act;
    bool waits = false;                    // builds the signal set of a wait
    std::set<std::string_view> only = {};  // these calls fail; empty: all
    bool heals = false;                    // what fails is made up for, and nobody is told
    bool companion = false;                // which makes system calls itself
};

#define ACT(...) []([[maybe_unused]] World &w) -> Outcome { __VA_ARGS__ }
#define PREPARE(...) []([[maybe_unused]] World &w) { __VA_ARGS__ }
#define BEGUN(...) PREPARE(w.begin(); __VA_ARGS__)
// An operation that returns 1, or an object.
#define OPERATION(call) ACT(return w.outcome((call) != 0);)

const CL_Program kTrueProgram = [] {
    static char name[] = "true";
    static char *const arguments[] = {name, nullptr};
    return CL_Program{"/bin/true", arguments, nullptr, 0};
}();

int by_address(const void *a, const void *b) {
    return memcmp(a, b, sizeof(void *));
}

// clang-format off
const std::vector<Scenario> kLife = {
    {"init with server", PREPARE(),
     ACT(w.begun = true; return w.outcome(CL_Init(5, w.path.c_str(), &w.err) != 0);)},
    {"end with server", PREPARE(w.begin(w.path.c_str());),
     ACT(w.err = {}; CL_End(&w.err);
         EXPECT_EQ(table().execs == nullptr, w.err.err == 0) << "known as long as it is there";
         return w.outcome(w.err.err == 0);)},
    {"delete server", BEGUN(w.open_server();), OPERATION(CL_DeleteFD(w.object, &w.err))},
    {"delete client", BEGUN(w.connect_client();), OPERATION(CL_DeleteFD(w.object, &w.err))},
    {"delete child", BEGUN(w.child(false);), OPERATION(CL_DeleteFD(w.object, &w.err))},
    {"sort", BEGUN(),
     ACT(CL_Queue queue; CL_QUE_InitQT(&queue, 0); std::vector<CL_QueueLink> links(200);
         for (CL_QueueLink &link : links) { CL_QUE_PutTail(&queue, &link); }
         const bool well = CL_QUE_Sort(&queue, nullptr, by_address) == 1;
         EXPECT_EQ(queue.count, 200u);
         return w.silent(well);)},
    {"environment", BEGUN(),
     ACT(const CL_EnvChange changes[] = {{"QVCL_FAULT", "x"}, {"QVCL_FAULT", nullptr}, {nullptr, nullptr}};
         return w.outcome(cl_envchange(changes, &w.err) == 0);)},
};

const std::vector<Scenario> kLoops = {
    {"loop", BEGUN(w.connect_client(); w.peer_sends(40); w.receive(CL_MODE_DEFERRED); w.list();), ACT(return w.loop();), true},
    {"threaded loop", BEGUN(w.make(CL_KIND_THREAD); CL_SetThreadFd(w.object, &w.err); w.list(); table().wake_signal = 1;),
     ACT(return w.loop(true);), true},
    {"reap", BEGUN(w.child(true); w.object->descriptor = dup(0);), ACT(return w.loop();), true},
    {"stop timer", BEGUN(w.start_timer(9);), OPERATION(CL_StopTIMER(w.object, &w.err))},
    {"timer in the loop", BEGUN(w.start_timer(0); raise(SIGALRM);), ACT(w.make(CL_KIND_THREAD); return w.loop();), true},
    {"start program", BEGUN(),
     OPERATION(CL_StartProgram(&kTrueProgram, test::call_action, test::address(&w.action), 0, &w.err))},
    {"exec server", PREPARE(w.begin(w.path.c_str()); w.child(false);
                            w.object->sub_status = CL_SUB_EXEC_AWAITED;
                            CL_QUE_PutTail(&table().exec_wait_list, w.object);
                            w.sockets.push_back(Socket::connected(w.path));
                            w.sockets.back().send(test::wire_header(16, CL_MSG_VERSION, CL_MSG_EXEC_COMPLETE,
                                                                    w.object->child.pid));
                            w.end_after(10);),
     ACT(return w.loop();), true},
};

const std::vector<Scenario> kMessages = {
    {"open server", BEGUN(w.make(CL_KIND_MSGS);), OPERATION(CL_OpenMSGS(w.object, w.path.c_str(), 5, &w.err))},
    {"close server", BEGUN(w.open_server();), OPERATION(CL_CloseMSGS(w.object, &w.err))},
    {"accept", BEGUN(w.open_server(); w.sockets.push_back(Socket::connected(w.path));),
     OPERATION(CL_AcceptMSGS(w.object, test::call_action, 0, 0, &w.err))},
    {"server in the loop", BEGUN(w.open_server(); w.list(); w.sockets.push_back(Socket::connected(w.path));),
     ACT(return w.loop();), true},
    {"connect", BEGUN(w.listen();), OPERATION(CL_CnctMSGC(w.object, w.path.c_str(), CL_MODE_SYNC, &w.err))},
    {"connect in the loop", BEGUN(w.listen();),
     ACT(CL_CnctMSGC(w.object, w.path.c_str(), CL_MODE_IMMEDIATE, &w.err); return w.end_in_loop();), true},
    {"disconnect", BEGUN(w.connect_client();), OPERATION(CL_DiscMSGC(w.object, nullptr, nullptr, &w.err))},
    {"receive", BEGUN(w.connect_client(); w.peer_sends(200);), ACT(return w.outcome(w.receive(CL_MODE_SYNC) == 200);), true},
    {"receive with a time limit", BEGUN(w.connect_client(); w.peer_sends(200);),
     ACT(return w.outcome(w.receive(CL_MODE_SYNC, 9) == 200);), true},
    {"receive in the loop", BEGUN(w.connect_client(); w.peer_sends(200);),
     ACT(w.receive(CL_MODE_DEFERRED); w.list(); return w.loop();), true},
    {"send", BEGUN(w.connect_client();), ACT(return w.outcome(w.send(CL_MODE_SYNC) > 0);), true},
    {"send with a time limit", BEGUN(w.connect_client();),
     ACT(const int32_t sent = w.send(CL_MODE_SYNC, 9);
         // Before the wait the block is not yet lent.
         if (w.err.module == CL_MODULE_TIMER) { EXPECT_EQ(w.message.block.link.owner, nullptr); }
         return w.outcome(sent > 0);), true},
    {"send in the loop", BEGUN(w.connect_client();), ACT(w.send(CL_MODE_DEFERRED); return w.end_in_loop();), true},
    {"request end", BEGUN(w.connect_client(); const int32_t fd = w.object->descriptor; w.make(CL_KIND_CHILD);
                          w.object->sub_status = CL_SUB_EXEC_COMPLETE; w.object->descriptor = fd;),
     ACT(const uint32_t result = CL_RequestEnd(w.object, &w.err); w.object->descriptor = -1;
         return w.outcome(result != 0);)},
    {"report completion", BEGUN(w.sockets.push_back(Socket::listening(w.path));
                                setenv(CL_STARTER_SOCKET, w.path.c_str(), 1);),
     ACT(w.object = CL_StartupComplete(test::call_action, 0, 0, 0, &w.err);
         EXPECT_EQ(table().sync_flag, 0u);
         return w.outcome(w.object != nullptr);), true},
};

const std::vector<Scenario> kFiles = {
    {"open file", BEGUN(), ACT(w.open_file(); return w.outcome(w.object != nullptr);)},
    {"write file", BEGUN(w.open_file();), ACT(return w.outcome(CL_WriteFile(w.object, "0123456789", 10, &w.err) > 0);)},
    {"read file", BEGUN(w.open_file();), ACT(return w.outcome(CL_ReadFile(w.object, w.buffer, 10, &w.err) >= 0);)},
    {"flush file", BEGUN(w.open_file();), OPERATION(CL_FlushFile(w.object, &w.err))},
    {"seek file", BEGUN(w.open_file();), ACT(return w.outcome(CL_SeekFile(w.object, 3, SEEK_SET, &w.err) == 3);)},
    {"close file", BEGUN(w.open_file();), OPERATION(CL_CloseFile(w.object, &w.err))},
    {"delete file", PREPARE(std::ofstream(w.path) << "x";), OPERATION(CL_DeleteFile(w.path.c_str(), &w.err))},
    {"open shm", BEGUN(), ACT(w.open_segment(); return w.outcome(w.object != nullptr);)},
    {"map shm", BEGUN(w.open_segment();), OPERATION(CL_MapSHM(w.object, &w.err))},
    {"unmap shm", BEGUN(w.open_segment(); CL_MapSHM(w.object, &w.err);), OPERATION(CL_UnmapSHM(w.object, &w.err))},
    {"close and unlink shm", BEGUN(w.open_segment(); w.object->memory.unlink_on_close = 1;),
     OPERATION(CL_CloseSHM(w.object, &w.err))},
    {"create ring", BEGUN(), ACT(const bool well = w.open_ring(); CL_TRC_End_M(CL_RING_USER); return w.silent(well);)},
    {"dump to a path", BEGUN(), ACT(CL_TRC_Out(w.path.c_str(), "header text"); return w.silent();)},
    {"dump by generation", BEGUN(w.open_ring(); CL_TRC_Out(nullptr, nullptr);),
     ACT(CL_TRC_Out(nullptr, nullptr); CL_TRC_End_M(CL_RING_USER); return w.silent();)},
    {"configuration", BEGUN(std::ofstream(w.path) << "[a]\nb = c\n[d]\ne = f\n";),
     ACT(CL_Queue conf; CL_QUE_InitQT(&conf, 0); uint32_t line = 0;
         const bool well = CL_ReadConf(&conf, w.path.c_str(), &line) == CL_CONF_OK;
         if (!well) { EXPECT_EQ(conf.count, 0u); }
         EXPECT_EQ(CL_FreeConf(&conf), 1u);
         return w.silent(well);)},
    {"log", BEGUN(CL_KitKeepLog(); test::set_catalogue([](int) { return "text"; }); w.open_log();),
     ACT(EXPECT_EQ(CL_LOG_Out(3, 1, 0, 42, "ds", 1, "x"), 1u); return w.silent();)},
    {"rotate log", BEGUN(std::ofstream(w.path) << "x"; w.open_log();), ACT(return w.silent(cl_log_lotate() == 0);)},
};
// clang-format on

const std::set<std::string_view> kOfTurns = {
    "accept4", "dup3", "epoll_create1", "epoll_ctl",       "epoll_wait",
    "read",    "recv", "send",          "timerfd_settime", "write"};

// clang-format off
const std::vector<Scenario> kCompanion = {
    {"nest", BEGUN(), OPERATION(CL_CreateNest(CL_PRIORITY_FIRST, 0, &w.err))},
    {"one of each", BEGUN(w.ready_to_make();), OPERATION(w.one_of_each())},
    {"use of a channel", BEGUN(w.ready_to_make(); EXPECT_TRUE(w.one_of_each()) << w.err;),
     ACT(return w.outcome(CL_SendChannel(w.channel, 1, "x", 1, &w.err) != 0 &&
                          (CL_FlushChannel(w.channel, &w.err) != 0 || w.err.err == EAGAIN) &&
                          CL_PauseChannel(w.channel, &w.err) != 0 && CL_ResumeChannel(w.channel, &w.err) != 0);)},
    {"use of a source", BEGUN(w.ready_to_make(); EXPECT_TRUE(w.one_of_each()) << w.err;),
     OPERATION(CL_UpdateSource(w.source, &w.err))},
    {"accept a channel", BEGUN(w.ready_to_make(); EXPECT_TRUE(w.one_of_each()) << w.err;
                               w.sockets.push_back(Socket::connected(w.path));),
     ACT(w.accepted = CL_AcceptChannel(w.listener, &w.options(), 0, 0, &w.err);
         return w.outcome(w.accepted != nullptr);)},
    {"notify", BEGUN(w.sockets.emplace_back(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
                     sockaddr_un name{}; name.sun_family = AF_UNIX; w.path.copy(name.sun_path, sizeof name.sun_path);
                     EXPECT_EQ(bind(w.sockets[0].fd(), reinterpret_cast<sockaddr *>(&name), sizeof name), 0);
                     setenv("NOTIFY_SOCKET", w.path.c_str(), 1);),
     OPERATION(CL_NotifyManager("READY=1", &w.err))},
    {"record crashes", BEGUN(), OPERATION(CL_RecordCrashes((w.path + "1").c_str(), &w.err))},
    {"describe", BEGUN(), ACT(char text[4096]; CL_DescribeProcess(nullptr, text, sizeof text); return w.silent();)},
    {"nest at work", BEGUN(w.work();), ACT(CL_NestPost(w.posts, count<kPost>, 0, 0, nullptr); w.end_after(10); return w.loop();),
     false, kOfTurns, true},
    {"listener at rest", PREPARE(CL_KitVirtualTime(0); w.begin(); w.work(); w.accepted = w.channel;),
     ACT(w.end_after(5); w.loop(); usleep(110'000); w.end_after(5); w.accepted = nullptr; return w.loop();),
     false, {"epoll_ctl", "timerfd_settime"}, true},
};
// clang-format on

// Tables that are full, so that the one or the other kind makes them grow.
std::vector<Scenario> crowds() {
    static std::vector<std::string> names;
    names.resize(65);
    std::vector<Scenario> all;
    for (size_t size = 45; size <= 64; ++size) {
        const auto fill = [size](World &w) {
            sigset_t set;
            sigemptyset(&set);
            sigaddset(&set, SIGUSR2);
            sigprocmask(SIG_BLOCK, &set, nullptr);
            w.begin();
            w.ready_to_make();
            for (size_t i = 0; i < size; ++i) {
                CL_NestTimer *timer = CL_CreateNestTimer(0, count<kTimer>, 0, 0, &w.err);
                CL_StartNestTimer(timer, 0, 1u << 31, 0, &w.err);
            }
        };
        names[size] = "crowd of " + std::to_string(size);
        all.push_back({names[size].c_str(), fill, OPERATION(w.one_of_each()), false, {"malloc"}});
    }
    return all;
}

// What the companion calls itself.
constexpr const char *kOwnCalls[] = {
    "accept4", "dup3",        "epoll_create1",  "epoll_ctl",      "epoll_wait",
    "eventfd", "getpeername", "getsockopt",     "recv",           "send",
    "sendmsg", "signalfd",    "timerfd_create", "timerfd_settime"};

bool is_own(const Scenario &scenario, std::string_view call) {
    return scenario.companion && std::ranges::find(kOwnCalls, call) != std::end(kOwnCalls);
}

// What may happen to a call.
const std::vector<int> &errors_of(std::string_view call) {
    static const std::vector<int> common = {EACCES, ENOMEM};
    static const std::map<std::string_view, std::vector<int>> others = {
        {"accept", {EAGAIN, ECONNABORTED, EMFILE}},
        {"accept4", {EAGAIN, ECONNABORTED, EMFILE}},
        {"connect", {EAGAIN, ECONNREFUSED, ENOENT}},
        {"open", {EACCES, EMFILE, ENOSPC}},
        {"malloc", {ENOMEM}},
        {"recv", {ECONNRESET}},
        {"send", {EPIPE, ECONNRESET, ENOBUFS}},
    };
    const auto row = others.find(call);
    return row != others.end() ? row->second : common;
}

// Made again by the library after EINTR.
bool goes_on(std::string_view call) {
    static const std::set<std::string_view> others = {
        "catgets", "dup3",        "epoll_create1",  "epoll_ctl",       "eventfd",
        "fopen",   "getpeername", "getpid",         "getsockopt",      "lseek",
        "malloc",  "rename",      "setenv",         "pthread_sigmask", "setlocale",
        "signal",  "signalfd",    "timerfd_create", "timerfd_settime", "unsetenv"};
    return !others.contains(call);
}

// Made from one place again and again, as long as a message or the loop goes on.
const std::set<std::string_view> kInTurns = {"pselect", "recv", "send", "sigprocmask"};

// Cases in which an operation succeeds although a call fails, or tells another code.
struct Exception {
    std::string_view scenario;  // empty: any; kWaiting: those that wait
    std::string_view call;      // empty: any
    bool may_succeed;
    uint32_t code;  // 0: that of the call
    const char *reason;
    enum { kAlways, kNotForEver, kNever } run = kAlways;
};
constexpr std::string_view kWaiting = "waiting";
constexpr std::string_view kHealing = "healing";
const Exception kExceptions[] = {
    {"", "gettimeofday", true, 0, "the time is then 0"},
    {kWaiting, "sigemptyset", true, 0, "cannot fail for a set that exists"},
    {kWaiting, "sigaddset", true, 0, "cannot fail for a set and signals that exist"},
    {"timer in the loop", "sysinfo", true, 0, "the next tick looks again", Exception::kNotForEver},
    {"report completion", "connect", true, 0, "a busy starter is tried again",
     Exception::kNotForEver},
    {"start program", "read", true, 0, "no word from the child is good news"},
    {"init with server", "signal", true, 0, "dispositions are not looked at"},
    {"end with server", "close", false, CL_ERR_QUEUE, "ends all the same"},
    {"end with server", "unlink", true, 0, "the file may be gone"},
    {"close server", "unlink", true, 0, "the file may be gone"},
    {"delete server", "unlink", true, 0, "the file may be gone"},
    {"stop timer", "signal", false, CL_ERR_QUEUE, "has no errno"},
    {"timer in the loop", "signal", false, CL_ERR_QUEUE, "has no errno"},
    {"receive with a time limit", "signal", false, CL_ERR_QUEUE, "has no errno"},
    {"send with a time limit", "signal", false, CL_ERR_QUEUE, "has no errno"},
    {"delete child", "kill", false, CL_ERR_QUEUE, "detail holds errno"},
    {"delete child", "waitpid", false, CL_ERR_QUEUE, "detail holds errno"},
    {"delete child", "close", true, 0, "nobody can be told"},
    {"reap", "close", true, 0, "the child is reported all the same"},
    {"start program", "close", true, 0, "an open pipe would say that the child is still at it",
     Exception::kNever},
    {"", "unsetenv", true, 0, "not looked at"},
    {"", "sigprocmask", true, 0, "the unblocking after a wait is not looked at"},
    {"", "pthread_sigmask", true, 0, "the unblocking after a wait is not looked at"},
    {"environment", "setenv", false, ENOMEM, "always this code"},
    {"log", "", true, 0, "says so in the message"},
    {"rotate log", "rename", true, 0, "a generation may be missing"},
    {"dump to a path", "", true, 0, "says so in the log"},
    {"dump by generation", "", true, 0, "says so in the log"},
    {"exec server", "recv", true, 0, "the connection goes, the child waits on"},
    {"use of a channel", "send", true, EPIPE, "the other side has left, or so it seems"},
    {"use of a source", "epoll_ctl", true, 0, "what cannot be changed is watched anew"},
    {"accept a channel", "accept4", true, 0, "the next one", Exception::kNotForEver},
    {kHealing, "accept4", true, 0, "no end of connections that go", Exception::kNotForEver},
    {kHealing, "epoll_ctl", true, 0, "to give up a descriptor never fails", Exception::kNotForEver},
    {"notify", "close", true, 0, "it is told"},
    {"describe", "", true, 0, "says less"},
    {"record crashes", "mmap", false, ENOMEM, "always this code"},
    {"record crashes", "", true, 0, "says less"},
};

const Exception *exception(const Scenario &scenario, std::string_view call) {
    for (const Exception &row : kExceptions) {
        const bool fits = row.scenario.empty() || row.scenario == scenario.name ||
                          (row.scenario == kWaiting && scenario.waits) ||
                          (row.scenario == kHealing && scenario.heals);
        if (fits && (row.call.empty() || row.call == call)) return &row;
    }
    return nullptr;
}

// Gives back what is left, whatever state the operation left it in.
void clean_up(World &world, std::ostream &out) {
    // Ended, or begun only half, the library closes nothing any more.
    const bool alive = table().state == CL_STATE_INITIALISED;
    CL_DeleteSource(world.source, nullptr);
    CL_DeleteChannel(world.channel, nullptr);
    if (world.accepted != world.channel) CL_DeleteChannel(world.accepted, nullptr);
    CL_DeleteChannelListener(world.listener, nullptr);
    CL_DeleteNest(nullptr);
    while (auto *object = alive ? static_cast<CL_Object *>(table().used_queue.head) : nullptr) {
        test::back_to_its_kind(object);
        CL_ErrInfo err{};
        uint32_t done = 0;
        const bool open = (object->status & CL_STATUS_READY) != 0;
        if (object->kind == CL_KIND_FILE && open) {
            done = CL_CloseFile(object, &err);
        } else if (object->kind == CL_KIND_SHM && open) {
            CL_UnmapSHM(object, &err);
            done = CL_CloseSHM(object, &err);
        } else {
            done = CL_DeleteFD_M(object, &err, 1, "clean", 1);
        }
        if (done == 0) {
            out << "an object of kind " << object->kind << " cannot be deleted: " << err << "; ";
            break;
        }
    }
    world.sockets.clear();
    world.pipe = nullptr;
    for (const int fd : world.fds)
        close(fd);
}

// One turn of the loop over a pipe, a timer started and stopped.
bool usable() {
    CL_ErrInfo err;
    test::Pipe pipe;
    pipe.fill();
    Action action = [](CL_Object *, CL_Event *) { return 42u; };
    CL_Object *object = CL_CreateFD(CL_KIND_FD, test::call_action, test::address(&action), 0, &err);
    CL_Object *timer = CL_CreateFD(CL_KIND_TIMER, nullptr, 0, 0, &err);
    return object != nullptr && timer != nullptr &&
           test::watch_readable(object, pipe.out(), &err) == 1 &&
           CL_AddEventList(object, 20, &err) == 1 &&
           CL_StartTIMER(timer, 99, CL_TIMER_ONESHOT, &err) == 1 && CL_EventLoop(&err) == 42 &&
           CL_StopTIMER(timer, &err) == 1 && CL_DeleteFD(timer, &err) == 1 &&
           CL_DeleteFD(object, &err) == 1;
}

// Does the oracle's work in the process of the case. Says what is wrong.
void judge(const Scenario &scenario, const Fault &fault, const Outcome &outcome,
           std::ostream &out) {
    const Exception *row = exception(scenario, fault.call);
    const bool interrupted = fault.error == EINTR || fault.at_most != SIZE_MAX;
    if (scenario.heals) {
        if (outcome.failed) out << "the loop ends; ";
    } else if (!outcome.failed) {
        if (!interrupted && (row == nullptr || !row->may_succeed)) out << "it succeeds; ";
        return;
    }
    if (!outcome.failed || !outcome.reports) return;
    const CL_ErrInfo &err = outcome.err;
    const uint32_t code =
        row != nullptr && row->code != 0 ? row->code : static_cast<uint32_t>(fault.error);
    if (fault.error == EINTR) out << "it gives up; ";
    if (fault.at_most != SIZE_MAX) {
        // What does not go whole does not go.
        if (scenario.name != std::string_view("request end")) out << "few bytes are too few; ";
        return;
    }
    if (err.err != code) out << "err is " << err.err << ", not " << code << "; ";
    const bool both = err.detail == err.err ||
                      (code == CL_ERR_QUEUE && err.detail == static_cast<uint32_t>(fault.error));
    if (!both) out << "detail is " << err.detail << "; ";
    if (err.module == 0 || err.line == 0 || err.version != CL_VERSION)
        out << "nothing says where: " << err << "; ";
}

// What a case leaves to the process that started it.
struct Report {
    CL_ErrInfo place;  // where it failed, if it says so
    char text[65536];
};

class Faults : public testing::Test {
  protected:
    void TearDown() override { shm_unlink(segment.c_str()); }

    // A process of its own for each case: what `body` writes, or that it hangs or dies.
    std::string in_process(const std::function<void(std::ostream &)> &body) const {
        *report = {};
        fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            timer_t limit;
            sigevent kills{};
            kills.sigev_notify = SIGEV_SIGNAL;
            kills.sigev_signo = SIGKILL;
            const itimerspec ten_seconds = {{}, {10, 0}};
            if (timer_create(CLOCK_MONOTONIC, &kills, &limit) != 0) _exit(2);
            timer_settime(limit, 0, &ten_seconds, nullptr);
            std::ostringstream out;
            const auto *result = testing::UnitTest::GetInstance()->current_test_info()->result();
            const int failures = result->total_part_count();
            body(out);
            if (result->total_part_count() != failures)
                out << "the scenario's expectation failed; ";
            out.str().copy(report->text, sizeof report->text - 1);
            _exit(0);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        std::string text = report->text;
        if (status != 0) text += "the process ends with " + std::to_string(status) + "; ";
        return text;
    }

    void set_up(World &world, const Scenario &scenario) const {
        world.path = folder.path("x");
        world.segment = segment;
        unlink(world.path.c_str());
        const int fd = shm_open(segment.c_str(), O_CREAT | O_RDWR, 0600);
        EXPECT_EQ(ftruncate(fd, 4096), 0);
        close(fd);
        scenario.prepare(world);
    }

    // The calls that a scenario makes when nothing fails.
    std::vector<std::string> calls_of(const Scenario &scenario) const {
        const std::string text = in_process([&](std::ostream &out) {
            World world;
            set_up(world, scenario);
            static std::vector<std::string_view> calls;
            std::vector<CL_KitFault> notes;
            for (const char *call : kOwnCalls) {
                notes.push_back(
                    {.call = call,
                     .nth = 1,
                     .times = CL_KIT_FOREVER,
                     .from = CL_KIT_ANYONE,
                     .before = [](void *of) { calls.push_back(static_cast<const char *>(of)); },
                     .context = const_cast<char *>(call)});
            }
            const Plan plan;
            if (scenario.companion) CL_KitPlan(notes.data(), notes.size());
            const Outcome outcome = scenario.act(world);
            for (const std::string_view call : plan.calls())
                if (!is_own(scenario, call)) calls.push_back(call);
            for (const std::string_view call : calls)
                out << call << "\n";
            if (outcome.failed) out << "FAILED " << outcome.err << "\n";
        });
        std::istringstream lines(text);
        std::vector<std::string> calls;
        for (std::string line; std::getline(lines, line);)
            calls.push_back(line);
        EXPECT_THAT(calls, testing::Each(testing::AnyOfArray(test::reachable_calls())))
            << scenario.name;
        return calls;
    }

    // What the oracle finds wrong.
    std::string wrong_in(const Scenario &scenario, const Fault &fault) const {
        return in_process([&](std::ostream &out) {
            World world;
            set_up(world, scenario);
            const bool begun = world.begun;
            CL_Object *const object = world.object;
            const CL_Object as_was = object != nullptr ? *object : CL_Object{};
            test::Balance before = test::Balance::now();
            Outcome outcome;
            {
                Plan plan(fault);
                outcome = scenario.act(world);
                if (plan.hits() == 0) out << "the fault is not met; ";
            }
            judge(scenario, fault, outcome, out);
            if (outcome.failed && outcome.reports) report->place = outcome.err;
            // A file or a segment is what it was when its operation fails.
            const bool stays = as_was.kind == CL_KIND_FILE || as_was.kind == CL_KIND_SHM;
            if (outcome.failed && stays && memcmp(object, &as_was, sizeof as_was) != 0)
                out << "it has changed the object; ";
            // Nor does a table that could not be made leave anything.
            if (table().descriptor_table == nullptr &&
                table().library_blocks.count != before.library_blocks)
                out << "a block is left; ";
            const bool alive = table().state == CL_STATE_INITIALISED;
            if (scenario.heals) world.expect_work();
            clean_up(world, out);
            if (scenario.companion) before = world.at_begin;
            if (alive && !usable()) out << "the library is not usable any more; ";
            if (!begun && !alive && table().state != CL_STATE_CONSTRUCTED &&
                CL_End(&world.err) != 1) {
                out << "it cannot be ended; ";
            }
            // Tables stay, as they are to.
            if (begun && alive) compare(scenario, fault, before, test::Balance::now(), out);
        });
    }

    void run(const Scenario &scenario, const Fault &fault) {
        const Exception *row = exception(scenario, fault.call);
        if (row != nullptr && (row->run == Exception::kNever ||
                               (row->run == Exception::kNotForEver && fault.times > 3))) {
            return;
        }
        ++runs;
        EXPECT_EQ(wrong_in(scenario, fault), "")
            << scenario.name << ": " << fault.call << " number " << fault.nth
            << (fault.times == test::kForever ? " and all later" : "")
            << (fault.error != 0 ? std::string(" fails with ") + strerrorname_np(fault.error)
                                 : " moves few bytes");
        // Most calls can fail with the same errno, so the place tells which one did.
        if (fault.times != 1 || report->place.line == 0) return;
        if (scenario.companion) return;
        const bool in_turns = kInTurns.contains(fault.call);
        const auto site = std::string(fault.call) + (in_turns ? "" : std::to_string(fault.nth));
        const auto [place, fresh] =
            places.try_emplace({report->place.module, report->place.line}, site);
        EXPECT_EQ(place->second, site) << scenario.name << ": " << report->place;
    }

    static void compare(const Scenario &scenario, const Fault &fault, test::Balance before,
                        test::Balance after, std::ostream &out) {
        // Everything that the scenario made before is gone, too.
        if (after.live != 0 || after.listed != 0) out << "left: " << after << "; ";
        before.live = after.live;
        before.free = after.free;
        before.listed = after.listed;
        std::copy(std::begin(after.kinds), std::end(after.kinds), before.kinds);
        // The call was not made, so what it would have closed is still there.
        if (fault.call == "catclose") before.catalogues = after.catalogues;
        if (fault.call == "sigprocmask" || fault.call == "pthread_sigmask")
            before.blocked_signals = after.blocked_signals;
        if (scenario.name == std::string_view("dump by generation")) {  // its ring goes in the end
            before.library_blocks = after.library_blocks;
            before.library_bytes = after.library_bytes;
        }
        const bool closes = fault.call == "close" || fault.call == "munmap";
        for (size_t i = 0; i < std::size(after.descriptors); ++i)
            before.descriptors[i] = after.descriptors[i] & (closes ? ~0ULL : before.descriptors[i]);
        out << after.against(before);
    }

    // What may happen to the nth call of a function.
    static std::vector<Fault> faults_at(std::string_view call, int nth) {
        std::vector<Fault> faults;
        const auto add = [&](int error, int times, size_t at_most = SIZE_MAX) {
            faults.push_back(
                {.call = call, .error = error, .nth = nth, .times = times, .at_most = at_most});
        };
        for (const int times : {1, test::kForever}) {
            for (const int error : errors_of(call))
                add(error, times);
            if (goes_on(call)) add(EINTR, std::min(times, 3));
            if (call == "read" || call == "write" || call == "send" || call == "recv")
                add(0, times, 1);
        }
        return faults;
    }

    void sweep(std::vector<Scenario> scenarios, bool companion = false) {
        for (Scenario &scenario : scenarios) {
            scenario.companion = companion;
            std::map<std::string, int> counts;
            places.clear();
            for (const std::string &call : calls_of(scenario)) {
                const int nth = ++counts[call];
                if (!scenario.only.empty() && !scenario.only.contains(call)) continue;
                if (call == "getpid" || call == "catgets" || call == "setlocale") continue;
                if (call == "gettimeofday" && nth > 2) continue;  // in every record
                ++sites;
                for (Fault &fault : faults_at(call, nth)) {
                    fault.from_anyone = is_own(scenario, call);
                    run(scenario, fault);
                }
            }
        }
        std::cout << sites << " call sites, " << runs << " runs" << std::endl;
        EXPECT_GT(sites, 10);
    }

    test::Folder folder;
    std::string segment = "/qvcl-faults-" + std::to_string(getpid());
    Report *report = static_cast<Report *>(
        mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::map<std::pair<uint32_t, uint32_t>, std::string> places;
    int sites = 0, runs = 0;
};

TEST_F(Faults, InLifeAndObjects) {
    sweep(kLife);
}
TEST_F(Faults, InLoopsAndSources) {
    sweep(kLoops);
}
TEST_F(Faults, InMessages) {
    sweep(kMessages);
}
TEST_F(Faults, InFilesAndDiagnostics) {
    sweep(kFiles);
}

TEST_F(Faults, InTheCompanion) {
    sweep(kCompanion, true);
}
TEST_F(Faults, InTheCompanionWhereTablesGrow) {
    sweep(crowds(), true);
}

// An operation that misbehaves is found out.
TEST_F(Faults, AreNoticedByTheOracle) {
    const CL_ErrInfo right = {EMFILE, EMFILE, CL_MODULE_MSGS, 1, CL_VERSION};
    const auto nothing = [] {};
    const struct {
        std::function<void()> misdeed;
        bool failed;
        CL_ErrInfo err;
        const char *finding;
    } rows[] = {
        {nothing, true, right, ""},
        {nothing, false, right, "succeeds"},
        {nothing, true, {EMFILE, EIO, 1, 1, CL_VERSION}, "detail is 5"},
        {[] { EXPECT_GE(dup(0), 0); }, true, right, "is open"},
        {[] { table().free_queue = {}; }, true, right, "usable"},
        {[] { raise(SIGKILL); }, true, right, "ends with 9"},
    };
    for (const auto &row : rows) {
        const Scenario scenario = {
            "fake",
            PREPARE(w.begin();),
            [&row](World &) {
                EXPECT_EQ(cl_u_socket(AF_UNIX, SOCK_STREAM, 0), -1);
                row.misdeed();
                return Outcome{row.failed, row.err};
            }
        };
        const Fault fault = {.call = "socket", .error = EMFILE, .from_anyone = true};
        EXPECT_THAT(wrong_in(scenario, fault), *row.finding == 0 ? testing::Matcher<std::string>("")
                                                                 : testing::HasSubstr(row.finding));
    }
}

// The sweep is complete: whatever the library imports can be reached by a plan or cannot fail.
TEST(FaultCoverage, EveryImportIsKnown) {
    const std::set<std::string> harmless = {
        // text, memory and numbers
        "memcmp", "memcpy", "memmove", "memset", "memchr", "strchr", "strcmp", "strcspn", "strlen",
        "strncmp", "strncpy", "strnlen", "strrchr", "strspn", "strtok_r", "strtol", "strftime",
        "localtime_r", "localtime", "qsort", "snprintf", "vsnprintf", "getenv", "secure_getenv",
        "free", "__memcpy_chk", "__memmove_chk", "__snprintf_chk", "__vsnprintf_chk", "__fdelt_chk",
        "__stack_chk_fail", "__errno_location", "sigdelset", "sigismember", "abort",
        // output whose failure nobody looks at
        "fprintf", "printf", "puts", "fputs", "fputc", "__fprintf_chk", "__printf_chk", "stderr",
        "stdout", "fclose", "fileno", "bcmp", "openlog", "syslog", "__syslog_chk", "closelog"};
    const std::regex sanitizers("__(asan|ubsan|tsan|sanitizer|gcov|llvm).*");
    FILE *symbols = popen("nm -D --undefined-only " QVCL_LIBRARY " | sed -n 's/^ *U //p'", "r");
    char name[512];
    int imports = 0;
    while (fscanf(symbols, " %511[^@\n]%*[^\n]", name) == 1) {
        if (std::regex_match(name, sanitizers)) continue;
        ++imports;
        if (!harmless.contains(name)) {
            EXPECT_THAT(test::reachable_calls(), testing::Contains(name))
                << "cannot be made to fail";
        }
    }
    EXPECT_EQ(pclose(symbols), 0);
    EXPECT_GT(imports, 50);
}

}  // namespace
