// The layer for C++: tasks and what ends them, and that nothing is left behind.
#include <qvcl/qvcl.hpp>

#include <sys/mman.h>

#include <array>
#include <csignal>
#include <list>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "tests/folder.h"
#include "tests/support.h"
#include "tests/wire.h"

namespace {

using namespace qvcl;
using namespace std::chrono_literals;
using test::table;

// A runtime whose end finds nothing left.
class CppTest : public testing::Test {
  protected:
    ~CppTest() override {
        CL_KitKeepLog();
        rt.reset();
        for (const std::string &line : test::log_lines())
            EXPECT_EQ(line.find("not released"), std::string::npos) << line;
    }
    // Runs the task to its end.
    template <class T>
    auto run(Task<T> task) {
        return rt->run(std::move(task));
    }

    std::vector<int> before = test::descriptors();
    std::unique_ptr<Runtime> rt = std::make_unique<Runtime>(RuntimeOptions{.objects = 300});
};

// Counts those of it that are alive.
struct Counted {
    explicit Counted(int &alive) : count(&alive) { ++alive; }
    Counted(Counted &&other) noexcept : count(std::exchange(other.count, nullptr)) {}
    ~Counted() {
        if (count != nullptr) --*count;
    }
    int *count;
};

Task<int> later(int value, std::chrono::milliseconds time = 1ms) {
    co_await after(time);
    co_return value;
}

Task<int> at_once(int value) {
    co_return value;
}

Task<> hold(Counted /*held*/) {
    co_await after(1h);
}

TEST_F(CppTest, ValuesAndExceptionsReachWhoAwaits) {
    const auto task = [](Runtime &runtime) -> Task<std::string> {
        int sum = 0;
        for (int i = 0; i < 100000; ++i)  // no stack grows
            sum += co_await at_once(1);
        const auto throws = []() -> Task<> {
            co_await after(1ms);
            throw std::runtime_error("inner");
        };
        std::string text;
        try {
            co_await throws();
        } catch (const std::runtime_error &error) {
            text = error.what();
        }
        Running<int> beside = runtime.start(later(7));
        Running<> failing = runtime.start(throws());
        sum += co_await later(10);
        sum += co_await std::move(beside);
        try {
            co_await std::move(failing);
        } catch (const std::runtime_error &error) {
            text += error.what();
        }
        co_return text + std::to_string(sum);
    };
    EXPECT_EQ(run(task(*rt)).value(), "innerinner100017");
}

TEST_F(CppTest, WhatNobodyCatchesComesOutOfRun) {
    const auto throws = []() -> Task<int> {
        co_await after(1ms);
        throw std::domain_error("run until it ends");
    };
    rt->spawn([]() -> Task<> {
        co_await after(1ms);
        throw std::runtime_error("spawned");
    });
    EXPECT_THROW(static_cast<void>(rt->run()), std::runtime_error);
    EXPECT_THROW(static_cast<void>(run(throws())), std::domain_error);
    EXPECT_TRUE(rt->post([] { throw std::logic_error("posted"); }));
    EXPECT_THROW(static_cast<void>(rt->run()), std::logic_error);
    {
        Running<> dropped = rt->start([]() -> Task<> {
            co_await after(0ms);
            throw std::runtime_error("nobody awaits it");
        });
        EXPECT_EQ(run(later(3)).value(), 3);
    }
    EXPECT_THROW(static_cast<void>(rt->run()), std::runtime_error);
    const auto nested = [](Runtime &runtime) -> Task<bool> {
        co_return runtime.run().error() == EDEADLK;
    };
    EXPECT_TRUE(run(nested(*rt)).value());
}

TEST_F(CppTest, RunOutlivesWhatPasses) {
    CL_KitVirtualTime(0);
    const auto with_fault = [this](int error, int32_t times) {
        const test::Plan plan({.call = "pselect", .error = error, .times = times});
        return run(later(3));
    };
    EXPECT_EQ(with_fault(ENOMEM, 2).value(), 3);
    EXPECT_EQ(with_fault(EBADF, 1).error(), EBADF) << "does not pass";
    EXPECT_EQ(with_fault(ENOMEM, CL_KIT_FOREVER).error(), ENOMEM) << "has not passed for long";
}

TEST_F(CppTest, DestroyingCancelsWhereverTheTaskStands) {
    int alive = 0;
    const auto outer = [](Counted counted) -> Task<> { co_await hold(std::move(counted)); };
    rt->spawn(hold(Counted(alive)));
    Running<> kept = rt->start(outer(Counted(alive)));
    static_cast<void>(hold(Counted(alive)));  // never started
    EXPECT_EQ(alive, 2);
    EXPECT_EQ(run(later(1)).value(), 1);
    kept.cancel();
    EXPECT_EQ(alive, 1);
    Running<> survivor = rt->start(outer(Counted(alive)));
    rt.reset();
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(survivor);
}

TEST_F(CppTest, TaskThatDestroysItselfRunsOnToItsNextWait) {
    int alive = 0, steps = 0;
    Running<> self;
    const auto inner = [](Running<> &own, int &count) -> Task<> {
        own.cancel();
        ++count;
        co_await after(0ms);
        ++count;
    };
    const auto outer = [inner](Counted, Running<> &own, int &count) -> Task<> {
        co_await inner(own, count);
    };
    self = rt->start(outer(Counted(alive), self, steps));
    EXPECT_EQ(run(later(1, 5ms)).value(), 1);
    EXPECT_EQ(steps, 1);
    EXPECT_EQ(alive, 0);
}

TEST_F(CppTest, AnyWaitCanHaveADeadline) {
    const test::Pipe pipe;
    int alive = 0;
    const auto task = [](const test::Pipe &ends, int &count) -> Task<> {
        const auto start = std::chrono::steady_clock::now();
        Ticker slow(1h);
        Event never;
        Signals none{SIGWINCH};
        Watch watch(ends.out());
        EXPECT_EQ((co_await with_deadline(2ms, slow.next())).error(), ETIMEDOUT);
        EXPECT_EQ((co_await with_deadline(2ms, never.wait())).error(), ETIMEDOUT);
        EXPECT_EQ((co_await with_deadline(2ms, none.next())).error(), ETIMEDOUT);
        EXPECT_EQ((co_await with_deadline(2ms, watch.readable())).error(), ETIMEDOUT);
        EXPECT_EQ((co_await with_deadline(start, hold(Counted(count)))).error(), ETIMEDOUT);
        EXPECT_EQ(count, 0);
        EXPECT_EQ((co_await with_deadline(1h, later(5))).value(), 5);
        ends.fill();
        EXPECT_EQ((co_await with_deadline(1h, watch.readable())).value(), CL_NEST_READ);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    };
    EXPECT_TRUE(run(task(pipe, alive)));
}

TEST_F(CppTest, TickersKeepTheirPhase) {
    const auto task = []() -> Task<> {
        Ticker ticker(10ms);
        const auto start = std::chrono::steady_clock::now();
        uint64_t turns = 0;
        for (int i = 0; i < 5; ++i) {
            turns += (co_await ticker.next()).value();
            std::this_thread::sleep_for(i == 1 ? 35ms : 3ms);
        }
        const auto passed = std::chrono::steady_clock::now() - start;
        EXPECT_GE(turns, 7u);  // those that passed meanwhile count
        EXPECT_GE(passed, 10ms * turns);
        EXPECT_LT(passed, 10ms * (turns + 5));
        EXPECT_EQ((co_await Ticker(0ms).next()).error(), EINVAL);
    };
    EXPECT_TRUE(run(task()));
}

TEST_F(CppTest, PostsFromAnyThreadRunOnTheLoops) {
    int count = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int j = 0; j < 2500; ++j) {
                rt->post([&, keep = std::make_unique<int>(j)] {
                      if (++count == 10000) rt->stop(17);
                  }).value();
            }
        });
    }
    EXPECT_EQ(rt->run().value(), 17);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_TRUE(rt->post([keep = std::make_unique<int>(1)] {}));  // is dropped
}

TEST_F(CppTest, SignalsAreWaitedFor) {
    const auto task = []() -> Task<> {
        EXPECT_EQ((co_await Signals{SIGCHLD}.next()).error(), EBUSY);
        Signals signals{SIGTERM, SIGHUP};
        raise(SIGHUP);
        raise(SIGTERM);
        raise(SIGHUP);
        std::vector<int> told;
        for (int i = 0; i < 2; ++i)
            told.push_back((co_await signals.next()).value().number);
        EXPECT_THAT(told, testing::UnorderedElementsAre(SIGTERM, SIGHUP));
    };
    EXPECT_TRUE(run(task()));
}

TEST_F(CppTest, WhatGoesAwayEndsTheWaitsForIt) {
    const auto wait = [](std::unique_ptr<Event> &event) -> Task<int> {
        const auto result = co_await event->wait();
        co_return result ? 0 : result.error().code().value();
    };
    const auto task = [wait](Runtime &runtime) -> Task<> {
        auto event = std::make_unique<Event>();
        Running<int> first = runtime.start(wait(event));
        Running<int> second = runtime.start(wait(event));
        co_await after(0ms);
        event->set();   // both are ready,
        event.reset();  // and what they would look at is gone
        EXPECT_EQ(co_await std::move(first), ECANCELED);
        EXPECT_EQ(co_await std::move(second), ECANCELED);
    };
    EXPECT_TRUE(run(task(*rt)));
}

TEST_F(CppTest, CallsAndWaitsShowTheApplicationsLines) {
    const test::Tape tape;
    const auto task = [](Runtime &runtime) -> Task<std::string> {
        co_await after(0ms);
        co_return runtime.waiting_tasks();
    };
    static int alive;
    rt->spawn(hold(Counted(alive)));
    const auto text = run(task(*rt)).value();
    rt->run(later(0)).value();
    EXPECT_THAT(text, testing::ContainsRegex("task: spawned cpp_test.cpp:[0-9]+, waits "
                                             "cpp_test.cpp:[0-9]+ after since 0\\.0"));
    for (const test::Record &record : tape.records(CL_API_LOOP))
        EXPECT_STREQ(std::string(record.head().file, 12).c_str(), "cpp_test.cpp");
}

// ---------------------------------------------------------------- messages

struct Pair {
    int32_t a;
    uint64_t b;
};

Task<> echo(Connection connection) {
    for (;;) {
        auto message = co_await connection.receive();
        if (!message || !co_await connection.send(message->type + 1, message->payload)) co_return;
    }
}

Task<> serve(Runtime &rt, Server server, Limits limits) {
    for (;;) {
        auto connection = co_await server.accept(limits);
        if (!connection) co_return;
        EXPECT_EQ(connection->peer()->pid, getpid());
        rt.spawn(echo(std::move(*connection)));
    }
}

class CppMessageTest : public CppTest {
  protected:
    void serve_echo(Limits limits = {}) {
        rt->spawn(serve(*rt, Server::listen(path.c_str(), {.backlog = 500}).value(), limits));
    }

    const test::Folder folder;
    const std::string path = folder.path("socket");
};

TEST_F(CppMessageTest, TypedMessagesThereAndBack) {
    serve_echo();
    const auto task = [](const char *where) -> Task<> {
        Connection c = (co_await Connection::connect(where)).value();
        (co_await c.send(10, Pair{-1, 2})).value();
        const Message message = (co_await c.receive()).value();
        EXPECT_EQ(message.type, 11u);
        EXPECT_EQ(message.sender, getpid());
        EXPECT_EQ(message.as<Pair>()->b, 2u);
        EXPECT_EQ(message.as<int>().error(), EBADMSG);
        (co_await c.send(20, "text")).value();
        (co_await c.send(30)).value();
        EXPECT_EQ((co_await c.receive())->text(), "text");
        EXPECT_EQ((co_await c.receive())->payload.size(), 0u);

        // What cannot be sent changes nothing; a receive that was given up is taken up again.
        EXPECT_EQ((co_await c.send(1, std::string(4097, 'x'))).error(), EMSGSIZE);
        EXPECT_EQ((co_await with_deadline(2ms, c.receive())).error(), ETIMEDOUT);
        (co_await c.send(40, std::string_view("later"))).value();
        EXPECT_EQ((co_await c.receive())->text(), "later");
        EXPECT_EQ((co_await Connection{}.receive()).error(), EBADF);
        EXPECT_EQ((co_await Connection::connect("/nowhere/at/all")).error(), ENOENT);
        EXPECT_EQ((co_await Connection::connect(nullptr)).error(), EFAULT);
        EXPECT_EQ((co_await Connection::connect(where, {.blocks = 0})).error(), EINVAL);
    };
    EXPECT_TRUE(run(task(path.c_str())));
    EXPECT_EQ(Server::listen(folder.path("none/socket").c_str()).error(), ENOENT);
    EXPECT_EQ(Server::listen(path.c_str(), {.priority = 1}).error(), EINVAL);
}

TEST_F(CppMessageTest, SendersWaitForRoomAndGoInOrder) {
    Server server = Server::listen(path.c_str()).value();
    constexpr uint32_t kMessages = 300;
    const std::string big(4000, 'x');
    const auto send = [&](Connection &c, uint32_t from) -> Task<> {
        for (uint32_t i = from; i < kMessages; i += 2)
            (co_await c.send(i, big)).value();
    };
    const auto task = [&]() -> Task<> {
        Running<Result<Connection>> connecting = rt->start([&]() -> Task<Result<Connection>> {
            co_return co_await Connection::connect(path.c_str());
        });
        Connection there = (co_await server.accept()).value();
        Connection here = (co_await std::move(connecting)).value();
        Running<> even = rt->start(send(here, 0));
        Running<> odd = rt->start(send(here, 1));
        co_await after(5ms);
        EXPECT_FALSE(even.finished());  // nobody reads
        EXPECT_EQ((co_await with_deadline(2ms, here.flush())).error(), ETIMEDOUT);
        for (uint32_t next[] = {0, 1}, i = 0; i < kMessages; ++i) {
            const Message message = (co_await there.receive()).value();
            EXPECT_EQ(message.type, next[message.type % 2]);
            next[message.type % 2] += 2;
            EXPECT_EQ(message.text(), big);
        }
        (co_await here.flush()).value();
        EXPECT_TRUE(even.finished() && odd.finished());
    };
    EXPECT_TRUE(run(task()));
}

// Peers that break the rules, in one way each, while a good one is served.
TEST_F(CppMessageTest, MisbehavingPeersHurtNobodyElse) {
    serve_echo({.message = 64, .blocks = 2});
    std::vector<test::Socket> peers;
    const auto good = [&]() -> Task<> {
        Connection c = (co_await Connection::connect(path.c_str(), {.message = 64})).value();
        for (int i = 0; i < 200; ++i) {
            (co_await c.send(1, i)).value();
            EXPECT_EQ((co_await with_deadline(5s, c.receive()))->as<int>().value(), i);
            if (i < 60) peers.push_back(test::Socket::connected(path));
            const std::string payload(i % 7 == 0 ? 200 : 48, 'x');
            CL_MsgHeader header = {static_cast<uint32_t>(16 + payload.size()), CL_MSG_VERSION, 0,
                                   1};
            if (i % 7 == 1) header.version = 7;
            if (i % 7 == 2) header.length = 3;
            constexpr int kFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
            for (const test::Socket &peer : peers) {  // those of before flood
                std::ignore = ::send(peer.fd(), &header, i % 7 == 3 ? 5 : sizeof header, kFlags);
                std::ignore = ::send(peer.fd(), payload.data(), payload.size(), kFlags);
            }
            if (i % 5 == 0 && !peers.empty()) peers.pop_back();
        }
    };
    EXPECT_TRUE(run(good()));
    EXPECT_LT(table().kind_queues[CL_KIND_QUEUE_MSGC].count, 40u);  // the closed ones are gone
}

TEST_F(CppMessageTest, WhoeverComesWhenThereIsNoRoomWaits) {
    serve_echo();
    const auto task = [&]() -> Task<> {
        std::vector<test::Socket> peers;
        for (int i = 0; i < 320; ++i)  // the runtime has 300 objects
            peers.push_back(test::Socket::connected(path));
        while (table().kind_queues[CL_KIND_QUEUE_MSGC].count < 300)
            co_await after(1ms);
        co_await after(5ms);
        peers.clear();
        co_await after(250ms);
        EXPECT_EQ(table().kind_queues[CL_KIND_QUEUE_MSGC].count, 0u);
        Connection c = (co_await Connection::connect(path.c_str())).value();
        (co_await c.send(1, "still there")).value();
        EXPECT_TRUE(co_await with_deadline(5s, c.receive()));
    };
    EXPECT_TRUE(run(task()));
}

TEST_F(CppMessageTest, ConnectionsMayGoWhileTasksWaitForThem) {
    Server server = Server::listen(path.c_str()).value();
    const auto code = [](auto result) { return result ? 0 : result.error().code().value(); };
    const auto receive = [&](Connection &c) -> Task<int> { co_return code(co_await c.receive()); };
    const auto task = [&]() -> Task<> {
        Running<int> nobody =
            rt->start([&]() -> Task<int> { co_return code(co_await server.accept()); });
        co_await after(0ms);
        Connection a = (co_await Connection::connect(path.c_str())).value();
        EXPECT_EQ(co_await std::move(nobody), 0);
        Connection b = (co_await Connection::connect(path.c_str())).value();
        Running<int> first = rt->start(receive(b)), second = rt->start(receive(b));
        Running<int> closed = rt->start(receive(a));
        Running<int> accepting = rt->start([&]() -> Task<int> {
            (co_await server.accept()).value();  // b's other end, which goes at once
            co_return code(co_await server.accept());
        });
        EXPECT_EQ(co_await std::move(second), EINPROGRESS);
        EXPECT_EQ(co_await std::move(closed), EPIPE);
        EXPECT_EQ(a.object(), nullptr);
        EXPECT_EQ(co_await std::move(first), EPIPE);
        EXPECT_EQ(code(co_await b.send(1)), EPIPE);
        server = Server();
        EXPECT_EQ(co_await std::move(accepting), ECANCELED);
    };
    EXPECT_TRUE(run(task()));
}

TEST_F(CppMessageTest, ChannelsAreUsedAsConnectionsAre) {
    ChannelServer server(path.c_str());
    rt->spawn([&]() -> Task<> {
        while (auto channel = co_await server.accept({.message = 5000})) {
            EXPECT_EQ(channel->peer()->pid, getpid());
            rt->spawn([c = std::make_shared<Channel>(std::move(*channel))]() -> Task<> {
                for (;;) {
                    auto message = co_await c->receive();
                    if (!message) co_return;
                    if (message->type % 7 == 0) co_await after(0ms);  // others wait meanwhile
                    if (!co_await c->send(message->type, message->payload)) co_return;
                }
            });
        }
    });
    constexpr uint32_t kMessages = 3000;
    const auto payload = [](uint32_t i) {
        return std::string(size_t{i % 11} * 300, static_cast<char>(i));
    };
    const auto task = [&]() -> Task<> {
        Channel c = Channel::connect(path.c_str()).value();
        Running<> sending = rt->start([&]() -> Task<> {
            for (uint32_t i = 0; i < kMessages; ++i)
                (co_await c.send(i, payload(i))).value();  // more than all buffers hold
        });
        for (uint32_t i = 0; i < kMessages; ++i) {
            const Message message = (co_await with_deadline(10s, c.receive())).value();
            EXPECT_EQ(message.type, i);
            EXPECT_EQ(message.text(), payload(i));
        }
        co_await std::move(sending);
        EXPECT_EQ((co_await with_deadline(2ms, c.receive())).error(), ETIMEDOUT);
        EXPECT_EQ((co_await c.send(1, std::string(70000, 'x'))).error(), EMSGSIZE);

        // A connection at the other end; a message that is too long; one's own end.
        Connection plain = (co_await Connection::connect(path.c_str(), {.message = 6000})).value();
        (co_await plain.send(1, "plain")).value();
        EXPECT_EQ((co_await plain.receive())->text(), "plain");
        (co_await plain.send(1, std::string(5001, 'x'))).value();
        EXPECT_THAT((co_await plain.receive()).error().code().value(),
                    testing::AnyOf(EPIPE, ECONNRESET));
        Running<int> waiting = rt->start([&]() -> Task<int> {
            const auto end = co_await c.receive();
            co_return end ? 0 : end.error().code().value();
        });
        co_await after(0ms);
        c = Channel();
        EXPECT_EQ(co_await std::move(waiting), ECANCELED);
        EXPECT_EQ(Channel::connect("/nowhere/at/all").error(), ENOENT);
        ChannelServer nowhere("/nowhere/at/all");
        EXPECT_EQ((co_await nowhere.accept()).error(), ENOENT);
    };
    EXPECT_TRUE(run(task()));
}

// ---------------------------------------------------------------- callbacks

TEST_F(CppMessageTest, CallbacksWithCapturesMayDestroyThemselves) {
    Server server = Server::listen(path.c_str()).value();
    std::vector<std::string> told;
    std::list<std::pair<Connection, Callback>> clients;
    int ticks = 0;
    Callback tick = every(1ms, [&, keep = std::string(100, 'k')] {
        if (++ticks == 3) tick.cancel();
        EXPECT_EQ(keep.size(), 100u);
    });
    const Callback serving = on_connection(server, {}, [&](Connection connection) {
        auto client = clients.emplace(clients.end(), std::move(connection), Callback());
        client->second = on_message(
            client->first,
            [&, client](const Message &message) {
                told.emplace_back(message.text());
                EXPECT_TRUE(client->first.try_send(1, message.payload));
            },
            [&, client](const Error &why) {
                EXPECT_EQ(why, EPIPE);
                clients.erase(client);  // this function is in there
            });
    });
    const Callback hup = on_signal(SIGHUP, [&](const Signal &signal) {
        EXPECT_EQ(signal.pid, getpid());
        if (ticks == 3 && clients.empty()) rt->stop(9);
    });
    const test::Pipe pipe;
    const Callback readable = on_readable(pipe.out(), [&](uint32_t ready) {
        char byte;
        EXPECT_EQ(ready, uint32_t{CL_NEST_READ});
        EXPECT_EQ(read(pipe.out(), &byte, 1), 1);
        told.emplace_back(1, byte);
    });
    pipe.fill('1');
    pipe.fill('2');
    const Callback ring = every(5ms, [] { raise(SIGHUP); });
    rt->spawn([&]() -> Task<> {
        Connection c = (co_await Connection::connect(path.c_str())).value();
        (co_await c.send(1, "one")).value();
        (co_await c.receive()).value();
    });
    EXPECT_EQ(rt->run().value(), 9);
    EXPECT_THAT(told, testing::UnorderedElementsAre("one", "1", "2"));
    const Callback throws = call_after(0ms, [] { throw std::runtime_error("called"); });
    EXPECT_THROW(static_cast<void>(rt->run()), std::runtime_error);
    const Callback fails = on_signal(SIGALRM, [](const Signal &) {});
    EXPECT_THROW(static_cast<void>(rt->run()), std::system_error);
}

// ---------------------------------------------------------------- programs

TEST_F(CppTest, ProgramsEndByThemselvesByRequestAndByForce) {
    const auto shell = [](const char *script) {
        return Process::start({"/bin/sh", "-c", script},
                              {.environment = {{"GIVEN", "7"}, {"HOME", std::nullopt}}});
    };
    const auto task = [&]() -> Task<> {
        Process exits = shell("exit $GIVEN$HOME").value();
        Process polite = shell("exec sleep 100").value();
        Process deaf = shell("trap '' TERM; while :; do sleep 0.01; done").value();
        Process left = shell("trap '' TERM ABRT; kill -STOP $$").value();
        EXPECT_EQ((co_await with_deadline(1ms, polite.exit())).error(), ETIMEDOUT);
        EXPECT_EQ((co_await polite.ready()).error(), EINVAL);
        EXPECT_EQ((co_await exits.exit())->value, 7u);
        EXPECT_EQ((co_await exits.exit())->value, 7u);
        EXPECT_EQ(exits.signal(SIGTERM).error(), ESRCH);
        EXPECT_EQ((co_await polite.end(10s))->value, uint32_t{SIGTERM});
        co_await after(50ms);
        EXPECT_EQ((co_await deaf.end(20ms))->value, uint32_t{SIGKILL});
        EXPECT_TRUE(left.is_running());
        EXPECT_EQ(Process::start({"/no/such/program"}).error(), ENOENT);
        EXPECT_EQ(Process::start({}).error(), EINVAL);
        EXPECT_EQ((co_await Process().exit()).error(), EBADF);
    };
    EXPECT_TRUE(run(task()));
}

// ---------------------------------------------------------------- the rest

TEST_F(CppMessageTest, FilesSegmentsAndMemoryGiveBackWhatTheyTake) {
    const std::string name = folder.path("file");
    {
        File file = File::open(name.c_str(), O_RDWR | O_CREAT).value();
        EXPECT_TRUE(file.write("0123456789"));
        EXPECT_TRUE(file.flush());
        EXPECT_EQ(file.seek(4, SEEK_SET).value(), 4u);
        std::byte bytes[20];
        EXPECT_EQ(file.read(bytes).value(), 6u);
        EXPECT_EQ(bytes[0], std::byte{'4'});
        EXPECT_EQ(file.seek(-1, SEEK_SET).error(), EINVAL);
        EXPECT_TRUE(file.close());
        EXPECT_EQ(file.read(bytes).error(), EBADF);
        EXPECT_EQ(File::open(folder.path("none").c_str(), O_RDONLY).error(), ENOENT);
        File full = File::open(name.c_str(), O_RDWR).value();
        const int number = full.object()->descriptor;
        {
            const test::Plan plan({.call = "close", .error = EIO});
            EXPECT_EQ(full.close().error(), EIO);
        }
        EXPECT_EQ(full.object(), nullptr) << "given back, or the table fills up";
        close(number);
    }
    const std::string segment = "/qvcl-cpp-" + std::to_string(getpid());
    const int fd = shm_open(segment.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_EQ(ftruncate(fd, 64), 0);
    close(fd);
    EXPECT_EQ(SharedMemory::open(segment.c_str(), 8192).error(), ENOSPC);
    {
        SharedMemory writer = SharedMemory::open(segment.c_str(), 64, true).value();
        SharedMemory reader = SharedMemory::open(segment.c_str(), 64).value();
        writer.writable_bytes()[5] = std::byte{3};
        EXPECT_EQ(reader.bytes()[5], std::byte{3});
        EXPECT_TRUE(reader.writable_bytes().empty());
        EXPECT_EQ((reader.as<std::array<char, 65>>()), nullptr);
        writer.unlink_on_close();
    }
    EXPECT_EQ(SharedMemory::open(segment.c_str(), 64).error(), ENOENT);

    const uint64_t before_memory = table().user_bytes;
    {
        TrackedMemory memory;
        std::pmr::vector<int> numbers(1000, 7, &memory);
        EXPECT_GE(table().user_bytes, before_memory + 4000);
        void *aligned = memory.allocate(100, 4096);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(aligned) % 4096, 0u);
        memory.deallocate(aligned, 100, 4096);
        CL_memlimit(table().user_bytes + 1000);
        EXPECT_THROW(static_cast<void>(memory.allocate(2000)), std::bad_alloc);
    }
    EXPECT_EQ(table().user_bytes, before_memory);
}

TEST_F(CppMessageTest, ConfigurationHasTypesAndDefaults) {
    const std::string good = folder.put("good", "[a]\nnumber = 12\nflag = yes\nodd = 12x\n[b]\n");
    const Conf conf = Conf::read(good.c_str()).value();
    EXPECT_THAT(conf.sections(), testing::ElementsAre("a", "b"));
    EXPECT_THAT(conf.keys("a"), testing::ElementsAre("flag", "number", "odd"));
    EXPECT_EQ(conf.get("a", "number", 1).value(), 12);
    EXPECT_EQ(conf.get("a", "number", uint8_t{1}).value(), 12);
    EXPECT_EQ(conf.get("a", "none", 1.5).value(), 1.5);
    EXPECT_TRUE(conf.get("a", "flag", false).value());
    EXPECT_EQ(conf.get("a", "odd", "-"), std::string("12x"));
    EXPECT_EQ(conf.get("a", "odd", 1).error().record().line, 4u);
    EXPECT_EQ(conf.get("a", "odd", true).error(), EINVAL);
    const std::string bad = folder.put("bad", "[a]\n[a]\n");
    const Error error = Conf::read(bad.c_str()).error();
    EXPECT_EQ(error.record().detail, uint32_t{CL_CONF_SECTION_TWICE});
    EXPECT_EQ(error.record().line, 2u);
    EXPECT_EQ(Conf::read(folder.path("none").c_str()).error(), ENOENT);
}

TEST_F(CppMessageTest, DumpsTellWhatTasksWaitForAndWhatTheApplicationRecorded) {
    UserRing ring(folder.path("user").c_str(), 64, 100);
    EXPECT_TRUE(ring.write(Pair{7, 0x1122334455667788}));
    EXPECT_EQ(ring.write(std::array<char, 8000>{}).error(), E2BIG);
    EXPECT_THROW(UserRing("again", 64, 100), std::system_error);
    const auto task = [&]() -> Task<> {
        rt->dump(folder.path("dump").c_str(), "a test");
        co_return;
    };
    serve_echo();
    EXPECT_TRUE(run(later(0)));
    EXPECT_TRUE(run(task()));
    const std::string dump = test::bytes_of(folder.path("dump"));
    for (const char *part : {"reason: a test\n", "\nprocess: ", "\ntask: spawned cpp_test.cpp:"})
        EXPECT_NE(dump.find(part), std::string::npos) << part;
    EXPECT_NE(dump.find("\x88\x77\x66\x55\x44\x33\x22\x11"), std::string::npos);
}

TEST_F(CppTest, ErrorsNameTheOperationAndCarryTheRecord) {
    try {
        Server::listen("/no/such/directory/socket").value();
        FAIL();
    } catch (const std::system_error &error) {
        EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
        EXPECT_EQ(std::string(error.what()).substr(0, 11), "CL_OpenMSGS");
    }
    const Error error = Server::listen("/no/such/directory/socket").error();
    EXPECT_EQ(error.record().module, uint32_t{CL_MODULE_MSGS});
    EXPECT_NE(error.record().line, 0u);
    Result<> status;
    const Runtime second({}, status);
    EXPECT_EQ(status.error(), EPERM);
    EXPECT_EQ(run(later(2)).value(), 2);  // the first one is as it was
}

}  // namespace
