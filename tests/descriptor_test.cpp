// Objects against models: how slots are reused, and in which order event lists hold them.
#include <qvcl/eventlist.h>

#include <cstddef>
#include <deque>

#include "tests/support.h"

namespace {

CL_MainBlock &table() {
    return *CL_MainTable;
}
CL_Object *slot(size_t index) {
    return reinterpret_cast<CL_Object *>(table().descriptor_table + 1) + index;
}

class Descriptor : public test::Library {
  protected:
    // One element, taken out.
    template <class T>
    T take(std::vector<T> &from) {
        const auto at = from.begin() + random.below(static_cast<uint32_t>(from.size()));
        const T element = *at;
        from.erase(at);
        return element;
    }
    test::Random random;
};

// First in, first out; what is handed out is clean and remembers where it was made and deleted
// before.
TEST_F(Descriptor, SlotsAreReusedInOrder) {
    struct Life {
        uint32_t made[2] = {0, 0};  // lines: the last creation and the one before
        uint32_t deleted[2] = {0, 0};
    };
    std::vector<Life> lives(table().capacity);
    std::deque<size_t> free;
    std::vector<size_t> live;
    for (size_t i = 0; i < table().capacity; ++i)
        free.push_back(i);
    for (uint32_t step = 1; step < 3000; ++step) {
        if (live.empty() || (!free.empty() && random.below(100) < 55)) {
            CL_Object *object = CL_CreateFD_M(CL_KIND_FD, nullptr, step, 0, &err, 0, "made", step);
            const size_t index = free.front();
            free.pop_front();
            live.push_back(index);
            ASSERT_EQ(object, slot(index));
            Life &life = lives[index];
            life.made[1] = std::exchange(life.made[0], step);
            const auto *bytes = reinterpret_cast<const uint8_t *>(object);
            for (size_t i = offsetof(CL_Object, area); i < sizeof *object; ++i)
                ASSERT_EQ(bytes[i], 0) << "byte " << i;
            ASSERT_EQ(object->created.line, life.made[0]);
            ASSERT_EQ(object->created_before.line, life.made[1]);
            ASSERT_EQ(object->deleted.line, life.deleted[0]);
            ASSERT_EQ(object->deleted_before.line, life.deleted[1]);
            ASSERT_EQ(object->error, CL_ErrInfo{});
            ASSERT_EQ(object->interval + object->remaining + object->start_time, 0u);
            memset(object->area, 0xaa, sizeof object->area);
            object->error = test::UNTOUCHED;
            object->interval = object->remaining = 5;
            object->start_time = 6;
        } else {
            const size_t index = take(live);
            free.push_back(index);
            Life &life = lives[index];
            life.deleted[1] = std::exchange(life.deleted[0], step);
            ASSERT_EQ(CL_DeleteFD_M(slot(index), &err, 0, "deleted", step), 1u);
            ASSERT_EQ(slot(index)->deleted.line, life.deleted[0]);
            ASSERT_EQ(slot(index)->deleted_before.line, life.deleted[1]);
            ASSERT_EQ(slot(index)->status, 0u);
        }
        ASSERT_EQ(table().free_queue.count, free.size());
        ASSERT_EQ(table().used_queue.count, live.size());
    }
}

std::vector<CL_Object *> elements(const CL_Queue &queue) {
    std::vector<CL_Object *> result;
    uint32_t status = CL_QUE_WALKING;
    void *at = nullptr;
    while ((at = CL_QUE_Enum(&queue, at, CL_QUE_FORWARD, &status)) != nullptr)
        result.push_back(static_cast<CL_Object *>(at));
    EXPECT_EQ(result.size(), queue.count);
    return result;
}

// What is listed waits in order of arrival, and joins in the order of priorities.
TEST_F(Descriptor, ListsKeepTheirOrder) {
    std::vector<CL_Object *> sorted, pending, off;
    for (uint32_t i = 0; i < OBJECTS; ++i) {
        off.push_back(create(CL_KIND_FD));
        off.back()->status = CL_STATUS_READY;
    }
    for (int step = 0; step < 4000; ++step) {
        const uint32_t choice = random.below(10);
        std::vector<CL_Object *> &left = choice < 7 ? pending : sorted;
        if (choice < 5 && !off.empty()) {
            pending.push_back(take(off));
            const uint32_t priority = 12 + random.below(step % 2 == 0 ? 8 : 100);
            ASSERT_EQ(CL_AddEventList(pending.back(), priority, &err), 1u);
        } else if (choice < 8 && !left.empty()) {
            off.push_back(take(left));
            ASSERT_EQ(CL_DelEventList(off.back(), &err), 1u);
        } else if (choice == 8) {
            const test::Balance before = test::Balance::now();
            const test::Plan plan;
            ASSERT_EQ(cl_move_eventlist(&err), 0u);
            ASSERT_EQ(plan.count("malloc"), 0);
            ASSERT_EQ(test::Balance::now(), before);
            for (CL_Object *object : pending) {
                std::vector<int64_t> keys;
                for (const CL_Object *other : sorted)
                    keys.push_back(other->priority);
                const size_t place = test::sorted_place(keys, object->priority);
                sorted.insert(sorted.begin() + static_cast<std::ptrdiff_t>(place), object);
            }
            pending.clear();
        }
        ASSERT_EQ(elements(table().priority_list), sorted);
        ASSERT_EQ(elements(table().pending_list), pending);
    }
}

}  // namespace
