// What each object keeps in brief of the descriptors that it added to the loop's sets: the loop
// passes by an object none of whose descriptors is ready on that alone.
#pragma once

#include <qvcl/main.h>

#include "core/fd_sets.h"

namespace qvcl {

inline bool in_one_word(const CL_Watch &watch) {
    return watch.end_word == watch.first_word + 1;
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

// Whether a descriptor of the object may be ready. False: none is. True: its check finds out; for
// an object with descriptors in several words that is always the answer.
inline bool may_be_ready(const CL_Watch &watch, const CL_FdSets &ready) {
    uint64_t any = watch.end_word > watch.first_word + 1 ? 1 : 0;
    for (uint32_t s = 0; s < 3; ++s)
        any |= words(ready.*kSets[s])[watch.first_word] & watch.bits[s];
    return any != 0;
}

}  // namespace qvcl
