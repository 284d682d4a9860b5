// Apart from the clock, because qvcl-kit itself starts one and has no stand-ins.
#include <sys/syscall.h>
#include <unistd.h>

#include "kit/clock.h"

namespace kit {

namespace {

int64_t real_clock(clockid_t clock) {
    timespec time{};
    syscall(SYS_clock_gettime, clock, &time);
    return time.tv_sec * 1'000'000 + time.tv_nsec / 1000;
}

}  // namespace

void begin_clock(Page::Clock &clock, ClockMode mode, int64_t ahead, uint64_t settle) {
    clock.ahead = ahead;
    clock.settle = settle;
    clock.monotonic = real_clock(CLOCK_MONOTONIC);
    clock.real = real_clock(CLOCK_REALTIME);
    clock.turn = 1;
    clock.mode = mode;
}

}  // namespace kit
