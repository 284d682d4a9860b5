/* Trace files: their bytes, read here with nothing but the numbers of the format; generations and
 * the file that remembers them; disks that are full; what a dump callback may do. */
#include <fcntl.h>
#include <qvcl/trace.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/wire.h"

using test::Plan;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string file_bytes(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

uint64_t number_at(const std::string &bytes, std::size_t at, int width) {
    uint64_t number = 0;
    for (int i = width; i-- > 0;)
        number = number << 8 | static_cast<uint8_t>(bytes.at(at + static_cast<std::size_t>(i)));
    return number;
}

struct FileBlock {
    std::string eye;
    uint64_t address;
    std::string bytes;
};

/* The blocks of a trace file from this offset on. */
std::vector<FileBlock> file_blocks(const std::string &bytes, std::size_t at) {
    std::vector<FileBlock> blocks;
    while (at + 32 <= bytes.size()) {
        const uint64_t size = number_at(bytes, at + 16, 8);
        if (size < 32 || size > bytes.size() - at) break;
        blocks.push_back({std::string(bytes, at, 16).c_str(), number_at(bytes, at + 24, 8),
                          bytes.substr(at, size)});
        at += size;
    }
    EXPECT_EQ(at, bytes.size()) << "something is left behind the last block";
    return blocks;
}

std::string memory_bytes(const CL_TableHeader *header) {
    return {reinterpret_cast<const char *>(header), header->size};
}

class TraceFile : public testing::Test {
  protected:
    void SetUp() override { test::capture_log(); }
    void TearDown() override {
        EXPECT_EQ(CL_MainTable->trace_fd, -1);
        EXPECT_EQ(test::descriptors(), descriptors);
    }
    /* A user ring whose generations are named by `prefix`. */
    void user_ring(const std::string &of, const char *generations = "5",
                   CL_DumpCallback callback = nullptr) {
        test::set_env("CL_TRC_GEN", generations);
        CL_TRC_End_M(CL_RING_USER);
        ASSERT_EQ(CL_TRC_Init_M(of.c_str(), 64, 10, callback, CL_RING_USER), 0u);
    }
    /* Names of the trace files in the folder; they are removed. */
    std::vector<std::string> take_dumps() {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(folder.root())) {
            if (entry.path().extension() != ".trc") continue;
            names.push_back(entry.path().filename());
            EXPECT_GT(entry.file_size(), 2232u);
            std::filesystem::remove(entry.path());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    test::Folder folder;
    std::string path = folder.path("out.trc");
    std::string prefix = folder.path("gen");
    const std::vector<int> descriptors = test::descriptors();
    CL_ErrInfo err = {};
};

TEST_F(TraceFile, HasItsBlocksInOrder) {
    for (int stage = 0; stage < 5; stage++) {
        SCOPED_TRACE(stage);
        std::vector<std::string> eyes = {"***CL_LIBTRC***", "***CL_MAIN***"};
        if (stage >= 1) eyes.insert(eyes.begin() + 1, "***CL_USRTRC***");
        if (stage >= 2) eyes.emplace_back("***CL_FDTBL***");
        if (stage >= 3) eyes.erase(eyes.begin() + 1);
        if (stage >= 4) eyes.erase(eyes.begin());
        if (stage == 1) user_ring(prefix);
        if (stage == 2) {
            ASSERT_EQ(CL_Init(20, nullptr, &err), 1u);
        }
        if (stage == 3) CL_TRC_End_M(CL_RING_USER);
        if (stage == 4) CL_TRC_End_M(CL_RING_LIBRARY);

        std::vector<std::string> in_memory;
        const CL_MainBlock &main = *CL_MainTable;
        if (main.library_ring != nullptr) {
            in_memory.push_back(memory_bytes(&main.library_ring->header));
        }
        if (main.user_ring != nullptr) in_memory.push_back(memory_bytes(&main.user_ring->header));
        const std::size_t main_at = in_memory.size();
        in_memory.push_back(memory_bytes(&main.header));
        if (main.descriptor_table != nullptr) {
            in_memory.push_back(memory_bytes(main.descriptor_table));
        }
        CL_TRC_Out(path.c_str(), nullptr);

        std::vector<FileBlock> blocks = file_blocks(file_bytes(path), 0);
        ASSERT_EQ(blocks.size(), eyes.size());
        for (std::size_t i = 0; i < eyes.size(); i++) {
            SCOPED_TRACE(eyes[i]);
            EXPECT_EQ(blocks[i].eye, eyes[i]);
            EXPECT_EQ(blocks[i].address, number_at(in_memory[i], 24, 8));
            if (i == main_at) { /* the one field that a dump changes meanwhile */
                EXPECT_EQ(blocks[i].bytes.size(), 2232u);
                EXPECT_LT(number_at(blocks[i].bytes, 1136, 4), 1024u);
                blocks[i].bytes.replace(1136, 4, 4, '\xff');
            }
            EXPECT_TRUE(blocks[i].bytes == in_memory[i]);
        }
        if (main.library_ring != nullptr) {
            EXPECT_TRUE(memory_bytes(&main.library_ring->header) == in_memory[0])
                << "a dump leaves the rings alone";
        }
    }
}

/* What a reader of the file finds of one call and of the object that it made. */
TEST_F(TraceFile, TellsWhatHappened) {
    ASSERT_EQ(CL_Init(5, nullptr, &err), 1u);
    CL_Object *made = CL_CreateFD_M(9, nullptr, 0x1122334455667788, 2, &err, 0, "where.c", 4242);
    CL_TRC_Out(path.c_str(), "x");
    const auto blocks = file_blocks(file_bytes(path), 16);
    const std::string &ring = blocks.at(0).bytes, &main = blocks.at(1).bytes;
    const uint64_t entry_size = number_at(ring, 288, 4), next = number_at(ring, 300, 4);
    EXPECT_EQ(entry_size, 192u);
    const auto record = [&](uint64_t back) {
        const std::size_t at = 312 + (next - back) * (entry_size + 8);
        EXPECT_EQ(number_at(ring, at, 4), 3u) << "one entry holds it";
        EXPECT_EQ(number_at(ring, at + 4, 4), 1u);
        return ring.substr(at + 8, entry_size);
    };
    const std::string exit = record(1), status = record(2), entry = record(3);
    EXPECT_EQ(number_at(entry, 24, 4), 128u);
    EXPECT_EQ(number_at(entry, 28, 4), 0x03000011u)
        << "CL_CreateFD_M, before, by the caller, entry";
    EXPECT_EQ(number_at(exit, 28, 4), 0x02000111u);
    EXPECT_EQ(entry.substr(32, 8), std::string("where.c\0", 8));
    EXPECT_EQ(number_at(entry, 48, 4), 4242u);
    EXPECT_EQ(number_at(entry, 64, 4), 9u);
    EXPECT_EQ(number_at(entry, 80, 8), 0x1122334455667788u);
    EXPECT_EQ(number_at(entry, 56, 8), 0u);
    EXPECT_EQ(number_at(exit, 56, 8), test::address(made));
    EXPECT_EQ(number_at(status, 28, 4), 0xff0200ffu);

    const FileBlock &table = blocks.at(2);
    EXPECT_EQ(number_at(main, 56, 8), table.address);
    const std::size_t object = test::address(made) - table.address;
    EXPECT_EQ(number_at(table.bytes, object + 328, 8), test::address(made));
    EXPECT_EQ(number_at(table.bytes, object + 336, 4), 9u);
    EXPECT_EQ(table.bytes.substr(object + 208, 8), std::string("where.c\0", 8));
    EXPECT_EQ(number_at(main, 128, 8), test::address(made)) << "head of the used queue";
}

TEST_F(TraceFile, HeaderTextIsPadded) {
    const std::pair<std::size_t, std::size_t> places[] = {
        {0, 16}, {1, 16}, {13, 16}, {14, 16}, {15, 32}, {16, 32}, {30, 32}, {31, 48}, {1000, 1008}};
    for (const auto &[length, offset] : places) {
        SCOPED_TRACE(length);
        const std::string text(length, 'h');
        CL_TRC_Out(path.c_str(), text.c_str());
        const std::string bytes = file_bytes(path);
        EXPECT_EQ(bytes.substr(0, offset), text + std::string(offset - length, '\0'));
        EXPECT_EQ(file_blocks(bytes, offset).size(), 2u);
    }
    EXPECT_EQ(test::log_lines(),
              std::vector<std::string>(std::size(places), "CLLIB:trc out start " + path));
}

TEST_F(TraceFile, IsPrivateAndReplaced) {
    for (const mode_t mask : {0, 077}) {
        umask(mask);
        std::filesystem::remove(path);
        CL_TRC_Out(path.c_str(), nullptr);
        struct stat info = {};
        ASSERT_EQ(stat(path.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode, mode_t{S_IFREG | 0600});
    }
    const auto size = std::filesystem::file_size(path);
    std::ofstream(path) << std::string(size + 1000, 'o');
    CL_TRC_Out(path.c_str(), nullptr);
    EXPECT_EQ(std::filesystem::file_size(path), size);
}

TEST_F(TraceFile, GenerationsGoRound) {
    const struct {
        const char *generations;
        std::vector<int> used;
    } rows[] = {{nullptr, {0, 1, 2, 3, 4, 0, 1}},
                {"3", {0, 1, 2, 0}},
                {"1", {0, 0, 0}},
                {"2", {0, 1, 0, 1}}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.generations != nullptr ? row.generations : "unset");
        user_ring(prefix, row.generations);
        std::filesystem::remove(prefix + ".cnf");
        for (std::size_t i = 0; i < row.used.size(); i++) {
            const std::string name = "gen" + std::to_string(row.used[i]) + ".trc";
            CL_TRC_Out(nullptr, "header");
            EXPECT_THAT(take_dumps(), ElementsAre(name));
            if (i + 1 == row.used.size()) continue;
            /* A file made anew names 1, which is read as 0 where there is no 1. */
            const int next = i == 0 ? 1 : row.used[i + 1];
            EXPECT_EQ(file_bytes(prefix + ".cnf"),
                      "[GenConfig]\nGenNum = " + std::to_string(next) + "\n");
        }
    }
    EXPECT_EQ(test::log_lines().front(), "CLLIB:trc out start " + prefix + "0.trc");
}

TEST_F(TraceFile, GenerationFilesMayHoldAnything) {
    const auto value = [](const std::string &text) {
        return "[GenConfig]\nGenNum = " + text + "\n";
    };
    const struct {
        std::string text;
        int used, next;
    } rows[] = {
        {value("0"), 0, 1},
        {value("3"), 3, 4},
        {value("4"), 4, 0},
        {value("0x2"), 2, 3},
        {value("03"), 3, 4},
        {value("+2"), 2, 3},
        {value("5"), 0, 1},
        {value("7"), 0, 1},
        {value("010"), 0, 1},
        {value("-1"), 0, 1},
        {value("-4294967295"), 0, 1},
        {value("4294967297"), 0, 1},
        {value("99999999999999999999999999"), 0, 1},
        {value("-99999999999999999999999999"), 0, 1},
        {value("abc"), 0, 1},
        {value("3x"), 0, 1},
        {value("3 3"), 0, 1},
        {value(""), 0, 1},
        {value(std::string(500, '1')), 0, 1},
        {value(std::string(501, '1')), 0, 1},
        {"", 0, 1},
        {"[GenConfig]\n", 0, 1},
        {"[genconfig]\nGenNum = 3\n", 0, 1},
        {"[GenConfig]\ngennum = 3\n", 0, 1},
        {"GenNum = 3\n", 0, 1},
        {value("3") + "[GenConfig]\n", 0, 1},
        {value("3") + "nonsense\n", 0, 1},
        {"; more\n[A]\nGenNum = 1\n[GenConfig]\nA=B\nGenNum = 3\n", 3, 4},
        {test::pattern(5000), 0, 1},
        {std::string(5000, '\0'), 0, 1},
    };
    user_ring(prefix);
    const uint32_t blocks = CL_nmem_M(1);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text.substr(0, 60));
        std::ofstream(prefix + ".cnf", std::ios::binary) << row.text;
        CL_TRC_Out(nullptr, nullptr);
        EXPECT_THAT(take_dumps(), ElementsAre("gen" + std::to_string(row.used) + ".trc"));
        EXPECT_EQ(file_bytes(prefix + ".cnf"), value(std::to_string(row.next)));
    }
    EXPECT_EQ(CL_nmem_M(1), blocks) << "what was read is freed";
}

TEST_F(TraceFile, GenerationFilesMayRefuse) {
    user_ring(prefix);
    const std::string name = prefix + ".cnf";
    std::ofstream(name) << "[GenConfig]\nGenNum = 3\n";
    ASSERT_EQ(chmod(name.c_str(), 0444), 0);
    ASSERT_EQ(chmod(folder.root().c_str(), 0777), 0);
    for (int i = 0; i < 2; i++) {
        const test::Unprivileged nobody;
        CL_TRC_Out(nullptr, nullptr);
        EXPECT_THAT(take_dumps(), ElementsAre("gen3.trc")) << "the number cannot go on";
    }
    std::filesystem::remove(name);
    std::filesystem::create_directory(name);
    CL_TRC_Out(nullptr, nullptr);
    EXPECT_THAT(take_dumps(), ElementsAre("gen0.trc"));
    std::filesystem::remove(name);
    for (const int nth : {1, 2}) { /* reading, writing */
        const Plan plan{{.call = "fopen", .error = EMFILE, .nth = nth}};
        CL_TRC_Out(nullptr, nullptr);
        EXPECT_THAT(take_dumps(), ElementsAre("gen0.trc"));
        EXPECT_EQ(std::filesystem::exists(name), nth == 1);
        std::filesystem::remove(name);
    }
    for (const std::string &line : test::log_lines())
        EXPECT_TRUE(line.starts_with("CLLIB:trc out start ")) << line;
}

TEST_F(TraceFile, WithoutANameNothingHappens) {
    std::filesystem::current_path(folder.root());
    CL_TRC_Out(nullptr, "header");
    user_ring("");
    CL_TRC_Out(nullptr, "header");
    EXPECT_TRUE(std::filesystem::is_empty(folder.root()));
    EXPECT_THAT(test::log_lines(), IsEmpty());
    user_ring("./" + std::string(198, 'p')); /* the longest prefix */
    CL_TRC_Out(nullptr, "header");
    EXPECT_EQ(take_dumps().size(), 1u);
}

TEST_F(TraceFile, FailingWritesEndTheDump) {
    user_ring(prefix);
    ASSERT_EQ(CL_Init(20, nullptr, &err), 1u);
    const std::string header = "ten chars!";
    CL_TRC_Out(path.c_str(), header.c_str());
    const std::string whole = file_bytes(path);
    const std::string start = "CLLIB:trc out start " + path;
    /* Where each block begins: text, padding, two rings, two tables. */
    std::vector<std::size_t> begins = {0, 11};
    std::size_t at = 16;
    for (const FileBlock &block : file_blocks(whole, 16)) {
        begins.push_back(at);
        at += block.bytes.size();
    }
    ASSERT_EQ(begins.size(), 6u);
    for (std::size_t nth = 0; nth < begins.size(); nth++) {
        for (const int code : {0, ENOSPC, EIO}) {
            SCOPED_TRACE(testing::Message() << "block " << nth << " error " << code);
            const std::string ring = memory_bytes(&CL_MainTable->library_ring->header);
            test::capture_log();
            {
                const std::size_t at_most = code == 0 ? 3 : SIZE_MAX;
                const Plan plan{{.call = "write",
                                 .error = code,
                                 .nth = static_cast<int>(nth) + 1,
                                 .at_most = at_most}};
                CL_TRC_Out(path.c_str(), header.c_str());
                EXPECT_EQ(plan.count("write"), static_cast<int>(nth) + 1) << "no write follows";
                EXPECT_EQ(plan.count("close"), 1);
            }
            const auto lines = test::log_lines();
            ASSERT_EQ(lines.size(), 2u);
            EXPECT_EQ(lines[0], start);
            const std::string what = code == 0 ? "3:" : "-1:" + std::to_string(code) + ")";
            EXPECT_TRUE(lines[1].starts_with("CLLIB:trc file write err(" + what)) << lines[1];
            EXPECT_EQ(std::filesystem::file_size(path), begins[nth] + (code == 0 ? 3 : 0));
            EXPECT_EQ(CL_MainTable->trace_fd, -1);
            EXPECT_TRUE(memory_bytes(&CL_MainTable->library_ring->header) == ring);
        }
    }
    {
        const Plan plan{{.call = "write", .error = EINTR, .nth = 3}};
        CL_TRC_Out(path.c_str(), header.c_str());
    }
    EXPECT_EQ(file_bytes(path).size(), whole.size()) << "an interrupted write is repeated";
    if (access("/dev/full", W_OK) != 0) return;
    test::capture_log();
    CL_TRC_Out("/dev/full", nullptr);
    EXPECT_THAT(test::log_lines(),
                ElementsAre("CLLIB:trc out start /dev/full", "CLLIB:trc file write err(-1:28)"));
}

TEST_F(TraceFile, OtherFailuresAreLogged) {
    const std::string nowhere = folder.path("none/out.trc");
    CL_TRC_Out(nowhere.c_str(), "header");
    CL_TRC_Out(folder.root().c_str(), nullptr);
    EXPECT_THAT(test::log_lines(),
                ElementsAre("CLLIB:trc file open err " + nowhere + " (2).",
                            "CLLIB:trc file open err " + folder.root() + " (21)."));
    test::capture_log();
    std::string deep = folder.root();
    while (deep.size() < 400)
        deep += "/none";
    CL_TRC_Out(deep.c_str(), nullptr);
    EXPECT_THAT(test::log_lines(), ElementsAre(("CLLIB:trc file open err " + deep).substr(0, 319)));
    test::capture_log();
    user_ring(prefix);
    {
        const Plan plan{{.call = "fdatasync", .error = EIO}, {.call = "close", .error = EBADF}};
        CL_TRC_Out(path.c_str(), nullptr);
    }
    EXPECT_THAT(test::log_lines(),
                ElementsAre("CLLIB:trc out start " + path, "CLLIB:trc file fdatasync err(5).",
                            "CLLIB:trc file close err(9)."));
    EXPECT_EQ(CL_MainTable->trace_fd, -1);
    EXPECT_EQ(file_blocks(file_bytes(path), 0).size(), 3u) << "the file is whole";
    for (const int fd : test::descriptors()) { /* what the close did not close */
        if (std::find(descriptors.begin(), descriptors.end(), fd) == descriptors.end()) close(fd);
    }
    const Plan plan{{.call = "fdatasync", .error = EINTR}, {.call = "close", .error = EINTR}};
    test::capture_log();
    CL_TRC_Out(path.c_str(), nullptr);
    EXPECT_THAT(test::log_lines(), ElementsAre("CLLIB:trc out start " + path));
}

/* The dump callback has no arguments: what it does is here. */
std::function<void()> at_dump;
int dumps;
void dump_callback() {
    dumps++;
    if (at_dump) at_dump();
}

TEST_F(TraceFile, DumpCallbackAddsBlocks) {
    user_ring(prefix, "5", dump_callback);
    const std::string one = "first block", two = test::pattern(3000);
    EXPECT_EQ(CL_TRC_AddTbl(one.data(), one.size()), 0u) << "no dump is in progress";

    at_dump = [&] {
        EXPECT_NE(CL_MainTable->trace_fd, -1);
        EXPECT_EQ(CL_TRC_AddTbl(one.data(), one.size()), 1u);
        EXPECT_EQ(CL_TRC_AddTbl(one.data(), 0), 1u);
        EXPECT_EQ(CL_TRC_AddTbl(two.data(), two.size()), 1u);
    };
    CL_TRC_Out(path.c_str(), nullptr);
    const std::string bytes = file_bytes(path);
    EXPECT_TRUE(bytes.ends_with(one + two));
    EXPECT_EQ(file_blocks(bytes.substr(0, bytes.size() - one.size() - two.size()), 0).size(), 3u);

    at_dump = [&] { /* a dump within a dump does nothing */
                    CL_TRC_Out(folder.path("nested.trc").c_str(), "nested");
                    CL_TRC_Out(nullptr, nullptr);
                    EXPECT_EQ(CL_TRC_AddTbl(one.data(), one.size()), 1u);
    };
    CL_TRC_Out(path.c_str(), nullptr);
    EXPECT_TRUE(file_bytes(path).ends_with(one));
    EXPECT_FALSE(std::filesystem::exists(folder.path("nested.trc")));
    EXPECT_FALSE(std::filesystem::exists(prefix + ".cnf"));

    at_dump = [&] { /* a block that cannot be written does not end the dump */
                    const Plan plan{{.call = "write", .error = ENOSPC}};
                    EXPECT_EQ(CL_TRC_AddTbl(one.data(), one.size()), 0u);
                    EXPECT_EQ(CL_TRC_AddTbl(two.data(), two.size()), 1u);
    };
    test::capture_log();
    CL_TRC_Out(path.c_str(), nullptr);
    EXPECT_TRUE(file_bytes(path).ends_with(two));
    EXPECT_THAT(test::log_lines(),
                ElementsAre("CLLIB:trc out start " + path, "CLLIB:trc file write err(-1:28)"));
    EXPECT_EQ(dumps, 3);
    {
        const Plan plan{{.call = "write", .error = ENOSPC}};
        CL_TRC_Out(path.c_str(), nullptr);
    }
    EXPECT_EQ(dumps, 3) << "a dump that failed before is not asked for more";
    EXPECT_EQ(CL_TRC_AddTbl(one.data(), one.size()), 0u);
    CL_TRC_End_M(CL_RING_USER);
    CL_TRC_Out(path.c_str(), nullptr);
    EXPECT_EQ(dumps, 3) << "the callback goes with the user ring";
}

TEST_F(TraceFile, Paths) {
    const struct {
        const char *path, *directory;
    } rows[] = {{"", nullptr},     {"name", nullptr}, {"/", "/"},    {"/name", "/"},
                {"a/b/c", "a/b/"}, {"a/b/", "a/b/"},  {"//x", "//"}, {"./x.trc", "./"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.path);
        char out[16];
        memset(out, '#', sizeof out);
        const char *found = cl_getpath(row.path, out);
        EXPECT_EQ(found, row.directory != nullptr ? out : nullptr);
        EXPECT_STREQ(out, row.directory != nullptr ? row.directory : "");
    }
}

}  // namespace
