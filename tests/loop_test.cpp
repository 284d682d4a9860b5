/* The event loop: callbacks that change the lists under it, signals at every point, and what an
 * iteration costs. */
#include <fcntl.h>
#include <qvcl/loop.h>
#include <qvcl/thread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <csignal>
#include <deque>
#include <map>

#include "tests/support.h"

namespace {

using test::Action;
using test::Plan;
using testing::ElementsAre;

CL_MainBlock &table() {
    return *CL_MainTable;
}

fd_set only(int fd) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    return set;
}

uint64_t blocked() {
    return test::Balance::now().blocked_signals;
}
constexpr uint64_t OURS = 1ULL << (SIGALRM - 1) | 1ULL << (SIGCHLD - 1);

class Loop : public test::Library {
  protected:
    void SetUp() override {
        Library::SetUp();
        pipe.fill();
        test::set_uptime(uptime);
    }
    uint32_t run() {
        err = test::UNTOUCHED;
        return CL_EventLoop(&err);
    }
    /* An action that leaves its name in the trail and goes on with `more`. */
    Action *note(
        char name, std::function<uint32_t()> more = [] { return 0u; }) {
        return &actions.emplace_back([this, name, more](CL_Object *, CL_Event *) {
            trail += name;
            return more();
        });
    }
    /* The first time `first`, from then on `later`. */
    static std::function<uint32_t()> once(std::function<void()> first, uint32_t later) {
        return [first, later, done = std::make_shared<bool>(false)] {
            if (*done) {
                return later;
            }
            *done = true;
            first();
            return 0u;
        };
    }
    CL_Object *timer(Action *action, uint32_t mode = CL_TIMER_ONESHOT, uint32_t seconds = 1) {
        CL_Object *object = create(CL_KIND_TIMER, test::call_action, test::address(action));
        EXPECT_EQ(CL_StartTIMER(object, seconds, mode, &err), 1u) << err;
        return object;
    }
    /* A second goes by. */
    void tick() {
        test::set_uptime(++uptime);
        raise(SIGALRM);
    }
    /* A CHILD object whose process has ended; its signal is taken away. */
    CL_Object *ended_child(Action *action) {
        CL_Object *object = create(CL_KIND_CHILD, test::call_action, test::address(action));
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(3);
        }
        siginfo_t info;
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
        object->child.pid = static_cast<uint32_t>(pid);
        cl_StatusChange_M(object, CL_STATUS_READY, 0, "test", 1);
        EXPECT_EQ(CL_AddEventList_M(object, 20, &err, 1, "test", 1), 1u);
        table().child_signal = 0;
        return object;
    }

    long uptime = 1000;
    test::Pipe pipe; /* always readable */
    std::deque<Action> actions;
    std::string trail;
};

/* Follows the loop's walk while callbacks change the lists and the sets: tells which object is
 * called next. The objects watch copies of `fd`, which is always readable, in every word of the
 * sets but the first. */
class Walk {
  public:
    Walk(CL_ErrInfo *err, int fd) : err_(err) {
        for (int word = 1; word < FD_SETSIZE / 64; ++word) {
            fds_.push_back(fcntl(fd, F_DUPFD, 64 * word + 63 * (word % 2)));
        }
    }
    CL_Object *make(Action *action, uint32_t descriptors) {
        CL_Object *object =
            CL_CreateFD(CL_KIND_FD, test::call_action, test::address(action), 0, err_);
        if (object != nullptr) {
            set(object, descriptors);
        }
        return object;
    }
    void set(CL_Object *object, uint32_t descriptors) {
        std::set<int> &watched = objects_[object].watched;
        watched.clear();
        fd_set read;
        FD_ZERO(&read);
        for (; descriptors > 0; descriptors--) {
            const int fd = fds_[random_.below(static_cast<uint32_t>(fds_.size()))];
            watched.insert(fd);
            FD_SET(fd, &read);
        }
        const int count = watched.empty() ? 0 : *watched.rbegin() + 1;
        EXPECT_EQ(CL_SetFD(object, static_cast<uint32_t>(count), &read, nullptr, nullptr, err_),
                  1u);
    }
    void list(CL_Object *object, uint32_t priority) {
        EXPECT_EQ(CL_AddEventList(object, priority, err_), 1u);
        objects_[object].place = LISTED;
        pending_.push_back(object);
    }
    void unlist(CL_Object *object) {
        EXPECT_EQ(CL_DelEventList(object, err_), 1u);
        forget(object);
    }
    /* Onto a list and off it behind the library's back, as an element like any other. */
    void slip_in(CL_Object *object) {
        const uint32_t where = random_.below(3);
        objects_[object].place = SLIPPED_IN;
        if (where == 0) {
            CL_QUE_Insert(&table().priority_list, object, CL_QUE_BEFORE_ELEMENT, list_.front(),
                          nullptr, nullptr);
            insert(0, object);
        } else if (where == 1) {
            CL_QUE_PutTail(&table().priority_list, object);
            insert(list_.size(), object);
        } else {
            CL_QUE_PutTail(&table().pending_list, object);
            pending_.push_back(object);
        }
    }
    void slip_out(CL_Object *object) {
        CL_QUE_GetData(object->event_link.owner, object);
        forget(object);
    }
    void destroy(CL_Object *object) {
        if (slipped_in(object)) {
            slip_out(object);
        }
        EXPECT_EQ(CL_DeleteFD(object, err_), 1u);
        forget(object);
        objects_.erase(object);
    }
    /* The loop's own steps, from a callback: the rest of the iteration goes by these sets. */
    void clear_sets() {
        cl_clearlist();
        sets_.clear();
    }
    void make_sets() {
        EXPECT_EQ(cl_fdmake(err_), 0u);
        join();
    }
    bool listed(CL_Object *object) const { return objects_.at(object).place == LISTED; }
    bool slipped_in(CL_Object *object) const { return objects_.at(object).place == SLIPPED_IN; }
    CL_Object *any() {
        return std::next(objects_.begin(), random_.below(static_cast<uint32_t>(objects_.size())))
            ->first;
    }
    std::size_t size() const { return objects_.size(); }
    uint32_t below(uint32_t bound) { return random_.below(bound); }

    /* The object that the loop must call now; some object must be listed and watching. */
    CL_Object *next() {
        for (;;) {
            if (++cursor_ == std::ssize(list_)) {
                cursor_ = -1;
                join();
                iterations++;
                continue;
            }
            CL_Object *object = list_[static_cast<std::size_t>(cursor_)];
            for (const int fd : objects_.at(object).watched) {
                if (sets_.contains(fd)) {
                    return object;
                }
            }
        }
    }
    int iterations = 0;

  private:
    enum Place { NOWHERE, LISTED, SLIPPED_IN };
    struct State {
        Place place = NOWHERE;
        std::set<int> watched;
    };
    void insert(std::size_t place, CL_Object *object) {
        list_.insert(list_.begin() + static_cast<std::ptrdiff_t>(place), object);
        if (static_cast<std::ptrdiff_t>(place) <= cursor_) {
            cursor_++;
        }
    }
    void forget(CL_Object *object) {
        objects_[object].place = NOWHERE;
        std::erase(pending_, object);
        const auto at = std::find(list_.begin(), list_.end(), object);
        if (at != list_.end() && list_.erase(at) - list_.begin() <= cursor_) {
            cursor_--;
        }
    }
    void join() {
        for (CL_Object *object : std::exchange(pending_, {})) {
            std::vector<int64_t> keys;
            for (const CL_Object *other : list_) {
                keys.push_back(other->priority);
            }
            insert(test::sorted_place(keys, object->priority), object);
        }
        sets_.clear();
        for (CL_Object *object : list_) {
            const std::set<int> &watched = objects_.at(object).watched;
            sets_.insert(watched.begin(), watched.end());
        }
    }
    CL_ErrInfo *err_;
    test::Random random_;
    std::vector<int> fds_;
    std::map<CL_Object *, State> objects_;
    std::vector<CL_Object *> list_, pending_;
    std::set<int> sets_;
    std::ptrdiff_t cursor_ = -1;
};

/* Callbacks at random, on themselves and on others. */
TEST_F(Loop, FollowsItsModel) {
    Walk walk(&err, pipe.out());
    CL_Object *last = nullptr;
    int calls = 0;
    Action action = [&](CL_Object *object, CL_Event *) -> uint32_t {
        calls++;
        EXPECT_EQ(object, walk.next()) << "call " << calls;
        /* Most do nothing, so that the loop comes to know its objects. */
        for (uint32_t i = walk.below(16) == 0 ? walk.below(6) : 0; i > 0; i--) {
            CL_Object *target = walk.below(4) == 0 ? object : walk.any();
            const uint32_t deed = walk.below(32);
            if (deed == 0) {
                walk.clear_sets();
            } else if (deed == 1) {
                walk.make_sets();
            } else if (deed < 7 && walk.size() < OBJECTS) {
                walk.make(&action, walk.below(3));
            } else if (target == last ||
                       (walk.slipped_in(target) && target == table().loop_cursor)) {
                continue;
            } else if (deed < 12) {
                walk.destroy(target);
                if (target == object) {
                    break;
                }
            } else if (deed < 17) {
                walk.set(target, walk.below(3));
            } else if (walk.listed(target)) {
                if (deed < 22) {
                    walk.unlist(target);
                }
            } else if (walk.slipped_in(target)) {
                walk.slip_out(target);
                CL_Object *other = walk.any();
                if (!walk.listed(other) && !walk.slipped_in(other)) {
                    walk.slip_in(other);
                }
            } else if (deed < 19) {
                walk.slip_in(target);
            } else {
                walk.list(target, 12 + walk.below(12));
            }
        }
        return HasFailure() || calls > 40000 ? 1 : 0;
    };
    last = walk.make(&action, 1);
    walk.list(last, 20); /* in the middle: it keeps the loop from starving */
    EXPECT_EQ(run(), 1u) << err;
    EXPECT_GT(walk.iterations, 100);
}

/* What a callback gets in the place of what it gave up, number and slot, is not ready. */
TEST_F(Loop, FindsNothingReadyThatCameLater) {
    const std::string segment = "/qvcl-loop-test-" + std::to_string(getpid());
    close(shm_open(segment.c_str(), O_CREAT | O_RDWR, 0600));
    CL_Object *later = watch(pipe.out(), note('-'), 30);
    watch(pipe.out(), note('z', [] { return 1u; }), 40);
    CL_Object *owner = watch(pipe.out(), note('-'), 50);
    CL_Object *client = create(CL_KIND_MSGC);
    while (create(CL_KIND_THREAD) != nullptr) {
    }
    const auto watch_only = [&](CL_Object *object, int fd) {
        const fd_set read = only(fd);
        CL_SetFD(object, static_cast<uint32_t>(fd + 1), &read, nullptr, nullptr, &err);
        return fd;
    };
    const auto file = [&] { return CL_OpenFile("/dev/null", O_RDONLY, 0, &err)->descriptor; };
    const struct {
        const char *name;
        std::function<int()> get;
        bool by_close; /* the number was the application's, and it is the application that closes */
    } rows[] = {
        {"file", file, false},
        {"file", file, true},
        {"segment",
         [&] { return cl_openshm(segment.c_str(), O_RDONLY, 1, &err, "test", 1)->descriptor; },
         true},
        {"socket", [&] { return watch_only(later, cl_u_socket(AF_UNIX, SOCK_STREAM, 0)); }, true},
        {"pipe",
         [&] {
             int ends[2];
             EXPECT_EQ(::pipe(ends), 0);
             return watch_only(later, ends[0]);
         },
         false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        trail.clear();
        const int owned = watch_only(owner, dup(pipe.out()));
        CL_SetFD(later, 0, nullptr, nullptr, nullptr, &err);
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        ASSERT_EQ(write(ends[1], "x", 1), 1);
        /* In the one place of the table that is free. */
        CL_DeleteFD_M(client, &err, 1, "test", 1);
        client = create(CL_KIND_MSGC, test::call_action, test::address(note('c', [&] {
                            if (row.by_close) {
                                close(owned);
                                watch_only(owner, pipe.out());
                            }
                            EXPECT_EQ(CL_DeleteFD(client, &err), 1u) << err;
                            EXPECT_EQ(row.get(), row.by_close ? owned : ends[0]);
                            return 0u;
                        })));
        client->descriptor = ends[0];
        cl_StatusChange_M(client, CL_STATUS_READY, CL_SUB_CONNECT_PENDING | CL_SUB_RECV_PENDING,
                          "test", 1);
        ASSERT_EQ(CL_AddEventList(client, 20, &err), 1u) << err;
        EXPECT_EQ(run(), 1u) << err;
        EXPECT_EQ(trail, "cz");
    }
    shm_unlink(segment.c_str());
}

/* Whoever cannot take part hears why, and the loop ends whatever it answers. */
TEST_F(Loop, EndsWithAnObjectThatCannotTakePart) {
    uint32_t answer = 0;
    Action action = [&](CL_Object *, CL_Event *event) {
        trail += static_cast<char>('A' + event->type);
        EXPECT_EQ(event->error.err, uint32_t{EBADF});
        return answer;
    };
    for (const uint32_t kind : {CL_KIND_FD, CL_KIND_MSGS, CL_KIND_MSGC}) {
        CL_Object *object = create(kind, test::call_action, test::address(&action));
        cl_StatusChange_M(object, CL_STATUS_READY, 0, "test", 1);
        ASSERT_EQ(CL_AddEventList(object, 20, &err), 1u);
        for (const uint32_t value : {0u, 5u}) {
            for (const bool threaded : {false, true}) {
                answer = value;
                cl_StatusChange_M(object, CL_STATUS_LISTED, 0, "test", 1);
                EXPECT_EQ(threaded ? CL_EventLoopThread(&err) : CL_EventLoop(&err),
                          value == 0 ? CL_LOOP_ERROR : value);
                EXPECT_EQ(err.err, value == 0 ? uint32_t{EBADF} : 0u) << err;
                EXPECT_EQ(object->status, uint32_t{CL_STATUS_LISTED | CL_STATUS_FAILED});
            }
        }
        EXPECT_EQ(CL_DeleteFD(object, &err), 1u) << err;
    }
    EXPECT_EQ(trail, std::string(12, 'A' + CL_EVENT_FAILED));
}

/* ---- Signals */

/* The look before the wait found nothing; the signal comes before the wait begins. */
TEST_F(Loop, SignalsBetweenLookAndWaitEndTheWait) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGALRM);
    sigaddset(&set, SIGWINCH);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    timer(note('T'));
    ended_child(note('C', [] { return 9u; }));
    Plan plan{{.call = "pselect", .before = [this] {
                   EXPECT_EQ(blocked() & OURS, OURS);
                   raise(SIGCHLD);
                   tick();
                   raise(SIGWINCH);
               }}};
    EXPECT_EQ(run(), 9u);
    EXPECT_EQ(plan.count("pselect"), 1);
    EXPECT_EQ(trail, "TC");
    EXPECT_EQ(blocked() & (1ULL << (SIGWINCH - 1)), 1ULL << (SIGWINCH - 1)) << "as it was";
}

TEST_F(Loop, SignalsDuringCallbacksAreDispatchedBetweenObjects) {
    timer(note('T'), CL_TIMER_PERIODIC);
    ended_child(note('C'));
    watch(pipe.out(),
          note('a',
               [this] {
                   EXPECT_EQ(blocked() & OURS, 0u) << "callbacks run open";
                   raise(SIGCHLD);
                   tick();
                   return 0u;
               }),
          20);
    watch(pipe.out(),
          note('b',
               [this] {
                   tick();
                   return 0u;
               }),
          30);
    watch(pipe.out(), note('c', [] { return 1u; }), 40);
    EXPECT_EQ(run(), 1u);
    EXPECT_EQ(trail, "aTCbTc");
}

/* There is a look behind an object that has nothing to say, too. */
TEST_F(Loop, LooksBehindEveryObject) {
    const test::Pipe silent;
    Action *again = note('T', [this] {
        tick();
        return 0u;
    });
    timer(again, CL_TIMER_PERIODIC, 0);
    watch(pipe.out(), note('a'), 20);
    for (const uint32_t priority : {30u, 40u, 50u})
        watch(silent.out(), note('-'), priority);
    watch(pipe.out(), note('z', [] { return 1u; }), 60);
    Plan plan{{.call = "pselect", .before = [&] { table().timer_signals = 1; }}};
    EXPECT_EQ(run(), 1u);
    EXPECT_EQ(trail, "TaTTTTz");
}

/* After the wait timers come first, children only behind the first object. */
TEST_F(Loop, SignalsDuringTheWait) {
    timer(note('T'), CL_TIMER_PERIODIC);
    ended_child(note('C'));
    watch(pipe.out(), note('a'), 20);
    watch(pipe.out(), note('b', [] { return 1u; }), 30);
    /* As if the handlers had run while descriptors were ready. */
    Plan plan{{.call = "pselect", .before = [&] {
                   test::set_uptime(++uptime);
                   table().timer_signals = 1;
                   table().child_signal = 1;
               }}};
    EXPECT_EQ(run(), 1u);
    EXPECT_EQ(trail, "TaCb");
}

/* A timer that is due at every look takes turns with the descriptors. */
TEST_F(Loop, DueTimersDoNotStarveDescriptors) {
    timer(note('T',
               [this] {
                   tick();
                   return 0u;
               }),
          CL_TIMER_PERIODIC, 0);
    int left = 3;
    watch(pipe.out(), note('a', [&] { return left-- > 1 ? 0u : 1u; }), 20);
    tick();
    EXPECT_EQ(run(), 1u);
    EXPECT_EQ(std::count(trail.begin(), trail.end(), 'a'), 3);
    EXPECT_LE(trail.size(), 15u) << trail;
}

/* Loops do not nest; a periodic timer that a nested one leaves due is re-armed all the same. */
TEST_F(Loop, ANestedLoopLeavesNoTimerDue) {
    uint32_t depth = 0;
    Action *nesting = note('T', [&] {
        if (++depth > 1) {
            return 5u;
        }
        CL_ErrInfo inner;
        EXPECT_EQ(CL_EventLoop(&inner), 5u);
        return 0u;
    });
    timer(nesting, CL_TIMER_PERIODIC, 3);
    watch(pipe.out(), note('z', once([] {}, 1)), 20);
    test::set_uptime(uptime += 3);
    EXPECT_EQ(run(), 1u);
    EXPECT_EQ(trail, "TTzz");
}

TEST_F(Loop, MakesThreeSystemCallsAnIteration) {
    for (const uint32_t objects : {1u, 10u, 50u}) {
        for (const bool all_ready : {false, true}) {
            test::Pipe silent;
            std::vector<CL_Object *> made;
            int left = 20;
            for (uint32_t i = 0; i + 1 < objects; i++) {
                made.push_back(watch(all_ready ? pipe.out() : silent.out(), note('a'), 20 + i));
            }
            made.push_back(watch(pipe.out(), note('z', [&] { return --left > 0 ? 0u : 1u; }), 111));
            Plan plan;
            EXPECT_EQ(run(), 1u);
            std::map<std::string_view, int> counts;
            for (const std::string_view call : plan.calls()) {
                counts[call]++;
            }
            for (const char *no_call : {"gettimeofday", "sigaddset", "sigemptyset"}) {
                counts.erase(no_call);
            }
            EXPECT_THAT(counts, ElementsAre(testing::Pair("pselect", 20),
                                            testing::Pair("sigprocmask", 40)));
            for (CL_Object *object : made) {
                CL_DeleteFD(object, &err);
            }
        }
    }
}

}  // namespace
