// Reading a process that does not help: nothing torn is ever shown, and nothing happens to it.
#include <elf.h>
#include <fcntl.h>
#include <gnu/libc-version.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/procfs.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <csignal>
#include <functional>
#include <thread>

#include "tests/folder.h"
#include "tests/support.h"
#include "tools/cli.h"
#include "tools/looks.h"
#include "tools/modules.h"
#include "tools/records.h"
#include "tools/snapshot.h"

namespace {

using testing::HasSubstr;
using trace_reader::Bytes;
using trace_reader::Dump;
using trace_reader::Process;
using trace_reader::Snapshot;
using trace_reader::Snapshots;
using trace_reader::Source;

// A child of the test's, and a number that both see.
class Child {
  public:
    template <class Run>
    explicit Child(Run run)
        : shared_(static_cast<std::atomic<uint64_t> *>(
              mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        pid_ = fork();
        if (pid_ != 0) return;
        run(*shared_);
        _exit(0);
    }
    ~Child() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        munmap(shared_, 4096);
    }
    pid_t pid() const { return pid_; }
    void wait_beyond(uint64_t value) const {
        while (*shared_ <= value)
            usleep(100);
    }
    uint64_t value() const { return *shared_; }
    void set(uint64_t value) const { *shared_ = value; }

  private:
    std::atomic<uint64_t> *shared_;
    pid_t pid_ = 0;
};

// ---------------------------------------------------------------- self-checking records

struct Checked {
    CL_TrcHead head;
    uint64_t number;
    uint8_t filling[6000];
};

uint32_t length_of(uint64_t number, uint32_t longest) {
    const uint64_t mixed = (number * 0x9e3779b97f4a7c15) >> 32;
    const uint64_t room = mixed % 64 == 0 ? longest : std::min(longest, 300u);
    return static_cast<uint32_t>(offsetof(Checked, filling) +
                                 (mixed >> 8) % (room - offsetof(Checked, filling) + 1));
}

// Both rings written as fast as can be, with records of up to all entries of the ring.
void write_checked(std::atomic<uint64_t> &written) {
    constexpr uint32_t kSize = 48, kCount = 120;
    for (const int ring : {CL_RING_LIBRARY, CL_RING_USER}) {
        CL_TRC_End_M(ring);
        CL_TRC_Init_M("/tmp/none", kSize, kCount, nullptr, ring);
    }
    static Checked record{};
    for (uint64_t number = 1;; ++number) {
        record.number = number;
        record.head.length = length_of(number, kSize * kCount);
        memset(record.filling, static_cast<int>(number), record.head.length);
        for (const int ring : {CL_RING_LIBRARY, CL_RING_USER})
            CL_TRC_Write_M(&record, ring);
        written = number;
    }
}

// Every record is as it was written, and follows the one before.
size_t right_records(Dump &dump, int ring) {
    const trace_reader::Trace trace(dump, ring);
    uint64_t before = 0;
    for (const trace_reader::Record &record : trace.records) {
        Checked copy{};
        memcpy(&copy, record.bytes.data(), record.bytes.size());
        EXPECT_EQ(copy.head.length, record.bytes.size());
        EXPECT_EQ(copy.head.length, length_of(copy.number, 48 * 120));
        EXPECT_TRUE(before == 0 || copy.number == before + 1) << before << ' ' << copy.number;
        const size_t filled = copy.head.length - offsetof(Checked, filling);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(copy.filling), filled),
                  std::string(filled, static_cast<char>(copy.number)));
        before = copy.number;
    }
    return trace.records.size();
}

TEST(Live, RecordsAreNeverTorn) {
    const Child child(write_checked);
    child.wait_beyond(1000);
    const Process process(child.pid());
    const Snapshots snapshots(process);
    ASSERT_TRUE(snapshots.found());
    size_t records = 0, incomplete = 0;
    const uint64_t begin = child.value();
    for (int i = 0; i < 1000 && !testing::Test::HasFailure(); ++i) {
        const Snapshot snapshot = snapshots.of_live(process, i % 10 == 9, "test");
        ASSERT_EQ(snapshot.failure, "");
        const Source source((Bytes(snapshot.file)));
        Dump dump;
        dump.load(source, true);
        EXPECT_EQ(dump.problems.count(), 0u);
        for (const int ring : {CL_RING_LIBRARY, CL_RING_USER}) {
            records += right_records(dump, ring);
            // Records of the library's own sort are not told apart here.
            dump.problems = {};
        }
        incomplete += dump.header.incomplete.size();
    }
    EXPECT_GT(records, 10000u);
    EXPECT_GT(child.value(), begin);
    printf("%zu records right, %zu parts incomplete, %" PRIu64 " written meanwhile\n", records,
           incomplete, child.value() - begin);
}

// This process's own memory; between any two looks at it something happens.
class Stirred final : public trace_reader::Memory {
  public:
    explicit Stirred(std::function<void()> stir) : stir_(std::move(stir)) {}
    uint64_t read(uint64_t address, void *to, uint64_t length) const override {
        stir_();
        return self_.read(address, to, length);
    }
    const std::vector<trace_reader::Mapping> &mappings() const override {
        self_.look_again();
        return self_.mappings();
    }

  private:
    std::function<void()> stir_;
    mutable Process self_{getpid()};
};

TEST(Live, RecordsAreNotTornByWhatHappensBetweenTwoLooks) {
    test::Random random;
    Checked record{};
    const auto write = [&](uint32_t count) {
        while (count-- > 0) {
            record.head.length = length_of(++record.number, 48 * 120);
            memset(record.filling, static_cast<int>(record.number), record.head.length);
            CL_TRC_Write_M(&record, CL_RING_USER);
        }
    };
    const auto renew = [&] {
        CL_TRC_End_M(CL_RING_USER);
        CL_TRC_Init_M("/tmp/none", 48, 120 + random.below(2), nullptr, CL_RING_USER);
    };
    size_t whole = 0, records = 0;
    for (int round = 0; round < 1000 && !testing::Test::HasFailure(); ++round) {
        if (round % 50 == 0) renew();
        write(random.below(200));
        CL_TraceRing &ring = *CL_MainTable->user_ring;
        const CL_TraceRing before = ring;
        uint32_t *const fields[] = {&ring.entry_size, &ring.entry_count, &ring.oldest, &ring.next,
                                    &ring.wrapped};
        const uint32_t happens = random.below(6), most = 1u << random.below(8);
        const Stirred memory([&] {
            if (random.below(3) != 0) return;
            if (happens == 0) renew();
            if (happens == 1) *fields[random.below(5)] = random.below(2) * random.below(130);
            if (happens > 2) write(random.below(most));
        });
        const auto copy =
            trace_reader::copy_ring(memory, trace_reader::address(&CL_MainTable->user_ring), false);
        if (happens == 1) ring = before;
        if (!copy.whole || happens == 1) continue;
        Dump dump;
        dump.load(Source(Bytes(copy.block)), false);
        records += right_records(dump, CL_RING_USER);
        ++whole;
    }
    printf("%zu whole, %zu records\n", whole, records);
    EXPECT_GT(whole, 300u);
    EXPECT_GT(records, 5000u);
}

// ---------------------------------------------------------------- tables

// All objects that a table can have, then a wait.
void fill_table(std::atomic<uint64_t> &ready) {
    CL_ErrInfo err{};
    CL_Init(CL_MAX_OBJECTS, nullptr, &err);
    uint64_t made = 0;
    while (CL_CreateFD(CL_KIND_FD, test::call_action, 0, 0, &err) != nullptr)
        ++made;
    ready = made;
    for (;;)
        pause();
}

std::string check_of(const std::vector<uint8_t> &file) {
    const Source source((Bytes(file)));
    const Source *sources[] = {&source};
    const std::string names[] = {"it"};
    trace_reader::Text out, err;
    run_command(*std::ranges::find(trace_reader::kCommands, "check", &trace_reader::Command::name),
                {}, names, sources, out, err);
    return out.str() + err.str();
}

TEST(Live, AFullTableIsWhole) {
    const Child child(fill_table);
    child.wait_beyond(0);
    for (const bool stop : {false, true}) {
        const Snapshot snapshot = trace_reader::snapshot_of(child.pid(), stop);
        EXPECT_EQ(snapshot.failure, "");
        EXPECT_THAT(check_of(snapshot.file), HasSubstr(std::to_string(child.value()) +
                                                       " live objects, whole and consistent"));
    }
}

// So is one that its owner leaves alone in the middle of a call, or writes no records of.
TEST(Live, ATableIsWholeWhenItsOwnerSleeps) {
    const test::Folder folder;
    for (const bool recorded : {true, false}) {
        const Child child([&](std::atomic<uint64_t> &ready) {
            CL_ErrInfo err{};
            uint8_t buffer[100];
            if (!recorded) CL_TRC_End_M(CL_RING_LIBRARY);
            CL_Init(10, nullptr, &err);
            const std::string path = folder.path("socket") + (recorded ? '1' : '2');
            CL_OpenMSGS(CL_CreateFD(CL_KIND_MSGS, nullptr, 0, 0, &err), path.c_str(), 5, &err);
            CL_Object *client = CL_CreateFD(CL_KIND_MSGC, nullptr, 0, 0, &err);
            CL_CnctMSGC(client, path.c_str(), CL_MODE_SYNC, &err);
            ready = 1;
            CL_RecvMSGC(client, buffer, sizeof buffer, CL_MODE_SYNC, 0, &err);
        });
        child.wait_beyond(0);
        usleep(20000);
        for (const bool stop : {false, true}) {
            const Source source(("pid:" + std::to_string(child.pid())).c_str(),
                                {.stop = stop, .exe = {}});
            EXPECT_EQ(source.error(), "");
            std::vector<uint8_t> file(source.size());
            source.read(0, file.data(), file.size());
            EXPECT_THAT(check_of(file), HasSubstr("2 live objects, whole and consistent"));
        }
    }
}

// Objects come and go as fast as can be: what is said to be whole is.
TEST(Live, ChangingTablesAreWholeOrSaidNotToBe) {
    const Child child([](std::atomic<uint64_t> &count) {
        CL_ErrInfo err{};
        CL_Init(20, nullptr, &err);
        for (;; ++count) {
            CL_Object *objects[15];
            for (CL_Object *&object : objects)
                object = CL_CreateFD(CL_KIND_TIMER, test::call_action, 0, 0, &err);
            CL_StartTIMER(objects[3], 100, CL_TIMER_ONESHOT, &err);
            for (CL_Object *object : objects)
                CL_DeleteFD(object, &err);
            if (count % 64 == 0) usleep(1);
        }
    });
    child.wait_beyond(0);
    const Process process(child.pid());
    const Snapshots snapshots(process);
    int whole = 0;
    for (int i = 0; i < 300; ++i) {
        const Snapshot snapshot = snapshots.of_live(process, i % 2 == 1, "test");
        const std::string said = check_of(snapshot.file);
        if (said.find("incomplete") != std::string::npos) continue;
        EXPECT_THAT(said, HasSubstr("whole and consistent"));
        ++whole;
    }
    EXPECT_GT(whole, 0);
    printf("%d of 300 whole\n", whole);
}

// ---------------------------------------------------------------- harm

TEST(Live, RunsOnWhenItsReaderIsKilled) {
    const Child child([](std::atomic<uint64_t> &count) {
        CL_ErrInfo err{};
        CL_Init(CL_MAX_OBJECTS, nullptr, &err);
        std::thread([&] {
            for (;;)
                ++count;
        }).join();
    });
    child.wait_beyond(0);
    for (int i = 0; i < 40; ++i) {
        {
            const Child reader([&](std::atomic<uint64_t> &looks) {
                for (;; ++looks)
                    trace_reader::snapshot_of(child.pid(), true);
            });
            reader.wait_beyond(0);
            usleep(static_cast<useconds_t>(i * 97 % 3000));
        }
        child.wait_beyond(child.value() + 1000);
    }
    EXPECT_EQ(trace_reader::snapshot_of(child.pid(), true).failure, "");
}

// Every signal that comes while it is stopped arrives, and one that was stopped before stays so.
TEST(Live, KeepsItsSignals) {
    constexpr uint64_t kSignals = 3000;
    static std::atomic<uint64_t> *counted;
    const Child child([](std::atomic<uint64_t> &count) {
        counted = &count;
        signal(SIGRTMIN, [](int) { ++*counted; });
        for (count = 1;;)
            pause();
    });
    child.wait_beyond(0);
    std::thread sender([&] {
        for (uint64_t sent = 0; sent < kSignals; usleep(20))
            if (sigqueue(child.pid(), SIGRTMIN, {}) == 0) ++sent;
    });
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(trace_reader::snapshot_of(child.pid(), true).failure, "");
    sender.join();
    child.wait_beyond(kSignals);
    EXPECT_EQ(child.value(), kSignals + 1);
    int status = 0;
    kill(child.pid(), SIGSTOP);
    ASSERT_EQ(waitpid(child.pid(), &status, WUNTRACED), child.pid());
    for (const bool stop : {false, true})
        EXPECT_EQ(trace_reader::snapshot_of(child.pid(), stop).failure, "");
    const std::string stat = "/proc/" + std::to_string(child.pid()) + "/stat";
    for (int i = 0; i < 2000 && test::bytes_of(stat).find(") T ") == std::string::npos; ++i)
        usleep(1000);  // on its way from one stop to the other
    EXPECT_THAT(test::bytes_of(stat), HasSubstr(") T "));
}

std::string said_of(pid_t pid, bool stop = false) {
    return trace_reader::snapshot_of(pid, stop).failure;
}

std::string said_to(uid_t user, pid_t pid) {
    EXPECT_EQ(setresuid(user, user, 0), 0);
    std::string said = said_of(pid);
    EXPECT_EQ(setresuid(0, 0, 0), 0);
    return said;
}

// What is said by a thread to which the system refuses that call.
std::string said_without(uint32_t call, pid_t pid) {
    std::string said;
    std::thread([&] {
        sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                                 BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
                                 BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
                                 BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
        const sock_fprog filter = {std::size(program), program};
        prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
        EXPECT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
        said = said_of(pid, true);
    }).join();
    return said;
}

// A program of 32 bits that waits: ELF header, one segment at 0x10000, pause() again and again.
std::string small_program() {
    constexpr uint32_t kWords[] = {0x464c457f, 0x00010101, 0,    0,          0x00030002, 1,
                                   0x10054,    52,         0,    0,          0x00200034, 1,
                                   0,          1,          0,    0x10000,    0x10000,    96,
                                   96,         5,          4096, 0x00001db8, 0xeb80cd00, 0xf7};
    return {reinterpret_cast<const char *>(kWords), sizeof kWords};
}

TEST(Live, RefusalsSayWhy) {
    EXPECT_EQ(said_of(0x3fffff), "no such process");
    EXPECT_EQ(trace_reader::Hold(0x3fffff).failure(), "it has ended");
    const Child without([](auto &) { execl("/bin/sleep", "sleep", "100", nullptr); });
    while (said_of(without.pid()).find("libqvcl") == std::string::npos)
        usleep(1000);
    EXPECT_EQ(said_of(without.pid()), "it has not loaded libqvcl");
    const Child gone([](auto &) {});
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(gone.pid()), &info, WEXITED | WNOWAIT);
    EXPECT_THAT(said_of(gone.pid()), HasSubstr("zombie"));
    const Child borrowed([](auto &ready) {
        if (vfork() == 0) {
            ready = static_cast<uint64_t>(getpid());
            sleep(60);
            _exit(0);
        }
    });
    borrowed.wait_beyond(0);
    EXPECT_EQ(said_of(borrowed.pid(), true), "a thread of it cannot be stopped now");
    kill(static_cast<pid_t>(borrowed.value()), SIGKILL);
    const test::Folder folder;
    const std::string program = folder.put("program", small_program());
    std::filesystem::permissions(program, std::filesystem::perms::all);
    const Child small([&](auto &failed) {
        execl(program.c_str(), program.c_str(), nullptr);
        failed = 1;
        pause();
    });
    while (said_of(small.pid()).empty() && small.value() == 0)
        usleep(1000);
    if (small.value() == 0) {  // the system may run none
        EXPECT_EQ(said_of(small.pid()), "a 32-bit process");
    }
    const Child here([](auto &) { pause(); });
    const Process process(here.pid());
    EXPECT_EQ(process.failure(), "");
    EXPECT_THAT(said_without(SYS_process_vm_readv, here.pid()), HasSubstr("not permitted: "));
    EXPECT_EQ(said_without(SYS_ptrace, here.pid()), "cannot be stopped: not permitted");
    ASSERT_EQ(ptrace(PTRACE_SEIZE, here.pid(), nullptr, nullptr), 0);
    EXPECT_THAT(said_of(here.pid(), true), HasSubstr("traces it already"));
    ptrace(PTRACE_INTERRUPT, here.pid(), nullptr, nullptr);
    waitpid(here.pid(), nullptr, __WALL);
    ptrace(PTRACE_DETACH, here.pid(), nullptr, nullptr);
    kill(here.pid(), SIGKILL);
    waitid(P_PID, static_cast<id_t>(here.pid()), &info, WEXITED | WNOWAIT);
    EXPECT_EQ(process.failure(), "it has ended");
}

TEST(Live, RefusalsSayWhoseItIs) {
    if (geteuid() != 0) GTEST_SKIP() << "only the superuser can be another user";
    const auto be = [](uid_t user, bool guarded) {
        return [=](auto &ready) {
            ready = setuid(user) == 0 && (guarded || prctl(PR_SET_DUMPABLE, 1) == 0) ? 1 : 2;
            pause();
        };
    };
    constexpr uid_t kNobody = 65534, kNameless = 54321;
    const Child root(be(0, false)), nobody(be(kNobody, false)), nameless(be(kNameless, false)),
        guarded(be(kNobody, true));
    for (const Child *child : {&root, &nobody, &nameless, &guarded})
        child->wait_beyond(0);
    EXPECT_THAT(said_to(kNobody, root.pid()), HasSubstr("it belongs to root; run this as"));
    EXPECT_THAT(said_to(kNobody, guarded.pid()), HasSubstr("; run this with CAP_SYS_PTRACE"));
    EXPECT_THAT(said_to(kNameless, nobody.pid()), HasSubstr("it belongs to nobody; "));
    EXPECT_THAT(said_to(kNobody, nameless.pid()), HasSubstr("it belongs to 54321; "));
    EXPECT_EQ(said_to(kNobody, nobody.pid()), "");
    if (test::bytes_of("/proc/2/comm") == "kthreadd\n") {
        EXPECT_EQ(said_of(2), "a thread of the kernel, not a process");
    }
    // Its number is given to another.
    std::optional<Child> first(std::in_place, [](auto &) { pause(); });
    const pid_t pid = first->pid();
    const Process process(pid);
    first.reset();
    EXPECT_EQ(process.failure(), "it has ended");
    EXPECT_EQ(said_of(pid), "no such process");
    usleep(30000);  // begins at another tick
    for (int i = 0; i < 100; ++i) {
        std::ofstream("/proc/sys/kernel/ns_last_pid") << pid - 1;
        const Child second([](auto &) { pause(); });
        if (second.pid() != pid) continue;
        EXPECT_EQ(process.failure(), "it has ended, and its number is another's now");
        return;
    }
}

// ---------------------------------------------------------------- again and again

size_t count_of(const std::string &text, std::string_view what) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at)
        ++count;
    return count;
}

TEST(Looks, FollowTellsEveryCallOnceAndWhatWasLost) {
    constexpr uint64_t kCalls = 20000;
    for (const bool slow : {true, false}) {
        const Child child([&](std::atomic<uint64_t> &begin) {
            CL_ErrInfo err{};
            begin = 1;
            while (begin == 1)
                usleep(100);
            for (uint64_t i = 0; i < kCalls; ++i) {
                CL_StopTIMER(nullptr, &err);
                if (slow && i % 50 == 0) usleep(2000);
            }
            CL_DeleteFD(nullptr, &err);
            while (begin == 2)  // until that was told
                usleep(100);
        });
        child.wait_beyond(0);
        trace_reader::Looks looks(child.pid());
        ASSERT_EQ(looks.failure(), "");
        child.set(2);
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        std::string lines;
        std::thread reader([&] {
            char piece[65536];
            for (ssize_t got; (got = read(ends[0], piece, sizeof piece)) > 0;) {
                lines.append(piece, static_cast<size_t>(got));
                if (child.value() == 3 || count_of(lines, "CL_DeleteFD_M(") == 0) continue;
                child.set(3);
                waitpid(child.pid(), nullptr, 0);
            }
        });
        trace_reader::Text err;
        bool whole;
        {
            const std::unique_ptr<FILE, int (*)(FILE *)> stream(fdopen(ends[1], "w"), fclose);
            trace_reader::Text out(stream.get());
            whole = follow(looks, {}, out, err);
        }
        reader.join();
        close(ends[0]);
        const size_t told = count_of(lines, "CL_StopTIMER_M(");
        EXPECT_EQ(whole, told == kCalls) << err.str();
        EXPECT_EQ(whole, count_of(lines, "records were lost here") == 0);
        EXPECT_LE(told, kCalls);
        EXPECT_GT(told, kCalls / 1000);
        EXPECT_THAT(err.str(), HasSubstr("it has ended"));
        printf("%zu of %" PRIu64 " calls\n", told, kCalls);
    }
}

// ---------------------------------------------------------------- cores

template <class T>
void append(std::string &to, const T &value) {
    to.append(reinterpret_cast<const char *>(&value), sizeof value);
}

void append_note(std::string &to, uint32_t type, const std::string &bytes) {
    append(to, Elf64_Nhdr{5, static_cast<uint32_t>(bytes.size()), type});
    to += std::string("CORE\0\0\0\0", 8) + bytes + std::string((4 - bytes.size() % 4) % 4, '\0');
}

// What the kernel writes, in little: what is writable, the modules' first pages, and notes: those
// that are given, and the mapped files. without: a first page that is left out.
std::string core_of(const Process &process, std::string notes, uint64_t without = 0) {
    std::string files, paths, data;
    uint64_t count = 0;
    std::vector<Elf64_Phdr> headers(1);
    for (const trace_reader::Mapping &mapping : process.mappings()) {
        if (!mapping.path.empty() && mapping.path[0] == '/') {
            for (const uint64_t number : {mapping.begin, mapping.end, mapping.offset / 4096})
                append(files, number);
            paths += mapping.path + '\0';
            ++count;
        }
        const uint64_t whole = mapping.end - mapping.begin;
        const bool kept = mapping.writable && whole < 1 << 30;  // not a sanitizer's shadow
        const bool first = mapping.offset == 0 && mapping.begin != without;
        const uint64_t size = kept ? whole : first ? 4096 : 0;
        std::string bytes(size, '\0');
        bytes.resize(process.read(mapping.begin, bytes.data(), size));
        Elf64_Phdr header{PT_LOAD,
                          PF_R | (mapping.writable ? PF_W : 0u),
                          data.size(),
                          mapping.begin,
                          0,
                          bytes.size(),
                          mapping.end - mapping.begin,
                          1};
        headers.push_back(header);
        data += bytes;
    }
    std::string head;
    append(head, count);
    append(head, uint64_t{4096});
    append_note(notes, NT_FILE, head + files + paths);
    Elf64_Ehdr elf{};
    memcpy(elf.e_ident, ELFMAG, SELFMAG);
    elf.e_ident[EI_CLASS] = ELFCLASS64;
    elf.e_ident[EI_DATA] = ELFDATA2LSB;
    elf.e_ident[EI_VERSION] = EV_CURRENT;
    elf.e_type = ET_CORE;
    elf.e_machine = EM_X86_64;
    elf.e_version = EV_CURRENT;
    elf.e_phoff = elf.e_ehsize = sizeof elf;
    elf.e_phentsize = sizeof(Elf64_Phdr);
    elf.e_phnum = static_cast<uint16_t>(headers.size());
    const uint64_t begin = sizeof elf + headers.size() * sizeof(Elf64_Phdr) + notes.size();
    for (Elf64_Phdr &header : headers)
        header.p_offset += begin;
    headers[0] = {PT_NOTE, 0, begin - notes.size(), 0, 0, notes.size(), 0, 4};
    std::string core;
    append(core, elf);
    for (const Elf64_Phdr &header : headers)
        append(core, header);
    return core + notes + data;
}

template <class T>
std::string note_of(uint32_t type, const T &value) {
    std::string bytes, note;
    append(bytes, value);
    append_note(note, type, bytes);
    return note;
}

std::string status_note(int signal, pid_t thread) {
    prstatus_t status{};
    status.pr_info.si_signo = static_cast<int>(signal);
    status.pr_pid = thread;
    return note_of(NT_PRSTATUS, status);
}

class Core : public testing::Test {
  protected:
    void SetUp() override {
#ifndef QVCL_ELFUTILS
        GTEST_SKIP() << "without libdw core files are not read";
#endif
    }
    static pid_t when_ready(const Child &child) {
        child.wait_beyond(0);
        return child.pid();
    }
    std::string write(const std::string &bytes) const {
        return folder.put("core", bytes);
    }

    const Child child{[](std::atomic<uint64_t> &ready) {
        CL_ErrInfo err{};
        CL_Init(100, nullptr, &err);
        CL_CreateFD(CL_KIND_TIMER, test::call_action, 0, 0, &err);
        ready = 1;
        pause();
    }};
    const Process process{when_ready(child)};
    const test::Folder folder;
};

TEST_F(Core, TellsWhatADumpTells) {
    const std::string whole = core_of(process, status_note(SIGSEGV, process.pid()));
    const Source source(write(whole).c_str());
    ASSERT_EQ(source.error(), "");
    Dump dump;
    dump.load(source, true);
    EXPECT_EQ(dump.problems.count(), 0u);
    ASSERT_FALSE(dump.objects.empty());
    const auto callback = trace_reader::address(reinterpret_cast<void *>(dump.objects[0].callback));
    EXPECT_THAT(dump.names->name_of(callback), testing::StartsWith("test::call_action"));
    EXPECT_THAT(dump.names->name_of(callback), HasSubstr("(support.cpp:"));
    EXPECT_THAT(dump.names->name_of(callback + 4), HasSubstr("+0x4 (support.cpp:"));
    EXPECT_THAT(dump.names->name_of(reinterpret_cast<uint64_t>(&gnu_get_libc_version)),
                HasSubstr("gnu_get_libc_version"));
    // What is not the file that ran, or not all of it, gives no name.
    auto modules = dump.header.modules;
    auto &main = *std::ranges::find_if(modules, [&](const auto &module) {
        return module.base <= callback && callback < module.end;
    });
    const auto named = [&](std::optional<uint64_t> pid) {
        return trace_reader::names_of(modules, pid)->name_of(callback);
    };
    const std::string bytes = test::bytes_of("/proc/self/exe");
    for (const std::string &path :
         {folder.put("cut", bytes.substr(0, 4096)), folder.path("."), folder.path("gone")}) {
        main.path = path;
        EXPECT_THAT(named({}), HasSubstr("+0x")) << path;
    }
    EXPECT_THAT(named(process.pid()), testing::StartsWith("test::call_action"));
    main.build_id[0] ^= 1;
    EXPECT_THAT(named(process.pid()), testing::StartsWith("gone+0x"));
    main.build_id.clear();
    EXPECT_THAT(named(process.pid()), testing::StartsWith("gone+0x"));
    EXPECT_EQ(trace_reader::names_of(modules, {})->name_of(8), "");
}

TEST_F(Core, TellsWhatItsNotesTell) {
    const auto info = [](int code) {
        siginfo_t signal{};
        signal.si_code = code;
        signal.si_addr = reinterpret_cast<void *>(8);
        return note_of(NT_SIGINFO, signal);
    };
    prpsinfo_t program{};
    program.pr_pid = 77;
    memcpy(program.pr_psargs, "prog -v  ", 9);
    const struct {
        std::string notes, told;
    } cases[] = {
        {"", ""},
        {status_note(0, 5), ""},
        {status_note(SIGSTOP, 5), ""},
        {status_note(SIGTRAP, 5) + info(SI_USER), ""},
        {status_note(SIGTRAP, 5) + info(TRAP_BRKPT), "signal: 5 SIGTRAP\ncode: 1\naddress: 0x8\n"},
        {status_note(SIGTRAP, 5), ""},
        {status_note(SIGSEGV, 5) + status_note(SIGABRT, 6) + info(SEGV_MAPERR) + info(SI_USER),
         "signal: 11 SIGSEGV\ncode: 1\naddress: 0x8\nthread: 5\n"},
        {status_note(SIGABRT, 5) + info(SI_TKILL), "signal: 6 SIGABRT\ncode: -6\nthread: 5\n"},
        {status_note(200, 5), "signal: 200 \nthread: 5\n"},
        {note_of(NT_PRPSINFO, program), "process: 77\ncommand: prog -v\n"},
        {note_of(NT_PRPSINFO, 'x') + note_of(NT_FILE, uint64_t{1} << 60), "process: 0\n"},
    };
    for (const auto &[notes, told] : cases) {
        const Source source(write(core_of(process, notes)).c_str());
        Dump dump;
        dump.load(source, true);
        EXPECT_EQ(source.error(), "");
        EXPECT_THAT(dump.text, HasSubstr(told));
        EXPECT_EQ(dump.header.signal.has_value(), told.starts_with("signal"));
    }
}

TEST_F(Core, KnowsItsExecutable) {
    const std::string_view self = "live_test";
    const auto main = std::ranges::find_if(
        process.mappings(), [&](const auto &mapping) { return mapping.path.ends_with(self); });
    const std::string entry = note_of(NT_AUXV, Elf64_auxv_t{AT_ENTRY, {getauxval(AT_ENTRY)}});
    const std::string text = folder.put("text", "text");
    const struct {
        std::string notes;
        uint64_t without;
        std::string exe, error;
    } cases[] = {
        {"", 0, "/proc/self/exe", ""},
        {"", 0, text, text + " is no ELF file with a build id"},
        {"", 0, "/none", "/none is no ELF file with a build id"},
        {entry, 0, "/bin/sleep", "/bin/sleep is not what this core file is of"},
        {entry, main->begin, "/proc/self/exe", ""},
        {"", main->begin, "/proc/self/exe", "/proc/self/exe is not what this core file is of"},
    };
    for (const auto &[notes, without, exe, error] : cases) {
        const Source source(write(core_of(process, notes, without)).c_str(), {.exe = exe});
        ASSERT_EQ(source.error(), error);
        if (!error.empty()) continue;
        Dump dump;
        dump.load(source, true);
        const auto callback =
            trace_reader::address(reinterpret_cast<void *>(dump.objects[0].callback));
        EXPECT_THAT(dump.names->name_of(callback), testing::StartsWith("test::call_action"));
    }
}

// Whatever is in it: one line that says why not, or a dump that every command gets through.
TEST_F(Core, DamageIsSurvived) {
    test::Random random;
    size_t refused = 0, shown = 0;
    std::string core = core_of(process, status_note(SIGSEGV, 5));
    // Names would take the time.
    for (size_t at = 0; (at = core.find("/live_test", at)) != std::string::npos; ++at)
        core[at + 1] = 'L';
    for (const size_t size : {core.size() / 2, size_t{5000}, size_t{100}, size_t{10}}) {
        const Source cut(write(core.substr(0, size)).c_str());
        Dump damaged;
        damaged.load(cut, true);
    }
    // What is looked at: the headers and notes, the modules' first pages, and the blocks' heads.
    std::vector<std::pair<size_t, size_t>> parts = {{0, 64}};
    const auto headers = *reinterpret_cast<Elf64_Ehdr *>(core.data());
    for (size_t i = 0; i < headers.e_phnum; ++i) {
        const size_t at = sizeof headers + i * sizeof(Elf64_Phdr);
        const auto segment = *reinterpret_cast<Elf64_Phdr *>(&core[at]);
        parts.emplace_back(at, sizeof segment);
        if (segment.p_filesz != 0 && (i == 0 || core.compare(segment.p_offset, 4, ELFMAG) == 0))
            parts.emplace_back(segment.p_offset, std::min<size_t>(segment.p_filesz, 4096));
    }
    for (const char *eye : {CL_EYE_MAIN, CL_EYE_FDTBL, CL_EYE_LIBTRC, CL_EYE_USRTRC}) {
        for (size_t at = 0; (at = core.find(eye, at)) != std::string::npos; ++at)
            parts.insert(parts.end(), 8, {at, at % 8 == 0 ? 200 : 1});
    }
    const std::string path = write(core), name = "it";
    const int fd = open(path.c_str(), O_WRONLY);
    const auto put = [&](size_t at, const void *bytes, size_t size) {
        EXPECT_GT(pwrite(fd, bytes, size, static_cast<off_t>(at)), 0);
    };
    for (int round = 0; round < 500; ++round) {
        std::vector<size_t> places;
        for (uint32_t n = 1 + random.below(3); n != 0; --n) {
            const auto [begin, length] = parts[random.below(static_cast<uint32_t>(parts.size()))];
            const uint64_t values[] = {0, 1, UINT64_MAX, INT32_MAX, 4096, random.engine()()};
            const size_t size = size_t{1} << random.below(4);
            places.push_back(begin + random.below(static_cast<uint32_t>(length)) / size * size);
            put(places.back(), &values[random.below(6)], size);
        }
        const Source source(path.c_str());
        const Source *pointer = &source;
        const auto &commands = trace_reader::kCommands;
        const auto &command = commands[random.below(static_cast<uint32_t>(commands.size()))];
        trace_reader::Text out, err;
        if (!source.error().empty()) {
            ASSERT_EQ(count_of(source.error(), "\n"), 0u);
            ++refused;
        } else if (command.only_reads() && command.files == 1) {
            run_command(command, {}, {&name, 1}, {&pointer, 1}, out, err);
            ASSERT_LT(out.size(), 1000000u);
            ++shown;
        }
        for (const size_t at : places)
            put(at, &core[at], sizeof(uint64_t));
    }
    close(fd);
    EXPECT_GT(refused, 0u);
    EXPECT_GT(shown, 0u);
}

}  // namespace
