// The queue against a reference model, and every result that it can return.
#include <qvcl/queue.h>

#include <algorithm>

#include "tests/support.h"

namespace {

using test::Plan;

struct Element {
    int64_t key = 0;
    CL_QueueLink link{};
    char text[8] = "";
    CL_QueueLink second_link{};
};
constexpr uint32_t kLink = offsetof(Element, link);
constexpr uint32_t kSecondLink = offsetof(Element, second_link);

bool lower_key(const Element *a, const Element *b) {
    return a->key < b->key;
}
int by_key(const void *a, const void *b) {
    const auto *first = *static_cast<Element *const *>(a),
               *second = *static_cast<Element *const *>(b);
    return lower_key(first, second) ? -1 : static_cast<int>(lower_key(second, first));
}

bool is_zero(const CL_QueueLink &link) {
    return link.next == nullptr && link.previous == nullptr && link.owner == nullptr;
}

using Model = std::vector<Element *>;

// The chain, read in both directions, is the model.
void expect_equal(const CL_Queue &queue, const Model &model, uint32_t offset = kLink) {
    const auto link = [offset](const void *element) {
        return reinterpret_cast<const CL_QueueLink *>(static_cast<const char *>(element) + offset);
    };
    ASSERT_EQ(CL_QUE_GetNum(&queue), model.size());
    EXPECT_EQ(queue.link_offset, offset);
    const size_t n = model.size();
    EXPECT_EQ(queue.head, n == 0 ? nullptr : model.front());
    EXPECT_EQ(queue.tail, n == 0 ? nullptr : model.back());
    for (size_t i = 0; i < n; ++i) {
        ASSERT_EQ(link(model[i])->next, i + 1 < n ? model[i + 1] : nullptr) << "at " << i;
        ASSERT_EQ(link(model[i])->previous, i > 0 ? model[i - 1] : nullptr) << "at " << i;
        ASSERT_EQ(link(model[i])->owner, &queue) << "at " << i;
    }
}

// What the binary search must return: midpoints round down over the whole queue.
Element *search(const Model &model, int64_t key, int mode) {
    std::vector<int64_t> keys;
    for (const Element *element : model)
        keys.push_back(element->key);
    const size_t place = test::sorted_place(keys, key);
    if (place > 0 && keys[place - 1] == key) return model[place - 1];
    if (mode == CL_QUE_EQUAL_OR_LOWER) return place > 0 ? model[place - 1] : nullptr;
    if (mode == CL_QUE_EQUAL_OR_HIGHER) return place < model.size() ? model[place] : nullptr;
    return nullptr;
}

class Queue : public testing::Test {
  protected:
    void SetUp() override {
        CL_QUE_InitQT(&queue, kLink);
        CL_QUE_InitQT(&other, kLink);
        for (Element &element : elements)
            element.key = &element - elements.data();
    }
    // Puts elements with these keys, and only them, into the queue.
    Model fill(std::initializer_list<int> keys) {
        EXPECT_EQ(CL_QUE_Clear(&queue), 0u);
        Model model;
        for (const int key : keys) {
            Element *element = &elements[model.size()];
            element->key = key;
            EXPECT_EQ(CL_QUE_PutTail(&queue, element), 1u);
            model.push_back(element);
        }
        return model;
    }

    CL_Queue queue{};
    CL_Queue other{};
    std::vector<Element> elements = std::vector<Element>(300);
};

TEST_F(Queue, RefusesAndChangesNothing) {
    const Model model = fill({10, 20, 30});
    Element foreign{20, {}, "", {}};
    Element fresh{20, {}, "", {}};
    CL_QUE_PutTail(&other, &foreign);
    CL_Queue second{};
    CL_QUE_InitQT(&second, kSecondLink);

    EXPECT_EQ(CL_QUE_PutTail(&queue, nullptr), 0u);
    EXPECT_EQ(CL_QUE_GetData(&queue, nullptr), nullptr);
    EXPECT_EQ(CL_QUE_Isinque(&queue, nullptr), 0u);
    EXPECT_EQ(CL_QUE_Insert(&queue, nullptr, CL_QUE_SORTED_AFTER, nullptr, nullptr, by_key),
              uint32_t{CL_QUE_REFUSED});
    EXPECT_EQ(CL_QUE_Insert(&queue, &fresh, CL_QUE_AFTER_ELEMENT, nullptr, nullptr, by_key),
              uint32_t{CL_QUE_BAD_REFERENCE});
    EXPECT_EQ(CL_QUE_Apend(&queue, &second), 0u);
    EXPECT_EQ(CL_QUE_Apend(&queue, &queue), 1u) << "which is nothing to do";
    EXPECT_EQ(CL_QUE_Search(&second, &fresh, "", 0, 0), nullptr) << "nothing is there";
    EXPECT_EQ(CL_QUE_Search(&queue, &foreign, "", 0, 0), CL_QUE_ERROR);
    EXPECT_EQ(CL_QUE_SearchStr(&queue, &fresh, "", offsetof(Element, text)), CL_QUE_ERROR);
    EXPECT_EQ(CL_QUE_BSearch(&queue, &fresh, 0, nullptr, by_key), CL_QUE_ERROR);
    EXPECT_EQ(CL_QUE_BSearch(&queue, &fresh, 4, nullptr, by_key), CL_QUE_ERROR);

    for (const uint32_t flags : {0x30003u, 0x00003u, 0x80020003u}) {
        EXPECT_EQ(CL_QUE_Insert(&queue, &fresh, flags, model[0], nullptr, by_key),
                  uint32_t{CL_QUE_REFUSED});
    }
    uint32_t status = 77;
    EXPECT_EQ(CL_QUE_Enum(&queue, nullptr, 0x3000, &status), nullptr);
    EXPECT_EQ(status, uint32_t{CL_QUE_BAD_DIRECTION});
    EXPECT_EQ(CL_QUE_Enum(&second, &fresh, CL_QUE_FORWARD, &status), nullptr);
    EXPECT_EQ(status, uint32_t{CL_QUE_WALKING});
    expect_equal(queue, model);
    expect_equal(other, {&foreign});
    EXPECT_TRUE(is_zero(fresh.link));
}

TEST_F(Queue, FindsWhatIsSearchedFor) {
    const Model model = fill({10, 20, 20, 30});
    for (size_t i = 0; i < 4; ++i)
        strcpy(model[i]->text, i == 1 ? "one" : "on");
    const int64_t twenty = 20;
    constexpr size_t kKey = offsetof(Element, key);
    constexpr size_t kText = offsetof(Element, text);

    EXPECT_EQ(CL_QUE_Search(&queue, nullptr, &twenty, sizeof twenty, kKey), model[1]);
    EXPECT_EQ(CL_QUE_Search(&queue, model[1], &twenty, sizeof twenty, kKey), model[2]);
    EXPECT_EQ(CL_QUE_Search(&queue, model[2], &twenty, sizeof twenty, kKey), nullptr);
    EXPECT_EQ(CL_QUE_Search(&queue, model[3], &twenty, sizeof twenty, kKey), nullptr);
    EXPECT_EQ(CL_QUE_Search(&queue, nullptr, "on", 2, kText), model[0]) << "a prefix is enough";
    EXPECT_EQ(CL_QUE_SearchStr(&queue, nullptr, "one", kText), model[1]);
    EXPECT_EQ(CL_QUE_SearchStr(&queue, model[0], "on", kText), model[2]);
    EXPECT_EQ(CL_QUE_SearchStr(&queue, nullptr, "o", kText), nullptr);
}

TEST_F(Queue, BorrowsMemoryOnlyForLongQueues) {
    Model model;
    for (size_t i = 0; i < 129; ++i) {
        Plan plan;
        model.push_back(&elements[i]);
        EXPECT_EQ(CL_QUE_Insert(&queue, model[i], CL_QUE_SORTED_UNIQUE, nullptr, nullptr, by_key),
                  0u);
        EXPECT_EQ(plan.count("malloc"), 0) << "with " << i;
    }
    Element fresh{5, {}, "", {}};
    void *work[130];
    const auto all = [&](void **array, bool fails) {
        EXPECT_EQ(CL_QUE_Sort(&queue, array, by_key), fails ? 0u : 1u);
        EXPECT_EQ(CL_QUE_BSearch(&queue, &fresh, CL_QUE_EQUAL, array, by_key),
                  fails ? CL_QUE_ERROR : &elements[5]);
        EXPECT_EQ(CL_QUE_Insert(&queue, &fresh, CL_QUE_SORTED_UNIQUE, nullptr, array, by_key),
                  uint32_t{fails ? CL_QUE_SEARCH_FAILED : CL_QUE_DUPLICATE});
        expect_equal(queue, model);
    };
    {
        Plan plan{{.call = "malloc", .error = ENOMEM, .times = test::kForever}};
        all(nullptr, true);
        EXPECT_EQ(plan.hits(), 3);
        all(work, false);
        EXPECT_EQ(plan.hits(), 3);
    }
    Plan plan;
    all(nullptr, false);
    EXPECT_EQ(plan.count("malloc"), 3);
}

// Two queues of one kind and a pool of elements, some of equal keys, against vectors.
TEST_F(Queue, FollowsItsModel) {
    test::Random random;
    CL_Queue *const queues[] = {&queue, &other};
    Model models[2];
    const auto held = [&](const Element *element) -> int {
        for (int q = 0; q < 2; ++q)
            if (std::count(models[q].begin(), models[q].end(), element) > 0) return q;
        return -1;
    };
    for (int step = 0; step < 20000; ++step) {
        const auto q = random.below(2);
        CL_Queue *target = queues[q];
        Model &model = models[q];
        Element *element = &elements[random.below(random.below(2) == 0 ? 20 : 200)];
        const int holder = held(element);
        const auto place = [&](ptrdiff_t at) { model.insert(model.begin() + at, element); };
        // An element that is held by this queue, to walk from or to insert beside.
        Element *reference =
            model.empty() ? nullptr : model[random.below(static_cast<uint32_t>(model.size()))];
        const bool sorted = std::is_sorted(model.begin(), model.end(), lower_key);
        // Now and then one that need not be.
        Element *beside = random.below(10) == 0 ? &elements[random.below(200)] : reference;
        const bool known = held(beside) == static_cast<int>(q);
        const bool own = holder == static_cast<int>(q);
        switch (random.below(sorted ? 13 : 9)) {
            case 0:
                ASSERT_EQ(CL_QUE_PutTail(target, element), holder < 0 ? 1u : 0u);
                if (holder < 0) place(std::ssize(model));
                break;
            case 1:
                ASSERT_EQ(CL_QUE_GetTop(target), model.empty() ? nullptr : model.front());
                if (!model.empty()) model.erase(model.begin());
                break;
            case 2:
                ASSERT_EQ(CL_QUE_GetData(target, element), own ? element : nullptr);
                std::erase(model, own ? element : nullptr);
                break;
            case 3:
                ASSERT_EQ(CL_QUE_Isinque(target, element), own ? 1u : 0u);
                break;
            case 4: {
                const bool after = random.below(2) == 0;
                const uint32_t flags = after ? CL_QUE_AFTER_ELEMENT : CL_QUE_BEFORE_ELEMENT;
                if (beside == nullptr) break;
                ASSERT_EQ(CL_QUE_Insert(target, element, flags, beside, nullptr, nullptr),
                          uint32_t{holder >= 0 ? CL_QUE_REFUSED
                                   : known     ? CL_QUE_INSERTED
                                               : CL_QUE_BAD_REFERENCE});
                if (holder < 0 && known) {
                    place(std::find(model.begin(), model.end(), beside) - model.begin() +
                          static_cast<long>(after));
                }
                break;
            }
            case 5:
                if (random.below(20) == 0) {
                    ASSERT_EQ(CL_QUE_Apend(target, queues[1 - q]), 1u);
                    model.insert(model.end(), models[1 - q].begin(), models[1 - q].end());
                    models[1 - q].clear();
                } else if (random.below(100) == 0) {
                    ASSERT_EQ(CL_QUE_Clear(target), 0u);
                    model.clear();
                }
                break;
            case 6: {
                uint32_t status = 0;
                const bool forward = random.below(2) == 0;
                const auto next = std::find(model.begin(), model.end(), beside) - model.begin() +
                                  (forward ? 1 : -1);
                if (beside == nullptr) break;
                ASSERT_EQ(CL_QUE_Enum(target, beside, forward ? CL_QUE_FORWARD : CL_QUE_BACKWARD,
                                      &status),
                          known && next >= 0 && next < std::ssize(model)
                              ? model[static_cast<size_t>(next)]
                              : nullptr);
                ASSERT_EQ(status,
                          uint32_t{known || model.empty() ? CL_QUE_WALKING : CL_QUE_NOT_HELD});
                break;
            }
            case 7:
                if (holder < 0) element->key = random.below(40);
                break;
            case 8: {
                ASSERT_EQ(CL_QUE_Sort(target, nullptr, by_key), 1u);
                // The order of equal elements is the queue's choice: take it over.
                Model now;
                for (void *e = target->head; e != nullptr; e = now.back()->link.next)
                    now.push_back(static_cast<Element *>(e));
                ASSERT_TRUE(
                    std::is_permutation(now.begin(), now.end(), model.begin(), model.end()));
                ASSERT_TRUE(std::is_sorted(now.begin(), now.end(), lower_key));
                model = now;
                break;
            }
            case 9: {
                const int mode = static_cast<int>(random.below(3)) + 1;
                ASSERT_EQ(CL_QUE_BSearch(target, element, mode, nullptr, by_key),
                          search(model, element->key, mode));
                break;
            }
            default: {
                const uint32_t flags = CL_QUE_SORTED_BEFORE + random.below(3);
                Element *equal = search(model, element->key, CL_QUE_EQUAL);
                const Element *lower = search(model, element->key, CL_QUE_EQUAL_OR_LOWER);
                const bool twice = flags == CL_QUE_SORTED_UNIQUE && equal != nullptr;
                ASSERT_EQ(CL_QUE_Insert(target, element, flags, nullptr, nullptr, by_key),
                          uint32_t{holder >= 0 ? CL_QUE_REFUSED
                                   : twice     ? CL_QUE_DUPLICATE
                                               : CL_QUE_INSERTED});
                if (holder >= 0 || twice) break;
                const auto found = std::find(model.begin(), model.end(), lower) - model.begin();
                const bool before = equal != nullptr && flags == CL_QUE_SORTED_BEFORE;
                place(lower == nullptr ? 0 : found + (before ? 0 : 1));
            }
        }
        ASSERT_NO_FATAL_FAILURE(expect_equal(*target, model)) << "step " << step;
        ASSERT_NO_FATAL_FAILURE(expect_equal(*queues[1 - q], models[1 - q])) << "step " << step;
        ASSERT_TRUE(held(element) >= 0 || is_zero(element->link)) << "step " << step;
    }
}

}  // namespace
