// What a process is comes from /proc, its memory from process_vm_readv, which changes nothing in
// it. A refusal is told in one line that says whose it was. The number of a process that ended may
// be given to another: both have begun at different times.
#include "tools/process.h"

#include <dirent.h>
#include <elf.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace trace_reader {

namespace {

constexpr size_t kLargestFile = 64 << 20;  // of /proc
constexpr int kPatience = 1000;            // milliseconds for a thread to stop
constexpr uint64_t kKernelThread = 0x00200000;
enum StatField {
    kState = 0,
    kFlags = 6,
    kUser = 11,
    kSystem = 12,
    kStart = 19
};  // of /proc/PID/stat, behind the name

std::string place(pid_t pid, std::string_view name) {
    return (Text() << "/proc/" << pid << '/' << name).str();
}

// The file's bytes, and errno; 0 when it could be read.
std::string contents(const std::string &path, int *error = nullptr) {
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ssize_t got = fd < 0 ? -1 : 0;
    char piece[65536];
    while (fd >= 0 && text.size() < kLargestFile && (got = read(fd, piece, sizeof piece)) > 0)
        text.append(piece, static_cast<size_t>(got));
    if (error != nullptr) *error = got < 0 ? errno : 0;
    if (fd >= 0) close(fd);
    return text;
}

std::string_view word_of(std::string_view &text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(word.size());
    return word;
}

// A field of the process's, or thread's, line in `stat`; empty when there is none.
std::string stat_field(const std::string &path, int field) {
    const std::string text = contents(path);
    const size_t end = text.rfind(')');  // the name may hold anything
    if (end == std::string::npos) return {};
    std::string_view rest = std::string_view(text).substr(end + 1);
    while (field-- > 0)
        word_of(rest);
    return std::string(word_of(rest));
}

uint64_t hex_number(std::string_view text) {
    uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return value;
}

// "BEGIN-END rwxp OFFSET DEVICE INODE   PATH"
Mapping mapping_of(std::string_view line) {
    Mapping mapping;
    const std::string_view range = word_of(line), rights = word_of(line);
    mapping.begin = hex_number(range.substr(0, range.find('-')));
    mapping.end = hex_number(range.substr(std::min(range.find('-') + 1, range.size())));
    mapping.writable = rights.starts_with("rw");
    mapping.offset = hex_number(word_of(line));
    word_of(line);
    word_of(line);
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    mapping.path = line;
    return mapping;
}

std::vector<pid_t> threads_of(pid_t pid) {
    std::vector<pid_t> threads;
    const std::unique_ptr<DIR, int (*)(DIR *)> folder(opendir(place(pid, "task").c_str()),
                                                      closedir);
    while (const dirent *entry = folder != nullptr ? readdir(folder.get()) : nullptr) {
        if (const int thread = atoi(entry->d_name); thread > 0) threads.push_back(thread);
    }
    return threads;
}

std::string user_name(uid_t user) {
    const passwd *entry = getpwuid(user);
    return entry != nullptr ? entry->pw_name : (Text() << user).str();
}

}  // namespace

uint64_t now() {
    timeval time;
    gettimeofday(&time, nullptr);
    return static_cast<uint64_t>(time.tv_sec) * 1000000 + static_cast<uint64_t>(time.tv_usec);
}

Process::Process(pid_t pid) : pid_(pid) {
    failure_ = open();
}

// Whose refusal it was, when the kernel said no.
std::string Process::refusal() const {
    struct stat status;
    const std::string tracer = contents(place(pid_, "status"));
    const uid_t user = stat(place(pid_, "").c_str(), &status) == 0 ? status.st_uid : getuid();
    const std::string yama = contents("/proc/sys/kernel/yama/ptrace_scope");
    if (user != geteuid()) {
        // One with more rights than its user has counts as the superuser's.
        return "not permitted: it belongs to " + user_name(user) +
               "; run this as that user, or with CAP_SYS_PTRACE";
    }
    if (!yama.empty() && yama.front() != '0') {
        return "not permitted: kernel.yama.ptrace_scope is " + yama.substr(0, yama.find('\n')) +
               "; run this with CAP_SYS_PTRACE, or set it to 0";
    }
    return "not permitted: it has rights that you have not, or is guarded by the system; run this "
           "with CAP_SYS_PTRACE";
}

std::string Process::open() {
    int error = 0;
    const std::string stat = place(pid_, "stat");
    start_ = stat_field(stat, kStart);
    if (start_.empty()) return "no such process";
    if ((strtoull(stat_field(stat, kFlags).c_str(), nullptr, 10) & kKernelThread) != 0) {
        return "a thread of the kernel, not a process";
    }
    if (stat_field(stat, kState) == "Z") {
        return "it has ended already, and waits to be reaped by its parent (a zombie)";
    }
    uint8_t ident[EI_NIDENT] = {};
    const int exe = ::open(place(pid_, "exe").c_str(), O_RDONLY | O_CLOEXEC);
    if (exe < 0) {
        return errno == EACCES || errno == EPERM ? refusal() : "its executable cannot be read";
    }
    const ssize_t got = ::read(exe, ident, sizeof ident);
    close(exe);
    if (got == sizeof ident && ident[EI_CLASS] != ELFCLASS64) return "a 32-bit process";
    command_ = contents(place(pid_, "cmdline"));
    while (!command_.empty() && command_.back() == '\0')
        command_.pop_back();
    std::ranges::replace(command_, '\0', ' ');
    const std::string maps = contents(place(pid_, "maps"), &error);
    if (error == EACCES || error == EPERM) return refusal();
    look_again();
    for (const Mapping &mapping : mappings_) {
        uint8_t byte;
        errno = 0;
        if (mapping.writable && read(mapping.begin, &byte, 1) == 1) return {};
        if (errno == EPERM) return refusal();
    }
    return "it has ended";
}

std::string Process::failure() const {
    if (!failure_.empty()) return failure_;
    const std::string start = stat_field(place(pid_, "stat"), kStart);
    if (start == start_) {
        const std::string state = stat_field(place(pid_, "stat"), kState);
        // Between the two looks it may have vanished.
        return state.empty() || state == "Z" || state == "X" ? "it has ended" : "";
    }
    return start.empty() ? "it has ended" : "it has ended, and its number is another's now";
}

void Process::look_again() {
    mappings_.clear();
    const std::string text = contents(place(pid_, "maps"));
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        mappings_.push_back(mapping_of(line));
    }
}

uint64_t Process::read(uint64_t address, void *to, uint64_t length) const {
    uint64_t done = 0;
    while (done < length) {
        // The kernel stops at the first page that it cannot read.
        const iovec here = {static_cast<uint8_t *>(to) + done, length - done};
        const iovec there = {reinterpret_cast<void *>(address + done), length - done};
        const ssize_t got = process_vm_readv(pid_, &here, 1, &there, 1, 0);
        if (got <= 0) break;
        done += static_cast<uint64_t>(got);
    }
    return done;
}

bool Process::rests() const {
    const std::vector<pid_t> threads = threads_of(pid_);
    return std::ranges::none_of(threads, [&](pid_t thread) {
        const std::string name = (Text() << "task/" << thread << "/stat").str();
        return stat_field(place(pid_, name), kState) == "R";
    });
}

uint64_t Process::used() const {
    uint64_t ticks = 0;
    for (const int field : {kUser, kSystem})
        ticks += strtoull(stat_field(place(pid_, "stat"), field).c_str(), nullptr, 10);
    return ticks * 1000000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
}

// Threads may begin while others are being stopped: once around without a new one, and all are.
Hold::Hold(pid_t pid) : pid_(pid) {
    bool found = true;
    while (found && failure_.empty()) {
        found = false;
        for (const pid_t thread : threads_of(pid)) {
            if (std::ranges::find(threads_, thread, &Thread::id) != threads_.end()) continue;
            found = seize(thread) || found;
        }
        for (Thread &thread : threads_) {
            if (!thread.stopped && failure_.empty() && !wait(thread)) {
                failure_ = "a thread of it cannot be stopped now";
            }
        }
    }
    if (threads_.empty() && failure_.empty()) failure_ = "it has ended";
}

bool Hold::seize(pid_t thread) {
    if (ptrace(PTRACE_SEIZE, thread, nullptr, nullptr) == 0 &&
        ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr) == 0) {
        threads_.push_back({thread, false, 0});
        return true;
    }
    if (errno == EPERM) {
        const std::string status = contents(place(pid_, "status"));
        const size_t at = status.find("TracerPid:\t");
        const int tracer = at != std::string::npos ? atoi(&status[at + 11]) : 0;
        failure_ =
            tracer != 0
                ? (Text() << "cannot be stopped: process " << tracer << " traces it already").str()
                : "cannot be stopped: not permitted";
    }
    return false;  // with another error it has ended
}

// A thread that is about to get a signal stops there first; the signal is handed on at the end.
bool Hold::wait(Thread &thread) {
    for (int i = 0; i < kPatience * 10; ++i) {
        int status = 0;
        const pid_t changed = waitpid(thread.id, &status, __WALL | WNOHANG);
        if (changed < 0 || (changed > 0 && !WIFSTOPPED(status))) return true;  // it has ended
        if (changed > 0) {
            thread.stopped = true;
            thread.signal = status >> 16 == PTRACE_EVENT_STOP ? 0 : WSTOPSIG(status);
            return true;
        }
        usleep(i < 20 ? 20 : 100);
    }
    return false;
}

Hold::~Hold() {
    for (const Thread &thread : threads_) {
        if (thread.stopped) {
            ptrace(PTRACE_DETACH, thread.id, nullptr, static_cast<intptr_t>(thread.signal));
        }
    }
}

}  // namespace trace_reader
