// What the loop knows of the priority list, so that an iteration costs what is ready and not what
// is listed.
//
// Asking every listed object for its descriptors and walking the list behind the wait touch every
// object twice. In a daemon at rest that says the same each time. So the loop keeps, of the
// iteration in which it asked, the objects in their order and the sets that they made; as long as
// nothing has changed the next iteration begins with those sets, and passes by whoever is not ready
// along an array instead of along links.
//
// The invariant: while known(),
//
//     at(1) ... at(count()) are the objects of the priority list, from head to tail;
//     the sets kept are what each of them would add if it were asked now.
//
// Who keeps it. It is learnt in one place: the loop's own iteration, when the objects are asked
// (make_sets). It is forgotten by whatever changes an object or the sets: every change of status
// (listing, unlisting, deletion, a receive or send that begins or ends), other sets of an FD
// object, sets that are cleared. And known() compares it with the list each time, because an
// application can reach the queue and put an object on it by itself: head, tail and length must be
// those of the order. A callback may do all that in the midst of a walk; so the loop asks known()
// after each callback, and goes on along the list itself from where it is.
//
// Where it is kept. The order stands in the main table's insertion scratch array, which is idle but
// for the moments in which pending objects join; everything else is the loop's, on its stack. The
// array's first place does not hold the first object but a mark, the address of the KnownOrder
// whose order it is. So forgetting is one store, from anywhere; whoever uses the array for
// something else, an insertion or a loop that a callback entered, overwrites the mark and makes it
// forgotten; and no loop takes the order of another for its own.
#pragma once

#include <qvcl/main.h>

#include "core/fd_sets.h"

namespace qvcl {

// The objects of the list, their order, or what they add to the sets may be other than the loop
// knows.
inline void forget_order() {
    if (CL_MainTable->scratch != nullptr) CL_MainTable->scratch[0] = nullptr;
}

class KnownOrder {
  public:
    KnownOrder() { forget_order(); }
    ~KnownOrder() { forget_order(); }
    KnownOrder(const KnownOrder &) = delete;
    KnownOrder &operator=(const KnownOrder &) = delete;

    bool known() const {
        const CL_Queue &list = CL_MainTable->priority_list;
        return places_ != nullptr && places_[0] == mark() && list.count == count_ &&
               (count_ == 0 || (list.head == places_[1] && list.tail == places_[count_]));
    }

    // To be read while known().
    uint32_t count() const { return count_; }
    CL_Object *at(uint32_t place) const { return places_[place]; }  // 1 to count()

    // Learning: begin, then each object of the list as it is asked, then the sets that they made.
    void begin() {
        forget_order();
        places_ = CL_MainTable->scratch;
        size_ = CL_MainTable->capacity;  // 0 as long as there is no array
        count_ = 0;
    }
    void add(CL_Object *object) {
        if (++count_ < size_) places_[count_] = object;
    }
    void conclude() {
        sets_ = CL_MainTable->sets;
        for (uint32_t s = 0; s < 3; ++s)
            watched_[s] = any_in(sets_.*kSets[s]);
        // An order as long as the array leaves no place for the mark: it is asked anew each time.
        if (count_ < size_) places_[0] = mark();
    }

    // Makes the sets again that the objects made when they were asked.
    void repeat_sets() const { CL_MainTable->sets = sets_; }

    // The i-th of the loop's sets as the wait is to be given it: an empty one is left out, because
    // the kernel takes as long over it as over a full one.
    fd_set *for_wait(uint32_t i) const {
        return watched_[i] ? &(CL_MainTable->sets.*kSets[i]) : nullptr;
    }

  private:
    // No object has this address, so nothing but a mark compares equal to it.
    CL_Object *mark() const {
        return reinterpret_cast<CL_Object *>(const_cast<KnownOrder *>(this));
    }
    static bool any_in(const fd_set &set) {
        uint64_t any = 0;
        for (uint32_t w = 0; w < kSetWords; ++w)
            any |= words(set)[w];
        return any != 0;
    }

    CL_Object **places_ = nullptr;  // the array, of size_ places
    uint32_t size_ = 0;
    uint32_t count_ = 0;
    bool watched_[3] = {};
    CL_FdSets sets_ = {};
};

// Builds the loop's sets from the listed objects, and notes their order unless `order` is null. 0,
// or the value that ends the loop.
uint32_t make_sets(KnownOrder *order, CL_ErrInfo *err);

}  // namespace qvcl
