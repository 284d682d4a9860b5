// What everybody owes the loop who takes the timers' ticks in its place.
#pragma once

namespace qvcl {

// When a timer is due, makes the loop's next look find it.
void leave_tick();

}  // namespace qvcl
