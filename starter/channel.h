// What channels and their listeners share: handles, and turns.
//
// A turn is a callback of the nest's that ends in finish_turn(): there every channel that has
// something to write, or to tell its application, gets to it once. What does so outside of a turn
// makes the nest's timer of ours give one.
//
// A callback may delete anything, the nest included. Whoever calls one looks at nothing afterwards
// before gone() has told that it is still there. The memory of what is deleted in a turn is
// released at its end, so that also the message of the call stays valid.
#pragma once

#include <qvcl/channel.h>

#include "starter/nest.h"

namespace qvcl::channel {

// Two kinds of entries in a table of handles of our own.
inline constexpr auto kChannel = static_cast<nest::Kind>(nest::kKinds + 1);
inline constexpr auto kListener = static_cast<nest::Kind>(nest::kKinds + 2);

struct Link {
    Link *previous;
    Link *next;  // null: on no list
};

// What a handle stands for.
struct Member {
    Link link;             // first, so that a link on the list of those that are due is its channel
    nest::Handle *handle;  // null: deleted
    uint64_t nests;        // nests that were deleted before its own was made
    CL_NestWatch *watch;
    CL_NestTimer *timer;
    int fd;  // -1: none, nor a watch or a timer
    uint64_t arg1;
    uint64_t arg2;
    Member *next_gone;
};

// Whether it was deleted, or its nest.
inline bool gone(const Member &member) {
    return member.handle == nullptr || member.nests != nest::deleted;
}

// Makes a zeroed member of `size` bytes, with a handle. Null with err filled.
Member *make_member(const Failure &told, nest::Kind kind, size_t size, CL_ErrInfo *err,
                    const char *file, uint32_t line);
// Closes its descriptor and deletes its watch and its timer.
void release(Member &member);
void delete_member(Member &member);

// The member behind a public handle, or null with err filled; also without its nest.
Member *any_member(const Failure &told, const void *handle, nest::Kind kind, CL_ErrInfo *err,
                   uint32_t line = __builtin_LINE());
// The same where the nest is there.
Member *live_member(const Failure &told, const void *handle, nest::Kind kind, CL_ErrInfo *err,
                    uint32_t line = __builtin_LINE());

void begin_turn();
// The result of the turn: 0, or what a callback ended the loop with.
uint32_t finish_turn(uint32_t result);

inline nest::Told told(const Member &member, uint32_t type, void (*callback)()) {
    return {*nest::current, type, *member.handle, {0, callback, member.arg1, member.arg2}};
}

}  // namespace qvcl::channel
