// Reading a process that does not help: nothing torn is ever shown, and nothing happens to it.
#include <elf.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/procfs.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <csignal>
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

std::string said_of(pid_t pid, bool stop = false) {
    return trace_reader::snapshot_of(pid, stop).failure;
}

TEST(Live, RefusalsSayWhy) {
    EXPECT_EQ(said_of(0x3fffff), "no such process");
    const Child without([](auto &) { execl("/bin/sleep", "sleep", "100", nullptr); });
    while (said_of(without.pid()).find("libqvcl") == std::string::npos)
        usleep(1000);
    EXPECT_EQ(said_of(without.pid()), "it has not loaded libqvcl");
    const Child gone([](auto &) {});
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(gone.pid()), &info, WEXITED | WNOWAIT);
    EXPECT_THAT(said_of(gone.pid()), HasSubstr("zombie"));
    const Child here([](auto &) { pause(); });
    const Process process(here.pid());
    EXPECT_EQ(process.failure(), "");
    ASSERT_EQ(ptrace(PTRACE_SEIZE, here.pid(), nullptr, nullptr), 0);
    EXPECT_THAT(said_of(here.pid(), true), HasSubstr("traces it already"));
    ptrace(PTRACE_INTERRUPT, here.pid(), nullptr, nullptr);
    waitpid(here.pid(), nullptr, __WALL);
    ptrace(PTRACE_DETACH, here.pid(), nullptr, nullptr);
    kill(here.pid(), SIGKILL);
    waitid(P_PID, static_cast<id_t>(here.pid()), &info, WEXITED | WNOWAIT);
    EXPECT_EQ(process.failure(), "it has ended");
    if (geteuid() != 0) return;
    const pid_t root = getpid();
    const Child stranger([&](std::atomic<uint64_t> &result) {
        if (setuid(65534) != 0) _exit(1);
        result = said_of(root).find("belongs to root") != std::string::npos ? 1 : 2;
        pause();
    });
    stranger.wait_beyond(0);
    EXPECT_EQ(stranger.value(), 1u);
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

TEST(Looks, WatchKeepsEachStallOnce) {
    const Child child([](std::atomic<uint64_t> &stalls) {
        CL_ErrInfo err{};
        CL_Init(10, nullptr, &err);
        test::Action stall = [&](CL_Object *, CL_Event *) {
            usleep(++stalls == 1 ? 1000 : 300000);
            return 0u;
        };
        CL_Event event{};
        CL_Object *object = CL_CreateFD(CL_KIND_FD, test::call_action, 0, 0, &err);
        for (;;)
            cl_Callback_M(test::call_action, object, &event, test::address(&stall), 0, CL_HERE);
    });
    child.wait_beyond(1);
    const test::Folder folder;
    trace_reader::Looks looks(child.pid());
    trace_reader::Options options;
    options.stall = 100000;
    options.out = folder.path("");
    options.max = 2;
    trace_reader::Text out, err;
    EXPECT_TRUE(watch(looks, options, out, err));
    EXPECT_EQ(folder.files(), 2u);
    EXPECT_EQ(count_of(out.str(), "open for"), 2u);
    for (const auto &entry : std::filesystem::directory_iterator(folder.path(""))) {
        const Source source(entry.path().c_str());
        Dump dump;
        dump.load(source, true);
        EXPECT_EQ(trace_reader::Trace(dump).open.size(), 1u);
    }
}

// On a terminal it shows what was called, in the order of the last key.
TEST(Looks, TopCountsWhatIsCalled) {
    const Child child([](std::atomic<uint64_t> &calls) {
        CL_ErrInfo err{};
        CL_Init(10, nullptr, &err);
        test::Action wait = [](CL_Object *, CL_Event *) { return usleep(1000) == 0 ? 0u : 1u; };
        CL_Event event{};
        for (;; ++calls) {
            CL_Object *object = CL_CreateFD(CL_KIND_FD, test::call_action, 0, 0, &err);
            cl_Callback_M(test::call_action, object, &event, test::address(&wait), 0, CL_HERE);
            CL_AddEventList(object, 1, &err);
            CL_DeleteFD(object, &err);
        }
    });
    child.wait_beyond(1);
    int keys, terminal;
    ASSERT_EQ(openpty(&keys, &terminal, nullptr, nullptr, nullptr), 0);
    const int before[] = {dup(STDIN_FILENO), dup(STDOUT_FILENO)};
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO})
        dup2(terminal, fd);
    trace_reader::Looks looks(child.pid());
    trace_reader::Options options;
    options.interval = 100000;
    std::thread user([&] {
        for (const char *key : {"t", "m", "c", "q"})
            usleep(300000), static_cast<void>(write(keys, key, 1) > 0);
    });
    trace_reader::Text out, err;
    EXPECT_TRUE(top(looks, options, out, err));
    user.join();
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO})
        dup2(before[fd], fd);
    for (const char *told : {"keys: ", "CL_AddEventList_M", "CL_CreateFD_M", "slowest callbacks"})
        EXPECT_THAT(out.str(), HasSubstr(told)) << err.str();
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

// What the kernel writes, in little: what is writable, the modules' first pages, and two notes.
std::string core_of(const Process &process) {
    std::string files, paths, notes, loads, data;
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
        const uint64_t size = kept ? whole : mapping.offset == 0 ? 4096 : 0;
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
    prstatus_t status{};
    status.pr_info.si_signo = SIGSEGV;
    status.pr_pid = process.pid();
    std::string number;
    append(number, status);
    append_note(notes, NT_PRSTATUS, number);
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

TEST(Core, TellsWhatADumpTells) {
    const Child child([](std::atomic<uint64_t> &ready) {
        CL_ErrInfo err{};
        CL_Init(100, nullptr, &err);
        CL_CreateFD(CL_KIND_TIMER, test::call_action, 0, 0, &err);
        ready = 1;
        pause();
    });
    child.wait_beyond(0);
    const test::Folder folder;
    const std::string whole = core_of(Process(child.pid()));
    const Source source(folder.put("core", whole).c_str());
#ifndef QVCL_ELFUTILS
    EXPECT_THAT(source.error(), HasSubstr("libdw"));
    return;
#endif
    ASSERT_EQ(source.error(), "");
    Dump dump;
    dump.load(source, true);
    EXPECT_EQ(dump.problems.count(), 0u);
    ASSERT_TRUE(dump.header.signal);
    EXPECT_EQ(dump.header.signal->name, "SIGSEGV");
    ASSERT_FALSE(dump.objects.empty());
    const auto callback = trace_reader::address(reinterpret_cast<void *>(dump.objects[0].callback));
    EXPECT_THAT(dump.names->name_of(callback), testing::StartsWith("test::call_action"));
    EXPECT_THAT(dump.names->name_of(callback), HasSubstr("(support.cpp:"));
    // A file that is not the one that ran gives no name.
    for (auto &module : dump.header.modules)
        module.build_id[0] ^= 1;
    EXPECT_THAT(trace_reader::names_of(dump.header.modules, {})->name_of(callback),
                HasSubstr("live_test+0x"));
    for (const size_t size : {whole.size() / 2, size_t{5000}, size_t{100}, size_t{10}}) {
        const Source cut(folder.put("cut", whole.substr(0, size)).c_str());
        Dump damaged;
        damaged.load(cut, true);
    }
}

}  // namespace
