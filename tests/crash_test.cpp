// A dump at the crash: processes that crash in many ways, and what is left of them. Each ends as it
// would have without, and the dump can be read and says why.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <malloc.h>
#include <qvcl/qvcl.h>
#include <qvcl/recorder.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <csetjmp>
#include <csignal>
#include <functional>
#include <thread>

#include "tests/folder.h"
#include "tests/support.h"
#include "tools/header.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

int *volatile nowhere = reinterpret_cast<int *>(8);
uint32_t (*volatile no_function)() = nullptr;
sigjmp_buf back;

void store() {
    *nowhere = 1;
}

int overflow(volatile char *above) {
    volatile char room[4096];
    room[0] = above[0];
    return nowhere == nullptr ? 0 : overflow(room) + room[0];
}
void overflow() {
    volatile char room = 0;
    overflow(&room);
}

uint32_t calls_null(CL_Object *, CL_Event *, uint64_t, uint64_t) {
    return no_function();
}
void crash_in_callback() {
    int ends[2];
    fd_set set;
    FD_ZERO(&set);
    ASSERT_EQ(pipe(ends), 0);
    FD_SET(ends[1], &set);
    CL_Object *object = CL_CreateFD(CL_KIND_FD, calls_null, 0, 0, nullptr);
    CL_SetFD(object, static_cast<uint32_t>(ends[1]) + 1, nullptr, &set, nullptr, nullptr);
    CL_AddEventList(object, 20, nullptr);
    CL_EventLoop(nullptr);
}

// malloc finds the size of the heap's last piece impossible, and aborts with its lock held.
[[maybe_unused]] void corrupt_heap() {
    auto *last = static_cast<char *>(malloc(100000));
    memset(last, 0xff, malloc_usable_size(last) + 8);
    free(malloc(100000));
}

void send_signal(int signal) {
    if (fork() == 0) {
        kill(getppid(), signal);
        _exit(0);
    }
    wait(nullptr);
}

// A system call of the handler's, its last one mostly, becomes a signal, or fails.
void trap(uint32_t call = SYS_fdatasync, uint32_t action = SECCOMP_RET_TRAP) {
    sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                             BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
                             BPF_STMT(BPF_RET | BPF_K, action),
                             BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog filter = {4, program};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter);
}

void limit_files(rlim_t size) {
    const rlimit limit = {size, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
}

void limit_descriptors() {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &limit);
}

template <class T>
void mislead(T *&pointer) {
    pointer = reinterpret_cast<T *>(0x1000);
}

// The handler meets this.
std::function<void()> with(const test::Fault &fault,
                           const std::function<void()> &before = nullptr) {
    return [=] {
        test::Fault of_all = fault;
        of_all.from_anyone = true;
        const test::Plan plan(of_all);
        if (before) before();
        store();
    };
}
template <class Change>
std::function<void()> after(Change change) {
    return [=] { change(*CL_MainTable), store(); };
}

std::atomic<bool> second_crash;
void crash_twice() {
    std::thread([] {
        while (!second_crash) {
        }
        store();
    }).detach();
}

enum class Address { none, low, stack };

struct Case {
    const char *name;
    std::function<void()> crash = store;
    std::function<void()> before = nullptr;  // done before the handlers are there
    int signal = SIGSEGV;                    // that ends it; 0: it exits with 0
    int code = SEGV_MAPERR;
    Address address = Address::low;
    const char *problem = nullptr;  // what `check` finds
    std::vector<std::string> incomplete = {};
    bool dumps = true;
};

void jump(int) {
    siglongjmp(back, 1);
}
void crash_and_jump() {
    static volatile int jumps;
    sigsetjmp(back, 1);
    jumps = jumps + 1;
    jumps < 3 ? store() : _exit(0);
}
void exit_well(int signal, siginfo_t *info, void *context) {
    _exit(signal == SIGSEGV && info->si_code == SEGV_MAPERR && context != nullptr ? 0 : 1);
}
void take_with_siginfo() {
    struct sigaction action = {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = exit_well;
    sigaction(SIGSEGV, &action, nullptr);
}
void block_segv() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGSEGV);
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

const Case kCases[] = {
    {.name = "a store to nowhere"},
    {.name = "a call of null in a callback", .crash = crash_in_callback},
    {.name = "abort",
     .crash = abort,
     .signal = SIGABRT,
     .code = SI_TKILL,
     .address = Address::none},
#ifndef __SANITIZE_ADDRESS__  // which stops both before they crash
    {.name = "in malloc",
     .crash = corrupt_heap,
     .signal = SIGABRT,
     .code = SI_TKILL,
     .address = Address::none},
    {.name = "a ring that ends nowhere",
     .crash =
         [] {
             CL_TraceRing &ring = *CL_MainTable->library_ring;
             ring.entry_count = 1 << 20;
             ring.header.size =
                 sizeof ring + ring.entry_count * (ring.entry_size + sizeof(CL_TraceEntry));
             store();
         },
     .problem = "LIBTRC*** is missing",
     .incomplete = {"library ring"}},
#endif
    {.name = "a trap that does not come again",
     .crash = [] { raise(SIGTRAP); },
     .signal = SIGTRAP,
     .code = SI_TKILL,
     .address = Address::none},
    {.name = "stack overflow", .crash = [] { overflow(); }, .address = Address::stack},
    {.name = "another thread", .crash = [] { std::thread(store).join(); }},
    {.name = "stack overflow in another thread",
     .crash =
         [] { std::thread([] { CL_CrashStack(nullptr) != 0u ? overflow() : _exit(9); }).join(); },
     .code = SEGV_ACCERR,
     .address = Address::stack},
    {.name = "sent by another process",
     .crash = [] { send_signal(SIGSEGV); },
     .code = SI_USER,
     .address = Address::none},
    {.name = "a ring that is nowhere",
     .crash = [] { mislead(CL_MainTable->library_ring), store(); },
     .problem = "LIBTRC*** is missing",
     .incomplete = {"library ring"}},
    {.name = "an object table that is nowhere",
     .crash = [] { mislead(CL_MainTable->descriptor_table), store(); },
     .problem = "FDTBL*** is missing",
     .incomplete = {"tables"}},
    {.name = "a main table that is nowhere", .crash = [] { mislead(CL_MainTable), store(); }},
    {.name = "a second crash in the handler", .crash = [] { trap(), store(); }},
    {.name = "the same crash in the handler",
     .crash = [] { trap(), raise(SIGSYS); },
     .signal = SIGSYS,
     .code = SI_TKILL,
     .address = Address::none},
    {.name = "no descriptor left", .crash = [] { limit_descriptors(), store(); }},
    {.name = "a full disk",
     .crash = [] { limit_files(50000), store(); },
     .problem = "the file ends"},
    {.name = "a disk that was full before",
     .crash = [] { limit_files(0), store(); },
     .dumps = false},
    {.name = "a handler that jumps",
     .crash = crash_and_jump,
     .before = [] { signal(SIGSEGV, jump); },
     .signal = 0},
    {.name = "a full disk and a handler that jumps",
     .crash = [] { limit_files(50000), crash_and_jump(); },
     .before = [] { signal(SIGSEGV, jump); },
     .signal = 0,
     .problem = "the file ends"},
    {.name = "a handler that exits", .before = take_with_siginfo, .signal = 0},
    {.name = "a handler that is called once", .before = [] { sysv_signal(SIGSEGV, [](int) {}); }},
    {.name = "sent, but ignored before",
     .crash = [] { send_signal(SIGSEGV), _exit(0); },
     .before = [] { signal(SIGSEGV, SIG_IGN); },
     .signal = 0,
     .dumps = false},
    {.name = "a fault, but ignored before", .before = [] { signal(SIGSEGV, SIG_IGN); }},
    {.name = "abort, but ignored before",
     .crash = abort,
     .before = [] { signal(SIGABRT, SIG_IGN); },
     .signal = SIGABRT,
     .code = SI_TKILL,
     .address = Address::none},
    // clang-format off
    {.name = "raised, but ignored before", .crash = [] { raise(SIGTRAP), _exit(0); },
     .before = [] { signal(SIGTRAP, SIG_IGN); }, .signal = 0, .code = SI_TKILL, .address = Address::none},
    {.name = "a signal that cannot be sent again",
     .crash = [] { trap(SYS_rt_tgsigqueueinfo, SECCOMP_RET_ERRNO | EPERM), store(); }},
    {.name = "another process's signal meanwhile", .crash = with({.call = "ftruncate",
     .before = [] { send_signal(SIGSEGV); }})},
    {.name = "a second thread's crash meanwhile", .crash = with({.call = "ftruncate",
     .before = [] { second_crash = true, usleep(20'000); }}, crash_twice)},
    {.name = "no file", .crash = with({.call = "open", .error = EACCES}), .dumps = false},
    {.name = "no descriptor at all", .crash = with({.call = "open", .error = EMFILE, .times = test::kForever}),
     .dumps = false},
    {.name = "a file that cannot be emptied", .crash = with({.call = "ftruncate", .error = EIO}), .dumps = false},
    {.name = "a file without a beginning", .crash = with({.call = "lseek", .error = EIO, .times = test::kForever}),
     .dumps = false},
    {.name = "a look that fails", .crash = with({.call = "lseek", .error = EIO, .nth = 2}),
     .problem = "LIBTRC*** is missing", .incomplete = {"library ring"}},
    {.name = "a file that cannot be read", .crash = with({.call = "read", .error = EIO, .times = test::kForever}),
     .problem = "LIBTRC*** is missing", .incomplete = {"library ring", "tables"}},
    {.name = "a write that is interrupted", .crash = with({.call = "write", .error = EINTR, .nth = 3})},
    {.name = "a write in pieces", .crash = with({.call = "write", .nth = 3, .times = test::kForever,
     .at_most = 999})},
    {.name = "a disk that breaks", .crash = with({.call = "fdatasync", .error = EIO})},
    {.name = "a dump that cannot be placed", .crash = with({.call = "rename", .error = EACCES}), .dumps = false},
    {.name = "a piece that cannot be placed", .crash = with({.call = "link",
     .error = EACCES}, [] { limit_files(50000); }), .dumps = false},
    {.name = "a ring that moves", .crash = with({.call = "ftruncate", .times = test::kForever,
     .before = [] { CL_DeleteFD(nullptr, nullptr); }}), .incomplete = {"library ring", "tables"}},
    {.name = "a ring of another kind",
     .crash = after([](CL_MainBlock &main) { main.library_ring->header.eye[0] = 'x'; }),
     .problem = "LIBTRC*** is missing", .incomplete = {"library ring"}},
    {.name = "a ring that was elsewhere",
     .crash = after([](CL_MainBlock &main) { ++main.library_ring->header.address; }),
     .problem = "LIBTRC*** is missing", .incomplete = {"library ring"}},
    {.name = "a ring of a wrong size", .crash = after([](CL_MainBlock &main) { ++main.library_ring->entry_count; }),
     .problem = "LIBTRC*** is missing", .incomplete = {"library ring"}},
    {.name = "the application's ring is nowhere", .crash = after([](CL_MainBlock &main) { mislead(main.user_ring); }),
     .problem = "USRTRC*** is missing", .incomplete = {"user ring"}},
    {.name = "an object table of another kind",
     .crash = after([](CL_MainBlock &main) { static_cast<CL_TableHeader *>(static_cast<void *>(main.descriptor_table))->eye[0] = 'x'; }),
     .problem = "FDTBL*** is missing", .incomplete = {"tables"}},
    {.name = "too many objects", .crash = after([](CL_MainBlock &main) { main.capacity = UINT32_MAX; }),
     .problem = "FDTBL*** is missing", .incomplete = {"tables"}},
    {.name = "fewer objects than there are", .crash = after([](CL_MainBlock &main) { --main.capacity; }),
     .problem = "FDTBL*** is missing", .incomplete = {"tables"}},
#ifdef __x86_64__
    {.name = "a crash before there is a file", .crash = [] { trap(SYS_unlink), store(); }, .dumps = false},
    {.name = "an address that is none",
     .crash = [] { nowhere = reinterpret_cast<int *>(UINT64_C(1) << 63), store(); },
     .code = SI_KERNEL, .address = Address::none},
#endif
    // clang-format on
    {.name = "a fault, but blocked", .before = block_segv, .dumps = false},
};

// The life of a process that crashes.
void live(const Case &test) {
    constexpr int kFatal[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGSYS, SIGTRAP};
    const rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    for (const int fatal : kFatal)
        signal(fatal, SIG_DFL);
    if (test.before) test.before();
    CL_ErrInfo err;
    if (CL_Init(20, nullptr, &err) == 0 || CL_RecordCrashes("first", &err) == 0 ||
        CL_RecordCrashes("dump", &err) == 0)
        _exit(99);
    test.crash();
    _exit(98);
}

// Exit status and output of a command.
std::pair<int, std::string> run(const std::string &command) {
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    std::string text(1 << 20, '\0');
    text.resize(fread(text.data(), 1, text.size(), pipe));
    const int status = pclose(pipe);
    return {WEXITSTATUS(status), text};
}

void expect_header(const Case &test, pid_t pid, time_t started) {
    const std::string dump = test::bytes_of("dump");
    const auto header = trace_reader::HeaderLines::parse(dump.substr(0, dump.find('\0')));
    EXPECT_EQ(header.reason, "fatal signal");
    EXPECT_EQ(header.pid, pid);
    EXPECT_LT(header.time.value_or(0) / 1000000 - static_cast<uint64_t>(started), 5u);
    EXPECT_THAT(header.command, HasSubstr("crash_test"));
    ASSERT_THAT(header.modules, Not(IsEmpty()));
    EXPECT_EQ(header.modules.front().path, std::filesystem::read_symlink("/proc/self/exe"));
    EXPECT_EQ(header.incomplete, test.incomplete);
    ASSERT_TRUE(header.signal);
    EXPECT_EQ(header.signal->code, test.code);
    EXPECT_EQ(header.signal->address.has_value(), test.address != Address::none);
    if (test.address == Address::low) {
        EXPECT_LE(header.signal->address, 8u);
    }
    const bool other = strstr(test.name, "another thread") != nullptr;
    EXPECT_EQ(header.signal->thread == static_cast<uint64_t>(pid), !other);
    if (test.signal != 0) {
        EXPECT_EQ(header.signal->number, static_cast<uint64_t>(test.signal));
        EXPECT_EQ(header.signal->name, std::string("SIG") + sigabbrev_np(test.signal));
    }
}

TEST(Crash, TheProcessEndsAsItWouldHaveAndLeavesADump) {
    const test::Folder folder;
    std::filesystem::current_path(folder.path(""));
    for (const Case &test : kCases) {
        SCOPED_TRACE(test.name);
        const time_t started = time(nullptr);
        const pid_t pid = fork();
        if (pid == 0) live(test);
        int status;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : 0, test.signal);
        EXPECT_TRUE(WIFSIGNALED(status) || status == 0) << WEXITSTATUS(status);
        ASSERT_EQ(folder.files(), test.dumps ? 1u : 0u);
        if (!test.dumps) continue;
        expect_header(test, pid, started);
        const auto [check, problems] = run(QVCL_TRACE " check dump");
        EXPECT_EQ(check, test.problem != nullptr ? 1 : 0);
        EXPECT_THAT(problems,
                    HasSubstr(test.problem != nullptr ? test.problem : "whole and consistent"));
        EXPECT_EQ(run(QVCL_TRACE " show dump").first, check);
        EXPECT_EQ(run(QVCL_TRACE " report dump").first, check);
        std::filesystem::remove("dump");
    }
}

// A whole dump takes the last one's place, a piece does not; a link is not followed.
TEST(Crash, TheLastDumpIsReplacedByAWholeOneOnly) {
    const test::Folder folder;
    std::filesystem::current_path(folder.path(""));
    for (const bool whole : {false, true}) {
        folder.put("target", "other");
        std::filesystem::create_symlink("target", "dump");
        const pid_t pid = fork();
        if (pid == 0) {
            live({.name = "",
                  .crash = [=] { limit_files(whole ? RLIM_INFINITY : 50000), store(); }});
        }
        ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
        EXPECT_EQ(test::bytes_of("target"), "other");
        EXPECT_EQ(std::filesystem::is_symlink("dump"), !whole);
        EXPECT_EQ(folder.files(), 2u);
        std::filesystem::remove("dump");
    }
}

// However far a full disk lets it come, what is no text that can be read is not left.
TEST(Crash, WithoutRoomForItsTextNothingIsLeft) {
    const test::Folder folder;
    std::filesystem::current_path(folder.path(""));
    int writes = 0;
    while (folder.files() == 0) {
        ASSERT_LT(++writes, 20);
        const pid_t pid = fork();
        if (pid == 0) {
            live({.name = "",
                  .crash = with(
                      {.call = "write", .error = ENOSPC, .nth = writes, .times = test::kForever})});
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_EQ(WTERMSIG(status), SIGSEGV);
    }
    EXPECT_THAT(test::bytes_of("dump"), HasSubstr("signal: 11 SIGSEGV\n"));
    EXPECT_GT(writes, 6);
}

TEST(Crash, StacksGoWithTheirThreads) {
    const auto mappings = [] {
        return std::ranges::count(test::bytes_of("/proc/self/maps"), '\n');
    };
    const auto life = [](bool replaces) {
        static char own[1 << 16];
        EXPECT_EQ(CL_CrashStack(nullptr), 1u);
        EXPECT_EQ(CL_CrashStack(nullptr), 1u) << "a second time";
        stack_t stack = {.ss_sp = own, .ss_flags = 0, .ss_size = sizeof own};
        if (replaces) sigaltstack(&stack, nullptr);
    };
    std::thread(life, false).join();
    const auto before = mappings();
    for (int i = 0; i < 50; ++i)
        std::thread(life, i % 2 == 0).join();
    EXPECT_LT(mappings(), before + 25) << "less than one for each";
    CL_ErrInfo err;
    const test::Plan plan({.call = "mmap", .error = ENOMEM, .nth = 2});
    EXPECT_EQ(CL_RecordCrashes("/tmp/qvcl-none", &err), 0u) << "no stack";
    EXPECT_THAT(err, test::FailsWith(ENOMEM, CL_MODULE_RECORDER));
}

TEST(Crash, ARelativePathNeedsAFolder) {
    const test::Folder folder;
    std::filesystem::create_directory(folder.path("x"));
    std::filesystem::current_path(folder.path("x"));
    std::filesystem::remove(folder.path("x"));
    CL_ErrInfo err;
    EXPECT_EQ(CL_RecordCrashes("x", &err), 0u);
    EXPECT_THAT(err, test::FailsWith(ENOENT, CL_MODULE_RECORDER));
}

TEST(Description, IsCutAtTheEndOfALineAndEscapesWhatIsFromOutside) {
    const size_t length = CL_DescribeProcess("a\\b\x7f\n", nullptr, 0);
    std::vector<char> all(length + 1);
    ASSERT_EQ(CL_DescribeProcess("a\\b\x7f\n", all.data(), all.size()), length);
    const std::string text = all.data();
    EXPECT_EQ(text.size(), length);
    EXPECT_EQ(text.substr(0, 21), "reason: a\\\\b\\x7f\\x0a\n");
    EXPECT_EQ(trace_reader::HeaderLines::parse(text).reason, "a\\b\x7f\n");
    for (size_t size = 1; size <= length; ++size) {
        std::vector<char> part(size + 1, '?');
        EXPECT_EQ(CL_DescribeProcess("a\\b\x7f\n", part.data(), size), length);
        const std::string_view cut = part.data();
        EXPECT_TRUE(cut.size() < size && (cut.empty() || cut.back() == '\n'));
        EXPECT_EQ(part[size], '?');
    }
}

}  // namespace
