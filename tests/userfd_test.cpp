/* Descriptors of the application: what is refused, merged and matched. */
#include <qvcl/userfd.h>

#include "tests/support.h"

namespace {

using test::FailsWith;

CL_MainBlock &table() {
    return *CL_MainTable;
}

class UserFd : public test::Library {
  protected:
    fd_set random_set(test::Random &random, uint32_t percent) {
        fd_set set;
        FD_ZERO(&set);
        for (int fd = 0; fd < FD_SETSIZE; fd++) {
            if (random.below(100) < percent) {
                FD_SET(fd, &set);
            }
        }
        return set;
    }
    static bool equal(const fd_set &a, const fd_set &b) { return memcmp(&a, &b, sizeof a) == 0; }
};

const fd_set EMPTY{};

TEST_F(UserFd, RefusesAndChangesNothing) {
    CL_Object *object = create(CL_KIND_FD);
    CL_Object *other = create(CL_KIND_MSGC);
    test::Random random;
    const fd_set set = random_set(random, 50);
    ASSERT_EQ(CL_SetFD(object, 10, &set, nullptr, nullptr, &err), 1u);
    for (const uint32_t count : {1025u, 2048u, 0x80000000u, UINT32_MAX}) {
        EXPECT_EQ(CL_SetFD(object, count, nullptr, &set, nullptr, &err), 0u);
        EXPECT_THAT(err, FailsWith(EINVAL, CL_MODULE_USERFD)) << count;
    }
    EXPECT_EQ(CL_SetFD(other, 10, &set, nullptr, nullptr, &err), 0u);
    EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_USERFD));
    EXPECT_EQ(other->status, 0u);
    EXPECT_EQ(object->user.count, 10);
    EXPECT_TRUE(equal(object->user.sets.read, set));
    EXPECT_TRUE(equal(object->user.sets.write, EMPTY));
}

/* Counts and bits at random, against descriptor-by-descriptor rules. */
TEST_F(UserFd, MergesAndMatches) {
    test::Random random;
    uint32_t called = 0;
    CL_Event seen{};
    test::Action action = [&](CL_Object *, CL_Event *event) {
        called++;
        seen = *event;
        return 0x80000000u + called;
    };
    CL_Object *object = create(CL_KIND_FD, test::call_action, test::address(&action));
    int hits = 0;
    for (int round = 0; round < 2000; round++) {
        const uint32_t percent = round % 3 == 0 ? 5 : 0;
        CL_FdSets own = {random_set(random, percent), random_set(random, percent),
                         random_set(random, percent)};
        CL_FdSets loop = {random_set(random, 1), random_set(random, 1), random_set(random, 1)};
        if (percent == 0) {
            FD_SET(random.below(1024), &own.write);
        }
        FD_SET(random.below(1024), &own.read);
        /* Ready in another way than watched for is not ready. */
        if (round % 4 == 0) {
            loop.except = own.read;
        } else if (round % 4 == 1) {
            loop.read = own.read;
        }
        const uint32_t count = round % 5 == 0 ? random.below(3) : random.below(1025);
        ASSERT_EQ(CL_SetFD(object, count, &own.read, &own.write, &own.except, &err), 1u);

        const auto before_count = static_cast<int32_t>(random.below(1025));
        table().descriptor_count = before_count;
        table().sets = loop;
        ASSERT_EQ(cl_MakeListLFD_M(object, 1, "x", 1), 0u);
        CL_FdSets merged = loop;
        bool match = false;
        for (uint32_t fd = 0; fd < count; fd++) {
            const auto merge = [&](const fd_set &from, const fd_set &ready, fd_set *into) {
                if (!FD_ISSET(fd, &from)) {
                    return;
                }
                FD_SET(fd, into);
                match = match || FD_ISSET(fd, &ready);
            };
            merge(own.read, loop.read, &merged.read);
            merge(own.write, loop.write, &merged.write);
            merge(own.except, loop.except, &merged.except);
        }
        ASSERT_EQ(memcmp(&table().sets, &merged, sizeof merged), 0) << "round " << round;
        ASSERT_EQ(table().descriptor_count, std::max(before_count, static_cast<int32_t>(count)));

        table().sets = loop; /* as the wait returned them */
        const uint32_t before = called;
        err = test::UNTOUCHED;
        const uint32_t result = cl_CheckLFD_M(object, &err, 1, "x", 1);
        ASSERT_EQ(called, before + (match ? 1u : 0u)) << "round " << round;
        ASSERT_EQ(result, match ? 0x80000000u + called : 0u);
        hits += match ? 1 : 0;
        if (match) {
            CL_Event expected{};
            expected.type = CL_EVENT_DESCRIPTOR;
            expected.sets = loop;
            ASSERT_EQ(memcmp(&seen, &expected, sizeof seen), 0) << "the loop's sets, all of them";
        }
    }
    EXPECT_GT(hits, 100);
    EXPECT_LT(hits, 1900);
}

}  // namespace
