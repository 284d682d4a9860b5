// watch: a snapshot whenever a callback has been open for too long, once for each such callback.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "tools/commands.h"
#include "tools/looks.h"
#include "tools/render.h"

namespace trace_reader {

namespace {

constexpr int64_t kStall = 1000000;  // microseconds
constexpr int kWait = 50;            // milliseconds

const Record *open_callback(const Trace &trace) {
    for (const uint32_t i : trace.open) {
        if (trace.records[i].is_callback()) return &trace.records[i];
    }
    return nullptr;
}

// A name that no file has yet.
std::string free_name(const std::string &folder, pid_t pid, uint64_t &number) {
    for (;; ++number) {
        std::string name = (Text() << folder << "/qvcl-" << pid << '-' << number << ".trc").str();
        if (access(name.c_str(), F_OK) != 0) return name;
    }
}

void put_stall(Text &out, Looks &looks, const Record &callback, const std::string &path) {
    out.day(callback.time) << ' ';
    out.clock(callback.time) << ' ';
    put_title(out, callback);
    put_object(out << ' ', looks.dump(), looks.trace().object_of(callback));
    const auto function = load<uint64_t>(callback.bytes, offsetof(CL_TrcCallback, callback));
    out << ' ' << function_name(looks.dump(), function) << " open for ";
    out.duration(static_cast<int64_t>(now() - callback.time)) << ": " << path << '\n';
    out.flush();
}

}  // namespace

bool watch(Looks &looks, const Options &options, Text &out, Text &err) {
    const std::string folder = options.out.empty() ? "." : options.out;
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        throw std::runtime_error(folder + ": " + strerror(errno));
    }
    uint64_t number = 0, told = 0;
    uint64_t last = 0;  // when the callback began that was told last
    do {
        looks.take(looks.fresh().size());
        const Record *callback = open_callback(looks.trace());
        if (callback == nullptr || callback->time == last ||
            static_cast<int64_t>(now() - callback->time) < options.stall.value_or(kStall)) {
            continue;
        }
        last = callback->time;
        const Snapshot snapshot =
            looks.snapshots().of_live(looks.process(), false, "a callback was open for long");
        if (!snapshot.failure.empty()) continue;
        const std::string path = free_name(folder, looks.process().pid(), number);
        const Source source((Bytes(snapshot.file)));
        write_file(path, source);
        put_stall(out, looks, *callback, path);
        ++told;
    } while (told < options.max && looks.next(kWait));
    if (told >= options.max) err << "qvcl-trace: ended, as --max=" << told << " says\n";
    return true;
}

}  // namespace trace_reader
