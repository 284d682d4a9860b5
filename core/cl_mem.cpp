// Tracked memory.
//
// One header in front of every block carries its list link, its size and the positions of its
// allocation and release, so both are constant-time. The two accounts, the library's and the
// application's, differ only in which fields of the main table they count in.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <initializer_list>

#include <cerrno>

#include <qvcl/main.h>
#include <qvcl/memory.h>
#include <qvcl/steps.h>

#include "core/text.h"

using qvcl::switched_on;

namespace {

constexpr uint64_t kGuardSize = sizeof CL_MEM_GUARD - 1;
constexpr size_t kLineSize = 160;  // the longest line of this file, with room to spare

struct Account {
    uint64_t CL_MainBlock::*bytes;
    uint64_t CL_MainBlock::*peak;
    CL_Queue CL_MainBlock::*blocks;
};
constexpr Account kLibrary = {&CL_MainBlock::library_bytes, &CL_MainBlock::library_peak,
                              &CL_MainBlock::library_blocks};
constexpr Account kUser = {&CL_MainBlock::user_bytes, &CL_MainBlock::user_peak,
                           &CL_MainBlock::user_blocks};

const Account &account_of(int32_t callerFlag) {
    return callerFlag == 1 ? kLibrary : kUser;
}

char *data_of(CL_BlockHeader *block) {
    return reinterpret_cast<char *>(block + 1);
}

bool guard_whole(CL_BlockHeader *block) {
    return memcmp(data_of(block) + block->size, CL_MEM_GUARD, kGuardSize) == 0;
}

// "2026/11/16(Mon) 17:59:29.000123 8432 byte"
void describe(const CL_BlockHeader *block, char *text, size_t size) {
    const time_t seconds = static_cast<time_t>(block->allocated.seconds);
    struct tm local = {};
    localtime_r(&seconds, &local);
    char stamp[64];  // holds any date
    strftime(stamp, sizeof stamp, "%Y/%m/%d(%a) %T", &local);
    snprintf(text, size, "%s.%06ld %zu byte", stamp,
             static_cast<long>(block->allocated.microseconds), static_cast<size_t>(block->size));
}

void over_run_line(CL_BlockHeader *block, char *line, size_t size) {
    char text[100];
    describe(block, text, sizeof text);
    snprintf(line, size, "CLLIB:memory over run. addr = %p at %.16s(%d) %s\n",
             static_cast<void *>(data_of(block)), block->allocated.file,
             static_cast<int>(block->allocated.line), text);
}

template <class Visit>
void for_each(const CL_Queue &blocks, Visit visit) {
    for (void *b = blocks.head; b != nullptr; b = static_cast<CL_BlockHeader *>(b)->link.next) {
        visit(static_cast<CL_BlockHeader *>(b));
    }
}

// A line of a report of live blocks.
struct BlockLine {
    char text[kLineSize];

    explicit BlockLine(const CL_BlockHeader *block) {
        char when[100];
        describe(block, when, sizeof when);
        snprintf(text, sizeof text, "CLLIB:%.16s(%d) %s", block->allocated.file,
                 static_cast<int>(block->allocated.line), when);
    }
};

// The lists of both reports.
template <class Visit>
void for_each_list(Visit visit) {
    if (switched_on("CLLIB_DEBUG")) visit("CLLIB:lib memory list", CL_MainTable->library_blocks);
    visit("CLLIB:usr memory list", CL_MainTable->user_blocks);
}

// The internal log is the application's callback, which may allocate and release blocks between two
// lines, so a report of its blocks needs no pointer to one: what is to be told is marked first, in
// the release position that a live block does not use, and each block goes to the end of its list
// before it is told. What is left to tell is thus always a marked row at the head. (A cursor that
// CL_free_M moves, as other walks have, would need a place in the main table.)
enum Mark : uint32_t { kNew, kToTell, kTold };

uint32_t &mark_of(CL_BlockHeader *block) {
    return block->released.line;
}

void mark_for_report(const CL_Queue &blocks) {
    for_each(blocks, [](CL_BlockHeader *block) { mark_of(block) = kToTell; });
}

// The oldest block that is still to be told, moved to the end of its list; or null.
CL_BlockHeader *next_to_tell(CL_Queue &blocks) {
    auto *block = static_cast<CL_BlockHeader *>(blocks.head);
    if (block == nullptr || mark_of(block) != kToTell) return nullptr;
    mark_of(block) = kTold;
    CL_QUE_PutTail(&blocks, CL_QUE_GetTop(&blocks));
    return block;
}

// Oldest first again: what came during the report goes behind what was told.
void restore_order(CL_Queue &blocks) {
    auto *block = static_cast<CL_BlockHeader *>(blocks.head);
    for (uint32_t left = blocks.count; left != 0; --left) {
        auto *next = static_cast<CL_BlockHeader *>(block->link.next);
        if (mark_of(block) == kNew) CL_QUE_PutTail(&blocks, CL_QUE_GetData(&blocks, block));
        mark_of(block) = kNew;
        block = next;
    }
}

}  // namespace

void *CL_malloc_M(uint64_t size, int32_t callerFlag, const char *file, uint32_t line) {
    CL_MainBlock &table = *CL_MainTable;
    const uint64_t extra =
        sizeof(CL_BlockHeader) + (table.memory_check != 0 ? kGuardSize : uint64_t{0});
    if (size == 0 || size > UINT64_MAX - extra) return nullptr;
    if (callerFlag == 0 && table.memory_limit != 0 &&
        (size > table.memory_limit || table.user_bytes > table.memory_limit - size)) {
        return nullptr;
    }
    auto *block = static_cast<CL_BlockHeader *>(malloc(extra + size));
    if (block == nullptr) return nullptr;
    memset(block, 0, sizeof *block + size);
    if (table.memory_check != 0) memcpy(data_of(block) + size, CL_MEM_GUARD, kGuardSize);
    CL_SetPT(&block->allocated, file, line);
    block->size = size;

    const Account &account = account_of(callerFlag);
    table.*account.bytes += size;
    if (table.*account.peak < table.*account.bytes) table.*account.peak = table.*account.bytes;
    CL_QUE_PutTail(&(table.*account.blocks), block);
    return data_of(block);
}

uint32_t CL_free_M(void *data, int32_t callerFlag, const char *file, uint32_t line) {
    if (data == nullptr) return 0;
    CL_MainBlock &table = *CL_MainTable;
    auto *block = static_cast<CL_BlockHeader *>(data) - 1;
    if (table.memory_check != 0 && !guard_whole(block)) {
        char text[kLineSize];
        over_run_line(block, text, sizeof text);
        cl_inlog_write(text);
        return 0;
    }
    const Account &account = account_of(callerFlag);
    if (CL_QUE_GetData(&(table.*account.blocks), block) == nullptr) return 0;
    CL_SetPT(&block->released, file, line);
    table.*account.bytes -= block->size;
    free(block);
    return 1;
}

uint32_t CL_nmem_M(int32_t callerFlag) {
    return CL_QUE_GetNum(&(CL_MainTable->*account_of(callerFlag).blocks));
}

uint64_t CL_memlimit(uint64_t limit) {
    const uint64_t previous = CL_MainTable->memory_limit;
    CL_MainTable->memory_limit = limit;
    return previous;
}

void cl_memdisp() {
    for_each_list([](const char *, CL_Queue &blocks) { mark_for_report(blocks); });
    for_each_list([](const char *title, CL_Queue &blocks) {
        if (blocks.head == nullptr) return;
        cl_inlog_write(title);
        while (const CL_BlockHeader *block = next_to_tell(blocks))
            cl_inlog_write(BlockLine(block).text);
        restore_order(blocks);
    });
}

void mem_disp() {
    for_each_list([](const char *title, const CL_Queue &blocks) {
        if (blocks.head != nullptr) puts(title);
        for_each(blocks, [](const CL_BlockHeader *block) { puts(BlockLine(block).text); });
    });
}

void mem_check() {
    if (CL_MainTable->memory_check == 0) return;
    for (const Account *account : {&kLibrary, &kUser}) {
        for_each(CL_MainTable->*account->blocks, [](CL_BlockHeader *block) {
            if (guard_whole(block)) return;
            char text[kLineSize];
            over_run_line(block, text, sizeof text);
            printf("%s", text);
        });
    }
}

uint32_t cl_addrchk(const void *address, int32_t length) {
    return length != 0 && address == nullptr ? EFAULT : 0;
}
