// qvcl-trace as a program: its arguments, its streams, the terminal, and processes that end while
// it looks at them.
#include <pty.h>
#include <sys/wait.h>

#include <csignal>

#include "tests/folder.h"
#include "tests/trace_story.h"
#include "tools/commands.h"
#include "tools/progress.h"

namespace {

using testing::HasSubstr;
using testing::Not;

// What is never the same for long: calls inside and outside of callbacks, callbacks that take long
// or overwrite much of the ring, and a ring of the application's, which comes late and is small.
[[noreturn]] void be_busy() {
    CL_ErrInfo err{};
    CL_KitSetUptime(-1);
    CL_Init(10, nullptr, &err);
    const test::Pipe pipe;
    pipe.fill();
    uint64_t round = 0;
    test::Action action = [&](CL_Object *, CL_Event *) {
        ++round;
        CL_StopTIMER(nullptr, &err);
        usleep(round % 50 == 20 ? 1200000 : 2000);
        for (int i = 0; i < (round % 50 == 40 ? 2000 : 0); ++i)
            CL_StopTIMER(nullptr, &err);
        CL_TrcHead record{};
        record.length = sizeof record;
        if (round == 30) CL_TRC_Init_M("own", 40, 8, nullptr, CL_RING_USER);
        for (int i = 0; i < (round > 30 ? 100 : 0); ++i)
            CL_TRC_Write_M(&record, CL_RING_USER);
        return round % 5 == 0 ? 1u : 0u;  // ends the loop
    };
    CL_Object *object = CL_CreateFD(CL_KIND_FD, test::call_action, test::address(&action), 0, &err);
    test::watch_readable(object, pipe.out(), &err);
    CL_AddEventList(object, 20, &err);
    for (;;) {
        CL_EventLoop(&err);
        CL_Object *other = CL_CreateFD(CL_KIND_FD, nullptr, 0, 0, &err);
        CL_AddEventList(other, 1, &err);
        CL_DeleteFD(other, &err);
    }
}

// Processes to look at, which commands know by variables. They begin before the story has its
// clock.
class Processes {
  protected:
    Processes() {
        start("BUSY", be_busy);
        start("QUIET", [] { pause(); });
    }
    ~Processes() {
        for (const pid_t pid : pids_) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }

  private:
    void start(const char *name, const std::function<void()> &life) {
        pids_.push_back(test::child_process([&] { return life(), 0; }));
        test::set_env(name, ("pid:" + std::to_string(pids_.back())).c_str());
    }
    std::vector<pid_t> pids_;
};

class Program : public testing::Test, protected Processes, protected test::Story {
  protected:
    void SetUp() override {
        std::filesystem::current_path(folder.path(""));
        live("live");
        rings(50);
        CL_TRC_Out("one", nullptr);
        CL_DeleteFD(nullptr, &err);
        CL_TRC_Out("two", nullptr);
        test::set_env("T", QVCL_TRACE);
    }
    // What a shell command prints, and behind it its exit status. With keys it has a terminal, and
    // each is pressed when `until` has appeared once more.
    static std::string run(const std::string &command, std::string keys = "",
                           const std::string &until = "") {
        int fd = -1;
        const pid_t pid = forkpty(&fd, nullptr, nullptr, nullptr);
        if (pid == 0) execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        std::string text;
        char piece[4096];
        size_t seen = 0;
        for (ssize_t got; (got = read(fd, piece, sizeof piece)) > 0;) {
            text.append(piece, static_cast<size_t>(got));
            const size_t at = text.find(until, seen);
            if (keys.empty() || at == std::string::npos) continue;
            seen = at + until.size();
            EXPECT_EQ(write(fd, keys.data(), 1), 1);
            keys.erase(0, 1);
        }
        close(fd);
        int status = 0;
        waitpid(pid, &status, 0);
        return text + "=" + std::to_string(WEXITSTATUS(status));
    }

    test::Folder folder;
};

TEST_F(Program, SaysWhatIsWrong) {
    const struct {
        const char *command, *said;
        int status;
    } cases[] = {
        {"$T show none", "qvcl-trace: none: No such file or directory", 2},
        {"$T show live >/dev/full", "qvcl-trace: the output could not be written", 2},
        {"$T follow $BUSY >/dev/full", "qvcl-trace: the output could not be written", 2},
        {"$T top --interval=50ms $BUSY >/dev/full", "the output could not be written", 2},
        {"$T --help >/dev/full", "qvcl-trace: the output could not be written", 2},
        {"$T show -xy live", "unknown option, or a value is missing: -x\r\n", 2},
        {"$T show --help=5", "unknown option, or a value is missing: --help=5\r\n", 2},
        {"$T show --last=1x live", "--last: not understood: 1x", 2},
        {"$T show --last=0x live", "--last: not understood: 0x", 2},
        {"$T show --handle=#x live", "--handle: not understood: #x", 2},
        {"$T show --slower=us live", "--slower: not understood: us", 2},
        {"$T show --slower=-1us live", "--slower: not understood: -1us", 2},
        {"$T show --slower=1e9 live", "--slower: not understood: 1e9", 2},
        {"$T show --since=12:00x live", "--since: not understood: 12:00x", 2},
        {"$T show --since=12:00.5x live", "--since: not understood: 12:00.5x", 2},
        {"$T snap --out= live", "--out: not understood: \r\n", 2},
        {"$T snap live no/where", "qvcl-trace: no/where: No such file or directory", 2},
        {"$T snap live .", "qvcl-trace: .: Is a directory", 2},
        {"$T snap live /dev/full", "qvcl-trace: /dev/full: No space left on device", 2},
        {"$T snap live /proc/none", "qvcl-trace: /proc/none: ", 2},
        {"$T snap live a b", "number of sources for this command: 1\r\n", 2},
        {"$T export", "number of sources for this command: 1 to 64\r\n", 2},
        {"$T watch --max=0 $QUIET", "--max: not understood: 0", 2},
        {"$T watch --out=no/where $QUIET", "qvcl-trace: no/where: No such file or directory", 2},
        {"$T watch --out=live --stall=0us $BUSY", "Not a directory", 2},
        {"$T top --interval=9ms $QUIET", "--interval: not understood: 9ms", 2},
        {"$T follow live", "follow looks at a live process that runs on: pid:N", 2},
        {"$T follow --stop $QUIET", "follow looks at a live process that runs on: pid:N", 2},
        {"$T follow --exe=x $QUIET", "follow looks at a live process that runs on: pid:N", 2},
        {"$T follow pid:$$", "it has not loaded libqvcl", 2},
        {"$T follow pid:4194305", "no such process", 2},
        {"$T diff one two", "+ ", 1},
        {"$T diff two one", "+ end of the trace", 1},
    };
    for (const auto &[command, said, status] : cases) {
        const std::string text = run(command);
        EXPECT_THAT(text, HasSubstr(said)) << command;
        EXPECT_THAT(text, testing::EndsWith("=" + std::to_string(status))) << command;
    }
    EXPECT_EQ(folder.files(), 5u);  // no half of one; the story has left a socket and a file
}

TEST_F(Program, WritesWhereItIsTold) {
    const struct {
        const char *command, *said;
    } cases[] = {
        {"$T snap live copy && cmp live copy", "copy\r\n"},
        {"$T snap --out=copy live && cmp live copy", "copy\r\n"},
        {"$T snap live --out=- | cmp - live", ""},
        {"$T snap live | grep -x 'qvcl-4242-2[0-9]*-[0-9]*.trc'", ""},
        {"$T snap $BUSY own && $T check own", "whole and consistent\r\n"},
        {"$T tables own | grep 'callback test::call_action'", ""},
        {"$T show --ring=library --last=2 live | wc -l", "3\r\n"},
        {"$T show --last=0X2 two", "CL_DeleteFD_M"},
        {"$T show --handle=5 live; $T show --handle=0X1234 live; $T show --handle=#0x6 live",
         "(handle=#6, "},
        {"$T show --since=14:13:20.00005x live || $T show --since='2026-09-21 14:13' two",
         "CL_DeleteFD_M"},
        {"$T show two", "\33[2m"},
        {"NO_COLOR= $T show two", "\33[2m"},
        {"NO_COLOR=1 $T show two", "0us ! CL_DeleteFD_M("},
        // Nobody reads on: without another line, too.
        {"{ $T follow --last=0 $QUIET; echo $? >status; } | sleep 0; cat status", "0\r\n"},
        {"$T follow --ring=library --failures $BUSY 2>/dev/null | head -3 | wc -l", "3\r\n"},
        {"timeout -k 1 -s INT 4 $T follow $BUSY >lines; grep -c 'lost here' lines", ""},
        // A callback that takes long is told before it returns, and once more then.
        {"grep -c '= ? (not finished, open for 1\\.' lines", ""},
        {"grep -c '^[0-9:.]* *1\\.[2-9][0-9]*s .*callback' lines", ""},
        // In the background of a terminal.
        {"timeout -k 1 -s INT 3 $T top --interval=200ms $BUSY | grep 'some lost'", "(some lost)"},
        {"$T watch --out=kept --stall=500ms --max=2 $BUSY >told", "ended, as --max=2 says\r\n"},
        {"ls kept | wc -l; grep -c 'open for' told", "2\r\n2\r\n"},
        {"for f in kept/*; do $T report $f; done | grep -c '^not returned at'", "2\r\n"},
    };
    for (const auto &[command, said] : cases) {
        EXPECT_THAT(run(command), testing::AllOf(HasSubstr(said), testing::EndsWith("=0")))
            << command;
    }
}

// It shows what was called, in the order of the last key, and leaves the terminal as it was.
TEST_F(Program, CountsOnATerminal) {
    for (const char *keys : {"tmcxq", "\3"}) {
        const std::string text =
            run("$T top --interval=50ms $BUSY; stty -a", keys, "CL_CreateFD_M");
        for (const char *told : {"keys: ", "CL_AddEventList_M", "slowest callbacks"})
            EXPECT_THAT(text, HasSubstr(told));
        EXPECT_THAT(text, testing::ContainsRegex("[^-]icanon.*[^-]echo "));
    }
}

TEST_F(Program, EndsWithTheProcess) {
    const std::string text =
        run("for verb in top follow watch; do $T $verb $BUSY & done; sleep 1; kill -9 "
            "${BUSY#pid:}; wait");
    EXPECT_THAT(text, HasSubstr(": it has ended\r\n"));
    EXPECT_THAT(text, HasSubstr(": it has ended; the last look was at "));
}

TEST(Progress, IsToldOnATerminalWhenItTakesLong) {
    int fd, terminal;
    ASSERT_EQ(openpty(&fd, &terminal, nullptr, nullptr, nullptr), 0);
    const int before = dup(STDERR_FILENO);
    dup2(terminal, STDERR_FILENO);
    {
        trace_reader::Progress::begin_command();
        trace_reader::Progress progress("counting", 4096);
        for (uint64_t i = 1; i <= 4096; ++i) {
            progress.at(i);
            if (i == 1500) usleep(1100000);
        }
    }
    dup2(before, STDERR_FILENO);
    const std::string told = "\rqvcl-trace: counting: 50 %\33[K\r\33[K";
    std::string text;
    for (char c; text.size() < told.size() && read(fd, &c, 1) == 1;)
        text.push_back(c);
    EXPECT_EQ(text, told);
}

// A source that has become shorter is no whole dump.
TEST(WriteFile, LeavesNoPiece) {
    const test::Folder folder;
    const trace_reader::Source source(folder.put("source", std::string(3 << 20, 'x')).c_str());
    ASSERT_EQ(truncate(folder.path("source").c_str(), 2 << 20), 0);
    EXPECT_THROW(write_file(folder.path("copy"), source), std::runtime_error);
    EXPECT_EQ(folder.files(), 1u);
}

}  // namespace
