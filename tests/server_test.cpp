// Message servers: paths, and descriptors beyond the sets.
#include <fcntl.h>
#include <qvcl/client.h>
#include <qvcl/server.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "tests/wire.h"

using test::Balance;
using test::FailsWith;
using test::Socket;

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
    const std::tuple<const char *, std::string, std::function<void()>, uint32_t> places[] = {
        {"107 characters", longest, nullptr, 0},
        {"108 characters", longest + "p", nullptr, ENAMETOOLONG},
        {"a file", address, [&] { folder.put("server", "content"); }, 0},
        {"a socket nobody listens on", address, [&] { Socket::listening(address); }, 0},
        {"a link", address, [&] { std::filesystem::create_symlink(target, address); }, 0},
        {"a directory", address, [&] { std::filesystem::create_directory(address); }, EISDIR},
        {"in no directory", folder.path("none/x"), nullptr, ENOENT},
        {"somebody else's file", "/proc/version", nullptr, geteuid() == 0 ? EPERM : EACCES},
    };
    const Balance none = Balance::now();
    for (const auto &[what, at, prepare, code] : places) {
        SCOPED_TRACE(what);
        if (prepare) prepare();
        EXPECT_EQ(open(at.c_str()), code == 0 ? 1u : 0u) << err;
        EXPECT_EQ(err.err, code);
        if (code == 0) {
            EXPECT_EQ(server->status, uint32_t{CL_STATUS_READY});
            EXPECT_EQ(mode_of(at), mode_t{S_IFSOCK | 0660});
            EXPECT_EQ(fcntl(server->descriptor, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
            EXPECT_EQ(fcntl(server->descriptor, F_GETFD), FD_CLOEXEC);
            EXPECT_EQ(open(path.c_str()), 0u);
            EXPECT_THAT(err, FailsWith(EALREADY, CL_MODULE_MSGS));
            EXPECT_EQ(accept(), nullptr);
            EXPECT_THAT(err, FailsWith(EAGAIN, CL_MODULE_MSGS));
            EXPECT_FALSE(Socket::connected(at).ended());
            EXPECT_EQ(CL_CloseMSGS(server, &err), 1u);
            EXPECT_EQ(mode_of(at), 0u) << "the socket file is removed";
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
    CL_Object *other = make(CL_KIND_MSGS), *client = make(CL_KIND_MSGC), *far = make(CL_KIND_MSGC);
    const std::string taken = folder.put("taken", "content");
    const Socket first = Socket::connected(address), second = Socket::connected(address);
    // Everything that a descriptor set has room for.
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, FD_SETSIZE + 64);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    std::vector<int> crowd;
    while (crowd.empty() || crowd.back() != FD_SETSIZE - 1)
        ASSERT_NE(crowd.emplace_back(dup(first.fd())), -1);
    test::Block block;
    // One that got there all the same.
    far->descriptor = dup(second.fd());
    ASSERT_GE(far->descriptor, FD_SETSIZE);
    far->status = CL_STATUS_READY;
    const auto taken_in = [&] { return CL_OpenMSGS(other, taken.c_str(), 8, &err); };
    const auto connected = [&] { return CL_CnctMSGC(client, address.c_str(), CL_MODE_SYNC, &err); };
    const Balance none = Balance::now();
    EXPECT_EQ(accept(), nullptr);
    EXPECT_THAT(err, FailsWith(EMFILE, CL_MODULE_MSGS));
    EXPECT_TRUE(first.ended()) << "the connection is closed, not left to hang";
    EXPECT_FALSE(second.ended());
    EXPECT_EQ(taken_in(), 0u);
    EXPECT_THAT(err, FailsWith(EMFILE, CL_MODULE_MSGS));
    EXPECT_TRUE(std::filesystem::is_regular_file(taken)) << "what was there is still there";
    for (const auto &refused : std::initializer_list<std::function<bool()>>{
             [&] { return connected() != 0; },
             [&] { return CL_RecvMSGC(far, buffer.data(), 64, CL_MODE_SYNC, 0, &err) != -1; },
             [&] { return CL_SendMSGC(far, block.get(), 56, CL_MODE_SYNC, 0, &err) != -1; },
             [&] { return cl_MakeListMSGC_M(far) != EBADF || (err = far->error, false); }}) {
        EXPECT_FALSE(refused());
        EXPECT_THAT(std::exchange(err, {}), FailsWith(EMFILE, CL_MODULE_MSGC));
    }
    EXPECT_FALSE(block.queued());
    EXPECT_EQ(Balance::now(), none);
    EXPECT_EQ(CL_DeleteFD(far, &err), 1u) << err;
    std::ranges::for_each(crowd, ::close);
    EXPECT_NE(accept(), nullptr) << err;
    EXPECT_EQ(taken_in() + connected(), 2u) << err;
}

}  // namespace
