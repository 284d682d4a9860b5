// The C interface of plans, clocks, disorder and outlets, over a page of the process's own.
#include <qvcl/kit.h>

#include <algorithm>
#include <cstring>

#include "kit/clock.h"
#include "kit/judge.h"
#include "kit/outlets.h"

namespace kit {

Outlets outlets;

namespace {

// Never constructed: stand-ins are called before any constructor, and see that there is no page.
alignas(Page) unsigned char own_page[sizeof(Page)];

Page &the_page() {
    if (page == nullptr) {
        void *memory = own_page;
        page = static_cast<Page *>(memory);
    }
    return *page;
}

timespec sleeps[64];
std::atomic<size_t> sleep_count;

bool copy(Fault &to, const CL_KitFault &from) {
    const Call call = from.call != nullptr ? call_named(from.call) : kCallCount;
    if (call == kCallCount || from.nth < 1 || from.times < 1) return false;
    to.call = call;
    to.from = static_cast<uint8_t>(from.from != 0 ? from.from : uint32_t{CL_KIT_LIBRARY});
    to.swallow = from.swallow != 0;
    to.made = from.made != 0;
    to.error = from.error;
    to.nth = from.nth;
    to.times = from.times;
    to.at_most = from.limited != 0 ? from.at_most : UINT64_MAX;
    to.site = 0;
    to.program[0] = '\0';
    to.before = from.before;
    to.context = from.context;
    to.seen = 0;
    return true;
}

}  // namespace

void note_sleep(const timespec &asked) {
    const size_t at = sleep_count.fetch_add(1);
    if (at < sizeof sleeps / sizeof *sleeps) sleeps[at] = asked;
}

}  // namespace kit

using namespace kit;

extern "C" {

uint32_t CL_KitPlan(const CL_KitFault *faults, size_t count) {
    Fault checked{};
    if (count > CL_KIT_MAX_FAULTS) return 0;
    for (size_t i = 0; i < count; ++i)
        if (!copy(checked, faults[i])) return 0;
    CL_KitEndPlan();
    for (size_t i = 0; i < count; ++i)
        copy(page->faults[i], faults[i]);
    page->hits = 0;
    page->order_count = 0;
    page->fault_count = static_cast<uint32_t>(count);
    page->note_order = true;
    return 1;
}

void CL_KitEndPlan(void) {
    the_page().fault_count = 0;
    page->note_order = false;
}

uint32_t CL_KitHits(void) {
    return the_page().hits.load();
}

const char *CL_KitCall(size_t index) {
    const uint64_t known =
        std::min<uint64_t>(the_page().order_count.load(), sizeof page->order / sizeof *page->order);
    return index < known ? name_of(static_cast<Call>(page->order[index])) : nullptr;
}

size_t CL_KitCount(const char *call) {
    size_t count = 0;
    const char *name = nullptr;
    for (size_t i = 0; (name = CL_KitCall(i)) != nullptr; ++i)
        if (call == nullptr || strcmp(call, name) == 0) ++count;
    return count;
}

const char *CL_KitCallName(size_t index) {
    return index < kCallCount ? name_of(static_cast<Call>(index)) : nullptr;
}

const int *CL_KitErrors(const char *call) {
    const Call known = call_named(call);
    return known != kCallCount ? errors_of(known) : nullptr;
}

void CL_KitSetUptime(int64_t seconds) {
    standing.uptime = seconds;
    if (seconds < 0) standing.seconds = -1;
}

void CL_KitSetTime(uint64_t seconds, uint64_t microseconds) {
    standing.seconds = static_cast<int64_t>(seconds);
    standing.microseconds = static_cast<int64_t>(microseconds);
}

uint32_t CL_KitVirtualTime(int64_t seconds) {
    if (the_page().clock.mode == kVirtual) return 0;
    begin_clock(page->clock, kVirtual, seconds * 1'000'000, 0);
    return 1;
}

uint64_t CL_KitElapsed(void) {
    return the_page().clock.now.load();
}

uint32_t CL_KitSleep(size_t index, struct timespec *asked) {
    if (index >= std::min(sleep_count.load(), sizeof sleeps / sizeof *sleeps)) return 0;
    *asked = sleeps[index];
    return 1;
}

void CL_KitDisorder(uint64_t seed, uint32_t from) {
    the_page().disorder_from = static_cast<uint8_t>(from != 0 ? from : uint32_t{CL_KIT_LIBRARY});
    page->seed = seed;
}

void CL_KitCatalogue(const char *(*text)(int number, void *context), void *context) {
    outlets.catalogue = true;
    outlets.text = text;
    outlets.text_context = context;
}

void CL_KitRealCatalogue(void) {
    outlets.catalogue = false;
}

uint64_t CL_KitOpenCatalogues(void) {
    return outlets.open_catalogues;
}

void CL_KitSystemLog(void (*line)(const char *text, void *context), void *context) {
    outlets.line = line;
    outlets.line_context = context;
}

}  // extern "C"
