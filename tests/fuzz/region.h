// A piece of memory in the corpus of memory_fuzz; its bytes follow.
#pragma once

#include <cstdint>

namespace test {

struct Region {
    uint64_t begin, size, flags, offset;
};
enum : uint64_t { kWritable = 1, kFile = 2 };

}  // namespace test
