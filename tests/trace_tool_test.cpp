// qvcl-trace: no damage to a dump makes it crash, loop, or say nothing. What it says of dumps that
// are whole is in the transcripts of trace_records_test.
#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "tests/folder.h"
#include "tests/trace_story.h"
#include "tools/cli.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using trace_reader::Command;
using trace_reader::kCommands;
using trace_reader::kDamaged;
using trace_reader::kFine;

struct Result {
    int status;
    std::string out, err;
};

// One command over a dump in memory, without options; none that writes files.
Result tool(std::string_view name, std::string_view file) {
    const Command &command = *std::ranges::find(kCommands, name, &Command::name);
    if (!command.only_reads()) return {};
    const trace_reader::Source source(
        {reinterpret_cast<const uint8_t *>(file.data()), file.size()});
    const trace_reader::Source *sources[] = {&source, &source};
    const std::string names[] = {"a", "b"};
    trace_reader::Text out, err;
    const int status = run_command(command, {}, std::span(names).first(command.files),
                                   std::span(sources).first(command.files), out, err);
    return {status, out.str(), err.str()};
}

size_t lines(const std::string &text) {
    return static_cast<size_t>(std::ranges::count(text, '\n'));
}

// The library's dump of a story, and where its blocks are.
class Damage : public testing::Test, protected test::Story {
  protected:
    void SetUp() override {
        std::filesystem::current_path(folder.path(""));
        live("live");
        dump("text");
    }
    void dump(const char *text) {
        CL_TRC_Out("dump", text);
        bytes = test::bytes_of("dump");
        const std::pair<size_t *, std::string> eyes[] = {{&library_at, CL_EYE_LIBTRC},
                                                         {&user_at, CL_EYE_USRTRC},
                                                         {&main_at, CL_EYE_MAIN},
                                                         {&table_at, CL_EYE_FDTBL}};
        for (const auto &[at, eye] : eyes)
            *at = bytes.rfind(eye + std::string(16 - eye.size(), '\0'));
    }
    template <class T>
    T &at(size_t offset) {
        return *reinterpret_cast<T *>(&bytes[offset]);
    }
    CL_MainBlock &main() { return at<CL_MainBlock>(main_at); }
    CL_TraceRing &ring() { return at<CL_TraceRing>(library_at); }
    // The header of the i-th entry, counted from the oldest record; the record follows.
    CL_TraceEntry &entry(uint32_t i) {
        const uint32_t index = (ring().oldest + i) % ring().entry_count;
        return at<CL_TraceEntry>(library_at + sizeof(CL_TraceRing) +
                                 index * (sizeof(CL_TraceEntry) + ring().entry_size));
    }
    CL_TrcHead &record(uint32_t i) { return *reinterpret_cast<CL_TrcHead *>(&entry(i) + 1); }
    size_t slot(size_t number) const {
        return table_at + sizeof(CL_TableHeader) + number * sizeof(CL_Object);
    }
    CL_Object &object(size_t number) { return at<CL_Object>(slot(number)); }

    test::Folder folder;
    std::string bytes;
    size_t library_at = 0, user_at = 0, main_at = 0, table_at = 0;
};

// The objects of the story by slot: 0 server, 1 client, 3 thread, 4 FD, 6 and 7 timers, 8 free.
TEST_F(Damage, IsNamed) {
    CL_Queue &kinds = main().kind_queues[CL_KIND_QUEUE_FD];
    const uint64_t behind = object(0).own_address + main().capacity * sizeof(CL_Object);
    uint32_t inside = 1;  // second entry of a record
    while (entry(inside - 1).remaining != 2)
        ++inside;
    const struct {
        std::function<void()> damage;
        std::string_view complaint;
    } cases[] = {
        {[&] { main().header.eye[0] = '!'; }, "bytes that are no block"},
        {[&] { main().used_queue.count = 2; }, "used queue: 2 elements by its head, 8 on"},
        {[&] { object(2).link.next = object(1).link.previous; }, "used queue: a circle"},
        {[&] { object(1).kind = CL_KIND_FD; }, "#1 is on the queue of another kind"},
        {[&] { kinds = {}, object(4).kind_link = {}; }, "#4 is on no kind queue"},
        {[&] { object(8).kind_link = object(4).kind_link; }, "#8 is linked to no queue"},
        {[&] {  // a free object on the queue of its own kind
             kinds.head = kinds.tail = reinterpret_cast<void *>(object(8).own_address);
             std::swap(object(8).kind_link, object(4).kind_link);
             object(8).kind = CL_KIND_FD;
         },
         "#8 is on the queue of another kind"},
        {[&] { main().free_queue.head = nullptr; }, "#8 is neither free nor used"},
        {[&] { object(3).status = CL_STATUS_READY; }, "#3 is listed, its status says otherwise"},
        {[&] { object(4).status |= CL_STATUS_RUNNING; }, "#4 is not timed, its status"},
        {[&] { main().timer_cursor = reinterpret_cast<CL_Object *>(8); }, "address of no object"},
        {[&] { main().loop_cursor = reinterpret_cast<CL_Object *>(behind); },
         "address of no object"},
        {[&] { ring().entry_count = UINT32_MAX; }, "***CL_LIBTRC*** of 4512 bytes by its header"},
        {[&] { ring().entry_size = 0; }, "a ring of 21 entries of 0 bytes"},
        {[&] { ring().oldest = 21; }, "ring indexes oldest 21, next "},
        {[&] { ring().next = 21; }, "next 21, wrapped 1"},
        {[&] { entry(0).remaining += 1; }, "no record begins in this entry"},
        {[&] { ring().oldest = (ring().oldest + entry(0).remaining) % ring().entry_count; },
         "a record begins in an entry not in use"},
        {[&] { entry(inside).remaining = 7; }, "no record begins in this entry"},
        {[&] { record(1).length = 350; }, " bytes in 1 entries of 192"},
        {[&] { record(1).length += 1; }, ": a record of "},
        {[&] { record(1).phase = 9; }, "a record of phase 9 with marker "},
        {[&] { record(1).marker = 9; }, " with marker 9"},
        {[&] { record(1).microseconds = 1000000; }, " microseconds"},
        {[&] { record(1).length = 31; }, "of 31 bytes has no whole head"},
        {[&] { record(1).api = 3; }, "a record of no known operation"},
    };
    const std::string whole = bytes;
    for (const auto &[damage, complaint] : cases) {
        bytes = whole;
        damage();
        const Result result = tool("check", bytes);
        EXPECT_EQ(result.status, kDamaged) << complaint;
        EXPECT_THAT(result.err, AllOf(HasSubstr("qvcl-trace: a: offset "), HasSubstr(complaint)));
        EXPECT_THAT(result.out, HasSubstr("problem"));
    }
    // More than are worth printing, and all counted.
    bytes = whole;
    for (size_t i = 0; i < 7; ++i)
        object(i).own_address = object(i).kind = object(i).status = 0x77;
    const Result many = tool("check", bytes);
    const size_t total = std::stoul(many.out.substr(many.out.find("objects, ") + 9));
    EXPECT_EQ(lines(many.err), 21u);
    EXPECT_THAT(many.err, HasSubstr(": and " + std::to_string(total - 20) + " more\n"));
}

// One clear line for what is no dump, or cannot be read that way; a pipe is read as a file is.
TEST_F(Damage, IsNoneOfWhereItComesFrom) {
    using trace_reader::Access;
    using trace_reader::Source;
    const std::string elf(ELFMAG, SELFMAG);
    folder.put("elf", elf), folder.put("empty", "");
    folder.put("core32", elf + std::string("\1\1\1\0\0\0\0\0\0\0\0\0\4\0\3\0\1\0\0\0", 20) +
                             std::string(40, '\0'));
    constexpr const char *kNoProcess = "a process is named by its number: pid:1234";
    const struct {
        const char *name;
        Access access;
        std::string_view error;
    } cases[] = {
        {"none", {}, "No such file or directory"},
        {".", {}, "Is a directory"},
        {"pid:", {}, kNoProcess},
        {"pid:1x", {}, kNoProcess},
        {"pid:0", {}, kNoProcess},
        {"pid:99999999999", {}, kNoProcess},
        {"dump", {.stop = true, .exe = {}}, "--stop is for live processes"},
        {"dump", {.stop = false, .exe = "dump"}, "--exe is for core files, and this is none"},
        {"empty", {}, ""},
#ifdef QVCL_ELFUTILS
        {"/proc/self/exe", {}, "an ELF file, but no core file"},
        {"elf", {}, "an ELF file, but no core file"},
        {"core32", {}, "the core file of a 32-bit process"},
#endif
    };
    for (const auto &[name, access, error] : cases)
        EXPECT_EQ(Source(name, access).error(), error) << name;
    const int input = dup(STDIN_FILENO);
    for (const auto &[sent, error] :
         {std::pair(bytes, ""), {elf + bytes, "a core file cannot be read from a pipe"}}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        std::thread writer([&, &sent = sent] {
            EXPECT_EQ(write(ends[1], sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
            close(ends[1]);
        });
        dup2(ends[0], STDIN_FILENO);
        const Source source("-");
        writer.join();
        dup2(input, STDIN_FILENO);
        close(ends[0]);
        EXPECT_EQ(source.error(), error);
        std::string got(source.size(), ' ');
        EXPECT_EQ(source.read(0, got.data(), got.size()), got.size());
        EXPECT_TRUE(got == sent || error[0] != '\0');
    }
    close(input);
}

// One of the story's objects becomes others.
TEST_F(Damage, IsNoneInOtherObjects) {
    const struct {
        uint32_t kind, sub_status;
        std::string_view said;
    } cases[] = {
        {CL_KIND_MSGC, 0, "  waits for nothing\n"},
        {CL_KIND_MSGC, CL_SUB_CONNECT_PENDING | CL_SUB_RECV_PENDING,
         "waits for the connection to \"socket\", a message, 0 bytes of at most 0 are here\n"},
        {CL_KIND_EXECC, CL_SUB_RECV_PENDING | CL_SUB_SEND_PENDING,
         "here, room to send 0 messages\n"},
        {CL_KIND_END, CL_SUB_SEND_PENDING, "  waits for room to send 0 messages\n"},
        {CL_KIND_CHILD, CL_SUB_EXEC_AWAITED, ", its report that it is up\n"},
        {CL_KIND_SHM, 0, " bytes, mapped at 0x"},
        {CL_KIND_TIMER, 0, "  is due\n"},
        {77, 0, "  error EPIPE ("},
    };
    object(1).status |= CL_STATUS_RUNNING;
    object(1).remaining = CL_TIMER_DUE;
    object(1).error.err = EPIPE;
    for (const auto &[kind, sub_status, said] : cases) {
        object(1).kind = kind;
        object(1).sub_status = sub_status;
        EXPECT_THAT(tool("tables", bytes).out, HasSubstr(said));
    }
    for (const size_t number : {0UL, 1UL, 2UL}) {
        object(number).kind = CL_KIND_MSGC;
        object(number).status = CL_STATUS_LISTED;
        object(number).sub_status = 0;
    }
    EXPECT_THAT(tool("report", bytes).out,
                HasSubstr("as nothing is pending: #0 MSGC and 2 other connections\n"));
}

// A header text may look like a block.
TEST_F(Damage, IsNoneInAText) {
    for (const char *text : {"x", "***CL_MAIN***", "dump of ***CL_USRTRC***", "xx***CL_LIBTRC***",
                             "***CL_LIBTRC***"}) {
        dump(text);
        const Result result = tool("check", bytes);
        EXPECT_EQ(result.err, "") << text;
        EXPECT_EQ(result.status, kFine) << text;
    }
}

TEST_F(Damage, OfEveryLengthIsToldAndTheRestIsShown) {
    const size_t all = lines(tool("show", bytes).out);
    size_t before = 0;
    for (size_t length = 0; length < bytes.size(); length += length < main_at ? 1 : 7) {
        const Result check = tool("check", bytes.substr(0, length));
        ASSERT_THAT(check.err, HasSubstr("offset ")) << length;
        const Result show = tool("show", bytes.substr(0, length));
        ASSERT_EQ(check.status + show.status, 2 * kDamaged) << length;
        if (length < user_at) continue;
        const size_t shown = lines(show.out);  // more and more of the user ring
        ASSERT_GE(shown, before) << length;
        before = shown;
        ASSERT_TRUE(shown == all || length < main_at) << length;
    }
}

// A block that begins at the end of one piece of the search is found in the next.
TEST_F(Damage, IsSkippedAtAnyPlace) {
    for (const size_t offset : {65520u, 65521u, 65530u, 65535u, 65536u, 131000u}) {
        const std::string noise(offset, '?');
        const Result show = tool("show", noise + bytes.substr(library_at));
        EXPECT_EQ(show.status, kDamaged);
        EXPECT_EQ(show.out, tool("show", bytes).out) << offset;
    }
}

// Every bit of a dump. Where a bit is part of the structure, it must be missed.
class Flips : public Damage, public testing::WithParamInterface<size_t> {};
TEST_P(Flips, AreSurvived) {
    constexpr size_t kShards = 4;
    std::vector<bool> structure(bytes.size());
    const auto mark = [&](size_t from, size_t size) {
        std::fill_n(structure.begin() + static_cast<ptrdiff_t>(from), size, true);
    };
    for (const size_t block : {library_at, user_at, main_at, table_at})
        mark(block, sizeof(CL_TableHeader));
    for (const size_t ring : {library_at, user_at})
        mark(ring + offsetof(CL_TraceRing, entry_size), sizeof(uint32_t) * 4);
    mark(main_at + offsetof(CL_MainBlock, version), 4);
    mark(main_at + offsetof(CL_MainBlock, capacity), 8);
    mark(main_at + offsetof(CL_MainBlock, free_queue),
         offsetof(CL_MainBlock, sync_flag) - offsetof(CL_MainBlock, free_queue));
    mark(main_at + offsetof(CL_MainBlock, timer_list), 5 * sizeof(CL_Queue));
    for (size_t number = 0; number < main().capacity; ++number) {
        mark(slot(number), 2 * sizeof(CL_QueueLink));
        mark(slot(number) + offsetof(CL_Object, own_address), 8);
    }
    const size_t end = slot(10);  // the last objects are all alike
    for (size_t bit = GetParam() * 8; bit < end * 8; bit += bit % 8 < 7 ? 1 : 8 * kShards - 7) {
        const size_t byte = bit / 8;
        const char whole = bytes[byte];
        bytes[byte] = static_cast<char>(whole ^ 1 << bit % 8);
        const int status = tool("check", bytes).status;
        ASSERT_TRUE(status == kDamaged || (status == kFine && !structure[byte])) << bit;
        const Command &other = kCommands[(byte / kShards + bit) % kCommands.size()];
        ASSERT_LT(tool(other.name, bytes).out.size(), 100000u) << bit;
        bytes[byte] = whole;
    }
}
INSTANTIATE_TEST_SUITE_P(Quarters, Flips, testing::Range<size_t>(0, 4));

// Records of many lengths through rings of many sizes: what is shown is what still fits, in order.
TEST(Show, WalksRingsThatWrapped) {
    const test::Folder folder;
    test::Random random;
    for (int round = 0; round < 200; ++round) {
        const uint32_t size = 32 + random.below(64), count = 1 + random.below(12);
        CL_TRC_End_M(CL_RING_USER);
        ASSERT_EQ(CL_TRC_Init_M("p", size, count, nullptr, CL_RING_USER), 0u);
        for (uint32_t n = random.below(40); n != 0; --n) {
            const uint32_t length = 32 + random.below(size * count - 31);
            std::vector<uint8_t> record(length);
            memcpy(&record[offsetof(CL_TrcHead, length)], &length, sizeof length);
            CL_TRC_Write_M(record.data(), CL_RING_USER);
        }
        CL_TRC_Out(folder.path("dump").c_str(), nullptr);
        const Result result = tool("show", test::bytes_of(folder.path("dump")));
        EXPECT_EQ(result.status, kFine) << result.err;
        const auto records = test::records(CL_MainTable->user_ring);
        EXPECT_EQ(lines(result.out), records.size() + (records.empty() ? 0 : 1));  // the date
        size_t at = 0;
        for (const test::Record &record : records) {
            const auto told = "user record " + std::to_string(record.bytes.size()) + " ";
            at = result.out.find(told, at + 1);
            ASSERT_NE(at, std::string::npos) << told << "in " << result.out;
        }
    }
}

}  // namespace
