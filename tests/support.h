// What the tests share: faults in the C library's functions, the reader of trace rings, captured
// log lines, seeded randomness and the balance of resources.
//
// The test program defines the C library's functions itself (support.cpp); the library's calls
// reach them, because the program comes first in the search order, and pass through unless a test
// wants otherwise. Only calls that come from the library's own code count, so that a plan never
// hits the test or its framework.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qvcl/qvcl.h>
#include <qvcl/trace_records.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

// Defined here because an argument-dependent lookup of `==` looks in the global namespace.
inline bool operator==(const CL_ErrInfo &a, const CL_ErrInfo &b) {
    return a.err == b.err && a.detail == b.detail && a.module == b.module && a.line == b.line &&
           a.version == b.version;
}
std::ostream &operator<<(std::ostream &out, const CL_ErrInfo &error);

namespace test {

// ---- Faults

constexpr int kForever = INT_MAX;

// What is to happen to calls of one function: to the nth, counted from the moment the plan is in
// force, and the ones after it, `times` altogether.
struct Fault {
    std::string_view call;
    int error = 0;  // not 0: the call is not made, and fails with this errno
    int nth = 1;
    int times = 1;
    size_t at_most = SIZE_MAX;  // read, write, send and recv move no more bytes than that
    bool swallow = false;       // the call is not made, and its result is 0
    std::function<void()> before = nullptr;  // runs first
    bool from_anyone = false;                // also calls that do not come from the library
};

// A plan in force as long as it lives, one at a time.
class Plan {
  public:
    Plan(std::initializer_list<Fault> faults = {});
    explicit Plan(const Fault &fault) : Plan({fault}) {}
    ~Plan();
    Plan(const Plan &) = delete;
    Plan &operator=(const Plan &) = delete;

    // Names of the library's calls so far, and how often one was called.
    const std::vector<std::string_view> &calls() const;
    int count(std::string_view call) const;
    // Calls that a fault of this plan changed.
    int hits() const;
};

// Every function that a plan can reach.
const std::vector<std::string_view> &reachable_calls();

// From now on the library's clocks stand at these times; its catalogue holds what `text` returns
// (null: no text for this id, null function: no catalogue), until the real ones are asked again.
void set_uptime(long seconds);
void set_time(uint64_t seconds, uint64_t microseconds);
void set_catalogue(std::function<const char *(int id)> text);
void use_real_catalogue();

// What the library asked nanosleep for. A sleep that fails with EINTR leaves half of it.
std::vector<timespec> &sleeps();

// What went to the system log, as "identity/options/facility/priority/text"; nothing gets there.
std::vector<std::string> &system_log();

// ---- Trace records

struct Record {
    std::vector<uint8_t> bytes;

    template <class T>
    T as() const {
        T record{};
        memcpy(&record, bytes.data(), std::min(sizeof record, bytes.size()));
        return record;
    }
    CL_TrcHead head() const { return as<CL_TrcHead>(); }
};
std::ostream &operator<<(std::ostream &out, const Record &record);

// All records of a ring, oldest first; a test failure when the ring is not in order.
std::vector<Record> records(const CL_TraceRing *ring);

// The library ring's records since the tape began to run.
class Tape {
  public:
    Tape() { restart(); }
    void restart() { start_ = CL_MainTable->library_ring->next; }
    std::vector<Record> records() const;
    // Those of one operation.
    std::vector<Record> records(uint8_t api) const;

  private:
    uint32_t start_;
};

// ---- Log

// Captures the internal log from now on; the line that announces the callback is dropped.
void capture_log();
// Lines captured, as they came and without stamp and newline; both are emptied together.
std::vector<std::string> &raw_log();
std::vector<std::string> log_lines();

// ---- Resources

std::vector<int> descriptors();

// What must be the same before and after something that leaves nothing behind.
struct Balance {
    // Objects (live, free, by kind, on one of the five lists), memory of both owners, and the
    // test's catalogues that are open.
    std::map<std::string, uint64_t> counts;
    uint64_t blocked_signals = 0;
    std::vector<int> descriptors;

    static Balance now();
    bool operator==(const Balance &other) const = default;
};
std::ostream &operator<<(std::ostream &out, const Balance &balance);

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
