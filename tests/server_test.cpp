// Message servers: paths, descriptors beyond the sets, and results of a wait that a callback has
// outdated.
#include <fcntl.h>
#include <qvcl/client.h>
#include <qvcl/loop.h>
#include <qvcl/server.h>
#include <sys/stat.h>

#include "tests/wire.h"

using test::Balance;
using test::FailsWith;
using test::IsEvent;
using test::Socket;
using testing::ElementsAre;

namespace {

class Server : public test::Messaging {
  protected:
    void SetUp() override {
        Messaging::SetUp();
        server = make(CL_KIND_MSGS);
    }
    uint32_t open(const char *at) { return CL_OpenMSGS(server, at, 8, &err); }
    CL_Object *accept() { return CL_AcceptMSGS(server, test::call_action, server->arg1, 0, &err); }
    static mode_t mode_of(const std::string &at) {
        struct stat info = {};
        return lstat(at.c_str(), &info) == 0 ? info.st_mode : 0;
    }

    std::string address = folder.path("server");
    CL_Object *server = nullptr;
};

TEST_F(Server, OpensWhereItCan) {
    const std::string longest = folder.path(std::string(107 - folder.path("").size(), 'p'));
    const std::string target = folder.put("target", "content");
    umask(0777);  // the socket file's mode does not follow it
    const struct {
        const char *what;
        std::string at;
        std::function<void()> prepare;
        uint32_t code;
    } places[] = {
        {"107 characters", longest, nullptr, 0},
        {"108 characters", longest + "p", nullptr, ENAMETOOLONG},
        {"a file", address, [&] { folder.put("server", "content"); }, 0},
        {"a socket nobody listens on", address, [&] { Socket::listening(address); }, 0},
        {"a link", address, [&] { std::filesystem::create_symlink(target, address); }, 0},
        {"a directory", address, [&] { std::filesystem::create_directory(address); }, EISDIR},
        {"in no directory", folder.path("none/x"), nullptr, ENOENT},
    };
    const Balance none = Balance::now();
    for (const auto &place : places) {
        SCOPED_TRACE(place.what);
        if (place.prepare) place.prepare();
        EXPECT_EQ(open(place.at.c_str()), place.code == 0 ? 1u : 0u) << err;
        EXPECT_EQ(err.err, place.code);
        if (place.code == 0) {
            EXPECT_EQ(server->status, uint32_t{CL_STATUS_READY});
            EXPECT_EQ(mode_of(place.at), mode_t{S_IFSOCK | 0660});
            EXPECT_EQ(fcntl(server->descriptor, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
            EXPECT_EQ(fcntl(server->descriptor, F_GETFD), FD_CLOEXEC);
            EXPECT_EQ(open(path.c_str()), 0u);
            EXPECT_THAT(err, FailsWith(EALREADY, CL_MODULE_MSGS));
            EXPECT_FALSE(Socket::connected(place.at).ended());
            EXPECT_EQ(CL_CloseMSGS(server, &err), 1u);
            EXPECT_EQ(mode_of(place.at), 0u) << "the socket file is removed";
        }
        // As before, whether it never opened or was closed.
        EXPECT_EQ(server->status | server->sub_status, 0u);
        EXPECT_EQ(server->descriptor, -1);
        EXPECT_EQ(Balance::now(), none);
        std::filesystem::remove(address);
    }
    EXPECT_TRUE(std::filesystem::exists(target)) << "what a link pointed to is not touched";
}

TEST_F(Server, DescriptorsBeyondTheSetsAreRefused) {
    ASSERT_EQ(open(address.c_str()), 1u);
    CL_Object *other = make(CL_KIND_MSGS), *client = make(CL_KIND_MSGC);
    const std::string taken = folder.put("taken", "content");
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
    // One that got there all the same.
    test::Block block;
    CL_Object *far = make(CL_KIND_MSGC);
    far->descriptor = dup(second.fd());
    ASSERT_GE(far->descriptor, FD_SETSIZE);
    far->status = CL_STATUS_READY;
    EXPECT_EQ(CL_RecvMSGC(far, buffer.data(), CAPACITY, CL_MODE_SYNC, 0, &err), -1);
    EXPECT_THAT(err, FailsWith(EMFILE, CL_MODULE_MSGC));
    EXPECT_EQ(CL_SendMSGC(far, block.get(), block.size(), CL_MODE_SYNC, 0, &err), -1);
    EXPECT_THAT(err, FailsWith(EMFILE, CL_MODULE_MSGC));
    EXPECT_FALSE(block.queued());
    EXPECT_EQ(cl_MakeListMSGC_M(far), uint32_t{EBADF});
    EXPECT_THAT(far->error, FailsWith(EMFILE, CL_MODULE_MSGC));
    EXPECT_EQ(CL_DeleteFD(far, &err), 1u) << err;
    crowd.release();
    EXPECT_NE(accept(), nullptr) << err;
    EXPECT_EQ(CL_OpenMSGS(other, taken.c_str(), 8, &err), 1u);
    EXPECT_EQ(CL_CnctMSGC(client, address.c_str(), CL_MODE_SYNC, &err), 1u);
}

// A callback closes a socket for which the wait has just found something, and another socket gets
// its number: the result is not the new socket's.
class Stale : public Server {
  protected:
    // Runs `change` before any other callback of one iteration.
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

TEST_F(Stale, ReconnectedClient) {
    CL_Object *client = connect();
    list(client);
    const std::vector<std::function<void()>> afters = {
        [] {},
        [&] { await(client); },
        [&] {
            peer.send(test::wire_message("new"));
            await(client);
        },
    };
    for (const bool was_sending : {false, true}) {
        for (const auto &after : afters) {
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
                after();
            });
            EXPECT_TRUE(heard.empty());
        }
    }
    EXPECT_EQ(iterate(), 0u);
    ASSERT_THAT(heard, ElementsAre(IsEvent(CL_EVENT_MESSAGE)));
    EXPECT_EQ(received().substr(0, 19), test::wire_message("new"));
}

// The connection that gets the number is new and takes part from the next iteration on; that its
// server is told of somebody who is not waiting any more does no harm.
TEST_F(Stale, AcceptedConnection) {
    ASSERT_EQ(open(address.c_str()), 1u) << err;
    list(server, 30);
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
        ASSERT_EQ(client->descriptor, number) << "this test needs the number again";
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
