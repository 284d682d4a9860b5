// A command that takes longer than a second says how far it is: one line on standard error, only
// when that is a terminal, which is cleared again.
#pragma once

#include <cstdint>
#include <string_view>

namespace trace_reader {

class Progress {
  public:
    static void begin_command();  // those that never do, as they go on for ever, stay silent

    // `what` is to be done in so many steps. With `prints` it writes to standard output meanwhile:
    // where that is a terminal, its lines are progress enough.
    Progress(std::string_view what, uint64_t total, bool prints = false);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void at(uint64_t done) {
        if (shown_ && (++calls_ & kMask) == 0) tell(done);
    }

  private:
    static int64_t patience_ends_;           // in milliseconds; 0: never
    static constexpr uint64_t kMask = 1023;  // a clock is read so seldom
    void tell(uint64_t done);

    std::string_view what_;
    uint64_t total_;
    bool shown_;
    uint64_t calls_ = 0;
    int64_t next_ = 0;  // when to tell next, in milliseconds
    bool told_ = false;
};

}  // namespace trace_reader
