// qvcl-trace: what each command says about known dumps, and that no damage to a dump makes it
// crash, loop, or say nothing. The dumps are built here, and one is written by the library itself.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <qvcl/qvcl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "dump_builder.h"
#include "support.h"
#include "tools/cli.h"
#include "tools/records.h"

namespace {

using namespace dump_builder;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using trace_reader::DAMAGED;
using trace_reader::FINE;
using trace_reader::USAGE;

const bool utc = setenv("TZ", "UTC0", 1) == 0;

struct Result {
    int status;
    std::string out;
    std::string err;
};

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}

// The whole program but its process; an argument "FILE" stands for the next of `files`.
Result tool(std::vector<std::string> words, std::vector<File> files = {}) {
    const std::string path = testing::TempDir() + "trace_tool." + std::to_string(getpid());
    size_t n = 0;
    for (std::string &word : words) {
        if (word != "FILE") continue;
        word = path + "." + std::to_string(n);
        std::ofstream(word, std::ios::binary)
            .write(reinterpret_cast<const char *>(files[n].data()),
                   static_cast<std::streamsize>(files[n].size()));
        ++n;
    }
    std::string program = "qvcl-trace";
    std::vector<char *> argv{program.data()};
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    trace_reader::Text out, err;
    const int status = trace_reader::run(static_cast<int>(argv.size()) - 1, argv.data(), out, err);
    while (n)
        std::filesystem::remove(path + "." + std::to_string(--n));
    return {status, out.str(), err.str()};
}

// The same for a dump in memory, without options.
Result tool(const trace_reader::Command &command, const File &file) {
    const trace_reader::Source source{trace_reader::Bytes(file)};
    const trace_reader::Source *sources[] = {&source, &source};
    const std::string names[] = {"a", "b"};
    trace_reader::Text out, err;
    const int status = run_command(command, {}, std::span(names).first(command.files),
                                   std::span(sources).first(command.files), out, err);
    return {status, out.str(), err.str()};
}

const trace_reader::Command &command(std::string_view name) {
    return *std::ranges::find(trace_reader::COMMANDS, name, &trace_reader::Command::name);
}

template <typename T>
uint32_t with_path(T &record, std::string_view path) {
    std::ranges::copy(path, record.path);
    return static_cast<uint32_t>(offsetof(T, path) + path.size() + 8);
}

// Every operation once, beside what `show` is to say about it.
struct Case {
    std::function<void(Dump &)> write;
    std::string_view line;
};

template <typename T>
std::function<void(Dump &)> call(T record, uint8_t api, uint64_t result, uint32_t err = 0) {
    return [=](Dump &d) { d.call(record, api, result, err); };
}

template <typename T>
std::function<void(Dump &)> call_path(T record, std::string_view path, uint8_t api, uint64_t result,
                                      uint32_t err = 0) {
    const uint32_t length = path.data() ? with_path(record, path) : offsetof(T, path) + 7;
    return [=](Dump &d) { d.call(record, api, result, err, length); };
}

std::vector<Case> every_operation() {
    CL_TrcInit init{};
    init.count = 2;
    CL_TrcCreate create{};
    create.kind = CL_KIND_END;
    create.callback = 0x1000;
    create.arg1 = 7;
    auto add = on<CL_TrcAddList>(3);
    add.priority = 12;
    auto open = on<CL_TrcOpenServer>(0);
    open.backlog = 5;
    auto accept = on<CL_TrcAccept>(0);
    accept.callback = 0x2000;
    auto connect = on<CL_TrcConnect>(1);
    connect.mode = CL_MODE_DEFERRED;
    const CL_MsgHeader message{24, CL_MSG_VERSION, 77, 9};
    auto receive = on<CL_TrcReceive>(1);
    receive.capacity = 64;
    receive.mode = CL_MODE_SYNC;
    std::memcpy(receive.data, &message, sizeof message);
    std::memcpy(receive.data + sizeof message, "ping\n\"\\\x80", 8);
    auto send = on<CL_TrcSend>(1);
    send.block_size = 64;
    send.mode = CL_MODE_IMMEDIATE;
    send.timeout = 3;
    send.data_length = 64;
    std::memcpy(send.data + CL_MSG_PREFIX_SIZE, &message, sizeof message);
    std::memcpy(send.data + CL_MSG_PREFIX_SIZE + sizeof message, "pongpong", 8);
    auto start = on<CL_TrcStartTimer>(2);
    start.seconds = 5;
    start.mode = CL_TIMER_PERIODIC;
    CL_TrcOpenFile file{};
    file.flags = 0x42;
    file.mode = 0600;
    auto data = on<CL_TrcFileData>(4);
    data.buffer = 0x3000;
    data.length = 3;
    std::memcpy(data.data, "abcdef", 6);
    auto seek = on<CL_TrcSeek>(4);
    seek.offset = -9;
    seek.whence = 2;
    auto set = on<CL_TrcSetFd>(5);
    set.count = 1024;
    for (const int fd : {0, 1, 2, 9})
        FD_SET(fd, &set.sets.read);
    FD_SET(1023, &set.sets.except);
    const auto one = [](uint64_t slot) { return on<CL_TrcHandle>(slot); };
    return {
        {call_path(init, "/run/x", CL_API_INIT, 1), "CL_Init_M(count=2, path=\"/run/x\") = 1"},
        {call(CL_TrcProcess{}, CL_API_LOOP, 0xffffffff, CL_ERR_QUEUE),
         "CL_EventLoop_M() = 4294967295 QUEUE (MSGC:31)"},
        {call(CL_TrcProcess{}, CL_API_END, 1, 9), "CL_End_M() = 1"},
        {call(create, CL_API_CREATE_FD, Dump::handle(1)),
         "CL_CreateFD_M(kind=END(ExecComp), callback=0x1000, arg1=0x7, arg2=0x0) = #1"},
        {call(add, CL_API_ADD_LIST, 1), "CL_AddEventList_M(handle=#3, priority=12) = 1"},
        {call(one(3), CL_API_DELETE_FD, 0, 9), "CL_DeleteFD_M(handle=#3) = 0 EBADF (MSGC:31)"},
        {call(one(3), CL_API_DEL_LIST, 1), "CL_DelEventList_M(handle=#3) = 1"},
        {call_path(open, {}, CL_API_OPEN_MSGS, 0, 14),
         "CL_OpenMSGS_M(handle=#0, path=null, backlog=5) = 0 EFAULT (MSGC:31)"},
        {call(accept, CL_API_ACCEPT_MSGS, Dump::handle(6)),
         "CL_AcceptMSGS_M(handle=#0, callback=0x2000, arg1=0x0, arg2=0x0) = #6"},
        {call(one(0), CL_API_CLOSE_MSGS, 1), "CL_CloseMSGS_M(handle=#0) = 1"},
        {call_path(connect, "\x1b[31m", CL_API_CNCT_MSGC, 0, CL_ERR_IN_PROGRESS),
         "CL_CnctMSGC_M(handle=#1, path=\"\\x1b[31m\", mode=DEFERRED, reserved=0) = 0 IN_PROGRESS "
         "(MSGC:31)"},
        {call(receive, CL_API_RECV_MSGC, 24),
         "CL_RecvMSGC_M(handle=#1, buffer=0x0, capacity=64, mode=SYNC, timeout=0, "
         "message={length=24, "
         "sender=77, type=9, 70696e67 0a225c80 |ping.\"\\.|}) = 24"},
        {call(send, CL_API_SEND_MSGC, UINT64_MAX, CL_ERR_STATE),
         "CL_SendMSGC_M(handle=#1, block=0x0, block_size=64, mode=IMMEDIATE, timeout=3, "
         "data_length=64, message={length=24, sender=77, type=9, 706f6e67 706f6e67 |pongpong|}) = "
         "-1 "
         "STATE (MSGC:31)"},
        {call(on<CL_TrcDisconnect>(1), CL_API_DISC_MSGC, 1),
         "CL_DiscMSGC_M(handle=#1, buffer_out=0x0, unsent_out=0x0) = 1"},
        {call(start, CL_API_START_TIMER, 1),
         "CL_StartTIMER_M(handle=#2, seconds=5, mode=PERIODIC) = 1"},
        {call(one(0xffffff), CL_API_STOP_TIMER, 0, 9),
         "CL_StopTIMER_M(handle=0x7f03481ffcd8) = 0 EBADF (MSGC:31)"},
        {call_path(file, "f", CL_API_OPEN_FILE, Dump::handle(4)),
         "CL_OpenFile_M(path=\"f\", flags=0x42, mode=0x180) = #4"},
        {call(one(4), CL_API_CLOSE_FILE, 1), "CL_CloseFile_M(handle=#4) = 1"},
        {call(data, CL_API_WRITE_FILE, UINT64_MAX, 28),
         "CL_WriteFile_M(handle=#4, buffer=0x3000, length=3, data=616263 |abc|) = -1 ENOSPC "
         "(MSGC:31)"},
        {call(data, CL_API_READ_FILE, 2),
         "CL_ReadFile_M(handle=#4, buffer=0x3000, length=3, data=6162 |ab|) = 2"},
        {call(on<CL_TrcFlush>(4), CL_API_FLUSH_FILE, 0), "CL_FlushFile_M(handle=#4) = 0"},
        {call(seek, CL_API_SEEK_FILE, 1), "CL_SeekFile_M(handle=#4, offset=-9, whence=2) = 1"},
        {call_path(CL_TrcDeleteFile{}, "", CL_API_DELETE_FILE, 0, 999),
         "CL_DeleteFile_M(path=\"\") = 0 999 (MSGC:31)"},
        {call(one(6), CL_API_MAP_SHM, 0x5000), "CL_MapSHM_M(handle=#6) = 0x5000"},
        {call(one(6), CL_API_UNMAP_SHM, 1), "CL_UnmapSHM_M(handle=#6) = 1"},
        {call(one(6), CL_API_CLOSE_SHM, 1), "CL_CloseSHM_M(handle=#6) = 1"},
        {call(set, CL_API_SET_FD, 1),
         "CL_SetFD_M(handle=#5, count=1024, sets=read 0-2,9 except 1023) = 1"},
        {call(one(7), CL_API_SET_THREAD, 1), "CL_SetThreadFd_M(handle=#7) = 1"},
        {[](Dump &d) { d.status(2, CL_STATUS_READY, CL_STATUS_READY | 0x80, 0x107, 0x04); },
         "status #2: READY -> READY|0x80, CONNECT_PENDING|RECV_PENDING|SEND_PENDING -> 0x4"},
    };
}

TEST(Show, SaysEveryOperationInWords) {
    const auto cases = every_operation();
    Dump d(10, 200);
    d.free_rest();
    for (const Case &c : cases)
        c.write(d);
    const Result result = tool({"show", "FILE"}, {d.file()});
    EXPECT_EQ(result.status, FINE) << result.err;
    const auto shown = lines(result.out);
    ASSERT_EQ(shown.size(), cases.size() + 1);  // and the date
    for (size_t i = 0; i < cases.size(); ++i) {
        const std::string &line = shown[i + 1];
        EXPECT_EQ(line.substr(27, line.find("  server.c:") - 27), cases[i].line);
    }
    std::vector<bool> covered(256);
    for (const std::string &line : shown)
        for (const auto &operation : trace_reader::operations())
            if (line.find(std::string(operation.name) + "(") != std::string::npos)
                covered[operation.api] = true;
    covered[CL_API_CALLBACK] = covered[CL_API_STATUS] = true;
    for (const auto &operation : trace_reader::operations())
        EXPECT_TRUE(covered[operation.api]) << operation.name;
}

TEST(Show, NestsWhatHappenedInsideACall) {
    const Result result = tool({"show", "FILE"}, {Story(20).file("text")});
    EXPECT_EQ(result.status, FINE) << result.err;
    EXPECT_EQ(
        result.out,
        "-- 2026-09-21 --\n"
        "14:13:20.000000              status #3: LISTED -> 0  server.c:7\n"
        "14:13:20.000010            CL_DelEventList_M(handle=#3) = 1 (began before the trace)"
        "  server.c:7\n"
        "14:13:20.000020            CL_EventLoop_M() = ? (not finished)  server.c:7\n"
        "14:13:20.000030     40us     callback MESSAGE(handle=#1, callback=0x1000, "
        "data_length=24, message={length=24, sender=77, type=9, 68656c6c 6f000000 |hello...|})"
        " = 0  server.c:7\n"
        "14:13:20.000040     20us !     CL_StartTIMER_M(handle=#2, seconds=0, mode=ONESHOT) = 0 "
        "EBADF (MSGC:31)  server.c:7\n"
        "14:13:20.000050                  status #2: 0 -> RUNNING  server.c:7\n"
        "14:13:20.000060                user record 72 bytes: 00000000 00000000 00000000 "
        "00000000 00000000 00000000 6d696e65 00000000 00000000 00000000 "
        "|........................mine............|\n"
        "14:13:20.000080          !   callback DISCONNECT(handle=#1, error=EPIPE (MSGC:8)) = ? "
        "(not finished)  server.c:7\n");
}

// A call that never returned (its thread ended, it was left by a jump) does not hide that the one
// around it did.
TEST(Show, PairsCallsAroundOneThatNeverReturned) {
    Dump d(0, 20);
    d.free_rest();
    d.enter(CL_TrcProcess{}, CL_API_LOOP);
    for (int i = 0; i < 3; ++i)
        d.enter(on<CL_TrcHandle>(1), CL_API_STOP_TIMER);
    d.leave(CL_TrcProcess{}, CL_API_LOOP, 7);
    d.call(on<CL_TrcHandle>(1), CL_API_DELETE_FD, 1);
    const auto shown = lines(tool({"show", "FILE"}, {d.file()}).out);
    ASSERT_THAT(shown, SizeIs(6));
    EXPECT_THAT(shown[1], HasSubstr("     40us   CL_EventLoop_M() = 7 "));
    EXPECT_THAT(shown[4], HasSubstr("         CL_StopTIMER_M(handle=#1) = ? (not finished)"));
    EXPECT_THAT(shown[5], HasSubstr("     10us   CL_DeleteFD_M(handle=#1) = 1 "));
}

TEST(Show, ChoosesLines) {
    const struct {
        std::vector<std::string> options;
        size_t count;
        std::string_view first;
    } cases[] = {
        {{}, 8, "status #3"},
        {{"--api", "eventl"}, 2, "CL_DelEventList_M"},
        {{"--api=65", "--api", "0xff"}, 3, "status #3"},
        {{"--handle", "#2"}, 2, "CL_StartTIMER_M"},
        {{"--handle", "0x7f0000200368"}, 2, "callback MESSAGE"},
        {{"--failures"}, 2, "CL_StartTIMER_M"},
        {{"--slower", "30us"}, 1, "callback MESSAGE"},
        {{"--slower=0.02ms"}, 2, "callback MESSAGE"},
        {{"--since", "14:13:20.000060"}, 2, "user record"},
        {{"--until", "2026-09-21 14:13:20.00002"}, 3, "status #3"},
        {{"--since", "14:14"}, 0, ""},
        {{"--ring", "user"}, 1, "user record"},
        {{"--ring", "library"}, 7, "status #3"},
        {{"--last", "2", "--failures"}, 2, "CL_StartTIMER_M"},
        {{"--last=1", "--handle=1"}, 1, "callback DISCONNECT"},
        {{"--last=0"}, 0, ""},
    };
    for (const auto &[options, count, first] : cases) {
        std::vector<std::string> words{"show"};
        words.insert(words.end(), options.begin(), options.end());
        words.push_back("FILE");
        const Result result = tool(words, {Story(20).file()});
        SCOPED_TRACE(testing::PrintToString(options));
        EXPECT_EQ(result.status, FINE) << result.err;
        auto shown = lines(result.out);
        if (!shown.empty()) shown.erase(shown.begin());  // the date
        ASSERT_THAT(shown, SizeIs(count));
        EXPECT_THAT(count ? shown[0] : "", HasSubstr(first));
    }
}

// Records of many lengths through rings of many sizes: what is shown is what still fits, in order.
TEST(Show, WalksRingsThatWrapped) {
    test::Random random;
    for (int round = 0; round < 200; ++round) {
        const uint32_t entry = 32 + random.below(64), count = 1 + random.below(12);
        Ring ring(CL_RING_USER, entry, count, "p");
        std::vector<uint32_t> lengths;
        for (uint32_t n = random.below(40); n; --n) {
            std::vector<uint8_t> record(32 + random.below(entry * count - 31));
            const auto length = static_cast<uint32_t>(record.size());
            std::memcpy(record.data() + offsetof(CL_TrcHead, length), &length, sizeof length);
            ring.write(record.data(), length);
            lengths.push_back(length);
        }
        // Kept are the newest; one that loses an entry is lost. A ring that never came round keeps
        // all.
        uint32_t used = 0, kept = 0;
        while (kept < lengths.size()) {
            used += (lengths[lengths.size() - 1 - kept] + entry - 1) / entry;
            if (used > count) break;
            ++kept;
        }
        Dump d(0, 1);
        d.free_rest();
        d.user = &ring;
        const Result result = tool({"show", "FILE"}, {d.file()});
        EXPECT_EQ(result.status, FINE) << result.err;
        std::string expected = kept ? "-- 1970-01-01 --\n" : "";
        auto shown = lines(result.out);
        ASSERT_EQ(shown.size(), kept ? kept + 1 : 0);
        for (uint32_t i = 0; i < kept; ++i)
            EXPECT_THAT(shown[i + 1],
                        HasSubstr("user record " +
                                  std::to_string(lengths[lengths.size() - kept + i]) + " bytes"));
    }
}

TEST(Tables, TellWhatEveryObjectIsAndWaitsFor) {
    Dump d(10, 4);
    d.main.log_ready = 1;
    std::strcpy(d.main.log_name, "daemon");
    d.main.execs = pointer<CL_Object *>(Dump::handle(1));
    FD_SET(7, &d.main.sets.read);
    const auto listed = CL_STATUS_READY | CL_STATUS_LISTED;
    const auto put = [&](uint64_t slot, uint32_t kind, uint32_t status,
                         CL_Queue *queue) -> CL_Object & {
        auto &object = d.create(slot, kind, status);
        if (queue) d.list(*queue, slot);
        return object;
    };
    std::strcpy(put(1, CL_KIND_EXECS, listed, &d.main.priority_list).server.address.sun_path, "/x");
    auto &client = put(2, CL_KIND_MSGC, listed, &d.main.priority_list);
    std::strcpy(client.connection.address.sun_path, "/run/\n");
    client.sub_status = CL_SUB_CONNECT_PENDING;
    put(3, CL_KIND_END, listed, &d.main.pending_list);
    auto &child = put(4, CL_KIND_CHILD, listed, &d.main.child_list);
    child.child.pid = 321;
    child.sub_status = CL_SUB_EXEC_AWAITED;
    d.list(d.main.exec_wait_list, 4);
    FD_SET(9, &put(5, CL_KIND_FD, listed, &d.main.priority_list).user.sets.write);
    put(6, CL_KIND_THREAD, listed, &d.main.thread_list);
    put(7, CL_KIND_TIMER, CL_STATUS_RUNNING, &d.main.timer_list).remaining = CL_TIMER_DUE;
    auto &memory = put(8, CL_KIND_SHM, CL_STATUS_READY, nullptr);
    std::strcpy(memory.memory.name, "/seg");
    memory.memory.size = 4096;
    memory.memory.address = pointer<void *>(0x9000);
    std::strcpy(put(9, CL_KIND_FILE, CL_STATUS_READY, nullptr).file.path, "/etc/x");
    d.free_rest();
    d.objects[0].deleted_before = {
        {'s', 'i', 'x', 't', 'e', 'e', 'n', '_', 'c', 'h', 'a', 'r', 's', '.', '.', 'c'},
        3,
        0,
        START,
        5};
    File file = d.file("why this dump");
    append(file, "application", 11);
    const Result brief = tool({"tables", "FILE"}, {file});
    const Result all = tool({"tables", "--all", "FILE"}, {file});
    EXPECT_EQ(brief.status, FINE) << brief.err;
    for (const std::string_view text :
         {"header text         \"why this dump\"\n",
          "application's       11 bytes at offset ",
          "execs               #1\n",
          "sets                read 7\n",
          "version             1.1.0\n",
          "state               INITIALISED\n",
          "log_name            \"daemon\"\n",
          "priority list       3 #1 #2 #5\n",
          "pending list        1 #3\n",
          "exec wait list      1 #4\n",
          "free queue          11\n",
          "CHILD               1 #4\n",
          "#1 0x7f0000200368 EXECS  READY|LISTED  priority 0  descriptor -1\n"
          "    waits for connections at \"/x\"\n",
          "waits for the connection to \"/run/\\x0a\"\n",
          "END(ExecComp)  READY|LISTED",
          "waits for the end of process 321, its report that it is up\n",
          "waits for descriptors write 9\n",
          "waits for a wake-up\n",
          "    is due\n",
          "segment \"/seg\" of 4096 bytes, mapped at 0x9000\n",
          "file \"/etc/x\"\n",
          "created 2026-09-21 14:13:20.000009  server.c:49\n"})
        EXPECT_THAT(brief.out, HasSubstr(text));
    EXPECT_THAT(brief.out, Not(HasSubstr("#0 ")));
    EXPECT_THAT(
        all.out,
        AllOf(HasSubstr("#0 0x7f0000200020 free\n"), HasSubstr("free queue          11 #0 #10 #11"),
              HasSubstr("deleted before 2026-09-21 14:13:20.000005  sixteen_chars..c:3\n")));
}

TEST(Report, CountsAndTimes) {
    const Result result = tool({"report", "FILE"}, {Story(20).file()});
    EXPECT_EQ(result.status, FINE) << result.err;
    for (const std::string_view text :
         {"10 records, 2 status changes, 1 of the application, 2026-09-21 14:13:20.000000 to "
          "14:13:20.000080 (80us)\n",
          "longest gap between two iterations that called back: 10us, from 14:13:20.000020\n",
          "callback MESSAGE                     1         0      40us      40us      40us\n",
          "CL_StartTIMER_M                      1         1      20us      20us      20us\n",
          "CL_EventLoop_M                       1         0         -         -         -\n",
          "#1 MSGC                              2         1      40us      40us      40us\n",
          "slowest callbacks\n      40us  14:13:20.000030  callback MESSAGE #1 MSGC\n"})
        EXPECT_THAT(result.out, HasSubstr(text));
}

TEST(Report, TakesPercentilesByNearestRank) {
    Dump d(0, 1000);
    d.free_rest();
    for (d.step = 200; d.step; --d.step)
        d.call(on<CL_TrcHandle>(1), CL_API_STOP_TIMER, 1);
    EXPECT_THAT(
        tool({"report", "FILE"}, {d.file()}).out,
        HasSubstr(
            "CL_StopTIMER_M                     200         0     100us     198us     200us"));
}

// The loop is older than the trace, so callbacks outside of calls are its. What happens between
// them (a change of status, a call that the library makes) does not end the gap, a call of the
// application's does: the loop had returned by then.
TEST(Report, FindsTheLongestGapOfALoop) {
    for (const bool returned : {false, true}) {
        Dump d(0, 50);
        d.free_rest();
        const auto callback = [&](uint64_t after) {
            d.now += after;
            d.record(on<CL_TrcCallback>(1), CL_API_CALLBACK, 0, CL_MARK_CALLBACK_ENTRY);
            d.call(on<CL_TrcHandle>(2), CL_API_STOP_TIMER, 1);
            d.record(on<CL_TrcCallback>(1), CL_API_CALLBACK, 1, CL_MARK_CALLBACK_EXIT);
        };
        callback(0);
        callback(300);
        auto stop = on<CL_TrcHandle>(2);
        stop.head.caller = returned ? 0 : 1;
        d.call(stop, CL_API_STOP_TIMER, 1);
        d.status(2, 1, 0);
        callback(500);
        const Result result = tool({"report", "FILE"}, {d.file()});
        EXPECT_THAT(result.out, HasSubstr(std::string("called back: ") +
                                          (returned ? "310us, from 14:13:20.000040\n"
                                                    : "540us, from 14:13:20.000380\n")));
    }
}

// Strict JSON: true when the whole text is one value.
class Json {
  public:
    explicit Json(std::string_view text) : rest(text) {}
    bool valid() { return value(0) && (space(), rest.empty()); }

  private:
    void space() { rest.remove_prefix(std::min(rest.find_first_not_of(" \n\r\t"), rest.size())); }
    bool take(std::string_view word) {
        space();
        if (!rest.starts_with(word)) return false;
        rest.remove_prefix(word.size());
        return true;
    }
    bool string() {
        if (!take("\"")) return false;
        while (!rest.empty() && rest[0] >= 0x20 && rest[0] < 0x7f && rest[0] != '"') {
            const size_t escaped = rest[0] != '\\' ? 0 : rest.substr(1, 1) == "u" ? 5 : 1;
            if (escaped && std::string_view("\"\\u").find(rest[1]) == rest.npos) return false;
            for (size_t i = 2; i <= escaped; ++i)
                if (!std::isxdigit(static_cast<unsigned char>(rest[i]))) return false;
            rest.remove_prefix(escaped + 1);
        }
        return !rest.empty() && rest[0] == '"' && take("\"");
    }
    bool list(std::string_view end, bool named, int depth) {
        if (take(end)) return true;
        do {
            if ((named && !(string() && take(":"))) || !value(depth)) return false;
        } while (take(","));
        return take(end);
    }
    bool value(int depth) {
        if (depth > 20) return false;
        if (take("{")) return list("}", true, depth + 1);
        if (take("[")) return list("]", false, depth + 1);
        space();
        const size_t digits = std::min(rest.find_first_not_of("0123456789"), rest.size());
        if (!digits) return string();
        const bool padded = digits > 1 && rest[0] == '0';
        rest.remove_prefix(digits);
        return !padded;
    }
    std::string_view rest;
};

TEST(Export, IsATimelineInStrictJson) {
    ASSERT_TRUE(Json(R"({"a":[1,"\u00ff\"",{}],"b":[]})").valid());
    for (const std::string_view bad :
         {"", "{", "[1,]", "{\"a\"}", "[01]", "\"\x80\"", "\"\\x\"", "{} 1"})
        ASSERT_FALSE(Json(bad).valid()) << bad;
    const Result result = tool({"export", "--json", "FILE"}, {Story(20).file()});
    EXPECT_EQ(result.status, FINE) << result.err;
    EXPECT_TRUE(Json(result.out).valid()) << result.out;
    for (
        const std::string_view text :
        {R"("tid":4,"ts":1790000000000000,"dur":10,"name":"CL_DelEventList_M",)",
         R"({"ph":"X","pid":4242,"tid":0,"ts":1790000000000020,"dur":60,"name":"CL_EventLoop_M",)",
         R"({"ph":"X","pid":4242,"tid":2,"ts":1790000000000030,"dur":40,"name":"callback MESSAGE",)",
         R"({"ph":"X","pid":4242,"tid":3,"ts":1790000000000040,"dur":20,"name":"! CL_StartTIMER_M",)",
         R"("cat":"error","cname":"terrible","args":{"handle":"#2","seconds":"0","mode":"ONESHOT",)",
         R"json("result":"0 EBADF (MSGC:31)","position":"server.c:7"}})json",
         R"({"ph":"i","pid":4242,"tid":3,"ts":1790000000000050,"s":"t","name":"status")",
         R"("tid":2,"name":"thread_name","args":{"name":"#1 MSGC"}})",
         R"("result":"not finished")"})
        EXPECT_THAT(result.out, HasSubstr(text));
}

TEST(Diff, FindsTheFirstDifferenceAndMasksWhatAlwaysDiffers) {
    const auto story = [](uint64_t handle_shift, uint32_t sender, uint64_t buffer,
                          uint32_t seconds) {
        Dump d(0, 20);
        d.now += sender;
        auto send = on<CL_TrcSend>(0);
        send.block = buffer;
        send.data_length = 64;
        const CL_MsgHeader message{24, CL_MSG_VERSION, sender, 9};
        std::memcpy(send.data + CL_MSG_PREFIX_SIZE, &message, sizeof message);
        d.call(send, CL_API_SEND_MSGC, 24);
        CL_TrcCreate create{};
        create.callback = create.arg1 = buffer;
        d.call(create, CL_API_CREATE_FD, Dump::handle(1));
        auto start = on<CL_TrcStartTimer>(1);
        start.handle += handle_shift;
        start.seconds = seconds;
        d.call(start, CL_API_START_TIMER, 1);
        d.free_rest();
        return d.file();
    };
    const File a = story(0, 1, 0x7fff00001000, 5);
    const Result same = tool({"diff", "FILE", "FILE"}, {a, story(0, 2, 0x7fff00002000, 5)});
    EXPECT_EQ(same.status, FINE);
    EXPECT_EQ(same.out, "library ring: the same 6 records\nuser ring: the same 0 records\n");
    const Result other = tool({"diff", "FILE", "FILE"}, {a, story(0, 1, 0x7fff00003000, 6)});
    EXPECT_EQ(other.status, DAMAGED);
    EXPECT_THAT(other.out, HasSubstr("library ring: the same 4 records, then a difference\n"));
    EXPECT_THAT(other.out,
                HasSubstr("\n- -> CL_StartTIMER_M(handle=#1, seconds=5, mode=0)  server.c:7\n"
                          "+ -> CL_StartTIMER_M(handle=#1, seconds=6, mode=0)  server.c:7\n"));
    const Result slot =
        tool({"diff", "FILE", "FILE"}, {a, story(sizeof(CL_Object), 1, 0x7fff00003000, 5)});
    EXPECT_THAT(slot.out, HasSubstr("+ -> CL_StartTIMER_M(handle=#2, seconds=5"));
    const Result shorter = tool({"diff", "FILE", "FILE"}, {Story(20).file(), Dump(0, 20).file()});
    EXPECT_THAT(shorter.out,
                HasSubstr("- status #3: LISTED -> 0  server.c:7\n+ end of the trace\n"));
}

// Damage of every sort, and what is said about it.
TEST(Check, NamesTheDamage) {
    const struct {
        std::function<void(Story &)> damage;
        std::string_view message;
    } cases[] = {
        {[](Story &d) { d.main.header.size = 1; }, "***CL_MAIN*** of 1 bytes by its header, 2232"},
        {[](Story &d) { d.main.header.eye[0] = '!'; }, "bytes that are no block"},
        {[](Story &d) { d.main.state = 9; }, "state 9"},
        {[](Story &d) { d.main.version = 0x02000000; }, "a dump of version 2.0.0"},
        {[](Story &d) { d.main.capacity = UINT32_MAX; }, "4294967295 objects are more than"},
        {[](Story &d) { d.main.requested = 1; }, "10 objects, 1 were asked for"},
        {[](Story &d) { d.main.library_ring = nullptr; },
         "another address than that of ***CL_LIBTRC***"},
        {[](Story &d) { d.main.loop_cursor = pointer<CL_Object *>(8); },
         "the address of no object"},
        {[](Story &d) { d.main.used_queue.count = 2; },
         "used queue: 2 elements by its head, 3 on the chain"},
        {[](Story &d) { d.main.free_queue.link_offset = 24; },
         "free queue: links at 24 instead of 0"},
        {[](Story &d) { d.main.timer_list.head = pointer<void *>(1); },
         "timer list: leads to an address"},
        {[](Story &d) { d.objects[2].link.next = pointer<void *>(Dump::handle(0)); },
         "used queue: a circle"},
        {[](Story &d) { d.objects[1].link.owner = nullptr; },
         "used queue: the link of #1 leads elsewhere"},
        {[](Story &d) { d.objects[1].kind_link.previous = pointer<void *>(1); },
         "MSGC: the link of #1"},
        {[](Story &d) { d.objects[1].own_address = 1; }, "#1 has another address"},
        {[](Story &d) { d.objects[1].kind = 5; }, "#1 is of kind 5"},
        {[](Story &d) { d.objects[1].kind = CL_KIND_FD; }, "#1 is on the queue of another kind"},
        {[](Story &d) { d.objects[1].status = 1; }, "#1 is listed, its status says otherwise"},
        {[](Story &d) { d.objects[2].status = 0; }, "#2 is timed, its status"},
        {[](Story &d) { d.main.free_queue = {}; }, "#3 is neither free nor used"},
        {[](Story &d) { d.library.head.header.size = UINT64_MAX; },
         "***CL_LIBTRC*** of 18446744073709551615 bytes"},
        {[](Story &d) { d.library.head.entry_count = UINT32_MAX; },
         "***CL_LIBTRC*** of 4312 bytes by its header"},
        {[](Story &d) { d.library.head.entry_size = UINT32_MAX; },
         "***CL_LIBTRC*** of 4312 bytes by its header"},
        {[](Story &d) { d.library.head.entry_size = 0; }, "a ring of 20 entries of 0 bytes"},
        {[](Story &d) { d.library.head.oldest = 20; }, "ring indexes oldest 20, next 10"},
        {[](Story &d) { d.library.head.wrapped = 2; }, "wrapped 2"},
        {[](Story &d) { d.library.entries[3][0] = 3; }, "no record begins in this entry"},
        {[](Story &d) { d.library.entries[2][4] = 200; }, "no record begins in this entry"},
        {[](Story &d) { d.library.entries[0][8 + 24] = 250; },
         "a record of 250 bytes in 1 entries of 192"},
        {[](Story &d) { d.library.entries[1][8 + 24] = 105; },
         "CL_DelEventList_M: a record of 105 bytes"},
        {[](Story &d) { d.library.entries[0][8 + 28] = 3; },
         "a record of no known operation, API 3"},
    };
    EXPECT_EQ(tool(command("check"), Story(20).file("x")).err, "");
    for (const auto &[damage, message] : cases) {
        Story story(20);
        damage(story);
        const Result result = tool(command("check"), story.file("x"));
        EXPECT_EQ(result.status, DAMAGED) << message;
        EXPECT_THAT(result.err, AllOf(HasSubstr("qvcl-trace: a: offset "), HasSubstr(message)));
        EXPECT_THAT(result.out, HasSubstr("problem"));
    }
}

TEST(Damage, OfEveryLengthIsToldAndTheRestIsShown) {
    Story story(9);  // its ring has come round
    const File whole = story.file("text");
    const size_t all = lines(tool(command("show"), whole).out).size();
    size_t before = 0;
    for (size_t length = 0; length < whole.size(); ++length) {
        const File cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length));
        const Result check = tool(command("check"), cut);
        ASSERT_EQ(check.status, DAMAGED) << length;
        ASSERT_THAT(check.err, HasSubstr("offset ")) << length;
        const Result show = tool(command("show"), cut);
        ASSERT_EQ(show.status, DAMAGED) << length;
        if (length < story.user_at) continue;
        const size_t shown = lines(show.out).size();  // more and more of the user ring
        ASSERT_GE(shown, before) << length;
        before = shown;
        ASSERT_TRUE(shown == all || length < story.main_at) << length;
    }
}

// Every bit of a small dump. Where a bit is part of the structure, it must be missed.
class Flips : public testing::TestWithParam<size_t> {};
TEST_P(Flips, AreSurvived) {
    constexpr size_t SHARDS = 4;
    Story story(9);
    File file = story.file("text");
    std::vector<bool> structure(file.size());
    const auto mark = [&](size_t at, size_t size) {
        std::fill_n(structure.begin() + static_cast<ptrdiff_t>(at), size, true);
    };
    for (const size_t block : {story.ring_at, story.user_at, story.main_at, story.table_at})
        mark(block, sizeof(CL_TableHeader));
    for (const auto &[at, ring] :
         {std::pair(story.ring_at, &story.library), {story.user_at, &story.records}}) {
        mark(at + offsetof(CL_TraceRing, entry_size), sizeof(uint32_t) * 4);
        (void)ring;
    }
    mark(story.main_at + offsetof(CL_MainBlock, version), 4);
    mark(story.main_at + offsetof(CL_MainBlock, capacity), 8);
    mark(story.main_at + offsetof(CL_MainBlock, free_queue),
         offsetof(CL_MainBlock, sync_flag) - offsetof(CL_MainBlock, free_queue));
    mark(story.main_at + offsetof(CL_MainBlock, timer_list), 5 * sizeof(CL_Queue));
    for (size_t slot = 0; slot < story.objects.size(); ++slot) {
        const size_t object = story.table_at + sizeof(CL_TableHeader) + slot * sizeof(CL_Object);
        mark(object, 2 * sizeof(CL_QueueLink));
        mark(object + offsetof(CL_Object, own_address), 8);
    }
    for (size_t byte = GetParam(); byte < file.size(); byte += SHARDS) {
        for (int bit = 0; bit < 8; ++bit) {
            file[byte] = static_cast<uint8_t>(file[byte] ^ 1 << bit);
            const Result check = tool(command("check"), file);
            ASSERT_TRUE(check.status == DAMAGED || (check.status == FINE && !structure[byte]))
                << byte << '.' << bit;
            const auto &other = trace_reader::COMMANDS[(byte / SHARDS + static_cast<size_t>(bit)) %
                                                       trace_reader::COMMANDS.size()];
            const Result result = tool(other, file);
            ASSERT_LT(result.out.size(), 100000u) << byte << '.' << bit;
            ASSERT_TRUE(other.name != "export" || Json(result.out).valid()) << byte << '.' << bit;
            file[byte] = static_cast<uint8_t>(file[byte] ^ 1 << bit);
        }
    }
}
INSTANTIATE_TEST_SUITE_P(Quarters, Flips, testing::Range<size_t>(0, 4));

TEST(HeaderText, OfEveryLengthIsPassed) {
    for (const size_t length : {0u, 1u, 13u, 14u, 15u, 16u, 17u, 31u, 32u, 200000u}) {
        const std::string text(length, 'x');
        const Result result = tool(command("tables"), Story(20).file(text));
        EXPECT_EQ(result.status, FINE) << length << result.err;
        EXPECT_EQ(result.out.find("header text         \"" + text + "\"\n") != std::string::npos,
                  length > 0);
    }
}

TEST(CommandLine, RefusesWhatItDoesNotUnderstand) {
    const struct {
        std::vector<std::string> words;
        int status;
        std::string_view said;
    } cases[] = {
        {{"--help"}, FINE, "usage: qvcl-trace COMMAND"},
        {{"show", "--help"}, FINE, "--failures"},
        {{"--version"}, FINE, "qvcl-trace 1.1.0\n"},
        {{}, USAGE, "no command"},
        {{"frobnicate", "FILE"}, USAGE, "no such command: frobnicate"},
        {{"show"}, USAGE, "one file is needed"},
        {{"diff", "FILE"}, USAGE, "two files are needed"},
        {{"check", "/nonexistent/x"}, USAGE, "/nonexistent/x: No such file or directory"},
        {{"check", "/tmp"}, USAGE, "/tmp: Is a directory"},
        {{"check", "/dev/null"}, DAMAGED, "offset 0: no block of a dump in this file"},
        {{"show", "--nonsense", "FILE"}, USAGE, "--nonsense"},
        {{"tables", "--failures", "FILE"}, USAGE, "not an option of this command: --failures"},
        {{"show", "--since", "later", "FILE"}, USAGE, "later"},
        {{"show", "--slower=3h", "FILE"}, USAGE, "3h"},
        {{"show", "--api=nothing", "FILE"}, USAGE, "nothing"},
        {{"show", "--handle=#x", "FILE"}, USAGE, "#x"},
        {{"show", "--ring=other", "FILE"}, USAGE, "other"},
        {{"show", "--last"}, USAGE, "--last"},
    };
    for (const auto &[words, status, said] : cases) {
        const Result result = tool(words, {Story(20).file(), {}});
        SCOPED_TRACE(testing::PrintToString(words));
        EXPECT_EQ(result.status, status) << result.err;
        EXPECT_THAT(result.out + result.err, HasSubstr(said));
        EXPECT_EQ(result.err.empty(), status == FINE);
    }
}

// What the library itself dumps, from inside a callback.
uint32_t dump_and_stop(CL_Object *, CL_Event *, uint64_t path, uint64_t) {
    CL_ErrInfo err;
    CL_StopTIMER(nullptr, &err);
    CL_TRC_Out(pointer<const char *>(path), "from the library");
    return 7;
}

TEST(Library, WritesDumpsThatAreWhole) {
    const std::string path = testing::TempDir() + "library." + std::to_string(getpid());
    CL_ErrInfo err;
    CL_TRC_Out(path.c_str(), nullptr);  // before there are objects and a second ring
    EXPECT_EQ(tool({"check", path}).err, "");
    ASSERT_EQ(CL_TRC_Init_M("/tmp/unused", 32, 7, nullptr, CL_RING_USER), 0u);
    ASSERT_EQ(CL_Init(3, nullptr, &err), 1u);
    CL_Object *server = CL_CreateFD(CL_KIND_MSGS, dump_and_stop, 0, 0, &err);
    CL_OpenMSGS(server, (path + ".socket").c_str(), 5, &err);
    CL_AddEventList(server, 20, &err);
    CL_Object *timer = CL_CreateFD(CL_KIND_TIMER, dump_and_stop,
                                   reinterpret_cast<uint64_t>(path.c_str()), 0, &err);
    CL_StartTIMER(timer, 0, CL_TIMER_ONESHOT, &err);
    CL_CreateFD(CL_KIND_FD, nullptr, 0, 0, &err);
    CL_DeleteFD(CL_CreateFD(CL_KIND_THREAD, dump_and_stop, 0, 0, &err), &err);
    std::vector<uint8_t> own(100);
    own[offsetof(CL_TrcHead, length)] = 100;
    for (int i = 0; i < 5; ++i)
        CL_TRC_Write_M(own.data(), CL_RING_USER);
    EXPECT_EQ(CL_EventLoop(&err), 7u);
    CL_CloseMSGS(server, &err);

    const Result check = tool({"check", path});
    EXPECT_EQ(check.status, FINE) << check.err;
    EXPECT_THAT(check.out, HasSubstr("3 live objects, whole and consistent\n"));
    const Result show = tool({"show", path});
    EXPECT_THAT(show.out, AllOf(HasSubstr("CL_EventLoop_M() = ? (not finished)"),
                                HasSubstr("   callback TIMER(handle=#1, "),
                                HasSubstr("!     CL_StopTIMER_M(handle=0x0) = 0 EBADF (FD:")));
    EXPECT_THAT(tool({"tables", path}).out,
                AllOf(HasSubstr("header text         \"from the library\""), HasSubstr("#0 "),
                      HasSubstr("waits for connections at \"" + path)));
    std::filesystem::remove(path);
}
}  // namespace
