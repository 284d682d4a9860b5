// A dump at the crash: what is in memory when a fatal signal comes, in the form of CL_TRC_Out.
//
// The handler must not trust anything: the heap may be corrupt, its lock held by the thread that it
// interrupted, pointers overwritten, the disk full. So it makes system calls only, and of those the
// ones that a handler may make. What needs more (modules, command line, absolute path) is prepared
// beforehand and then write-protected. A block is written straight from where it is: the kernel
// refuses an address that is none, where a load would crash.
//
// What happens then is what would have happened without it. The handler that was there is called
// with what the kernel gave; or else the signal is sent again with the same information, blocked
// until the handler returns, so that the process ends where it crashed, with that signal and core.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <qvcl/main.h>
#include <qvcl/recorder.h>
#include <qvcl/system.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <iterator>

#include "starter/header_text.h"
#include "starter/report.h"

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};

struct FatalSignal {
    int number;
    const char *name;
};
constexpr FatalSignal kFatal[] = {
    {SIGSEGV, "SIGSEGV"}, {SIGBUS, "SIGBUS"}, {SIGFPE, "SIGFPE"},   {SIGILL, "SIGILL"},
    {SIGABRT, "SIGABRT"}, {SIGSYS, "SIGSYS"}, {SIGTRAP, "SIGTRAP"},
};

constexpr size_t kPidLength = 11;              // of ".PID", the end of the unfinished file's name
constexpr size_t kStackForHandlers = 1 << 16;  // for a handler that was there before, too
constexpr int kTries = 3;                      // to find the rings at rest
constexpr int kPatience = 10000;               // milliseconds, for another thread's crash

// What was done beforehand; the command's line and the lines of the modules follow. A mapping of
// its own, so that nothing overwrites it.
struct Prepared {
    const CL_MainBlock *main;
    size_t mapped;
    size_t command_length;
    size_t modules_length;
    char path[PATH_MAX];

    const char *command() const { return reinterpret_cast<const char *>(this + 1); }
    const char *modules() const { return command() + command_length; }
};

struct Crash {
    int signal;
    siginfo_t info;
    pid_t thread;
};

Prepared *prepared;
struct sigaction previous[std::size(kFatal)];
pid_t handling;  // thread that handles a crash, 0: none
Crash crash;     // its crash

// --- The dump ---

enum Part : size_t { kLibraryRing, kUserRing, kMain, kTable, kParts };

struct Block {
    const void *start;  // null: there is none, or none that could be written
    uint64_t size;
    bool incomplete;
};

// Where the rings stand: they move with every operation of another thread.
struct Positions {
    uint32_t next[2];
    uint32_t oldest[2];
};

class Dump {
  public:
    void write(const Prepared &from);
    void give_up() {
        if (fd_ != -1) finish(false);
    }

  private:
    bool open();
    void finish(bool whole);
    bool look(const void *at, void *to, size_t size);
    bool is_block(const CL_TableHeader &header, const char *eye, const void *at);
    void find_ring(Part part, const CL_TraceRing *ring, const char *eye);
    void find_table(const CL_MainBlock &main);
    void find_blocks();
    Positions positions() const;
    void tell_torn(const Positions &before, const Positions &now);

    bool put(const void *data, uint64_t size);
    bool put_text();
    bool put_blocks();
    bool put_all();

    const Prepared *from_;
    int fd_ = -1;
    uint64_t written_;
    bool has_text_;
    char name_[PATH_MAX];
    Block blocks_[kParts];
};

Dump dump;

int create(const char *path) {
    constexpr int kNew = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    return open(path, kNew, S_IRUSR | S_IWUSR);
}

bool Dump::open() {
    qvcl::HeaderText name(name_, sizeof name_);
    name.put(from_->path).put(".").put_decimal(static_cast<uint64_t>(getpid()));
    name_[name.length()] = '\0';
    unlink(name_);
    fd_ = create(name_);
    struct rlimit limit;
    if (fd_ != -1 || errno != EMFILE || getrlimit(RLIMIT_NOFILE, &limit) != 0) return fd_ != -1;
    // Whoever is out of descriptors crashes the more easily: one more, where that is allowed.
    const struct rlimit most = {limit.rlim_max, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &most);
    fd_ = create(name_);
    setrlimit(RLIMIT_NOFILE, &limit);
    return fd_ != -1;
}

// A dump that is whole takes the place of the last one. A piece does not, but is better than none.
void Dump::finish(bool whole) {
    const int fd = fd_;
    fd_ = -1;
    close(fd);
    const bool placed =
        whole ? rename(name_, from_->path) == 0 : has_text_ && link(name_, from_->path) == 0;
    if (!whole || !placed) unlink(name_);
}

// Copies memory that may not be there, by way of the file, from which it is taken off again.
bool Dump::look(const void *at, void *to, size_t size) {
    const auto count = static_cast<ssize_t>(size);
    return lseek(fd_, 0, SEEK_SET) == 0 && ::write(fd_, at, size) == count &&
           lseek(fd_, 0, SEEK_SET) == 0 && read(fd_, to, size) == count;
}

bool Dump::is_block(const CL_TableHeader &header, const char *eye, const void *at) {
    return strncmp(header.eye, eye, sizeof header.eye) == 0 &&
           header.address == reinterpret_cast<uint64_t>(at);
}

void Dump::find_ring(Part part, const CL_TraceRing *ring, const char *eye) {
    CL_TraceRing head;
    blocks_[part].incomplete = ring != nullptr;
    if (ring == nullptr || !look(ring, &head, sizeof head) || !is_block(head.header, eye, ring))
        return;
    const uint64_t entry = uint64_t{head.entry_size} + sizeof(CL_TraceEntry);
    if (head.header.size != sizeof head + head.entry_count * entry) return;
    blocks_[part] = {ring, head.header.size, false};
}

void Dump::find_table(const CL_MainBlock &main) {
    CL_TableHeader head;
    blocks_[kTable].incomplete = main.descriptor_table != nullptr;
    if (main.descriptor_table == nullptr || !look(main.descriptor_table, &head, sizeof head) ||
        !is_block(head, CL_EYE_FDTBL, main.descriptor_table))
        return;
    if (main.capacity > CL_MAX_OBJECTS + CL_SPARE_OBJECTS ||
        head.size != sizeof head + main.capacity * sizeof(CL_Object))
        return;
    blocks_[kTable] = {main.descriptor_table, head.size, false};
}

// The main table is where it was when the dump was prepared; where it leads to may be nowhere.
void Dump::find_blocks() {
    const CL_MainBlock &main = *from_->main;
    memset(blocks_, 0, sizeof blocks_);
    blocks_[kMain] = {&main, sizeof main, false};
    find_ring(kLibraryRing, main.library_ring, CL_EYE_LIBTRC);
    find_ring(kUserRing, main.user_ring, CL_EYE_USRTRC);
    find_table(main);
}

Positions Dump::positions() const {
    Positions found = {};
    for (const Part part : {kLibraryRing, kUserRing}) {
        const auto *ring = static_cast<const CL_TraceRing *>(blocks_[part].start);
        if (ring == nullptr) continue;
        found.next[part] = __atomic_load_n(&ring->next, __ATOMIC_ACQUIRE);
        found.oldest[part] = __atomic_load_n(&ring->oldest, __ATOMIC_ACQUIRE);
    }
    return found;
}

// A ring that moved was written to meanwhile, and its operations change the tables.
void Dump::tell_torn(const Positions &before, const Positions &now) {
    for (const Part part : {kLibraryRing, kUserRing}) {
        if (now.next[part] != before.next[part] || now.oldest[part] != before.oldest[part])
            blocks_[part].incomplete = true;
    }
    if (blocks_[kLibraryRing].incomplete) blocks_[kMain].incomplete = true;
}

bool Dump::put(const void *data, uint64_t size) {
    const auto *from = static_cast<const char *>(data);
    while (size != 0) {
        const ssize_t count = ::write(fd_, from, size);
        if (count == -1 && errno == EINTR) continue;
        if (count <= 0) return false;
        from += count;
        size -= static_cast<uint64_t>(count);
        written_ += static_cast<uint64_t>(count);
    }
    return true;
}

// Addresses come with what the kernel found itself, and not with every fault of that.
bool has_address(const siginfo_t &info) {
    return info.si_code > 0 && info.si_code != SI_KERNEL;
}

void put_signal(qvcl::HeaderText &text) {
    const char *name = "";
    for (const FatalSignal &fatal : kFatal) {
        if (fatal.number == crash.signal) name = fatal.name;
    }
    text.put("signal: ").put_decimal(static_cast<uint64_t>(crash.signal));
    text.put(" ").put(name).end_line();
    const int code = crash.info.si_code;
    text.put(code < 0 ? "code: -" : "code: ");
    text.put_decimal(static_cast<uint64_t>(code < 0 ? -int64_t{code} : code)).end_line();
    if (has_address(crash.info)) {
        const auto address = reinterpret_cast<uint64_t>(crash.info.si_addr);
        text.put("address: ").put_hex(address).end_line();
    }
    text.put("thread: ").put_decimal(static_cast<uint64_t>(crash.thread)).end_line();
}

void put_incomplete(qvcl::HeaderText &text, const Block (&blocks)[kParts]) {
    if (blocks[kLibraryRing].incomplete) text.put("incomplete: library ring").end_line();
    if (blocks[kUserRing].incomplete) text.put("incomplete: user ring").end_line();
    if (blocks[kMain].incomplete || blocks[kTable].incomplete)
        text.put("incomplete: tables").end_line();
}

// The text ends with a NUL, and zeros up to where the first block may begin.
bool Dump::put_text() {
    constexpr size_t kAlignment = 16;
    constexpr char kZero[1 + kAlignment] = {};
    char lines[512];
    qvcl::HeaderText text(lines, sizeof lines);
    text.put("reason: fatal signal").end_line();
    qvcl::put_moment(text);
    if (!put(lines, text.length())) return false;
    if (!put(from_->command(), from_->command_length)) return false;

    qvcl::HeaderText about(lines, sizeof lines);
    put_signal(about);
    if (!put(lines, about.length())) return false;
    if (!put(from_->modules(), from_->modules_length)) return false;

    qvcl::HeaderText torn(lines, sizeof lines);
    put_incomplete(torn, blocks_);
    if (!put(lines, torn.length())) return false;
    return put(kZero, 1 + kAlignment - (written_ + 1) % kAlignment);
}

// A block that is not there, or not all of it, is left out from then on.
bool Dump::put_blocks() {
    for (Block &block : blocks_) {
        if (block.start == nullptr || put(block.start, block.size)) continue;
        if (errno == EFAULT) block = {nullptr, 0, true};
        return false;
    }
    return true;
}

bool Dump::put_all() {
    for (int tries = 0;;) {
        const Positions before = positions();
        written_ = 0;
        has_text_ = false;
        if (ftruncate(fd_, 0) != 0 || lseek(fd_, 0, SEEK_SET) != 0) return false;
        has_text_ = put_text();
        if (!has_text_) return false;
        if (!put_blocks()) {
            if (errno == EFAULT) continue;
            return false;
        }
        const Positions now = positions();
        if (tries == kTries || memcmp(&before, &now, sizeof now) == 0) return fdatasync(fd_) == 0;
        if (++tries == kTries) tell_torn(before, now);
    }
}

void Dump::write(const Prepared &from) {
    from_ = &from;
    if (!open()) return;
    find_blocks();
    finish(put_all());
    // A limit of the file size sends a signal, which must not end the process in place of the one
    // that came. It is blocked here, and ignoring it drops it.
    struct sigaction ignore = {};
    struct sigaction as_it_was;
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, &as_it_was);
    sigaction(SIGXFSZ, &as_it_was, nullptr);
}

// --- The handler ---

size_t index_of(int signal) {
    size_t index = 0;
    while (kFatal[index].number != signal)
        ++index;
    return index;
}

bool is_sent(const siginfo_t &info) {
    return info.si_code <= 0;
}

bool is_from_others(const siginfo_t &info) {
    return is_sent(info) && info.si_pid != getpid();
}

void block(int signal) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// The signal comes again as the handler returns, before anything else is executed.
void end_process(int signal, siginfo_t *info) {
    struct sigaction fallback = {};
    fallback.sa_handler = SIG_DFL;
    sigaction(signal, &fallback, nullptr);
    block(signal);
    if (syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), signal, info) != 0) raise(signal);
}

// In the mask that it would have had.
void call_previous(struct sigaction &action, siginfo_t *info, void *context) {
    const struct sigaction call = action;
    const int signal = info->si_signo;
    const auto flags = static_cast<unsigned>(call.sa_flags);
    if ((flags & SA_RESETHAND) != 0) action.sa_handler = SIG_DFL;
    pthread_sigmask(SIG_SETMASK, &static_cast<ucontext_t *>(context)->uc_sigmask, nullptr);
    pthread_sigmask(SIG_BLOCK, &call.sa_mask, nullptr);
    if ((flags & SA_NODEFER) == 0) block(signal);
    if ((flags & SA_SIGINFO) != 0) {
        call.sa_sigaction(signal, info, context);
    } else {
        call.sa_handler(signal);
    }
}

// Nothing is held any more when the previous handler runs: it may jump. The process that ends
// keeps the others waiting, who crash meanwhile.
void hand_on(siginfo_t *info, void *context) {
    struct sigaction &action = previous[index_of(info->si_signo)];
    const bool ignored = action.sa_handler == SIG_IGN;
    if (action.sa_handler == SIG_DFL || (ignored && !is_sent(*info)))
        return end_process(info->si_signo, info);
    __atomic_store_n(&handling, 0, __ATOMIC_RELEASE);
    if (!ignored) call_previous(action, info, context);
}

// The first crash is told; what comes meanwhile, in another thread, most likely comes of it.
bool take_turn(pid_t self) {
    for (int waited = 0; waited < kPatience; ++waited) {
        pid_t nobody = 0;
        if (__atomic_compare_exchange_n(&handling, &nobody, self, false, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED))
            return true;
        poll(nullptr, 0, 1);
    }
    return false;
}

void handle(int signal, siginfo_t *info, void *context, pid_t self) {
    if (previous[index_of(signal)].sa_handler == SIG_IGN && is_from_others(*info)) return;
    if (!take_turn(self)) return end_process(signal, info);
    crash = {signal, *info, self};
    dump.write(*__atomic_load_n(&prepared, __ATOMIC_ACQUIRE));
    hand_on(info, context);
}

// The handler itself crashes: the process ends with what there is, by the signal that came first.
void handle_second(const siginfo_t &info) {
    if (is_from_others(info)) return;
    dump.give_up();
    end_process(crash.signal, &crash.info);
}

void on_fatal(int signal, siginfo_t *info, void *context) {
    const int saved = errno;
    const pid_t self = gettid();
    if (__atomic_load_n(&handling, __ATOMIC_RELAXED) == self) {
        handle_second(*info);
    } else {
        handle(signal, info, context, self);
    }
    errno = saved;
}

// --- Preparing ---

// Whether a file of that name, and the unfinished one beside it, can be made.
uint32_t may_record(const char *path, CL_ErrInfo *err) {
    if (strlen(path) + kPidLength >= PATH_MAX) return fail(err, ENAMETOOLONG);
    const char *last = strrchr(path, '/') + 1;
    if (strlen(last) + kPidLength > NAME_MAX) return fail(err, ENAMETOOLONG);
    struct stat status = {};
    stat(path, &status);
    if (*last == '\0' || S_ISDIR(status.st_mode)) return fail(err, EISDIR);
    // The dump takes the place of what is there, if need be a link's: that would be the end of
    // /dev/null.
    lstat(path, &status);
    if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode)) return fail(err, EINVAL);
    char folder[PATH_MAX];
    const auto length = static_cast<size_t>(last - path);
    memcpy(folder, path, length);
    folder[length] = '\0';
    if (faccessat(AT_FDCWD, folder, W_OK | X_OK, AT_EACCESS) != 0) return fail.sys(err);
    return 1;
}

uint32_t make_absolute(const char *path, char (&absolute)[PATH_MAX], CL_ErrInfo *err) {
    size_t length = 0;
    if (path == nullptr) return fail(err, EFAULT);
    if (*path == '\0') return fail(err, ENOENT);
    if (*path != '/') {
        if (getcwd(absolute, sizeof absolute - 1) == nullptr) return fail.sys(err);
        length = strlen(absolute);
        absolute[length++] = '/';
    }
    const size_t rest = strnlen(path, PATH_MAX);
    if (length + rest >= PATH_MAX) return fail(err, ENAMETOOLONG);
    memcpy(absolute + length, path, rest + 1);
    return 1;
}

// A module that is loaded meanwhile may be left out; no line is cut.
Prepared *prepare(const char (&path)[PATH_MAX], CL_ErrInfo *err) {
    qvcl::HeaderText measure(nullptr, 0);
    qvcl::put_command(measure);
    const size_t command = measure.length();
    qvcl::put_modules(measure);
    const size_t size = sizeof(Prepared) + measure.length() + 2;
    void *room =
        cl_u_mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (room == MAP_FAILED) return fail(err, ENOMEM);

    auto *made = static_cast<Prepared *>(room);
    made->main = CL_MainTable;
    made->mapped = size;
    memcpy(made->path, path, strlen(path) + 1);
    auto *text = reinterpret_cast<char *>(made + 1);
    qvcl::HeaderText command_line(text, command + 1);
    qvcl::put_command(command_line);
    command_line.finish();
    made->command_length = strlen(text);
    text += made->command_length;
    qvcl::HeaderText modules(text, measure.length() - command + 1);
    qvcl::put_modules(modules);
    modules.finish();
    made->modules_length = strlen(text);
    mprotect(room, size, PROT_READ);
    return made;
}

// For good: who takes a signal later and calls on may have saved this handler.
void install() {
    static bool installed;
    if (installed) return;
    installed = true;
    struct sigaction action = {};
    action.sa_sigaction = on_fatal;
    // A crash of the handler's own comes to it too, nothing else does.
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigfillset(&action.sa_mask);
    for (const FatalSignal &fatal : kFatal)
        sigdelset(&action.sa_mask, fatal.number);
    for (size_t i = 0; i < std::size(kFatal); ++i) {
        cl_u_sigaction(kFatal[i].number, nullptr, &previous[i]);
        cl_u_sigaction(kFatal[i].number, &action, nullptr);
    }
}

// --- Stacks ---

pthread_key_t stack_key;
bool has_stack_key;

size_t page_size() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// A page that nobody may touch in front.
size_t stack_size() {
    const size_t page = page_size();
    const size_t size = kStackForHandlers + static_cast<size_t>(SIGSTKSZ);
    return page + ((size + page - 1) & -page);
}

void release_stack(void *room) {
    stack_t now = {};
    sigaltstack(nullptr, &now);
    if (now.ss_sp == static_cast<char *>(room) + page_size()) {
        now.ss_flags = SS_DISABLE;
        sigaltstack(&now, nullptr);
    }
    cl_u_munmap(room, stack_size());
}

void make_key() {
    has_stack_key = pthread_key_create(&stack_key, release_stack) == 0;
}

bool give_stack() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    stack_t stack = {.ss_sp = nullptr, .ss_flags = SS_DISABLE, .ss_size = 0};
    sigaltstack(nullptr, &stack);
    if ((stack.ss_flags & SS_DISABLE) == 0) return true;
    pthread_once(&once, make_key);
    const size_t size = stack_size();
    void *room =
        cl_u_mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (room == MAP_FAILED) return false;
    mprotect(room, page_size(), PROT_NONE);
    stack = {};
    stack.ss_sp = static_cast<char *>(room) + page_size();
    stack.ss_size = size - page_size();
    // Without a key the stack stays when the thread ends.
    if (sigaltstack(&stack, nullptr) == 0 &&
        (!has_stack_key || pthread_setspecific(stack_key, room) == 0))
        return true;
    release_stack(room);
    return false;
}

}  // namespace

extern "C" uint32_t CL_RecordCrashes(const char *path, CL_ErrInfo *err) {
    const qvcl::Report record(err);
    err = record;
    char absolute[PATH_MAX];
    if (!make_absolute(path, absolute, err) || !may_record(absolute, err)) return 0;
    Prepared *made = prepare(absolute, err);
    if (!made) return 0;
    if (!give_stack()) {
        cl_u_munmap(made, made->mapped);
        return fail(err, ENOMEM);
    }
    Prepared *old = __atomic_exchange_n(&prepared, made, __ATOMIC_ACQ_REL);
    if (old) cl_u_munmap(old, old->mapped);
    install();
    return 1;
}

extern "C" uint32_t CL_CrashStack(CL_ErrInfo *err) {
    const qvcl::Report record(err);
    err = record;
    if (!give_stack()) return fail(err, ENOMEM);
    return 1;
}
