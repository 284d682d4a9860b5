// The fields that signal handlers write: lock-free atomics, so that the loop reads and resets them
// without a system call and loses no signal between the two.
#pragma once

#include <stdint.h>

namespace qvcl {

static_assert(__atomic_always_lock_free(sizeof(uint64_t), nullptr), "a handler must not wait");

// Reads and resets a field. The plain load keeps the common case, nothing there, off the bus.
template <class Field>
Field take(Field &field) {
    if (__atomic_load_n(&field, __ATOMIC_RELAXED) == 0) return 0;
    return __atomic_exchange_n(&field, Field{0}, __ATOMIC_ACQ_REL);
}

template <class Field>
void raise_flag(Field &field) {
    __atomic_store_n(&field, Field{1}, __ATOMIC_RELEASE);
}

}  // namespace qvcl
