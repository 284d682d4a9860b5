// Trace files: what it costs to write one, and to show it.
//
// The dump has full default rings and a table of 10,010 objects. The floor writes as many bytes
// with one call and syncs them as the dump does; on a file in memory, where that is a copy, and on
// the disk. Showing is asked for records in a second: of that dump, where little is shown of much
// that is read, and of one whose ring holds 200,000 entries.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cinttypes>
#include <cstring>
#include <memory>

#include <qvcl/qvcl.h>

#include "bench/support.h"

namespace {

using bench::check;

constexpr uint32_t kObjects = 10000;
constexpr char kLarge[] = "200000";  // entries

// ---------------------------------------------------------------- the dump

uint32_t on_event(CL_Object * /*object*/, CL_Event * /*event*/, uint64_t, uint64_t) {
    return 0;
}

// What daemons do: objects that come and go, calls that succeed and fail, callbacks; until the
// rings have been filled more than once.
void fill_rings() {
    CL_ErrInfo err;
    fd_set reads;
    FD_ZERO(&reads);
    FD_SET(0, &reads);
    CL_Event event = {};
    event.type = CL_EVENT_DESCRIPTOR;
    struct {
        CL_TrcHead head;
        char text[100];
    } note = {};
    note.head.length = sizeof note;
    for (uint32_t i = 0; i < CL_MainTable->library_ring->entry_count / 4; ++i) {
        CL_Object *object = CL_CreateFD(CL_KIND_FD, on_event, i, 0, &err);
        CL_SetFD(object, 1, &reads, nullptr, nullptr, &err);
        CL_AddEventList(object, CL_PRIORITY_FIRST, &err);
        cl_Callback_M(on_event, object, &event, i, 0, CL_HERE);
        CL_StopTIMER(object, &err);
        CL_DeleteFD(object, &err);
    }
    for (uint32_t i = 0; i < 2 * CL_TRC_LIB_COUNT; ++i)
        CL_TRC_Write_M(&note, CL_RING_USER);
}

void set_up() {
    check(CL_Init(kObjects, nullptr, nullptr) == 1 &&
              CL_TRC_Init_M("/tmp/qvcl-bench-user", CL_TRC_LIB_ENTRY, CL_TRC_LIB_COUNT, nullptr,
                            CL_RING_USER) == 0,
          "the rings");
    fill_rings();
    check(CL_MainTable->library_ring->wrapped != 0 && CL_MainTable->user_ring->wrapped != 0,
          "the rings are not full");
}

size_t size_of(const std::string &path) {
    struct stat status;
    check(stat(path.c_str(), &status) == 0, "stat");
    return static_cast<size_t>(status.st_size);
}

struct File {
    std::string path;
    explicit File(const std::string &directory)
        : path(directory + "/qvcl-bench-" + std::to_string(getpid())) {}
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    ~File() { unlink(path.c_str()); }
};

bench::Comparison dump(const std::string &directory) {
    const auto file = std::make_shared<File>(directory);
    CL_TRC_Out(file->path.c_str(), nullptr);
    const auto bytes = std::make_shared<std::vector<char>>(size_of(file->path), 'x');
    return {{bench::local("CL_TRC_Out",
                          [file](size_t n) {
                              while (n-- != 0)
                                  CL_TRC_Out(file->path.c_str(), nullptr);
                          }),
             bench::local("open + write " + std::to_string(bytes->size()) + " bytes + fdatasync",
                          [file, bytes](size_t n) {
                              while (n-- != 0) {
                                  const int fd =
                                      open(file->path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
                                  check(write(fd, bytes->data(), bytes->size()) ==
                                            static_cast<ssize_t>(bytes->size()),
                                        "write");
                                  fdatasync(fd);
                                  close(fd);
                              }
                          })},
            {bench::times_of("that")},
            0};
}

// ---------------------------------------------------------------- the reader

// The peak that is told for a process is at least that of the process that forked it: so the dumps
// to be shown are made by this program run again, and this process stays small.
constexpr char kMake[] = "--make-dump";

void run(const char *const *arguments, double *peak) {
    const pid_t pid = fork();
    check(pid >= 0, "fork");
    if (pid == 0) {
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        execv(arguments[0], const_cast<char *const *>(arguments));
        _exit(127);
    }
    int status;
    struct rusage usage;
    check(wait4(pid, &status, 0, &usage) == pid && status == 0, arguments[0]);
    if (peak != nullptr) *peak = static_cast<double>(usage.ru_maxrss) / 1024;
}

// Records in the rings at the start of the file.
size_t records_in(const std::string &path) {
    FILE *file = fopen(path.c_str(), "r");
    check(file != nullptr, "fopen");
    size_t records = 0;
    for (int i = 0; i < 2; ++i) {
        CL_TraceRing ring;
        check(fread(&ring, sizeof ring, 1, file) == 1, "fread");
        const long start = ftell(file) - long{sizeof ring};
        for (uint32_t e = 0; e < ring.entry_count; ++e) {
            CL_TraceEntry entry;
            check(fread(&entry, sizeof entry, 1, file) == 1 &&
                      fseek(file, long{ring.entry_size}, SEEK_CUR) == 0,
                  "an entry");
            if ((entry.flags & CL_ENTRY_FIRST) != 0) ++records;
        }
        fseek(file, start + static_cast<long>(ring.header.size), SEEK_SET);
    }
    fclose(file);
    return records;
}

bench::Comparison show(const char *self, const char *entries, bool asked) {
    const auto file = std::make_shared<File>("/dev/shm");
    setenv("CL_TRC_NUM", entries, 1);
    const char *const make[] = {self, kMake, file->path.c_str(), nullptr};
    run(make, nullptr);
    const auto records = static_cast<double>(records_in(file->path));
    const auto peak = std::make_shared<double>();
    bench::Side side = bench::local("qvcl-trace show", [file, peak](size_t n) {
        const char *const command[] = {QVCL_TRACE, "show", file->path.c_str(), nullptr};
        while (n-- != 0)
            run(command, peak.get());
    });
    return {{side},
            {{"records/s", [records](const bench::Times &t) { return records / t[0]; },
              asked ? bench::Figure::at_least : bench::Figure::none, 500000},
             {"records", [records](const bench::Times &) { return records; }},
             {"MiB of file", [mib = static_cast<double>(size_of(file->path)) /
                                    0x100000](const bench::Times &) { return mib; }},
             {"MiB of memory at the peak", [peak](const bench::Times &) { return *peak; }}},
            0};
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 3 && strcmp(argv[1], kMake) == 0) {
        set_up();
        CL_TRC_Out(argv[2], nullptr);
        return 0;
    }
    bench::pin(bench::processor(1));
    const char *const self = "/proc/self/exe";
    bench::compare(
        "show/the default rings", [self] { return show(self, "1000", true); }, 11);
    bench::compare(
        "show/200,000 entries", [self] { return show(self, kLarge, true); }, 11);
    bench::compare(
        "dump/in memory",
        [] {
            set_up();
            return dump("/dev/shm");
        },
        31);
    bench::compare(
        "dump/on the disk", [] { return dump("/var/tmp"); }, 11);
    return bench::run(argc, argv);
}
