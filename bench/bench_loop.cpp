// One iteration of the event loop: n listed FD objects of one descriptor each, k of them ready.
//
// The floor is a bare pselect loop with one block and one unblock of the signals, a copy of the
// sets, and a callback for every descriptor that is ready. All sides watch the same descriptors,
// which stay ready, so nothing but the loops is measured. The first iteration after many objects
// were listed has more to do, which is measured on its own.
#include <ev.h>
constexpr int kEvRead = EV_READ;  // libevent has the name for another number
#include <event2/event.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <unistd.h>
#include <csignal>
#include <memory>
#include <vector>

#include <qvcl/qvcl.h>
#include <qvcl/trace_records.h>

#include "bench/support.h"

namespace {

using bench::Comparison;
using bench::Times;

// n descriptors, k of them ready, evenly spread. The last one that is ready counts iterations.
struct Descriptors {
    std::vector<int> all;
    size_t counting = 0;  // index

    Descriptors(size_t n, size_t k) {
        for (size_t i = 0; i < n; ++i) {
            const size_t step = n / k;
            const bool ready = i % step == step / 2;
            all.push_back(eventfd(ready ? 1 : 0, EFD_NONBLOCK));
            bench::check(all.back() >= 0 && all.back() < FD_SETSIZE, "eventfd");
            if (ready) counting = i;
        }
    }
    Descriptors(const Descriptors &) = delete;
    Descriptors &operator=(const Descriptors &) = delete;
    ~Descriptors() {
        for (const int fd : all)
            close(fd);
    }
};
using Shared = std::shared_ptr<const Descriptors>;

// ---------------------------------------------------------------- the library

// arg1: where the iterations that are left are counted; 0 for all but one object.
uint32_t on_ready(CL_Object * /*object*/, CL_Event * /*event*/, uint64_t arg1, uint64_t /*arg2*/) {
    if (arg1 == 0) return 0;
    return --*reinterpret_cast<size_t *>(arg1) == 0 ? 1 : 0;
}

struct Listed {
    Shared descriptors;
    std::vector<CL_Object *> objects;
    size_t left = 0;

    explicit Listed(const Shared &from) : descriptors(from) {
        CL_ErrInfo err;
        for (size_t i = 0; i < from->all.size(); ++i) {
            const bool counts = i == from->counting;
            const int fd = from->all[i];
            fd_set set;
            FD_ZERO(&set);
            FD_SET(fd, &set);
            CL_Object *object = CL_CreateFD(
                CL_KIND_FD, on_ready, counts ? reinterpret_cast<uint64_t>(&left) : 0, 0, &err);
            bench::check(object != nullptr &&
                             CL_SetFD(object, static_cast<uint32_t>(fd + 1), &set, nullptr, nullptr,
                                      &err) == 1 &&
                             CL_AddEventList(object, counts ? CL_PRIORITY_LAST : CL_PRIORITY_FIRST,
                                             &err) == 1,
                         "listing");
            objects.push_back(object);
        }
    }
    Listed(const Listed &) = delete;
    Listed &operator=(const Listed &) = delete;
    ~Listed() {
        CL_ErrInfo err;
        for (CL_Object *object : objects)
            CL_DeleteFD(object, &err);
    }

    void iterate(size_t n) {
        CL_ErrInfo err;
        left = n;
        bench::check(CL_EventLoop(&err) == 1, "CL_EventLoop");
    }
};

bench::Side library(const Shared &descriptors) {
    auto listed = std::make_shared<Listed>(descriptors);
    return bench::local("qvcl", [listed](size_t n) { listed->iterate(n); });
}

// The two records of a callback, as long as the loop writes them.
bench::Side two_records() {
    struct Record {
        CL_TrcCallback fixed;
        CL_FdSets sets;
    };
    auto record = std::make_shared<Record>();
    return bench::local("two records of a callback", [record](size_t n) {
        while (n-- != 0) {
            record->fixed.head.length = sizeof(Record);
            CL_TRC_Write_M(record.get(), CL_RING_LIBRARY);
            record->fixed.head.length = sizeof record->fixed;
            CL_TRC_Write_M(record.get(), CL_RING_LIBRARY);
        }
    });
}

// ---------------------------------------------------------------- the floor

struct Watched {
    int fd;
    void (*callback)(Watched *self);
    size_t *left;
};

void on_bare(Watched *self) {
    if (self->left != nullptr) --*self->left;
}

void bare_loop(std::vector<Watched> &watched, const fd_set &reads, int count, size_t &left) {
    sigset_t signals;
    sigset_t saved;
    sigemptyset(&signals);
    sigaddset(&signals, SIGALRM);
    sigaddset(&signals, SIGCHLD);
    while (left != 0) {
        fd_set ready = reads;
        sigprocmask(SIG_BLOCK, &signals, &saved);
        const int found = pselect(count, &ready, nullptr, nullptr, nullptr, &saved);
        sigprocmask(SIG_UNBLOCK, &signals, nullptr);
        if (found <= 0) continue;
        for (Watched &one : watched) {
            if (FD_ISSET(one.fd, &ready)) one.callback(&one);
        }
    }
}

bench::Side bare(const Shared &descriptors) {
    struct State {
        Shared descriptors;
        std::vector<Watched> watched;
        fd_set reads;
        int count = 0;
        size_t left = 0;
    };
    auto state = std::make_shared<State>();
    state->descriptors = descriptors;
    FD_ZERO(&state->reads);
    for (size_t i = 0; i < descriptors->all.size(); ++i) {
        const int fd = descriptors->all[i];
        FD_SET(fd, &state->reads);
        state->count = std::max(state->count, fd + 1);
        state->watched.push_back(
            {fd, on_bare, i == descriptors->counting ? &state->left : nullptr});
    }
    return bench::local("pselect", [state](size_t n) {
        state->left = n;
        bare_loop(state->watched, state->reads, state->count, state->left);
    });
}

// ---------------------------------------------------------------- others

bench::Side libev_select(const Shared &descriptors) {
    struct State {
        Shared descriptors;
        struct ev_loop *loop = ev_loop_new(EVBACKEND_SELECT);
        std::vector<ev_io> watchers;
        size_t left = 0;
        ~State() { ev_loop_destroy(loop); }
    };
    auto state = std::make_shared<State>();
    state->descriptors = descriptors;
    state->watchers.resize(descriptors->all.size());
    for (size_t i = 0; i < descriptors->all.size(); ++i) {
        ev_io &watcher = state->watchers[i];
        const auto callback = [](struct ev_loop *loop, ev_io *w, int) {
            auto *left = static_cast<size_t *>(w->data);
            if (left != nullptr && --*left == 0) ev_break(loop, EVBREAK_ALL);
        };
        ev_io_init(&watcher, callback, descriptors->all[i], kEvRead);
        watcher.data = i == descriptors->counting ? &state->left : nullptr;
        ev_io_start(state->loop, &watcher);
    }
    return bench::local("libev select", [state](size_t n) {
        state->left = n;
        ev_run(state->loop, 0);
    });
}

bench::Side libevent(const Shared &descriptors) {
    struct State {
        Shared descriptors;
        event_base *base = event_base_new();
        std::vector<event *> events;
        size_t left = 0;
        ~State() {
            for (event *e : events)
                event_free(e);
            event_base_free(base);
        }
    };
    auto state = std::make_shared<State>();
    state->descriptors = descriptors;
    for (size_t i = 0; i < descriptors->all.size(); ++i) {
        const auto ignore = [](evutil_socket_t, short, void *) {};
        const auto count = [](evutil_socket_t, short, void *arg) {
            auto *of = static_cast<State *>(arg);
            if (--of->left == 0) event_base_loopbreak(of->base);
        };
        event *one = i == descriptors->counting
                         ? event_new(state->base, descriptors->all[i], EV_READ | EV_PERSIST, count,
                                     state.get())
                         : event_new(state->base, descriptors->all[i], EV_READ | EV_PERSIST, ignore,
                                     nullptr);
        event_add(one, nullptr);
        state->events.push_back(one);
    }
    return bench::local(std::string("libevent ") + event_base_get_method(state->base),
                        [state](size_t n) {
                            state->left = n;
                            event_base_loop(state->base, 0);
                        });
}

// ---------------------------------------------------------------- what is asked

Comparison iteration(size_t n, size_t k) {
    const auto descriptors = std::make_shared<const Descriptors>(n, k);
    Comparison comparison = {{library(descriptors), bare(descriptors), libev_select(descriptors),
                              libevent(descriptors), two_records()},
                             {}};
    // The library makes its sets anew when a loop is entered, which a daemon does once: a turn of
    // few iterations would measure that.
    if (n >= 1000) comparison.batch_seconds = 10e-3;
    comparison.figures.push_back(bench::times_of("pselect", k == 1 ? 1.15 : 0));
    comparison.figures.push_back(
        {"x (pselect + two records a callback)",
         [k](const Times &t) { return t[0] / (t[1] + static_cast<double>(k) * t[4]); },
         k == n ? bench::Figure::at_most : bench::Figure::none, 1.2});
    if (k == n) {
        comparison.figures.push_back(
            {"x libevent, which leaves no record", [](const Times &t) { return t[0] / t[3]; }});
    }
    return comparison;
}

// As many objects as there may be, which all watch one descriptor; listed in one go, they are
// sorted in by the first iteration.
struct Crowd {
    Shared descriptor = std::make_shared<const Descriptors>(1, 1);
    std::vector<CL_Object *> objects;

    Crowd() {
        CL_ErrInfo err;
        const int fd = descriptor->all[0];
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        const auto end = [](CL_Object *, CL_Event *, uint64_t, uint64_t) { return 1u; };
        for (size_t i = 0; i < CL_MAX_OBJECTS; ++i) {
            objects.push_back(CL_CreateFD(CL_KIND_FD, end, 0, 0, &err));
            bench::check(
                objects.back() != nullptr && CL_SetFD(objects.back(), static_cast<uint32_t>(fd + 1),
                                                      &set, nullptr, nullptr, &err) == 1,
                "the crowd");
        }
        list();
    }
    Crowd(const Crowd &) = delete;
    Crowd &operator=(const Crowd &) = delete;
    ~Crowd() {
        CL_ErrInfo err;
        for (CL_Object *object : objects)
            CL_DeleteFD(object, &err);
    }

    void list() {
        CL_ErrInfo err;
        for (size_t i = 0; i < objects.size(); ++i) {
            const auto priority = static_cast<uint32_t>(CL_PRIORITY_FIRST + i * 37 % 100);
            bench::check(CL_AddEventList(objects[i], priority, &err) == 1, "CL_AddEventList");
        }
    }
    void list_anew() {
        CL_ErrInfo err;
        for (CL_Object *object : objects)
            bench::check(CL_DelEventList(object, &err) == 1, "CL_DelEventList");
        list();
    }
};

// Seconds that `work` takes, n times; `prepare` does not count.
template <class Prepare, class Work>
double timed(size_t n, Prepare prepare, Work work) {
    double seconds = 0;
    while (n-- != 0) {
        prepare();
        const auto start = bench::Clock::now();
        work();
        seconds += bench::since(start);
    }
    return seconds;
}

Comparison first_iteration() {
    const auto crowd = std::make_shared<Crowd>();
    const auto first = [crowd](size_t n) {
        CL_ErrInfo err;
        return timed(
            n, [&] { crowd->list_anew(); },
            [&] { bench::check(CL_EventLoop(&err) == 1, "CL_EventLoop"); });
    };
    const auto sort = [crowd](size_t n) {
        std::vector<CL_Object *> objects;
        return timed(
            n, [&] { objects = crowd->objects; },
            [&] { qsort(objects.data(), objects.size(), sizeof(CL_Object *), pri_compar); });
    };
    return {{{"qvcl", first}, {"qsort of the objects", sort}},
            {bench::times_of("qsort of the objects", 8)}};
}

void count_calls(size_t n, size_t k) {
    constexpr size_t kIterations = 200;
    const bench::Calls calls = bench::count_calls([n, k] {
        bench::check(CL_Init(static_cast<uint32_t>(n), nullptr, nullptr) == 1, "CL_Init");
        Listed listed(std::make_shared<const Descriptors>(n, k));
        listed.iterate(1);
        bench::mark();
        listed.iterate(kIterations);
        bench::mark();
    });
    printf("n = %zu, k = %zu: %s in an iteration\n", n, k,
           calls.per(static_cast<double>(kIterations)).c_str());
}

}  // namespace

int main(int argc, char **argv) {
    bench::pin(bench::processor(1));
    std::vector<std::pair<size_t, size_t>> cases;
    for (const size_t n : {1u, 10u, 100u, 1000u}) {
        for (const size_t k : {size_t{1}, n / 10, n}) {
            if (k != 0 && (cases.empty() || cases.back() != std::pair{n, k})) {
                cases.emplace_back(n, k);
            }
        }
    }
    for (const auto &[n, k] : cases)
        count_calls(n, k);
    bench::check(CL_Init(CL_MAX_OBJECTS, nullptr, nullptr) == 1, "CL_Init");
    for (const auto &[n, k] : cases) {
        bench::compare("iteration/n = " + std::to_string(n) + ", k = " + std::to_string(k),
                       [n = n, k = k] { return iteration(n, k); });
    }
    bench::compare("first iteration/10000 objects listed", first_iteration, 31);
    return bench::run(argc, argv);
}
