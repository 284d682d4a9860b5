// What the loop remembers of the listed objects, so that an iteration costs what is ready and not
// what is listed.
//
// Each object keeps in brief which descriptors it added to the sets: one whose descriptors are not
// ready is passed by on that alone. And the order of the priority list stands in the insertion
// scratch array as long as nothing has changed: no object was listed or unlisted, changed its
// status or got other sets. While the order is known, the sets of the last iteration are those of
// the next. The array's first place is null when the order is not known; whatever changes an object
// forgets it.
#pragma once

#include <qvcl/main.h>

#include "core/fd_sets.h"

namespace qvcl {

inline bool in_one_word(const CL_Watch &watch) {
    return watch.end_word == watch.first_word + 1;
}

// The loop's sets as the objects made them, and how the wait is given them: an empty set is left
// out, because the kernel takes as long over it as over a full one.
struct BuiltSets {
    CL_FdSets sets;
    fd_set *given[3];
};

inline BuiltSets built_sets() {
    CL_FdSets &sets = CL_MainTable->sets;
    BuiltSets built = {sets, {}};
    for (uint32_t s = 0; s < 3; ++s) {
        uint64_t any = 0;
        for (uint32_t w = 0; w < kSetWords; ++w)
            any |= words(sets.*kSets[s])[w];
        if (any != 0) built.given[s] = &(sets.*kSets[s]);
    }
    return built;
}

// Adds one descriptor to the loop's sets, and to what is remembered of the object: it may be found
// ready in either direction, because another object may watch the same descriptor.
inline void watch_descriptor(CL_Object *object, bool reading, bool writing) {
    CL_MainBlock &main = *CL_MainTable;
    const auto descriptor = static_cast<uint32_t>(object->descriptor);
    const uint32_t word = word_of(descriptor);
    const uint64_t bit = bit_of(descriptor);
    object->watch = {word, word + 1, {bit, bit, 0}};
    if (reading) words(main.sets.read)[word] |= bit;
    if (writing) words(main.sets.write)[word] |= bit;
    if ((reading || writing) && main.descriptor_count <= object->descriptor) {
        main.descriptor_count = object->descriptor + 1;
    }
}

// Whether a descriptor of the object may be ready: no is exact. Descriptors in several words always
// may.
inline bool may_be_ready(const CL_Watch &watch, const CL_FdSets &ready) {
    uint64_t any = watch.end_word > watch.first_word + 1;
    for (uint32_t s = 0; s < 3; ++s)
        any |= words(ready.*kSets[s])[watch.first_word] & watch.bits[s];
    return any != 0;
}

inline bool order_known() {
    return CL_MainTable->scratch != nullptr && CL_MainTable->scratch[0] != nullptr;
}

inline void forget_order() {
    if (CL_MainTable->scratch != nullptr) CL_MainTable->scratch[0] = nullptr;
}

}  // namespace qvcl
