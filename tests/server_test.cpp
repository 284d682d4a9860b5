/* Message servers: paths, every failure on the way to a listening socket and to an accepted
 * connection, descriptors beyond the sets, and results of a wait that a callback has outdated. */
#include <fcntl.h>
#include <qvcl/client.h>
#include <qvcl/loop.h>
#include <qvcl/server.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "tests/wire.h"

using test::Balance;
using test::FailsWith;
using test::Fault;
using test::IsEvent;
using test::Plan;
using test::Socket;
using testing::ElementsAre;

namespace {

constexpr uint32_t READY = CL_STATUS_READY;
constexpr uint32_t LISTED = CL_STATUS_LISTED;
constexpr uint32_t FAILED = CL_STATUS_FAILED;

class Server : public test::Messaging {
  protected:
    void SetUp() override {
        Messaging::SetUp();
        server = make(CL_KIND_MSGS);
    }
    uint32_t open(const char *at) { return CL_OpenMSGS(server, at, 8, &err); }
    void open_listed(uint32_t priority = 30) {
        ASSERT_EQ(open(address.c_str()), 1u) << err;
        list(server, priority);
    }
    CL_Object *accept() { return CL_AcceptMSGS(server, test::call_action, server->arg1, 0, &err); }
    /* The object and the process are as before the open that failed. */
    void expect_closed(const Balance &expected, uint32_t status = 0) {
        EXPECT_EQ(server->status, status);
        EXPECT_EQ(server->sub_status, 0u);
        EXPECT_EQ(server->descriptor, -1);
        EXPECT_EQ(Balance::now(), expected);
    }
    static mode_t mode_of(const std::string &at) {
        struct stat info = {};
        return lstat(at.c_str(), &info) == 0 ? info.st_mode : 0;
    }

    std::string address = folder.path("server");
    CL_Object *server = nullptr;
};

TEST_F(Server, OpensWhereItCan) {
    const std::string longest = folder.path(std::string(107 - folder.root().size() - 1, 'p'));
    ASSERT_EQ(longest.size(), 107u);
    const std::string target = folder.path("target"), locked = folder.path("locked/x");
    const auto write_to = [](const std::string &at) { std::ofstream(at) << "content"; };
    const struct {
        const char *what;
        std::string at;
        std::function<void()> prepare;
        int code;
    } places[] = {
        {"nothing there", address, nullptr, 0},
        {"107 characters", longest, nullptr, 0},
        {"108 characters", longest + "p", nullptr, ENAMETOOLONG},
        {"far too long", longest + longest, nullptr, ENAMETOOLONG},
        {"a file", address, [&] { write_to(address); }, 0},
        {"a socket nobody listens on", address, [&] { Socket::listening(address); }, 0},
        {"a pipe", address, [&] { EXPECT_EQ(mkfifo(address.c_str(), 0600), 0); }, 0},
        {"a link", address,
         [&] {
             write_to(target);
             std::filesystem::create_symlink(target, address);
         },
         0},
        {"a directory", address, [&] { std::filesystem::create_directory(address); }, EISDIR},
        {"in no directory", folder.path("none/x"), nullptr, ENOENT},
        {"in a file", target + "/x", nullptr, ENOTDIR},
        {"in a locked directory", locked,
         [&] { EXPECT_EQ(mkdir(folder.path("locked").c_str(), 0), 0); }, EACCES},
        {"no name", "", nullptr, ENOENT},
    };
    const Balance none = Balance::now();
    for (const auto &place : places) {
        SCOPED_TRACE(place.what);
        if (place.prepare) place.prepare();
        const std::string before_it = std::filesystem::exists(target) ? "content" : "";
        Plan plan;
        {
            const auto nobody =
                place.code == EACCES ? std::make_unique<test::Unprivileged>() : nullptr;
            EXPECT_EQ(open(place.at.c_str()), place.code == 0 ? 1u : 0u) << err;
        }
        if (place.code == ENAMETOOLONG) {
            EXPECT_EQ(plan.count("socket"), 0);
        }
        if (place.code != 0) {
            EXPECT_THAT(err, FailsWith(place.code, CL_MODULE_MSGS));
            expect_closed(none);
            std::filesystem::remove(address);
            continue;
        }
        EXPECT_THAT(err, test::IsClear());
        EXPECT_EQ(server->status, READY);
        EXPECT_EQ(mode_of(place.at), mode_t{S_IFSOCK | 0660});
        EXPECT_STREQ(server->server.address.sun_path, place.at.c_str());
        EXPECT_EQ(fcntl(server->descriptor, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        EXPECT_EQ(fcntl(server->descriptor, F_GETFD), FD_CLOEXEC);
        EXPECT_FALSE(Socket::connected(place.at).ended());
        EXPECT_EQ(CL_CloseMSGS(server, &err), 1u);
        EXPECT_THAT(err, test::IsClear());
        EXPECT_EQ(mode_of(place.at), 0u) << "the socket file is removed";
        expect_closed(none);
    }
    EXPECT_TRUE(std::filesystem::exists(target)) << "what a link pointed to is not touched";
    EXPECT_EQ(open(nullptr), 0u);
    EXPECT_THAT(err, FailsWith(EFAULT, CL_MODULE_MSGS));
    expect_closed(none);
}

TEST_F(Server, ModeDoesNotFollowTheMask) {
    for (const mode_t mask : {0, 022, 0777}) {
        umask(mask);
        ASSERT_EQ(open(address.c_str()), 1u) << err;
        EXPECT_EQ(mode_of(address), mode_t{S_IFSOCK | 0660});
        EXPECT_EQ(CL_CloseMSGS(server, &err), 1u);
    }
}

TEST_F(Server, RefusalsChangeNothing) {
    CL_Object *timer = make(CL_KIND_TIMER), *deleted = make(CL_KIND_MSGS);
    CL_Object *closed = make(CL_KIND_MSGS);
    EXPECT_EQ(CL_DeleteFD(deleted, &err), 1u);
    ASSERT_EQ(open(address.c_str()), 1u);
    using Call = std::function<bool(CL_Object *, uint8_t)>;
    const Call opening = [&](CL_Object *object, uint8_t flag) {
        return CL_OpenMSGS_M(object, path.c_str(), 8, &err, flag, "t", 1) != 0;
    };
    const Call accepting = [&](CL_Object *object, uint8_t flag) {
        return CL_AcceptMSGS_M(object, nullptr, 0, 0, &err, flag, "t", 1) != nullptr;
    };
    const Call closing = [&](CL_Object *object, uint8_t flag) {
        return CL_CloseMSGS_M(object, &err, flag, "t", 1) != 0;
    };
    const auto inside = reinterpret_cast<CL_Object *>(reinterpret_cast<char *>(server) + 8);
    const struct {
        const Call &call;
        CL_Object *object;
        uint8_t flag;
        int code;
        int module;
    } refusals[] = {
        {opening, server, 0, EALREADY, CL_MODULE_MSGS},
        {opening, server, 1, EALREADY, CL_MODULE_MSGS},
        {opening, timer, 0, EBADF, CL_MODULE_MSGS},
        {accepting, timer, 0, EBADF, CL_MODULE_MSGS},
        {closing, timer, 0, EBADF, CL_MODULE_MSGS},
        {opening, nullptr, 0, EBADF, CL_MODULE_FD},
        {accepting, inside, 0, EBADF, CL_MODULE_FD},
        {closing, deleted, 1, EBADF, CL_MODULE_FD},
        {accepting, closed, 0, EBADF, CL_MODULE_MSGS},
        {closing, closed, 0, EBADF, CL_MODULE_MSGS},
        {accepting, server, 0, EAGAIN, CL_MODULE_MSGS},
    };
    const Balance before_all = Balance::now();
    const CL_Object kept = *server;
    int number = 0;
    for (const auto &refusal : refusals) {
        SCOPED_TRACE(number++);
        err = test::UNTOUCHED;
        EXPECT_FALSE(refusal.call(refusal.object, refusal.flag));
        EXPECT_THAT(err, FailsWith(refusal.code, refusal.module));
        EXPECT_EQ(Balance::now(), before_all);
    }
    EXPECT_EQ(memcmp(&kept.kind, &server->kind, sizeof kept - offsetof(CL_Object, kind)), 0);
    EXPECT_FALSE(Socket::connected(address).ended()) << "it listens on";

    CL_Object *execs = make(CL_KIND_EXECS);
    EXPECT_FALSE(opening(execs, 0)) << "the library's own kinds are for the library";
    EXPECT_TRUE(CL_OpenMSGS_M(execs, folder.path("x").c_str(), 8, &err, 1, "t", 1) != 0);
    EXPECT_FALSE(accepting(execs, 0));
    EXPECT_FALSE(closing(execs, 0));
    EXPECT_TRUE(closing(execs, 1));
}

TEST_F(Server, OpenSurvivesEveryFailure) {
    const struct {
        const char *call;
        int nth;
        bool file_stays;
    } steps[] = {{"socket", 1, false}, {"fcntl", 1, false}, {"fcntl", 2, false},
                 {"unlink", 1, false}, {"bind", 1, false},  {"chmod", 1, true},
                 {"listen", 1, true}};
    ASSERT_EQ(open(address.c_str()), 1u);
    list(server);
    EXPECT_EQ(CL_CloseMSGS(server, &err), 1u);
    const Balance closed = Balance::now();
    for (const auto &step : steps) {
        for (const int code : {EACCES, ENOMEM, EINTR}) {
            SCOPED_TRACE(testing::Message() << step.call << " " << step.nth << ": " << code);
            {
                const Plan plan{{.call = step.call, .error = code, .nth = step.nth}};
                EXPECT_EQ(open(address.c_str()), code == EINTR ? 1u : 0u) << err;
                EXPECT_EQ(plan.hits(), 1);
            }
            if (code != EINTR) {
                EXPECT_THAT(err, FailsWith(code, CL_MODULE_MSGS));
                expect_closed(closed, LISTED);
                EXPECT_EQ(mode_of(address) != 0, step.file_stays);
                ASSERT_EQ(open(address.c_str()), 1u) << err;
            }
            EXPECT_EQ(server->status, READY | LISTED);
            EXPECT_EQ(CL_CloseMSGS(server, &err), 1u);
        }
    }
    ASSERT_EQ(open(address.c_str()), 1u);
    const int descriptor = server->descriptor;
    {
        const Plan plan{{.call = "close", .error = EIO}};
        EXPECT_EQ(CL_CloseMSGS(server, &err), 0u);
    }
    EXPECT_THAT(err, FailsWith(EIO, CL_MODULE_MSGS));
    EXPECT_EQ(server->status, READY | LISTED);
    EXPECT_EQ(server->descriptor, descriptor);
    EXPECT_NE(mode_of(address), 0u);
    const Plan plan{{.call = "unlink", .error = EACCES}};
    EXPECT_EQ(CL_CloseMSGS(server, &err), 1u) << "a file that cannot be removed is left";
}

TEST_F(Server, AcceptedConnectionIsTheCallersOwn) {
    ASSERT_EQ(open(address.c_str()), 1u);
    const Socket raw = Socket::connected(address);
    CL_Object *made =
        CL_AcceptMSGS_M(server, test::call_action, 11, 22, &err, 0, "some/caller.c", 77);
    ASSERT_NE(made, nullptr) << err;
    EXPECT_THAT(err, test::IsClear());
    EXPECT_EQ(made->kind, uint32_t{CL_KIND_MSGC});
    EXPECT_EQ(made->status, READY);
    EXPECT_EQ(made->sub_status, 0u);
    EXPECT_EQ(made->arg1, 11u);
    EXPECT_EQ(made->arg2, 22u);
    EXPECT_EQ(made->callback, test::call_action);
    EXPECT_EQ(std::string(made->created.file, 13), "some/caller.c");
    EXPECT_EQ(made->created.line, 77u);
    const CL_Connection zero = {};
    EXPECT_EQ(memcmp(&made->connection, &zero, sizeof zero), 0);
    EXPECT_EQ(fcntl(made->descriptor, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(made->descriptor, F_GETFD), FD_CLOEXEC);
    raw.send(test::wire_message("hello"));
    EXPECT_EQ(CL_RecvMSGC(made, buffer.data(), CAPACITY, CL_MODE_SYNC, 0, &err), 21);
    EXPECT_EQ(CL_CloseMSGS(server, &err), 1u);
    EXPECT_FALSE(raw.ended()) << "connections outlive their server";
}

TEST_F(Server, AcceptSurvivesEveryFailure) {
    ASSERT_EQ(open(address.c_str()), 1u);
    const struct {
        const char *call;
        int nth, code;
        bool gone; /* the connection is closed */
    } failures[] = {{"accept", 1, EMFILE, false},       {"accept", 1, ENFILE, false},
                    {"accept", 1, ECONNABORTED, false}, {"accept", 1, ENOMEM, false},
                    {"fcntl", 1, EINVAL, true},         {"fcntl", 2, EINVAL, true}};
    for (const auto &failure : failures) {
        SCOPED_TRACE(testing::Message() << failure.call << ": " << failure.code);
        const Socket raw = Socket::connected(address);
        const Balance waiting = Balance::now();
        {
            const Plan plan{{.call = failure.call, .error = failure.code, .nth = failure.nth}};
            EXPECT_EQ(accept(), nullptr);
            EXPECT_EQ(plan.hits(), 1);
        }
        EXPECT_THAT(err, FailsWith(failure.code, CL_MODULE_MSGS));
        EXPECT_EQ(Balance::now(), waiting);
        EXPECT_EQ(raw.ended(), failure.gone);
        EXPECT_EQ(accept() != nullptr, !failure.gone);
    }
    const Socket raw = Socket::connected(address);
    std::vector<CL_Object *> fillers;
    while (CL_MainTable->free_queue.count > 0)
        fillers.push_back(make(CL_KIND_FD));
    EXPECT_EQ(accept(), nullptr);
    EXPECT_THAT(err, FailsWith(EMFILE, CL_MODULE_FD)) << "the table is full";
    EXPECT_EQ(CL_DeleteFD(fillers.back(), &err), 1u);
    const Plan plan{{.call = "accept", .error = EINTR}};
    EXPECT_NE(accept(), nullptr) << err;
}

TEST_F(Server, DescriptorsBeyondTheSetsAreRefused) {
    ASSERT_EQ(open(address.c_str()), 1u);
    CL_Object *other = make(CL_KIND_MSGS), *client = make(CL_KIND_MSGC);
    const std::string taken = folder.path("taken");
    std::ofstream(taken) << "content";
    const Socket first = Socket::connected(address), second = Socket::connected(address);
    test::CrowdedTable crowd;
    const uint32_t live = CL_MainTable->used_queue.count;
    EXPECT_EQ(accept(), nullptr);
    EXPECT_THAT(err, FailsWith(EMFILE, CL_MODULE_MSGS));
    EXPECT_EQ(CL_MainTable->used_queue.count, live);
    EXPECT_TRUE(first.ended()) << "the connection is closed, not left to hang";
    EXPECT_FALSE(second.ended());
    EXPECT_EQ(CL_OpenMSGS(other, taken.c_str(), 8, &err), 0u);
    EXPECT_THAT(err, FailsWith(EMFILE, CL_MODULE_MSGS));
    EXPECT_TRUE(std::filesystem::is_regular_file(taken)) << "what was there is still there";
    EXPECT_EQ(CL_CnctMSGC(client, address.c_str(), CL_MODE_SYNC, &err), 0u);
    EXPECT_THAT(err, FailsWith(EMFILE, CL_MODULE_MSGC));
    for (const CL_Object *object : {other, client}) {
        EXPECT_EQ(object->status, 0u);
        EXPECT_EQ(object->descriptor, -1);
    }
    crowd.release();
    EXPECT_NE(accept(), nullptr) << err;
    EXPECT_EQ(CL_OpenMSGS(other, taken.c_str(), 8, &err), 1u);
    EXPECT_EQ(CL_CnctMSGC(client, address.c_str(), CL_MODE_SYNC, &err), 1u);

    list(server);
    const int kept = std::exchange(server->descriptor, FD_SETSIZE);
    EXPECT_EQ(CL_EventLoop(&err), CL_LOOP_ERROR);
    ASSERT_THAT(heard, ElementsAre(IsEvent(CL_EVENT_FAILED)));
    EXPECT_THAT(heard[0].event.error, FailsWith(EMFILE, CL_MODULE_MSGS));
    EXPECT_EQ(heard[0].status, READY | LISTED | FAILED);
    server->descriptor = kept;
}

TEST_F(Server, TellsUntilAllAreAccepted) {
    open_listed();
    std::vector<Socket> peers;
    for (int i = 0; i < 3; i++)
        peers.push_back(Socket::connected(address));
    EXPECT_EQ(iterate(), 0u);
    EXPECT_EQ(iterate(), 0u);
    ASSERT_EQ(heard.size(), 2u) << "once an iteration";
    CL_Event expected = {};
    expected.type = CL_EVENT_CONNECTION;
    EXPECT_EQ(memcmp(&heard[1].event, &expected, sizeof expected), 0);
    reply = [&](CL_Object *, CL_Event *) {
        EXPECT_NE(accept(), nullptr) << err;
        return 0u;
    };
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(iterate(), 0u);
    EXPECT_EQ(heard.size(), 5u);
    peers.push_back(Socket::connected(address));
    reply = [](CL_Object *, CL_Event *) { return 5u; };
    EXPECT_EQ(iterate(), 5u);
}

TEST_F(Server, ClosedWhileListedEndsTheLoop) {
    open_listed();
    for (const uint32_t answer : {0u, 6u}) {
        EXPECT_EQ(CL_CloseMSGS(server, &err), 1u);
        EXPECT_EQ(server->status, LISTED);
        heard.clear();
        reply = [answer](CL_Object *, CL_Event *) { return answer; };
        EXPECT_EQ(CL_EventLoop(&err), answer != 0 ? answer : CL_LOOP_ERROR);
        if (answer == 0) {
            EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_LOOP));
        }
        ASSERT_THAT(heard, ElementsAre(IsEvent(CL_EVENT_FAILED)));
        EXPECT_THAT(heard[0].event.error, FailsWith(EBADF, CL_MODULE_MSGS));
        EXPECT_EQ(heard[0].event.error, server->error);
        EXPECT_EQ(server->status, LISTED | FAILED);
        ASSERT_EQ(open(address.c_str()), 1u) << "opened again it takes part again";
        EXPECT_EQ(server->status, READY | LISTED);
        EXPECT_EQ(iterate(), 0u);
    }
    EXPECT_EQ(CL_CloseMSGS(server, &err), 1u);
    EXPECT_EQ(CL_EventLoop(&err), 6u);
    EXPECT_EQ(CL_DeleteFD(server, &err), 1u) << "a failed object leaves its list";
    EXPECT_EQ(iterate(), 0u);
}

/* A callback closes a socket for which the wait has just found something, and another socket gets
 * its number: the result is not the new socket's. */
class Stale : public Server {
  protected:
    /* Runs `change` before any other callback of one iteration. */
    void first_of_all(const std::function<void()> &change) {
        test::Pipe pipe;
        pipe.fill();
        test::Action action = [&](CL_Object *, CL_Event *) {
            change();
            return 0u;
        };
        CL_Object *first = watch(pipe.out(), &action, CL_PRIORITY_FIRST);
        EXPECT_EQ(iterate(), 0u) << err;
        EXPECT_EQ(CL_DeleteFD(first, &err), 1u);
    }
};

TEST_F(Stale, ReopenedServer) {
    open_listed();
    const Socket raw = Socket::connected(address);
    first_of_all([&] {
        const int number = server->descriptor;
        EXPECT_EQ(CL_CloseMSGS(server, &err), 1u);
        EXPECT_EQ(open(folder.path("elsewhere").c_str()), 1u) << err;
        EXPECT_EQ(server->descriptor, number) << "this test needs the number again";
    });
    EXPECT_TRUE(heard.empty()) << "nobody connected to the new socket";
    const Socket late = Socket::connected(folder.path("elsewhere"));
    EXPECT_EQ(iterate(), 0u);
    EXPECT_THAT(heard, ElementsAre(IsEvent(CL_EVENT_CONNECTION)));
}

TEST_F(Stale, ReconnectedClient) {
    CL_Object *client = connect();
    list(client);
    struct After {
        const char *what;
        std::function<void()> set_up;
        std::vector<uint32_t> heard;
    };
    const After afters[] = {
        {"idle", [] {}, {}},
        {"receiving", [&] { await(client); }, {}},
        {"receiving what is there",
         [&] {
             peer.send(test::wire_message("new"));
             await(client);
         },
         {}},
    };
    for (const bool was_sending : {false, true}) {
        for (const After &after : afters) {
            SCOPED_TRACE(testing::Message() << after.what << (was_sending ? " after sending" : ""));
            reconnect(client);
            await(client);
            peer.send(test::wire_message("old"));
            test::Block block;
            if (was_sending) {
                EXPECT_EQ(CL_SendMSGC(client, block.get(), 56, CL_MODE_DEFERRED, 0, &err), -1);
            }
            first_of_all([&] {
                const int number = client->descriptor;
                reconnect(client);
                EXPECT_EQ(client->descriptor, number) << "this test needs the number again";
                after.set_up();
            });
            EXPECT_TRUE(heard.empty());
        }
    }
    EXPECT_EQ(iterate(), 0u);
    ASSERT_THAT(heard, ElementsAre(IsEvent(CL_EVENT_MESSAGE)));
    EXPECT_EQ(received().substr(0, 19), test::wire_message("new"));
}

/* The connection that gets the number is new and takes part from the next iteration on; that its
 * server is told of somebody who is not waiting any more does no harm. */
TEST_F(Stale, AcceptedConnection) {
    open_listed();
    CL_Object *client = connect();
    list(client, 20);
    await(client);
    peer.send(test::wire_message("old"));
    const Socket raw = Socket::connected(address);
    raw.send(test::wire_message("new"));
    first_of_all([&] {
        const int number = client->descriptor;
        EXPECT_EQ(CL_DeleteFD(client, &err), 1u);
        client = accept();
        ASSERT_NE(client, nullptr) << err;
        EXPECT_EQ(client->descriptor, number) << "this test needs the number again";
        list(client, 20);
        await(client);
    });
    ASSERT_THAT(heard, ElementsAre(IsEvent(CL_EVENT_CONNECTION)));
    EXPECT_EQ(accept(), nullptr);
    EXPECT_EQ(err.err, uint32_t{EAGAIN});
    EXPECT_EQ(iterate(), 0u);
    EXPECT_THAT(heard, ElementsAre(IsEvent(CL_EVENT_CONNECTION), IsEvent(CL_EVENT_MESSAGE)));
    EXPECT_EQ(received().substr(0, 19), test::wire_message("new"));
}

}  // namespace
