// Descriptor sets as machine words, so that a set is gone through 64 descriptors at a time.
#pragma once

#include <cstdint>

#include <qvcl/event.h>

namespace qvcl {

inline constexpr uint32_t kWordBits = 64;
inline constexpr uint32_t kSetWords = FD_SETSIZE / kWordBits;
static_assert(sizeof(fd_set) == kSetWords * sizeof(uint64_t));

// The sets in the order of CL_Watch's bits.
inline constexpr fd_set CL_FdSets::*kSets[] = {&CL_FdSets::read, &CL_FdSets::write,
                                               &CL_FdSets::except};

// A set as machine words; its own are the signed ones of this type.
inline uint64_t *words(fd_set &set) {
    return reinterpret_cast<uint64_t *>(&set);
}
inline const uint64_t *words(const fd_set &set) {
    return reinterpret_cast<const uint64_t *>(&set);
}

// Where a descriptor from 0 to FD_SETSIZE - 1 is in a set.
inline uint32_t word_of(uint32_t descriptor) {
    return descriptor / kWordBits;
}
inline uint64_t bit_of(uint32_t descriptor) {
    return uint64_t{1} << descriptor % kWordBits;
}

}  // namespace qvcl
