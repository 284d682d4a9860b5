// Files: one traced operation against the bare system call, on a file in memory, so that nothing
// but the call is measured.
#include <fcntl.h>
#include <unistd.h>
#include <memory>
#include <vector>

#include <qvcl/qvcl.h>

#include "bench/support.h"

namespace {

constexpr size_t kStretch = 64;  // operations between two returns to the start of the file

struct File {
    std::string path = "/dev/shm/qvcl-bench-" + std::to_string(getpid());
    std::vector<char> buffer;
    CL_Object *object = CL_OpenFile(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600, nullptr);
    int fd = -1;

    explicit File(size_t size) : buffer(size, 'x') {
        bench::check(object != nullptr, "CL_OpenFile");
        fd = static_cast<int>(object->descriptor);
        for (size_t i = 0; i < kStretch; ++i)
            bench::check(write(fd, buffer.data(), size) == static_cast<ssize_t>(size), "write");
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    ~File() {
        CL_CloseFile(object, nullptr);
        unlink(path.c_str());
    }
};

// Both sides go back to the start with the same bare call.
template <class Operation>
bench::Side repeated(const char *name, const std::shared_ptr<File> &file, Operation once) {
    return bench::local(name, [file, once](size_t n) {
        for (size_t i = 0; i < n; ++i) {
            if (i % kStretch == 0) lseek(file->fd, 0, SEEK_SET);
            bench::check(once(*file) == static_cast<int64_t>(file->buffer.size()), "a short count");
        }
    });
}

bench::Comparison writing(size_t size) {
    const auto file = std::make_shared<File>(size);
    return {{repeated("CL_WriteFile", file,
                      [](File &f) {
                          CL_ErrInfo err;
                          return CL_WriteFile(f.object, f.buffer.data(), f.buffer.size(), &err);
                      }),
             repeated("write", file,
                      [](File &f) { return write(f.fd, f.buffer.data(), f.buffer.size()); })},
            {bench::times_of("write")}};
}

bench::Comparison reading(size_t size) {
    const auto file = std::make_shared<File>(size);
    return {{repeated("CL_ReadFile", file,
                      [](File &f) {
                          CL_ErrInfo err;
                          return CL_ReadFile(f.object, f.buffer.data(), f.buffer.size(), &err);
                      }),
             repeated("read", file,
                      [](File &f) { return read(f.fd, f.buffer.data(), f.buffer.size()); })},
            {bench::times_of("read")}};
}

}  // namespace

int main(int argc, char **argv) {
    bench::pin(bench::processor(1));
    bench::check(CL_Init(10, nullptr, nullptr) == 1, "CL_Init");
    for (const size_t size : {64u, 4096u, 65536u}) {
        const std::string bytes = std::to_string(size) + " bytes";
        bench::compare("write/" + bytes, [size] { return writing(size); });
        bench::compare("read/" + bytes, [size] { return reading(size); });
    }
    return bench::run(argc, argv);
}
