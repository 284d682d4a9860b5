// Notes which documented errors the tests produce. Every public function with documented errors is
// defined here again: calls from the test, and the library's own, come first to these definitions,
// which pass on to the library's and look at the error that it reports. Each error goes, once a
// process, as the line "FUNCTION CODE" to the end of the file that QVCL_PRODUCED names; without it
// nothing is noted.
#include <dlfcn.h>
#include <fcntl.h>
#include <qvcl/channel.h>
#include <qvcl/conf.h>
#include <qvcl/loop.h>
#include <qvcl/nest.h>
#include <qvcl/qvcl.h>
#include <qvcl/recorder.h>
#include <qvcl/source.h>
#include <qvcl/starter.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace {

struct Documented {
    const char *code;
    uint32_t value;  // 0: any errno value without an entry before this one
    bool noted;
};

constexpr uint32_t kLastErrno = 133;

// Null before the program's own initialisation: what the library reports while it is loaded is not
// noted.
const char *const kNotesFile = getenv("QVCL_PRODUCED");

// By system calls, because the tests stand in for the functions. One write is one line, whoever
// else writes.
void write_line(const char *function, const char *code) {
    char line[100];
    const int length = snprintf(line, sizeof line, "%s %s\n", function, code);
    struct rlimit of_test;  // which may leave no descriptor
    getrlimit(RLIMIT_NOFILE, &of_test);
    const struct rlimit most = {of_test.rlim_max, of_test.rlim_max};
    setrlimit(RLIMIT_NOFILE, &most);
    const auto fd = static_cast<int>(
        syscall(SYS_openat, AT_FDCWD, kNotesFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    setrlimit(RLIMIT_NOFILE, &of_test);
    if (fd == -1) return;
    syscall(SYS_write, fd, line, length);
    syscall(SYS_close, fd);
}

template <size_t kCount>
void note(const char *function, uint32_t value, Documented (&errors)[kCount]) {
    if (kNotesFile == nullptr || value == 0) return;
    for (Documented &error : errors) {
        if (error.value != value && (error.value != 0 || value > kLastErrno)) continue;
        const int saved = errno;
        if (!error.noted) write_line(function, error.code);
        errno = saved;
        error.noted = true;
        return;
    }
}

template <class Result>
bool is_failure(Result result) {
    if constexpr (std::is_pointer_v<Result>) return result == nullptr;
    if constexpr (!std::is_pointer_v<Result>)
        return result == 0 || result == static_cast<Result>(-1);
}

// The code of a function that reports in an error record: what it has changed there. The same error
// again is no change; an operation that fails has put it there all the same, but a worker whose 0
// means nothing may have left what was there.
class Code {
  public:
    explicit Code(const char *function, const CL_ErrInfo *err)
        : operation_(function[0] == 'C'), err_(kNotesFile != nullptr ? err : nullptr) {
        if (err_ != nullptr) before_ = *err_;
    }
    template <class Result>
    uint32_t after(Result result) const {
        if (err_ == nullptr) return 0;
        const bool changed = memcmp(err_, &before_, sizeof before_) != 0;
        return changed || (operation_ && is_failure(result)) ? err_->err : 0;
    }

  private:
    bool operation_;
    const CL_ErrInfo *err_;
    CL_ErrInfo before_;
};

// The code of a function that returns it.
constexpr struct {
    template <class Result>
    uint32_t after(Result result) const {
        return static_cast<uint32_t>(result);
    }
} returned;

}  // namespace

#define BEFORE_err(function) const Code code(function, err)
#define BEFORE_result(function) const auto &code = returned
#define ERROR(code, value) {code, static_cast<uint32_t>(value), false},
#define CALL(type, name, parameters, arguments, place, errors)             \
    type name parameters {                                                 \
        static const auto original =                                       \
            reinterpret_cast<type(*) parameters>(dlsym(RTLD_NEXT, #name)); \
        static Documented documented[] = {errors};                         \
        BEFORE_##place(#name);                                             \
        type const result = original arguments;                            \
        note(#name, code.after(result), documented);                       \
        return result;                                                     \
    }

extern "C" {
#include "produced_calls.inc"
}
