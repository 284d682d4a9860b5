// qvcl for C++: tracked memory (memory.h) for containers of the standard library.
//
//     TrackedMemory memory;
//     std::pmr::vector<Job> jobs(&memory);
//
// A memory resource does not learn who calls it, so the blocks have the position where it was made.
#pragma once

#include <qvcl/memory.h>
#include <qvcl/cpp/result.hpp>

#include <cstddef>
#include <memory_resource>
#include <new>

namespace qvcl {
inline namespace cpp {

/// Tracked memory of the application as a memory resource. What is left at the end is in the leak
/// report, at the position where the resource was made.
class TrackedMemory final : public std::pmr::memory_resource {
  public:
    /// Blocks have the caller's position.
    explicit TrackedMemory(Location at = {}) : at_(at) {}

  private:
    // A block aligned as asked for has, right in front, the address of the block that it lies in.
    void *do_allocate(size_t size, size_t alignment) override {
        const size_t extra = alignment > kAligned ? alignment + sizeof(void *) : 0;
        void *block = size > SIZE_MAX / 2 - extra ? nullptr
                                                  : CL_malloc_M(size + extra + (size == 0 ? 1 : 0),
                                                                0, at_.file(), at_.line());
        if (block == nullptr) fail();
        if (extra == 0) return block;
        const uintptr_t address = reinterpret_cast<uintptr_t>(block) + sizeof(void *);
        auto *aligned = reinterpret_cast<void **>((address + alignment - 1) & ~(alignment - 1));
        aligned[-1] = block;
        return aligned;
    }
    void do_deallocate(void *block, size_t /*size*/, size_t alignment) override {
        if (alignment > kAligned) block = static_cast<void **>(block)[-1];
        CL_free_M(block, 0, at_.file(), at_.line());
    }
    bool do_is_equal(const memory_resource &other) const noexcept override {
        return this == &other;
    }
    [[noreturn]] static void fail() {
#if QVCL_EXCEPTIONS
        throw std::bad_alloc();
#else
        raise(detail::failure("CL_malloc", ENOMEM));
#endif
    }

    static constexpr size_t kAligned = 16;  // of every block

    Location at_;
};

}  // namespace cpp
}  // namespace qvcl
