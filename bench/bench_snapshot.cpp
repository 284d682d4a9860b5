// Looking into a live process: what it costs who looks, and who is looked at.
//
// The floor under finding the main table is to read what is mapped; that under a snapshot, one call
// that copies as many bytes. What it costs the process is asked of one that does nothing but call
// the library, on a processor of its own, alone and while it is read ten times a second from
// another: its tables are in change at every look, so each look tries as often as any does.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/uio.h>

#include <atomic>
#include <memory>
#include <thread>

#include <qvcl/qvcl.h>

#include "bench/support.h"
#include "tools/snapshot.h"

namespace {

using bench::check;
using trace_reader::Process;
using trace_reader::Snapshot;
using trace_reader::Snapshots;

constexpr auto kInterval = std::chrono::milliseconds(100);

uint32_t on_event(CL_Object * /*object*/, CL_Event * /*event*/, uint64_t, uint64_t) {
    return 0;
}

// A process with so many objects in use, which then rests or calls the library without end.
class Subject {
  public:
    Subject(uint32_t objects, bool busy) {
        void *shared = mmap(nullptr, sizeof(std::atomic<uint64_t>), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        check(shared != MAP_FAILED, "mmap");
        calls_ = static_cast<std::atomic<uint64_t> *>(shared);
        pid_ = fork();
        check(pid_ >= 0, "fork");
        if (pid_ == 0) run(objects, busy);
        while (*calls_ == 0)
            sched_yield();
    }
    ~Subject() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Subject(const Subject &) = delete;
    Subject &operator=(const Subject &) = delete;

    pid_t pid() const { return pid_; }
    uint64_t calls() const { return *calls_; }

  private:
    [[noreturn]] void run(uint32_t objects, bool busy) {
        bench::pin(bench::processor(1));
        CL_ErrInfo err;
        CL_Init(objects, nullptr, &err);
        CL_TRC_Init_M("/tmp/qvcl-bench-user", CL_TRC_LIB_ENTRY, CL_TRC_LIB_COUNT, nullptr,
                      CL_RING_USER);
        CL_Object *last = nullptr;
        while (CL_Object *object = CL_CreateFD(CL_KIND_TIMER, on_event, 0, 0, &err))
            last = object;
        for (*calls_ = 1;; ++*calls_) {
            if (busy) CL_StopTIMER(last, &err);
            if (!busy) pause();
        }
    }

    std::atomic<uint64_t> *calls_ = nullptr;
    pid_t pid_ = 0;
};

bench::Comparison locate() {
    const auto subject = std::make_shared<Subject>(300, false);
    const auto process = std::make_shared<Process>(subject->pid());
    return {{bench::local("modules and main table",
                          [subject, process](size_t n) {
                              while (n-- != 0) {
                                  process->look_again();
                                  const Snapshots snapshots(*process);
                                  check(snapshots.found(), "no main table");
                              }
                          }),
             bench::local("what is mapped",
                          [process](size_t n) {
                              while (n-- != 0)
                                  process->look_again();
                          })},
            {bench::times_of("that")}};
}

bench::Comparison snapshot(uint32_t objects) {
    const auto subject = std::make_shared<Subject>(objects, false);
    const auto process = std::make_shared<Process>(subject->pid());
    const auto snapshots = std::make_shared<Snapshots>(*process);
    const Snapshot first = snapshots->of_live(*process, false, "bench");
    const auto bytes = std::make_shared<std::vector<uint8_t>>(first.file.size());
    const auto main = process->get<CL_MainBlock>(snapshots->main_table());
    const uint64_t table = reinterpret_cast<uint64_t>(main->descriptor_table);
    // All sides together keep the subject alive.
    const auto take = [subject, process, snapshots](bool stop) {
        return [subject, process, snapshots, stop](size_t n) {
            while (n-- != 0)
                check(snapshots->of_live(*process, stop, "bench").failure.empty(), "no snapshot");
        };
    };
    return {{bench::local("a snapshot of " + std::to_string(bytes->size()) + " bytes", take(false)),
             bench::local("one call",
                          [process, bytes, table](size_t n) {
                              while (n-- != 0)
                                  process->read(table, bytes->data(), bytes->size());
                          }),
             bench::local("of a stopped process", take(true))},
            {bench::times_of("that")},
            5e-3};
}

// Seconds of one call, over some looks: a number of calls to wait for would be over within one.
double seconds_of_a_call(const Subject &subject) {
    const uint64_t before = subject.calls();
    const auto start = bench::Clock::now();
    std::this_thread::sleep_for(4 * kInterval);
    const double seconds = bench::since(start);
    return seconds / static_cast<double>(subject.calls() - before);
}

bench::Comparison slow_down(bool stop) {
    const auto subject = std::make_shared<Subject>(300, true);
    const auto process = std::make_shared<Process>(subject->pid());
    const auto snapshots = std::make_shared<Snapshots>(*process);
    return {{{"a call while it is read",
              [=](size_t) {
                  std::atomic<bool> end = false;
                  std::thread reader([&] {
                      while (!end) {
                          snapshots->of_live(*process, stop, "bench");
                          std::this_thread::sleep_for(kInterval);
                      }
                  });
                  const double seconds = seconds_of_a_call(*subject);
                  end = true;
                  reader.join();
                  return seconds;
              }},
             {"alone", [subject](size_t) { return seconds_of_a_call(*subject); }}},
            {bench::times_of("that")},
            0};
}

}  // namespace

int main(int argc, char **argv) {
    bench::pin(bench::processor(0));
    bench::compare("locate", locate, 31);
    bench::compare(
        "snapshot/default rings, 300 objects", [] { return snapshot(300); }, 31);
    bench::compare(
        "snapshot/default rings, 10,010 objects", [] { return snapshot(CL_MAX_OBJECTS); }, 31);
    bench::compare(
        "slow-down/live", [] { return slow_down(false); }, 11);
    bench::compare(
        "slow-down/stopped", [] { return slow_down(true); }, 11);
    return bench::run(argc, argv);
}
