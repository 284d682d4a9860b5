// The bytes of a dump: a file that is read only where it is needed, or memory.
#pragma once

#include <string>
#include <vector>

#include "tools/text.h"

namespace trace_reader {

class Source {
  public:
    explicit Source(Bytes bytes) : memory_(bytes), total_(bytes.size()) {}
    explicit Source(const char *path);  // "-": standard input
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;
    ~Source();

    const std::string &error() const { return failure_; }  // why it could not be opened, or empty
    uint64_t size() const { return total_; }
    // When the file was written last, in microseconds since the epoch; 0 when it is no file.
    uint64_t modified() const { return modified_; }
    // Reads at most `length` bytes at `offset` and returns how many there were: fewer at the end,
    // or when the file has shrunk meanwhile.
    uint64_t read(uint64_t offset, void *to, uint64_t length) const;

  private:
    void slurp();

    int fd_ = -1;
    std::vector<uint8_t> held_;  // all that came through a pipe
    Bytes memory_;               // the dump when there is no file to read from
    uint64_t total_ = 0;
    uint64_t modified_ = 0;
    std::string failure_;
};

}  // namespace trace_reader
