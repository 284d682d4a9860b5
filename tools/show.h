// The lines of calls, and which of them are wanted.
#pragma once

#include "tools/commands.h"
#include "tools/records.h"

namespace trace_reader {

class Filter {
  public:
    Filter(const Options &options, const Dump &dump, const Trace &trace)
        : options_(options), trace_(trace) {
        const uint64_t first = trace_.records.empty() ? 0 : trace_.records.front().time;
        since_ = parse_time(options_.since, first).value_or(0);
        until_ = parse_time(options_.until, first).value_or(UINT64_MAX);
        if (options_.handle) handle_ = *options_.handle;
        if (options_.slot) handle_ = dump.address_of(*options_.slot);
    }
    bool passes(const Record &record) const {
        const bool of_calls =
            options_.apis.any() || handle_ || options_.failures || options_.slower;
        if (record.time < since_ || record.time > until_ ||
            (of_calls && record.operation == nullptr)) {
            return false;
        }
        if (options_.apis.any() && !options_.apis[record.api()]) return false;
        if (handle_ && trace_.object_of(record) != *handle_) return false;
        if (options_.failures && !trace_.is_bad(record)) return false;
        return !options_.slower || trace_.duration(record).value_or(INT64_MIN) >= *options_.slower;
    }

  private:
    const Options &options_;
    const Trace &trace_;
    uint64_t since_;
    uint64_t until_;
    std::optional<uint64_t> handle_;
};

class Lines {
  public:
    // The day that was told last.
    struct Day {
        uint64_t quarter = UINT64_MAX;
        std::string text;
    };
    Lines(const Dump &dump, const Trace &trace, Text &out, Day &day)
        : dump_(dump), trace_(trace), out_(out), day_(day) {}
    void put(const Record &record);

  private:
    void put_day(uint64_t time);

    const Dump &dump_;
    const Trace &trace_;
    Text &out_;
    Day &day_;
};

}  // namespace trace_reader
