/* The event loop: order of dispatch, callbacks that change the lists under it, signals at every
 * point, and the ways it ends. */
#include <qvcl/loop.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <csignal>
#include <deque>
#include <map>

#include "tests/support.h"

namespace {

using test::Action;
using test::FailsWith;
using test::IsClear;
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
constexpr uint64_t bit(int signal) {
    return 1ULL << (signal - 1);
}

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

TEST_F(Loop, CallsInOrderOfPriorityAndReturnsTheValue) {
    uint32_t value = 5;
    watch(pipe.out(), note('c'), 30);
    watch(pipe.out(), note('a'), 12);
    watch(pipe.out(), note('f', [&] { return value; }), 111);
    watch(pipe.out(), note('b'), 20);
    watch(pipe.out(), note('d'), 40);
    CL_Object *first = watch(pipe.out(), note('e'));
    ASSERT_EQ(CL_AddEventList_M(first, 5, &err, 1, "x", 1), 1u);
    for (const uint32_t next : {5u, 1u, 0x80000000u, 0xfffffffeu}) {
        trail.clear();
        value = next;
        const test::Balance before = test::Balance::now();
        EXPECT_EQ(run(), value);
        EXPECT_EQ(trail, "eabcdf");
        EXPECT_THAT(err, IsClear());
        test::Balance after = test::Balance::now();
        after.listed = before.listed;
        EXPECT_EQ(after, before);
    }
}

TEST_F(Loop, EventsHoldAllSets) {
    test::Pipe other, silent;
    other.fill();
    std::vector<CL_Event> events;
    actions.emplace_back([&](CL_Object *, CL_Event *event) {
        events.push_back(*event);
        return static_cast<uint32_t>(events.size() / 2);
    });
    const fd_set silent_set = only(silent.out());
    CL_Object *quiet = watch(silent.out(), &actions.back(), 15);
    ASSERT_EQ(CL_SetFD(quiet, 1024, &silent_set, nullptr, nullptr, &err), 1u);
    CL_Object *both = watch(pipe.out(), &actions.back(), 20);
    fd_set read = only(pipe.out()), write = only(other.in());
    ASSERT_EQ(CL_SetFD(both, 1024, &read, &write, &read, &err), 1u);
    watch(other.out(), &actions.back(), 30);
    EXPECT_EQ(run(), 1u);
    CL_Event expected{};
    expected.type = CL_EVENT_DESCRIPTOR;
    expected.sets.read = read;
    FD_SET(other.out(), &expected.sets.read);
    expected.sets.write = write;
    ASSERT_EQ(events.size(), 2u) << "one call an iteration for each object that has something";
    for (const CL_Event &event : events) {
        EXPECT_EQ(memcmp(&event, &expected, sizeof event), 0);
    }
}

/* An object that cannot take part is reported, and the loop ends whatever the callback says. */
TEST_F(Loop, ReportsWhatCannotTakePart) {
    for (const uint32_t value : {0u, 7u}) {
        CL_Event seen{};
        actions.emplace_back([&, value](CL_Object *object, CL_Event *event) {
            seen = *event;
            if (value != 0) {
                EXPECT_EQ(CL_DeleteFD(object, &err), 1u);
            }
            return value;
        });
        watch(pipe.out(), note('x'), 10 + 5);
        CL_Object *object = watch(pipe.out(), &actions[actions.size() - 2], 20);
        cl_StatusChange_M(object, CL_STATUS_LISTED, 0, "test", 1);
        CL_ErrInfo result = test::UNTOUCHED;
        {
            Plan plan;
            EXPECT_EQ(CL_EventLoop(&result), value == 0 ? CL_LOOP_ERROR : value);
            EXPECT_EQ(plan.count("pselect"), 0);
        }
        EXPECT_EQ(trail, "");
        EXPECT_EQ(seen.type, uint32_t{CL_EVENT_FAILED});
        EXPECT_THAT(seen.error, FailsWith(EBADF, CL_MODULE_USERFD));
        if (value == 0) {
            EXPECT_THAT(result, FailsWith(EBADF, CL_MODULE_LOOP));
            EXPECT_EQ(object->status, uint32_t{CL_STATUS_LISTED | CL_STATUS_FAILED});
            EXPECT_EQ(CL_DeleteFD(object, &err), 1u);
        } else {
            EXPECT_THAT(result, IsClear());
        }
    }
}

/* Follows the loop's walk while callbacks change the lists: tells which object is called next. */
class Walk {
  public:
    Walk(CL_ErrInfo *err, int fd) : err_(err), fd_(fd) {}

    CL_Object *make(Action *action) {
        CL_Object *object =
            CL_CreateFD(CL_KIND_FD, test::call_action, test::address(action), 0, err_);
        if (object != nullptr) {
            objects_[object] = {};
            set(object, true);
        }
        return object;
    }
    void set(CL_Object *object, bool watching) {
        const fd_set read = only(fd_);
        const auto count = static_cast<uint32_t>(watching ? fd_ + 1 : 0);
        EXPECT_EQ(CL_SetFD(object, count, &read, nullptr, nullptr, err_), 1u);
        objects_[object].watching = watching;
    }
    void list(CL_Object *object, uint32_t priority) {
        EXPECT_EQ(CL_AddEventList(object, priority, err_), 1u);
        objects_[object].listed = true;
        pending_.push_back({object, priority});
    }
    void unlist(CL_Object *object) {
        EXPECT_EQ(CL_DelEventList(object, err_), 1u);
        forget(object);
    }
    void destroy(CL_Object *object) {
        EXPECT_EQ(CL_DeleteFD(object, err_), 1u);
        forget(object);
        objects_.erase(object);
    }
    bool listed(CL_Object *object) const { return objects_.at(object).listed; }
    bool watching(CL_Object *object) const { return objects_.at(object).watching; }
    CL_Object *any(test::Random *random) const {
        return std::next(objects_.begin(), random->below(static_cast<uint32_t>(objects_.size())))
            ->first;
    }
    CL_Object *first() const { return objects_.begin()->first; }
    std::size_t size() const { return objects_.size(); }

    /* The object that the loop must call now; some object must be listed and watching. */
    CL_Object *next() {
        for (;;) {
            if (++cursor_ == std::ssize(list_)) {
                merge();
                cursor_ = -1;
                iterations++;
                continue;
            }
            CL_Object *object = list_[static_cast<std::size_t>(cursor_)].object;
            if (objects_.at(object).watching) {
                return object;
            }
        }
    }
    int iterations = 0;

  private:
    struct State {
        bool listed = false, watching = false;
    };
    struct Item {
        CL_Object *object;
        uint32_t priority;
    };
    void forget(CL_Object *object) {
        objects_[object].listed = false;
        std::erase_if(pending_, [=](const Item &item) { return item.object == object; });
        for (std::ptrdiff_t i = 0; i < std::ssize(list_); i++) {
            if (list_[static_cast<std::size_t>(i)].object != object) {
                continue;
            }
            list_.erase(list_.begin() + i);
            if (i <= cursor_) {
                cursor_--;
            }
        }
    }
    void merge() {
        for (const Item &item : std::exchange(pending_, {})) {
            std::vector<int64_t> keys;
            for (const Item &other : list_) {
                keys.push_back(other.priority);
            }
            list_.insert(list_.begin() +
                             static_cast<std::ptrdiff_t>(test::sorted_place(keys, item.priority)),
                         item);
        }
    }
    CL_ErrInfo *err_;
    int fd_;
    std::map<CL_Object *, State> objects_;
    std::vector<Item> list_, pending_;
    std::ptrdiff_t cursor_ = -1;
};

/* One callback acts once, on itself, the one before it or the one after it. */
TEST_F(Loop, CallbacksMayChangeTheLists) {
    const struct {
        const char *name;
        std::function<void(Walk &, CL_Object *, Action *)> deed;
    } deeds[] = {
        {"unlist", [](Walk &walk, CL_Object *target, Action *) { walk.unlist(target); }},
        {"destroy", [](Walk &walk, CL_Object *target, Action *) { walk.destroy(target); }},
        {"relist",
         [](Walk &walk, CL_Object *target, Action *) {
             walk.unlist(target);
             walk.list(target, 40);
         }},
        {"relist first",
         [](Walk &walk, CL_Object *target, Action *) {
             walk.unlist(target);
             walk.list(target, 12);
         }},
        {"relist last",
         [](Walk &walk, CL_Object *target, Action *) {
             walk.unlist(target);
             walk.list(target, 110);
         }},
        {"replace",
         [](Walk &walk, CL_Object *target, Action *action) {
             walk.destroy(target);
             walk.list(walk.make(action), 25);
         }},
        {"silence", [](Walk &walk, CL_Object *target, Action *) { walk.set(target, false); }},
        {"add", [](Walk &walk, CL_Object *, Action *action) { walk.list(walk.make(action), 12); }},
        {"add, then drop",
         [](Walk &walk, CL_Object *, Action *action) {
             CL_Object *fresh = walk.make(action);
             walk.list(fresh, 12);
             walk.unlist(fresh);
         }},
        {"everything goes",
         [](Walk &walk, CL_Object *target, Action *action) {
             for (const uint32_t priority : {20u, 50u}) {
                 walk.list(walk.make(action), priority);
             }
             walk.unlist(target);
             walk.destroy(target);
         }},
    };
    const test::Balance before = test::Balance::now();
    for (const auto &deed : deeds) {
        for (std::size_t actor = 0; actor < 5; actor++) {
            for (int offset = -1; offset <= 1; offset++) {
                Walk walk(&err, pipe.out());
                std::vector<CL_Object *> objects;
                bool acted = false;
                std::string calls;
                Action action = [&](CL_Object *object, CL_Event *) {
                    EXPECT_EQ(object, walk.next())
                        << deed.name << " by " << actor << " on " << offset << " after " << calls;
                    const auto place = std::find(objects.begin(), objects.end(), object);
                    calls += static_cast<char>('a' + (place - objects.begin()));
                    const auto target = static_cast<std::ptrdiff_t>(actor) + offset;
                    if (!acted && object == objects[actor] && target >= 0 && target < 5) {
                        acted = true;
                        deed.deed(walk, objects[static_cast<std::size_t>(target)], &action);
                    }
                    return object == objects[5] && walk.iterations == 3 ? 1u : 0u;
                };
                for (std::size_t i = 0; i < 6; i++) {
                    objects.push_back(walk.make(&action));
                    walk.list(objects[i], i < 5 ? 20 + 10 * static_cast<uint32_t>(i) : 111);
                }
                ASSERT_EQ(run(), 1u);
                while (walk.size() > 0) {
                    walk.destroy(walk.first());
                }
            }
        }
    }
    EXPECT_EQ(test::Balance::now(), before);
}

TEST_F(Loop, FollowsItsModel) {
    test::Random random;
    Walk walk(&err, pipe.out());
    CL_Object *last = nullptr;
    int calls = 0;
    Action action = [&](CL_Object *object, CL_Event *) -> uint32_t {
        calls++;
        EXPECT_EQ(object, walk.next()) << "call " << calls;
        for (uint32_t i = random.below(4); i > 0; i--) {
            CL_Object *target = random.below(4) == 0 ? object : walk.any(&random);
            const uint32_t deed = random.below(6);
            if (deed == 0 && walk.size() < OBJECTS) {
                walk.make(&action);
            } else if (target == last) {
                continue;
            } else if (deed == 1) {
                walk.destroy(target);
                if (target == object) {
                    break;
                }
            } else if (deed == 2) {
                walk.set(target, random.below(3) > 0);
            } else if (walk.listed(target)) {
                if (deed == 3) {
                    walk.unlist(target);
                }
            } else {
                walk.list(target, 12 + random.below(12));
            }
        }
        return HasFailure() || calls > 20000 ? 1 : 0;
    };
    last = walk.make(&action);
    walk.list(last, 20); /* in the middle: it keeps the loop from starving */
    EXPECT_EQ(run(), 1u);
    EXPECT_GT(walk.iterations, 100);
}

/* ---- Signals */

TEST_F(Loop, SignalsThatCameBeforeAreDispatchedWithoutAWait) {
    timer(note('T'));
    ended_child(note('C', [] { return 9u; }));
    watch(pipe.out(), note('x'), 20);
    raise(SIGCHLD);
    tick();
    Plan plan;
    EXPECT_EQ(run(), 9u);
    EXPECT_EQ(trail, "TC") << "timers before children";
    EXPECT_EQ(plan.count("pselect"), 0);
}

/* The look before the wait found nothing; the signal comes before the wait begins. */
TEST_F(Loop, SignalsBetweenLookAndWaitEndTheWait) {
    for (const bool application_blocks : {false, true}) {
        trail.clear();
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGALRM);
        sigaddset(&set, SIGCHLD);
        sigaddset(&set, SIGWINCH);
        if (application_blocks) {
            sigprocmask(SIG_BLOCK, &set, nullptr);
        }
        timer(note('T'));
        CL_Object *child = ended_child(note('C', [] { return 9u; }));
        {
            int waits = 0;
            Plan plan{{.call = "pselect", .before = [&] {
                           waits++;
                           EXPECT_EQ(blocked() & (bit(SIGALRM) | bit(SIGCHLD)),
                                     bit(SIGALRM) | bit(SIGCHLD));
                           EXPECT_EQ(table().descriptor_count, 0);
                           raise(SIGCHLD);
                           tick();
                           raise(SIGWINCH);
                       }}};
            EXPECT_EQ(run(), 9u);
            EXPECT_EQ(waits, 1);
            EXPECT_EQ(plan.count("pselect"), 1);
        }
        EXPECT_EQ(trail, "TC");
        EXPECT_EQ(blocked() & bit(SIGWINCH), application_blocks ? bit(SIGWINCH) : 0)
            << "other signals stay as they were";
        EXPECT_EQ(CL_DeleteFD(child, &err), 1u);
    }
}

TEST_F(Loop, SignalsDuringCallbacksAreDispatchedBetweenObjects) {
    timer(note('T'), CL_TIMER_PERIODIC);
    ended_child(note('C'));
    watch(pipe.out(),
          note('a',
               [this] {
                   EXPECT_EQ(blocked() & (bit(SIGALRM) | bit(SIGCHLD)), 0u) << "callbacks run open";
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

/* After the wait timers come first, children only behind the first object. */
TEST_F(Loop, SignalsDuringTheWait) {
    timer(note('T'), CL_TIMER_PERIODIC);
    ended_child(note('C'));
    watch(pipe.out(), note('a'), 20);
    watch(pipe.out(), note('b', [] { return 1u; }), 30);
    sigset_t set;
    sigemptyset(&set);
    /* As if the handlers had run while descriptors were ready. */
    Plan plan{{.call = "pselect", .before = [&] {
                   test::set_uptime(++uptime);
                   table().timer_signals = 1;
                   table().child_signal = 1;
               }}};
    EXPECT_EQ(run(), 1u);
    EXPECT_EQ(trail, "TaCb");
}

/* What a look has taken but an earlier callback has kept from being dispatched is not lost. */
TEST_F(Loop, LooksThatEndTheLoopLoseNothing) {
    const struct {
        const char *point;
        bool before_loop, in_wait, in_callback;
    } rows[] = {{"before the wait", true, false, false},
                {"after an interrupted wait", false, true, false},
                {"between objects", false, false, true}};
    for (const auto &row : rows) {
        trail.clear();
        const auto both = [this] {
            raise(SIGCHLD);
            tick();
        };
        timer(note('T', [] { return 5u; }));
        CL_Object *child = ended_child(note('C', [] { return 6u; }));
        std::vector<CL_Object *> objects;
        if (row.in_callback) {
            objects.push_back(watch(pipe.out(),
                                    note('a',
                                         [&] {
                                             both();
                                             return 0u;
                                         }),
                                    20));
            objects.push_back(watch(pipe.out(), note('b', [] { return 7u; }), 30));
        }
        if (row.before_loop) {
            both();
        }
        {
            Plan plan{{.call = "pselect", .before = [&] {
                           if (row.in_wait) {
                               both();
                           }
                       }}};
            EXPECT_EQ(run(), 5u) << row.point;
        }
        Plan plan;
        EXPECT_EQ(run(), 6u) << row.point;
        EXPECT_EQ(plan.count("pselect"), 0);
        EXPECT_EQ(trail, row.in_callback ? "aTC" : "TC") << row.point;
        EXPECT_EQ(CL_DeleteFD(child, &err), 1u);
        for (CL_Object *object : objects) {
            EXPECT_EQ(CL_DeleteFD(object, &err), 1u);
        }
    }
    /* Nor is what came while the callback ran that ended the loop. */
    trail.clear();
    CL_Object *child = ended_child(note('C', [] { return 6u; }));
    CL_Object *object = watch(pipe.out(),
                              note('a',
                                   [] {
                                       raise(SIGCHLD);
                                       return 4u;
                                   }),
                              20);
    EXPECT_EQ(run(), 4u);
    EXPECT_EQ(run(), 6u);
    EXPECT_EQ(trail, "aC");
    CL_DeleteFD(child, &err);
    CL_DeleteFD(object, &err);
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

TEST_F(Loop, GoesOnAfterAnyInterruption) {
    watch(pipe.out(), note('a', [] { return 1u; }), 20);
    Plan plan{{.call = "pselect", .error = EINTR, .times = 5}};
    EXPECT_EQ(run(), 1u);
    EXPECT_EQ(plan.hits(), 5);
    EXPECT_EQ(trail, "a");
}

/* ---- Ends and errors */

TEST_F(Loop, EndsWhenAStepFails) {
    const struct {
        test::Fault fault;
        bool signal; /* one is there before the wait */
        bool fails;
    } rows[] = {
        {{.call = "pselect", .error = EBADF}, false, true},
        {{.call = "pselect", .error = ENOMEM, .nth = 2}, false, true},
        {{.call = "pselect", .error = EINVAL, .nth = 3}, false, true},
        {{.call = "sigprocmask", .error = EINVAL}, false, true},
        {{.call = "sigprocmask", .error = EFAULT, .nth = 3}, false, true},
        {{.call = "sigprocmask", .error = EINVAL, .nth = 2}, true, true},
        {{.call = "sigprocmask", .error = EINVAL, .nth = 2}, false, false},
        {{.call = "sigprocmask", .error = EINTR, .times = 3}, false, false},
    };
    int left = 0;
    watch(pipe.out(), note('a', [&] { return left-- > 1 ? 0u : 1u; }), 20);
    for (const auto &row : rows) {
        left = 4;
        const uint64_t mask = blocked();
        if (row.signal) {
            table().child_signal = 1;
        }
        uint32_t result = 0;
        {
            Plan plan(row.fault);
            result = run();
            EXPECT_GE(plan.hits(), 1);
        }
        EXPECT_EQ(result, row.fails ? CL_LOOP_ERROR : 1u);
        if (row.fails) {
            EXPECT_THAT(err, FailsWith(row.fault.error, CL_MODULE_LOOP)) << row.fault.call;
        } else {
            EXPECT_THAT(err, IsClear());
        }
        if (row.fault.call == "pselect") {
            EXPECT_EQ(blocked(), mask);
        }
        sigset_t set;
        sigemptyset(&set);
        sigprocmask(SIG_SETMASK, &set, nullptr);
        table().child_signal = 0;
    }
    /* A descriptor that the application has closed under the loop. */
    auto gone = std::make_unique<test::Pipe>();
    watch(gone->out(), note('b'), 30);
    gone.reset();
    EXPECT_EQ(run(), CL_LOOP_ERROR);
    EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_LOOP));
}

/* What only damaged lists can show. */
TEST_F(Loop, EndsWhenAListIsDamaged) {
    CL_Object *first = nullptr;
    CL_Object *second = nullptr;
    std::function<void()> deed = [] {};
    const auto set_up = [&] {
        first = watch(pipe.out(),
                      note('a',
                           [&] {
                               deed();
                               return 0u;
                           }),
                      20);
        second = watch(pipe.out(), note('b'), 30);
    };
    const struct {
        std::function<void()> before, during;
        uint32_t detail;
    } rows[] = {
        /* A kind that the loop cannot watch, when it adds and when it checks. */
        {[&] { second->kind = CL_KIND_TIMER; }, [] {}, CL_KIND_TIMER},
        {[&] { second->kind = 5; }, [] {}, 5},
        {[] {}, [&] { second->kind = CL_KIND_CHILD; }, CL_ERR_QUEUE},
        /* A link that says it belongs nowhere. */
        {[&] {
             cl_move_eventlist(&err);
             second->event_link.owner = nullptr;
         },
         [] {}, CL_QUE_NOT_HELD},
        {[] {}, [&] { first->event_link.owner = nullptr; }, CL_ERR_QUEUE},
    };
    for (const auto &row : rows) {
        set_up();
        row.before();
        deed = row.during;
        EXPECT_EQ(run(), CL_LOOP_ERROR);
        EXPECT_EQ(err.err, uint32_t{CL_ERR_QUEUE});
        EXPECT_EQ(err.detail, row.detail);
        EXPECT_EQ(err.module, uint32_t{CL_MODULE_LOOP});
        EXPECT_NE(err.line, 0u);
        CL_QUE_InitQT(&table().priority_list, table().priority_list.link_offset);
        for (CL_Object *object : {first, second}) {
            object->event_link = {};
        }
    }
}

TEST_F(Loop, HandsOverTheStoredError) {
    uint32_t value = 9;
    watch(pipe.out(), note('a', [&] { return value; }), 20);
    table().exec_error = {111, 112, 1, 114, CL_VERSION};
    EXPECT_EQ(run(), 9u);
    EXPECT_EQ(err, table().exec_error);
    table().exec_error.err = 0;
    EXPECT_EQ(run(), 9u);
    EXPECT_THAT(err, IsClear()) << "only when it says something";
}

/* ---- Steps */

TEST_F(Loop, MakesItsSets) {
    test::Pipe other;
    const fd_set read = only(pipe.out()), write = only(other.in());
    CL_Object *first = watch(pipe.out(), note('a'), 20);
    ASSERT_EQ(CL_SetFD(first, 900, &read, nullptr, &write, &err), 1u);
    CL_Object *second = watch(pipe.out(), note('b'), 30);
    ASSERT_EQ(CL_SetFD(second, 700, nullptr, &write, nullptr, &err), 1u);
    memset(&table().sets, 0xff, sizeof table().sets);
    table().descriptor_count = 1000;
    EXPECT_EQ(cl_fdmake(&err), 0u);
    CL_FdSets expected{};
    expected.read = read;
    expected.write = expected.except = write;
    EXPECT_EQ(memcmp(&table().sets, &expected, sizeof expected), 0);
    EXPECT_EQ(table().descriptor_count, 900);
    EXPECT_EQ(table().pending_list.count, 0u);
    cl_clearlist();
    expected = {};
    EXPECT_EQ(memcmp(&table().sets, &expected, sizeof expected), 0);
    EXPECT_EQ(table().descriptor_count, 0);
}

TEST_F(Loop, LooksAtTheSignals) {
    timer(note('T'), CL_TIMER_PERIODIC, 0);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGALRM);
    sigaddset(&set, SIGCHLD);
    const struct {
        uint32_t child;
        uint64_t ticks;
        uint32_t dispatched, always;
        uint32_t bits, dispatched_after;
        bool left_blocked;
    } rows[] = {
        {0, 0, 0, 0, 0, 0, true},
        {0, 0, 0, 1, 0, 0, false},
        {0, 0, 1, 0, 0, 1, true}, /* without ticks the mark stays */
        {1, 0, 0, 0, CL_LOOK_CHILD, 0, false},
        {0, 3, 0, 0, CL_LOOK_TIMER, 0, false},
        {1, 3, 0, 1, CL_LOOK_CHILD | CL_LOOK_TIMER, 0, false},
        {0, 3, 1, 0, 0, 0, true}, /* one due timer is disregarded */
        {1, 3, 1, 0, CL_LOOK_CHILD, 0, false},
    };
    for (const auto &row : rows) {
        table().child_signal = row.child;
        table().timer_signals = row.ticks;
        table().wake_signal = 1;
        table().timer_dispatched = row.dispatched;
        sigset_t saved;
        sigfillset(&saved);
        EXPECT_EQ(cl_sigcheck(row.always, &set, &saved, &err), row.bits);
        EXPECT_EQ(blocked() & (bit(SIGALRM) | bit(SIGCHLD)),
                  row.left_blocked ? bit(SIGALRM) | bit(SIGCHLD) : 0);
        EXPECT_EQ(sigismember(&saved, SIGALRM), 0) << "the mask from before";
        EXPECT_EQ(table().child_signal, 0u);
        EXPECT_EQ(table().timer_signals, 0u);
        EXPECT_EQ(table().wake_signal, 1u) << "not this loop's";
        EXPECT_EQ(table().timer_dispatched, row.dispatched_after);
        sigprocmask(SIG_UNBLOCK, &set, nullptr);
    }
    trail.clear();
    table().timer_signals = 0;
    watch(pipe.out(), note('a', [] { return 8u; }), 20);
    ASSERT_EQ(cl_fdmake(&err), 0u);
    sigset_t saved;
    EXPECT_EQ(cl_fdcheck(&set, &saved, &err), 8u);
    EXPECT_EQ(trail, "Ta");
}

/* ---- Cost */

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

/* The kernel's own count, between two calls that nothing else makes. */
TEST_F(Loop, MakesThreeSystemCallsForTheKernelToo) {
    int left = 50;
    for (uint32_t i = 0; i < 30; i++) {
        watch(pipe.out(), note('a'), 20 + i);
    }
    watch(pipe.out(), note('z', [&] { return --left > 0 ? 0u : 1u; }), 111);
    const pid_t pid = fork();
    if (pid == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        getppid();
        CL_EventLoop(&err);
        getppid();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    if (!WIFSTOPPED(status)) {
        GTEST_SKIP() << "processes cannot be traced here";
    }
    ASSERT_EQ(ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL),
              0);
    int marks = 0;
    int calls = 0;
    std::string others;
    while (ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr) == 0 && waitpid(pid, &status, 0) == pid &&
           WIFSTOPPED(status)) {
        __ptrace_syscall_info info{};
        if (WSTOPSIG(status) != (SIGTRAP | 0x80) ||
            ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) <= 0 ||
            info.op != PTRACE_SYSCALL_INFO_ENTRY) {
            continue;
        }
        const uint64_t number = info.entry.nr;
        if (number == SYS_getppid) {
            marks++;
        } else if (marks == 1 && (number == SYS_pselect6 || number == SYS_rt_sigprocmask)) {
            calls++;
        } else if (marks == 1 && number != SYS_gettimeofday && number != SYS_clock_gettime) {
            others += std::to_string(number) + " ";
        }
    }
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(marks, 2);
    EXPECT_EQ(calls, 150);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(others, "");
#endif
}

}  // namespace
