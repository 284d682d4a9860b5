// What the tests share, on top of the test kit: seeded randomness, matchers, processes and the
// fixture that has the library.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qvcl/qvcl.h>
#include <qvcl/trace_records.h>
#include <unistd.h>
#include <qvcl/kit.hpp>

#include <cstdint>
#include <functional>
#include <ostream>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// Defined here because an argument-dependent lookup of `==` looks in the global namespace.
inline bool operator==(const CL_ErrInfo &a, const CL_ErrInfo &b) {
    return a.err == b.err && a.detail == b.detail && a.module == b.module && a.line == b.line &&
           a.version == b.version;
}
std::ostream &operator<<(std::ostream &out, const CL_ErrInfo &error);

namespace test {

using qvcl::kit::Balance;
using qvcl::kit::Fault;
using qvcl::kit::kForever;
using qvcl::kit::log_lines;
using qvcl::kit::Plan;
using qvcl::kit::raw_log;
using qvcl::kit::reachable_calls;
using qvcl::kit::Record;
using qvcl::kit::records;
using qvcl::kit::Tape;

// The library's catalogue holds what `text` returns.
void set_catalogue(std::function<const char *(int id)> text);

// What went to the system log; nothing gets there.
std::vector<std::string> &system_log();

std::vector<int> descriptors();

// ---- Randomness

// Prints its seed; QVCL_TEST_SEED in the environment repeats a run.
class Random {
  public:
    Random();
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(engine_() % bound); }
    std::mt19937_64 &engine() { return engine_; }

  private:
    std::mt19937_64 engine_;
};

// ---- Error records

// `err` and `detail` hold the code, and the rest tells where.
MATCHER_P2(FailsWith, code, module, "") {
    const CL_ErrInfo &error = arg;
    return error.err == static_cast<uint32_t>(code) &&
           error.detail == static_cast<uint32_t>(code) &&
           error.module == static_cast<uint32_t>(module) && error.line != 0 &&
           error.version == CL_VERSION;
}
MATCHER(IsClear, "") {
    return arg == CL_ErrInfo{};
}

// A record with a value in every field, to see who touches it.
constexpr CL_ErrInfo kUntouched = {0xa1, 0xa2, 0xa3, 0xa4, 0xa5};

// ---- The library

// A callback with a state: create an object with `call_action` and the address of an Action as its
// first argument.
using Action = std::function<uint32_t(CL_Object *, CL_Event *)>;
uint32_t call_action(CL_Object *object, CL_Event *event, uint64_t action, uint64_t arg2);
inline uint64_t address(const void *pointer) {
    return reinterpret_cast<uint64_t>(pointer);
}

inline CL_MainBlock &table() {
    return *CL_MainTable;
}

// The FD object watches `fd`, and nothing else, for reading.
uint32_t watch_readable(CL_Object *object, int fd, CL_ErrInfo *err);

// A deletion that failed has taken the object off the queue of its kind; nobody but a test could
// tell.
void back_to_its_kind(CL_Object *object);

// A link that is looked for there has an owner already.
constexpr uint32_t kElsewhere = offsetof(CL_Object, own_address) - offsetof(CL_QueueLink, owner);

// One overwritten field, as a stray write leaves it.
class Damage {
  public:
    template <class T>
    void write(T &field, std::type_identity_t<T> value) {
        repair_ = [at = &field, was = field] { *at = was; };
        field = value;
    }
    void lose(CL_QueueLink &link) { write(link.owner, nullptr); }
    void take(CL_QueueLink &link) { write(link.owner, &elsewhere_); }
    void misplace(CL_Queue &queue) { write(queue.link_offset, kElsewhere); }
    void repair() {
        std::exchange(repair_, [] {})();
    }

  private:
    std::function<void()> repair_ = [] {};
    CL_Queue elsewhere_{};
};

// Where sorted insertion puts `key`, which other keys may equal: midpoints round down over the
// whole array, and the place is behind the key that the search lands on.
size_t sorted_place(const std::vector<int64_t> &keys, int64_t key);

// Initialises the library with room for 50 objects.
class Library : public testing::Test {
  public:
    static constexpr uint32_t kObjects = 50;

  protected:
    void SetUp() override { ASSERT_EQ(CL_Init(kObjects, exec_path, &err), 1u) << err; }

    CL_Object *create(uint32_t kind, CL_Callback callback = nullptr, uint64_t arg1 = 0,
                      uint64_t arg2 = 0) {
        return CL_CreateFD_M(kind, callback, arg1, arg2, &err, 1, "test", 1);
    }

    // The call is refused, with 0 and this code, and leaves all objects as they are.
    void refused(const char *what, int code, int module, const std::function<int64_t()> &call);

    // An FD object that watches `fd` for reading; not listed when the priority is 0.
    CL_Object *watch(int fd, Action *action, uint32_t priority = 0, uint64_t arg2 = 0);

    // Makes a CHILD object that of a process, and lists it, as a starter does.
    CL_Object *adopt(CL_Object *child, pid_t pid);

    CL_ErrInfo err = kUntouched;
    const char *exec_path = nullptr;  // of the server for reports
};

// A pipe whose ends are closed at the end.
class Pipe {
  public:
    Pipe();
    ~Pipe();
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    int out() const { return ends_[0]; }
    int in() const { return ends_[1]; }
    void fill(char byte = 'x') const { EXPECT_EQ(write(in(), &byte, 1), 1); }

  private:
    int ends_[2];
};

inline fd_set only(int fd) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    return set;
}

// A process that runs `life` and exits with its result; without one it lives until killed.
pid_t child_process(const std::function<int()> &life = nullptr);
// One that has ended and is not yet reaped.
pid_t ended_process(int status = 0);

// Sets an environment variable (null value: removes it) before a new process is made.
void set_env(const char *name, const char *value);

}  // namespace test

// Runs the statements in a new process that loads the library anew, with the environment as it is
// now; what they find wrong fails the test.
#define IN_NEW_PROCESS(...)                             \
    do {                                                \
        GTEST_FLAG_SET(death_test_style, "threadsafe"); \
        EXPECT_EXIT(                                    \
            {                                           \
                [&] { __VA_ARGS__ }();                  \
                fflush(nullptr);                        \
                _exit(HasFailure() ? 1 : 0);            \
            },                                          \
            testing::ExitedWithCode(0), "");            \
    } while (false)
