// Sorted insertions one after another: each of them searches the same array, which a single
// insertion would have to make anew.
#pragma once

#include <qvcl/queue.h>

namespace qvcl {

inline constexpr uint32_t kStackElements = 128;  // longer queues borrow library memory for a search

// Nobody else changes the queue between two insertions.
class SortedRun {
  public:
    SortedRun() = default;  // of no queue yet
    // array: of `room` pointers, the run's own for its whole life. A queue that has no room in it
    // is inserted into as by CL_QUE_Insert without a work array.
    SortedRun(CL_Queue *queue, void **array, uint32_t room);

    // CL_QUE_Insert with sorted flags.
    uint32_t insert(void *element, uint32_t flags, CL_Comparator compare);

  private:
    CL_Queue *queue_ = nullptr;
    void **array_ = nullptr;
    uint32_t room_ = 0;
    uint32_t count_ = 0;
};

}  // namespace qvcl
