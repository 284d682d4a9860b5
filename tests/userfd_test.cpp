// Descriptors of the application: how they are merged into the loop's sets, and matched.
#include <qvcl/loop.h>
#include <qvcl/userfd.h>

#include "tests/support.h"

namespace {

using UserFd = test::Library;

// Counts and bits at random, against descriptor-by-descriptor rules.
TEST_F(UserFd, MergesAndMatches) {
    CL_MainBlock &table = test::table();
    test::Random random;
    const auto random_sets = [&](uint32_t percent) {
        CL_FdSets sets{};
        for (fd_set *set : {&sets.read, &sets.write, &sets.except}) {
            for (int fd = 0; fd < FD_SETSIZE; ++fd)
                if (random.below(100) < percent) FD_SET(fd, set);
        }
        return sets;
    };
    uint32_t called = 0;
    CL_Event seen{};
    test::Action action = [&](CL_Object *, CL_Event *event) {
        ++called;
        seen = *event;
        return 0x80000000u + called;
    };
    CL_Object *object = create(CL_KIND_FD, test::call_action, test::address(&action));
    int hits = 0;
    for (int round = 0; round < 2000; ++round) {
        const uint32_t percent = round % 3 == 0 ? 5 : 0;
        CL_FdSets own = random_sets(percent), loop = random_sets(1);
        if (percent == 0) FD_SET(random.below(1024), &own.write);
        FD_SET(random.below(1024), &own.read);
        // Ready in another way than watched for is not ready.
        if (round % 4 == 0) loop.except = own.read;
        if (round % 4 == 1) loop.read = own.read;
        const uint32_t count = round % 5 == 0 ? random.below(3) : random.below(1025);
        ASSERT_EQ(CL_SetFD(object, count, &own.read, &own.write, &own.except, &err), 1u);

        const auto before_count = static_cast<int32_t>(random.below(1025));
        table.descriptor_count = before_count;
        table.sets = loop;
        ASSERT_EQ(cl_MakeListLFD_M(object, 1, "x", 1), 0u);
        CL_FdSets merged = loop;
        bool match = false;
        for (const auto set : {&CL_FdSets::read, &CL_FdSets::write, &CL_FdSets::except}) {
            for (uint32_t fd = 0; fd < count; ++fd) {
                if (!FD_ISSET(fd, &(own.*set))) continue;
                FD_SET(fd, &(merged.*set));
                match = match || FD_ISSET(fd, &(loop.*set));
            }
        }
        ASSERT_EQ(memcmp(&table.sets, &merged, sizeof merged), 0) << "round " << round;
        ASSERT_EQ(table.descriptor_count, std::max(before_count, static_cast<int32_t>(count)));

        table.sets = loop;  // as the wait returned them
        const uint32_t before = called;
        const uint32_t result = cl_CheckLFD_M(object, &err, 1, "x", 1);
        ASSERT_EQ(called, before + (match ? 1u : 0u)) << "round " << round;
        ASSERT_EQ(result, match ? 0x80000000u + called : 0u);
        if (!match) continue;
        ++hits;
        const CL_Event expected{.type = CL_EVENT_DESCRIPTOR, .sets = loop};
        ASSERT_EQ(memcmp(&seen, &expected, sizeof seen), 0) << "the loop's sets, all of them";
    }
    EXPECT_GT(hits, 100);
    EXPECT_LT(hits, 1900);
}

}  // namespace
