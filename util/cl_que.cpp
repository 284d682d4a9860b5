// The queue container: an intrusive doubly linked list.
//
// The rule that everything here keeps: a link that is in no queue is all zero, and a link's owner
// says which queue holds the element. Membership is therefore one comparison, and removing a known
// element needs no search.
#include <cstdlib>

#include <qvcl/memory.h>

#include "util/sorted_run.h"

namespace {

using qvcl::kStackElements;

CL_QueueLink *link_at(const void *element, uint32_t offset) {
    return reinterpret_cast<CL_QueueLink *>(const_cast<char *>(static_cast<const char *>(element)) +
                                            offset);
}

CL_QueueLink *link_of(const CL_Queue *queue, const void *element) {
    return link_at(element, queue->link_offset);
}

bool holds(const CL_Queue *queue, const void *element) {
    return element != nullptr && link_of(queue, element)->owner == queue;
}

// Links a free element between two neighbours, either of which may be the queue's end (null).
void link_between(CL_Queue *queue, void *element, void *previous, void *next) {
    const uint32_t offset = queue->link_offset;
    *link_at(element, offset) = {next, previous, queue};
    (previous != nullptr ? link_at(previous, offset)->next : queue->head) = element;
    (next != nullptr ? link_at(next, offset)->previous : queue->tail) = element;
    ++queue->count;
}

void *unlink(CL_Queue *queue, void *element) {
    const uint32_t offset = queue->link_offset;
    CL_QueueLink *link = link_at(element, offset);
    void *const next = link->next;
    void *const previous = link->previous;
    (previous != nullptr ? link_at(previous, offset)->next : queue->head) = next;
    (next != nullptr ? link_at(next, offset)->previous : queue->tail) = previous;
    --queue->count;
    *link = {};
    return element;
}

// The array of element pointers that a search or sort works on: the caller's, the stack's or
// borrowed.
class WorkArray {
  public:
    WorkArray(void **given, uint32_t count) : array_(given) {
        if (array_ != nullptr) return;
        array_ = stack_;
        if (count <= kStackElements) return;
        borrowed_ = CL_malloc_M(uint64_t{count} * sizeof(void *), 1, "cl_que.c", __LINE__);
        array_ = static_cast<void **>(borrowed_);
    }
    ~WorkArray() {
        if (borrowed_ != nullptr) CL_free_M(borrowed_, 1, "cl_que.c", __LINE__);
    }
    WorkArray(const WorkArray &) = delete;
    WorkArray &operator=(const WorkArray &) = delete;

    void **get() const { return array_; }

  private:
    void **array_;
    void *borrowed_ = nullptr;
    void *stack_[kStackElements];
};

// The element after `start` that `equal` accepts; what both linear searches do.
template <class Equal>
void *search(const CL_Queue *queue, const void *start, Equal equal) {
    if (queue->head == nullptr) return nullptr;
    if (start != nullptr && !holds(queue, start)) return CL_QUE_ERROR;
    void *element = start != nullptr ? link_of(queue, start)->next : queue->head;
    while (element != nullptr && !equal(element))
        element = link_of(queue, element)->next;
    return element;
}

uint32_t insert_relative(CL_Queue *queue, void *element, void *reference, bool after) {
    if (!holds(queue, reference)) return CL_QUE_BAD_REFERENCE;
    const CL_QueueLink *link = link_of(queue, reference);
    if (after) {
        link_between(queue, element, reference, link->next);
    } else {
        link_between(queue, element, link->previous, reference);
    }
    return CL_QUE_INSERTED;
}

// The elements in order, which is what a binary search looks at. `array` has room for all of them.
uint32_t fill(void **array, const CL_Queue *queue) {
    uint32_t count = 0;
    for (void *e = queue->head; e != nullptr; e = link_of(queue, e)->next)
        array[count++] = e;
    return count;
}

constexpr uint32_t kNowhere = UINT32_MAX;

// The place in the array of the element that the mode asks for. With several equal elements it is
// the one that this sequence of midpoints meets first.
uint32_t binary_search(void **array, uint32_t count, const void *key, int32_t mode,
                       CL_Comparator compare) {
    // Elements before `low` are lower than the key, those from `end` on higher.
    uint32_t low = 0;
    uint32_t end = count;
    while (low < end) {
        const uint32_t mid = low + (end - 1 - low) / 2;
        const int order = compare(&key, &array[mid]);
        if (order == 0) return mid;
        if (order < 0) {
            end = mid;
        } else {
            low = mid + 1;
        }
    }
    switch (mode) {
        case CL_QUE_EQUAL_OR_LOWER:
            return low != 0 ? low - 1 : kNowhere;
        case CL_QUE_EQUAL_OR_HIGHER:
            return low != count ? low : kNowhere;
        default:
            return kNowhere;
    }
}

// Inserts into a queue whose `count` elements are in the array. *place receives the place that the
// element would have in there.
uint32_t insert_sorted(CL_Queue *queue, void *element, uint32_t flags, void **array, uint32_t count,
                       CL_Comparator compare, uint32_t *place) {
    const uint32_t lower = binary_search(array, count, element, CL_QUE_EQUAL_OR_LOWER, compare);
    if (lower == kNowhere) {
        link_between(queue, element, nullptr, queue->head);
        *place = 0;
        return CL_QUE_INSERTED;
    }
    const bool equal = compare(&element, &array[lower]) == 0;
    if (equal && flags == CL_QUE_SORTED_UNIQUE) return CL_QUE_DUPLICATE;
    const bool after = !equal || flags == CL_QUE_SORTED_AFTER;
    *place = after ? lower + 1 : lower;
    return insert_relative(queue, element, array[lower], after);
}

bool insertable(const CL_Queue *queue, const void *element) {
    return element != nullptr && link_of(queue, element)->owner == nullptr;
}

}  // namespace

void CL_QUE_InitQT(CL_Queue *queue, uint32_t link_offset) {
    *queue = {nullptr, nullptr, 0, link_offset};
}

uint32_t CL_QUE_GetNum(const CL_Queue *queue) {
    return queue->count;
}

uint32_t CL_QUE_PutTail(CL_Queue *queue, void *element) {
    if (element == nullptr || link_of(queue, element)->owner != nullptr) return 0;
    link_between(queue, element, queue->tail, nullptr);
    return 1;
}

void *CL_QUE_GetTop(CL_Queue *queue) {
    return queue->head != nullptr ? unlink(queue, queue->head) : nullptr;
}

void *CL_QUE_GetData(CL_Queue *queue, void *element) {
    return holds(queue, element) ? unlink(queue, element) : nullptr;
}

uint32_t CL_QUE_Isinque(const CL_Queue *queue, const void *element) {
    return queue->count != 0 && holds(queue, element) ? 1 : 0;
}

void *CL_QUE_Enum(const CL_Queue *queue, const void *element, uint32_t direction,
                  uint32_t *status) {
    *status = CL_QUE_WALKING;
    if (direction != CL_QUE_FORWARD && direction != CL_QUE_BACKWARD) {
        *status = CL_QUE_BAD_DIRECTION;
        return nullptr;
    }
    const bool forward = direction == CL_QUE_FORWARD;
    if (element == nullptr) return forward ? queue->head : queue->tail;
    if (queue->head == nullptr) return nullptr;
    if (!holds(queue, element)) {
        *status = CL_QUE_NOT_HELD;
        return nullptr;
    }
    const CL_QueueLink *link = link_of(queue, element);
    return forward ? link->next : link->previous;
}

void *CL_QUE_Search(const CL_Queue *queue, const void *start, const void *key, uint64_t key_length,
                    uint64_t key_offset) {
    return search(queue, start, [=](const void *element) {
        return memcmp(key, static_cast<const char *>(element) + key_offset, key_length) == 0;
    });
}

void *CL_QUE_SearchStr(const CL_Queue *queue, const void *start, const char *key,
                       uint64_t key_offset) {
    return search(queue, start, [=](const void *element) {
        return strcmp(key, static_cast<const char *>(element) + key_offset) == 0;
    });
}

uint32_t CL_QUE_Sort(CL_Queue *queue, void **work, CL_Comparator compare) {
    const uint32_t count = queue->count;
    if (count < 2) return 1;
    const WorkArray array(work, count);
    if (array.get() == nullptr) return 0;
    for (uint32_t i = 0; i < count; ++i)
        array.get()[i] = CL_QUE_GetTop(queue);
    qsort(array.get(), count, sizeof(void *), compare);
    for (uint32_t i = 0; i < count; ++i)
        CL_QUE_PutTail(queue, array.get()[i]);
    return 1;
}

void *CL_QUE_BSearch(const CL_Queue *queue, const void *key, int32_t mode, void **work,
                     CL_Comparator compare) {
    if (queue->head == nullptr) return nullptr;
    if (mode < CL_QUE_EQUAL || mode > CL_QUE_EQUAL_OR_HIGHER) return CL_QUE_ERROR;
    const WorkArray array(work, queue->count);
    if (array.get() == nullptr) return CL_QUE_ERROR;
    const uint32_t count = fill(array.get(), queue);
    const uint32_t place = binary_search(array.get(), count, key, mode, compare);
    return place != kNowhere ? array.get()[place] : nullptr;
}

uint32_t CL_QUE_Insert(CL_Queue *queue, void *element, uint32_t flags, void *reference, void **work,
                       CL_Comparator compare) {
    if (!insertable(queue, element)) return CL_QUE_REFUSED;
    switch (flags) {
        case CL_QUE_BEFORE_ELEMENT:
        case CL_QUE_AFTER_ELEMENT:
            return insert_relative(queue, element, reference, flags == CL_QUE_AFTER_ELEMENT);
        case CL_QUE_SORTED_BEFORE:
        case CL_QUE_SORTED_AFTER:
        case CL_QUE_SORTED_UNIQUE: {
            const WorkArray array(work, queue->count);
            if (array.get() == nullptr) return CL_QUE_SEARCH_FAILED;
            uint32_t place;
            return insert_sorted(queue, element, flags, array.get(), fill(array.get(), queue),
                                 compare, &place);
        }
        default:
            return CL_QUE_REFUSED;
    }
}

qvcl::SortedRun::SortedRun(CL_Queue *queue, void **array, uint32_t room)
    : queue_(queue), array_(array), room_(room) {
    if (queue->count < room_) count_ = fill(array, queue);
}

uint32_t qvcl::SortedRun::insert(void *element, uint32_t flags, CL_Comparator compare) {
    if (queue_->count >= room_) {
        return CL_QUE_Insert(queue_, element, flags, nullptr, nullptr, compare);
    }
    if (!insertable(queue_, element)) return CL_QUE_REFUSED;
    uint32_t place;
    const uint32_t result = insert_sorted(queue_, element, flags, array_, count_, compare, &place);
    if (result != CL_QUE_INSERTED) return result;
    memmove(&array_[place + 1], &array_[place], (count_ - place) * sizeof *array_);
    array_[place] = element;
    ++count_;
    return result;
}

uint32_t CL_QUE_Apend(CL_Queue *destination, CL_Queue *source) {
    if (destination->link_offset != source->link_offset) return 0;
    if (source->head == nullptr || source == destination) return 1;
    for (void *e = source->head; e != nullptr; e = link_of(source, e)->next) {
        link_of(source, e)->owner = destination;
    }
    link_of(source, source->head)->previous = destination->tail;
    (destination->tail != nullptr ? link_of(destination, destination->tail)->next
                                  : destination->head) = source->head;
    destination->tail = source->tail;
    destination->count += source->count;
    CL_QUE_InitQT(source, source->link_offset);
    return 1;
}

uint32_t CL_QUE_Clear(CL_Queue *queue) {
    while (CL_QUE_GetTop(queue) != nullptr) {
    }
    return 0;
}

CL_Queue *CL_QUE_GetQT(const void *link) {
    return static_cast<const CL_QueueLink *>(link)->owner;
}
