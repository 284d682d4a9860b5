// What the trace tests look at: rings and tables that the library itself has filled, under a clock
// that the story moves. Paths are relative to the working folder.
#pragma once

#include <fcntl.h>
#include <qvcl/qvcl.h>
#include <qvcl/trace_records.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <string>

#include "tests/support.h"

namespace test {

// The caller's position; the flag is the application's.
#define POSITION 0, "a_file_name_of_24_chars", 0x12345678

class Story {
  public:
    static constexpr uint32_t kObjects = 8;
    static constexpr uint64_t kStart = 1790000000;  // second of the first record, 14:13:20 UTC

    Story() {
        set_env("TZ", "UTC0");
        set_uptime(100);
        tick(0);
        CL_MainTable->pid = 4242;
        names[address(reinterpret_cast<void *>(call_action))] = "call_action";
        names[address(reinterpret_cast<void *>(act))] = "act";
        names[address(this)] = "story";
        names[address(&message)] = "message";
        names[address(buffer_)] = "buffer";
        names[address(&unsent_)] = "unsent";
        names[address(&received_)] = "received";
    }
    // Both rings anew and empty.
    static void rings(uint32_t entries) {
        for (const int ring : {CL_RING_LIBRARY, CL_RING_USER})
            CL_TRC_End_M(ring);
        EXPECT_EQ(CL_TRC_Init_M(nullptr, CL_TRC_LIB_ENTRY, entries, nullptr, CL_RING_LIBRARY), 0u);
        EXPECT_EQ(CL_TRC_Init_M("/tmp/s", 40, 4, nullptr, CL_RING_USER), 0u);
    }
    void tick(uint64_t microseconds) {
        now_ += microseconds;
        set_time(kStart + now_ / 1000000, now_ % 1000000);
    }

    // Every operation, once at least with success and once without.
    void calls();
    // Objects of most kinds, and a loop that dumps them from inside a callback.
    void live(const char *dump);
    // Records that no run leaves, put into the ring by hand.
    void odd(uint32_t sender, uint64_t buffer, uint32_t seconds);

    CL_ErrInfo err{};
    std::map<uint64_t, std::string> names;  // of addresses that differ from run to run
    CL_Queue pattern{&err, &err, 3, 4};     // the queue of made-up events
    struct {
        CL_MsgBlock block{};
        uint8_t payload[100]{};
    } message;

  private:
    static uint32_t act(CL_Object *object, CL_Event *event, uint64_t story, uint64_t arg2);
    void lists();
    void loops();
    void messages();
    void files();
    void memory();
    void events();
    CL_Object *make(uint32_t kind, uint32_t step = 0) {
        return CL_CreateFD_M(kind, act, address(this), step, &err, 1, "made", kind);
    }
    template <class T>
    void put(T record, uint8_t api, uint8_t phase, uint32_t length = sizeof(T)) {
        record.head.length = length;
        record.head.api = api;
        record.head.phase = phase;
        record.head.marker = phase != 0 ? CL_MARK_EXIT : CL_MARK_ENTRY;
        strcpy(record.head.file, "server.c");
        CL_TRC_Write_M(&record, CL_RING_LIBRARY);
        tick(10);
    }

    uint64_t now_ = 0;
    uint8_t buffer_[200] = "";
    uint64_t received_ = 0;
    CL_Queue unsent_{};
    CL_Object *timer_ = nullptr;
    const char *dump_ = nullptr;
};

inline void Story::lists() {
    const uint64_t big = 0x8877665544332211;
    names[big] = "big";
    CL_Object *object = CL_CreateFD_M(CL_KIND_FD, call_action, big, 2, &err, POSITION);
    CL_FdSets sets{};
    for (const int fd : {0, 1, 2, 9})
        FD_SET(fd, &sets.read);
    FD_SET(64, &sets.write);
    FD_SET(1023, &sets.except);
    CL_SetFD_M(object, 1025, &sets.read, &sets.write, &sets.except, &err, POSITION);
    CL_SetFD_M(object, 1024, &sets.read, nullptr, &sets.except, &err, POSITION);
    for (const uint32_t priority : {11u, 20u, 20u})
        CL_AddEventList_M(object, priority, &err, POSITION);
    for (int i = 0; i < 2; ++i)
        CL_DelEventList_M(object, &err, POSITION);
    cl_StatusChange_M(object, CL_STATUS_READY, CL_SUB_RECV_PENDING, "a_name_longer_than_16", 99);
    cl_StatusChange_M(object, CL_STATUS_READY | 0x80, 0x107, "a_name_longer_than_16", 99);
    cl_StatusChange_M(object, CL_STATUS_READY | 0x80, 0x04, "a_name_longer_than_16", 99);
    for (int i = 0; i < 2; ++i)
        CL_DeleteFD_M(object, &err, POSITION);
    CL_Object *thread = make(CL_KIND_THREAD);
    for (CL_Object *target : {thread, object}) {
        err = {};
        CL_SetThreadFd_M(target, &err, POSITION);
    }
    CL_DeleteFD_M(thread, &err, POSITION);
}

inline void Story::loops() {
    Pipe pipe;
    pipe.fill();
    fd_set set;
    FD_ZERO(&set);
    FD_SET(dup2(pipe.out(), 100), &set);
    Action action = [](CL_Object *, CL_Event *) { return 7u; };
    names[address(&action)] = "seven";
    CL_Object *object = CL_CreateFD_M(CL_KIND_FD, call_action, address(&action), 0, &err, POSITION);
    CL_SetFD_M(object, 101, &set, nullptr, nullptr, &err, POSITION);
    CL_AddEventList_M(object, 20, &err, POSITION);
    CL_EventLoop_M(&err, POSITION);
    CL_EventLoopThread_M(&err, POSITION);
    {
        const Plan plan{{.call = "pselect", .error = ENOMEM, .times = 2}};
        CL_EventLoop_M(&err, POSITION);
        CL_EventLoopThread_M(&err, POSITION);
    }
    CL_DeleteFD_M(object, &err, POSITION);
    close(100);
    CL_Object *timer = make(CL_KIND_TIMER);
    for (const uint32_t mode : {9u, uint32_t{CL_TIMER_PERIODIC}})
        CL_StartTIMER_M(timer, 99, mode, &err, POSITION);
    for (int i = 0; i < 2; ++i)
        CL_StopTIMER_M(timer, &err, POSITION);
    CL_DeleteFD_M(timer, &err, POSITION);
}

inline void Story::messages() {
    const std::string s200(200, 's');
    CL_Object *server = make(CL_KIND_MSGS);
    CL_Object *client = make(CL_KIND_MSGC);
    const auto accept = [&] { return CL_AcceptMSGS_M(server, call_action, 5, 6, &err, POSITION); };
    for (const char *path : {s200.c_str(), "", "socket"})
        CL_OpenMSGS_M(server, path, 5, &err, POSITION);
    accept();
    for (const char *path : {static_cast<const char *>(nullptr), s200.c_str(), "socket"})
        CL_CnctMSGC_M(client, path, CL_MODE_SYNC, 77, &err, POSITION);
    CL_Object *peer = accept();
    for (size_t i = 0; i < sizeof message.payload; ++i)
        message.payload[i] = static_cast<uint8_t>(i + 1);
    message.block.header.type = 0x1234;
    message.block.reserved = 0x5a5a5a5a;
    CL_SendMSGC_M(client, &message, -5, CL_MODE_SYNC, 3, &err, POSITION);
    CL_SendMSGC_M(client, &message, 50, CL_MODE_SYNC, 3, &err, POSITION);
    CL_SendMSGC_M(client, &message, 140, CL_MODE_IMMEDIATE, 3, &err, POSITION);
    CL_RecvMSGC_M(peer, buffer_, 15, CL_MODE_SYNC, 3, &err, POSITION);
    CL_RecvMSGC_M(peer, buffer_, 200, CL_MODE_SYNC, 3, &err, POSITION);
    for (int i = 0; i < 2; ++i)
        CL_DiscMSGC_M(client, &received_, &unsent_, &err, POSITION);
    for (int i = 0; i < 2; ++i)
        CL_CloseMSGS_M(server, &err, POSITION);
    for (CL_Object *object : {client, peer, server})
        CL_DeleteFD_M(object, &err, POSITION);
}

inline void Story::files() {
    static const char text[] = "0123456789abcdefXYZ";
    names[address(text)] = "text";
    const std::string s300(300, 'f');
    CL_OpenFile_M(s300.c_str(), O_RDWR, 0640, &err, POSITION);
    CL_Object *file = CL_OpenFile_M("file", O_RDWR | O_CREAT, 0640, &err, POSITION);
    for (CL_Object *object : {file, static_cast<CL_Object *>(nullptr)}) {
        CL_WriteFile_M(object, text, 19, &err, POSITION);
        CL_WriteFile_M(object, text, 3, &err, POSITION);
        CL_SeekFile_M(object, -22, SEEK_CUR, &err, POSITION);
        CL_SeekFile_M(object, -1, 3, &err, POSITION);
        for (const uint64_t length : {5u, 100u})
            CL_ReadFile_M(object, buffer_, length, &err, POSITION);
        CL_FlushFile_M(object, &err, POSITION);
    }
    for (int i = 0; i < 2; ++i)
        CL_CloseFile_M(file, &err, POSITION);
    for (const char *path :
         std::initializer_list<const char *>{"file", "\x1b[31m\\\"", s300.c_str(), "", nullptr})
        CL_DeleteFile_M(path, &err, POSITION);
}

inline void Story::memory() {
    const std::string name = "/qvcl-story-" + std::to_string(getpid());
    const int segment = shm_open(name.c_str(), O_CREAT | O_RDWR, 0600);
    EXPECT_EQ(ftruncate(segment, 4096), 0);
    close(segment);
    CL_Object *object = cl_openshm(name.c_str(), O_RDWR, 4096, &err, "story", 1);
    shm_unlink(name.c_str());
    names[address(CL_MapSHM_M(object, &err, POSITION))] = "segment";
    CL_MapSHM_M(object, &err, POSITION);
    CL_CloseSHM_M(object, &err, POSITION);
    for (int i = 0; i < 2; ++i)
        CL_UnmapSHM_M(object, &err, POSITION);
    CL_CloseSHM_M(object, &err, POSITION);
}

// Every sort of event: what of it is copied behind the entry record.
inline void Story::events() {
    alignas(CL_MsgBlock) static uint8_t blocks[2][144];
    for (size_t i = 0; i < sizeof blocks; ++i)
        blocks[i / 144][i % 144] = static_cast<uint8_t>(i % 144);
    const int32_t lengths[] = {100, 20};
    for (int i = 0; i < 2; ++i) {
        memcpy(&blocks[i][offsetof(CL_MsgBlock, sent)], &lengths[i], sizeof lengths[i]);
        names[address(blocks[i])] = "block" + std::to_string(i);
    }
    CL_Object *object = make(CL_KIND_FD);
    const struct {
        uint32_t type;
        void *data;
        int32_t length;
    } rows[] = {{CL_EVENT_MESSAGE, blocks[0], 100}, {CL_EVENT_MESSAGE, blocks[0], 10},
                {CL_EVENT_MESSAGE, blocks[0], -1},  {CL_EVENT_MESSAGE, blocks[0], 0},
                {CL_EVENT_SENT, blocks[0], 0},      {CL_EVENT_SENT, blocks[1], 0},
                {CL_EVENT_DESCRIPTOR, nullptr, 0},  {77, blocks[0], 50}};
    for (const auto &[type, data, length] : rows) {
        CL_Event event{};
        event.type = type;
        event.data = data;
        event.length = length;
        event.queue = pattern;
        FD_SET(3, &event.sets.read);
        FD_SET(1023, &event.sets.except);
        event.exit_reason = 1;
        event.exit_value = 3;
        event.error = {9, 8, 7, 6, 5};
        Action action = [&](CL_Object *, CL_Event *) {
            tick(30);
            return 0x80000007u;
        };
        names[address(&action)] = "action";
        cl_Callback_M(call_action, object, &event, address(&action), 43, 1, "event", 12);
    }
    CL_DeleteFD_M(object, &err, POSITION);
}

inline void Story::calls() {
    const std::string s200(200, 'p');
    CL_End_M(&err, POSITION);
    CL_Init_M(20000, "", &err, POSITION);
    CL_Init_M(3, s200.c_str(), &err, POSITION);
    CL_CreateFD_M(CL_KIND_FD, nullptr, 1, 2, &err, POSITION);
    CL_Init_M(kObjects, nullptr, &err, POSITION);
    lists();
    loops();
    messages();
    files();
    memory();
    events();
}

// What the loop calls: a message is dumped, and ends the loop.
inline uint32_t Story::act(CL_Object *, CL_Event *event, uint64_t story, uint64_t) {
    auto &self = *reinterpret_cast<Story *>(story);
    self.tick(40);
    if (event->type != CL_EVENT_MESSAGE) return 0;
    CL_StopTIMER_M(nullptr, &self.err, POSITION);
    CL_StartTIMER_M(self.timer_, 5, CL_TIMER_ONESHOT, &self.err, POSITION);
    struct {
        CL_TrcHead head;
        char text[14];
    } own{{}, "of my own"};
    own.head.length = sizeof own;
    CL_TRC_Write_M(&own, CL_RING_USER);
    self.tick(1300);
    CL_TRC_Out(self.dump_, "a \"text\"\n");
    return 7;
}

inline void Story::live(const char *dump) {
    dump_ = dump;
    CL_Object *server = make(CL_KIND_MSGS);
    CL_OpenMSGS_M(server, "socket", 5, &err, POSITION);
    CL_AddEventList_M(server, 30, &err, POSITION);
    CL_Object *client = make(CL_KIND_MSGC);
    CL_CnctMSGC_M(client, "socket", CL_MODE_SYNC, 0, &err, POSITION);
    CL_Object *peer = CL_AcceptMSGS_M(server, act, address(this), 0, &err, POSITION);
    CL_AddEventList_M(peer, 20, &err, POSITION);
    CL_RecvMSGC_M(peer, buffer_, 200, CL_MODE_DEFERRED, 0, &err, POSITION);
    CL_Object *thread = make(CL_KIND_THREAD);
    CL_SetThreadFd_M(thread, &err, POSITION);
    CL_AddEventList_M(thread, 20, &err, POSITION);
    fd_set set{};
    FD_SET(9, &set);
    CL_SetFD_M(make(CL_KIND_FD), 10, nullptr, &set, nullptr, &err, POSITION);
    CL_OpenFile_M("live.file", O_RDWR | O_CREAT, 0640, &err, POSITION);
    // A slot that was used twice since.
    for (uint32_t i = 0; i < 2 * (kObjects + CL_SPARE_OBJECTS); ++i) {
        tick(1);
        CL_DeleteFD_M(make(CL_KIND_FD), &err, POSITION);
    }
    timer_ = make(CL_KIND_TIMER);
    CL_StartTIMER_M(timer_, 9, CL_TIMER_PERIODIC, &err, POSITION);
    raise(SIGALRM);  // a tick
    CL_Object *now = make(CL_KIND_TIMER);
    rings(21);  // less than what follows
    CL_StartTIMER_M(now, 0, CL_TIMER_ONESHOT, &err, POSITION);
    CL_SendMSGC_M(client, &message, 80, CL_MODE_SYNC, 3, &err, POSITION);
    CL_EventLoop_M(&err, POSITION);
}

inline void Story::odd(uint32_t sender, uint64_t buffer, uint32_t seconds) {
    CL_TrcConnect connect{};
    strcpy(connect.path, "slow");
    connect.mode = CL_MODE_DEFERRED;
    const uint32_t length = offsetof(CL_TrcConnect, path) + 12;
    put(connect, CL_API_CNCT_MSGC, 0, length);
    connect.error = {CL_ERR_IN_PROGRESS, CL_ERR_IN_PROGRESS, CL_MODULE_MSGC, 1, CL_VERSION};
    put(connect, CL_API_CNCT_MSGC, 1, length);
    // Calls that never returned do not hide that the one around them did.
    put(CL_TrcProcess{}, CL_API_LOOP, 0);
    for (int i = 0; i < 3; ++i)
        put(CL_TrcHandle{}, CL_API_UNMAP_SHM, 0);
    put(CL_TrcProcess{}, CL_API_LOOP, 1);
    // As many calls as tell the ranks of percentiles apart.
    for (uint64_t i = 1; i <= 10; ++i) {
        put(CL_TrcHandle{}, CL_API_STOP_TIMER, 0);
        tick(10 * i);
        put(CL_TrcHandle{}, CL_API_STOP_TIMER, 1);
    }
    // The clock is set back during a call.
    put(CL_TrcFlush{}, CL_API_FLUSH_FILE, 0);
    tick(0 - uint64_t{500});
    put(CL_TrcFlush{}, CL_API_FLUSH_FILE, 1);
    CL_TrcSend send{};
    send.block = buffer;
    send.data_length = 64;
    const CL_MsgHeader header{24, CL_MSG_VERSION, sender, 9};
    memcpy(send.data + CL_MSG_PREFIX_SIZE, &header, sizeof header);
    put(send, CL_API_SEND_MSGC, 0);
    CL_TrcCreate create{};
    create.callback = create.arg1 = buffer;
    put(create, CL_API_CREATE_FD, 1);
    CL_TrcStartTimer start{};
    start.seconds = seconds;
    start.error = {EINVAL, 0, CL_MODULE_TIMER, 77, CL_VERSION + 1};  // whose lines nobody knows
    put(start, CL_API_START_TIMER, 1);
}

}  // namespace test
