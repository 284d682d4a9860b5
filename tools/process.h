// A live process: its memory, read without its help and, unless it is held, while it runs on.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <vector>

#include "tools/memory.h"

namespace trace_reader {

class Process final : public Memory {
  public:
    explicit Process(pid_t pid);

    // Why it cannot be read, or cannot any more, in one line; empty while all is well.
    std::string failure() const;
    pid_t pid() const { return pid_; }
    const std::string &command() const { return command_; }

    uint64_t read(uint64_t address, void *to, uint64_t length) const override;
    const std::vector<Mapping> &mappings() const override { return mappings_; }
    void look_again();  // at what is mapped

    // Whether no thread of it is running, or about to.
    bool rests() const;
    uint64_t used() const;  // microseconds of processor time

  private:
    std::string refusal() const;
    std::string open();

    pid_t pid_;
    std::string failure_;
    uint64_t start_ = 0;  // when it began: another process of the same number has another
    std::string command_;
    std::vector<Mapping> mappings_;
};

// Stops all threads of a process for as long as it lives. When this process dies meanwhile, the
// kernel lets them go on.
class Hold {
  public:
    explicit Hold(pid_t pid);
    ~Hold();
    Hold(const Hold &) = delete;
    Hold &operator=(const Hold &) = delete;

    const std::string &failure() const { return failure_; }  // empty: all of them are stopped

  private:
    struct Thread {
        pid_t id;
        bool stopped;
        int signal;  // that it was about to get
    };
    bool seize(pid_t thread);
    void wait(Thread &thread);

    std::chrono::steady_clock::time_point until_;
    std::vector<Thread> threads_;
    std::string failure_;
};

uint64_t now();  // microseconds since the epoch

}  // namespace trace_reader
