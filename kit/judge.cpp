#include "kit/judge.h"

#include <fcntl.h>
#include <link.h>
#include <qvcl/kit.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kit {

Page *page;
Range library_code, program_code;

namespace {

void note_code(Range &range, const dl_phdr_info *object) {
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const auto &segment = object->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD) continue;
        if (segment.p_offset == 0) range.base = object->dlpi_addr + segment.p_vaddr;
        if ((segment.p_flags & PF_X) == 0) continue;
        range.begin = object->dlpi_addr + segment.p_vaddr;
        range.end = range.begin + segment.p_memsz;
    }
}

int find_code(dl_phdr_info *object, size_t, void *) {
    if (program_code.end == 0) note_code(program_code, object);  // the executable comes first
    if (strstr(object->dlpi_name, "libqvcl.so") == nullptr) return 0;
    note_code(library_code, object);
    if (page != nullptr && page->library[0] == '\0')
        strncpy(page->library, object->dlpi_name, sizeof page->library - 1);
    return 1;
}

// The library may come later, by dlopen: it is looked for now and then.
void find_callers() {
    static std::atomic<uint32_t> asked;
    const uint32_t times = asked.fetch_add(1);
    if ((times & (times - 1)) == 0) dl_iterate_phdr(find_code, nullptr);
}

// Whether the call is one that the fault is about, and its turn.
bool hits(Fault &fault, Call call, uint8_t from, uint64_t &site) {
    if (fault.call != call || (fault.from & from) == 0) return false;
    if (fault.program[0] != '\0') {
        const char *path = page->programs[this_program()];
        const char *slash = strrchr(path, '/');
        if (strcmp(slash != nullptr ? slash + 1 : path, fault.program) != 0) return false;
    }
    // What began at a place goes on at all places.
    const bool begun = fault.seen.load() >= fault.nth;
    if (fault.site != 0 && !begun) {
        Frame frames[kFrames];
        uint16_t count = 0;
        if (site == 0) site = site_of(call, frames, &count);
        if (site != fault.site) return false;
    }
    const int32_t number = fault.seen.fetch_add(1) + 1;
    return number >= fault.nth && number - fault.nth < fault.times;
}

void note_site(Call call) {
    Frame frames[kFrames];
    uint16_t count = 0;
    const uint64_t key = site_of(call, frames, &count);
    constexpr size_t kSites = sizeof page->sites / sizeof *page->sites;
    for (size_t i = 0; i < kSites; ++i) {
        Site &site = page->sites[(key + i) % kSites];
        uint64_t other = 0;
        if (site.key.compare_exchange_strong(other, key)) {
            site.call = call;
            site.program = this_program();
            memcpy(site.frame, frames, sizeof frames);
            site.frames = count;
        } else if (other != key) {
            continue;
        }
        site.count.fetch_add(1);
        return;
    }
}

uint64_t mix(uint64_t x) {
    x += 0x9e3779b97f4a7c15;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9;
    x = (x ^ (x >> 27)) * 0x94d049bb133111eb;
    return x ^ (x >> 31);
}

bool can_wait(Call call) {
    const int *error = errors_of(call);
    // A connect that is interrupted goes on all the same, and closing again hits somebody else.
    if (call == kCall_connect || call == kCall_close || call == kCall_dup2) return false;
    for (; *error != 0; ++error)
        if (*error == EINTR) return true;
    return false;
}

bool comes_early(Call call, int fd) {
    if (!transfers(call) && call != kCall_accept && call != kCall_accept4) return false;
    return fd >= 0 && (syscall(SYS_fcntl, fd, F_GETFL) & O_NONBLOCK) != 0;
}

void disorder(Call call, int fd, Verdict &verdict) {
    static std::atomic<uint64_t> number;
    const uint64_t random = mix(page->seed ^ mix(number.fetch_add(1)));
    const auto chance = static_cast<uint32_t>(random % 32);
    verdict.dice = static_cast<uint32_t>(random >> 32);
    verdict.fewer_ready = (random >> 8) % 4 == 0;
    if ((random >> 16) % 4 == 0) verdict.at_most = 1 + (random >> 20) % 64;
    int error = 0;
    if (chance == 0 && can_wait(call)) error = EINTR;
    if (chance == 1 && comes_early(call, fd)) error = EAGAIN;
    if (chance == 2) syscall(SYS_sched_yield);
    if (error != 0) {
        verdict.fail = true;
        errno = error;
    }
}

// An eventfd, a signalfd and their like give a whole number or record, or refuse.
bool moves_parts(int fd) {
    const int saved = errno;
    char path[40], target[20] = "";
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    syscall(SYS_readlinkat, AT_FDCWD, path, target, sizeof target - 1);
    errno = saved;
    return strncmp(target, "anon_inode:", 11) != 0;
}

// Whether there is anything at all to do for a call.
bool idle() {
    return page == nullptr || (page->fault_count == 0 && page->at_most == 0 && page->seed == 0 &&
                               !page->note_order && !page->note_sites);
}

}  // namespace

uint8_t caller_class(const void *caller) {
    if (library_code.end == 0) find_callers();
    const auto address = reinterpret_cast<uintptr_t>(caller);
    if (address >= library_code.begin && address < library_code.end) return CL_KIT_LIBRARY;
    // A program that does not use the library is none of ours.
    if (library_code.end == 0) return 4;
    return address >= program_code.begin && address < program_code.end ? CL_KIT_PROGRAM : 4;
}

bool from_library(const void *caller) {
    return caller_class(caller) == CL_KIT_LIBRARY;
}

uint16_t this_program() {
    static int32_t index = -1, of_pid;
    const auto pid = static_cast<int32_t>(syscall(SYS_getpid));
    if (index >= 0 && of_pid == pid) return static_cast<uint16_t>(index);
    char path[sizeof page->programs[0]] = "";
    syscall(SYS_readlinkat, AT_FDCWD, "/proc/self/exe", path, sizeof path - 1);
    constexpr uint32_t kMost = sizeof page->programs / sizeof *page->programs;
    const uint32_t known = std::min(page->program_count.load(), kMost);
    uint32_t at = 0;
    while (at < known && strcmp(page->programs[at], path) != 0)
        ++at;
    if (at == known) {
        at = std::min(page->program_count.fetch_add(1), kMost - 1);
        memcpy(page->programs[at], path, sizeof path);
    }
    of_pid = pid;
    index = static_cast<int32_t>(at);
    return static_cast<uint16_t>(index);
}

Verdict judge(Call call, const void *caller, int fd) {
    Verdict verdict;
    if (attach != nullptr) attach();
    if (idle()) return verdict;
    const int saved = errno;
    const uint8_t from = caller_class(caller);
    if (page->note_order && from == CL_KIT_LIBRARY) {
        const uint64_t at = page->order_count.fetch_add(1);
        if (at < sizeof page->order / sizeof *page->order) page->order[at] = call;
    }
    if (page->note_sites && (from & (CL_KIT_LIBRARY | CL_KIT_PROGRAM)) != 0) note_site(call);
    errno = saved;
    if ((page->disorder_from & from) != 0) {
        if (page->seed != 0) disorder(call, fd, verdict);
        if (page->at_most != 0) verdict.at_most = std::min(verdict.at_most, page->at_most);
    }
    uint64_t site = 0;
    for (uint32_t i = 0; i < page->fault_count; ++i) {
        Fault &fault = page->faults[i];
        if (!hits(fault, call, from, site)) continue;
        page->hits.fetch_add(1);
        if (met_fault != nullptr) met_fault();
        if (fault.before != nullptr) fault.before(fault.context);
        verdict.fail = verdict.fail || fault.error != 0;
        verdict.swallow = verdict.swallow || fault.swallow;
        verdict.made = verdict.made || fault.made;
        verdict.at_most = std::min(verdict.at_most, fault.at_most);
        if (fault.error != 0) errno = fault.error;
    }
    if (verdict.at_most != UINT64_MAX && !moves_parts(fd)) verdict.at_most = UINT64_MAX;
    return verdict;
}

}  // namespace kit
