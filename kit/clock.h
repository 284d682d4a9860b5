// Clocks that stand, are ahead, or are virtual, and the waits that make virtual time pass.
#pragma once

#include <ctime>

#include "kit/page.h"

namespace kit {

// The library's clocks stand at these times; negative seconds: they go.
struct Standing {
    int64_t uptime = -1;
    int64_t seconds = -1;
    int64_t microseconds = 0;
};
extern Standing standing;

void begin_clock(Page::Clock &clock, ClockMode mode, int64_t ahead, uint64_t settle);

void note_sleep(const timespec &asked);  // of the library

bool virtual_time();
bool other_time();  // clocks are not the real ones

}  // namespace kit
