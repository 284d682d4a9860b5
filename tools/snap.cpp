// snap: keeps what was read as a dump file. It is written under a name of its own and then given
// the one that was asked for, so that there is never half a file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "tools/commands.h"

namespace trace_reader {

namespace {

constexpr size_t kPiece = 1 << 20;

// "qvcl-4711-20261122-215616.trc"
std::string name_of(const Dump &dump) {
    const auto seconds = static_cast<time_t>(dump.time / 1000000);
    tm broken{};
    localtime_r(&seconds, &broken);
    char time[32];
    strftime(time, sizeof time, "%Y%m%d-%H%M%S", &broken);
    return (Text() << "qvcl-" << dump.header.pid.value_or(dump.main.pid) << '-' << time << ".trc")
        .str();
}

}  // namespace

void write_file(const std::string &path, const Source &source) {
    struct stat status;
    // A device, or a pipe, is not to be replaced.
    const bool direct = stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
    std::string name = direct ? path : path + ".XXXXXX";
    const int fd = direct ? open(name.c_str(), O_WRONLY | O_CLOEXEC)
                          : mkostemp(name.data(), O_CLOEXEC);  // mode 0600
    bool fine = fd >= 0;
    std::vector<uint8_t> piece(kPiece);
    for (uint64_t at = 0; fine && at < source.size();) {
        const uint64_t got = source.read(at, piece.data(), piece.size());
        errno = EIO;  // where the source has become shorter
        const ssize_t written = write(fd, piece.data(), got);
        fine = written > 0;
        at += static_cast<uint64_t>(std::max<ssize_t>(written, 0));
    }
    if (fd >= 0) fine = close(fd) == 0 && fine;
    fine = fine && (direct || rename(name.c_str(), path.c_str()) == 0);
    if (fine) return;
    const int error = errno;
    if (fd >= 0 && !direct) unlink(name.c_str());
    throw std::runtime_error(path + ": " + strerror(error));
}

bool snap(Dumps dumps, const Options &options, Text &out) {
    const Dump &dump = dumps.front();
    if (options.out == "-") {
        std::vector<uint8_t> bytes(dump.from->size());
        const uint64_t got = dump.from->read(0, bytes.data(), bytes.size());
        out << std::string_view(reinterpret_cast<const char *>(bytes.data()), got);
        return true;
    }
    const std::string path = options.out.empty() ? name_of(dump) : options.out;
    write_file(path, *dump.from);
    out << path << '\n';
    return true;
}

}  // namespace trace_reader
