/* The wrappers of system calls: which of them go on after EINTR, and what sleeping means. */
#include <errno.h>
#include <fcntl.h>
#include <qvcl/system.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <sys/time.h>

#include <csignal>
#include <ctime>

#include "tests/support.h"

namespace {

using test::Fault;
using test::Plan;

/* Nothing here reaches the system: EINTR several times, then a failure that a wrapper must hand
 * on. A wrapper that does not go on returns after the first. */
TEST(System, GoesOnAfterEintrAndStopsAtAnythingElse) {
    sigset_t set;
    sigemptyset(&set);
    int status = 0;
    char bytes[4] = "";
    itimerval timer{};
    struct sysinfo info;
    timeval time;
    struct sigaction action {};
    char *none = nullptr;
    const char *none_text = "none";
    const auto catalogue = static_cast<nl_catd>(bytes); /* never looked into */
    const auto failed_map = reinterpret_cast<int64_t>(MAP_FAILED);
    const auto failed_handler = reinterpret_cast<int64_t>(SIG_ERR);
    const auto number = [](auto *pointer) { return reinterpret_cast<int64_t>(pointer); };

    const struct {
        const char *call;
        bool again;
        int64_t failure;
        std::function<int64_t()> wrapper;
    } rows[] = {
        {"accept", true, -1, [] { return cl_u_accept(0, nullptr, nullptr); }},
        {"bind", true, -1, [] { return cl_u_bind(0, nullptr, 0); }},
        {"catclose", true, -1, [&] { return cl_u_catclose(catalogue); }},
        {"catopen", true, -1, [&] { return number(cl_u_catopen("x", 0)); }},
        {"chdir", true, -1, [] { return cl_u_chdir("/"); }},
        {"chmod", true, -1, [] { return cl_u_chmod("/", 0); }},
        {"close", true, -1, [] { return cl_u_close(-1); }},
        {"connect", true, -1, [] { return cl_u_connect(0, nullptr, 0); }},
        {"execv", true, -1, [&] { return cl_u_execv("/", &none); }},
        {"fcntl", true, -1, [] { return cl_u_fcntl(0, F_GETFD, 0); }},
        {"fdatasync", true, -1, [] { return cl_u_fdatasync(0); }},
        {"fork", true, -1, [] { return cl_u_fork(); }},
        {"ftruncate", true, -1, [] { return cl_u_ftruncate(0, 0); }},
        {"gettimeofday", true, -1, [&] { return cl_u_gettimeofday(&time, nullptr); }},
        {"kill", true, -1, [] { return cl_u_kill(0, 0); }},
        {"listen", true, -1, [] { return cl_u_listen(0, 0); }},
        {"mmap", true, failed_map,
         [&] { return number(cl_u_mmap(nullptr, 1, 0, MAP_SHARED, 0, 0)); }},
        {"munmap", true, -1, [] { return cl_u_munmap(nullptr, 1); }},
        {"open", true, -1, [] { return cl_u_open("/", 0, 0); }},
        {"read", true, -1, [&] { return cl_u_read(0, bytes, 1); }},
        {"recv", true, -1, [&] { return cl_u_recv(0, bytes, 1, 0); }},
        {"send", true, -1, [&] { return cl_u_send(0, bytes, 1, 0); }},
        {"setitimer", true, -1, [&] { return cl_u_setitimer(ITIMER_REAL, &timer, nullptr); }},
        {"shm_open", true, -1, [] { return cl_u_shm_open("/x", 0, 0); }},
        {"shm_unlink", true, -1, [] { return cl_u_shm_unlink("/x"); }},
        {"sigaction", true, -1, [&] { return cl_u_sigaction(SIGUSR1, &action, nullptr); }},
        {"sigaddset", true, -1, [&] { return cl_u_sigaddset(&set, 1); }},
        {"sigemptyset", true, -1, [&] { return cl_u_sigemptyset(&set); }},
        {"sigprocmask", true, -1, [&] { return cl_u_sigprocmask(SIG_BLOCK, &set, nullptr); }},
        {"socket", true, -1, [] { return cl_u_socket(0, 0, 0); }},
        {"sysinfo", true, -1, [&] { return cl_u_sysinfo(&info); }},
        {"unlink", true, -1, [] { return cl_u_unlink("/"); }},
        {"waitpid", true, -1, [&] { return cl_u_waitpid(0, &status, 0); }},
        {"write", true, -1, [&] { return cl_u_write(0, bytes, 1); }},
        {"catgets", false, number(none_text),
         [&] { return number(cl_u_catgets(catalogue, 1, 1, none_text)); }},
        {"getpid", false, -1, [] { return cl_u_getpid(); }},
        {"setenv", false, -1, [] { return cl_u_setenv("x", "y", 1); }},
        {"setlocale", false, 0, [&] { return number(cl_u_setlocale(0, "C")); }},
        {"signal", false, failed_handler,
         [&] { return reinterpret_cast<int64_t>(cl_u_signal(SIGUSR1, SIG_DFL)); }},
        {"unsetenv", false, -1, [] { return cl_u_unsetenv("x"); }},
        /* The result is the error number, and errno is not used. */
        {"pthread_sigmask", false, EINTR,
         [&] { return cl_u_pthread_sigmask(SIG_BLOCK, &set, nullptr); }},
    };
    for (const auto &row : rows) {
        Plan plan{{.call = row.call, .error = EINTR, .times = 3, .from_anyone = true},
                  {.call = row.call,
                   .error = EPERM,
                   .nth = 4,
                   .times = test::FOREVER,
                   .from_anyone = true}};
        errno = 0;
        EXPECT_EQ(row.wrapper(), row.failure) << row.call;
        EXPECT_EQ(errno, row.again ? EPERM : EINTR) << row.call;
        EXPECT_EQ(plan.hits(), row.again ? 4 : 1) << row.call;
    }
    Plan plan{{.call = "pthread_sigmask", .error = EINVAL, .from_anyone = true}};
    EXPECT_EQ(cl_u_pthread_sigmask(SIG_BLOCK, &set, nullptr), EINVAL);
}

TEST(System, ReturnsShortCountsAsTheyAre) {
    test::Pipe pipe;
    char bytes[8] = "";
    Plan plan{{.call = "write", .at_most = 5, .from_anyone = true},
              {.call = "read", .at_most = 2, .from_anyone = true}};
    EXPECT_EQ(cl_u_write(pipe.in(), "abcdefgh", 8), 5);
    EXPECT_EQ(cl_u_read(pipe.out(), bytes, 8), 2);
    EXPECT_EQ(cl_u_read(pipe.out(), bytes, 8), 3);
    EXPECT_EQ(cl_u_read(pipe.out(), bytes, 8), -1);
    EXPECT_EQ(errno, EAGAIN);
}

int alarms;
int alarm_pipe;

/* A byte comes with the third signal only. */
TEST(System, ReadSurvivesRealSignals) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    alarm_pipe = ends[1];
    struct sigaction action {};
    action.sa_handler = [](int) {
        if (++alarms == 3) {
            EXPECT_EQ(write(alarm_pipe, "!", 1), 1);
        }
    };
    sigaction(SIGALRM, &action, nullptr);
    const itimerval every = {{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &every, nullptr);
    char byte = 0;
    EXPECT_EQ(cl_u_read(ends[0], &byte, 1), 1);
    EXPECT_EQ(byte, '!');

    const itimerval off{};
    timespec before;
    timespec after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    EXPECT_EQ(CL_Sleep(50), 0);
    clock_gettime(CLOCK_MONOTONIC, &after);
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_GE(alarms, 5);
    const int64_t slept =
        (after.tv_sec - before.tv_sec) * 1'000'000'000 + after.tv_nsec - before.tv_nsec;
    EXPECT_GE(slept, 50'000'000);
    close(ends[0]);
    close(ends[1]);
}

TEST(System, SleepGoesOnWithWhatIsLeft) {
    Plan plan{{.call = "nanosleep", .error = EINTR, .times = 2},
              {.call = "nanosleep", .nth = 3, .swallow = true}};
    EXPECT_EQ(CL_Sleep(2500), 0);
    const auto &asked = test::sleeps();
    ASSERT_EQ(asked.size(), 3u);
    const int64_t expected[3][2] = {{2, 500'000'000}, {1, 250'000'000}, {0, 625'000'000}};
    for (std::size_t i = 0; i < 3; i++) {
        EXPECT_EQ(asked[i].tv_sec, expected[i][0]) << i;
        EXPECT_EQ(asked[i].tv_nsec, expected[i][1]) << i;
    }
}

TEST(System, SleepLeavesTheCallersRemainder) {
    const timespec request = {3, 0};
    timespec remaining = {7, 8};
    {
        Plan plan{{.call = "nanosleep", .error = EINTR, .from_anyone = true},
                  {.call = "nanosleep", .error = EINVAL, .nth = 2, .from_anyone = true}};
        EXPECT_EQ(cl_u_nanosleep(&request, &remaining), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    Plan plan{{.call = "nanosleep", .swallow = true, .from_anyone = true}};
    EXPECT_EQ(cl_u_nanosleep(&request, nullptr), 0) << "the remainder may be absent";
    EXPECT_EQ(remaining.tv_sec, 7);
    EXPECT_EQ(remaining.tv_nsec, 8);
    EXPECT_EQ(request.tv_sec, 3);
}

TEST(System, Utilities) {
    uint64_t microseconds = 99;
    test::set_time(1234, 567);
    EXPECT_EQ(CL_GetTime_M(&microseconds), 1234u);
    EXPECT_EQ(microseconds, 567u);
    EXPECT_EQ(CL_GetTime_M(nullptr), 1234u);
    {
        Plan plan{{.call = "gettimeofday", .error = EFAULT, .times = 2}};
        EXPECT_EQ(CL_GetTime_M(&microseconds), 0u);
        EXPECT_EQ(CL_GetTime_M(nullptr), 0u);
        EXPECT_EQ(plan.hits(), 2);
    }
    EXPECT_EQ(microseconds, 567u) << "a failing clock stores nothing";

    EXPECT_EQ(CL_GetPid(), static_cast<uint32_t>(getpid()));
    test::set_env("QVCL_TEST_VALUE", "");
    EXPECT_STREQ(cl_GetEnvValue("QVCL_TEST_VALUE"), "");
    test::set_env("QVCL_TEST_VALUE", nullptr);
    EXPECT_EQ(cl_GetEnvValue("QVCL_TEST_VALUE"), nullptr);

    char text[] = ",a,,bc;";
    char *saved = nullptr;
    EXPECT_STREQ(cl_strtok(text, ",;", &saved), "a");
    EXPECT_STREQ(cl_strtok(nullptr, ",;", &saved), "bc");
    EXPECT_EQ(cl_strtok(nullptr, ",;", &saved), nullptr);
}

TEST(System, PositionsKeepSixteenCharacters) {
    test::set_time(1700000000, 123456);
    const struct {
        const char *file;
        const char *kept;
    } rows[] = {{"short.cpp", "short.cpp"},
                {"exactly16chars.c", "exactly16chars.c"},
                {"longer_than_sixteen.cpp", "longer_than_sixt"},
                {"", ""},
                {nullptr, ""}};
    for (const auto &row : rows) {
        CL_Position positions[2];
        memset(positions, 0xee, sizeof positions);
        CL_SetPT(positions, row.file, 4711);
        EXPECT_EQ(std::string(positions->file, strnlen(positions->file, 16)), row.kept);
        EXPECT_EQ(positions->line, 4711u);
        EXPECT_EQ(positions->seconds, 1700000000u);
        EXPECT_EQ(positions->microseconds, 123456u);
        EXPECT_EQ(static_cast<uint8_t>(positions[1].file[0]), 0xee) << "one record is written";
    }
    CL_ErrInfo error = {1, 2, 3, 4, 5};
    CL_SetIndependErr(&error);
    EXPECT_EQ(error, (CL_ErrInfo{2, 2, 3, 4, 5}));
}

}  // namespace
