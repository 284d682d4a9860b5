// What a test looks at afterwards: trace records, the balance, the log.
#include <dirent.h>
#include <qvcl/kit.h>
#include <qvcl/main.h>
#include <qvcl/trace_records.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kit/outlets.h"

namespace {

// ---- Records

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

// ---- Balance

// Text that grows to the end of a buffer.
class Text {
  public:
    Text(char *text, size_t size) : text_(text), left_(size) {
        if (size > 0) *text = '\0';
    }
    [[gnu::format(printf, 2, 3)]] void add(const char *format, ...) {
        va_list arguments;
        va_start(arguments, format);
        if (any_ && left_ > 2) {
            memcpy(text_, "; ", 3);
            text_ += 2;
            left_ -= 2;
        }
        const int length = vsnprintf(text_, left_, format, arguments);
        va_end(arguments);
        const size_t moved = left_ == 0 ? 0 : std::min(static_cast<size_t>(length), left_ - 1);
        text_ += moved;
        left_ -= moved;
        any_ = true;
    }
    bool any() const { return any_; }

  private:
    char *text_;
    size_t left_;
    bool any_ = false;
};

void compare(Text &text, const char *name, uint64_t before, uint64_t after) {
    if (before != after) {
        text.add("%s: %llu, was %llu", name, static_cast<unsigned long long>(after),
                 static_cast<unsigned long long>(before));
    }
}

void compare_bits(Text &text, const char *name, const char *gone, const char *come, int number,
                  bool before, bool after) {
    if (before != after) text.add("%s %d is %s", name, number, after ? come : gone);
}

// ---- Log

char lines[262144];
size_t used;

int keep_line(int, const char *line) {
    const size_t size = strlen(line) + 1;
    if (used + size > sizeof lines) return 0;
    memcpy(lines + used, line, size);
    used += size;
    return 0;
}

}  // namespace

extern "C" {

uint32_t CL_KitNextRecord(const CL_TraceRing *ring, uint32_t *at, void *record, uint32_t size) {
    const bool full = *at >= ring->entry_count;
    uint32_t index = *at % ring->entry_count;
    if (!full && index == ring->next) return 0;
    const uint32_t distance = (ring->next + ring->entry_count - index) % ring->entry_count;
    const uint32_t held = distance == 0 ? ring->entry_count : distance;
    const uint32_t length = entry_header(ring, index).remaining;
    if (length < 1 || length > held) return 0;
    uint32_t copied = 0;
    auto *to = static_cast<char *>(record);
    CL_TrcHead head;
    memcpy(&head, entry(ring, index) + sizeof(CL_TraceEntry),
           std::min<size_t>(sizeof head, ring->entry_size));
    for (uint32_t i = 0; i < length; ++i, index = (index + 1) % ring->entry_count) {
        const CL_TraceEntry slice = entry_header(ring, index);
        const uint32_t flags = (i == 0 ? uint32_t{CL_ENTRY_FIRST} : 0) |
                               (i == length - 1 ? uint32_t{CL_ENTRY_LAST} : 0);
        if (slice.flags != flags || slice.remaining != length - i) return 0;
        const uint32_t part = std::min(ring->entry_size, size - copied);
        memcpy(to + copied, entry(ring, index) + sizeof slice, part);
        copied += part;
    }
    const uint32_t bytes = head.length;
    if ((bytes + ring->entry_size - 1) / ring->entry_size != length) return 0;
    *at = index;
    return bytes;
}

void CL_KitGetBalance(CL_KitBalance *balance) {
    const CL_MainBlock &now = *CL_MainTable;
    memset(balance, 0, sizeof *balance);
    balance->live = now.used_queue.count;
    balance->free = now.free_queue.count;
    balance->listed = now.timer_list.count + now.child_list.count + now.priority_list.count +
                      now.pending_list.count + now.thread_list.count;
    for (size_t i = 0; i < CL_KIND_COUNT; ++i)
        balance->kinds[i] = now.kind_queues[i].count;
    balance->library_blocks = now.library_blocks.count;
    balance->user_blocks = now.user_blocks.count;
    balance->library_bytes = now.library_bytes;
    balance->user_bytes = now.user_bytes;
    balance->catalogues = kit::outlets.open_catalogues;
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    for (int signal = 1; signal < NSIG; ++signal)
        if (sigismember(&mask, signal) == 1) balance->blocked_signals |= 1ULL << (signal - 1);
    DIR *directory = opendir("/proc/self/fd");
    if (directory == nullptr) return;
    while (const dirent *item = readdir(directory)) {
        const int number = atoi(item->d_name);
        if (item->d_name[0] == '.' || number == dirfd(directory)) continue;
        if (number < CL_KIT_MAX_DESCRIPTORS)
            balance->descriptors[number / 64] |= 1ULL << (number % 64);
    }
    closedir(directory);
}

uint32_t CL_KitSame(const CL_KitBalance *before, const CL_KitBalance *after, char *text,
                    size_t size) {
    Text out(text, size);
    compare(out, "live", before->live, after->live);
    compare(out, "free", before->free, after->free);
    compare(out, "listed", before->listed, after->listed);
    for (size_t i = 0; i < CL_KIND_COUNT; ++i) {
        char name[32];
        snprintf(name, sizeof name, "kind queue %zu", i);
        compare(out, name, before->kinds[i], after->kinds[i]);
    }
    compare(out, "library blocks", before->library_blocks, after->library_blocks);
    compare(out, "user blocks", before->user_blocks, after->user_blocks);
    compare(out, "library bytes", before->library_bytes, after->library_bytes);
    compare(out, "user bytes", before->user_bytes, after->user_bytes);
    compare(out, "catalogues", before->catalogues, after->catalogues);
    for (int signal = 1; signal < NSIG; ++signal) {
        compare_bits(out, "signal", "open", "blocked", signal,
                     (before->blocked_signals >> (signal - 1) & 1) != 0,
                     (after->blocked_signals >> (signal - 1) & 1) != 0);
    }
    for (int fd = 0; fd < CL_KIT_MAX_DESCRIPTORS; ++fd) {
        compare_bits(out, "descriptor", "closed", "open", fd,
                     (before->descriptors[fd / 64] >> (fd % 64) & 1) != 0,
                     (after->descriptors[fd / 64] >> (fd % 64) & 1) != 0);
    }
    return out.any() ? 0 : 1;
}

void CL_KitKeepLog(void) {
    CL_SetLogCallbackFunction(keep_line);
    used = 0;  // the line that announces the callback is none that a test waits for
}

void CL_KitForgetLog(void) {
    used = 0;
}

const char *CL_KitRawLogLine(size_t index) {
    const char *line = lines;
    for (; index > 0 && line < lines + used; --index)
        line += strlen(line) + 1;
    return line < lines + used ? line : nullptr;
}

const char *CL_KitLogLine(size_t index) {
    constexpr size_t kStamp = sizeof "2026/11/16 18:05:45:123.456 " - 1;
    static char text[2048];
    const char *line = CL_KitRawLogLine(index);
    if (line == nullptr) return nullptr;
    const size_t length = strlen(line);
    line += std::min(length, kStamp);
    snprintf(text, sizeof text, "%.*s", static_cast<int>(strcspn(line, "\n")), line);
    return text;
}

uint32_t CL_KitLogHas(const char *const *expected, const char **missing) {
    for (size_t i = 0; *expected != nullptr; ++expected) {
        const char *line = nullptr;
        do {
            line = CL_KitLogLine(i++);
        } while (line != nullptr && strcmp(line, *expected) != 0);
        if (line != nullptr) continue;
        if (missing != nullptr) *missing = *expected;
        return 0;
    }
    return 1;
}

}  // extern "C"
