// The bytes of a dump: a file that is read only where it is needed, or memory.
#pragma once

#include <string>
#include <vector>

#include "tools/text.h"

namespace trace_reader {

class Source {
  public:
    explicit Source(Bytes bytes) : memory(bytes), total(bytes.size()) {}
    explicit Source(const char *path);  // "-": standard input
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;
    ~Source();

    const std::string &error() const { return failure; }  // why it could not be opened, or empty
    uint64_t size() const { return total; }
    // The number of bytes that there were. A file that shrinks meanwhile gives fewer.
    uint64_t read(uint64_t offset, void *to, uint64_t length) const;

  private:
    void slurp();

    int fd = -1;
    std::vector<uint8_t> held;  // what came through a pipe
    Bytes memory;
    uint64_t total = 0;
    std::string failure;
};

}  // namespace trace_reader
