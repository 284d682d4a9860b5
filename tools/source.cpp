// A file that another process writes may shrink at any time, so it is read, not mapped.
#include "tools/source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace trace_reader {

namespace {
constexpr size_t kPipeLimit = size_t{1} << 30;
}

Source::Source(const char *path) {
    fd = strcmp(path, "-") == 0 ? dup(STDIN_FILENO) : open(path, O_RDONLY | O_CLOEXEC);
    struct stat status;
    if (fd < 0 || fstat(fd, &status) != 0) {
        failure = strerror(errno);
    } else if (S_ISREG(status.st_mode)) {
        total = static_cast<uint64_t>(status.st_size);
    } else {
        slurp();
    }
}

Source::~Source() {
    if (fd >= 0) close(fd);
}

void Source::slurp() {
    uint8_t piece[65536];
    ssize_t got;
    while ((got = ::read(fd, piece, sizeof piece)) > 0) {
        if (held.size() + static_cast<size_t>(got) > kPipeLimit) {
            failure = "more than a gibibyte through a pipe";
            return;
        }
        held.insert(held.end(), piece, piece + got);
    }
    if (got < 0) failure = strerror(errno);
    memory = held;
    total = held.size();
    close(fd);
    fd = -1;
}

uint64_t Source::read(uint64_t offset, void *to, uint64_t length) const {
    if (offset >= total || length == 0) return 0;
    length = std::min(length, total - offset);
    if (fd < 0) {
        memcpy(to, memory.data() + offset, length);
        return length;
    }
    uint64_t done = 0;
    while (done < length) {
        const ssize_t got = pread(fd, static_cast<uint8_t *>(to) + done, length - done,
                                  static_cast<off_t>(offset + done));
        if (got <= 0) break;
        done += static_cast<uint64_t>(got);
    }
    return done;
}

}  // namespace trace_reader
