/* Event lists: who may list what, in which order objects end up, and what a removal does to the
 * loop's cursor. */
#include <qvcl/eventlist.h>

#include <cstddef>

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
                EXPECT_EQ(object->priority, row.list == &table().pending_list ? 20u : 0u);
                EXPECT_EQ(CL_AddEventList_M(object, 20, &err, flag, "x", 1), 0u);
                EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_FD)) << "listed already";
                EXPECT_EQ(row.list->count, 1u);
            } else {
                EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_FD));
            }
            /* The same callers may take it off. */
            if (may && !row.application) {
                EXPECT_EQ(CL_DelEventList_M(object, &err, 0, "x", 1), 0u);
                EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_FD));
            }
            EXPECT_EQ(CL_DelEventList_M(object, &err, flag, "x", 1), may ? 1u : 0u);
            if (may) {
                EXPECT_THAT(err, IsClear());
            }
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
    for (const uint32_t kind : {CL_KIND_FD, CL_KIND_THREAD}) {
        CL_Object *object = ready(kind);
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
                    EXPECT_EQ(object->status, uint32_t{CL_STATUS_READY});
                }
            }
        }
    }
}

TEST_F(EventList, OnlyReadyObjects) {
    CL_Object *object = create(CL_KIND_FD);
    for (const uint32_t status : {0u, uint32_t{CL_STATUS_FAILED}, uint32_t{CL_STATUS_RUNNING}}) {
        cl_StatusChange_M(object, status, 0, "x", 1);
        EXPECT_EQ(CL_AddEventList(object, 20, &err), 0u);
        EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_FD));
    }
    cl_StatusChange_M(object, CL_STATUS_READY | CL_STATUS_FAILED, 0x102, "x", 1);
    EXPECT_EQ(CL_AddEventList(object, 20, &err), 1u);
    EXPECT_EQ(object->status, 0x25u) << "other bits stay";
    EXPECT_EQ(object->sub_status, 0x102u);
    EXPECT_EQ(CL_DelEventList(object, &err), 1u);
    EXPECT_EQ(object->status, 0x21u);
    EXPECT_EQ(object->sub_status, 0x102u);
}

/* Each refusal has a site of its own, and the order of the checks shows. */
TEST_F(EventList, ChecksInOrder) {
    CL_Object *file = ready(CL_KIND_FILE);
    CL_Object *unset = create(CL_KIND_FD);
    CL_Object *set = ready(CL_KIND_FD);
    CL_Object *listed = ready(CL_KIND_FD);
    ASSERT_EQ(CL_AddEventList(listed, 20, &err), 1u);
    const struct {
        CL_Object *object;
        uint32_t code;
    } rows[] = {{nullptr, EBADF}, {file, EBADF}, {unset, EBADF}, {listed, EBADF}, {set, EINVAL}};
    std::set<uint32_t> sites;
    for (const auto &row : rows) {
        EXPECT_EQ(CL_AddEventList(row.object, 5, &err), 0u);
        EXPECT_THAT(err, FailsWith(row.code, CL_MODULE_FD));
        EXPECT_TRUE(sites.insert(err.line).second);
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

TEST_F(EventList, RemovalMovesTheCursorBack) {
    std::vector<CL_Object *> objects;
    for (uint32_t i = 0; i < 5; i++) {
        objects.push_back(ready(CL_KIND_FD));
        CL_AddEventList(objects[i], 20 + i, &err);
    }
    ASSERT_EQ(cl_move_eventlist(&err), 0u);
    const struct {
        std::size_t cursor, removed;
        int left_at; /* -1: null */
    } rows[] = {{2, 2, 1}, {2, 1, 2}, {2, 3, 2}, {0, 0, -1}, {4, 4, 3}};
    for (const auto &row : rows) {
        table().loop_cursor = objects[row.cursor];
        ASSERT_EQ(CL_DelEventList(objects[row.removed], &err), 1u);
        EXPECT_EQ(table().loop_cursor,
                  row.left_at < 0 ? nullptr : objects[static_cast<std::size_t>(row.left_at)]);
        ASSERT_EQ(
            CL_AddEventList(objects[row.removed], 20 + static_cast<uint32_t>(row.removed), &err),
            1u);
        ASSERT_EQ(cl_move_eventlist(&err), 0u);
    }
    table().loop_cursor = nullptr;
}

TEST_F(EventList, ComparesPriorities) {
    CL_Object *a = create(CL_KIND_FD), *b = create(CL_KIND_FD);
    const struct {
        uint32_t a, b;
        int sign;
    } rows[] = {{12, 13, -1}, {13, 12, 1}, {20, 20, 0}, {0, 121, -1}, {121, 0, 1}};
    for (const auto &row : rows) {
        a->priority = row.a;
        b->priority = row.b;
        const int difference = pri_compar(&a, &b);
        EXPECT_EQ((difference > 0) - (difference < 0), row.sign);
    }
}

/* What only damaged lists can show. */
TEST_F(EventList, DamagedListsAreReported) {
    const struct {
        uint32_t kind;
        std::size_t link;
        uint32_t code, detail;
    } rows[] = {{CL_KIND_FD, offsetof(CL_Object, event_link), CL_ERR_QUEUE, CL_QUE_REFUSED},
                {CL_KIND_TIMER, offsetof(CL_Object, timer_link), EBADF, EBADF},
                {CL_KIND_CHILD, offsetof(CL_Object, child_link), EBADF, EBADF},
                {CL_KIND_THREAD, offsetof(CL_Object, thread_link), EBADF, EBADF}};
    for (const auto &row : rows) {
        CL_Queue elsewhere;
        CL_QUE_InitQT(&elsewhere, static_cast<uint32_t>(row.link));
        CL_Object *object = ready(row.kind);
        ASSERT_EQ(CL_QUE_PutTail(&elsewhere, object), 1u);
        EXPECT_EQ(CL_AddEventList_M(object, 20, &err, 1, "x", 1), 0u);
        EXPECT_EQ(err.err, row.code);
        EXPECT_EQ(err.detail, row.detail);
        EXPECT_EQ(err.module, uint32_t{CL_MODULE_FD});
        EXPECT_EQ(object->status, uint32_t{CL_STATUS_READY});
        /* Marked as listed, but on none of the lists that are tried. */
        cl_StatusChange_M(object, CL_STATUS_READY | CL_STATUS_LISTED, 0, "x", 1);
        EXPECT_EQ(CL_DelEventList_M(object, &err, 1, "x", 1), 0u);
        EXPECT_THAT(err, FailsWith(CL_ERR_QUEUE, CL_MODULE_FD));
        EXPECT_EQ(object->status, 5u);
        CL_QUE_Clear(&elsewhere);
    }
    /* An insertion that finds no array: only with more objects than the stack has room for. */
    CL_ErrInfo failure{};
    CL_Object **scratch = std::exchange(table().scratch, nullptr);
    std::vector<CL_Object> many(130);
    for (CL_Object &object : many) {
        object.priority = 20;
        ASSERT_EQ(CL_QUE_PutTail(&table().pending_list, &object), 1u);
    }
    {
        Plan plan{{.call = "malloc", .error = ENOMEM}};
        EXPECT_EQ(cl_move_eventlist(&failure), 0xffffffffu);
        EXPECT_EQ(plan.hits(), 1);
    }
    EXPECT_EQ(failure.err, uint32_t{CL_ERR_QUEUE});
    EXPECT_EQ(failure.detail, uint32_t{CL_QUE_SEARCH_FAILED});
    EXPECT_EQ(failure.module, uint32_t{CL_MODULE_FD});
    table().scratch = scratch;
    CL_QUE_Clear(&table().pending_list);
    CL_QUE_Clear(&table().priority_list);
}

}  // namespace
