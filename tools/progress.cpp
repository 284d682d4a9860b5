#include "tools/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace trace_reader {

namespace {

constexpr int64_t kPatience = 1000, kInterval = 200;  // milliseconds

int64_t milliseconds() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

}  // namespace

int64_t Progress::patience_ends_ = 0;

void Progress::begin_command() {
    patience_ends_ = milliseconds() + kPatience;
}

Progress::Progress(std::string_view what, uint64_t total, bool prints)
    : what_(what),
      total_(std::max<uint64_t>(total, 1)),
      shown_(patience_ends_ != 0 && isatty(STDERR_FILENO) != 0 &&
             !(prints && isatty(STDOUT_FILENO) != 0)),
      next_(patience_ends_) {}

Progress::~Progress() {
    if (told_) fputs("\r\33[K", stderr);
}

void Progress::tell(uint64_t done) {
    const int64_t time = milliseconds();
    if (time < next_) return;
    next_ = time + kInterval;
    told_ = true;
    const double share = static_cast<double>(done) / static_cast<double>(total_);
    fprintf(stderr, "\rqvcl-trace: %.*s: %.0f %%\33[K", static_cast<int>(what_.size()),
            what_.data(), std::min(share, 1.) * 100);
    fflush(stderr);
}

}  // namespace trace_reader
