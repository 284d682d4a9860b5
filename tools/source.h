// The bytes of a dump: a file that is read only where it is needed, or memory; that of a process or
// of a core file, too, which is laid out as a dump.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "tools/text.h"

namespace trace_reader {

// What besides its name is said of a place to read from.
struct Access {
    bool stop = false;  // a live process, for the moment of reading
    std::string exe;    // the executable of a core file; empty: as the core says
};

// The number in "pid:N".
std::optional<pid_t> process_of(std::string_view name);

class Source {
  public:
    explicit Source(Bytes bytes) : memory_(bytes), total_(bytes.size()) {}
    // "-": standard input; "pid:N": a live process; else a dump or a core file.
    explicit Source(const char *name, const Access &access = {});
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
    void open(const char *path);
    void slurp();
    void take(std::vector<uint8_t> bytes);
    void take_process(const char *name, const Access &access);
    void take_core(const Access &access);

    int fd_ = -1;
    std::vector<uint8_t> held_;  // all that came through a pipe, or was made here
    Bytes memory_;               // the dump when there is no file to read from
    uint64_t total_ = 0;
    uint64_t modified_ = 0;
    std::string failure_;
};

}  // namespace trace_reader
