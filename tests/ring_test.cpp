// Trace rings against a model, and their set-up.
#include <qvcl/trace.h>
#include <sys/mman.h>

#include <csignal>
#include <cstddef>
#include <deque>
#include <optional>

#include "tests/support.h"

namespace {

using test::Record;

// A record of `length` bytes, recognisable by its content.
std::vector<uint8_t> make_record(uint32_t length, uint32_t number) {
    std::vector<uint8_t> bytes(std::max(length, 32u));
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<uint8_t>(size_t{number} * 31 + i * 7);
    memcpy(&bytes[offsetof(CL_TrcHead, length)], &length, sizeof length);
    return bytes;
}

// What another process could see of a ring in the middle of a write: the record to be written goes
// on in memory that may not be read, so the write stops there, and looks. Nothing when it does not.
constexpr size_t kHalf = 1 << 13;  // whole pages, longer than any record
alignas(kHalf) uint8_t memory[2 * kHalf];
std::optional<std::vector<Record>> held;

uint32_t write_watched(std::vector<uint8_t> &record, size_t readable) {
    uint8_t *const start = memory + kHalf - readable;
    std::ranges::copy(record, start);
    signal(SIGSEGV, [](int) {
        signal(SIGSEGV, SIG_DFL);
        held = test::records(CL_MainTable->user_ring);
        mprotect(memory + kHalf, kHalf, PROT_READ | PROT_WRITE);
    });
    held.reset();
    mprotect(memory + kHalf, kHalf, PROT_NONE);
    const uint32_t result = CL_TRC_Write_M(start, CL_RING_USER);
    mprotect(memory + kHalf, kHalf, PROT_READ | PROT_WRITE);
    std::copy_n(start, record.size(), record.begin());
    return result;
}

TEST(Ring, FollowsItsModel) {
    test::Random random;
    const auto expect_model = [](const std::vector<Record> &records, const auto &model) {
        ASSERT_TRUE(std::ranges::equal(records, model, {}, &Record::bytes));
    };
    int stops = 0;
    for (int round = 0; round < 60; ++round) {
        const uint32_t size = 32 + random.below(round % 2 == 0 ? 200 : 20);
        const uint32_t count = 1 + random.below(round % 3 == 0 ? 4 : 30);
        ASSERT_EQ(CL_TRC_Init_M("model", size, count, nullptr, CL_RING_USER), 0u);
        const CL_TraceRing *ring = CL_MainTable->user_ring;
        std::deque<std::vector<uint8_t>> model;
        const auto entries = [size](size_t bytes) { return uint32_t((bytes + size - 1) / size); };
        uint32_t used = 0, written = 0;
        for (uint32_t step = 0; step < 200; ++step) {
            const uint32_t longest = size * count + (random.below(10) == 0 ? 1 : 0);
            const uint32_t length =
                random.below(20) == 0 ? 0 : std::min(32 + random.below(longest), longest);
            auto record = make_record(length, step);
            const auto original = record;
            CL_KitSetTime(step + 1, uint64_t{step} * 2);
            const uint32_t needed = entries(length);
            const auto readable =
                32 + 8 * random.below(static_cast<uint32_t>(record.size()) / 8 - 3);
            ASSERT_EQ(write_watched(record, readable), needed > count ? 7u : 0u);
            if (needed > count) {
                ASSERT_EQ(record, original) << "a refused record is not stamped";
                continue;
            }
            const uint64_t stamp[2] = {step + 1, uint64_t{step} * 2};
            ASSERT_EQ(memcmp(record.data(), stamp, sizeof stamp), 0);
            ASSERT_TRUE(std::equal(record.begin() + 16, record.end(), original.begin() + 16));
            if (length == 0) continue;
            for (; used + needed > count; model.pop_front())
                used -= entries(model[0].size());
            if (held) expect_model(*held, model);
            stops += static_cast<int>(held.has_value());
            model.push_back(record);
            used += needed;
            written += needed;
            ASSERT_EQ(ring->next, written % count);
            ASSERT_EQ(ring->wrapped, written >= count ? 1u : 0u);
            expect_model(test::records(ring), model);
            ASSERT_FALSE(HasFailure());
        }
        CL_TRC_End_M(CL_RING_USER);
    }
    EXPECT_GT(stops, 1000);
}

TEST(Ring, RefusesInOrder) {
    const std::string s200(200, 'p'), s201(201, 'p');
    const CL_DumpCallback callback = [] {};
    CL_TRC_End_M(CL_RING_LIBRARY);
    for (const int kind : {int{CL_RING_USER}, int{CL_RING_LIBRARY}, -5}) {
        const bool user = kind == CL_RING_USER;
        const struct {
            const char *prefix;
            uint32_t size, count, result;
        } rows[] = {{nullptr, 31, 0, user ? 14u : 22u},
                    {s201.c_str(), 31, 0, 36},
                    {"p", 31, 1, 22},
                    {"p", 32, 0, 22},
                    {"p", UINT32_MAX, UINT32_MAX, 12},      // more than 64 bits can hold
                    {"p", UINT32_MAX - 5, UINT32_MAX, 12},  // what is left of it would fit
                    {"p", UINT32_MAX - 6, UINT32_MAX, 12},  // the entries alone do fit
                    {s200.c_str(), 32, 1, 0},
                    {"p", 32, 1, 114},
                    {"p", 31, 1, 22}};  // even though the ring exists
        auto record = make_record(32, 0);
        EXPECT_EQ(CL_TRC_Write_M(nullptr, kind), 14u) << "before the ring is looked for";
        EXPECT_EQ(CL_TRC_Write_M(record.data(), kind), uint32_t{CL_ERR_STATE});
        for (const auto &[prefix, size, count, result] : rows) {
            EXPECT_EQ(CL_TRC_Init_M(prefix, size, count, callback, kind), result)
                << kind << " " << size << " " << count;
        }
        EXPECT_EQ(CL_MainTable->user_ring != nullptr, user);
        EXPECT_EQ(CL_MainTable->library_ring != nullptr, !user);
        EXPECT_EQ(CL_MainTable->dump_callback, user ? callback : nullptr);
        CL_TRC_End_M(kind);
        CL_TRC_End_M(kind);
    }
}

TEST(Ring, TakesItsSizeFromTheEnvironment) {
    const std::pair<const char *, uint32_t> rows[] = {
        {nullptr, 1000}, {"12x", 1000},       {"99", 100},         {"", 100},
        {"0x200", 512},  {"2147483648", 100}, {"4294967446", 150}, {"99999999999999999999", 100}};
    for (const auto &[value, entries] : rows) {
        test::set_env("CL_TRC_NUM", value);
        CL_TRC_End_M(CL_RING_LIBRARY);
        EXPECT_EQ(CL_INTRC_Init(), 0u);
        EXPECT_EQ(CL_MainTable->library_ring->entry_count, entries)
            << testing::PrintToString(value);
        EXPECT_EQ(CL_INTRC_Init(), uint32_t{EALREADY});
    }
    CL_TRC_End_M(CL_RING_LIBRARY);
    test::set_env("CL_TRC_GEN", "99999999999");
    EXPECT_EQ(CL_INTRC_Init(), 0u);
    EXPECT_EQ(CL_MainTable->generations, uint32_t{INT32_MAX});
    CL_TRC_End_M(CL_RING_LIBRARY);
    const test::Plan plan({.call = "malloc", .error = ENOMEM});
    EXPECT_EQ(CL_INTRC_Init(), uint32_t{ENOMEM});
}

// Entries that something else has written over are no reason to stop.
TEST(Ring, WritesOverDamagedEntries) {
    auto record = make_record(1000, 0);
    const CL_TraceRing *ring = CL_MainTable->library_ring;
    for (uint32_t byte : {0x00u, 0xffu, 0x7fu}) {
        for (uint32_t i = 0; i < 2 * ring->entry_count; ++i)
            ASSERT_EQ(CL_TRC_Write_M(record.data(), CL_RING_LIBRARY), 0u);
        auto *entries = reinterpret_cast<char *>(CL_MainTable->library_ring + 1);
        memset(entries, static_cast<int>(byte), ring->header.size - sizeof *ring);
    }
    EXPECT_EQ(CL_TRC_Write_M(record.data(), CL_RING_LIBRARY), 0u);
    EXPECT_LT(ring->next, ring->entry_count);
    EXPECT_LT(ring->oldest, ring->entry_count);
}

// The library works on without a ring, or with one that is too small for its records.
using RingUse = test::Library;
TEST_F(RingUse, OperationsDoWithoutIt) {
    for (const uint32_t entries : {0u, 1u}) {
        CL_TRC_End_M(CL_RING_LIBRARY);
        CL_TRC_Init_M(nullptr, 100, entries, nullptr, CL_RING_LIBRARY);  // none of 0 entries
        CL_Object *object = create(CL_KIND_FD);
        ASSERT_NE(object, nullptr);
        EXPECT_NE(cl_StatusChange_M(object, 1, 0, "x", 1) != 0, entries > 0);
        EXPECT_EQ(object->status, 1u) << "the change stands whatever the ring does";
        EXPECT_EQ(CL_AddEventList(object, 20, &err), 1u);
        EXPECT_EQ(CL_DeleteFD(object, &err), 1u);
    }
}

}  // namespace
