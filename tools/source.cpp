// A file is read, not mapped: while another process writes it, it may shrink at any time, and
// access to a mapping behind its end would kill the tool. What cannot be read at an offset (a pipe)
// is read whole at the start.
#include "tools/source.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/core.h"
#include "tools/snapshot.h"

namespace trace_reader {

namespace {
constexpr size_t kPipeLimit = size_t{1} << 30;
constexpr std::string_view kProcess = "pid:";
}  // namespace

std::optional<pid_t> process_of(std::string_view name) {
    if (!name.starts_with(kProcess)) return {};
    name.remove_prefix(kProcess.size());
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(name.begin(), name.end(), pid);
    if (error != std::errc() || end != name.end() || pid <= 0) return {};
    return pid;
}

Source::Source(const char *name, const Access &access) {
    if (std::string_view(name).starts_with(kProcess)) {
        take_process(name, access);
        return;
    }
    open(name);
    char magic[SELFMAG];
    const bool is_core =
        read(0, magic, sizeof magic) == sizeof magic && memcmp(magic, ELFMAG, SELFMAG) == 0;
    if (!failure_.empty()) return;
    if (access.stop) {
        failure_ = "--stop is for live processes";
    } else if (is_core) {
        take_core(access);
    } else if (!access.exe.empty()) {
        failure_ = "--exe is for core files, and this is none";
    }
}

void Source::open(const char *path) {
    fd_ = strcmp(path, "-") == 0 ? dup(STDIN_FILENO) : ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        failure_ = strerror(errno);
        return;
    }
    struct stat status = {};
    fstat(fd_, &status);
    if (S_ISREG(status.st_mode)) {
        total_ = static_cast<uint64_t>(status.st_size);
        modified_ = static_cast<uint64_t>(std::max<time_t>(status.st_mtim.tv_sec, 0)) * 1000000 +
                    static_cast<uint64_t>(status.st_mtim.tv_nsec) / 1000;
    } else {
        slurp();
    }
}

Source::~Source() {
    if (fd_ >= 0) close(fd_);
}

void Source::slurp() {
    uint8_t piece[65536];
    ssize_t got;
    while ((got = ::read(fd_, piece, sizeof piece)) > 0) {
        if (held_.size() + static_cast<size_t>(got) > kPipeLimit) {
            failure_ = "more than a gibibyte through a pipe";
            return;
        }
        held_.insert(held_.end(), piece, piece + got);
    }
    if (got < 0) failure_ = strerror(errno);
    take(std::move(held_));
}

void Source::take(std::vector<uint8_t> bytes) {
    held_ = std::move(bytes);
    memory_ = held_;
    total_ = held_.size();
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

void Source::take_process(const char *name, const Access &access) {
    const std::optional<pid_t> pid = process_of(name);
    if (!pid) {
        failure_ = "a process is named by its number: pid:1234";
        return;
    }
    Snapshot snapshot = snapshot_of(*pid, access.stop);
    failure_ = snapshot.failure;
    take(std::move(snapshot.file));
}

void Source::take_core(const Access &access) {
    if (fd_ < 0) {
        failure_ = "a core file cannot be read from a pipe";
        return;
    }
    Snapshot snapshot = snapshot_of_core(fd_, modified_, access.exe);
    failure_ = snapshot.failure;
    take(std::move(snapshot.file));
}

uint64_t Source::read(uint64_t offset, void *to, uint64_t length) const {
    if (offset >= total_ || length == 0) return 0;
    length = std::min(length, total_ - offset);
    if (fd_ < 0) {
        memcpy(to, memory_.data() + offset, length);
        return length;
    }
    uint64_t done = 0;
    while (done < length) {
        const ssize_t got = pread(fd_, static_cast<uint8_t *>(to) + done, length - done,
                                  static_cast<off_t>(offset + done));
        if (got <= 0) break;
        done += static_cast<uint64_t>(got);
    }
    return done;
}

}  // namespace trace_reader
