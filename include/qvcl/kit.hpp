// The test kit for C++: what <qvcl/kit.h> has, with containers, functions and scopes. C++20, no
// test framework is needed; what it returns compares and prints.
#pragma once

#include <qvcl/kit.h>
#include <qvcl/main.h>
#include <qvcl/trace_records.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace qvcl::kit {

// Throws; without exceptions the program ends here, as the test is wrong.
template <class Error>
[[noreturn]] void refuse(const std::string &text) {
#ifdef __cpp_exceptions
    throw Error(text);
#else
    fprintf(stderr, "%s\n", text.c_str());
    abort();
#endif
}

constexpr int kForever = CL_KIT_FOREVER;

// As CL_KitFault.
struct Fault {
    std::string_view call;
    int error = 0;  // not 0: the call is not made, and fails with this errno
    int nth = 1;
    int times = 1;
    size_t at_most = SIZE_MAX;               // a transfer moves no more bytes than that
    bool swallow = false;                    // the call is not made, and its result is 0
    std::function<void()> before = nullptr;  // runs first
    bool from_anyone = false;                // also calls that do not come from the library
};

// A plan in force as long as it lives, one at a time. Throws std::invalid_argument for a function
// that no plan can reach.
class Plan {
  public:
    Plan(std::initializer_list<Fault> faults = {}) : faults_(faults) {
        std::vector<std::string> names;
        std::vector<CL_KitFault> plan;
        names.reserve(faults_.size());
        for (Fault &fault : faults_) {
            CL_KitFault &one = plan.emplace_back();
            one.call = names.emplace_back(fault.call).c_str();
            one.error = fault.error;
            one.nth = fault.nth;
            one.times = fault.times;
            one.from = fault.from_anyone ? CL_KIT_ANYONE : CL_KIT_LIBRARY;
            one.at_most = fault.at_most;
            one.limited = fault.at_most != SIZE_MAX ? 1 : 0;
            one.swallow = fault.swallow ? 1 : 0;
            if (!fault.before) continue;
            one.before = [](void *function) {
                (*static_cast<std::function<void()> *>(function))();
            };
            one.context = &fault.before;
        }
        if (CL_KitPlan(plan.data(), plan.size()) == 0) {
            refuse<std::invalid_argument>("no such plan is possible");
        }
    }
    explicit Plan(const Fault &fault) : Plan({fault}) {}
    ~Plan() { CL_KitEndPlan(); }
    Plan(const Plan &) = delete;
    Plan &operator=(const Plan &) = delete;

    // Names of the library's calls so far, and how often one was called.
    std::vector<std::string_view> calls() const {
        std::vector<std::string_view> names;
        for (size_t i = 0; const char *name = CL_KitCall(i); ++i)
            names.emplace_back(name);
        return names;
    }
    int count(const char *call) const { return static_cast<int>(CL_KitCount(call)); }
    // Calls that a fault of this plan changed.
    int hits() const { return static_cast<int>(CL_KitHits()); }

  private:
    std::vector<Fault> faults_;
};

// Every function that a plan can reach.
inline const std::vector<std::string_view> &reachable_calls() {
    static const std::vector<std::string_view> names = [] {
        std::vector<std::string_view> all;
        for (size_t i = 0; const char *name = CL_KitCallName(i); ++i)
            all.emplace_back(name);
        return all;
    }();
    return names;
}

// ---- Trace records

struct Record {
    std::vector<uint8_t> bytes;

    template <class T>
    T as() const {
        T record{};
        memcpy(&record, bytes.data(), std::min(sizeof record, bytes.size()));
        return record;
    }
    CL_TrcHead head() const { return as<CL_TrcHead>(); }
};

inline std::ostream &operator<<(std::ostream &out, const Record &record) {
    const CL_TrcHead head = record.head();
    return out << "record of api " << int{head.api} << " phase " << int{head.phase} << " length "
               << head.length;
}

// The records of a ring from the entry `at` on, as of CL_KitNextRecord. Throws std::runtime_error
// when the ring is not in order.
inline std::vector<Record> records_from(const CL_TraceRing *ring, uint32_t at) {
    std::vector<Record> records;
    std::vector<uint8_t> buffer(65536);
    while (const uint32_t length =
               CL_KitNextRecord(ring, &at, buffer.data(), static_cast<uint32_t>(buffer.size())))
        records.push_back(
            {{buffer.data(), buffer.data() + std::min<size_t>(length, buffer.size())}});
    if (at != ring->next)
        refuse<std::runtime_error>("the ring is not in order at entry " + std::to_string(at));
    return records;
}

// All records of a ring, oldest first.
inline std::vector<Record> records(const CL_TraceRing *ring) {
    const bool full = ring->wrapped != 0 && ring->oldest == ring->next;
    CL_TraceEntry first;
    memcpy(&first,
           reinterpret_cast<const char *>(ring + 1) +
               size_t{ring->oldest} * (sizeof first + ring->entry_size),
           sizeof first);
    if (ring->wrapped != 0 && (first.flags & CL_ENTRY_FIRST) == 0)
        return {};  // is being overwritten
    return records_from(ring, ring->oldest + (full ? ring->entry_count : 0));
}

// The library ring's records since the tape began to run.
class Tape {
  public:
    Tape() { restart(); }
    void restart() { start_ = CL_MainTable->library_ring->next; }
    std::vector<Record> records() const { return records_from(CL_MainTable->library_ring, start_); }
    // Those of one operation.
    std::vector<Record> records(uint8_t api) const {
        std::vector<Record> result = records();
        std::erase_if(result, [api](const Record &record) { return record.head().api != api; });
        return result;
    }

  private:
    uint32_t start_;
};

// ---- Balance

// What must be the same before and after something that leaves nothing behind.
struct Balance : CL_KitBalance {
    static Balance now() {
        Balance balance;
        CL_KitGetBalance(&balance);
        return balance;
    }
    // What is different after it; empty when nothing is.
    std::string against(const Balance &before) const {
        char text[2048];
        CL_KitSame(&before, this, text, sizeof text);
        return text;
    }
    bool operator==(const Balance &other) const { return against(other).empty(); }
};

inline std::ostream &operator<<(std::ostream &out, const Balance &balance) {
    return out << "balance (differs from an empty one in: " << balance.against(Balance{}) << ")";
}

// ---- The internal log

// The lines kept since CL_KitKeepLog, without stamp and newline.
inline std::vector<std::string> log_lines() {
    std::vector<std::string> lines;
    for (size_t i = 0; const char *line = CL_KitLogLine(i); ++i)
        lines.emplace_back(line);
    return lines;
}
// The same as they came.
inline std::vector<std::string> raw_log() {
    std::vector<std::string> lines;
    for (size_t i = 0; const char *line = CL_KitRawLogLine(i); ++i)
        lines.emplace_back(line);
    return lines;
}

}  // namespace qvcl::kit
