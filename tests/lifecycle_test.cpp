// From loading to ending: what the main table holds at each point, and the report at the end.
#include <dlfcn.h>
#include <qvcl/main.h>
#include <signal.h>
#include <sys/stat.h>

#include "tests/folder.h"
#include "tests/support.h"

namespace {

using test::FailsWith;
using test::table;

// What the probe, or a copy of it, says.
std::string said_by(const std::string &probe) {
    // What an unloaded library leaves is left by intent.
    FILE *out = popen(("ASAN_OPTIONS=detect_leaks=0 " + probe + " " QVCL_LIBRARY).c_str(), "r");
    char text[400];
    const size_t length = fread(text, 1, sizeof text, out);
    EXPECT_EQ(pclose(out), 0);
    return {text, length};
}

// Loading does not depend on the loader having been told at link time.
TEST(Lifecycle, LoadsWhileAProgramRuns) {
    EXPECT_THAT(
        said_by(QVCL_DLOPEN_PROBE),
        testing::EndsWith("own storage 1, state 1, ring 1\nbegun 1, ended 1, state 3\nclosed 0\n"));
}

// A copy that is opened from elsewhere finds the table of the first one in use, and uses it.
TEST(Lifecycle, IsNotBegunAgainByASecondCopy) {
    const test::Folder folder;
    const std::string path = folder.path("copy.so");
    std::filesystem::copy_file(QVCL_LIBRARY, path);
    CL_ErrInfo err;
    ASSERT_EQ(CL_Init(5, nullptr, &err), 1u);
    const CL_MainBlock before = table();
    void *copy = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(copy, nullptr) << dlerror();
    EXPECT_EQ(memcmp(&table(), &before, sizeof before), 0);
    const auto end = reinterpret_cast<decltype(&CL_End_M)>(dlsym(copy, "CL_End_M"));
    ASSERT_NE(end, &CL_End_M);
    EXPECT_EQ(end(&err, 0, "copy", 1), 1u);
    EXPECT_EQ(table().state, uint32_t{CL_STATE_ENDED});
}

// A program with more rights than whoever runs it takes no switches from him.
TEST(Lifecycle, IsNotSwitchedInPrivilegedPrograms) {
    const test::Folder folder;
    const std::string probe = folder.path("probe");
    std::filesystem::copy_file(QVCL_DLOPEN_PROBE, probe);
    gid_t groups[NGROUPS_MAX];
    const int count = getgroups(NGROUPS_MAX, groups);
    gid_t *other = std::find_if(groups, groups + count, [](gid_t g) { return g != getgid(); });
    if (other == groups + count) *other = getgid() + 1;  // the superuser may take any
    const bool lent =
        chown(probe.c_str(), getuid(), *other) == 0 && chmod(probe.c_str(), 02755) == 0;
    test::set_env("CL_MEM_CHECK", "1");
    test::set_env("CL_TRC_NUM", "123");
    EXPECT_THAT(said_by(QVCL_DLOPEN_PROBE),
                testing::StartsWith("privileged 0, guards 1, entries 123\n"));
    const std::string said = said_by(probe);
    if (!lent || said.starts_with("privileged 0")) GTEST_SKIP() << "no other group to be had";
    EXPECT_THAT(said, testing::StartsWith("privileged 1, guards 0, entries 1000\n"));
}

TEST(Lifecycle, LoadsAheadOfAnyProgram) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's runtime must come first";
#endif
    EXPECT_EQ(system("CL_MEM_CHECK=1 LD_PRELOAD=" QVCL_LIBRARY " /bin/true"), 0);
}

TEST(Lifecycle, MovesThroughItsStates) {
    CL_ErrInfo err = test::kUntouched;
    EXPECT_EQ(CL_End(nullptr), 0u);
    EXPECT_EQ(CL_End(&err), 0u);
    EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_MAIN));
    std::string longest = "/tmp/" + std::to_string(getpid());
    longest.resize(107, 'x');
    const std::string too_long = longest + "x";
    const std::tuple<uint32_t, const char *, int> rows[] = {{10001, too_long.c_str(), ENAMETOOLONG},
                                                            {1, too_long.c_str(), ENAMETOOLONG},
                                                            {10001, nullptr, EINVAL},
                                                            {UINT32_MAX, "", EINVAL}};
    for (const auto &[count, at, code] : rows) {
        EXPECT_EQ(CL_Init(count, at, nullptr), 0u);
        EXPECT_EQ(CL_Init(count, at, &err), 0u);
        EXPECT_THAT(err, FailsWith(code, CL_MODULE_MAIN));
        EXPECT_EQ(table().state, uint32_t{CL_STATE_CONSTRUCTED});
        EXPECT_EQ(table().descriptor_table, nullptr);
        EXPECT_STREQ(table().exec_path, "");
    }
    EXPECT_EQ(CL_Init(10000, longest.c_str(), &err), 1u);
    EXPECT_THAT(err, test::IsClear());
    EXPECT_EQ(table().state, uint32_t{CL_STATE_INITIALISED});
    EXPECT_EQ(table().capacity, 10010u);
    EXPECT_EQ(table().exec_path, longest);
    EXPECT_EQ(table().execs, table().kind_queues[CL_KIND_QUEUE_EXECS].head);
    EXPECT_EQ(CL_Init(1, nullptr, &err), 0u);
    EXPECT_THAT(err, FailsWith(EPERM, CL_MODULE_MAIN));

    err = test::kUntouched;
    EXPECT_EQ(CL_End(&err), 1u);
    EXPECT_EQ(err, test::kUntouched);
    EXPECT_EQ(table().state, uint32_t{CL_STATE_ENDED});
    EXPECT_EQ(table().execs, nullptr);
}

TEST(Lifecycle, TakesTheSignals) {
    CL_ErrInfo err;
    ASSERT_EQ(CL_Init(0, nullptr, &err), 1u);
    const auto action_of = [](int signal) {
        struct sigaction action {};
        sigaction(signal, nullptr, &action);
        return action;
    };
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGUSR2, SIGPROF})
        EXPECT_EQ(action_of(signal).sa_handler, SIG_IGN) << signal;
    for (const int signal : {SIGTERM, SIGALRM, SIGUSR1})
        EXPECT_EQ(action_of(signal).sa_handler, SIG_DFL) << signal;
    const struct sigaction child = action_of(SIGCHLD);
    EXPECT_EQ(reinterpret_cast<void *>(child.sa_handler), reinterpret_cast<void *>(cl_sigchld));
    EXPECT_EQ(child.sa_flags & (SA_RESTART | SA_SIGINFO | SA_NOCLDSTOP),
              SA_RESTART | SA_SIGINFO | SA_NOCLDSTOP);
    table().child_signal = 0;
    raise(SIGCHLD);
    EXPECT_EQ(table().child_signal, 1u);
}

// What the steps before the one that failed have made is there until the end, but for memory.
TEST(Lifecycle, FailsHalfWay) {
    const std::pair<test::Fault, uint32_t> rows[] = {
        // and blocks
        {{.call = "malloc", .error = ENOMEM, .nth = 1}, 0},
        {{.call = "malloc", .error = ENOMEM, .nth = 2}, 0},
        {{.call = "socket", .error = EMFILE}, 2},
        {{.call = "sigaction", .error = EINVAL}, 2}};
    for (const auto &row : rows) {
        IN_NEW_PROCESS({
            CL_ErrInfo err;
            const uint32_t before = CL_nmem_M(1);
            const test::Plan plan(row.first);
            EXPECT_EQ(CL_Init(5, "/tmp/qvcl-half", &err), 0u);
            EXPECT_EQ(err.err, static_cast<uint32_t>(row.first.error)) << row.first.call;
            EXPECT_EQ(CL_nmem_M(1), before + row.second);
            for (const uint32_t state : {uint32_t{CL_STATE_FAILED}, uint32_t{CL_STATE_ENDED}}) {
                EXPECT_EQ(table().state, state);
                EXPECT_EQ(CL_Init(5, nullptr, &err), 0u);
                EXPECT_THAT(err, FailsWith(EPERM, CL_MODULE_MAIN));
                EXPECT_EQ(CL_CreateFD(CL_KIND_FD, nullptr, 0, 0, &err), nullptr);
                EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_FD));
                EXPECT_EQ(CL_End(&err), state == CL_STATE_FAILED ? 1u : 0u);
            }
            EXPECT_EQ(table().used_queue.count, 0u);
            EXPECT_EQ(unlink("/tmp/qvcl-half"), -1) << "the server took its socket file away";
        });
    }
}

// What is left is named; the library's own only for those who ask exactly.
TEST(Lifecycle, ReportsLeaks) {
    static const std::pair<uint32_t, const char *> kinds[] = {
#define KIND_ROW(number, symbol, name) {number, name " objects"},
        CL_KINDS(KIND_ROW)};
    for (const char *debug : {static_cast<const char *>(nullptr), "1", "10"}) {
        test::set_env("CLLIB_DEBUG", debug);
        IN_NEW_PROCESS({
            const bool all = debug != nullptr && strcmp(debug, "1") == 0;
            CL_ErrInfo err;
            ASSERT_EQ(CL_Init(50, nullptr, &err), 1u);
            std::vector<testing::Matcher<std::string>> expected;
            const auto line = [&](const std::string &what, uint32_t count) {
                expected.emplace_back("CLLIB:" + what + "(" + std::to_string(count) +
                                      ") is/are not released.");
            };
            line("user memory", 2);
            if (all) line("lib memory", CL_nmem_M(1));
            for (const auto &[kind, name] : kinds) {
                const uint32_t count = kind % 3 + 2;
                for (uint32_t i = 0; i < count; ++i)
                    CL_CreateFD_M(kind, nullptr, 0, 0, &err, 1, "t", 1);
                const bool first_ends = kind == CL_KIND_EXECS;  // deleted before the look
                const bool own = first_ends || kind == CL_KIND_END || kind == CL_KIND_EXECC;
                if (all || !own) line(name, first_ends ? count - 1 : count);
            }
            if (all) {
                expected.emplace_back("CLLIB:lib memory list");
                expected.insert(expected.end(), CL_nmem_M(1), testing::_);
            }
            expected.emplace_back("CLLIB:usr memory list");
            expected.emplace_back(testing::MatchesRegex("CLLIB:first\\(1\\) .* 100 byte"));
            expected.emplace_back(testing::MatchesRegex("CLLIB:second\\(2\\) .* 200 byte"));
            void *first = CL_malloc_M(100, 0, "first", 1);
            void *second = CL_malloc_M(200, 0, "second", 2);
            CL_KitKeepLog();
            EXPECT_EQ(CL_End(&err), 1u);
            EXPECT_THAT(test::log_lines(), testing::ElementsAreArray(expected));
            EXPECT_EQ(CL_free(first) + CL_free(second), 2u);
        });
    }
}

}  // namespace
