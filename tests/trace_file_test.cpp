// Trace files and their generations, read as bytes at the places that the format gives.
#include <fcntl.h>
#include <qvcl/trace.h>
#include <setjmp.h>
#include <sys/stat.h>

#include "tests/folder.h"
#include "tests/support.h"

namespace {

using namespace std::string_literals;
using test::bytes_of;
using test::Plan;
using testing::_;
using testing::ElementsAre;

constexpr size_t kTraceFdAt = offsetof(CL_MainBlock, trace_fd);

// Every block begins with its header.
std::string block(const void *data) {
    if (data == nullptr) return "";
    return {static_cast<const char *>(data), static_cast<const CL_TableHeader *>(data)->size};
}

class TraceFile : public test::Library {
  protected:
    void SetUp() override {
        test::set_env("TZ", "UTC");
        test::set_env("CL_TRC_GEN", nullptr);
        CL_KitKeepLog();
    }
    void TearDown() override { user_ring(false); }

    static void user_ring(bool wanted, const std::string &prefix = "",
                          CL_DumpCallback callback = nullptr) {
        CL_TRC_End_M(CL_RING_USER);
        const uint32_t count = wanted ? 7 : 0;  // a ring of none is refused
        EXPECT_EQ(CL_TRC_Init_M(prefix.c_str(), 33, count, callback, CL_RING_USER) == 0, wanted);
    }
    static std::string rings() {
        return block(CL_MainTable->library_ring) + block(CL_MainTable->user_ring);
    }
    // What a dump has to hold after its header text, as it is in memory now.
    static std::string tables() {
        return rings() + block(CL_MainTable) + block(CL_MainTable->descriptor_table);
    }
    // Dumps; the rings are afterwards as they were before, and nothing stays open.
    std::vector<std::string> dump(const char *to, const char *text = nullptr) {
        CL_KitForgetLog();
        const test::Balance before = test::Balance::now();
        const std::string content = rings();
        CL_TRC_Out(to, text);
        EXPECT_EQ(test::Balance::now(), before);
        EXPECT_TRUE(rings() == content);
        EXPECT_EQ(CL_MainTable->trace_fd, -1);
        EXPECT_EQ(CL_TRC_AddTbl("outside", 7), 0u);
        return test::log_lines();
    }

    test::Folder folder;
    const std::string file = folder.path("file.trc");
    const std::string prefix = folder.path("p");
    const std::string started = "CLLIB:trc out start " + file;
};

// Which blocks there are, and in which order, before and after initialisation.
TEST_F(TraceFile, HoldsEveryBlockThatExists) {
    folder.put("file.trc", std::string(1'000'000, 'o'));  // longer than any dump
    umask(0);
    for (const int rings : {3, 2, 1, 0, 7, 6, 5, 4}) {
        if (rings == 7) {
            ASSERT_EQ(CL_Init(3, nullptr, &err), 1u);
            create(CL_KIND_FD);
        }
        SCOPED_TRACE(testing::Message() << rings << " " << CL_MainTable->state);
        CL_TRC_End_M(CL_RING_LIBRARY);
        EXPECT_TRUE((rings & 2) == 0 || CL_INTRC_Init() == 0);
        user_ring((rings & 1) != 0, "prefix");
        CL_StopTIMER(nullptr, &err);  // records
        const std::string expected = tables();
        EXPECT_THAT(dump(file.c_str()), ElementsAre(started));
        std::string bytes = bytes_of(file);
        ASSERT_EQ(bytes.size(), expected.size());
        const size_t main = bytes.find("***CL_MAIN***");
        ASSERT_LT(main, bytes.size());
        int fd = -1;
        memcpy(&fd, &bytes[main + kTraceFdAt], sizeof fd);
        EXPECT_GT(fd, 2) << "the main table knows the dump in progress";
        memset(&bytes[main + kTraceFdAt], 0xff, sizeof fd);
        EXPECT_TRUE(bytes == expected);
    }
    std::filesystem::remove(file);
    dump(file.c_str());
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms{0600});
}

TEST_F(TraceFile, HeaderTextIsPadded) {
    const std::pair<size_t, size_t> rows[] = {{0, 16},  {1, 16},     {13, 16},    {14, 16},
                                              {15, 32}, {16, 32},    {30, 32},    {31, 48},
                                              {47, 64}, {999, 1008}, {4096, 4112}};
    for (const auto &[length, bytes] : rows) {
        std::string text(length, 't');
        EXPECT_THAT(dump(file.c_str(), text.c_str()), ElementsAre(started));
        text.resize(bytes);
        EXPECT_EQ(bytes_of(file).substr(0, bytes + 15), text + "***CL_LIBTRC***");
    }
}

// Dumps by generation go round, whatever is in the file that notes the next one.
TEST_F(TraceFile, Generations) {
    const std::string head = "[GenConfig]\nGenNum = ", noted = folder.path("p.cnf");
    const auto check = [&](int now, int next) {
        const std::string name = prefix + std::to_string(now) + ".trc";
        EXPECT_THAT(dump(nullptr), ElementsAre("CLLIB:trc out start " + name));
        EXPECT_EQ(bytes_of(name).size(), tables().size());
        EXPECT_EQ(bytes_of(noted), head + std::to_string(next) + "\n");
    };
    const auto reads = [&](const char *count, const std::string &content, int now, int next) {
        SCOPED_TRACE(content.substr(0, 99));
        test::set_env("CL_TRC_GEN", count);
        user_ring(true, prefix);
        folder.put("p.cnf", content);
        check(now, next);
    };
    user_ring(true, prefix);
    for (int i = 0; i < 12; ++i) {
        check(i % 5, (i + 1) % 5);
        EXPECT_EQ(folder.files(), static_cast<size_t>(std::min(i + 1, 5) + 1));
    }
    const std::pair<const char *, int> rows[] = {
        {"3", 3},   {"4", 4},    {"0x3", 3},        {"+2", 2},
        {"5", 0},   {"-1", 0},   {"", 0},           {"three", 0},
        {"3 x", 0}, {"2\n[", 0}, {"4294967299", 0}, {"-99999999999999999999", 0}};
    for (const auto &[value, now] : rows)
        reads("5", head + value, now, (now + 1) % 5);
    reads("5", "; by hand\n[x]\n" + head + "3 \0!\nmore = 1\n"s, 3, 4);
    reads("5", std::string(100'000, '\0'), 0, 1);
    for (const char *content : {"", "\x7f\x45LF\x02\x01\n\xff\xfe"})
        reads("1", content, 0, 1);  // where none is noted, 1 is noted whatever the count
    reads("2000000000", head + "1999999999", 1999999999, 0);
    // A prefix that nobody checked fills its field, and ends there.
    user_ring(false);
    const std::string longest(300, 'p');
    ASSERT_EQ(cl_trc_init(CL_RING_USER, longest.c_str(), 40, 2, nullptr), 0u);
    EXPECT_THAT(dump(nullptr),
                ElementsAre("CLLIB:trc file open err " + longest.substr(44) + "0.trc (36)."));
    // Without a name for it there is no dump.
    for (const bool ring : {false, true}) {
        user_ring(ring, "");
        EXPECT_THAT(dump(nullptr, "text"), ElementsAre());
    }
}

// Every write of a dump comes back short in turn: the file ends there, after the whole blocks.
TEST_F(TraceFile, FullDisk) {
    ASSERT_EQ(CL_Init(3, nullptr, &err), 1u);
    static uint32_t added;
    user_ring(true, prefix, [] { added = CL_TRC_AddTbl("block of the application", 24); });
    const auto size_of = [](const void *data) { return block(data).size(); };
    const CL_MainBlock &main = test::table();
    const size_t sizes[] = {5,
                            11,
                            size_of(main.library_ring),
                            size_of(main.user_ring),
                            sizeof main,
                            size_of(main.descriptor_table),
                            24};
    size_t whole = 3;
    for (int nth = 1; const size_t size : sizes) {
        added = 7;
        const Plan plan({.call = "write", .nth = nth, .at_most = 3});
        EXPECT_THAT(dump(file.c_str(), "text"),
                    ElementsAre(started, testing::StartsWith("CLLIB:trc file write err(3:")));
        EXPECT_EQ(bytes_of(file).size(), whole) << nth;
        EXPECT_EQ(added, size == 24 ? 0u : 7u) << "the application learns of its own failure only";
        EXPECT_EQ(plan.count("write"), nth++) << "one write a block, none after a failure";
        EXPECT_EQ(plan.count("fdatasync"), size == 24 ? 1 : 0);
        whole += size;
    }
}

// Whoever may write to its directory decides where a dump goes: a link leads it to another file,
// and a FIFO to whoever reads it. A disk that is full ends it with one line.
TEST_F(TraceFile, GoesWhereItsPathLeads) {
    const std::string target = folder.put("target", "content"), fifo = folder.path("fifo");
    std::filesystem::create_symlink(target, file);
    EXPECT_EQ(dump(file.c_str()).size(), 1u);
    EXPECT_EQ(bytes_of(target).size(), tables().size());
    EXPECT_TRUE(std::filesystem::is_symlink(file));
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    FILE *reader = popen(("cat " + fifo + " >" + target).c_str(), "re");
    EXPECT_EQ(dump(fifo.c_str()).size(), 2u) << "a FIFO is on no disk";
    EXPECT_EQ(pclose(reader), 0);
    EXPECT_EQ(bytes_of(target).size(), tables().size());
    EXPECT_THAT(dump("/dev/full"),
                ElementsAre(_, "CLLIB:trc file write err(-1:" + std::to_string(ENOSPC) + ")"));
}

// What a dump callback may do; a dump inside a dump does not enter it again.
TEST_F(TraceFile, CallbackAddsBlocks) {
    static std::string nested;
    static std::vector<uint32_t> results;
    static int fd;
    nested = folder.path("nested");
    user_ring(true, prefix, [] {
        fd = CL_MainTable->trace_fd;
        results.push_back(CL_TRC_AddTbl("one", 3));
        CL_TRC_Out(nested.c_str(), "text");
        CL_TRC_Out(nullptr, nullptr);
        results.push_back(CL_TRC_AddTbl(nullptr, 0));
        results.push_back(CL_TRC_AddTbl("two\0three", 9));
        const Plan plan({.call = "write", .error = EIO, .times = 2});
        results.push_back(CL_TRC_AddTbl("four", 4));
        results.push_back(CL_TRC_AddTbl("none is so long", UINT64_MAX));
        results.push_back(CL_TRC_AddTbl("five", 4));
    });
    EXPECT_THAT(dump(file.c_str()),
                ElementsAre(started, "CLLIB:trc out start " + nested,
                            "CLLIB:trc out start " + prefix + "0.trc",
                            "CLLIB:trc file write err(-1:5)", "CLLIB:trc file write err(-1:5)"));
    EXPECT_THAT(results, ElementsAre(1u, 1u, 1u, 0u, 0u, 1u));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "closed at the end";
    EXPECT_EQ(bytes_of(file).substr(tables().size()), "onetwo\0threefive"s);
    EXPECT_EQ(bytes_of(nested).size(), 16 + tables().size());
    EXPECT_EQ(bytes_of(prefix + "0.trc").size(), tables().size());
    user_ring(false);  // and its callback with it
    dump(file.c_str());
    EXPECT_EQ(results.size(), 6u);
}

// A callback that was left by a jump costs later dumps its own blocks, not the tables.
TEST_F(TraceFile, CallbackIsLeftByAJump) {
    static jmp_buf back;
    user_ring(true, prefix, [] { longjmp(back, 1); });
    if (setjmp(back) == 0) CL_TRC_Out(file.c_str(), nullptr);
    for (const char *name : {"second", "third"}) {
        CL_TRC_Out(folder.path(name).c_str(), nullptr);
        EXPECT_EQ(bytes_of(folder.path(name)).size(), tables().size());
    }
}

}  // namespace
