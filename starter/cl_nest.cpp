// The nest: one FD object on an epoll descriptor. Here are its life, the table of its handles, what
// epoll watches, and the turn that it takes when the loop dispatches its object.
//
// Nothing is taken from the kernel before it is delivered: descriptors are watched by level, a
// timerfd stays readable until it is set anew. So a turn may end after any callback, and the next
// one finds what was left.
#include "starter/nest.h"

#include <fcntl.h>
#include <qvcl/qvcl.h>
#include <unistd.h>
#include <cerrno>

#include "core/text.h"
#include "diag/traced.h"

namespace qvcl::nest {

namespace {

constexpr Failure fail{place(__FILE__)};
constexpr SourceName kFile = source_name(__FILE__);
constexpr uint32_t kFirstOwners = 64;

}  // namespace

Nest *current;
uint64_t deleted;

const KindRow kRows[kKinds] = {
    {nullptr, nullptr},
    {nullptr, release_timer},
    {watch_ready, release_source},
    {posts_ready, release_posts},
    {nullptr, release_watcher},
    {process_ready, release_descriptor},
    {nullptr, release_descriptor},
    {signals_ready, release_descriptor},
};

// --- Handles ---

bool Handles::grow(const char *file, uint32_t line) {
    errno = ENOMEM;
    if (chunks_ == kChunks) return false;
    const uint32_t size = kFirst << chunks_;
    const uint32_t first = count();
    auto *chunk = static_cast<Handle *>(CL_malloc_M(sizeof(Handle) * size, 0, file, line));
    if (chunk == nullptr) return false;
    chunk_[chunks_++] = chunk;
    for (uint32_t i = 0; i < size; ++i) {
        chunk[i].index = first + i;
        chunk[i].next_free = i + 1 < size ? &chunk[i + 1] : nullptr;
    }
    free_first_ = chunk;
    free_last_ = &chunk[size - 1];
    return true;
}

Handle *Handles::take(Kind kind, const Calls &calls, const char *file, uint32_t line) {
    if (free_first_ == nullptr && !grow(file, line)) return nullptr;
    Handle *handle = free_first_;
    free_first_ = handle->next_free;
    *handle = {.kind = kind, .index = handle->index, .life = handle->life, .calls = calls};
    memset(&handle->timer, 0, sizeof(Handle) - offsetof(Handle, timer));
    return handle;
}

// The entry that was given back longest ago is used first: a stale handle is known for long.
void Handles::give_back(Handle *handle) {
    handle->kind = kFree;
    ++handle->life;
    handle->next_free = nullptr;
    (free_first_ != nullptr ? free_last_->next_free : free_first_) = handle;
    free_last_ = handle;
}

bool Handles::has(const void *handle, Kind kind) const {
    const auto address = reinterpret_cast<uintptr_t>(handle);
    for (uint32_t i = chunks_; i-- != 0;) {
        const uintptr_t offset = address - reinterpret_cast<uintptr_t>(chunk_[i]);
        if (offset >= sizeof(Handle) * (kFirst << i)) continue;
        return offset % sizeof(Handle) == 0 && static_cast<const Handle *>(handle)->kind == kind;
    }
    return false;
}

Handle *Handles::at(uint32_t index) const {
    const uint32_t chunk = 31 - static_cast<uint32_t>(__builtin_clz(index / kFirst + 1));
    return &chunk_[chunk][index - kFirst * ((1u << chunk) - 1)];
}

Handle *Handles::find(uint32_t index, uint32_t life) const {
    Handle *handle = at(index);
    return handle->life == life ? handle : nullptr;  // an entry that is given back begins another
}

uint32_t Handles::count() const {
    return kFirst * ((1u << chunks_) - 1);
}

void Handles::free_all() {
    while (chunks_ != 0)
        CL_free_M(chunk_[--chunks_], 0, CL_FILE_LINE);
}

// --- What epoll watches ---

namespace {

int control(int epoll, int operation, const Handle &handle, int fd, uint32_t events) {
    struct epoll_event event = {};
    event.events = events;
    event.data.u64 = uint64_t{handle.life} << 32 | handle.index;
    return epoll_ctl(epoll, operation, fd, &event);
}

bool is_source(const Handle &handle) {
    return handle.kind != kFree && handle.kind != kTimer && handle.kind != kSignal;
}

// A watch whose descriptor was closed before leaves its file in epoll, where nothing but its number
// could take it out, when a duplicate keeps it open. So all others move to a new epoll, which gets
// the number of the old one. What goes wrong is tried again by the next turn.
void renew_epoll(Nest &nest) {
    const int fresh = epoll_create1(EPOLL_CLOEXEC);
    if (fresh == -1) return;
    for (uint32_t i = 0; i < nest.handles.count(); ++i) {
        Handle &handle = *nest.handles.at(i);
        if (!is_source(handle) || handle.source.events == 0) continue;
        if (control(fresh, EPOLL_CTL_ADD, handle, handle.source.fd, handle.source.events) == 0)
            continue;
        if (errno != EBADF && errno != EPERM) {
            cl_u_close(fresh);
            return;
        }
    }
    nest.stale = dup3(fresh, nest.epoll, O_CLOEXEC) == -1;
    cl_u_close(fresh);
}

// Room for the owner of this number.
bool reserve_owner(Nest &nest, int fd) {
    const auto number = static_cast<uint32_t>(fd);
    if (number < nest.owners_size) return true;
    uint32_t size = nest.owners_size != 0 ? nest.owners_size : kFirstOwners;
    while (size <= number)
        size *= 2;
    auto *owners = static_cast<Owner *>(CL_malloc_M(sizeof(Owner) * size, 0, CL_FILE_LINE));
    if (owners == nullptr) return false;
    if (nest.owners != nullptr) {
        memcpy(owners, nest.owners, sizeof(Owner) * nest.owners_size);
        CL_free_M(nest.owners, 0, CL_FILE_LINE);
    }
    nest.owners = owners;
    nest.owners_size = size;
    return true;
}

// Epoll does not know this one's descriptor any more.
void disown(Nest &nest, Handle &handle) {
    nest.owners[handle.source.fd].handle = nullptr;
    handle.source.events = 0;
}

void not_ready(Nest &nest, Handle &handle) {
    if (handle.source.pending != 0) nest.ready[handle.source.pending - 1].handle = nullptr;
    handle.source.pending = 0;
}

// Epoll has taken this descriptor. If it knew another by the same number, that was closed.
void own(Nest &nest, Handle &handle, int fd, uint32_t events) {
    Handle *&owner = nest.owners[fd].handle;
    if (owner != nullptr) {
        owner->source.events = 0;
        not_ready(nest, *owner);
    }
    owner = &handle;
    handle.source.fd = fd;
    handle.source.events = events;
}

}  // namespace

bool attach(Nest &nest, Handle &handle, int fd, uint32_t events) {
    if (control(nest.epoll, EPOLL_CTL_ADD, handle, fd, events) != 0) return false;
    if (!reserve_owner(nest, fd)) {
        control(nest.epoll, EPOLL_CTL_DEL, handle, fd, 0);
        errno = ENOMEM;
        return false;
    }
    own(nest, handle, fd, events);
    return true;
}

bool change(Nest &nest, Handle &handle, uint32_t events) {
    Source &source = handle.source;
    if (events == source.events) return true;
    if (source.events == 0) return attach(nest, handle, source.fd, events);
    const int operation = events == 0 ? EPOLL_CTL_DEL : EPOLL_CTL_MOD;
    if (control(nest.epoll, operation, handle, source.fd, events) != 0) return false;
    source.events = events;
    if (events == 0) disown(nest, handle);
    return true;
}

void detach(Nest &nest, Handle &handle) {
    if (handle.source.events != 0) {
        if (nest.epoll != -1) control(nest.epoll, EPOLL_CTL_DEL, handle, handle.source.fd, 0);
        disown(nest, handle);
    }
    not_ready(nest, handle);
}

bool keep(Nest &nest, Handle &handle, int fd) {
    handle.source.fd = fd;
    if (fd != -1 && attach(nest, handle, fd, EPOLLIN)) return true;
    const int error = errno;
    remove(nest, handle);
    errno = error;
    return false;
}

void release_source(Nest &nest, Handle &source) {
    detach(nest, source);
}

void release_descriptor(Nest &nest, Handle &source) {
    detach(nest, source);
    if (source.source.fd != -1) cl_u_close(source.source.fd);
}

// --- Records ---

Told::Told(const Nest &nest, uint32_t type, const Handle &handle, const Calls &calls) : record_{} {
    fill_head(record_.head, CL_API_CALLBACK, sizeof record_, 0, kFile, __LINE__);
    record_.head.marker = CL_MARK_CALLBACK_ENTRY;
    record_.callback = reinterpret_cast<uint64_t>(calls.callback);
    record_.handle = address_of(nest.object);
    record_.arg1 = calls.arg1;
    record_.arg2 = calls.arg2;
    record_.type = type;
    record_.data = address_of(&handle);
}

Told &Told::length(int64_t value) {
    record_.data_length = static_cast<int32_t>(value < INT32_MAX ? value : INT32_MAX);
    return *this;
}

Told &Told::exit(uint32_t reason, uint32_t value) {
    record_.exit_reason = reason;
    record_.exit_value = value;
    return *this;
}

void Told::begin() {
    CL_TRC_Write_M(&record_, CL_RING_LIBRARY);
}

uint32_t Told::end(uint32_t result) {
    record_.head.phase = 1;
    record_.head.marker = CL_MARK_CALLBACK_EXIT;
    record_.result = result;
    CL_TRC_Write_M(&record_, CL_RING_LIBRARY);
    return result;
}

// --- A turn ---

namespace {

// Puts a descriptor that is ready behind those of the same priority. They mostly have the same.
void put_ready(Nest &nest, Handle &handle, uint32_t events) {
    uint32_t at = nest.ready_count++;
    for (; at != 0 && nest.ready[at - 1].handle->calls.priority > handle.calls.priority; --at) {
        nest.ready[at] = nest.ready[at - 1];
        nest.ready[at].handle->source.pending = at + 1;
    }
    nest.ready[at] = {&handle, events};
    handle.source.pending = at + 1;
}

void find_ready(Nest &nest) {
    const int found = epoll_wait(nest.epoll, nest.events, static_cast<int>(nest.most), 0);
    nest.ready_count = 0;
    for (int i = 0; i < found; ++i) {
        const uint64_t key = nest.events[i].data.u64;
        Handle *handle =
            nest.handles.find(static_cast<uint32_t>(key), static_cast<uint32_t>(key >> 32));
        if (handle == nullptr || handle->source.events == 0) {
            nest.stale = true;
        } else if (handle->kind == kClock) {
            clock_rang(nest, *handle);
        } else {
            put_ready(nest, *handle, nest.events[i].events);
        }
    }
}

// What is left when a callback has ended the loop, with this result, is only forgotten: epoll tells
// it again.
uint32_t call_ready(Nest &nest, uint64_t deleted_before, uint32_t result) {
    for (uint32_t i = 0; i < nest.ready_count; ++i) {
        Handle *handle = nest.ready[i].handle;
        if (handle == nullptr) continue;
        handle->source.pending = 0;
        if (result != 0) continue;
        result = kRows[handle->kind].ready(nest, *handle, nest.ready[i].events);
        if (deleted != deleted_before) return result;
    }
    nest.ready_count = 0;
    return result;
}

// Callback of the nest's object.
uint32_t take_turn(CL_Object * /*object*/, CL_Event *event, uint64_t /*arg1*/, uint64_t /*arg2*/) {
    if (event->type != CL_EVENT_DESCRIPTOR) return 0;
    Nest &nest = *current;
    const uint64_t deleted_before = deleted;
    find_ready(nest);
    uint32_t result = call_timers(nest);
    if (deleted != deleted_before) return result;
    result = call_ready(nest, deleted_before, result);
    if (deleted != deleted_before) return result;
    wind_clocks(nest);
    if (nest.stale) renew_epoll(nest);
    return result;
}

// --- Its life ---

Nest *allocate(uint32_t most, const char *file, uint32_t line) {
    const size_t size = sizeof(Nest) + most * (sizeof(Ready) + sizeof(struct epoll_event));
    auto *nest = static_cast<Nest *>(CL_malloc_M(size, 0, file, line));
    if (nest == nullptr) return nullptr;
    nest->most = most;
    nest->ready = reinterpret_cast<Ready *>(nest + 1);
    nest->events = reinterpret_cast<struct epoll_event *>(nest->ready + most);
    nest->epoll = -1;
    for (Clock &clock : nest->clocks)
        clock.armed = kNever;
    return nest;
}

uint32_t list(Nest &nest, uint32_t priority, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
              uint32_t line) {
    nest.object = CL_CreateFD_M(CL_KIND_FD, take_turn, 0, 0, err, callerFlag, file, line);
    if (nest.object == nullptr) return 0;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(nest.epoll, &readable);
    if (CL_SetFD_M(nest.object, static_cast<uint32_t>(nest.epoll) + 1, &readable, nullptr, nullptr,
                   err, callerFlag, file, line) &&
        CL_AddEventList_M(nest.object, priority, err, callerFlag, file, line))
        return 1;
    CL_ErrInfo scratch;
    CL_DeleteFD_M(nest.object, &scratch, callerFlag, file, line);
    return 0;
}

uint32_t open_epoll(Nest &nest, CL_ErrInfo *err) {
    nest.epoll = epoll_create1(EPOLL_CLOEXEC);
    if (nest.epoll == -1) return fail.sys(err);
    if (nest.epoll >= FD_SETSIZE) return fail(err, EMFILE);
    return 1;
}

void close_epoll(Nest &nest) {
    if (nest.epoll != -1) cl_u_close(nest.epoll);
    nest.epoll = -1;
}

// 1 when the library has no object of the nest's any more.
uint32_t delete_object(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                       uint32_t line) {
    if (CL_MainTable->state != CL_STATE_INITIALISED) return 1;
    if (!cl_CheckFD(object, err) || object->callback != take_turn) return 1;
    return CL_DeleteFD_M(object, err, callerFlag, file, line);
}

}  // namespace

Nest *existing(const Failure &told, CL_ErrInfo *err, uint32_t line) {
    if (current != nullptr && CL_MainTable->state == CL_STATE_INITIALISED) return current;
    told.because(Reason::not_open)(err, CL_ERR_STATE, line);
    return nullptr;
}

Nest *existing(const Failure &told, const Calls &calls, CL_ErrInfo *err, uint32_t line) {
    Nest *nest = existing(told, err, line);
    if (nest == nullptr || calls.callback != nullptr) return nest;
    return told(err, EFAULT, line);
}

Nest *owner(const Failure &told, const void *handle, Kind kind, CL_ErrInfo *err, uint32_t line) {
    Nest *nest = existing(told, err, line);
    if (nest == nullptr || nest->handles.has(handle, kind)) return nest;
    told.because(Reason::not_live)(err, EBADF, line);
    return nullptr;
}

uint32_t remove(const Failure &told, void *handle, Kind kind, CL_ErrInfo *err, uint32_t line) {
    Nest *nest = owner(told, handle, kind, err, line);
    if (nest == nullptr) return 0;
    remove(*nest, *static_cast<Handle *>(handle));
    return 1;
}

}  // namespace qvcl::nest

using namespace qvcl::nest;

extern "C" uint32_t CL_CreateNest_M(uint32_t priority, uint32_t most, CL_ErrInfo *err,
                                    uint8_t callerFlag, const char *file, uint32_t line) {
    const Report report(err);
    if (CL_MainTable->state != CL_STATE_INITIALISED) return fail(report, CL_ERR_STATE);
    if (current != nullptr) return fail(report, EALREADY);
    if (most > CL_NEST_LIMIT_MOST) return fail(report, EINVAL);
    Nest *nest = allocate(most != 0 ? most : uint32_t{CL_NEST_DEFAULT_MOST}, file, line);
    if (nest == nullptr) return fail(report, ENOMEM);
    if (!open_epoll(*nest, report) || !list(*nest, priority, report, callerFlag, file, line)) {
        close_epoll(*nest);
        CL_free_M(nest, 0, CL_FILE_LINE);
        return 0;
    }
    current = nest;
    return 1;
}

extern "C" uint32_t CL_DeleteNest_M(CL_ErrInfo *err, uint8_t callerFlag, const char *file,
                                    uint32_t line) {
    const Report report(err);
    Nest *nest = current;
    if (nest == nullptr) return fail(report, CL_ERR_STATE);
    if (!delete_object(nest->object, report, callerFlag, file, line)) return 0;
    *static_cast<CL_ErrInfo *>(report) = {};
    current = nullptr;
    ++deleted;
    close_epoll(*nest);  // first: then no descriptor need be taken out of it
    for (uint32_t i = 0; i < nest->handles.count(); ++i) {
        Handle *handle = nest->handles.at(i);
        if (handle->kind != kFree) remove(*nest, *handle);
    }
    for (Clock &clock : nest->clocks)
        if (clock.heap != nullptr) CL_free_M(clock.heap, 0, CL_FILE_LINE);
    if (nest->owners != nullptr) CL_free_M(nest->owners, 0, CL_FILE_LINE);
    nest->handles.free_all();
    CL_free_M(nest, 0, CL_FILE_LINE);
    return 1;
}
