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
    char stamp[64];
    if (strftime(stamp, sizeof stamp, "%Y/%m/%d(%a) %T", &local) == 0) stamp[0] = '\0';
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

// Both reports of live blocks: where each line goes is `write`'s business.
template <class Write>
void write_lists(Write write) {
    const auto list = [&](const char *title, const CL_Queue &blocks) {
        if (blocks.count == 0) return;
        write(title);
        for_each(blocks, [&](const CL_BlockHeader *block) {
            char text[100];
            char line[kLineSize];
            describe(block, text, sizeof text);
            snprintf(line, sizeof line, "CLLIB:%.16s(%d) %s", block->allocated.file,
                     static_cast<int>(block->allocated.line), text);
            write(line);
        });
    };
    if (switched_on("CLLIB_DEBUG")) list("CLLIB:lib memory list", CL_MainTable->library_blocks);
    list("CLLIB:usr memory list", CL_MainTable->user_blocks);
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
    write_lists(cl_inlog_write);
}

void mem_disp() {
    write_lists(puts);
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
