/* From loading to ending: what the main table holds at each point, and the report at the end. */
#include <qvcl/main.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstddef>

#include "tests/support.h"

namespace {

using test::FailsWith;
using test::IsClear;
using test::log_lines;
using test::Plan;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::MatchesRegex;

CL_MainBlock &table() {
    return *CL_MainTable;
}

/* Byte for byte; what is allowed to differ is taken from the table itself. */
TEST(Lifecycle, LoadingMakesTheTable) {
    EXPECT_EQ(CL_MainTable, &CL_EM_MainTable);
    CL_MainBlock expected;
    memset(static_cast<void *>(&expected), 0, sizeof expected);
    memcpy(expected.header.eye, "***CL_MAIN***", 13);
    expected.header.size = 2232;
    expected.header.address = reinterpret_cast<uint64_t>(CL_MainTable);
    expected.version = 0x01010000;
    expected.pid = static_cast<uint32_t>(getpid());
    expected.state = CL_STATE_CONSTRUCTED;
    for (CL_Queue &queue : expected.kind_queues) {
        queue.link_offset = 24;
    }
    expected.timer_list.link_offset = 48;
    expected.child_list.link_offset = 72;
    expected.priority_list.link_offset = 120;
    expected.pending_list.link_offset = 120;
    expected.thread_list.link_offset = 96;
    expected.exec_wait_list.link_offset = 144;
    expected.trace_fd = -1;
    expected.generations = 5;
    expected.memory_limit = 104857600;
    const CL_TraceRing *ring = table().library_ring;
    ASSERT_NE(ring, nullptr);
    expected.library_ring = table().library_ring;
    expected.library_bytes = expected.library_peak = ring->header.size;
    void *block = reinterpret_cast<char *>(table().library_ring) - sizeof(CL_BlockHeader);
    expected.library_blocks = {block, block, 1, 0};
    const auto *have = reinterpret_cast<const uint8_t *>(CL_MainTable);
    const auto *want = reinterpret_cast<const uint8_t *>(&expected);
    for (std::size_t i = 0; i < sizeof expected; i++) {
        ASSERT_EQ(have[i], want[i]) << "at " << i;
    }
}

/* Loading does not depend on the loader having been told at link time. */
TEST(Lifecycle, LoadsWhileAProgramRuns) {
    /* What an unloaded library leaves is left by intent. */
    FILE *probe = popen("ASAN_OPTIONS=detect_leaks=0 " QVCL_DLOPEN_PROBE " " QVCL_LIBRARY, "r");
    char text[400];
    const std::size_t length = fread(text, 1, sizeof text, probe);
    EXPECT_EQ(pclose(probe), 0);
    EXPECT_EQ(std::string(text, length),
              "own storage 1, state 1, ring 1\nbegun 1, ended 1, state 3\nclosed 0\n");
}

TEST(Lifecycle, LoadsAheadOfAnyProgram) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's runtime must come first";
#endif
    EXPECT_EQ(system("CL_MEM_CHECK=1 LD_PRELOAD=" QVCL_LIBRARY " /bin/true"), 0);
}

TEST(Lifecycle, MovesThroughItsStates) {
    CL_ErrInfo err = test::UNTOUCHED;
    const std::string s107 = "/tmp/" + std::string(102, 'x'), s108 = s107 + "x", s5000(5000, 'y');
    const auto begin = [&](uint32_t count, const char *path) {
        err = test::UNTOUCHED;
        return CL_Init(count, path, &err);
    };
    EXPECT_EQ(CL_End(&err), 0u);
    EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_MAIN));
    const struct {
        uint32_t count;
        const char *path;
        uint32_t code;
    } rows[] = {{10001, nullptr, 22},   {UINT32_MAX, nullptr, 22}, {1, s108.c_str(), 36},
                {1, s5000.c_str(), 36}, {10001, s108.c_str(), 36}, {10001, "", 22}};
    for (const auto &row : rows) {
        EXPECT_EQ(begin(row.count, row.path), 0u);
        EXPECT_THAT(err, FailsWith(row.code, CL_MODULE_MAIN));
        EXPECT_EQ(table().state, uint32_t{CL_STATE_CONSTRUCTED});
        EXPECT_EQ(table().descriptor_table, nullptr);
        EXPECT_STREQ(table().exec_path, "");
    }
    EXPECT_EQ(begin(10000, ""), 1u);
    EXPECT_THAT(err, IsClear());
    EXPECT_EQ(table().state, uint32_t{CL_STATE_INITIALISED});
    EXPECT_EQ(table().requested, 10000u);
    EXPECT_EQ(table().capacity, 10010u);
    EXPECT_EQ(table().execs, nullptr);
    EXPECT_EQ(begin(1, nullptr), 0u);
    EXPECT_THAT(err, FailsWith(1, CL_MODULE_MAIN));
    EXPECT_EQ(table().state, uint32_t{CL_STATE_INITIALISED});

    err = test::UNTOUCHED;
    EXPECT_EQ(CL_End(&err), 1u);
    EXPECT_EQ(err, test::UNTOUCHED);
    EXPECT_EQ(table().state, uint32_t{CL_STATE_ENDED});
    EXPECT_EQ(CL_End(&err), 0u);
    EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_MAIN));
    EXPECT_EQ(begin(1, nullptr), 0u);
    EXPECT_THAT(err, FailsWith(1, CL_MODULE_MAIN));
    EXPECT_EQ(CL_CreateFD(CL_KIND_FD, nullptr, 0, 0, &err), nullptr);
    EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_FD));
    EXPECT_NE(table().library_ring, nullptr);
}

TEST(Lifecycle, AcceptsNoErrorRecord) {
    EXPECT_EQ(CL_End(nullptr), 0u);
    EXPECT_EQ(CL_Init(20000, nullptr, nullptr), 0u);
    EXPECT_EQ(CL_Init(1, nullptr, nullptr), 1u);
    EXPECT_EQ(CL_CreateFD(5, nullptr, 0, 0, nullptr), nullptr);
    CL_Object *object = CL_CreateFD(CL_KIND_FD, nullptr, 0, 0, nullptr);
    EXPECT_EQ(CL_AddEventList(object, 20, nullptr), 0u);
    EXPECT_EQ(CL_DelEventList(object, nullptr), 0u);
    EXPECT_EQ(CL_SetFD(object, 2000, nullptr, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(CL_DeleteFD(nullptr, nullptr), 0u);
    EXPECT_EQ(CL_DeleteFD(object, nullptr), 1u);
    EXPECT_EQ(CL_End(nullptr), 1u);
}

TEST(Lifecycle, TakesTheSignals) {
    CL_ErrInfo err;
    ASSERT_EQ(CL_Init(0, nullptr, &err), 1u);
    EXPECT_EQ(table().capacity, 10u);
    const auto action_of = [](int signal) {
        struct sigaction action {};
        sigaction(signal, nullptr, &action);
        return action;
    };
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGUSR2, SIGPROF}) {
        EXPECT_EQ(action_of(signal).sa_handler, SIG_IGN) << signal;
    }
    for (const int signal : {SIGTERM, SIGALRM, SIGUSR1}) {
        EXPECT_EQ(action_of(signal).sa_handler, SIG_DFL) << signal;
    }
    const struct sigaction child = action_of(SIGCHLD);
    EXPECT_EQ(reinterpret_cast<void *>(child.sa_handler), reinterpret_cast<void *>(cl_sigchld));
    EXPECT_EQ(child.sa_flags & (SA_RESTART | SA_SIGINFO | SA_NOCLDSTOP),
              SA_RESTART | SA_SIGINFO | SA_NOCLDSTOP);
    EXPECT_EQ(sigismember(&child.sa_mask, SIGCHLD), 1);
    EXPECT_EQ(sigismember(&child.sa_mask, SIGALRM), 0);
    table().child_signal = 0;
    raise(SIGCHLD);
    EXPECT_EQ(table().child_signal, 1u);
    EXPECT_EQ(table().timer_signals + table().wake_signal, 0u);
}

TEST(Lifecycle, OpensTheExecServer) {
    CL_ErrInfo err;
    char directory[] = "/tmp/qvcl-XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    const std::string base = std::string(directory) + "/";
    const std::string path = base + std::string(107 - base.size(), 's');
    ASSERT_EQ(CL_Init(5, path.c_str(), &err), 1u) << err;
    EXPECT_THAT(err, IsClear());
    EXPECT_STREQ(table().exec_path, path.c_str());
    const CL_Object *server = table().execs;
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->kind, uint32_t{CL_KIND_EXECS});
    EXPECT_EQ(server->priority, uint32_t{CL_PRIORITY_EXEC_SERVER});
    EXPECT_EQ(server->status, uint32_t{CL_STATUS_READY | CL_STATUS_LISTED});
    EXPECT_EQ(table().kind_queues[CL_KIND_QUEUE_EXECS].head, server);
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0660u);

    test::capture_log();
    err = test::UNTOUCHED;
    EXPECT_EQ(CL_End(&err), 1u);
    EXPECT_EQ(err, test::UNTOUCHED);
    EXPECT_NE(stat(path.c_str(), &status), 0) << "the socket file goes with the server";
    EXPECT_EQ(table().kind_queues[CL_KIND_QUEUE_EXECS].count, 0u);
    EXPECT_THAT(log_lines(), ElementsAre());
    rmdir(directory);
}

/* Each step of initialisation fails in turn. */
TEST(Lifecycle, FailsHalfWay) {
    const struct {
        test::Fault fault;
        const char *path;
        uint32_t module;
        uint32_t live; /* objects that stay */
    } rows[] = {
        {{.call = "malloc", .error = ENOMEM, .nth = 1}, nullptr, CL_MODULE_FD, 0},
        {{.call = "malloc", .error = ENOMEM, .nth = 2}, nullptr, CL_MODULE_FD, 0},
        {{.call = "socket", .error = EMFILE}, "/tmp/qvcl-half", CL_MODULE_MSGS, 1},
        {{.call = "bind", .error = EACCES}, "/tmp/qvcl-half", CL_MODULE_MSGS, 1},
        {{.call = "listen", .error = EADDRINUSE}, "/tmp/qvcl-half", CL_MODULE_MSGS, 1},
        {{.call = "sigaction", .error = EINVAL}, nullptr, CL_MODULE_CHILD, 0},
        {{.call = "sigaddset", .error = EINVAL}, "/tmp/qvcl-half", CL_MODULE_CHILD, 1},
    };
    for (const auto &row : rows) {
        IN_NEW_PROCESS({
            CL_ErrInfo err = test::UNTOUCHED;
            const test::Balance before = test::Balance::now();
            {
                Plan plan(row.fault);
                EXPECT_EQ(CL_Init(5, row.path, &err), 0u);
                EXPECT_EQ(plan.hits(), 1);
            }
            EXPECT_THAT(err, FailsWith(row.fault.error, row.module)) << row.fault.call;
            EXPECT_EQ(table().state, CL_STATE_FAILED);
            EXPECT_EQ(table().used_queue.count, row.live);
            if (row.fault.call == "malloc") {
                EXPECT_EQ(test::Balance::now(), before);
            }
            EXPECT_EQ(CL_Init(5, nullptr, &err), 0u);
            EXPECT_THAT(err, FailsWith(1, CL_MODULE_MAIN));
            EXPECT_EQ(table().state, CL_STATE_FAILED);
            EXPECT_EQ(CL_CreateFD(CL_KIND_FD, nullptr, 0, 0, &err), nullptr);
            EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_FD));
            EXPECT_EQ(CL_End(&err), 1u);
            EXPECT_EQ(table().state, uint32_t{CL_STATE_ENDED});
            unlink("/tmp/qvcl-half");
        });
    }
}

TEST(Lifecycle, EndsAlthoughTheServerCannotBeDeleted) {
    CL_ErrInfo err;
    ASSERT_EQ(CL_Init(5, "/tmp/qvcl-end", &err), 1u) << err;
    err = test::UNTOUCHED;
    {
        Plan plan{{.call = "close", .error = EIO}};
        EXPECT_EQ(CL_End(&err), 1u);
        EXPECT_EQ(plan.hits(), 1);
    }
    EXPECT_THAT(err, FailsWith(CL_ERR_QUEUE, CL_MODULE_MAIN));
    EXPECT_EQ(table().state, uint32_t{CL_STATE_ENDED});
    unlink("/tmp/qvcl-end");
}

const struct {
    uint32_t number;
    const char *name;
} KINDS[] = {
#define KIND_ROW(number, symbol, name) {number, name " objects"},
    CL_KINDS(KIND_ROW)};

/* What is left is named; the library's own only for those who ask exactly. */
TEST(Lifecycle, ReportsLeaks) {
    for (const char *debug : {static_cast<const char *>(nullptr), "1", "10", "0", "yes", " 1"}) {
        test::set_env("CLLIB_DEBUG", debug);
        IN_NEW_PROCESS({
            const bool all = debug != nullptr && strcmp(debug, "1") == 0;
            CL_ErrInfo err;
            ASSERT_EQ(CL_Init(50, nullptr, &err), 1u);
            std::vector<std::string> expected;
            const auto line = [&](bool wanted, const char *what, uint32_t count) {
                if (wanted) {
                    expected.push_back("CLLIB:" + std::string(what) + "(" + std::to_string(count) +
                                       ") is/are not released.");
                }
            };
            line(true, "user memory", 2);
            line(all, "lib memory", CL_nmem_M(1));
            for (const auto &kind : KINDS) {
                const bool own = kind.number == CL_KIND_END || kind.number == CL_KIND_EXECS ||
                                 kind.number == CL_KIND_EXECC;
                const uint32_t count = kind.number % 3 + 2;
                for (uint32_t i = 0; i < count; i++) {
                    EXPECT_NE(CL_CreateFD_M(kind.number, nullptr, 0, 0, &err, 1, "t", 1), nullptr);
                }
                /* Ending deletes the first server before it looks. */
                line(all || !own, kind.name, kind.number == CL_KIND_EXECS ? count - 1 : count);
            }
            void *first = CL_malloc_M(100, 0, "first", 1);
            void *second = CL_malloc_M(200, 0, "second", 2);
            test::capture_log();
            EXPECT_EQ(CL_End(&err), 1u);
            auto lines = log_lines();
            ASSERT_GE(lines.size(), expected.size());
            const std::vector<std::string> report(lines.begin(),
                                                  lines.begin() + std::ssize(expected));
            EXPECT_THAT(report, ElementsAreArray(expected));
            lines.erase(lines.begin(), lines.begin() + std::ssize(expected));
            if (all) {
                ASSERT_EQ(lines.size(), 1 + CL_nmem_M(1) + 3);
                EXPECT_EQ(lines[0], "CLLIB:lib memory list");
                lines.erase(lines.begin(), lines.begin() + 1 + CL_nmem_M(1));
            }
            EXPECT_THAT(lines, ElementsAre("CLLIB:usr memory list",
                                           MatchesRegex("CLLIB:first\\(1\\) .* 100 byte"),
                                           MatchesRegex("CLLIB:second\\(2\\) .* 200 byte")));
            CL_free(first);
            CL_free(second);
        });
    }
}

TEST(Lifecycle, AbortsAtOnce) {
    EXPECT_EXIT(CL_Abort_M(), testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
