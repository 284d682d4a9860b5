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
#include <numeric>
#include <string>

#include "tests/support.h"

namespace test {

// The error record and the caller's position; the flag is the application's.
#define HERE &err, 0, "a_file_name_of_24_chars", 0x12345678

class Story {
  public:
    static constexpr uint32_t kObjects = 8;
    static constexpr uint64_t kStart = 1790000000;  // second of the first record, 14:13:20 UTC

    Story() {
        set_env("TZ", "UTC0");
        CL_KitSetUptime(100);
        tick(0);
        CL_MainTable->pid = 4242;
    }
    // Both rings anew and empty.
    static void rings(uint32_t entries) {
        for (const int ring : {CL_RING_LIBRARY, CL_RING_USER})
            CL_TRC_End_M(ring);
        EXPECT_EQ(CL_TRC_Init_M(nullptr, CL_TRC_LIB_ENTRY, entries, nullptr, CL_RING_LIBRARY), 0u);
        EXPECT_EQ(CL_TRC_Init_M("/tmp/s", 40, 4, nullptr, CL_RING_USER), 0u);
    }
    // Every operation, once at least with success and once without.
    void calls() {
        CL_End_M(HERE);
        CL_Init_M(20000, "", HERE);
        CL_Init_M(3, std::string(200, 'p').c_str(), HERE);
        CL_CreateFD_M(CL_KIND_FD, nullptr, 1, 2, HERE);
        CL_Init_M(kObjects, nullptr, HERE);
        lists();
        loops();
        messages();
        files();
        memory();
        events();
    }
    // Objects of most kinds, and a loop that dumps them from inside a callback.
    void live(const char *dump) {
        dump_ = dump;
        CL_Init(kObjects, nullptr, &err);
        CL_Object *server = make(CL_KIND_MSGS), *client = make(CL_KIND_MSGC);
        CL_OpenMSGS_M(server, "socket", 5, HERE);
        CL_AddEventList_M(server, 30, HERE);
        CL_CnctMSGC_M(client, "socket", CL_MODE_SYNC, 0, HERE);
        CL_Object *peer = CL_AcceptMSGS_M(server, act, address(this), 0, HERE);
        CL_AddEventList_M(peer, 20, HERE);
        CL_RecvMSGC_M(peer, buffer_, 200, CL_MODE_DEFERRED, 0, HERE);
        CL_Object *thread = make(CL_KIND_THREAD);
        CL_SetThreadFd_M(thread, HERE);
        CL_AddEventList_M(thread, 20, HERE);
        fd_set set = only(9);
        CL_SetFD_M(make(CL_KIND_FD), 10, nullptr, &set, nullptr, HERE);
        CL_OpenFile_M("live.file", O_RDWR | O_CREAT, 0640, HERE);
        // A slot that was used twice since.
        for (uint32_t i = 0; i < 2 * (kObjects + CL_SPARE_OBJECTS); ++i) {
            tick(1);
            destroy({make(CL_KIND_FD)});
        }
        timer_ = make(CL_KIND_TIMER);
        CL_StartTIMER_M(timer_, 9, CL_TIMER_PERIODIC, HERE);
        raise(SIGALRM);  // a tick
        CL_Object *now = make(CL_KIND_TIMER);
        rings(21);  // less than what follows
        CL_StartTIMER_M(now, 0, CL_TIMER_ONESHOT, HERE);
        CL_SendMSGC_M(client, &message, 80, CL_MODE_SYNC, 3, HERE);
        CL_EventLoop_M(HERE);
    }
    // Records that no run leaves, put into the ring by hand, and dumped.
    void odd(const char *dump, uint32_t sender, uint64_t buffer, uint32_t seconds) {
        rings(100);
        CL_TrcConnect connect{.mode = CL_MODE_DEFERRED, .path = "slow"};
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
        const auto call = [&]<class T>(T record, uint8_t api, uint64_t microseconds) {
            put(record, api, 0);
            tick(microseconds);
            put(record, api, 1);
        };
        for (uint64_t i = 1; i <= 10; ++i)
            call(CL_TrcHandle{}, CL_API_STOP_TIMER, 10 * i);
        call(CL_TrcFlush{}, CL_API_FLUSH_FILE, 0 - uint64_t{500});  // the clock is set back
        CL_TrcSend send{.block = buffer, .data_length = 64};
        const CL_MsgHeader header{24, CL_MSG_VERSION, sender, 9};
        memcpy(send.data + CL_MSG_PREFIX_SIZE, &header, sizeof header);
        put(send, CL_API_SEND_MSGC, 0);
        put(CL_TrcCreate{.callback = buffer, .arg1 = buffer}, CL_API_CREATE_FD, 1);
        // Of another version, whose lines nobody knows.
        const CL_ErrInfo unknown{EINVAL, 0, CL_MODULE_TIMER, 77, CL_VERSION + 1};
        put(CL_TrcStartTimer{.seconds = seconds, .error = unknown}, CL_API_START_TIMER, 1);
        CL_TRC_Out(dump, nullptr);
    }

    CL_ErrInfo err{};
    CL_Queue pattern{&err, &err, 3, 4};  // the queue of made-up events
    struct {
        CL_MsgBlock block{};
        uint8_t payload[100]{};
    } message;
    // Of addresses that differ from run to run.
    std::map<uint64_t, std::string> names{
        {address(reinterpret_cast<void *>(call_action)), "call_action"},
        {address(reinterpret_cast<void *>(act)), "act"},
        {address(this), "story"},
        {address(&message), "message"},
        {address(buffer_), "buffer"},
        {address(&unsent_), "unsent"},
        {address(&received_), "received"}};

  private:
    void lists() {
        const uint64_t big = 0x8877665544332211;
        names[big] = "big";
        CL_Object *object = CL_CreateFD_M(CL_KIND_FD, call_action, big, 2, HERE);
        CL_FdSets sets{{}, only(64), only(1023)};
        for (const int fd : {0, 1, 2, 9})
            FD_SET(fd, &sets.read);
        CL_SetFD_M(object, 1025, &sets.read, &sets.write, &sets.except, HERE);
        CL_SetFD_M(object, 1024, &sets.read, nullptr, &sets.except, HERE);
        for (const uint32_t priority : {11u, 20u, 20u})
            CL_AddEventList_M(object, priority, HERE);
        twice([&] { CL_DelEventList_M(object, HERE); });
        cl_StatusChange_M(object, CL_STATUS_READY, CL_SUB_RECV_PENDING, "a_name_longer_than_16",
                          99);
        cl_StatusChange_M(object, CL_STATUS_READY | 0x80, 0x107, "a_name_longer_than_16", 99);
        cl_StatusChange_M(object, CL_STATUS_READY | 0x80, 0x04, "a_name_longer_than_16", 99);
        destroy({object, object});
        CL_Object *thread = make(CL_KIND_THREAD);
        CL_SetThreadFd_M(thread, HERE);
        err = {};
        CL_SetThreadFd_M(object, HERE);
        destroy({thread});
    }
    void loops() {
        const Pipe pipe;
        pipe.fill();
        fd_set set = only(dup2(pipe.out(), 100));
        Action action = [](CL_Object *, CL_Event *) { return 7u; };
        names[address(&action)] = "seven";
        CL_Object *object = CL_CreateFD_M(CL_KIND_FD, call_action, address(&action), 0, HERE);
        CL_SetFD_M(object, 101, &set, nullptr, nullptr, HERE);
        CL_AddEventList_M(object, 20, HERE);
        CL_EventLoop_M(HERE);
        CL_EventLoopThread_M(HERE);
        const Plan plan({.call = "pselect", .error = ENOMEM, .times = 2});
        CL_EventLoop_M(HERE);
        CL_EventLoopThread_M(HERE);
        destroy({object});
        close(100);
        CL_Object *timer = make(CL_KIND_TIMER);
        CL_StartTIMER_M(timer, 99, 9, HERE);
        CL_StartTIMER_M(timer, 99, CL_TIMER_PERIODIC, HERE);
        twice([&] { CL_StopTIMER_M(timer, HERE); });
        destroy({timer});
    }
    void messages() {
        const std::string s200(200, 's');
        CL_Object *server = make(CL_KIND_MSGS), *client = make(CL_KIND_MSGC);
        const auto accept = [&] { return CL_AcceptMSGS_M(server, call_action, 5, 6, HERE); };
        for (const char *path : {s200.c_str(), "", "socket"})
            CL_OpenMSGS_M(server, path, 5, HERE);
        accept();
        for (const char *path : {static_cast<const char *>(nullptr), s200.c_str(), "socket"})
            CL_CnctMSGC_M(client, path, CL_MODE_SYNC, 77, HERE);
        CL_Object *peer = accept();
        std::iota(std::begin(message.payload), std::end(message.payload), uint8_t{1});
        message.block.header.type = 0x1234;
        message.block.reserved = 0x5a5a5a5a;
        CL_SendMSGC_M(client, &message, -5, CL_MODE_SYNC, 3, HERE);
        CL_SendMSGC_M(client, &message, 50, CL_MODE_SYNC, 3, HERE);
        CL_SendMSGC_M(client, &message, 140, CL_MODE_IMMEDIATE, 3, HERE);
        CL_RecvMSGC_M(peer, buffer_, 15, CL_MODE_SYNC, 3, HERE);
        CL_RecvMSGC_M(peer, buffer_, 200, CL_MODE_SYNC, 3, HERE);
        twice([&] { CL_DiscMSGC_M(client, &received_, &unsent_, HERE); });
        twice([&] { CL_CloseMSGS_M(server, HERE); });
        destroy({client, peer, server});
    }
    void files() {
        static const char text[] = "0123456789abcdefXYZ";
        names[address(text)] = "text";
        const std::string s300(300, 'f');
        CL_OpenFile_M(s300.c_str(), O_RDWR, 0640, HERE);
        CL_Object *file = CL_OpenFile_M("file", O_RDWR | O_CREAT, 0640, HERE);
        for (CL_Object *object : {file, static_cast<CL_Object *>(nullptr)}) {
            CL_WriteFile_M(object, text, 19, HERE);
            CL_WriteFile_M(object, text, 3, HERE);
            CL_SeekFile_M(object, -22, SEEK_CUR, HERE);
            CL_SeekFile_M(object, -1, 3, HERE);
            CL_ReadFile_M(object, buffer_, 5, HERE);
            CL_ReadFile_M(object, buffer_, 100, HERE);
            CL_FlushFile_M(object, HERE);
        }
        twice([&] { CL_CloseFile_M(file, HERE); });
        const char *const none = nullptr;
        for (const char *path : {"file", "\x1b[31m\\\"", s300.c_str(), "", none})
            CL_DeleteFile_M(path, HERE);
    }
    void memory() {
        const std::string name = "/qvcl-story-" + std::to_string(getpid());
        const int segment = shm_open(name.c_str(), O_CREAT | O_RDWR, 0600);
        EXPECT_EQ(ftruncate(segment, 4096), 0);
        close(segment);
        CL_Object *object = cl_openshm(name.c_str(), O_RDWR, 4096, &err, "story", 1);
        shm_unlink(name.c_str());
        names[address(CL_MapSHM_M(object, HERE))] = "segment";
        CL_MapSHM_M(object, HERE);
        CL_CloseSHM_M(object, HERE);
        twice([&] { CL_UnmapSHM_M(object, HERE); });
        CL_CloseSHM_M(object, HERE);
    }
    // Every sort of event: what of it is copied behind the entry record.
    void events() {
        alignas(CL_MsgBlock) static uint8_t blocks[2][144];
        const int32_t lengths[] = {100, 20};
        for (size_t i = 0; i < 2; ++i) {
            std::iota(std::begin(blocks[i]), std::end(blocks[i]), uint8_t{0});
            memcpy(&blocks[i][offsetof(CL_MsgBlock, sent)], &lengths[i], sizeof lengths[i]);
            names[address(blocks[i])] = "block" + std::to_string(i);
        }
        CL_Object *object = make(CL_KIND_FD);
        Action action = [&](CL_Object *, CL_Event *) {
            tick(30);
            return 0x80000007u;
        };
        names[address(&action)] = "action";
        const struct {
            uint32_t type;
            void *data;
            int32_t length;
        } rows[] = {{CL_EVENT_MESSAGE, blocks[0], 100}, {CL_EVENT_MESSAGE, blocks[0], 10},
                    {CL_EVENT_MESSAGE, blocks[0], -1},  {CL_EVENT_MESSAGE, blocks[0], 0},
                    {CL_EVENT_SENT, blocks[0], 0},      {CL_EVENT_SENT, blocks[1], 0},
                    {CL_EVENT_DESCRIPTOR, nullptr, 0},  {77, blocks[0], 50}};
        for (const auto &[type, data, length] : rows) {
            CL_Event event{type, 0, data, length, 0, pattern, {only(3), {}, only(1023)}};
            event.exit_reason = 1;
            event.exit_value = 3;
            event.error = {9, 8, 7, 6, 5};
            cl_Callback_M(call_action, object, &event, address(&action), 43, 1, "event", 12);
        }
        destroy({object});
    }
    // What the loop calls: a message is dumped, and ends the loop.
    static uint32_t act(CL_Object *, CL_Event *event, uint64_t story, uint64_t) {
        auto &self = *reinterpret_cast<Story *>(story);
        CL_ErrInfo &err = self.err;
        self.tick(40);
        if (event->type != CL_EVENT_MESSAGE) return 0;
        CL_StopTIMER_M(nullptr, HERE);
        CL_StartTIMER_M(self.timer_, 5, CL_TIMER_ONESHOT, HERE);
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
    void tick(uint64_t microseconds) {
        now_ += microseconds;
        CL_KitSetTime(kStart + now_ / 1000000, now_ % 1000000);
    }
    static void twice(auto call) {
        call();
        call();
    }
    CL_Object *make(uint32_t kind) {
        return CL_CreateFD_M(kind, act, address(this), 0, &err, 1, "made", kind);
    }
    void destroy(std::initializer_list<CL_Object *> objects) {
        for (CL_Object *object : objects)
            CL_DeleteFD_M(object, HERE);
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

}  // namespace test
