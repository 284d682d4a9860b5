// The event loop: callbacks that change the lists under it, signals at every point, and what an
// iteration costs.
#include <fcntl.h>
#include <qvcl/child.h>
#include <qvcl/loop.h>
#include <qvcl/thread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <csignal>
#include <deque>
#include <map>

#include "tests/wire.h"

namespace {

using test::Action;
using test::Plan;
using test::table;
using testing::Pair;

uint64_t blocked() {
    return test::Balance::now().blocked_signals;
}
constexpr uint64_t kOurs = 1ULL << (SIGALRM - 1) | 1ULL << (SIGCHLD - 1);
constexpr uint64_t kOther = 1ULL << (SIGWINCH - 1);

class Loop : public test::Library {
  protected:
    void SetUp() override {
        Library::SetUp();
        pipe.fill();
        CL_KitSetUptime(uptime);
    }
    uint32_t run(bool threaded = false) {
        err = test::kUntouched;
        return threaded ? CL_EventLoopThread(&err) : CL_EventLoop(&err);
    }
    // An action that leaves its name in the trail and goes on with `more`.
    Action *note(
        char name, std::function<uint32_t()> more = [] { return 0u; }) {
        return &actions.emplace_back([this, name, more](CL_Object *, CL_Event *) {
            trail += name;
            return more();
        });
    }
    CL_Object *make(uint32_t kind, Action *action) {
        return create(kind, test::call_action, test::address(action));
    }
    CL_Object *timer(Action *action, uint32_t mode = CL_TIMER_ONESHOT, uint32_t seconds = 1) {
        CL_Object *object = make(CL_KIND_TIMER, action);
        EXPECT_EQ(CL_StartTIMER(object, seconds, mode, &err), 1u) << err;
        return object;
    }
    // A second goes by.
    void tick() {
        CL_KitSetUptime(++uptime);
        raise(SIGALRM);
    }

    long uptime = 1000;
    test::Pipe pipe;  // always readable
    std::deque<Action> actions;
    std::string trail;
};

// ---- Lists that are changed while they are walked

enum List { kTimers, kChildren, kThreads, kReaders };
constexpr uint32_t kKinds[] = {CL_KIND_TIMER, CL_KIND_CHILD, CL_KIND_THREAD, CL_KIND_FD};

// Four lists, and callbacks that change any of them. A walk goes on behind whom it has called,
// passes nobody over who stays, and calls nobody who has left. The readers watch copies of a
// descriptor that is always readable, in every word of the sets but the first; timers are due again
// at once.
class Walks : public Loop {
  protected:
    struct State {
        List list;
        enum { kOff, kOn, kSlippedIn } place = kOff;
        std::set<int> watched = {};  // readers
        bool periodic = false;
        bool turn = false;      // due, ended, or not yet called by this walk
        bool may_wait = false;  // has the place of the one whose callback made it
    };

    void SetUp() override {
        Loop::SetUp();
        signal(SIGCHLD, SIG_DFL);  // the test says when a child has ended
        for (int word = 1; word < FD_SETSIZE / 64; ++word)
            fds.push_back(fcntl(pipe.out(), F_DUPFD, 64 * word + 63 * (word % 2)));
    }

    uint32_t below(uint32_t bound) { return random.below(bound); }
    CL_Object *any() {
        return std::next(states.begin(), below(static_cast<uint32_t>(states.size())))->first;
    }
    List any_list() { return static_cast<List>(std::min(below(8), uint32_t{kReaders})); }
    CL_Object *add(List list) {
        CL_Object *object = make(kKinds[list], &action);
        states[object] = {.list = list, .turn = list == kThreads};
        if (list == kReaders) set(object, below(3));
        EXPECT_TRUE(list != kThreads || CL_SetThreadFd(object, &err) == 1);
        return object;
    }
    void set(CL_Object *object, uint32_t descriptors) {
        std::set<int> &watched = states.at(object).watched;
        watched.clear();
        fd_set read = {};
        for (; descriptors > 0; --descriptors)
            watched.insert(fds[below(static_cast<uint32_t>(fds.size()))]);
        for (const int fd : watched)
            FD_SET(fd, &read);
        const int count = watched.empty() ? 0 : *watched.rbegin() + 1;
        EXPECT_EQ(CL_SetFD(object, static_cast<uint32_t>(count), &read, nullptr, nullptr, &err),
                  1u);
    }
    void enter(CL_Object *object) {
        State &state = states.at(object);
        state.place = State::kOn;
        if (state.list == kTimers) {
            state.turn = false;
            state.periodic = below(2) == 0;
            const uint32_t mode = state.periodic ? CL_TIMER_PERIODIC : CL_TIMER_ONESHOT;
            EXPECT_EQ(CL_StopTIMER(object, &err), 0u) << "it does not run";
            EXPECT_EQ(CL_StartTIMER(object, 0, mode, &err), 1u);
            EXPECT_EQ(CL_StartTIMER(object, 1, mode, &err), 0u) << "it runs";
        } else if (state.list == kChildren) {
            state.turn = below(4) != 0;
            adopt(object, state.turn ? test::ended_process() : test::child_process());
        } else {
            EXPECT_EQ(CL_AddEventList(object, 12 + below(12), &err), 1u);
        }
    }
    void leave(CL_Object *object) {
        const List list = states.at(object).list;
        if (list == kChildren) return;  // only its end takes it off
        EXPECT_EQ(list == kTimers ? CL_StopTIMER(object, &err) : CL_DelEventList(object, &err), 1u);
        forget(object);
    }
    // Onto a list and off it behind the library's back, as an element like any other.
    void slip_in(CL_Object *object) {
        states.at(object).place = State::kSlippedIn;
        CL_Queue *list = &table().priority_list;
        const uint32_t where = below(3);
        object->priority = where == 0 ? CL_PRIORITY_FIRST : CL_PRIORITY_LAST;
        if (where == 0) {
            CL_QUE_Insert(list, object, CL_QUE_BEFORE_ELEMENT, list->head, nullptr, nullptr);
        } else {
            CL_QUE_PutTail(where == 1 ? list : &table().pending_list, object);
        }
    }
    void slip_out(CL_Object *object) {
        CL_QUE_GetData(object->event_link.owner, object);
        forget(object);
    }
    void destroy(CL_Object *object) {
        if (states.at(object).place == State::kSlippedIn) slip_out(object);
        EXPECT_EQ(CL_DeleteFD(object, &err), 1u) << err;
        forget(object);
        states.erase(object);
    }
    void forget(CL_Object *object) {
        states.at(object).place = State::kOff;
        passed.erase(object);
    }
    // What is pending has joined the readers, and the sets are made.
    void join() {
        EXPECT_EQ(table().pending_list.count, 0u);
        sets.clear();
        uint32_t counts[4] = {}, priority = 0;
        for (const auto &[object, state] : states) {
            if (state.place == State::kOff) continue;
            ++counts[state.list];
            sets.insert(state.watched.begin(), state.watched.end());
        }
        for (const List list : {kTimers, kChildren, kThreads, kReaders})
            EXPECT_EQ(members(list).size(), counts[list]) << "of list " << list;
        for (const CL_Object *object : members(kReaders))
            EXPECT_LE(std::exchange(priority, object->priority), object->priority);
    }

    static std::vector<CL_Object *> members(List list) {
        const CL_Queue *queues[] = {&table().timer_list, &table().child_list, &table().thread_list,
                                    &table().priority_list};
        std::vector<CL_Object *> result;
        uint32_t status;
        void *object = nullptr;
        while ((object = CL_QUE_Enum(queues[list], object, CL_QUE_FORWARD, &status)) != nullptr)
            result.push_back(static_cast<CL_Object *>(object));
        return result;
    }
    // Who is behind the last one that a walk has passed; it has passed all the others.
    void look_ahead() {
        for (const List list : walks) {
            const std::vector<CL_Object *> all = members(list);
            auto at = all.end();
            while (at != all.begin() && !passed.contains(at[-1]))
                --at;
            passed.insert(all.begin(), at);
            ahead[list].assign(at, all.end());
        }
    }
    // Whom the walk has to call next, after `called` was; null: nobody.
    CL_Object *next(const CL_Object *called = nullptr) {
        for (CL_Object *object : ahead[walks.front()]) {
            passed.insert(object);
            const State &state = states.at(object);
            const bool ready = std::any_of(state.watched.begin(), state.watched.end(),
                                           [this](int fd) { return sets.contains(fd); });
            const bool must = object == called || state.list != kThreads || !state.may_wait;
            if ((ready || state.turn) && must) return object;
        }
        return nullptr;
    }
    // The readers' walk goes on behind others.
    void begin() {
        const List list = walks.front();
        if (list == kReaders) return;
        for (auto &[object, state] : states) {
            if (state.list != list) continue;
            passed.erase(object);
            if (list != kChildren) state.turn = true, state.may_wait = false;
        }
        ahead[list] = members(list);
    }
    void conclude() {
        EXPECT_EQ(next(), nullptr) << "nobody is forgotten, list " << walks.front();
        walks.pop_front();
        if (!walks.empty()) begin();
    }
    // Just before the wait of an iteration: everybody has been asked.
    void wait() {
        ++iterations;
        while (!walks.empty())
            conclude();
        join();
        EXPECT_TRUE(table().timer_cursor == nullptr && table().child_cursor == nullptr);
        walks = {kTimers, kReaders};
        passed.clear();
        look_ahead();
        begin();
    }
    uint32_t called(CL_Object *object) {
        ++calls;
        const List list = states.at(object).list;
        while (!walks.empty() && walks.front() != list)
            conclude();
        EXPECT_FALSE(walks.empty()) << "list " << list << " is not to be walked";
        EXPECT_EQ(object, next(object)) << "call " << calls << " of list " << list;
        if (HasFailure()) return value = 1;
        if (list == kThreads) states.at(object).turn = false;
        if (list == kChildren || (list == kTimers && !states.at(object).periodic)) forget(object);
        change(object);
        look_ahead();
        // A walk that ends the loop calls the others later; whose turn it is then, is not for us.
        const bool may_end = list != kReaders && (walks.size() == 1 || walks[1] == kReaders);
        value = may_end && below(10) == 0 ? 1 + below(100) : 0;
        if (list != kReaders) return value;
        if (below(32) == 0) {
            walks.push_front(kThreads);
            table().wake_signal = 1;
        }
        if (below(32) == 0) {
            walks.push_front(kChildren);
            table().child_signal = 1;
        }
        begin();
        return value = calls > 30000 ? 1 : 0;
    }
    // Most callbacks do nothing, so that the loop comes to know its objects.
    void change(CL_Object *self) {
        for (uint32_t i = below(16) == 0 ? below(6) : 0; i > 0; --i) {
            look_ahead();
            CL_Object *target = below(4) == 0 ? self : any();
            const State state = states.at(target);
            const bool reader = state.list == kReaders, slipped = state.place == State::kSlippedIn;
            const uint32_t deed = below(32);
            if (deed == 0) {  // the loop's own steps: the rest of the iteration goes by these sets
                cl_clearlist();
                sets.clear();
            } else if (deed == 1) {
                EXPECT_EQ(cl_fdmake(&err), 0u);
                join();
            } else if (target == last || (slipped && target == table().loop_cursor)) {
                continue;
            } else if (deed < 10) {
                destroy(target);
                CL_Object *other = add(any_list());  // has the place of the other in the table
                State &fresh = states.at(other);
                if (fresh.list == kReaders && below(2) == 0) {
                    slip_in(other);
                } else if (below(2) == 0) {
                    enter(other);
                }
                if (target != self) continue;
                fresh.may_wait = true;
                return;
            } else if (reader && deed < 17) {
                set(target, below(3));
            } else if (slipped) {
                slip_out(target);
            } else if (state.place == State::kOn) {
                if (deed < 22) leave(target);
            } else if (reader && deed < 19) {
                slip_in(target);
            } else {
                enter(target);
            }
        }
    }

    test::Random random;
    std::vector<int> fds;
    std::map<CL_Object *, State> states;
    std::set<CL_Object *> passed;
    std::vector<CL_Object *> ahead[4];  // as of the last callback
    std::set<int> sets;
    std::deque<List> walks;  // that must be done, one after the other, before the next wait
    CL_Object *last = nullptr;
    int calls = 0, iterations = 0;
    uint32_t value = 0;
    Action action = [this](CL_Object *object, CL_Event *) { return called(object); };
};

TEST_F(Walks, FollowTheirModel) {
    // Ticks are the test's, too.
    const Plan plan{{.call = "setitimer", .times = test::kForever, .swallow = true},
                    {.call = "pselect", .times = test::kForever, .before = [this] { wait(); }}};
    last = add(kReaders);
    set(last, 1);
    enter(last);  // it keeps the loop from starving
    while (states.size() < kObjects)
        add(any_list());
    while (calls <= 30000 && !HasFailure()) {
        EXPECT_EQ(run(true), value) << err;
        walks.clear();
    }
    EXPECT_GT(iterations, 100);
    while (!states.empty())
        destroy(states.begin()->first);
}

// What a callback gets in the place of what it gave up, number and slot, is not ready.
TEST_F(Loop, FindsNothingReadyThatCameLater) {
    const std::string segment = "/qvcl-loop-test-" + std::to_string(getpid());
    close(shm_open(segment.c_str(), O_CREAT | O_RDWR, 0600));
    const test::Folder folder;
    const std::string path = folder.path("door");
    const auto door = test::Socket::listening(path), guest = test::Socket::connected(path);
    CL_Object *later = watch(pipe.out(), note('-'), 30);
    watch(pipe.out(), note('z', [] { return 1u; }), 40);
    CL_Object *owner = watch(pipe.out(), note('-'), 50);
    CL_Object *client = create(CL_KIND_MSGC);
    while (create(CL_KIND_THREAD) != nullptr) {
    }
    const auto watched = [&](CL_Object *object, int fd) {
        EXPECT_EQ(test::watch_readable(object, fd, &err), 1u) << err;
        return fd;
    };
    const auto file = [&] { return CL_OpenFile("/dev/null", O_RDONLY, 0, &err)->descriptor; };
    const auto shm = [&] { return cl_openshm(segment.c_str(), 0, 1, &err, "", 1)->descriptor; };
    const auto socket = [&] { return cl_u_socket(AF_UNIX, SOCK_STREAM, 0); };
    const auto connection = [&] { return cl_u_accept(door.fd(), nullptr, nullptr); };
    const auto event = [&] { return eventfd(0, 0); };
    // The number is free because the client is deleted, or because the application closes its own.
    const std::pair<std::function<int()>, bool> rows[] = {{file, false},  {event, false},
                                                          {file, true},   {shm, true},
                                                          {socket, true}, {connection, true}};
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << trail.size() / 2);
        const int owned = watched(owner, dup(pipe.out()));
        CL_SetFD(later, 0, nullptr, nullptr, nullptr, &err);
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        ASSERT_EQ(write(ends[1], "x", 1), 1);
        // In the one place of the table that is free.
        CL_DeleteFD_M(client, &err, 1, "test", 1);
        client = create(CL_KIND_MSGC, test::call_action, test::address(note('c', [&] {
                            if (row.second) {
                                close(owned);
                                watched(owner, pipe.out());
                            }
                            EXPECT_EQ(CL_DeleteFD(client, &err), 1u) << err;
                            EXPECT_EQ(watched(later, row.first()), row.second ? owned : ends[0]);
                            return 0u;
                        })));
        client->descriptor = ends[0];
        cl_StatusChange_M(client, CL_STATUS_READY, CL_SUB_CONNECT_PENDING | CL_SUB_RECV_PENDING,
                          "test", 1);
        ASSERT_EQ(CL_AddEventList(client, 20, &err), 1u) << err;
        EXPECT_EQ(run(), 1u) << err;
    }
    EXPECT_EQ(trail, "czczczczczcz");
    shm_unlink(segment.c_str());
}

// Whoever cannot take part hears why, and the loop ends whatever it answers.
TEST_F(Loop, EndsWithAnObjectThatCannotTakePart) {
    uint32_t answer = 0, expected = EBADF;
    Action action = [&](CL_Object *, CL_Event *event) {
        EXPECT_EQ(event->type, uint32_t{CL_EVENT_FAILED});
        EXPECT_EQ(event->error.err, expected);
        trail += 'F';
        return answer;
    };
    for (const uint32_t kind : {CL_KIND_FD, CL_KIND_MSGS, CL_KIND_MSGC}) {
        CL_Object *object = create(kind, test::call_action, test::address(&action));
        cl_StatusChange_M(object, CL_STATUS_READY, 0, "test", 1);
        ASSERT_EQ(CL_AddEventList(object, 20, &err), 1u);
        for (uint32_t number = 0; number < 2 * 2; ++number) {
            answer = number % 2 * 5;
            cl_StatusChange_M(object, CL_STATUS_LISTED, 0, "test", 1);
            EXPECT_EQ(run(number / 2 != 0), answer == 0 ? CL_LOOP_ERROR : answer);
            EXPECT_EQ(err.err, answer == 0 ? uint32_t{EBADF} : 0u) << err;
            EXPECT_EQ(object->status, uint32_t{CL_STATUS_LISTED | CL_STATUS_FAILED});
        }
        answer = 0;
        EXPECT_EQ(cl_fdmake(&err), CL_LOOP_ERROR);
        EXPECT_EQ(err.err, uint32_t{EBADF}) << err;
        answer = CL_LOOP_ERROR;
        EXPECT_EQ(run(false), CL_LOOP_ERROR);
        if (kind == CL_KIND_MSGS) {  // one that listens, out of reach
            object->status = CL_STATUS_READY | CL_STATUS_LISTED;
            object->descriptor = FD_SETSIZE;
            expected = EMFILE;
            EXPECT_EQ(run(false), CL_LOOP_ERROR);
            object->status = CL_STATUS_LISTED;
            expected = EBADF;
        }
        EXPECT_EQ(CL_DeleteFD(object, &err), 1u) << err;
    }
    EXPECT_EQ(trail, std::string(19, 'F'));
}

// ---- Signals

// All that may be pending together, at each point where the loop finds it, and each of it ending
// the loop: what was pending behind it waits for the next look, and nothing is lost.
TEST_F(Loop, PendingTogetherIsDispatchedInOrder) {
    enum Point { kBefore, kInTheWait, kWhenReady, kBetween };
    // Of the wake-up, W, only where threads wake the loop.
    const std::string trails[] = {"TCWab", "TCWab", "TaCWb", "aTCWb"};
    sigset_t held;
    sigemptyset(&held);
    for (const int number : {SIGALRM, SIGCHLD, SIGUSR1, SIGWINCH})
        sigaddset(&held, number);
    ASSERT_EQ(clSIGUSR1Initialize(&err), 1u);
    for (int number = 0; number < 4 * 2 * 4; ++number) {
        const int point = number / 8;
        const bool threaded = number % 2 != 0;
        const char ends = "TCW-"[number / 2 % 4];
        if (!threaded && ends == 'W') continue;
        SCOPED_TRACE(testing::Message()
                     << "point " << point << (threaded ? " threaded" : "") << " ended by " << ends);
        const auto noted = [&](char name) {
            return note(name, [=] { return name == ends ? 40u : 0u; });
        };
        const test::Pipe ready;
        if (point != kInTheWait) ready.fill();
        CL_Object *child = adopt(make(CL_KIND_CHILD, noted('C')), test::ended_process());
        CL_Object *woken = make(CL_KIND_THREAD, noted('W')), *due = timer(noted('T'));
        CL_SetThreadFd(woken, &err);
        CL_AddEventList(woken, 20, &err);
        table().child_signal = 0;  // the signal that really came is not what counts
        const auto all_at_once = [&] {
            for (const int signal : {SIGUSR1, SIGCHLD, SIGWINCH})
                raise(signal);
            tick();
        };
        bool at_first = point == kBetween;
        Action *reads = note('a', [&] {
            EXPECT_EQ(blocked() & kOurs, 0u) << "callbacks run open";
            if (std::exchange(at_first, false)) all_at_once();
            return 0u;
        });
        CL_Object *first = watch(ready.out(), reads, 20);
        CL_Object *second = watch(ready.out(), note('b', [] { return 9u; }), 30);
        if (point == kBefore) all_at_once();
        // Blocked by the application, but for the loop's waits and callbacks.
        sigprocmask(SIG_BLOCK, &held, nullptr);
        const auto in_the_wait = [&] {
            EXPECT_EQ(blocked() & kOurs, kOurs) << "from the look to the wait";
            if (point == kInTheWait || point == kWhenReady) all_at_once();
        };
        const Plan plan{{.call = "pselect", .before = in_the_wait},
                        {.call = "pselect", .nth = 2, .before = [&] { ready.fill(); }}};
        std::string expected = trails[point], rest = "TCWab";
        if (!threaded) std::erase(expected, 'W'), std::erase(rest, 'W');
        trail.clear();
        if (ends != '-') {
            EXPECT_EQ(run(threaded), 40u);
            EXPECT_EQ(trail, expected.substr(0, expected.find(ends) + 1));
            expected = rest.substr(rest.find(ends) + 1);
            trail.clear();
            ready.fill();
        }
        EXPECT_EQ(run(threaded), 9u);
        EXPECT_EQ(trail, expected);
        EXPECT_EQ(blocked() & kOther, kOther) << "as it was";
        sigprocmask(SIG_UNBLOCK, &held, nullptr);
        EXPECT_EQ(std::exchange(table().wake_signal, 0), threaded ? 0u : 1u);
        for (CL_Object *object : {child, woken, due, first, second})
            EXPECT_EQ(CL_DeleteFD(object, &err), 1u) << err;
    }
    EXPECT_EQ(clSIGUSR1End(), 1u);
}

// A tick that comes while the loop waits counts, whatever was dispatched before the wait.
TEST_F(Loop, EveryTickIsDispatched) {
    int left = 2;
    timer(note('T', [&] { return --left > 0 ? 0u : 9u; }), CL_TIMER_PERIODIC);
    tick();
    const Plan plan{{.call = "pselect", .before = [this] { tick(); }}};
    EXPECT_EQ(run(), 9u);
    EXPECT_EQ(plan.count("pselect"), 1);
}

// There is a look behind every object, also one that has nothing to say, and a timer that is due at
// every look takes turns with the others.
TEST_F(Loop, EveryLookFindsTicks) {
    Action *again = note('T', [this] {
        tick();
        return 0u;
    });
    const test::Pipe silent;
    timer(again, CL_TIMER_PERIODIC, 0);
    int left = 3;
    watch(pipe.out(), note('a'), 20);
    for (const uint32_t priority : {30u, 40u, 50u})
        watch(silent.out(), note('-'), priority);
    watch(pipe.out(), note('z', [&] { return --left > 0 ? 0u : 1u; }), 60);
    const Plan plan{{.call = "pselect", .before = [&] { table().timer_signals = 1; }}};
    EXPECT_EQ(run(), 1u);
    EXPECT_EQ(trail, "TaTTTTzTTTaTTTTzTTTaTTTTz");
}

// Loops do not nest; a periodic timer that a nested one leaves due is re-armed all the same.
TEST_F(Loop, ANestedLoopLeavesNoTimerDue) {
    uint32_t depth = 0, turns = 0;
    Action *nesting = note('T', [&] {
        if (++depth > 1) return 5u;
        CL_ErrInfo inner;
        EXPECT_EQ(CL_EventLoop(&inner), 5u);
        return 0u;
    });
    timer(nesting, CL_TIMER_PERIODIC, 3);
    watch(pipe.out(), note('z', [&] { return turns++ == 0 ? 0u : 1u; }), 20);
    CL_KitSetUptime(uptime += 3);
    EXPECT_EQ(run(), 1u);
    EXPECT_EQ(trail, "TTzz");
}

TEST_F(Loop, MakesThreeSystemCallsAnIteration) {
    for (const bool all_ready : {false, true}) {
        test::Pipe silent;
        int left = 20;
        for (uint32_t i = 0; i < 20; ++i)
            watch(all_ready ? pipe.out() : silent.out(), note('a'), 20 + i);
        CL_Object *counts_down =
            watch(pipe.out(), note('z', [&] { return --left > 0 ? 0u : 1u; }), 111);
        Plan plan;
        EXPECT_EQ(run(), 1u);
        std::map<std::string_view, int> counts;
        for (const std::string_view call : plan.calls())
            ++counts[call];
        for (const char *no_call : {"gettimeofday", "sigaddset", "sigemptyset"})
            counts.erase(no_call);
        EXPECT_THAT(counts, testing::ElementsAre(Pair("pselect", 20), Pair("sigprocmask", 40)));
        EXPECT_EQ(CL_DeleteFD(counts_down, &err), 1u);
    }
}

}  // namespace
