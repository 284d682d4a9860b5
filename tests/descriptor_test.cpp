// Objects against a model: how slots are reused.
#include <algorithm>
#include <array>
#include <cstddef>
#include <deque>
#include <numeric>

#include "tests/support.h"

namespace {

using test::table;

using Descriptor = test::Library;

// First in, first out; what is handed out is clean and remembers where it was made and deleted
// before.
TEST_F(Descriptor, SlotsAreReusedInOrder) {
    test::Random random;
    // Lines of its last creation and deletion, and of those before.
    const auto life_of = [](const CL_Object *object) {
        return std::array{object->created.line, object->created_before.line, object->deleted.line,
                          object->deleted_before.line};
    };
    std::vector<std::array<uint32_t, 4>> lives(table().capacity);
    auto *const slots = reinterpret_cast<CL_Object *>(table().descriptor_table + 1);
    std::deque<size_t> free(table().capacity);
    std::iota(free.begin(), free.end(), 0);
    std::vector<size_t> live;
    for (uint32_t step = 1; step < 3000; ++step) {
        if (live.empty() || (!free.empty() && random.below(100) < 55)) {
            CL_Object *object = CL_CreateFD_M(CL_KIND_FD, nullptr, step, 0, &err, 0, "made", step);
            const size_t index = free.front();
            free.pop_front();
            live.push_back(index);
            ASSERT_EQ(object, &slots[index]);
            lives[index][1] = std::exchange(lives[index][0], step);
            ASSERT_EQ(life_of(object), lives[index]);
            const auto *bytes = reinterpret_cast<const uint8_t *>(object);
            ASSERT_EQ(std::count(bytes + offsetof(CL_Object, area), bytes + sizeof *object, 0),
                      std::ptrdiff_t{sizeof *object - offsetof(CL_Object, area)});
            ASSERT_EQ(object->error, CL_ErrInfo{});
            ASSERT_EQ(object->interval + object->remaining + object->start_time, 0u);
            memset(object->area, 0xaa, sizeof object->area);
            object->error = test::kUntouched;
            object->interval = object->remaining = 5;
            object->start_time = 6;
        } else {
            std::swap(live[random.below(static_cast<uint32_t>(live.size()))], live.back());
            const size_t index = live.back();
            live.pop_back();
            free.push_back(index);
            lives[index][3] = std::exchange(lives[index][2], step);
            ASSERT_EQ(CL_DeleteFD_M(&slots[index], &err, 0, "deleted", step), 1u);
            ASSERT_EQ(life_of(&slots[index]), lives[index]);
            ASSERT_EQ(slots[index].status, 0u);
        }
        ASSERT_EQ(table().free_queue.count, free.size());
        ASSERT_EQ(table().used_queue.count, live.size());
    }
}

}  // namespace
