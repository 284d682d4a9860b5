/* The companion with real programs: `started` behaves in every way that a program can, and the
 * events that reach the starter are compared with what it did. Nothing may be left afterwards: no
 * process, no object, no descriptor. */
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
#include <fstream>
#include <optional>

#include "tests/support.h"

using test::Action;
using test::Balance;
using test::Fault;
using test::Plan;
using testing::ElementsAreArray;

namespace {

using Steps = std::vector<std::string>;

/* What a callback was told, in one word: "up", "exited 3", "killed 9". */
std::string in_words(const CL_Event &event) {
    if (event.type == CL_EVENT_EXEC_COMPLETE) return "up";
    if (event.type != CL_EVENT_CHILD_END) return "event " + std::to_string(event.type);
    return (event.exit_reason == CL_CHILD_EXITED ? "exited " : "killed ") +
           std::to_string(event.exit_value);
}

class Starter : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(mkdtemp(directory), nullptr);
        path = std::string(directory) + "/socket";
        test::set_env(CL_STARTER_SOCKET, "/of/a/starter/further/up");
        if (with_server) initialise(path.c_str());
    }
    void initialise(const char *exec_path) {
        ASSERT_EQ(CL_Init(500, exec_path, &err), 1u) << err;
        before = Balance::now();
    }
    void TearDown() override {
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process is left";
        EXPECT_EQ(errno, ECHILD);
        EXPECT_EQ(Balance::now(), before);
        unlink(path.c_str());
        rmdir(directory);
    }

    /* A program that is started; it deletes its object when it is told the end. */
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
        const CL_Program what = {program, arguments.data(), changes, await};
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

    bool with_server = true;
    char directory[32] = "/tmp/qvcl-starter-XXXXXX";
    std::string path;
    CL_ErrInfo err{};
    std::function<bool()> until;
    Balance before;
};

class StarterWithoutServer : public Starter {
  protected:
    StarterWithoutServer() { with_server = false; }
};

TEST_F(Starter, WhateverAProgramDoesTheStarterIsToldAndNothingIsLeft) {
    const struct {
        Steps steps;
        std::vector<std::string> told;
    } cases[] = {
        {{"exit", "0"}, {"exited 0"}},
        {{"exit", "255"}, {"exited 255"}},
        {{"raise", "9"}, {"killed 9"}},
        {{"raise", "6"}, {"killed 6"}},
        {{"connect", "exit", "1"}, {"exited 1"}},
        {{"connect", "half", "exit", "2"}, {"exited 2"}},
        {{"connect", "half", "raise", "15"}, {"killed 15"}},
        {{"connect", "long", "shut"}, {"exited 40"}},
        {{"connect", "type", "shut"}, {"exited 40"}},
        {{"connect", "stranger", "shut"}, {"exited 40"}},
        {{"connect", "good", "good", "exit", "5"}, {"up", "exited 5"}},
        {{"connect", "good", "type", "raise", "9"}, {"up", "killed 9"}},
        {{"report", "exit", "3"}, {"up", "exited 3"}},
        {{"report", "raise", "6"}, {"up", "killed 6"}},
        {{"report", "disconnect", "exit", "4"}, {"up", "exited 4"}},
        {{"connect", "stranger", "connect", "good", "exit", "6"}, {"up", "exited 6"}},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.steps));
        const std::vector<std::string> told = run_to_end(test.steps);
        /* A program that ends right after its report may have ended before the loop looks; the
         * children are looked at first, and who has ended is not up. */
        if (told.size() == 1 && test.told.size() == 2)
            EXPECT_EQ(told[0], test.told[1]);
        else
            EXPECT_EQ(told, test.told);
        EXPECT_EQ(Balance::now(), before);
    }
}

TEST_F(Starter, AProgramThatIsUpEndsWhenItIsAsked) {
    Child first, second;
    ASSERT_NE(start(first, {"report", "run"}), nullptr) << err;
    ASSERT_NE(start(second, {"report", "run"}), nullptr) << err;
    run_until([&] { return first.told.size() + second.told.size() == 2; });
    EXPECT_EQ(CL_RequestEnd(second.object, &err), 1u) << err;
    run_until([&] { return second.ended; });
    EXPECT_THAT(second.told, ElementsAreArray({"up", "exited 30"}));
    EXPECT_FALSE(first.ended);
    EXPECT_EQ(CL_RequestEnd(first.object, &err), 1u) << err;
    /* Asking twice does no harm; the program may be gone already. */
    EXPECT_TRUE(CL_RequestEnd(first.object, &err) || err.err == EPIPE || err.err == ECONNRESET)
        << err;
    run_until([&] { return first.ended; });
    EXPECT_THAT(first.told, ElementsAreArray({"up", "exited 30"}));
}

TEST_F(Starter, OnlyWhoHasReportedCanBeAsked) {
    CL_Object *timer = CL_CreateFD(CL_KIND_TIMER, nullptr, 0, 0, &err);
    Child quiet, deaf, gone;
    ASSERT_NE(start(quiet, {"pause"}), nullptr) << err;
    ASSERT_NE(start(deaf, {"report", "pause"}), nullptr) << err;
    ASSERT_NE(start(gone, {"report", "disconnect", "pause"}), nullptr) << err;
    run_until([&] { return deaf.told.size() + gone.told.size() == 2; });

    EXPECT_EQ(CL_RequestEnd(nullptr, &err), 0u);
    EXPECT_EQ(err.err, uint32_t{EBADF});
    for (CL_Object *object : {timer, quiet.object}) {
        EXPECT_EQ(CL_RequestEnd(object, &err), 0u);
        EXPECT_THAT(err, test::FailsWith(EBADF, CL_MODULE_STARTER));
    }
    while (CL_RequestEnd(deaf.object, &err))
        continue;
    EXPECT_THAT(err, test::FailsWith(EAGAIN, CL_MODULE_STARTER));
    /* It disconnects some time after its report; until then requests are taken, or too many. */
    while (CL_RequestEnd(gone.object, &err) || err.err == EAGAIN || err.err == ECONNRESET)
        CL_Sleep(1);
    EXPECT_THAT(err, test::FailsWith(EPIPE, CL_MODULE_STARTER));
    for (CL_Object *object : {timer, quiet.object, deaf.object, gone.object})
        EXPECT_EQ(CL_DeleteFD(object, &err), 1u) << err;
}

TEST_F(Starter, AProgramThatCannotBeRunIsTheCallersErrorAndLeavesNothing) {
    const std::string text = std::string(directory) + "/text";
    std::ofstream(text) << "no program\n";
    const std::string plain = std::string(directory) + "/plain";
    std::ofstream(plain) << "#!/bin/sh\n";
    chmod(text.c_str(), 0700);
    const struct {
        std::string program;
        Fault fault;
        CL_EnvChange change;
        int error, module;
    } cases[] = {
        {"/missing/program", {}, {}, ENOENT, CL_MODULE_STARTER},
        {"", {}, {}, ENOENT, CL_MODULE_STARTER},
        {directory, {}, {}, EACCES, CL_MODULE_STARTER},
        {plain, {}, {}, EACCES, CL_MODULE_STARTER},
        {text, {}, {}, ENOEXEC, CL_MODULE_STARTER},
        {STARTED, {.call = "fork", .error = EAGAIN}, {}, EAGAIN, CL_MODULE_STARTER},
        {STARTED, {.call = "setenv", .error = ENOMEM}, {}, ENOMEM, CL_MODULE_STARTER},
        {STARTED, {}, {"bad=name", "x"}, ENOMEM, CL_MODULE_STARTER},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.program + " " + std::string(test.fault.call));
        const CL_EnvChange changes[] = {test.change, {nullptr, nullptr}};
        Child child;
        {
            std::optional<Plan> plan;
            if (!test.fault.call.empty()) plan.emplace(test.fault);
            EXPECT_EQ(start(child, {"exit", "0"}, true, changes, test.program.c_str()), nullptr);
        }
        EXPECT_THAT(err, test::FailsWith(test.error, test.module));
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(Balance::now(), before);
    }
    unlink(text.c_str());
    unlink(plain.c_str());

    /* No descriptor for the pipe that would tell. */
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {0, limit.rlim_max};
    Child child;
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(start(child, {"exit", "0"}), nullptr);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_THAT(err, test::FailsWith(EMFILE, CL_MODULE_STARTER));
}

TEST_F(Starter, ArgumentsAreCheckedAndTheTableHasAnEnd) {
    char *const arguments[] = {nullptr};
    const CL_Program good = {STARTED, arguments, nullptr, 0},
                     no_path = {nullptr, arguments, nullptr, 0},
                     no_arguments = {STARTED, nullptr, nullptr, 0};
    const struct {
        const CL_Program *program;
        CL_Callback callback;
    } cases[] = {{nullptr, test::call_action},
                 {&no_path, test::call_action},
                 {&no_arguments, test::call_action},
                 {&good, nullptr}};
    for (const auto &test : cases) {
        EXPECT_EQ(CL_StartProgram(test.program, test.callback, 0, 0, &err), nullptr);
        EXPECT_THAT(err, test::FailsWith(EFAULT, CL_MODULE_STARTER));
        EXPECT_EQ(CL_StartProgram(test.program, test.callback, 0, 0, nullptr), nullptr);
    }
    std::vector<CL_Object *> objects;
    while (CL_Object *object = CL_CreateFD(CL_KIND_TIMER, nullptr, 0, 0, &err))
        objects.push_back(object);
    EXPECT_EQ(CL_StartProgram(&good, test::call_action, 0, 0, &err), nullptr);
    EXPECT_THAT(err, test::FailsWith(EMFILE, CL_MODULE_FD));
    for (CL_Object *object : objects)
        EXPECT_EQ(CL_DeleteFD(object, &err), 1u);
}

TEST_F(StarterWithoutServer, NobodyCanBeAwaitedAndNoSocketIsPassedOn) {
    Child child;
    EXPECT_EQ(start(child, {"exit", "0"}, false), nullptr);
    EXPECT_THAT(err, test::FailsWith(CL_ERR_STATE, CL_MODULE_STARTER));
    initialise(nullptr);
    EXPECT_EQ(start(child, {"exit", "0"}), nullptr);
    EXPECT_THAT(err, test::FailsWith(EINVAL, CL_MODULE_STARTER));
    EXPECT_THAT(run_to_end({"environment", CL_STARTER_SOCKET, "-"}, false),
                ElementsAreArray({"exited 0"}));
}

TEST_F(Starter, TheProgramGetsTheChangedEnvironment) {
    test::set_env("QVCL_OLD", "old");
    test::set_env("QVCL_GONE", "here");
    const CL_EnvChange changes[] = {
        {"QVCL_NEW", "new"}, {"QVCL_GONE", nullptr}, {nullptr, nullptr}};
    const CL_EnvChange secret[] = {{CL_STARTER_SOCKET, nullptr}, {nullptr, nullptr}};
    const struct {
        const CL_EnvChange *changes;
        std::string name, value;
    } cases[] = {
        {nullptr, CL_STARTER_SOCKET, path}, {nullptr, "QVCL_GONE", "here"},
        {changes, CL_STARTER_SOCKET, path}, {changes, "QVCL_OLD", "old"},
        {changes, "QVCL_NEW", "new"},       {changes, "QVCL_GONE", "-"},
        {secret, CL_STARTER_SOCKET, "-"},
    };
    for (const auto &test : cases)
        EXPECT_THAT(run_to_end({"environment", test.name, test.value}, false, test.changes),
                    ElementsAreArray({"exited 0"}))
            << test.name;
    EXPECT_STREQ(getenv("QVCL_GONE"), "here") << "the starter's own environment is as before";
}

TEST_F(Starter, TheProgramInheritsNoSignalSettingAndNoDescriptorOfTheLibrary) {
    /* What may pass: descriptors that were open before, and what the application ignores itself. */
    std::string allowed;
    for (int fd : test::descriptors())
        if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) allowed += std::to_string(fd) + ",";
    signal(SIGTTOU, SIG_IGN);
    signal(SIGTERM, [](int) {});
    signal(SIGALRM, SIG_IGN); /* as after the last timer */
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
    Child other; /* its connection stays open meanwhile */
    ASSERT_NE(start(other, {"report", "run"}), nullptr) << err;
    run_until([&] { return other.told.size() == 1; });

    EXPECT_THAT(run_to_end({"inherited", std::to_string(SIGTTOU), allowed}, false),
                ElementsAreArray({"exited 0"}));
    for (CL_Object *object : {server, client, accepted, other.object})
        EXPECT_EQ(CL_DeleteFD(object, &err), 1u) << err;
    sigprocmask(SIG_SETMASK, &saved, nullptr);
}

TEST_F(Starter, TwoHundredProgramsReportOrEndWhileNobodyLooks) {
    /* 60 end, and 140 report, which is more than the socket holds until the starter accepts. */
    std::vector<Child> children(200);
    const auto reports = [](std::size_t i) { return i % 10 >= 3; };
    sigset_t blocked, saved;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGCHLD);
    sigprocmask(SIG_BLOCK, &blocked, &saved);
    for (std::size_t i = 0; i < children.size(); ++i)
        ASSERT_NE(start(children[i], reports(i) ? Steps{"report", "run"} : Steps{"exit", "0"}),
                  nullptr)
            << err;
    for (std::size_t i = 0; i < children.size(); ++i) {
        siginfo_t info;
        if (!reports(i)) waitid(P_PID, children[i].object->child.pid, &info, WEXITED | WNOWAIT);
    }
    sigprocmask(SIG_SETMASK, &saved, nullptr);

    run_until([&] {
        return std::all_of(children.begin(), children.end(),
                           [](const Child &child) { return !child.told.empty(); });
    });
    for (Child &child : children) {
        EXPECT_TRUE(child.ended || CL_RequestEnd(child.object, &err)) << err;
    }
    run_until([&] {
        return std::all_of(children.begin(), children.end(),
                           [](const Child &child) { return child.ended; });
    });
    for (std::size_t i = 0; i < children.size(); ++i)
        EXPECT_EQ(children[i].told, reports(i) ? (Steps{"up", "exited 30"}) : Steps{"exited 0"});
}

TEST_F(Starter, SilentStrangersAndOthersChildrenAreNoneOfItsBusiness) {
    const pid_t foreign = fork();
    if (foreign == 0) _exit(42);
    Child silent, up;
    ASSERT_NE(start(up, {"report", "run"}), nullptr) << err;
    ASSERT_NE(start(silent, {"connect", "shut"}, false), nullptr) << err;
    run_until([&] { return silent.ended; }); /* shut when nobody is awaited any more */
    EXPECT_THAT(silent.told, ElementsAreArray({"exited 40"}));
    EXPECT_THAT(up.told, ElementsAreArray({"up"}));
    EXPECT_EQ(CL_DeleteFD(up.object, &err), 1u) << err;
    int status = 0;
    EXPECT_EQ(waitpid(foreign, &status, 0), foreign);
    EXPECT_EQ(WEXITSTATUS(status), 42);
}

TEST_F(Starter, AProgramWhoseStarterDiesIsToldSo) {
    /* The program outlives its starter, and its exit status is lost; but it holds the pipe. */
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    fcntl(ends[0], F_SETFD, FD_CLOEXEC);
    Child starter;
    ASSERT_NE(start(starter, {"starter", path + ".inner"}, false), nullptr) << err;
    close(ends[1]);
    run_until([&] { return starter.ended; });
    EXPECT_THAT(starter.told, ElementsAreArray({"killed 9"}));
    char byte;
    EXPECT_EQ(read(ends[0], &byte, 1), 0) << "the program has ended too";
    close(ends[0]);
}

TEST(Notify, TheServiceManagerIsToldWhereItListens) {
    const auto listen = [](const sockaddr_un &address, size_t length) {
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address),
                       static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length)),
                  0);
        return fd;
    };
    const std::string name = "qvcl-notify-" + std::to_string(getpid());
    for (const std::string &place : {"/tmp/" + name, "@" + name}) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        place.copy(address.sun_path, sizeof address.sun_path - 1);
        if (place[0] == '@') address.sun_path[0] = '\0';
        const int manager = listen(address, place.size());
        test::set_env("NOTIFY_SOCKET", place.c_str());
        CL_ErrInfo err = test::UNTOUCHED;
        const std::vector<int> open = test::descriptors();
        EXPECT_EQ(CL_NotifyManager("READY=1\nSTATUS=up", &err), 1u);
        EXPECT_THAT(err, test::IsClear());
        char text[100];
        const ssize_t count = recv(manager, text, sizeof text, MSG_DONTWAIT);
        EXPECT_EQ(std::string(text, static_cast<size_t>(std::max<ssize_t>(count, 0))),
                  "READY=1\nSTATUS=up");
        EXPECT_EQ(test::descriptors(), open);
        close(manager);
        EXPECT_EQ(CL_NotifyManager("READY=1", &err), 0u);
        EXPECT_THAT(err, test::FailsWith(ECONNREFUSED, CL_MODULE_STARTER));
        {
            const Plan plan(Fault{.call = "socket", .error = EMFILE});
            EXPECT_EQ(CL_NotifyManager("READY=1", &err), 0u);
        }
        EXPECT_THAT(err, test::FailsWith(EMFILE, CL_MODULE_STARTER));
        EXPECT_EQ(CL_NotifyManager(nullptr, &err), 0u);
        EXPECT_THAT(err, test::FailsWith(EFAULT, CL_MODULE_STARTER));
        unlink(place.c_str());
    }
    CL_ErrInfo err = test::UNTOUCHED;
    test::set_env("NOTIFY_SOCKET", std::string(200, '/').c_str());
    EXPECT_EQ(CL_NotifyManager("READY=1", &err), 0u);
    EXPECT_THAT(err, test::FailsWith(ENAMETOOLONG, CL_MODULE_STARTER));
    for (const char *unset : {"", static_cast<const char *>(nullptr)}) {
        test::set_env("NOTIFY_SOCKET", unset);
        EXPECT_EQ(CL_NotifyManager("READY=1", &err), 0u);
        EXPECT_THAT(err, test::IsClear());
    }
}

}  // namespace
