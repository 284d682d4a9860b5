// Sources: what another library waits for, as watches and one timer of the nest.
//
// After each dispatch the library is asked again, and what it wants is compared with what is
// watched. A library may have closed a descriptor meanwhile and opened another one under the same
// number, which nobody tells: so every watch is taken off epoll and put back, which fails for
// another file. That costs two system calls for a descriptor; sources have few.
#include <qvcl/qvcl.h>
#include <qvcl/source.h>
#include <cerrno>

#include "starter/nest.h"

namespace {

using qvcl::nest::Report;

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr uint64_t kPatience = 1'000'000'000;  // before it is told of what cannot be watched

struct Watched {
    CL_SourceFD wanted;
    CL_NestWatch *watch;  // null: cannot be watched
};

}  // namespace

struct CL_Source {
    CL_Source *next;
    uint64_t number;  // no other source ever had it
    uint64_t nests;   // that had been deleted when this one began: its handles are this nest's
    uint32_t limit;
    uint32_t priority;
    CL_SourcePrepare prepare;
    CL_SourceDispatch dispatch;
    uint64_t arg1;
    uint64_t arg2;
    CL_NestTimer *timer;
    bool asking;
    uint32_t count;
    Watched *watched;
    CL_SourceFD *wanted;
};

namespace {

CL_Source *sources;
uint64_t created;

// --- Which are live ---

CL_Source **link_of(const CL_Source *source) {
    CL_Source **link = &sources;
    while (*link != nullptr && *link != source)
        link = &(*link)->next;
    return link;
}

bool is_live(const CL_Source *source, uint64_t number) {
    const CL_Source *found = *link_of(source);
    return found != nullptr && found->number == number;
}

bool has_nest(const CL_Source &source) {
    return qvcl::nest::current != nullptr && qvcl::nest::deleted == source.nests;
}

// --- What is watched ---

// Keeps the first failure.
void note(CL_ErrInfo *first, const CL_ErrInfo &err) {
    if (first->err == 0) *first = err;
}

uint32_t on_watch(CL_NestWatch *watch, uint32_t ready, uint64_t arg1, uint64_t arg2);
uint32_t on_timer(CL_NestTimer *timer, uint64_t missed, uint64_t arg1, uint64_t arg2);

void unwatch(Watched &watched) {
    CL_ErrInfo scratch;
    if (watched.watch != nullptr) CL_DeleteNestWatch(watched.watch, &scratch);
    watched.watch = nullptr;
}

void watch(CL_Source &source, Watched &watched, uint32_t events, CL_ErrInfo *first) {
    CL_ErrInfo err;
    watched.wanted.events = events;
    if (watched.watch != nullptr && CL_ChangeNestWatch(watched.watch, 0, &err) &&
        CL_ChangeNestWatch(watched.watch, events, &err))
        return;
    unwatch(watched);
    watched.watch = CL_CreateNestWatch(watched.wanted.fd, events, source.priority, on_watch,
                                       reinterpret_cast<uint64_t>(&source),
                                       static_cast<uint64_t>(watched.wanted.fd), &err);
    if (watched.watch == nullptr) note(first, err);
}

CL_SourceFD *find(CL_SourceFD *all, uint32_t count, int fd) {
    for (uint32_t i = 0; i < count; ++i)
        if (all[i].fd == fd) return &all[i];
    return nullptr;
}

Watched *find(CL_Source &source, int fd) {
    for (uint32_t i = 0; i < source.count; ++i)
        if (source.watched[i].wanted.fd == fd) return &source.watched[i];
    return nullptr;
}

// Puts together what stands there twice. The new count.
uint32_t unite(CL_SourceFD *all, uint32_t count) {
    uint32_t united = 0;
    for (uint32_t i = 0; i < count; ++i) {
        CL_SourceFD *before = find(all, united, all[i].fd);
        if (before != nullptr) {
            before->events |= all[i].events;
        } else {
            all[united++] = all[i];
        }
    }
    return united;
}

void watch_all(CL_Source &source, uint32_t count, CL_ErrInfo *first) {
    for (uint32_t i = source.count; i-- != 0;) {
        if (find(source.wanted, count, source.watched[i].wanted.fd) != nullptr) continue;
        unwatch(source.watched[i]);
        source.watched[i] = source.watched[--source.count];
    }
    for (uint32_t i = 0; i < count; ++i) {
        Watched *watched = find(source, source.wanted[i].fd);
        if (watched == nullptr) {
            watched = &source.watched[source.count++];
            *watched = {source.wanted[i], nullptr};
        }
        watch(source, *watched, source.wanted[i].events, first);
    }
}

bool is_broken(const CL_Source &source) {
    for (uint32_t i = 0; i < source.count; ++i)
        if (source.watched[i].watch == nullptr) return true;
    return false;
}

void set_timer(CL_Source &source, uint64_t due, CL_ErrInfo *first) {
    CL_ErrInfo err;
    if (is_broken(source)) {
        const uint64_t patience = CL_NestTime(CL_NEST_MONOTONIC) + kPatience;
        if (due > patience) due = patience;
    }
    const bool set = due > INT64_MAX
                         ? CL_StopNestTimer(source.timer, &err)
                         : CL_StartNestTimer(source.timer, CL_NEST_ABSOLUTE, due, 0, &err);
    if (!set) note(first, err);
}

// first: an empty record, which gets the first failure.
void ask(CL_Source &source, CL_ErrInfo *first) {
    uint64_t due = CL_SOURCE_NEVER;
    source.asking = true;
    uint32_t count = source.prepare(source.wanted, source.limit, &due, source.arg1, source.arg2);
    source.asking = false;
    count = unite(source.wanted, count < source.limit ? count : source.limit);
    watch_all(source, count, first);
    set_timer(source, due, first);
}

// --- What the nest calls ---

// Whether the source is still there.
bool tell(CL_Source *source, int fd, uint32_t ready, uint32_t *result) {
    const uint64_t number = source->number;
    *result = source->dispatch(source, fd, ready, source->arg1, source->arg2);
    return is_live(source, number) && has_nest(*source);
}

uint32_t on_watch(CL_NestWatch * /*watch*/, uint32_t ready, uint64_t arg1, uint64_t arg2) {
    auto *source = reinterpret_cast<CL_Source *>(arg1);
    uint32_t result;
    CL_ErrInfo err = {};
    if (tell(source, static_cast<int>(arg2), ready, &result)) ask(*source, &err);
    return result;
}

// The first descriptor that cannot be watched, or -1: the time of the library itself is over.
uint32_t on_timer(CL_NestTimer * /*timer*/, uint64_t /*missed*/, uint64_t arg1, uint64_t /*arg2*/) {
    auto *source = reinterpret_cast<CL_Source *>(arg1);
    uint32_t result;
    CL_ErrInfo err = {};
    int broken = -1;
    for (uint32_t i = 0; i < source->count && broken == -1; ++i)
        if (source->watched[i].watch == nullptr) broken = source->watched[i].wanted.fd;
    if (tell(source, broken, broken != -1 ? uint32_t{CL_NEST_ERROR} : 0, &result))
        ask(*source, &err);
    return result;
}

// --- Their life ---

CL_Source *allocate(uint32_t limit, const char *file, uint32_t line) {
    const size_t size = sizeof(CL_Source) + limit * (sizeof(Watched) + sizeof(CL_SourceFD));
    auto *source = static_cast<CL_Source *>(CL_malloc_M(size, 0, file, line));
    if (source == nullptr) return nullptr;
    *source = {.number = ++created, .nests = qvcl::nest::deleted, .limit = limit};
    source->watched = reinterpret_cast<Watched *>(source + 1);
    source->wanted = reinterpret_cast<CL_SourceFD *>(source->watched + limit);
    source->next = sources;
    sources = source;
    return source;
}

void release(CL_Source *source) {
    CL_ErrInfo scratch;
    *link_of(source) = source->next;
    if (has_nest(*source)) {
        for (uint32_t i = 0; i < source->count; ++i)
            unwatch(source->watched[i]);
        if (source->timer != nullptr) CL_DeleteNestTimer(source->timer, &scratch);
    }
    CL_free_M(source, 0, CL_FILE_LINE);
}

// A live source that its own prepare does not call for; or null, and the failure is told.
CL_Source *usable(CL_Source *source, CL_ErrInfo *err) {
    if (*link_of(source) == nullptr) return fail(err, EBADF);
    if (source->asking) return fail(err, EBUSY);
    return source;
}

}  // namespace

extern "C" CL_Source *CL_CreateSource_M(uint32_t limit, uint32_t priority, CL_SourcePrepare prepare,
                                        CL_SourceDispatch dispatch, uint64_t arg1, uint64_t arg2,
                                        CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                        uint32_t line) {
    const Report report(err);
    if (qvcl::nest::existing(fail, report) == nullptr) return nullptr;
    if (prepare == nullptr || dispatch == nullptr) return fail(report, EFAULT);
    if (limit > CL_SOURCE_LIMIT) return fail(report, EINVAL);
    CL_Source *source = allocate(limit, file, line);
    if (source == nullptr) return fail(report, ENOMEM);
    source->priority = priority;
    source->prepare = prepare;
    source->dispatch = dispatch;
    source->arg1 = arg1;
    source->arg2 = arg2;
    source->timer = CL_CreateNestTimer_M(priority, on_timer, reinterpret_cast<uint64_t>(source), 0,
                                         report, callerFlag, file, line);
    CL_ErrInfo *first = report;
    if (source->timer != nullptr) ask(*source, first);
    if (first->err == 0) return source;
    release(source);
    return nullptr;
}

extern "C" uint32_t CL_UpdateSource_M(CL_Source *source, CL_ErrInfo *err, uint8_t /*callerFlag*/,
                                      const char * /*file*/, uint32_t /*line*/) {
    const Report report(err);
    if (usable(source, report) == nullptr) return 0;
    if (!has_nest(*source)) return fail(report, CL_ERR_STATE);
    CL_ErrInfo *first = report;
    ask(*source, first);
    return first->err == 0;
}

extern "C" uint32_t CL_DeleteSource_M(CL_Source *source, CL_ErrInfo *err, uint8_t /*callerFlag*/,
                                      const char * /*file*/, uint32_t /*line*/) {
    const Report report(err);
    if (usable(source, report) == nullptr) return 0;
    release(source);
    return 1;
}
