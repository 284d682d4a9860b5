// The tracked allocator: who may hold how much, what the guard sees, and how the lists read.
#include <qvcl/memory.h>

#include <array>
#include <tuple>

#include "tests/support.h"

namespace {

using test::log_lines;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint64_t kSeconds = 1794851969;
constexpr char kStamp[] = " 2026/11/16(Mon) 17:59:29.000123 ";

using Counters = std::array<uint64_t, 3>;  // bytes, their peak, blocks

Counters counters(int32_t flag) {
    const CL_MainBlock &now = test::table();
    return flag == 0 ? Counters{now.user_bytes, now.user_peak, CL_nmem_M(0)}
                     : Counters{now.library_bytes, now.library_peak, CL_nmem_M(1)};
}

std::string printed(void (*print)()) {
    testing::internal::CaptureStdout();
    print();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

TEST(Memory, HoldsTheApplicationToItsLimit) {
    EXPECT_EQ(CL_memlimit(1000), uint64_t{CL_MEM_DEFAULT_LIMIT});
    void *block = CL_malloc(600);
    const std::tuple<uint64_t, uint64_t, int32_t, bool> rows[] = {
        {1000, 400, 0, true},
        {1000, 401, 0, false},
        {1000, UINT64_MAX, 0, false},
        {1000, 401, 1, true},
        {0, 2000, 0, true},
        {1000, UINT64_MAX - 599, 0, false},  // in use + size is 0 in 64 bits
        {1000, UINT64_MAX - 199, 0, false},  // in use + size is 400 in 64 bits
        {0, UINT64_MAX, 0, false},           // nor does header + size come to little
        {0, UINT64_MAX - 100, 1, false},
        {1000, 0, 1, false},
    };
    uint64_t previous = 1000;
    for (const auto &[limit, size, flag, fits] : rows) {
        EXPECT_EQ(CL_memlimit(limit), previous);
        previous = limit;
        const test::Balance before = test::Balance::now();
        void *more = CL_malloc_M(size, flag, "x", 1);
        EXPECT_EQ(more != nullptr, fits) << limit << " " << size << " " << flag;
        EXPECT_EQ(CL_free_M(more, flag, "x", 1), fits ? 1u : 0u);
        EXPECT_EQ(test::Balance::now(), before);
    }
    CL_free(block);
}

// Blocks of both owners at random, against a list of what should be there, oldest first.
TEST(Memory, FollowsItsModel) {
    test::Random random;
    std::vector<std::tuple<uint8_t *, uint64_t, uint8_t>> held[2];  // with size and contents
    const uint64_t limit = 50000;
    CL_memlimit(limit);
    Counters expected[2] = {counters(0), counters(1)};
    for (int step = 0; step < 5000; ++step) {
        const auto flag = static_cast<int32_t>(random.below(2));
        auto &blocks = held[flag];
        auto &[bytes, peak, count] = expected[flag];
        if (blocks.empty() || random.below(100) < 52) {
            const uint64_t size = random.below(4000);
            auto *data = static_cast<uint8_t *>(CL_malloc_M(size, flag, "model", 1));
            const bool fits = size > 0 && (flag == 1 || bytes + size <= limit);
            ASSERT_EQ(data != nullptr, fits) << "step " << step;
            if (!fits) continue;
            const auto fill = static_cast<uint8_t>(random.below(256));
            ASSERT_EQ(std::count(data, data + size, 0), static_cast<int64_t>(size));
            memset(data, fill, size);
            blocks.emplace_back(data, size, fill);
            bytes += size;
            peak = std::max(peak, bytes);
            ++count;
        } else {
            const size_t i = random.below(static_cast<uint32_t>(blocks.size()));
            const auto [data, size, fill] = blocks[i];
            ASSERT_EQ(std::count(data, data + size, fill), static_cast<int64_t>(size));
            ASSERT_EQ(CL_free_M(data, 1 - flag, "model", 2), 0u);
            ASSERT_EQ(CL_free_M(data, flag, "model", 2), 1u);
            blocks.erase(blocks.begin() + static_cast<ptrdiff_t>(i));
            bytes -= size;
            --count;
        }
        ASSERT_EQ(counters(0), expected[0]);
        ASSERT_EQ(counters(1), expected[1]);
    }
    const void *element = test::table().user_blocks.head;
    for (const auto &[data, size, fill] : held[0]) {
        const auto *header = static_cast<const CL_BlockHeader *>(element);
        ASSERT_EQ(header + 1, static_cast<void *>(data));
        element = header->link.next;
    }
    for (const int32_t flag : {0, 1}) {
        for (const auto &[data, size, fill] : held[flag])
            CL_free_M(data, flag, "model", 3);
    }
}

TEST(Memory, ListsReadTheSameInLogAndOutput) {
    test::set_env("TZ", "UTC");
    test::set_env("CLLIB_DEBUG", nullptr);
    CL_KitKeepLog();
    cl_memdisp();
    EXPECT_THAT(log_lines(), ElementsAre()) << "no user block, no line";
    EXPECT_EQ(printed(mem_disp) + printed(mem_check), "");
    CL_KitSetTime(kSeconds, 123);
    static void *block;
    block = CL_malloc_M(8432, 0, "a_file_name_of_more_than_16", 42);
    const std::string title = "CLLIB:usr memory list";
    const std::string line = std::string("CLLIB:a_file_name_of_m(42)") + kStamp + "8432 byte";
    cl_memdisp();
    EXPECT_THAT(log_lines(), ElementsAre(title, line));
    EXPECT_EQ(printed(mem_disp), title + "\n" + line + "\n");
    CL_SetLogCallbackFunction([](int, const char *) {
        CL_free(std::exchange(block, nullptr));
        return 0;
    });
    EXPECT_EQ(CL_nmem_M(0), 0u) << "the line that says so has come";
    block = CL_malloc_M(1, 0, nullptr, 0);
    EXPECT_EQ(static_cast<CL_BlockHeader *>(block)[-1].allocated.file[0], '\0');
    cl_memdisp();
    EXPECT_EQ(CL_nmem_M(0), 0u) << "nor is it told";
}

// Blocks that are there at the start are told once and in order, whatever the callback does.
TEST(Memory, ListsChangeWhileTheyAreTold) {
    static void *held[7];
    static std::string told;
    for (uint64_t i = 1; i < std::size(held); ++i)
        held[i] = CL_malloc(i);
    CL_SetLogCallbackFunction([](int, const char *line) {
        if (strstr(line, "CLLIB") == nullptr) return 0;
        CL_malloc(9);
        const char *unit = strstr(line, " byte");
        told += unit != nullptr ? unit[-1] : ':';
        if (!told.ends_with('2')) return 0;
        EXPECT_EQ(CL_free(held[2]) + CL_free(held[3]) + CL_free(held[6]), 3u)
            << "itself, its successor, the last one";
        return 0;
    });
    cl_memdisp();
    EXPECT_EQ(told, ":1245");
    told = "";
    cl_memdisp();
    EXPECT_EQ(told, ":14599999") << "the new ones come behind";
}

TEST(Memory, GuardSeesOverruns) {
    test::set_env("CL_MEM_CHECK", "1");
    test::set_env("TZ", "UTC");
    IN_NEW_PROCESS({
        CL_KitKeepLog();
        CL_KitSetTime(kSeconds, 123);
        const std::string name(300, 'n');
        auto *sound = static_cast<char *>(CL_malloc(10));
        auto *block = static_cast<char *>(CL_malloc_M(33, 0, "name_of_16_chars", 12));
        auto *other = static_cast<char *>(CL_malloc_M(7, 1, name.c_str(), UINT32_MAX));
        sound[9] = 'x';
        EXPECT_EQ(printed(mem_check), "");
        const auto line = [](const void *data, const std::string &where, const char *size) {
            return "CLLIB:memory over run. addr = " + testing::PrintToString(data) + " at " +
                   where + kStamp + size + " byte\n";
        };
        const std::string user_line = line(block, "name_of_16_chars(12)", "33");
        const std::string library_line = line(other, name.substr(0, 16) + "(-1)", "7");
        const test::Balance before = test::Balance::now();
        // The first and the last byte of the guard.
        block[33] = 0;
        other[7 + 15] = 0;
        EXPECT_EQ(printed(mem_check), library_line + user_line) << "the library's list comes first";
        EXPECT_EQ(CL_free(block), 0u);
        EXPECT_EQ(CL_free_M(other, 1, "x", 1), 0u);
        EXPECT_EQ(test::Balance::now(), before);
        ASSERT_EQ(test::raw_log().size(), 2u);
        EXPECT_THAT(test::raw_log()[0], HasSubstr(user_line));
        CL_free(sound);
    });
}

}  // namespace
