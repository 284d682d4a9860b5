// qvcl-trace: how a trace ended, what of it failed, and the order of its timeline.
#include <regex>

#include "tests/folder.h"
#include "tests/trace_story.h"
#include "tools/cli.h"
#include "tools/timeline.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using trace_reader::HeaderLines;
using trace_reader::Text;

// ---- The lines of a header text

std::string told(const HeaderLines &lines) {
    const auto number = [](const auto &n) { return n ? std::to_string(*n) : std::string("-"); };
    std::string text = lines.reason + '|' + number(lines.time) + '|' + number(lines.pid) + '|' +
                       lines.command + '|' + std::to_string(lines.modules.size()) + '|';
    if (!lines.modules.empty()) {
        const HeaderLines::Module &m = lines.modules.back();
        text += std::to_string(m.base) + '-' + std::to_string(m.end) + m.build_id + m.path;
    }
    if (const auto &s = lines.signal) {
        text += '|' + std::to_string(s->number) + s->name + ' ' + number(s->code) + ' ' +
                number(s->address) + ' ' + number(s->thread);
    }
    for (const std::string &what : lines.incomplete)
        text += '|' + what;
    return text;
}

TEST(HeaderLines, HoldWhatIsUnderstood) {
    std::string many;
    for (int i = 0; i < 5000; ++i)
        many += "module: 0x1 0x2 - x\n";
    std::string parts, kept;
    for (int i = 0; i < 20; ++i) {
        parts += "incomplete: p\n";
        kept += i < 16 ? "|p" : "";
    }
    const struct {
        std::string text, wanted;
    } cases[] = {
        {"reason: a\\x1b[m\\\\ b\ntime: 12.000345\nprocess: 7\ncommand: ./d -v\n"
         "signal: 11 SIGSEGV\ncode: -6\naddress: 0x10\nthread: 8\n"
         "module: 0x1000 0x3000 a0ff /a b\nincomplete: tables\nincomplete: user ring\n",
         "a\x1b[m\\ b|12000345|7|./d -v|1|4096-12288a0ff/a b|11SIGSEGV -6 16 8|tables|user ring"},
        // What an application wrote, what a value cannot be, and what says nothing alone.
        {"my daemon 1.2", "|-|-||0|"},
        {"time: 12.5\nprocess: -1\nprocess: 18446744073709551616\nsignal: SIGSEGV\naddress: 0x1\n"
         "module: 1 2 - x\nmodule: 0x2 0x2 - x\nmodule: 0x2\nmodule:\nother: x\n: \n",
         "|-|-||0|"},
        {"time: 18446744073709551615.000000\nreason: a\\x1\\", "a\\x1\\|-|-||0|"},
        {"signal: 64 \nreason: first\nreason: second\nprocess: 3\nprocess: 4\n",
         "first|-|3||0||64 - - -"},
        {many, "|-|-||4096|1-2x"},
        {parts, "|-|-||0|" + kept},
        {"time: 12.x00345\ntime: x.000345\ntime: 12.0000345\ntime: 12\ntime: 3.000000\n"
         "time: 4.000000\n",
         "|3000000|-||0|"},
        {"code: 1\nthread: 2\nsignal: 5 A\\xzz\\x4\nsignal: 6 B\ncode: x\naddress: 16\n",
         "|-|-||0||5A\\xzz\\x4 - - -"},
    };
    for (const auto &[text, wanted] : cases)
        EXPECT_EQ(told(HeaderLines::parse(text)), wanted) << text.substr(0, 100);
}

TEST(HeaderLines, AreReadAsTheyWereWritten) {
    HeaderLines lines{.reason = "a\nb\\x41\x7f", .time = 12000345, .pid = 7, .command = "./d\t-v"};
    for (const uint64_t base : {0x1000UL, 0x5000UL})
        lines.modules.push_back({base, base + 0x1000, base == 0x1000 ? "a0" : "", "/a b"});
    lines.incomplete = {"tables", "user\rring"};
    for (const auto &signal :
         {HeaderLines::Signal{.number = 64, .name = ""},
          {.number = 11, .name = "SIG\x1b", .code = -6, .address = 0x10, .thread = 8}}) {
        EXPECT_EQ(told(HeaderLines::parse(lines.text(4096))), told(lines));
        lines.signal = signal;
    }
    // Where there is little room, modules give way.
    HeaderLines less = lines;
    less.modules.pop_back();
    EXPECT_EQ(told(HeaderLines::parse(lines.text(less.text(4096).size() + 10))), told(less));
}

// ---- Traces

class Reading : public testing::Test {
  protected:
    static constexpr uint64_t kStart = test::Story::kStart;

    Reading() {
        std::filesystem::current_path(folder.path(""));
        test::set_env("TZ", "UTC0");
        CL_TRC_End_M(CL_RING_LIBRARY);
        CL_TRC_Init_M(nullptr, CL_TRC_LIB_ENTRY, 1000, nullptr, CL_RING_LIBRARY);
        tick(0);
    }
    void tick(uint64_t microseconds) {
        now += microseconds;
        CL_KitSetTime(kStart + now / 1000000, now % 1000000);
    }
    template <class T>
    void put(T record, uint8_t api, uint8_t phase) {
        record.head.length = sizeof record;
        record.head.api = api;
        record.head.phase = phase;
        record.head.marker = api == CL_API_STATUS ? CL_MARK_STATUS
                             : api == CL_API_CALLBACK
                                 ? (phase ? CL_MARK_CALLBACK_EXIT : CL_MARK_CALLBACK_ENTRY)
                                 : (phase ? CL_MARK_EXIT : CL_MARK_ENTRY);
        strcpy(record.head.file, "d.c");
        CL_TRC_Write_M(&record, CL_RING_LIBRARY);
    }
    void event(uint32_t type, uint32_t error, int32_t length = 0, uint64_t unsent = 0,
               uint32_t reason = 0, uint32_t value = 0) {
        CL_TrcCallback record{};
        record.callback = 0x1234;
        record.handle = handle;
        record.type = type;
        record.error.err = error;
        record.data_length = length;
        record.block[2] = unsent;  // the queue's count
        record.exit_reason = reason;
        record.exit_value = value;
        put(record, CL_API_CALLBACK, 0);
        put(record, CL_API_CALLBACK, 1);
    }
    template <class T>
    void call(uint8_t api, uint32_t error, bool fails_object = false) {
        T record{};
        record.handle = 0x40;
        put(record, api, 0);
        if (fails_object) fail_status();
        record.error.err = error;
        put(record, api, 1);
    }
    void fail_status() {
        CL_TrcStatus record{};
        record.handle = 0x40;
        record.status = CL_STATUS_FAILED;
        put(record, CL_API_STATUS, 0);
    }
    std::string tool(std::vector<std::string> words) {
        std::vector<char *> argv{const_cast<char *>("qvcl-trace")};
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        Text out, err;
        trace_reader::run(static_cast<int>(words.size()) + 1, argv.data(), out, err);
        return out.str();
    }

    test::Folder folder;
    uint64_t now = 0;
    uint64_t handle = 0x40;  // of the object that callbacks are about
};

TEST_F(Reading, TellsWhatAPersonCallsAFailure) {
    const struct {
        std::function<void()> happens;
        size_t failures;
        std::string text;
    } cases[] = {
        {[&] { fail_status(), event(CL_EVENT_DISCONNECT, EPIPE); }, 0, ""},
        {[&] { fail_status(), event(CL_EVENT_DISCONNECT, EPIPE, 0, 2); }, 1, "DISCONNECT: EPIPE"},
        {[&] { fail_status(), event(CL_EVENT_DISCONNECT, EPIPE, -1); }, 1, "DISCONNECT: EPIPE"},
        {[&] { fail_status(), event(CL_EVENT_DISCONNECT, EPROTO); }, 1, "DISCONNECT: EPROTO"},
        {[&] { call<CL_TrcReceive>(CL_API_RECV_MSGC, EPIPE); }, 0, ""},
        {[&] { call<CL_TrcReceive>(CL_API_RECV_MSGC, EMSGSIZE); }, 1, "CL_RecvMSGC_M: EMSGSIZE"},
        {[&] { call<CL_TrcSend>(CL_API_SEND_MSGC, EPIPE, true); }, 1, "CL_SendMSGC_M: EPIPE"},
        {[&] { call<CL_TrcSend>(CL_API_SEND_MSGC, CL_ERR_IN_PROGRESS); }, 0, ""},
        {[&] { fail_status(); }, 1, "status failed"},
        {[&] { put(CL_TrcProcess{}, CL_API_END, 0), put(CL_TrcProcess{}, CL_API_END, 1); }, 1,
         "CL_End_M: failed"},
        {[&] { event(CL_EVENT_CHILD_END, 0, 0, 0, CL_CHILD_EXITED, 0); }, 0, ""},
        {[&] { event(CL_EVENT_CHILD_END, 0, 0, 0, CL_CHILD_EXITED, 3); }, 1, "ended with status 3"},
        {[&] { event(CL_EVENT_CHILD_END, 0, 0, 0, CL_CHILD_KILLED, SIGKILL); }, 1,
         "killed by SIGKILL"},
    };
    for (const auto &[happens, failures, text] : cases) {
        for (const size_t times : {size_t{1}, size_t{3}}) {  // those that repeat are one line
            CL_TRC_End_M(CL_RING_LIBRARY);
            CL_INTRC_Init();
            for (size_t i = 0; i < times; ++i)
                happens();
            CL_TRC_Out("dump", nullptr);
            const std::string shown = tool({"show", "--failures", "dump"});
            EXPECT_EQ(std::ranges::count(shown, '!'), failures * times) << text << shown;
            const std::string line = std::regex_replace(
                tool({"report", "dump"}), std::regex("\n +(\\d+)  [0-9:.]+  [0-9:.]+  "), "\n$1 ");
            if (failures == 0) {
                EXPECT_THAT(line, Not(HasSubstr("failures")));
            } else {
                EXPECT_THAT(line, HasSubstr('\n' + std::to_string(times) + ' '));
                EXPECT_THAT(line, HasSubstr(text));
            }
        }
    }
}

// Of a child, its process and where that was started, unless the slot is another's by now.
TEST_F(Reading, TellsWhoseAFailureWas) {
    CL_Init(5, nullptr, nullptr);
    CL_Object *const timer = CL_CreateFD_M(CL_KIND_TIMER, nullptr, 0, 0, nullptr, 1, "t.c", 8),
                     *const child =
                         CL_CreateFD_M(CL_KIND_CHILD, nullptr, 0, 0, nullptr, 1, "d.c", 7);
    child->child.pid = 99;
    const uint64_t slots[] = {test::address(timer), test::address(child), 0x40};
    const struct {
        std::vector<int> ends;  // which of them
        std::string said;
    } cases[] = {{{1}, "0x1234  #1 CHILD (process 99, started at d.c:7)\n"},
                 {{1, 1}, "0x1234  #1 CHILD (last: process 99, started at d.c:7)\n"},
                 {{0, 1}, "0x1234  2 objects (last: process 99, started at d.c:7)\n"},
                 {{1, 0}, "0x1234  2 objects\n"},
                 {{2}, "0x1234  0x40\n"}};
    for (const auto &[ends, said] : cases) {
        CL_TRC_End_M(CL_RING_LIBRARY);
        CL_INTRC_Init();
        for (const int i : ends) {
            handle = slots[i];
            event(CL_EVENT_CHILD_END, 0, 0, 0, CL_CHILD_EXITED, 3);
        }
        CL_TRC_Out("dump", nullptr);
        EXPECT_THAT(tool({"report", "dump"}), HasSubstr("ended with status 3  " + said));
    }
}

TEST_F(Reading, BeginsWithHowTheTraceEnded) {
    CL_TrcCallback timer{};
    timer.callback = 0x1234;
    timer.type = CL_EVENT_TIMER;
    put(CL_TrcProcess{}, CL_API_LOOP, 0);
    CL_TRC_Out("waits", "time: 1790000002.500000\n");
    tick(1000000);
    put(timer, CL_API_CALLBACK, 0);
    tick(250000);
    put(CL_TrcHandle{}, CL_API_STOP_TIMER, 0);
    const std::string at = "time: 1790000002.500000\nprocess: 7\n",
                      open =
                          "not returned at 2026-09-21 14:13:22.500000 (by its time stamp), in "
                          "CL_EventLoop_M for 2.500s:\n"
                          "    1.500s  callback TIMER 0x1234, since 14:13:21.000000\n"
                          "    1.250s    CL_StopTIMER_M, called at d.c:0, since ",
                      call = "CL_StopTIMER_M, called at d.c:0",
                      callback = "callback TIMER 0x1234\n";
    const struct {
        std::string header, begins;
    } cases[] = {
        {at, open},
        {at + "command: d\x1b x\nincomplete: tables\n",
         "process 7: d? x\nincomplete: tables\n" + open},
        {at + "signal: 11 SIGSEGV\ncode: 1\naddress: 0x10\nthread: 7\n",
         "killed by SIGSEGV at address 0x10 (address not mapped) in thread 7, in " + call +
             ", in " + callback + open},
        {at + "signal: 6 SIGABRT\ncode: -6\naddress: 0x10\nthread: 8\n",
         "killed by SIGABRT (sent to the thread, as by abort()) in thread 8, not the first of the "
         "process, while there ran " +
             call + ", while there ran " + callback + open},
        {at + "signal: 999 \ncode: 77\n", "killed by signal 999 (code 77), in "},
        {"signal: 11 SIGSEGV\naddress: 0x10\n", "killed by SIGSEGV at address 0x10, in "},
        {"signal: 11 SIGSEGV\ncode: 128\nthread: 3\n",
         "killed by SIGSEGV (no valid address) in thread 3, in "},
        {"signal: 15 SIGTERM\ncode: 0\naddress: 0x10\n",
         "killed by SIGTERM (sent by a process), in "},
        {"command: d\n", "d\nnot returned at "},
        // A clock that is behind the records is not asked.
        {"time: 1790000000.000001\n",
         "not returned at 2026-09-21 14:13:21.250000 (by its newest record), in CL_EventLoop_M for "
         "1.250s"},
    };
    for (const auto &[header, begins] : cases) {
        CL_TRC_Out("dump", header.c_str());
        for (const char *command : {"report", "show"})
            EXPECT_THAT(tool({command, "dump"}), testing::StartsWith(begins)) << command;
    }
    EXPECT_THAT(tool({"show", "--failures", "dump"}), Not(HasSubstr("open")));
    for (int i = 0; i < 25; ++i)
        put(CL_TrcHandle{}, CL_API_STOP_TIMER, 0);
    CL_TRC_Out("dump", nullptr);
    EXPECT_THAT(tool({"report", "dump"}), HasSubstr("\n  and 7 more\n"));
    EXPECT_THAT(tool({"report", "waits"}),
                testing::StartsWith("in no callback at 2026-09-21 14:13:22.500000 (by its time "
                                    "stamp), in CL_EventLoop_M for 2.500s\n"));
}

// ---- Timelines

struct Slice {
    double begin, end;
};

// The slices of a process, in the order of the file, which is that of the records.
std::vector<Slice> slices_of(const std::string &json, const std::string &pid) {
    static const std::regex line(
        R"re("ph":"X","pid":(\d+),"tid":\d+,"ts":([\d.]+),"dur":([\d.]+))re");
    std::vector<Slice> slices;
    for (std::sregex_iterator at(json.begin(), json.end(), line), end; at != end; ++at) {
        const double begin = std::stod((*at)[2]);
        if ((*at)[1] == pid) slices.push_back({begin, begin + std::stod((*at)[3])});
    }
    return slices;
}

// Calls in calls, of which many begin or end in one microsecond, in a ring that is too small for
// them: read as a viewer does, in floating point, the slices nest as the records do.
TEST_F(Reading, KeepsOrderAndNestingWithinAMicrosecond) {
    test::Random random;
    for (int round = 0; round < 20; ++round) {
        CL_TRC_End_M(CL_RING_LIBRARY);
        CL_TRC_Init_M(nullptr, CL_TRC_LIB_ENTRY, 60, nullptr, CL_RING_LIBRARY);
        const uint32_t pace = 1 + random.below(12);
        std::vector<uint32_t> open;  // lines that tell the calls apart
        for (uint32_t i = 0; i < 40 + random.below(200); ++i) {
            if (random.below(pace) == 0) tick(random.below(3));
            const bool returns = !open.empty() && random.below(2) == 0;
            CL_TrcHandle record{};
            record.head.line = returns ? open.back() : i;
            returns ? open.pop_back() : open.push_back(i);
            put(record, CL_API_STOP_TIMER, returns ? 1 : 0);
        }
        CL_MainTable->pid = 4242;
        CL_TRC_Out("dump", nullptr);
        trace_reader::Dump dump;
        dump.load(trace_reader::Source("dump"), true);
        const trace_reader::Trace trace(dump);
        std::vector<const trace_reader::Record *> told;
        for (const trace_reader::Record &record : trace.records) {
            if (trace.is_told(record)) told.push_back(&record);
        }
        const std::vector<Slice> slices = slices_of(tool({"export", "dump"}), "4242");
        ASSERT_EQ(slices.size(), told.size());
        for (size_t i = 0; i < slices.size(); ++i) {
            const trace_reader::Record *exit = trace.exit_of(*told[i]);
            if (!told[i]->exit) {
                EXPECT_EQ(kStart * 1000000 + static_cast<uint64_t>(slices[i].begin), told[i]->time);
            }
            if (exit != nullptr) {
                EXPECT_EQ(kStart * 1000000 + static_cast<uint64_t>(slices[i].end), exit->time);
            }
            uint32_t around = 0;
            for (size_t j = 0; j < slices.size(); ++j) {
                const Slice &a = slices[i], &b = slices[j];
                around += b.begin < a.begin && a.end < b.end ? 1 : 0;
                ASSERT_TRUE(i == j || a.end < b.begin || b.end < a.begin ||
                            (b.begin < a.begin && a.end < b.end) ||
                            (a.begin < b.begin && b.end < a.end));
            }
            EXPECT_EQ(around, told[i]->depth);
        }
    }
}

// Two dumps of one process id, and an arrow whose ends lie in the slices that it joins.
TEST_F(Reading, JoinsProcessesByArrows) {
    put(CL_TrcSend{}, CL_API_SEND_MSGC, 0);
    put(CL_TrcSend{}, CL_API_SEND_MSGC, 1);
    put(CL_TrcReceive{}, CL_API_RECV_MSGC, 0);
    put(CL_TrcReceive{}, CL_API_RECV_MSGC, 1);
    CL_MainTable->pid = 5;
    CL_TRC_Out("dump", nullptr);
    trace_reader::Dump dump;
    dump.load(trace_reader::Source("dump"), true);
    const trace_reader::Trace trace(dump);
    trace_reader::Timeline timeline;
    timeline.add(dump, trace);
    timeline.add(dump, trace);
    timeline.arrow({0, 0}, {1, 2, true}, "type 7");
    Text out;
    timeline.write(out);
    const std::string json = out.str();
    const auto end_of = [&](const std::string &phase, const std::string &pid) {
        std::smatch found;
        EXPECT_TRUE(std::regex_search(json, found,
                                      std::regex("\"ph\":\"" + phase + "\",\"pid\":" + pid +
                                                 ",\"tid\":0,\"ts\":([0-9.]+),\"id\":1,")))
            << json;
        return std::stod(found[1]);
    };
    const Slice sent = slices_of(json, "5").at(0), received = slices_of(json, "6").at(1);
    EXPECT_EQ(end_of("s", "5"), sent.begin);
    EXPECT_GT(end_of("f", "6"), received.begin);
    EXPECT_LT(end_of("f", "6"), received.end);
}

// What is known of the other end, where no message or only half of one tells of it.
TEST_F(Reading, NamesTheOtherEndOfAMessage) {
    const auto both = [&](auto record, uint8_t api) {
        put(record, api, 0);
        tick(10);
        put(record, api, 1);
    };
    const auto connect = [&](uint64_t object, const char *path) {
        CL_TrcConnect record{.result = 1, .handle = object};
        strcpy(record.path, path);
        both(record, CL_API_CNCT_MSGC);
    };
    const auto send = [&](uint64_t object, uint32_t sender, uint32_t error) {
        CL_TrcSend record{.result = error == 0 ? 60u : 0u, .handle = object, .block_size = 60};
        record.error.err = error;
        record.data_length = 60;
        const CL_MsgHeader header{20, CL_MSG_VERSION, sender, static_cast<uint32_t>(object)};
        memcpy(record.data + CL_MSG_PREFIX_SIZE, &header, sizeof header);
        both(record, CL_API_SEND_MSGC);
    };
    const auto receive = [&](uint64_t object, uint32_t sender) {
        CL_TrcReceive record{.result = 20, .handle = object};
        const CL_MsgHeader header{20, CL_MSG_VERSION, sender, 100 + static_cast<uint32_t>(object)};
        memcpy(record.data, &header, sizeof header);
        both(record, CL_API_RECV_MSGC);
    };
    CL_TrcOpenServer server{.result = 1, .handle = 9};
    strcpy(server.path, "/mine");
    both(server, CL_API_OPEN_MSGS);
    both(CL_TrcAccept{.result = 2, .handle = 9}, CL_API_ACCEPT_MSGS);
    connect(1, "/far");
    receive(3, 777);
    receive(4, 6);
    for (const uint64_t object : {1u, 2u, 3u, 4u, 5u})
        send(object, 5, ETIMEDOUT);
    tick(1000);
    both(CL_TrcHandle{}, CL_API_STOP_TIMER);
    CL_TRC_Out("a", "process: 5\ncommand: ./a\n");
    CL_TRC_End_M(CL_RING_LIBRARY);
    CL_TRC_Init_M(nullptr, CL_TRC_LIB_ENTRY, 1000, nullptr, CL_RING_LIBRARY);
    tick(0 - uint64_t{900});
    connect(7, "/mine");
    receive(7, 5);
    send(7, 6, 0);
    CL_TRC_Out("b", "process: 6\n");
    const std::string said = tool({"flow", "a", "b"});
    for (const char *text :
         {"a: process 5 (./a), ", "b: process 6, ", "a 0x1 -> the server at /far  type 1",
          "a 0x2 -> a client of /mine  type 2", "a 0x3 -> process 777  type 3",
          "a 0x4 -> b  type 4", "a 0x5 -> ?  type 5", "(sending it did not finish)",
          "a -> b 0x7  type 107", "  its sending is in no trace\n", "b 0x7 -> a", "  not read, "})
        EXPECT_THAT(said, HasSubstr(text));
}

}  // namespace
