// Arbitrary bytes as a daemon's life: each is a public call, with handles that are valid, stale or
// none, or a step of the world outside (peers that send anything, time, signals, children, system
// calls that fail). Callbacks, and the world while the library waits, go on reading the same bytes.
//
// Whatever happened: a failure has a reason, the objects are on the lists that their status names,
// a message is the one that its header describes, blocks and buffers are lent exactly as long as
// message.h says, and when everything is deleted nothing is left: no object, descriptor, mapping,
// child, block, blocked signal or interval timer.
#include <fcntl.h>
#include <qvcl/qvcl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/fuzz/outside.h"

namespace {

using outside::Paused;
using outside::require;
using outside::world;

constexpr size_t kSlots = 12;
constexpr pid_t kFirstChild = 1 << 22;  // above every process id there is

// What the library has before an input begins, and must have when it has ended.
struct Ledger {
    std::vector<uint64_t> counts;
    static Ledger now() {
        const CL_MainBlock &main = *CL_MainTable;
        return {{main.used_queue.count, main.free_queue.count, main.timer_list.count,
                 main.child_list.count, main.thread_list.count, main.exec_wait_list.count,
                 main.priority_list.count + main.pending_list.count, main.library_blocks.count,
                 main.library_bytes, main.user_blocks.count, world.children.size(),
                 static_cast<uint64_t>(world.mappings)}};
    }
    bool operator==(const Ledger &other) const = default;
};

// The library, a folder and a listening socket of somebody else's, once for all inputs.
struct Stage {
    std::string folder = "/tmp/qvcl-calls-" + std::to_string(getpid());
    std::string segment = "/qvcl-calls-" + std::to_string(getpid());
    std::string paths[8] = {folder + "/a",
                            folder + "/b",
                            folder + "/peer",
                            folder + "/exec",
                            folder + "/no/where",
                            folder + '/' + std::string(120, 'l'),
                            folder,
                            ""};
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    Ledger begin;
    size_t held = 0;

    Stage() {
        std::filesystem::create_directories(folder);
        const sockaddr_un address = address_of(paths[2]);
        require(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                    listen(listener, 4) == 0,
                "no socket to begin with");
        world.on = true;
        CL_ErrInfo err;
        require(CL_Init(20, paths[3].c_str(), &err) == 1, "no library to begin with");
        world.on = false;
        begin = Ledger::now();
        held = world.held.count();
    }
    ~Stage() {
        std::filesystem::remove_all(folder);
        shm_unlink(segment.c_str());
    }
    static sockaddr_un address_of(const std::string &path) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        return address;
    }
    void make_segment() const {
        const int fd = shm_open(segment.c_str(), O_RDWR | O_CREAT, 0600);
        require(fd != -1 && ftruncate(fd, 4096) == 0, "no segment to begin with");
        close(fd);
    }
};
Stage *stage;

struct Block {
    CL_MsgBlock head;
    char payload[2000];
};

// One input.
struct Run {
    const uint8_t *at;
    const uint8_t *end;
    std::array<CL_Object *, kSlots> slots = {};
    std::array<int, 6> peers = {-1, -1, -1, -1, -1, -1};
    std::vector<Block> blocks = std::vector<Block>(6);
    std::set<char *> lent;  // buffers, to connections
    int depth = 0;
    int loops = 0;
    bool masks_failed = false;
    pid_t next_child = kFirstChild;

    Run(const uint8_t *data, size_t size) : at(data), end(data + size) {}
    uint8_t byte() { return at < end ? *at++ : 0; }
    uint8_t below(uint8_t bound) { return static_cast<uint8_t>(byte() % bound); }
    // One that may be removed is not one that all inputs need.
    const char *path(bool may_go = false) {
        uint8_t which = below(9);
        if (may_go && (which == 2 || which == 3)) which = 0;
        return which < 8 ? stage->paths[which].c_str() : nullptr;
    }
    // Mostly of a live object of this kind, if there is one.
    CL_Object *handle(uint32_t kind = 0) {
        const uint8_t which = byte();
        CL_Object *own = slots[which % kSlots];
        for (size_t i = 0; which < 200 && i < kSlots; ++i) {
            CL_Object *object = slots[(which + i) % kSlots];
            CL_ErrInfo error;
            if (object != nullptr && cl_CheckFD_sub(object, &error) == 1 &&
                (kind == 0 || object->kind == kind))
                return object;
        }
        if (which < 240) return own;
        auto *table = reinterpret_cast<char *>(CL_MainTable->descriptor_table);
        switch (which % 6) {
            case 0:
                return CL_MainTable->execs;
            case 1:
                return reinterpret_cast<CL_Object *>(table + CL_MainTable->descriptor_table->size);
            case 2:
                return reinterpret_cast<CL_Object *>(table + sizeof(CL_TableHeader) + 8);
            case 3:
                return reinterpret_cast<CL_Object *>(table);
            case 4:
                return static_cast<CL_Object *>(CL_MainTable->free_queue.head);
            default:
                return nullptr;
        }
    }
    void keep(CL_Object *object) {
        if (object != nullptr) slots[below(kSlots)] = object;
    }
    uint8_t priority() { return static_cast<uint8_t>(10 + below(104)); }
    pid_t child() { return kFirstChild + below(4); }
};
Run *run;
CL_ErrInfo err;

void said_why(bool failed) {
    require(!failed || err.err != 0, "a failure without a reason");
}

// ---------------------------------------------------------------- the world

void peer_sends(const void *data, size_t length) {
    send(run->peers[run->below(6)], data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void peer_says(uint32_t type, uint32_t sender, uint32_t payload, uint32_t version) {
    std::vector<char> message(sizeof(CL_MsgHeader) + payload);
    const CL_MsgHeader header = {static_cast<uint32_t>(message.size()), version, sender, type};
    memcpy(message.data(), &header, sizeof header);
    peer_sends(message.data(), message.size());
}

void set_peer(int fd) {
    if (fd == -1) return;
    int &place = run->peers[run->below(6)];
    if (place != -1) close(place);
    place = fd;
}

// One step of it; whether the library is interrupted.
bool outside_step() {
    const Paused paused;
    switch (run->below(14)) {
        case 0:  // the end of the input, too: time passes until something happens
        case 1:
            world.uptime += run->below(4) + 1;
            return world.ticking && world.raise(SIGALRM);
        case 2: {
            const auto child = world.children.find(run->child());
            if (child == world.children.end()) return false;
            const int code = run->byte();
            child->second = {true, code < 200 ? code << 8 : code % 32 + 1};
            return world.raise(SIGCHLD);
        }
        case 3:
            return world.raise(SIGUSR1);
        case 4:
        case 5: {
            const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
            const sockaddr_un address = Stage::address_of(stage->paths[run->below(4)]);
            if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
                set_peer(fd);
            } else {
                close(fd);
            }
            return false;
        }
        case 6:
            set_peer(accept4(stage->listener, nullptr, nullptr, SOCK_NONBLOCK));
            return false;
        case 7:
            peer_says(run->byte(), run->byte(), run->byte(), CL_MSG_VERSION);
            return false;
        case 8: {
            const size_t wanted = run->byte();
            const size_t length = std::min(wanted, static_cast<size_t>(run->end - run->at));
            const uint8_t *bytes = std::exchange(run->at, run->at + length);
            peer_sends(bytes, length);
            return false;
        }
        case 9:
            peer_says(CL_MSG_EXEC_COMPLETE, static_cast<uint32_t>(run->child()), run->below(6),
                      CL_MSG_VERSION);
            return false;
        case 10:
            peer_says(CL_MSG_END_REQUEST, 1, 0, CL_MSG_VERSION + (run->below(8) == 7 ? 1 : 0));
            return false;
        case 11: {
            std::array<char, 65536> drained;
            static_cast<void>(read(run->peers[run->below(6)], drained.data(), drained.size()) > 0);
            return false;
        }
        case 12: {
            int &peer = run->peers[run->below(6)];
            if (peer != -1) close(std::exchange(peer, -1));
            return false;
        }
        default: {
            constexpr int kErrors[] = {0,     EINTR,  EAGAIN, ENOMEM,     EIO,
                                       EPIPE, ENOENT, EBADF,  ECONNRESET, 0};
            outside::Fault &fault = world.fault;
            fault.call = outside::kCalls[run->below(std::size(outside::kCalls))];
            fault.error = kErrors[run->below(std::size(kErrors))];
            fault.nth = run->below(3) + 1u;
            fault.times = run->below(4) + 1u;
            fault.at_most = run->below(20) + 1u;
            run->masks_failed |= fault.call.ends_with("mask");
            return false;
        }
    }
}

// ---------------------------------------------------------------- calls

void act();

uint32_t on_event(CL_Object *object, CL_Event *event, uint64_t arg1, uint64_t arg2);

void create() {
    constexpr uint32_t kOften[] = {CL_KIND_MSGC, CL_KIND_MSGC, CL_KIND_MSGS,  CL_KIND_CHILD,
                                   CL_KIND_FD,   CL_KIND_FD,   CL_KIND_TIMER, CL_KIND_THREAD};
    const uint8_t kind = run->below(24);
    CL_Object *object =
        CL_CreateFD(kind < 16 ? kOften[kind % 8] : kind - 16u, on_event, 1, 2, &err);
    said_why(object == nullptr);
    run->keep(object);
}

void delete_object() {
    CL_Object *object = run->handle();
    const bool deleted = CL_DeleteFD(object, &err) == 1;
    said_why(!deleted);
    require(!deleted || cl_CheckFD_sub(object, &err) == 0, "deleted, and still there");
}

void list() {
    said_why(CL_AddEventList(run->handle(), run->priority(), &err) == 0);
}

void unlist() {
    said_why(CL_DelEventList(run->handle(), &err) == 0);
}

void open_server() {
    CL_Object *server = run->handle(CL_KIND_MSGS);
    const char *path = run->path(true);
    said_why(CL_OpenMSGS(server, path, run->below(4), &err) == 0);
}

void accept_connection() {
    CL_Object *connection = CL_AcceptMSGS(run->handle(CL_KIND_MSGS), on_event, 1, 2, &err);
    said_why(connection == nullptr);
    run->keep(connection);
}

void close_server() {
    said_why(CL_CloseMSGS(run->handle(CL_KIND_MSGS), &err) == 0);
}

// Somebody else has accepted it.
void connected_client() {
    CL_Object *client = CL_CreateFD(CL_KIND_MSGC, on_event, 1, 2, &err);
    if (client == nullptr) return;
    run->keep(client);
    CL_CnctMSGC(client, stage->paths[2].c_str(), CL_MODE_SYNC, &err);
    const Paused paused;
    set_peer(accept4(stage->listener, nullptr, nullptr, SOCK_NONBLOCK));
}

void connect_client() {
    CL_Object *client = run->handle(CL_KIND_MSGC);
    const char *path = run->path();
    said_why(CL_CnctMSGC(client, path, run->below(5), &err) == 0);
}

void give_back(void *buffer) {
    auto *own = static_cast<char *>(buffer);
    if (run->lent.erase(own) != 0) delete[] own;
}

void receive() {
    CL_Object *client = run->handle(CL_KIND_MSGC);
    const uint8_t mode = run->below(4), timeout = run->below(4), size = run->byte();
    auto *buffer = new char[size + 1u];
    run->lent.insert(buffer);
    const int32_t result = CL_RecvMSGC(client, buffer, size, mode, timeout, &err);
    if (mode == CL_MODE_SYNC && result > 0 && err.err == 0) {
        const auto *header = reinterpret_cast<const CL_MsgHeader *>(buffer);
        require(result <= size && header->length == static_cast<uint32_t>(result),
                "a message that is not what its header says");
    }
    said_why(result <= 0);
    if (mode == CL_MODE_SYNC || err.err != CL_ERR_IN_PROGRESS) give_back(buffer);
}

void send_block() {
    CL_Object *client = run->handle(CL_KIND_MSGC);
    CL_MsgBlock *block = run->below(16) != 15 ? &run->blocks[run->below(6)].head : nullptr;
    const uint8_t mode = run->below(5), timeout = run->below(3);
    const int32_t size = run->byte() * 8;
    const bool queued = block != nullptr && block->link.owner != nullptr;
    const int32_t result = CL_SendMSGC(client, block, size, mode, timeout, &err);
    said_why(result <= 0);
    if (block == nullptr || queued || mode == CL_MODE_SYNC) return;
    const bool lent = result == -1 && err.err == CL_ERR_IN_PROGRESS;
    require(lent == (block->link.owner != nullptr), "a block that is not where the call says");
}

void disconnect() {
    uint64_t buffer = 0;
    CL_Queue unsent = {};
    CL_Object *client = run->handle(CL_KIND_MSGC);
    const uint8_t which = run->below(4);
    const bool wants = (which & 1) != 0;
    const bool done =
        CL_DiscMSGC(client, wants ? &buffer : nullptr, (which & 2) != 0 ? &unsent : nullptr, &err);
    said_why(!done);
    give_back(reinterpret_cast<void *>(buffer));
    CL_QUE_Clear(&unsent);
}

void set_descriptors() {
    fd_set sets[3];
    for (fd_set &set : sets) {
        FD_ZERO(&set);
        for (uint8_t n = run->below(3); n > 0; --n) {
            const int fd = run->peers[run->below(6)];
            const uint8_t other = run->byte();
            FD_SET(other > 250 ? other : fd != -1 ? fd : stage->listener, &set);
        }
    }
    const uint8_t which = run->byte();
    said_why(CL_SetFD(run->handle(CL_KIND_FD),
                      which < 8    ? which
                      : which < 16 ? 2000u
                                   : which * 4u,
                      (which & 1) != 0 ? &sets[0] : nullptr, (which & 2) != 0 ? &sets[1] : nullptr,
                      (which & 4) != 0 ? &sets[2] : nullptr, &err) == 0);
}

void start_timer() {
    CL_Object *timer = run->handle(CL_KIND_TIMER);
    const uint8_t seconds = run->below(5);
    said_why(
        CL_StartTIMER(timer, seconds == 4 ? CL_TIMER_DUE : seconds, 9u + run->below(4), &err) == 0);
}

void stop_timer() {
    said_why(CL_StopTIMER(run->handle(CL_KIND_TIMER), &err) == 0);
}

void wakes() {
    switch (run->below(8)) {
        case 0:
            clSIGUSR1End();
            break;
        case 1:
        case 2:
            said_why(clSIGUSR1Initialize(&err) == 0);
            break;
        case 3:
            CL_CommitTIMER();
            break;
        default:
            said_why(CL_SetThreadFd(run->handle(CL_KIND_THREAD), &err) == 0);
    }
}

// As a starter does it, but for the process.
void start_child() {
    CL_Object *child = run->handle(CL_KIND_CHILD);
    if (cl_CheckFD(child, &err) == 0 || child->kind != CL_KIND_CHILD || child->status != 0) return;
    const bool awaited = run->below(2) == 1;
    const pid_t pid = run->next_child++;
    world.children[pid] = {};
    child->child.pid = static_cast<uint32_t>(pid);
    cl_StatusChange_M(child, CL_STATUS_READY, awaited ? CL_SUB_EXEC_AWAITED : 0, "fuzz", 1);
    if (awaited) CL_QUE_PutTail(&CL_MainTable->exec_wait_list, child);
    require(CL_AddEventList_M(child, CL_PRIORITY_FIRST, &err, 1, "fuzz", 1) == 1, "not listed");
}

uint32_t on_end(CL_Object *object, CL_Event *event, uint64_t, uint64_t) {
    require(event->type == CL_EVENT_END, "the end callback is told something else");
    const uint8_t what = run->below(4);
    if (what == 1) CL_DeleteFD(object, &err);
    if (what == 2) act();
    return what == 3 ? 9 : 0;
}

// As the started program does it.
void report_to_starter() {
    CL_Object *end = CL_CreateFD_M(CL_KIND_END, cl_EndCallback, 1, 2, &err, 1, "fuzz", 1);
    if (end == nullptr) return;
    run->keep(end);
    end->connection.end_callback = on_end;
    CL_CnctMSGC_M(end, run->path(), CL_MODE_SYNC, 0, &err, 1, "fuzz", 1);
    CL_RecvMSGC_M(end, end->connection.report, sizeof end->connection.report, CL_MODE_DEFERRED, 0,
                  &err, 1, "fuzz", 1);
    if (err.err == CL_ERR_IN_PROGRESS)
        CL_AddEventList_M(end, CL_PRIORITY_REPORT, &err, 1, "fuzz", 1);
    CL_MainTable->sync_flag = run->below(2);
}

void file_call() {
    char bytes[200] = "text";
    CL_Object *file = run->handle(CL_KIND_FILE);
    switch (run->below(8)) {
        case 0:
            said_why(CL_CloseFile(file, &err) == 0);
            break;
        case 1:
            said_why(CL_WriteFile(file, bytes, run->byte() % sizeof bytes, &err) == -1);
            break;
        case 2:
            said_why(CL_ReadFile(file, bytes, run->byte() % sizeof bytes, &err) == -1);
            break;
        case 3:
            said_why(CL_FlushFile(file, &err) == 0);
            break;
        case 4:
            said_why(CL_SeekFile(file, run->byte() < 128 ? INT32_MAX : -run->byte(), run->below(4),
                                 &err) == -1);
            break;
        case 5:
            said_why(CL_DeleteFile(run->path(true), &err) == 0);
            break;
        default: {
            const char *path = run->path();
            file = CL_OpenFile(path, run->byte() * 16u + run->below(4), 0600, &err);
            said_why(file == nullptr);
            run->keep(file);
        }
    }
}

void memory_call() {
    CL_Object *memory = run->handle(CL_KIND_SHM);
    const uint8_t what = run->below(8);
    switch (what) {
        case 0:
            said_why(CL_CloseSHM(memory, &err) == 0);
            break;
        case 1:
            said_why(CL_UnmapSHM(memory, &err) == 0);
            break;
        case 2:
        case 3: {
            auto *bytes = static_cast<volatile char *>(CL_MapSHM(memory, &err));
            said_why(bytes == nullptr);
            if (bytes != nullptr) static_cast<void>(bytes[0]);
            break;
        }
        default: {
            const char *name = what == 4   ? "/qvcl-not-there"
                               : what == 5 ? nullptr
                                           : stage->segment.c_str();
            memory = CL_OpenSHM(name, run->below(4), run->below(8) * uint64_t{512}, &err);
            said_why(memory == nullptr);
            if (memory != nullptr) memory->memory.unlink_on_close = run->below(2);
            run->keep(memory);
        }
    }
}

void loop() {
    if (run->loops == 2) return;
    ++run->loops;
    const uint32_t result = run->below(2) == 0 ? CL_EventLoop(&err) : CL_EventLoopThread(&err);
    require(result != 0, "the loop ended without a reason");
    said_why(result == CL_LOOP_ERROR);
    --run->loops;
}

// The loop's steps, as a companion or a test calls them.
void step() {
    sigset_t set, saved;
    sigemptyset(&set);
    sigaddset(&set, SIGALRM);
    switch (run->below(8)) {
        case 0:
            cl_fdmake(&err);
            break;
        case 1:
            cl_fdcheck(&set, &saved, &err);
            break;
        case 2:
            cl_fdcheckThread(&set, &saved, &err);
            break;
        case 3:
            cl_sigcheck(1, &set, &saved, &err);
            break;
        case 4:
            cl_sigcheckThread(1, &set, &saved, &err);
            break;
        case 5:
            cl_ChildCall(&err);
            break;
        case 6:
            cl_SIGCHLD_end();
            cl_sigchld_init(&err);
            break;
        default: {
            const CL_EnvChange changes[] = {{"QVCL_FUZZ", run->below(2) != 0 ? "1" : nullptr}, {}};
            cl_envchange(changes, &err);
        }
    }
}

void (*const kOperations[])() = {
    create,
    create,
    delete_object,
    list,
    list,
    unlist,
    open_server,
    accept_connection,
    close_server,
    connect_client,
    connected_client,
    connected_client,
    receive,
    receive,
    send_block,
    send_block,
    disconnect,
    set_descriptors,
    start_timer,
    stop_timer,
    wakes,
    start_child,
    report_to_starter,
    file_call,
    memory_call,
    loop,
    loop,
    step,
    [] { outside_step(); },
    [] { outside_step(); },
};

// What layouts.h says of every object between two operations.
void look_at_objects() {
    const CL_MainBlock &main = *CL_MainTable;
    for (auto *o = static_cast<const CL_Object *>(main.used_queue.head); o != nullptr;
         o = static_cast<const CL_Object *>(o->link.next)) {
        const bool listed = o->child_link.owner != nullptr || o->thread_link.owner != nullptr ||
                            o->event_link.owner != nullptr;
        require(listed == ((o->status & CL_STATUS_LISTED) != 0), "listed is not what it says");
        require((o->timer_link.owner != nullptr) == ((o->status & CL_STATUS_RUNNING) != 0),
                "running is not what it says");
    }
}

void act() {
    if (run->depth == 6 || run->at == run->end) return;
    ++run->depth;
    kOperations[run->byte() % std::size(kOperations)]();
    look_at_objects();
    --run->depth;
}

uint32_t on_event(CL_Object *object, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    require(arg1 == 1 && arg2 == 2, "a callback without its arguments");
    require(cl_CheckFD_sub(object, &err) == 1, "the callback of an object that is gone");
    if (event->type == CL_EVENT_MESSAGE) {
        const auto *header = static_cast<const CL_MsgHeader *>(event->data);
        require(run->lent.contains(static_cast<char *>(event->data)) &&
                    header->length == static_cast<uint32_t>(event->length),
                "a message that is not what its header says");
        give_back(event->data);
    }
    if (event->type == CL_EVENT_SENT) {
        require(static_cast<const CL_MsgBlock *>(event->data)->link.owner == nullptr,
                "a block that was sent and is still lent");
    }
    if (event->type == CL_EVENT_DISCONNECT && event->data != nullptr) give_back(event->data);
    if (event->type == CL_EVENT_DISCONNECT && run->below(2) == 1) CL_QUE_GetTop(&event->queue);
    for (uint8_t n = run->below(3); n > 0; --n)
        act();
    return run->below(8) == 0 ? 7 : 0;
}

// ---------------------------------------------------------------- the end of an input

void delete_one(CL_Object *object) {
    CL_Queue *queues = CL_MainTable->kind_queues;
    constexpr uint32_t kKinds[] = {
#define NUMBER(number, symbol, name) number,
        CL_KINDS(NUMBER)
#undef NUMBER
    };
    // A deletion that failed has taken it off the queue of its kind, and may have reaped its child.
    if (object->kind == CL_KIND_CHILD &&
        !world.children.contains(static_cast<pid_t>(object->child.pid)))
        cl_StatusChange_M(object, object->status & ~uint32_t{CL_STATUS_READY}, 0, "fuzz", 1);
    if (object->kind_link.owner == nullptr)
        CL_QUE_PutTail(&queues[std::find(kKinds, std::end(kKinds), object->kind) - kKinds], object);
    bool gone;
    if (object->kind == CL_KIND_SHM) {
        if (object->memory.address != nullptr) CL_UnmapSHM(object, &err);
        gone = CL_CloseSHM(object, &err) == 1;
    } else if (object->kind == CL_KIND_FILE) {
        gone = CL_CloseFile(object, &err) == 1;
    } else {
        gone = CL_DeleteFD_M(object, &err, 1, "fuzz", 1) == 1;
    }
    require(gone, "an object that cannot be deleted");
}

void delete_all() {
    world.fault = {};
    CL_MainTable->sync_flag = 0;
    CL_MainTable->exec_error = {};
    CL_Queue &used = CL_MainTable->used_queue;
    for (auto *object = static_cast<CL_Object *>(used.head); object != nullptr;) {
        auto *next = static_cast<CL_Object *>(object->link.next);
        if (object != CL_MainTable->execs) {
            delete_one(object);
            next = static_cast<CL_Object *>(used.head);  // others may have gone with it
        }
        object = next;
    }
}

void look_at_the_rest() {
    for (const int peer : run->peers)
        if (peer != -1) close(peer);
    for (int peer; (peer = accept(stage->listener, nullptr, nullptr)) != -1;)
        close(peer);
    require(Ledger::now() == stage->begin, "something is left, or missing");
    for (const Block &block : run->blocks)
        require(block.head.link.owner == nullptr, "a block is still lent");
    require(!world.ticking || world.hits != 0, "the interval timer runs on");
    require(world.held.count() <= stage->held + world.not_closed, "a descriptor is left open");
    for (char *buffer : run->lent)
        delete[] buffer;
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    require(run->masks_failed || sigismember(&mask, SIGALRM) == 0, "a signal is left blocked");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static Stage once;
    stage = &once;
    Run input(data, size);
    run = &input;
    once.make_segment();  // the input before may have removed it
    const auto own = world.held;
    world.fault = {};
    world.hits = world.not_closed = 0;
    world.waits = 200;
    world.ticking = false;
    world.step = outside_step;
    {
        const Paused paused;
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
    }
    world.on = true;
    while (input.at != input.end)
        act();
    delete_all();
    world.on = false;
    look_at_the_rest();
    for (size_t fd = 0; fd < world.held.size(); ++fd)
        if (world.held[fd] && !own[fd]) close(static_cast<int>(fd));
    world.held = own;
    return 0;
}
