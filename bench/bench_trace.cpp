// The flight recorder: what a record costs, and what recording adds to a public call.
//
// The floor of a record is what no recorder can do without: one clock read, one copy of its bytes
// to a place where it stays. A tracer that people use stands beside it.
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <sys/time.h>
#include <cstring>
#include <memory>

#include <qvcl/qvcl.h>
#include <qvcl/trace_records.h>

#include "bench/support.h"

namespace {

using bench::Comparison;
using bench::local;
using bench::Times;

// As many records as the library ring holds, so that both sides use as much memory.
template <class Record>
struct Ring {
    Record records[CL_TRC_LIB_COUNT];
    size_t next = 0;

    void write(Record &record) {
        struct timeval now;
        gettimeofday(&now, nullptr);
        record.head.seconds = static_cast<uint64_t>(now.tv_sec);
        record.head.microseconds = static_cast<uint64_t>(now.tv_usec);
        memcpy(&records[next], &record, sizeof record);
        next = next + 1 < CL_TRC_LIB_COUNT ? next + 1 : 0;
    }
};

template <class Record>
Record record_of(uint8_t api) {
    Record record = {};
    record.head.length = sizeof record;
    record.head.api = api;
    return record;
}

template <class Record>
bench::Side library_record(uint8_t api) {
    auto record = std::make_shared<Record>(record_of<Record>(api));
    return local("qvcl", [record](size_t n) {
        while (n-- != 0) {
            CL_TRC_Write_M(record.get(), CL_RING_LIBRARY);
            benchmark::ClobberMemory();
        }
    });
}

Comparison record() {
    auto ring = std::make_shared<Ring<CL_TrcHandle>>();
    auto logger =
        std::make_shared<spdlog::logger>("ring", std::make_shared<spdlog::sinks::null_sink_st>());
    logger->set_level(spdlog::level::off);
    logger->enable_backtrace(CL_TRC_LIB_COUNT);
    return {{
                library_record<CL_TrcHandle>(CL_API_DELETE_FD),
                local("clock + copy",
                      [ring](size_t n) {
                          auto mine = record_of<CL_TrcHandle>(CL_API_DELETE_FD);
                          while (n-- != 0) {
                              ring->write(mine);
                              benchmark::ClobberMemory();
                          }
                      }),
                local("spdlog backtrace",
                      [logger](size_t n) {
                          while (n-- != 0) {
                              logger->info("CL_DeleteFD_M({:p}) returns {} at {}:{}",
                                           static_cast<void *>(logger.get()), n, "program.c", 42);
                          }
                      }),
            },
            {bench::times_of("clock + copy", 1.5)}};
}

// What the public call adds to its worker, in records of the call's own length.
Comparison call(const std::function<void()> &traced, const std::function<void()> &worker,
                bench::Side record) {
    const auto repeated = [](const std::function<void()> &once) {
        return [once](size_t n) {
            while (n-- != 0)
                once();
        };
    };
    record.name = "one record";
    return {{local("call", repeated(traced)), local("worker", repeated(worker)), std::move(record)},
            {{"records' cost is what the call adds to its worker",
              [](const Times &t) { return (t[0] - t[1]) / t[2]; }, bench::Figure::at_most, 3}}};
}

void add_calls() {
    static CL_ErrInfo err;
    static CL_Object *const thread = CL_CreateFD(CL_KIND_THREAD, nullptr, 0, 0, &err);
    static CL_Object *const user = CL_CreateFD(CL_KIND_FD, nullptr, 0, 0, &err);
    static CL_Object *const timer = CL_CreateFD(CL_KIND_TIMER, nullptr, 0, 0, &err);
    bench::check(thread != nullptr && user != nullptr && timer != nullptr, "CL_CreateFD");
    static fd_set reads;
    FD_SET(0, &reads);

    bench::compare("call/CL_SetThreadFd, 104 bytes", [] {
        return call([] { CL_SetThreadFd(thread, &err); },
                    [] { cl_setThreadFd(thread, &err, 0, "bench", 1); },
                    library_record<CL_TrcHandle>(CL_API_SET_THREAD));
    });
    bench::compare("call/CL_StopTIMER that fails, 104 bytes", [] {
        return call([] { CL_StopTIMER(timer, &err); }, [] { cl_stoptimer(timer, &err, 0); },
                    library_record<CL_TrcHandle>(CL_API_STOP_TIMER));
    });
    bench::compare("call/CL_SetFD, 496 bytes", [] {
        return call([] { CL_SetFD(user, 1, &reads, nullptr, nullptr, &err); },
                    [] { cl_setfd(user, 1, &reads, nullptr, nullptr, &err, 0); },
                    library_record<CL_TrcSetFd>(CL_API_SET_FD));
    });
}

}  // namespace

int main(int argc, char **argv) {
    bench::pin(bench::processor(1));
    bench::check(CL_Init(10, nullptr, nullptr) == 1, "CL_Init");
    bench::compare("record of 104 bytes", record);
    add_calls();
    return bench::run(argc, argv);
}
