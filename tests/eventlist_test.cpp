/* Event lists: who may list what, and in which order objects end up. */
#include <qvcl/eventlist.h>

#include "tests/support.h"

namespace {

using test::FailsWith;
using test::IsClear;
using test::Plan;

CL_MainBlock &table() {
    return *CL_MainTable;
}

std::vector<CL_Object *> elements(const CL_Queue &queue) {
    std::vector<CL_Object *> result;
    uint32_t status = CL_QUE_WALKING;
    void *at = nullptr;
    while ((at = CL_QUE_Enum(&queue, at, CL_QUE_FORWARD, &status)) != nullptr) {
        result.push_back(static_cast<CL_Object *>(at));
    }
    EXPECT_EQ(result.size(), queue.count);
    return result;
}

class EventList : public test::Library {
  protected:
    /* Ready, of any kind. */
    CL_Object *ready(uint32_t kind) {
        CL_Object *object = create(kind);
        cl_StatusChange_M(object, CL_STATUS_READY, 0, "test", 1);
        return object;
    }
};

constexpr uint8_t FLAGS[] = {0, 2, 255, 1};

TEST_F(EventList, KindsHaveTheirListsAndTheirCallers) {
    const struct {
        uint32_t kind;
        CL_Queue *list; /* null: never */
        bool application;
    } rows[] = {
        {CL_KIND_MSGS, &table().pending_list, true},
        {CL_KIND_MSGC, &table().pending_list, true},
        {CL_KIND_CHILD, &table().child_list, false},
        {CL_KIND_FD, &table().pending_list, true},
        {CL_KIND_END, &table().pending_list, false},
        {CL_KIND_EXECS, &table().pending_list, false},
        {CL_KIND_EXECC, &table().pending_list, false},
        {CL_KIND_TIMER, &table().timer_list, false},
        {CL_KIND_SHM, nullptr, false},
        {CL_KIND_FILE, nullptr, false},
        {CL_KIND_THREAD, &table().thread_list, true},
    };
    for (const auto &row : rows) {
        for (const uint8_t flag : FLAGS) {
            const bool may = row.list != nullptr && (row.application || flag == 1);
            CL_Object *object = ready(row.kind);
            const test::Balance before = test::Balance::now();
            EXPECT_EQ(CL_AddEventList_M(object, 20, &err, flag, "x", 1), may ? 1u : 0u)
                << row.kind << " flag " << int{flag};
            if (may) {
                EXPECT_THAT(err, IsClear());
                EXPECT_EQ(elements(*row.list).back(), object);
                EXPECT_EQ(object->status, uint32_t{CL_STATUS_READY | CL_STATUS_LISTED});
                EXPECT_EQ(CL_AddEventList_M(object, 20, &err, flag, "x", 1), 0u);
                EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_FD)) << "listed already";
            } else {
                EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_FD));
            }
            if (may && !row.application) {
                EXPECT_EQ(CL_DelEventList_M(object, &err, 0, "x", 1), 0u) << "nor taken off";
            }
            EXPECT_EQ(CL_DelEventList_M(object, &err, flag, "x", 1), may ? 1u : 0u);
            EXPECT_EQ(object->status, uint32_t{CL_STATUS_READY});
            EXPECT_EQ(test::Balance::now(), before);
            EXPECT_EQ(CL_DelEventList_M(object, &err, flag, "x", 1), 0u);
            EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_FD)) << "not listed";
            cl_StatusChange_M(object, 0, 0, "test", 1);
            ASSERT_EQ(CL_DeleteFD_M(object, &err, 1, "test", 1), 1u);
        }
    }
}

TEST_F(EventList, PrioritiesHaveTheirRanges) {
    const struct {
        uint32_t priority;
        bool application, library;
    } rows[] = {{0, false, true},    {11, false, true},         {12, true, true},
                {111, true, true},   {112, false, true},        {121, false, true},
                {122, false, false}, {UINT32_MAX, false, false}};
    CL_Object *object = ready(CL_KIND_FD);
    for (const auto &row : rows) {
        for (const uint8_t flag : FLAGS) {
            const bool allowed = flag == 0 ? row.application : row.library;
            EXPECT_EQ(CL_AddEventList_M(object, row.priority, &err, flag, "x", 1),
                      allowed ? 1u : 0u)
                << row.priority << " flag " << int{flag};
            if (allowed) {
                EXPECT_EQ(CL_DelEventList(object, &err), 1u);
            } else {
                EXPECT_THAT(err, FailsWith(EINVAL, CL_MODULE_FD));
            }
        }
    }
}

/* Lists, pending and sorted, against vectors. */
TEST_F(EventList, OrderFollowsItsModel) {
    test::Random random;
    std::vector<CL_Object *> sorted, pending, off;
    for (uint32_t i = 0; i < OBJECTS; i++) {
        off.push_back(ready(CL_KIND_FD));
    }
    const auto take = [&](std::vector<CL_Object *> &from) {
        const auto at = from.begin() + random.below(static_cast<uint32_t>(from.size()));
        CL_Object *object = *at;
        from.erase(at);
        return object;
    };
    for (int step = 0; step < 4000; step++) {
        const uint32_t choice = random.below(10);
        if (choice < 5 && !off.empty()) {
            CL_Object *object = take(off);
            ASSERT_EQ(CL_AddEventList(object, 12 + random.below(step % 2 == 0 ? 8 : 100), &err),
                      1u);
            pending.push_back(object);
        } else if (choice < 7 && !pending.empty()) {
            CL_Object *object = take(pending);
            ASSERT_EQ(CL_DelEventList(object, &err), 1u);
            off.push_back(object);
        } else if (choice < 8 && !sorted.empty()) {
            CL_Object *object = take(sorted);
            ASSERT_EQ(CL_DelEventList(object, &err), 1u);
            off.push_back(object);
        } else if (choice == 8) {
            const test::Balance before = test::Balance::now();
            Plan plan;
            ASSERT_EQ(cl_move_eventlist(&err), 0u);
            ASSERT_EQ(plan.count("malloc"), 0);
            ASSERT_EQ(test::Balance::now(), before);
            for (CL_Object *object : pending) {
                std::vector<int64_t> keys;
                for (const CL_Object *other : sorted) {
                    keys.push_back(other->priority);
                }
                const std::size_t place = test::sorted_place(keys, object->priority);
                sorted.insert(sorted.begin() + static_cast<std::ptrdiff_t>(place), object);
            }
            pending.clear();
        }
        ASSERT_EQ(elements(table().priority_list), sorted);
        ASSERT_EQ(elements(table().pending_list), pending);
    }
}

}  // namespace
