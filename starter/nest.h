// What the parts of the nest share: handles, the descriptors that epoll watches, records of
// callbacks.
//
// Every handle is an entry of one table, which grows in chunks that stay where they are until the
// nest is deleted. So a handle that was deleted is known as such, until its entry is used again,
// and epoll is given an entry's number and life instead of an address.
//
// A callback may delete anything, the nest included. Whoever calls one looks at nothing afterwards
// before a Life has told that it is still there.
#pragma once

#include <qvcl/descriptor.h>
#include <qvcl/nest.h>
#include <qvcl/trace_records.h>
#include <sys/epoll.h>
#include <csignal>
#include <utility>

#include "starter/report.h"

namespace qvcl::nest {

using qvcl::Report;

// The first one is that of an entry that is free.
enum Kind : uint32_t {
    kFree,
    kTimer,
    kWatch,
    kPosts,
    kSignal,
    kProcess,
    kClock,    // a timerfd
    kSignals,  // the signalfd
    kKinds
};

struct Handle;
struct Posts;

// A descriptor that epoll watches for us.
struct Source {
    int fd;
    uint32_t events;   // as epoll knows them; 0: it does not know the descriptor
    uint32_t pending;  // place among what is ready in this turn, from 1; 0: none
    union {
        Posts *posts;
        pid_t pid;
        uint32_t clock;
    };
};

struct Timer {
    uint64_t due;  // by the grid of a periodic timer; it may be past already when that starts
    uint64_t period;
    uint64_t first;  // a turn before this time there is not
    uint64_t order;  // of starts
    uint32_t clock;
    uint32_t place;  // in the heap of its clock, from 1; 0: does not run
};

struct Watcher {
    int signal;
    Handle *next;
    uint64_t heard;  // number of the last delivery
};

// What a handle calls, and when among what is ready together.
struct Calls {
    uint32_t priority;
    void (*callback)();
    uint64_t arg1;
    uint64_t arg2;
};

struct Handle {
    Kind kind;
    uint32_t index;
    uint32_t life;  // how often the entry was given back
    Calls calls;
    union {
        Handle *next_free;
        Timer timer;
        Source source;
        Watcher watcher;
    };
};

class Handles {
  public:
    // An entry of this kind, zeroed but for its number and life and what it calls; null and ENOMEM.
    Handle *take(Kind kind, const Calls &calls, const char *file, uint32_t line);
    void give_back(Handle *handle);
    // Whether this is an entry of that kind.
    bool has(const void *handle, Kind kind) const;
    // The entry of that number in that life, or null.
    Handle *find(uint32_t index, uint32_t life) const;
    Handle *at(uint32_t index) const;
    uint32_t count() const;
    void free_all();

  private:
    static constexpr uint32_t kChunks = 25;
    static constexpr uint32_t kFirst = 64;  // entries of the first chunk; each has twice the last

    bool grow(const char *file, uint32_t line);

    Handle *chunk_[kChunks];
    uint32_t chunks_;
    Handle *free_first_;
    Handle *free_last_;
};

struct Due {
    uint64_t at;
    Handle *timer;
};

// Timers of one clock, as a heap of four branches.
struct Clock {
    Handle *source;  // null: no timer has run on it
    Due *heap;
    uint32_t running;
    uint64_t armed;  // what the timerfd is set to; kNever: nothing. Not later than heap[0].at, or
                     // the timerfd is readable
    uint64_t now;    // of the turn that calls timers; 0: none does
};
inline constexpr uint64_t kNever = UINT64_MAX;

struct Ready {
    Handle *handle;  // null: deleted meanwhile
    uint32_t events;
};

// Whose events epoll tells of a descriptor.
struct Owner {
    Handle *handle;
};

struct Nest {
    CL_Object *object;
    int epoll;
    uint32_t most;
    bool stale;  // epoll tells of a file whose watch is gone
    struct epoll_event *events;
    Ready *ready;
    uint32_t ready_count;
    Handles handles;
    Owner *owners;  // by number of the descriptor
    uint32_t owners_size;

    Clock clocks[2];
    uint32_t timers;    // live
    uint32_t capacity;  // of each heap
    uint64_t starts;

    Handle *signals;  // null: no signal was watched
    Handle *watchers;
    uint64_t deliveries;
    sigset_t watched;
    sigset_t blocked_before;
};

extern Nest *current;
extern uint64_t deleted;  // nests

// Whether a handle has outlived a callback.
class Life {
  public:
    explicit Life(const Handle &handle) : handle_(handle), life_(handle.life), deleted_(deleted) {}
    bool ended() const { return deleted != deleted_ || handle_.life != life_; }

  private:
    const Handle &handle_;
    uint32_t life_;
    uint64_t deleted_;
};

// What a kind does when its descriptor is ready, and when it is deleted (that cannot fail).
struct KindRow {
    uint32_t (*ready)(Nest &nest, Handle &handle, uint32_t events);
    void (*release)(Nest &nest, Handle &handle);
};
extern const KindRow kRows[kKinds];

uint32_t watch_ready(Nest &nest, Handle &watch, uint32_t events);
uint32_t posts_ready(Nest &nest, Handle &handle, uint32_t events);
uint32_t signals_ready(Nest &nest, Handle &signals, uint32_t events);
uint32_t process_ready(Nest &nest, Handle &process, uint32_t events);
void release_timer(Nest &nest, Handle &timer);
void release_source(Nest &nest, Handle &source);      // leaves the descriptor open
void release_descriptor(Nest &nest, Handle &source);  // closes it
void release_posts(Nest &nest, Handle &handle);
void release_watcher(Nest &nest, Handle &watcher);

// Timers' part in a turn: a timerfd is readable; what is due is called, up to the bound; the
// timerfds are set anew.
void clock_rang(Nest &nest, Handle &source);
uint32_t call_timers(Nest &nest);
void wind_clocks(Nest &nest);

// Gives a handle a descriptor that epoll watches; or takes it away, or changes events. errno says
// why not. The handle keeps what it had then.
bool attach(Nest &nest, Handle &handle, int fd, uint32_t events);
bool change(Nest &nest, Handle &handle, uint32_t events);
void detach(Nest &nest, Handle &handle);
// Gives a new handle a descriptor of its own, as it was opened, to be told of input. When it was
// not opened or cannot be watched, both are gone: errno says why.
bool keep(Nest &nest, Handle &handle, int fd);

// The nest, when it is there and the library in use; or null, and the failure is told.
Nest *existing(const Failure &told, CL_ErrInfo *err, uint32_t line = __builtin_LINE());
// The same where a new handle calls something.
Nest *existing(const Failure &told, const Calls &calls, CL_ErrInfo *err,
               uint32_t line = __builtin_LINE());
// The same where the handle is one of this kind.
Nest *owner(const Failure &told, const void *handle, Kind kind, CL_ErrInfo *err,
            uint32_t line = __builtin_LINE());

// A public handle's entry.
template <class Public>
Handle &entry(Public *handle) {
    return *reinterpret_cast<Handle *>(handle);
}

// Deletes any handle.
inline void remove(Nest &nest, Handle &handle) {
    kRows[handle.kind].release(nest, handle);
    nest.handles.give_back(&handle);
}
// The same for the public function of a kind.
uint32_t remove(const Failure &told, void *handle, Kind kind, CL_ErrInfo *err,
                uint32_t line = __builtin_LINE());

// The two records around a callback.
class Told {
  public:
    Told(const Nest &nest, uint32_t type, const Handle &handle)
        : Told(nest, type, handle, handle.calls) {}
    Told(const Nest &nest, uint32_t type, const Handle &handle, const Calls &calls);
    Told &length(int64_t value);
    Told &exit(uint32_t reason, uint32_t value);

    template <class Function, class... Arguments>
    uint32_t call(Function function, Arguments... arguments) {
        begin();
        return end(function(arguments...));
    }

  private:
    void begin();
    uint32_t end(uint32_t result);
    CL_TrcCallback record_;
};

template <class Function>
void (*any_function(Function function))() {
    return reinterpret_cast<void (*)()>(function);
}

template <class Function>
Function function_of(const Handle &handle) {
    return reinterpret_cast<Function>(handle.calls.callback);
}

}  // namespace qvcl::nest
