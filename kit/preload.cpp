// What the preloaded stand-ins have in addition: they find the page that qvcl-kit made, tell where
// a call comes from, and halt at a crash or an end until qvcl-kit has looked into the process.
#include <fcntl.h>
#include <qvcl/kit.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "kit/judge.h"

namespace kit {

namespace {

// ---- Where a call comes from

struct Walk {
    Frame *frames;
    uint16_t count;
    uint64_t key;
};

_Unwind_Reason_Code note_frame(_Unwind_Context *context, void *argument) {
    auto *walk = static_cast<Walk *>(argument);
    const auto address = static_cast<uintptr_t>(_Unwind_GetIP(context)) - 1;  // in the call
    const auto within = [address](const Range &range) {
        return address >= range.begin && address < range.end;
    };
    const bool library = within(library_code);
    if (!library && !within(program_code)) return _URC_NO_REASON;
    Frame &frame = walk->frames[walk->count++];
    frame.library = library ? 1 : 0;
    frame.offset = static_cast<uint32_t>(address - (library ? library_code : program_code).base);
    walk->key = (walk->key ^ (frame.offset + (uint64_t{frame.library} << 32))) * 0x100000001b3;
    return walk->count < kFrames ? _URC_NO_REASON : _URC_END_OF_STACK;
}

// ---- Being looked into

std::atomic<Member *> self;

Member *this_member() {
    Member *member = self.load();
    const auto pid = static_cast<int32_t>(syscall(SYS_getpid));
    if (member != nullptr && member->pid.load() == pid) return member;
    for (Member &other : page->members) {
        int32_t nobody = 0;
        if (!other.pid.compare_exchange_strong(nobody, pid)) continue;
        other.program = this_program();
        self = &other;
        return &other;
    }
    return nullptr;
}

int exit_status;

// Two seconds at most: if nobody looks, nobody does.
void halt(int signal, const void *address) {
    for (Halt &place : page->halts) {
        int32_t free = Halt::kFree;
        if (!place.state.compare_exchange_strong(free, Halt::kFilling)) continue;
        place.pid = static_cast<int32_t>(syscall(SYS_getpid));
        place.signal = signal;
        place.status = exit_status;
        place.address = reinterpret_cast<uint64_t>(address);
        place.program = this_program();
        place.state = Halt::kHalted;
        for (int i = 0; i < 2000 && place.state.load() != Halt::kSeen; ++i) {
            timespec millisecond = {0, 1'000'000};
            syscall(SYS_nanosleep, &millisecond, nullptr);
        }
        place.state = Halt::kFree;
        return;
    }
}

void on_crash(int signal, siginfo_t *info, void *) {
    const int saved = errno;
    halt(signal, info->si_addr);
    struct sigaction usual {};
    usual.sa_handler = SIG_DFL;
    KIT_REAL(sigaction)(signal, &usual, nullptr);
    // One that was sent does not come again by itself.
    if (info->si_code <= 0) syscall(SYS_tgkill, syscall(SYS_getpid), syscall(SYS_gettid), signal);
    errno = saved;
}

void watch_crashes() {
    static char stack[65536];
    const stack_t alternate = {stack, 0, sizeof stack};
    sigaltstack(&alternate, nullptr);
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGSYS}) {
        struct sigaction before {};
        KIT_REAL(sigaction)(signal, nullptr, &before);
        if (before.sa_handler != SIG_DFL) continue;
        struct sigaction ours {};
        ours.sa_sigaction = on_crash;
        ours.sa_flags = SA_SIGINFO | SA_ONSTACK;
        KIT_REAL(sigaction)(signal, &ours, nullptr);
    }
}

// Registered before anything else, so it comes behind all else: also destructors have run.
void end(int status, void *) {
    exit_status = status;
    const Member *member = self.load();
    if (page == nullptr || !page->halt_at_ends || member == nullptr) return;
    if (member->pid.load() != static_cast<int32_t>(syscall(SYS_getpid))) return;
    if (member->hits.load() > 0 || page->halt_at_all_ends) halt(0, nullptr);
}

[[gnu::constructor]] void begin() {
    attach();
    if (page == nullptr) return;
    caller_class(nullptr);
    if (library_code.end == 0) return;  // a program of another kind
    this_member();
    if (page->halt_at_ends) watch_crashes();
    on_exit(end, nullptr);
}

}  // namespace

void attach() {
    static bool tried;
    if (tried) return;
    tried = true;
    const char *path = getenv(kPageVariable);
    if (path == nullptr) return;
    const int saved = errno;
    const auto fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC));
    if (fd >= 0) {
        const long place =
            syscall(SYS_mmap, nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0L);
        syscall(SYS_close, fd);
        void *memory = nullptr;
        memcpy(&memory, &place, sizeof memory);
        if (memory != MAP_FAILED && static_cast<Page *>(memory)->magic == kMagic)
            page = static_cast<Page *>(memory);
    }
    errno = saved;
}

void met_fault() {
    if (Member *member = this_member()) member->hits.fetch_add(1);
}

uint64_t site_of(Call call, Frame *frames, uint16_t *count) {
    Walk walk = {frames, 0, 0xcbf29ce484222325 ^ call};
    for (const char *at = page->programs[this_program()]; *at != '\0'; ++at)
        walk.key = (walk.key ^ static_cast<unsigned char>(*at)) * 0x100000001b3;
    _Unwind_Backtrace(note_frame, &walk);
    *count = walk.count;
    return walk.key | 1;
}

}  // namespace kit
