// What a process is comes from /proc, its memory from process_vm_readv, which changes nothing in
// it. A refusal is told in one line that says whose it was. The number of a process that ended may
// be given to another: both have begun at different times.
#include "tools/process.h"

#include <dirent.h>
#include <elf.h>
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
#include <fstream>
#include <memory>
#include <sstream>

namespace trace_reader {

namespace {

constexpr std::chrono::seconds kPatience(1);  // for all threads to stop
constexpr uint64_t kKernelThread = 0x00200000;

std::string place(pid_t pid, std::string_view name) {
    return (Text() << "/proc/" << pid << '/' << name).str();
}

// The file's bytes; none when it cannot be read.
std::string contents(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

std::string_view word_of(std::string_view &text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(word.size());
    return word;
}

// What /proc says of a process, or a thread, in one line; all zero when there is none.
struct Stat {
    char state;
    uint64_t flags, user, system, start;  // the latter in ticks
};

Stat stat_of(const std::string &path) {
    Stat stat{};
    const std::string text = contents(path);
    std::istringstream fields(text.substr(text.rfind(')') + 1));  // the name may hold anything
    std::string skipped;
    const auto skip = [&](int count) {
        while (count-- > 0)
            fields >> skipped;
    };
    fields >> stat.state;
    skip(5);
    fields >> stat.flags;
    skip(4);
    fields >> stat.user >> stat.system;
    skip(6);
    fields >> stat.start;
    return stat;
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
    return entry != nullptr ? entry->pw_name : std::to_string(user);
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
    struct stat status = {};
    status.st_uid = geteuid();
    stat(place(pid_, "").c_str(), &status);
    if (status.st_uid != geteuid()) {
        // One with more rights than its user has counts as the superuser's.
        return "not permitted: it belongs to " + user_name(status.st_uid) +
               "; run this as that user, or with CAP_SYS_PTRACE";
    }
    const int yama = atoi(contents("/proc/sys/kernel/yama/ptrace_scope").c_str());
    if (yama != 0) {
        return "not permitted: kernel.yama.ptrace_scope is " + std::to_string(yama) +
               "; run this with CAP_SYS_PTRACE, or set it to 0";
    }
    return "not permitted: it has rights that you have not, or is guarded by the system; run this "
           "with CAP_SYS_PTRACE";
}

std::string Process::open() {
    const Stat stat = stat_of(place(pid_, "stat"));
    start_ = stat.start;
    if (stat.state == 0) return "no such process";
    if ((stat.flags & kKernelThread) != 0) return "a thread of the kernel, not a process";
    if (stat.state == 'Z') {
        return "it has ended already, and waits to be reaped by its parent (a zombie)";
    }
    char ident[EI_NIDENT] = {};
    std::ifstream exe(place(pid_, "exe"), std::ios::binary);
    if (!exe) return errno == EACCES ? refusal() : "its executable cannot be read";
    exe.read(ident, sizeof ident);
    if (ident[EI_CLASS] == ELFCLASS32) return "a 32-bit process";
    command_ = contents(place(pid_, "cmdline"));
    command_.erase(command_.find_last_not_of('\0') + 1);
    std::ranges::replace(command_, '\0', ' ');
    look_again();
    // Looking at its memory needs more rights than all of the above.
    errno = 0;
    const bool readable = std::ranges::any_of(mappings_, [&](const Mapping &mapping) {
        return mapping.writable && get<uint8_t>(mapping.begin);
    });
    if (readable) return {};
    return errno == EPERM ? refusal() : "it has ended";
}

std::string Process::failure() const {
    if (!failure_.empty()) return failure_;
    const Stat stat = stat_of(place(pid_, "stat"));
    if (stat.state != 0 && stat.start != start_) {
        return "it has ended, and its number is another's now";
    }
    const bool ended = stat.state == 0 || stat.state == 'Z' || stat.state == 'X';
    return ended ? "it has ended" : "";
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
        return stat_of(place(pid_, name)).state == 'R';
    });
}

uint64_t Process::used() const {
    const Stat stat = stat_of(place(pid_, "stat"));
    return (stat.user + stat.system) * 1000000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
}

// Threads may begin while others are being stopped: once around without a new one, and all are.
Hold::Hold(pid_t pid) : until_(std::chrono::steady_clock::now() + kPatience) {
    bool found = true;
    while (found && failure_.empty()) {
        found = false;
        for (const pid_t thread : threads_of(pid)) {
            if (std::ranges::find(threads_, thread, &Thread::id) != threads_.end()) continue;
            found = seize(thread) || found;
        }
        for (Thread &thread : threads_)
            wait(thread);
    }
    if (threads_.empty() && failure_.empty()) failure_ = "it has ended";
}

bool Hold::seize(pid_t thread) {
    if (ptrace(PTRACE_SEIZE, thread, nullptr, nullptr) == 0) {
        ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr);
        threads_.push_back({thread, false, 0});
        return true;
    }
    if (errno == EPERM) {
        constexpr std::string_view kTracer = "TracerPid:\t";
        const std::string status = contents(place(thread, "status")).append(kTracer);
        const int tracer = atoi(&status[status.find(kTracer) + kTracer.size()]);
        failure_ =
            tracer != 0
                ? (Text() << "cannot be stopped: process " << tracer << " traces it already").str()
                : "cannot be stopped: not permitted";
    }
    return false;  // with another error it has ended
}

// A thread that is about to get a signal stops there first; the signal is handed on at the end.
void Hold::wait(Thread &thread) {
    for (int i = 0; !thread.stopped; ++i) {
        if (std::chrono::steady_clock::now() > until_) {
            failure_ = "a thread of it cannot be stopped now";
            return;
        }
        int status = 0;
        if (waitpid(thread.id, &status, __WALL | WNOHANG) == 0) {
            usleep(i < 20 ? 20 : 100);
            continue;
        }
        thread.stopped = true;  // or it has ended
        thread.signal = status >> 16 == PTRACE_EVENT_STOP ? 0 : WSTOPSIG(status);
    }
}

Hold::~Hold() {
    for (const Thread &thread : threads_)
        ptrace(PTRACE_DETACH, thread.id, nullptr, static_cast<intptr_t>(thread.signal));
}

}  // namespace trace_reader
