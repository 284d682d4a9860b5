// The tests' shared support. The first half stands in for the C library: each function looks up
// the plan in force and then passes on to the real one.
#include "tests/support.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <nl_types.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <iostream>
#include <optional>

namespace test {
namespace {

// ---- Faults

struct Running {
    std::vector<Fault> faults;
    std::vector<int> seen;  // calls counted for each fault
    std::vector<std::string_view> calls;
    int hits = 0;
};

// Null-initialised, so that calls which the library makes while it is loaded pass through.
Running *running;
uintptr_t code_begin;
uintptr_t code_end;
std::optional<long> uptime;
std::optional<timeval> time_of_day;
std::function<const char *(int)> *catalogue;
uint64_t open_catalogues;
std::string log_identity;

int find_code(dl_phdr_info *object, size_t, void *) {
    if (std::string_view(object->dlpi_name).find("libqvcl.so") == std::string_view::npos) return 0;
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const auto &segment = object->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
            code_begin = object->dlpi_addr + segment.p_vaddr;
            code_end = code_begin + segment.p_memsz;
        }
    }
    return 1;
}

bool from_library(const void *caller) {
    if (code_end == 0) dl_iterate_phdr(find_code, nullptr);
    const auto address = reinterpret_cast<uintptr_t>(caller);
    return address >= code_begin && address < code_end;
}

struct Verdict {
    bool fail = false;
    bool swallow = false;
    size_t at_most = SIZE_MAX;
};

// What is to happen to the call that is being made.
Verdict judge(std::string_view call, const void *caller) {
    Verdict verdict;
    Running *plan = running;
    if (plan == nullptr) return verdict;
    const bool own = from_library(caller);
    if (own) plan->calls.push_back(call);
    for (size_t i = 0; i < plan->faults.size(); ++i) {
        const Fault &fault = plan->faults[i];
        if (fault.call != call || (!own && !fault.from_anyone)) continue;
        const int number = ++plan->seen[i];
        if (number < fault.nth || number - fault.nth >= fault.times) continue;
        plan->hits++;
        if (fault.before) fault.before();
        verdict.fail = verdict.fail || fault.error != 0;
        verdict.swallow = verdict.swallow || fault.swallow;
        verdict.at_most = std::min(verdict.at_most, fault.at_most);
        if (fault.error != 0) errno = fault.error;
    }
    return verdict;
}

}  // namespace

Plan::Plan(std::initializer_list<Fault> faults) {
    EXPECT_EQ(running, nullptr) << "one plan at a time";
    auto *plan = new Running;
    plan->faults = faults;
    plan->seen.resize(faults.size());
    plan->calls.reserve(4096);
    for (const Fault &fault : faults) {
        const auto &known = reachable_calls();
        EXPECT_NE(std::find(known.begin(), known.end(), fault.call), known.end()) << fault.call;
    }
    running = plan;
}

Plan::~Plan() {
    delete std::exchange(running, nullptr);
}

const std::vector<std::string_view> &Plan::calls() const {
    return running->calls;
}

int Plan::count(std::string_view call) const {
    return static_cast<int>(std::count(running->calls.begin(), running->calls.end(), call));
}

int Plan::hits() const {
    return running->hits;
}

void set_uptime(long seconds) {
    uptime = seconds;
}

void set_time(uint64_t seconds, uint64_t microseconds) {
    time_of_day = timeval{static_cast<time_t>(seconds), static_cast<suseconds_t>(microseconds)};
}

void set_catalogue(std::function<const char *(int id)> text) {
    delete std::exchange(catalogue, new std::function<const char *(int)>(std::move(text)));
}

void use_real_catalogue() {
    delete std::exchange(catalogue, nullptr);
}

std::vector<timespec> &sleeps() {
    static std::vector<timespec> requests;
    return requests;
}

std::vector<std::string> &system_log() {
    static std::vector<std::string> lines;
    return lines;
}

}  // namespace test

// How many arguments, name, result of a failure.
// clang-format off
#define PLAIN_CALLS(CALL)                                                                        \
    CALL(3, accept, -1) CALL(3, bind, -1) CALL(1, chdir, -1) CALL(2, chmod, -1)                  \
    CALL(1, close, -1) CALL(3, connect, -1) CALL(2, execv, -1) CALL(1, fdatasync, -1)            \
    CALL(2, fopen, nullptr) CALL(0, fork, -1) CALL(2, ftruncate, -1) CALL(0, getpid, -1)         \
    CALL(2, kill, -1) CALL(2, listen, -1) CALL(3, lseek, -1) CALL(6, mmap, MAP_FAILED)           \
    CALL(2, munmap, -1) CALL(6, pselect, -1) CALL(3, pthread_sigmask, errno) CALL(2, rename, -1) \
    CALL(3, setenv, -1) CALL(3, setitimer, -1) CALL(2, setlocale, nullptr) CALL(3, shm_open, -1) \
    CALL(1, shm_unlink, -1) CALL(3, sigaction, -1) CALL(2, sigaddset, -1)                        \
    CALL(1, sigemptyset, -1) CALL(2, signal, SIG_ERR) CALL(3, sigprocmask, -1)                   \
    CALL(3, socket, -1) CALL(1, unlink, -1) CALL(1, unsetenv, -1) CALL(3, waitpid, -1)
// Those whose third argument is a count of bytes.
#define TRANSFER_CALLS(CALL) \
    CALL(3, read, -1) CALL(4, recv, -1) CALL(4, send, -1) CALL(3, write, -1)

const std::vector<std::string_view> &test::reachable_calls() {
#define CALL_NAME(count, name, failure) #name,
    static const std::vector<std::string_view> names = {
        PLAIN_CALLS(CALL_NAME) TRANSFER_CALLS(CALL_NAME) "catclose", "catgets", "catopen",
        "fcntl", "gettimeofday", "malloc", "nanosleep", "open", "sysinfo"};
    return names;
}
// clang-format on

// The types of a function's result and of its arguments.
template <class Result, class... Arguments>
std::tuple<Result, Arguments...> types_of(Result (*)(Arguments...));
template <size_t kIndex, class Types>
using Type = std::tuple_element_t<kIndex, Types>;

#define P(i, name, argument) Type<i, decltype(types_of(&::name))> argument
#define PARAMETERS_0(name)
#define PARAMETERS_1(name) P(1, name, a)
#define PARAMETERS_2(name) PARAMETERS_1(name), P(2, name, b)
#define PARAMETERS_3(name) PARAMETERS_2(name), P(3, name, c)
#define PARAMETERS_4(name) PARAMETERS_3(name), P(4, name, d)
#define PARAMETERS_6(name) PARAMETERS_4(name), P(5, name, e), P(6, name, f)
#define ARGUMENTS_0
#define ARGUMENTS_1 a
#define ARGUMENTS_2 a, b
#define ARGUMENTS_3 a, b, c
#define ARGUMENTS_4 a, b, c, d
#define ARGUMENTS_6 a, b, c, d, e, f

// The beginning of every stand-in.
#define JUDGE(name)                                                                            \
    static const auto original = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name)); \
    const test::Verdict verdict = test::judge(#name, __builtin_return_address(0))
#define OWN test::from_library(__builtin_return_address(0))
#define DEFINE(count, name, failure, ...)                                                      \
    P(0, name, name)(PARAMETERS_##count(name)) noexcept(noexcept(::name(ARGUMENTS_##count))) { \
        JUDGE(name);                                                                           \
        if (verdict.fail) return failure;                                                      \
        __VA_ARGS__;                                                                           \
        if (verdict.swallow) return {};                                                        \
        return original(ARGUMENTS_##count);                                                    \
    }
#define DEFINE_TRANSFER(count, name, failure) \
    DEFINE(count, name, failure, c = std::min(c, verdict.at_most))

extern "C" {

PLAIN_CALLS(DEFINE)
TRANSFER_CALLS(DEFINE_TRANSFER)

int open(const char *path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    JUDGE(open);
    return verdict.fail ? -1 : original(path, flags, mode);
}

int fcntl(int fd, int command, ...) {
    va_list more;
    va_start(more, command);
    void *argument = va_arg(more, void *);
    va_end(more);
    JUDGE(fcntl);
    return verdict.fail ? -1 : original(fd, command, argument);
}

int gettimeofday(struct timeval *time, void *zone) noexcept {
    JUDGE(gettimeofday);
    if (verdict.fail) return -1;
    if (!test::time_of_day || !OWN) return original(time, zone);
    *time = *test::time_of_day;
    return 0;
}

int nanosleep(const struct timespec *request, struct timespec *remaining) {
    if (OWN) test::sleeps().push_back(*request);
    JUDGE(nanosleep);
    if (verdict.swallow) return 0;
    if (!verdict.fail) return original(request, remaining);
    const int64_t half = (request->tv_sec * 1'000'000'000 + request->tv_nsec) / 2;
    if (remaining != nullptr) *remaining = {half / 1'000'000'000, half % 1'000'000'000};
    return -1;
}

int sysinfo(struct sysinfo *info) noexcept {
    JUDGE(sysinfo);
    if (verdict.fail) return -1;
    const int result = original(info);
    if (test::uptime && OWN) info->uptime = *test::uptime;
    return result;
}

nl_catd catopen(const char *name, int flag) {
    JUDGE(catopen);
    const bool own = test::catalogue != nullptr && OWN;
    if (verdict.fail || (own && !*test::catalogue)) return reinterpret_cast<nl_catd>(-1);
    if (!own) return original(name, flag);
    ++test::open_catalogues;
    return test::catalogue;
}

char *catgets(nl_catd open, int set, int number, const char *fallback) noexcept {
    JUDGE(catgets);
    if (!verdict.fail && open != test::catalogue) return original(open, set, number, fallback);
    const char *own = !verdict.fail && set == 1 ? (*test::catalogue)(number) : nullptr;
    return const_cast<char *>(own != nullptr ? own : fallback);
}

int catclose(nl_catd open) noexcept {
    JUDGE(catclose);
    if (verdict.fail) return -1;
    if (open != test::catalogue) return original(open);
    --test::open_catalogues;
    return 0;
}

void openlog(const char *identity, int options, int facility) {
    test::log_identity = std::string(identity) + "/" + std::to_string(options) + "/" +
                         std::to_string(facility) + "/";
}
#define KEEP_LINE                                    \
    va_list arguments;                               \
    va_start(arguments, format);                     \
    char text[2048];                                 \
    vsnprintf(text, sizeof text, format, arguments); \
    va_end(arguments);                               \
    test::system_log().push_back(test::log_identity + std::to_string(priority) + "/" + text)

void syslog(int priority, const char *format, ...) {
    KEEP_LINE;
}
// What a fortified library calls.
[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int, const char *format, ...) {
    KEEP_LINE;
}
void closelog() {
    test::log_identity.clear();
}

// Looked up without a guarded static: the look-up itself may allocate. The thread sanitizer wants
// its own allocator to be called first of all.
#ifndef QVCL_TSAN
void *malloc(size_t size) noexcept {
    static void *(*original)(size_t);
    static bool looking;
    if (original == nullptr) {
        alignas(16) static std::array<char, 4096> early;
        static size_t used;
        if (looking) {
            void *block = early.data() + used;
            used += (size + 15) & ~size_t{15};
            return used <= early.size() ? block : nullptr;
        }
        looking = true;
        original = reinterpret_cast<decltype(original)>(dlsym(RTLD_NEXT, "malloc"));
        looking = false;
    }
    const bool fails =
        test::running != nullptr && OWN && test::judge("malloc", __builtin_return_address(0)).fail;
    return fails ? nullptr : original(size);
}
#endif

}  // extern "C"

namespace test {

// ---- Trace records

namespace {

const char *entry(const CL_TraceRing *ring, uint32_t index) {
    return reinterpret_cast<const char *>(ring + 1) +
           size_t{index} * (sizeof(CL_TraceEntry) + ring->entry_size);
}
// Entries of odd sizes are not aligned.
CL_TraceEntry entry_header(const CL_TraceRing *ring, uint32_t index) {
    CL_TraceEntry header;
    memcpy(&header, entry(ring, index), sizeof header);
    return header;
}

// The records in `entries` entries from index `at` on.
std::vector<Record> read_records(const CL_TraceRing *ring, uint32_t at, uint32_t entries) {
    std::vector<Record> result;
    while (entries > 0) {
        Record record;
        const uint32_t length = entry_header(ring, at).remaining;
        EXPECT_TRUE(length >= 1 && length <= entries) << "entry " << at << ": " << length;
        if (length < 1 || length > entries) break;
        for (uint32_t i = 0; i < length; i++, at = (at + 1) % ring->entry_count) {
            const CL_TraceEntry slice = entry_header(ring, at);
            const uint32_t flags = (i == 0 ? 1u : 0u) | (i == length - 1 ? 2u : 0u);
            EXPECT_EQ(slice.flags, flags) << "entry " << at;
            EXPECT_EQ(slice.remaining, length - i) << "entry " << at;
            const char *data = entry(ring, at) + sizeof slice;
            record.bytes.insert(record.bytes.end(), data, data + ring->entry_size);
        }
        const uint32_t bytes = record.head().length;
        EXPECT_EQ((bytes + ring->entry_size - 1) / ring->entry_size, length);
        record.bytes.resize(bytes);
        result.push_back(std::move(record));
        entries -= length;
    }
    return result;
}

}  // namespace

std::vector<Record> records(const CL_TraceRing *ring) {
    if (ring->wrapped == 0) {
        EXPECT_EQ(ring->oldest, 0u);
        return read_records(ring, 0, ring->next);
    }
    if ((entry_header(ring, ring->oldest).flags & CL_ENTRY_FIRST) == 0) return {};
    const uint32_t distance = (ring->next + ring->entry_count - ring->oldest) % ring->entry_count;
    return read_records(ring, ring->oldest, distance == 0 ? ring->entry_count : distance);
}

std::vector<Record> Tape::records() const {
    const CL_TraceRing *ring = CL_MainTable->library_ring;
    return read_records(ring, start_,
                        (ring->next + ring->entry_count - start_) % ring->entry_count);
}

std::vector<Record> Tape::records(uint8_t api) const {
    std::vector<Record> result = records();
    std::erase_if(result, [api](const Record &record) { return record.head().api != api; });
    return result;
}

std::ostream &operator<<(std::ostream &out, const Record &record) {
    const CL_TrcHead head = record.head();
    return out << "record of api " << int{head.api} << " phase " << int{head.phase} << " length "
               << head.length;
}

// ---- Log

std::vector<std::string> &raw_log() {
    static std::vector<std::string> lines;
    return lines;
}

void capture_log() {
    CL_SetLogCallbackFunction([](int, const char *line) {
        raw_log().emplace_back(line);
        return 0;
    });
    raw_log().clear();
}

std::vector<std::string> log_lines() {
    constexpr size_t kStamp = sizeof "2026/11/16 18:05:45:123.456 " - 1;
    std::vector<std::string> lines;
    for (const std::string &line : raw_log()) {
        EXPECT_GE(line.size(), kStamp);
        EXPECT_EQ(line.back(), '\n');
        lines.push_back(line.substr(kStamp, line.size() - kStamp - 1));
    }
    return lines;
}

// ---- Resources

std::vector<int> descriptors() {
    std::vector<int> open;
    DIR *directory = opendir("/proc/self/fd");
    while (const dirent *item = readdir(directory)) {
        const int number = atoi(item->d_name);
        if (item->d_name[0] != '.' && number != dirfd(directory)) open.push_back(number);
    }
    closedir(directory);
    std::sort(open.begin(), open.end());
    return open;
}

Balance Balance::now() {
    const CL_MainBlock &now = table();
    Balance balance;
    balance.counts = {
        {"live", now.used_queue.count},
        {"free", now.free_queue.count},
        {"listed", now.timer_list.count + now.child_list.count + now.priority_list.count +
                       now.pending_list.count + now.thread_list.count},
        {"library blocks", now.library_blocks.count},
        {"user blocks", now.user_blocks.count},
        {"library bytes", now.library_bytes},
        {"user bytes", now.user_bytes},
        {"catalogues", open_catalogues}};
    for (const CL_Queue &queue : now.kind_queues)
        balance.counts["kind " + std::to_string(&queue - now.kind_queues)] = queue.count;
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    for (int signal = 1; signal < NSIG; ++signal)
        if (sigismember(&mask, signal) == 1) balance.blocked_signals |= 1ULL << (signal - 1);
    balance.descriptors = test::descriptors();
    return balance;
}

std::ostream &operator<<(std::ostream &out, const Balance &balance) {
    return out << testing::PrintToString(balance.counts) << ", blocked signals 0x" << std::hex
               << balance.blocked_signals << std::dec << ", descriptors "
               << testing::PrintToString(balance.descriptors);
}

// ---- The library

uint32_t call_action(CL_Object *object, CL_Event *event, uint64_t action, uint64_t) {
    return (*reinterpret_cast<Action *>(action))(object, event);
}

uint32_t watch_readable(CL_Object *object, int fd, CL_ErrInfo *err) {
    const fd_set set = only(fd);
    return CL_SetFD(object, static_cast<uint32_t>(fd) + 1, &set, nullptr, nullptr, err);
}

void Library::refused(const char *what, int code, int module,
                      const std::function<int64_t()> &call) {
    SCOPED_TRACE(what);
    const auto objects = [] {
        std::string result;
        for (auto *at = static_cast<const CL_Object *>(table().used_queue.head); at != nullptr;
             at = static_cast<const CL_Object *>(at->link.next))
            result.append(reinterpret_cast<const char *>(at), sizeof *at);
        return result;
    };
    const Balance before = Balance::now();
    const std::string as_they_were = objects();
    err = kUntouched;
    EXPECT_EQ(call(), 0);
    EXPECT_THAT(err, FailsWith(code, module));
    EXPECT_EQ(Balance::now(), before);
    EXPECT_TRUE(objects() == as_they_were);
}

CL_Object *Library::watch(int fd, Action *action, uint32_t priority, uint64_t arg2) {
    CL_Object *object = create(CL_KIND_FD, call_action, address(action), arg2);
    EXPECT_NE(object, nullptr) << err;
    if (object == nullptr) return nullptr;
    EXPECT_EQ(watch_readable(object, fd, &err), 1u) << err;
    EXPECT_EQ(priority == 0 ? 1u : CL_AddEventList(object, priority, &err), 1u) << err;
    return object;
}

CL_Object *Library::adopt(CL_Object *child, pid_t pid) {
    child->child.pid = static_cast<uint32_t>(pid);
    cl_StatusChange_M(child, CL_STATUS_READY, 0, "test", 1);
    EXPECT_EQ(CL_AddEventList_M(child, 20, &err, 1, "test", 1), 1u) << err;
    return child;
}

pid_t child_process(const std::function<int()> &life) {
    const pid_t parent = getpid(), pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);  // which has died before
    if (life) _exit(life());
    for (;;)
        pause();
}

pid_t ended_process(int status) {
    const pid_t pid = child_process([=] { return status; });
    siginfo_t info;
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    return pid;
}

size_t sorted_place(const std::vector<int64_t> &keys, int64_t key) {
    size_t low = 0, high = keys.size();
    while (low < high) {
        const size_t middle = (low + high - 1) / 2;
        if (keys[middle] == key) return middle + 1;
        if (keys[middle] < key) low = middle + 1;
        if (keys[middle] > key) high = middle;
    }
    return low;
}

// ---- The rest

Random::Random() {
    const char *given = getenv("QVCL_TEST_SEED");
    const uint64_t seed = given != nullptr ? strtoull(given, nullptr, 0) : std::random_device{}();
    engine_.seed(seed);
    std::cout << "QVCL_TEST_SEED=" << seed << " repeats this run" << std::endl;
}

Pipe::Pipe() {
    EXPECT_EQ(pipe2(ends_, O_NONBLOCK | O_CLOEXEC), 0);
}

Pipe::~Pipe() {
    close(ends_[0]);
    close(ends_[1]);
}

void set_env(const char *name, const char *value) {
    EXPECT_EQ(value != nullptr ? setenv(name, value, 1) : unsetenv(name), 0);
}

}  // namespace test

std::ostream &operator<<(std::ostream &out, const CL_ErrInfo &error) {
    return out << "error " << error.err << " detail " << error.detail << " module " << error.module
               << " line " << error.line << " version " << error.version;
}
