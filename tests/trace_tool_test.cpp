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
using testing::HasSubstr;
using testing::SizeIs;
using trace_reader::kDamaged;
using trace_reader::kFine;
using trace_reader::kUsage;

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
    return *std::ranges::find(trace_reader::kCommands, name, &trace_reader::Command::name);
}

// What is not in the Story below: a path that would write to the terminal, sets, unknown bits.
TEST(Show, SaysHardRecordsInWords) {
    Dump d(10, 200);
    d.free_rest();
    auto connect = on<CL_TrcConnect>(1);
    connect.mode = CL_MODE_DEFERRED;
    std::strcpy(connect.path, "\x1b[31m");
    d.call(connect, CL_API_CNCT_MSGC, 0, CL_ERR_IN_PROGRESS, offsetof(CL_TrcConnect, path) + 13);
    auto set = on<CL_TrcSetFd>(0xffffff);
    set.count = 1024;
    for (const int fd : {0, 1, 2, 9})
        FD_SET(fd, &set.sets.read);
    FD_SET(1023, &set.sets.except);
    d.call(set, CL_API_SET_FD, 1);
    d.status(2, CL_STATUS_READY, CL_STATUS_READY | 0x80, 0x107, 0x04);
    const Result result = tool({"show", "FILE"}, {d.file()});
    EXPECT_EQ(result.status, kFine) << result.err;
    for (const std::string_view text :
         {"CL_CnctMSGC_M(handle=#1, path=\"\\x1b[31m\", mode=DEFERRED, reserved=0) = 0 "
          "IN_PROGRESS ",
          "CL_SetFD_M(handle=0x7f03481ffcd8, count=1024, sets=read 0-2,9 except 1023) = 1",
          "status #2: READY -> READY|0x80, CONNECT_PENDING|RECV_PENDING|SEND_PENDING -> 0x4"})
        EXPECT_THAT(result.out, HasSubstr(text));
}

TEST(Show, NestsWhatHappenedInsideACall) {
    const Result result = tool({"show", "FILE"}, {Story(20).file("text")});
    EXPECT_EQ(result.status, kFine) << result.err;
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
        "EBADF (msg/socket.h:31)  server.c:7\n"
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
        {{"--handle", "0x7f0000200368"}, 2, "callback MESSAGE"},
        {{"--failures"}, 2, "CL_StartTIMER_M"},
        {{"--slower=0.02ms"}, 2, "callback MESSAGE"},
        {{"--since", "14:13:20.000060"}, 2, "user record"},
        {{"--until", "2026-09-21 14:13:20.00002"}, 3, "status #3"},
        {{"--last", "2", "--failures"}, 2, "CL_StartTIMER_M"},
        {{"--last=1", "--handle=1"}, 1, "callback DISCONNECT"},
    };
    for (const auto &[options, count, first] : cases) {
        std::vector<std::string> words{"show"};
        words.insert(words.end(), options.begin(), options.end());
        words.push_back("FILE");
        const Result result = tool(words, {Story(20).file()});
        SCOPED_TRACE(testing::PrintToString(options));
        EXPECT_EQ(result.status, kFine) << result.err;
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
        EXPECT_EQ(result.status, kFine) << result.err;
        std::string expected = kept ? "-- 1970-01-01 --\n" : "";
        auto shown = lines(result.out);
        ASSERT_EQ(shown.size(), kept ? kept + 1 : 0);
        for (uint32_t i = 0; i < kept; ++i)
            EXPECT_THAT(shown[i + 1],
                        HasSubstr("user record " +
                                  std::to_string(lengths[lengths.size() - kept + i]) + " bytes"));
    }
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
    for (const std::string_view bad : {"{", "[1,]", "[01]", "\"\x80\""})
        ASSERT_FALSE(Json(bad).valid()) << bad;
    const Result result = tool({"export", "--json", "FILE"}, {Story(20).file()});
    EXPECT_EQ(result.status, kFine) << result.err;
    EXPECT_TRUE(Json(result.out).valid()) << result.out;
    for (
        const std::string_view text :
        {R"({"ph":"X","pid":4242,"tid":0,"ts":1790000000000020,"dur":60,"name":"CL_EventLoop_M",)",
         R"({"ph":"X","pid":4242,"tid":3,"ts":1790000000000040,"dur":20,"name":"! CL_StartTIMER_M",)",
         R"("result":"not finished")"})
        EXPECT_THAT(result.out, HasSubstr(text));
}

TEST(Diff, FindsTheFirstDifferenceAndMasksWhatAlwaysDiffers) {
    const auto story = [](uint32_t sender, uint64_t buffer, uint32_t seconds) {
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
        start.seconds = seconds;
        d.call(start, CL_API_START_TIMER, 1);
        d.free_rest();
        return d.file();
    };
    const File a = story(1, 0x7fff00001000, 5);
    const Result same = tool({"diff", "FILE", "FILE"}, {a, story(2, 0x7fff00002000, 5)});
    EXPECT_EQ(same.status, kFine);
    EXPECT_EQ(same.out, "library ring: the same 6 records\nuser ring: the same 0 records\n");
    const Result other = tool({"diff", "FILE", "FILE"}, {a, story(1, 0x7fff00003000, 6)});
    EXPECT_EQ(other.status, kDamaged);
    EXPECT_THAT(other.out, HasSubstr("library ring: the same 4 records, then a difference\n"));
    EXPECT_THAT(other.out,
                HasSubstr("\n- -> CL_StartTIMER_M(handle=#1, seconds=5, mode=0)  server.c:7\n"
                          "+ -> CL_StartTIMER_M(handle=#1, seconds=6, mode=0)  server.c:7\n"));
}

// Damage of every sort, and what is said about it.
TEST(Check, NamesTheDamage) {
    const struct {
        std::function<void(Story &)> damage;
        std::string_view message;
    } cases[] = {
        {[](Story &d) { d.main.header.eye[0] = '!'; }, "bytes that are no block"},
        {[](Story &d) { d.main.used_queue.count = 2; },
         "used queue: 2 elements by its head, 3 on the chain"},
        {[](Story &d) { d.objects[2].link.next = pointer<void *>(Dump::handle(0)); },
         "used queue: a circle"},
        {[](Story &d) { d.objects[1].kind = CL_KIND_FD; }, "#1 is on the queue of another kind"},
        {[](Story &d) {
             d.main.kind_queues[CL_KIND_QUEUE_TIMER] = d.main.kind_queues[CL_KIND_QUEUE_CHILD];
             d.objects[2].kind_link = {};
         },
         "#2 is on no kind queue"},
        {[](Story &d) { d.main.free_queue = {}; }, "#3 is neither free nor used"},
        {[](Story &d) { d.library.head.entry_count = UINT32_MAX; },
         "***CL_LIBTRC*** of 4312 bytes by its header"},
        {[](Story &d) { d.library.head.entry_size = 0; }, "a ring of 20 entries of 0 bytes"},
        {[](Story &d) { d.library.head.oldest = 20; }, "ring indexes oldest 20, next 10"},
        {[](Story &d) { d.library.entries[0][8 + 24] = 250; },
         "a record of 250 bytes in 1 entries of 192"},
        {[](Story &d) { d.library.entries[1][8 + 24] = 105; },
         "CL_DelEventList_M: a record of 105 bytes"},
        {[](Story &d) { d.library.entries[1][8 + 29] = 9; }, "a record of phase 9 with marker "},
        {[](Story &d) { d.library.entries[1][8 + 31] = 9; }, " with marker 9"},
        {[](Story &d) { d.library.entries[1][8 + 11] = 9; }, " microseconds"},
        {[](Story &d) { d.library.entries[1][8 + 24] = 31; }, "of 31 bytes has no whole head"},
    };
    /* A header text may look like a block. */
    for (const std::string text : {"x", "***CL_MAIN***", "dump of ***CL_USRTRC***",
                                   "xx***CL_LIBTRC***", "***CL_LIBTRC***"}) {
        const Result result = tool(command("check"), Story(20).file(text));
        EXPECT_EQ(result.err, "") << text;
        EXPECT_EQ(result.status, kFine) << text;
    }
    for (const auto &[damage, message] : cases) {
        Story story(20);
        damage(story);
        const Result result = tool(command("check"), story.file("x"));
        EXPECT_EQ(result.status, kDamaged) << message;
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
        ASSERT_EQ(check.status, kDamaged) << length;
        ASSERT_THAT(check.err, HasSubstr("offset ")) << length;
        const Result show = tool(command("show"), cut);
        ASSERT_EQ(show.status, kDamaged) << length;
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
    for (const size_t ring : {story.ring_at, story.user_at})
        mark(ring + offsetof(CL_TraceRing, entry_size), sizeof(uint32_t) * 4);
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
            ASSERT_TRUE(check.status == kDamaged || (check.status == kFine && !structure[byte]))
                << byte << '.' << bit;
            const auto &other = trace_reader::kCommands[(byte / SHARDS + static_cast<size_t>(bit)) %
                                                        trace_reader::kCommands.size()];
            const Result result = tool(other, file);
            ASSERT_LT(result.out.size(), 100000u) << byte << '.' << bit;
            ASSERT_TRUE(other.name != "export" || Json(result.out).valid()) << byte << '.' << bit;
            file[byte] = static_cast<uint8_t>(file[byte] ^ 1 << bit);
        }
    }
}
INSTANTIATE_TEST_SUITE_P(Quarters, Flips, testing::Range<size_t>(0, 4));

TEST(CommandLine, RefusesWhatItDoesNotUnderstand) {
    const struct {
        std::vector<std::string> words;
        int status;
        std::string_view said;
    } cases[] = {
        {{"--help"}, kFine, "usage: qvcl-trace COMMAND"},
        {{"frobnicate", "FILE"}, kUsage, "no such command: frobnicate"},
        {{"check", "/nonexistent/x"}, kUsage, "/nonexistent/x: No such file or directory"},
        {{"check", "/dev/null"}, kDamaged, "offset 0: no block of a dump in this file"},
        {{"tables", "--failures", "FILE"}, kUsage, "not an option of this command: --failures"},
        {{"show", "--since", "later", "FILE"}, kUsage, "later"},
        {{"show", "--slower=3h", "FILE"}, kUsage, "3h"},
        {{"show", "--last"}, kUsage, "--last"},
    };
    for (const auto &[words, status, said] : cases) {
        const Result result = tool(words, {Story(20).file(), {}});
        SCOPED_TRACE(testing::PrintToString(words));
        EXPECT_EQ(result.status, status) << result.err;
        EXPECT_THAT(result.out + result.err, HasSubstr(said));
        EXPECT_EQ(result.err.empty(), status == kFine);
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
    EXPECT_EQ(check.status, kFine) << check.err;
    EXPECT_THAT(check.out, HasSubstr("3 live objects, whole and consistent\n"));
    const Result show = tool({"show", path});
    EXPECT_THAT(show.out,
                AllOf(HasSubstr("CL_EventLoop_M() = ? (not finished)"),
                      HasSubstr("   callback TIMER(handle=#1, "),
                      HasSubstr("!     CL_StopTIMER_M(handle=0x0) = 0 EBADF (loop/cl_fd.cpp:")));
    EXPECT_THAT(tool({"tables", path}).out,
                AllOf(HasSubstr("header text         \"from the library\""), HasSubstr("#0 "),
                      HasSubstr("waits for connections at \"" + path)));
    std::filesystem::remove(path);
}
}  // namespace
