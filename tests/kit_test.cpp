// The test kit's own promises, where the other tests do not use them: virtual time, disorder,
// refusals, and what a balance and a log say.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <stdexcept>

#include "tests/support.h"

namespace {

volatile sig_atomic_t alarms;

uint64_t elapsed_seconds() {
    return CL_KitElapsed() / 1'000'000;
}

// Each wait takes its time, and no real one.
TEST(VirtualTime, PassesInEveryWait) {
    ASSERT_EQ(CL_KitVirtualTime(0), 1u);
    EXPECT_EQ(CL_KitVirtualTime(0), 0u);
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    timeval limit = {1000, 0};
    const timespec thousand = {1000, 0};
    const std::function<int()> waits[] = {
        [] { return static_cast<int>(sleep(1000)); },
        [&] { return nanosleep(&thousand, nullptr); },
        [&] { return clock_nanosleep(CLOCK_MONOTONIC, 0, &thousand, nullptr); },
        [] { return poll(nullptr, 0, 1'000'000); },
        [&] { return ppoll(nullptr, 0, &thousand, nullptr); },
        [&] { return select(0, nullptr, nullptr, nullptr, &limit); },
        [&] { return pselect(0, nullptr, nullptr, nullptr, &thousand, nullptr); },
        [&] { return epoll_wait(epoll, &event, 1, 1'000'000); },
    };
    uint64_t seconds = 0;
    for (const auto &wait : waits) {
        EXPECT_EQ(wait(), 0);
        EXPECT_EQ(elapsed_seconds(), seconds += 1000);
    }
    close(epoll);
    // What is there already is found at once.
    test::Pipe pipe;
    pipe.fill();
    pollfd ready = {pipe.out(), POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, 1'000'000), 1);
    EXPECT_EQ(elapsed_seconds(), seconds);
}

TEST(VirtualTime, TimersFollow) {
    ASSERT_EQ(CL_KitVirtualTime(0), 1u);
    signal(SIGALRM, [](int) { alarms = alarms + 1; });
    const itimerval value = {{50, 0}, {100, 0}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &value, nullptr), 0);
    EXPECT_NE(sleep(1000), 0u) << "interrupted";
    EXPECT_EQ(elapsed_seconds(), 100u);
    EXPECT_EQ(poll(nullptr, 0, -1), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(alarms, 2);
    EXPECT_EQ(elapsed_seconds(), 150u);
    setitimer(ITIMER_REAL, std::make_unique<itimerval>().get(), nullptr);

    const int timer = timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC);
    itimerspec setting{};
    clock_gettime(CLOCK_REALTIME, &setting.it_value);
    setting.it_value.tv_sec += 500;
    setting.it_interval.tv_sec = 7;
    ASSERT_EQ(timerfd_settime(timer, TFD_TIMER_ABSTIME, &setting, nullptr), 0);
    pollfd ready = {timer, POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, -1), 1);
    EXPECT_NEAR(static_cast<double>(CL_KitElapsed()), 650e6, 1e5);
    sleep(14);
    uint64_t expirations = 0;
    EXPECT_EQ(read(timer, &expirations, sizeof expirations), 8);
    EXPECT_EQ(expirations, 3u);
    close(timer);
}

// The bytes that arrive at once, with a seed that splits transfers.
std::vector<ssize_t> pieces(uint64_t seed) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    std::vector<ssize_t> result;
    char bytes[500] = "";
    CL_KitDisorder(seed, CL_KIT_ANYONE);
    for (int i = 0; i < 50; ++i)
        result.push_back(send(ends[0], bytes, sizeof bytes, 0));
    CL_KitDisorder(0, 0);
    close(ends[0]);
    close(ends[1]);
    return result;
}

TEST(Disorder, IsThatOfItsSeed) {
    std::vector<std::string> runs;
    for (const uint64_t seed : {1U, 1U, 2U}) {
        test::Pipe pipe;
        const pid_t pid = fork();  // where nobody has thrown the dice yet
        if (pid == 0) {
            const std::string text = testing::PrintToString(pieces(seed));
            _exit(write(pipe.in(), text.data(), text.size()) > 0 ? 0 : 1);
        }
        pollfd ready = {pipe.out(), POLLIN, 0};
        EXPECT_EQ(poll(&ready, 1, 10'000), 1);
        char text[4096] = "";
        EXPECT_GT(read(pipe.out(), text, sizeof text - 1), 0);
        runs.emplace_back(text);
        waitpid(pid, nullptr, 0);
    }
    EXPECT_EQ(runs[0], runs[1]);
    EXPECT_NE(runs[0], runs[2]);
    EXPECT_THAT(runs[0], testing::HasSubstr("500")) << "some go whole";
    EXPECT_THAT(runs[0], testing::HasSubstr("-1")) << "some are interrupted";
}

// As a program calls them that was compiled with checks of its buffers, or for large files.
extern "C" {
ssize_t __read_chk(int fd, void *to, size_t size, size_t room);
int __open_2(const char *path, int flags);
}

TEST(Plans, HoldForAllNamesOfACall) {
    void *const block = malloc(8);
    struct stat64 status;
    const std::pair<const char *, std::function<bool()>> calls[] = {
        {"calloc", [] { return calloc(2, 8) == nullptr; }},
        {"realloc", [&] { return realloc(block, 16) == nullptr; }},
        {"open", [] { return open64("/dev/null", O_RDONLY) == -1; }},
        {"open", [] { return __open_2("/dev/null", O_RDONLY) == -1; }},
        {"openat", [] { return openat(AT_FDCWD, "/dev/null", O_RDONLY) == -1; }},
        {"stat", [&] { return stat64("/", &status) == -1; }},
        {"opendir", [] { return opendir("/") == nullptr; }},
    };
    for (const auto &[name, fails] : calls) {
        const test::Plan plan({.call = name, .error = ENOMEM, .from_anyone = true});
        EXPECT_TRUE(fails()) << name;
        EXPECT_EQ(errno, ENOMEM) << name;
    }
    free(block);
}

TEST(Plans, ShortenTransfersOfParts) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    char text[] = "abcdefgh", got[8] = "";
    iovec out[] = {{text, 3}, {text + 3, 5}}, in[] = {{got, 1}, {got + 1, 7}};
    msghdr sent{}, received{};
    sent.msg_iov = out;
    received.msg_iov = in;
    sent.msg_iovlen = received.msg_iovlen = 2;
    const auto shorter = [](const char *call, size_t most) {
        return test::Fault{.call = call, .at_most = most, .from_anyone = true};
    };
    {
        const test::Plan plan({shorter("writev", 4), shorter("sendmsg", 4), shorter("readv", 3),
                               shorter("recvmsg", 3), shorter("read", 1)});
        EXPECT_EQ(writev(ends[0], out, 2), 4);
        EXPECT_EQ(sendmsg(ends[0], &sent, 0), 4);
        EXPECT_EQ(readv(ends[1], in, 2), 3);
        EXPECT_EQ(recvmsg(ends[1], &received, 0), 3);
        EXPECT_EQ(received.msg_iov, in);
        EXPECT_EQ(__read_chk(ends[1], got + 3, 2, 5), 1);
    }
    EXPECT_STREQ(got, "dabc");
    close(ends[0]);
    close(ends[1]);
}

TEST(Plans, ThatAreNotPossibleAreRefused) {
    EXPECT_THROW(test::Plan({.call = "strlen", .error = EIO}), std::invalid_argument);
    EXPECT_THROW(test::Plan({.call = "recv", .error = EIO, .nth = 0}), std::invalid_argument);
    EXPECT_EQ(CL_KitPlan(nullptr, CL_KIT_MAX_FAULTS + 1), 0u);
    EXPECT_EQ(CL_KitErrors("strlen"), nullptr);
}

class Kit : public test::Library {};

TEST_F(Kit, SaysWhatIsDifferent) {
    const test::Balance before = test::Balance::now();
    CL_Object *object = create(CL_KIND_TIMER);
    const int fd = dup(0);
    EXPECT_THAT(
        test::Balance::now().against(before),
        testing::AllOf(testing::HasSubstr("live: 1, was 0"),
                       testing::HasSubstr("descriptor " + std::to_string(fd) + " is open")));
    close(fd);
    CL_DeleteFD(object, &err);
    EXPECT_EQ(test::Balance::now().against(before), "");

    CL_KitKeepLog();
    cl_inlog_write("one");
    cl_inlog_write("two");
    const char *const both[] = {"one", "two", nullptr}, *const turned[] = {"two", "one", nullptr};
    const char *missing = nullptr;
    EXPECT_EQ(CL_KitLogHas(both, &missing), 1u);
    EXPECT_EQ(CL_KitLogHas(turned, &missing), 0u);
    EXPECT_STREQ(missing, "one");
}

}  // namespace
