// The companion with real programs: the events that reach the starter are compared with what
// `started` did. Nothing may be left afterwards: no process, no object, no descriptor.
#include <fcntl.h>
#include <qvcl/loop.h>
#include <qvcl/starter.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>

#include "tests/folder.h"
#include "tests/support.h"

using test::Action;
using test::Balance;
using testing::ElementsAreArray;

namespace {

using Steps = std::vector<std::string>;

// What a callback was told, in one word: "up", "exited 3", "killed 9".
std::string in_words(const CL_Event &event) {
    if (event.type == CL_EVENT_EXEC_COMPLETE) return "up";
    if (event.type != CL_EVENT_CHILD_END) return "event " + std::to_string(event.type);
    return (event.exit_reason == CL_CHILD_EXITED ? "exited " : "killed ") +
           std::to_string(event.exit_value);
}

class Starter : public testing::Test {
  protected:
    void SetUp() override {
        test::set_env(CL_STARTER_SOCKET, "/of/a/starter/further/up");
        ASSERT_EQ(CL_Init(500, path.c_str(), &err), 1u) << err;
        before = Balance::now();
    }
    void TearDown() override {
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process is left";
        EXPECT_EQ(errno, ECHILD);
        EXPECT_EQ(Balance::now(), before);
    }

    // A program that is started; it deletes its object when it is told the end.
    struct Child {
        CL_Object *object = nullptr;
        std::vector<std::string> told;
        Action on_event;
        bool ended = false;
    };
    CL_Object *start(Child &child, const Steps &steps, bool await = true,
                     const CL_EnvChange *changes = nullptr, const char *program = STARTED) {
        std::vector<char *> arguments = {const_cast<char *>(program)};
        for (const std::string &step : steps)
            arguments.push_back(const_cast<char *>(step.c_str()));
        arguments.push_back(nullptr);
        child.on_event = [&child, this](CL_Object *object, CL_Event *event) {
            child.told.push_back(in_words(*event));
            child.ended = event->type == CL_EVENT_CHILD_END;
            if (child.ended) {
                EXPECT_EQ(CL_DeleteFD(object, &err), 1u) << err;
            }
            return until && until() ? 1u : 0u;
        };
        const CL_Program what = {program, arguments.data(), changes, static_cast<uint32_t>(await)};
        child.object =
            CL_StartProgram(&what, test::call_action, test::address(&child.on_event), 0, &err);
        return child.object;
    }
    void run_until(std::function<bool()> done) {
        until = std::move(done);
        EXPECT_TRUE(until() || CL_EventLoop(&err) == 1u) << err;
    }
    std::vector<std::string> run_to_end(const Steps &steps, bool await = true,
                                        const CL_EnvChange *changes = nullptr) {
        Child child;
        EXPECT_NE(start(child, steps, await, changes), nullptr) << err;
        run_until([&] { return child.ended; });
        return child.told;
    }

    test::Folder folder;
    std::string path = folder.path("socket");
    CL_ErrInfo err{};
    std::function<bool()> until;
    Balance before;
};

TEST_F(Starter, WhateverAProgramDoesTheStarterIsToldAndNothingIsLeft) {
    const struct {
        Steps steps;
        std::vector<std::string> told;
    } cases[] = {
        {{"exit", "0"}, {"exited 0"}},
        {{"raise", "9"}, {"killed 9"}},
        {{"report", "exit", "3"}, {"up", "exited 3"}},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.steps));
        const std::vector<std::string> told = run_to_end(test.steps);
        // A program that ends right after its report may have ended before the loop looks; the
        // children are looked at first, and who has ended is not up.
        EXPECT_THAT(told, testing::AnyOf(test.told, Steps{test.told.back()}));
        EXPECT_EQ(Balance::now(), before);
    }
}

TEST_F(Starter, AProgramThatCannotBeRunIsTheCallersErrorAndLeavesNothing) {
    const std::string text = folder.put("text", "no program\n");
    const std::string plain = folder.put("plain", "#!/bin/sh\n");
    chmod(text.c_str(), 0700);
    const struct {
        std::string program;
        CL_EnvChange change;
        int error, module;
    } cases[] = {
        {"/missing/program", {}, ENOENT, CL_MODULE_STARTER},
        {plain, {}, EACCES, CL_MODULE_STARTER},
        {text, {}, ENOEXEC, CL_MODULE_STARTER},
        {STARTED, {"bad=name", "x"}, ENOMEM, CL_MODULE_STARTER},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.program);
        const CL_EnvChange changes[] = {test.change, {nullptr, nullptr}};
        Child child;
        EXPECT_EQ(start(child, {"exit", "0"}, true, changes, test.program.c_str()), nullptr);
        EXPECT_THAT(err, test::FailsWith(test.error, test.module));
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(Balance::now(), before);
    }

    char *const arguments[] = {nullptr};
    const CL_Program incomplete[] = {{nullptr, arguments, nullptr, 0},
                                     {STARTED, nullptr, nullptr, 0}};
    for (const CL_Program *program :
         {static_cast<const CL_Program *>(nullptr), &incomplete[0], &incomplete[1]}) {
        EXPECT_EQ(CL_StartProgram(program, test::call_action, 0, 0, &err), nullptr);
        EXPECT_THAT(err, test::FailsWith(EFAULT, CL_MODULE_STARTER));
    }
    for (const char *socket : {static_cast<const char *>(nullptr), ""}) {
        test::set_env(CL_STARTER_SOCKET, socket);
        EXPECT_EQ(CL_StartupComplete(test::call_action, 0, 0, 0, &err), nullptr);
        EXPECT_THAT(err, test::FailsWith(ENOENT, CL_MODULE_STARTER));
    }

    // No descriptor for the pipe that would tell.
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {0, limit.rlim_max};
    Child child;
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(start(child, {"exit", "0"}), nullptr);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_THAT(err, test::FailsWith(EMFILE, CL_MODULE_STARTER));
}

TEST_F(Starter, TheProgramGetsTheChangedEnvironment) {
    test::set_env("QVCL_OLD", "old");
    test::set_env("QVCL_GONE", "here");
    const CL_EnvChange changes[] = {
        {"QVCL_NEW", "new"}, {"QVCL_GONE", nullptr}, {nullptr, nullptr}};
    const std::pair<std::string, std::string> cases[] = {
        {CL_STARTER_SOCKET, path}, {"QVCL_OLD", "old"}, {"QVCL_NEW", "new"}, {"QVCL_GONE", "-"}};
    for (const auto &[name, value] : cases) {
        EXPECT_EQ(run_to_end({"environment", name, value}, false, changes), Steps{"exited 0"})
            << name;
    }
    EXPECT_STREQ(getenv("QVCL_GONE"), "here") << "the starter's own environment is as before";
}

TEST_F(Starter, TheProgramInheritsNoSignalSettingAndNoDescriptorOfTheLibrary) {
    // What may pass: descriptors that were open before, and what the application ignores itself.
    std::string allowed;
    for (int fd : test::descriptors())
        if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) allowed += std::to_string(fd) + ",";
    signal(SIGTTOU, SIG_IGN);
    signal(SIGTERM, [](int) {});
    signal(SIGALRM, SIG_IGN);  // as after the last timer
    sigset_t all, saved;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &saved);

    const std::string own = path + ".own";
    CL_Object *server = CL_CreateFD(CL_KIND_MSGS, nullptr, 0, 0, &err);
    CL_Object *client = CL_CreateFD(CL_KIND_MSGC, nullptr, 0, 0, &err);
    ASSERT_EQ(CL_OpenMSGS(server, own.c_str(), 5, &err), 1u) << err;
    ASSERT_EQ(CL_CnctMSGC(client, own.c_str(), CL_MODE_SYNC, &err), 1u) << err;
    CL_Object *accepted = CL_AcceptMSGS(server, nullptr, 0, 0, &err);
    ASSERT_NE(accepted, nullptr) << err;
    Child other;  // its connection stays open meanwhile
    ASSERT_NE(start(other, {"report", "run"}), nullptr) << err;
    run_until([&] { return other.told.size() == 1; });

    EXPECT_THAT(run_to_end({"inherited", std::to_string(SIGTTOU), allowed}, false),
                ElementsAreArray({"exited 0"}));
    for (CL_Object *object : {server, client, accepted, other.object})
        EXPECT_EQ(CL_DeleteFD(object, &err), 1u) << err;
    sigprocmask(SIG_SETMASK, &saved, nullptr);
}

TEST_F(Starter, TwoHundredProgramsReportOrEndWhileNobodyLooks) {
    // 60 end, and 140 report, which is more than the socket holds until the starter accepts.
    std::vector<Child> children(200);
    const auto reports = [](size_t i) { return i % 10 >= 3; };
    for (size_t i = 0; i < children.size(); ++i) {
        ASSERT_NE(start(children[i], reports(i) ? Steps{"report", "run"} : Steps{"exit", "0"}),
                  nullptr)
            << err;
    }
    for (size_t i = 0; i < children.size(); ++i) {
        siginfo_t info;
        while (!reports(i) &&
               waitid(P_PID, children[i].object->child.pid, &info, WEXITED | WNOWAIT) != 0) {
        }
    }
    const auto ended = [&] { return std::ranges::count(children, true, &Child::ended); };
    run_until([&] {
        return std::ranges::none_of(children, &std::vector<std::string>::empty, &Child::told);
    });
    // Asking twice does no harm; the program may be gone already.
    EXPECT_EQ(CL_RequestEnd(children[3].object, &err), 1u) << err;
    EXPECT_TRUE(CL_RequestEnd(children[3].object, &err) || err.err == EPIPE ||
                err.err == ECONNRESET)
        << err;
    run_until([&] { return children[3].ended; });
    EXPECT_EQ(ended(), 61) << "nobody else was asked";
    for (Child &child : children)
        EXPECT_TRUE(child.ended || CL_RequestEnd(child.object, &err)) << err;
    run_until([&] { return ended() == 200; });
    for (size_t i = 0; i < children.size(); ++i)
        EXPECT_EQ(children[i].told, reports(i) ? (Steps{"up", "exited 30"}) : Steps{"exited 0"});
}

TEST(Notify, TheServiceManagerIsToldWhereItListens) {
    const std::string name = "qvcl-notify-" + std::to_string(getpid());
    for (const std::string &place : {"/tmp/" + name, "@" + name}) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        place.copy(address.sun_path, sizeof address.sun_path - 1);
        if (place[0] == '@') address.sun_path[0] = '\0';
        const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + place.size());
        EXPECT_EQ(bind(manager, reinterpret_cast<const sockaddr *>(&address), length), 0);
        test::set_env("NOTIFY_SOCKET", place.c_str());
        CL_ErrInfo err = test::kUntouched;
        EXPECT_EQ(CL_NotifyManager("READY=1\nSTATUS=up", &err), 1u);
        EXPECT_THAT(err, test::IsClear());
        char text[100];
        const ssize_t count = recv(manager, text, sizeof text, MSG_DONTWAIT);
        EXPECT_EQ(std::string(text, static_cast<size_t>(std::max<ssize_t>(count, 0))),
                  "READY=1\nSTATUS=up");
        close(manager);
        EXPECT_EQ(CL_NotifyManager("READY=1", &err), 0u);
        EXPECT_THAT(err, test::FailsWith(ECONNREFUSED, CL_MODULE_STARTER));
        unlink(place.c_str());
    }
    CL_ErrInfo err = test::kUntouched;
    test::set_env("NOTIFY_SOCKET", std::string(200, '/').c_str());
    EXPECT_EQ(CL_NotifyManager("READY=1", &err), 0u);
    EXPECT_THAT(err, test::FailsWith(ENAMETOOLONG, CL_MODULE_STARTER));
    EXPECT_EQ(CL_NotifyManager(nullptr, &err), 0u);
    EXPECT_THAT(err, test::FailsWith(EFAULT, CL_MODULE_STARTER));
    for (const char *none : {static_cast<const char *>(nullptr), ""}) {
        test::set_env("NOTIFY_SOCKET", none);
        EXPECT_EQ(CL_NotifyManager("READY=1", nullptr), 0u);
    }
}

}  // namespace
