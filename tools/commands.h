// The commands of qvcl-trace, one source file each. A command writes to `out` and notes in the dump
// what is wrong with it; its result is true unless it found something to complain about itself.
#pragma once

#include <bitset>

#include "tools/dump.h"

namespace trace_reader {

// A time on the command line; without a date it is of the day of the dump's first record.
struct Moment {
    std::tm clock{};  // local
    bool dated = false;
    bool absolute = false;  // `usec` is all of it, since the epoch
    uint64_t usec = 0;
};

struct Options {
    std::bitset<256> apis;  // none: all
    std::optional<uint64_t> slot;
    std::optional<uint64_t> handle;
    std::optional<Moment> since;
    std::optional<Moment> until;
    std::optional<int64_t> slower;  // microseconds
    bool failures = false;
    int ring = -1;
    uint64_t last = UINT64_MAX;
    bool all = false;
};

using Dumps = std::span<Dump>;
bool show(Dumps dumps, const Options &options, Text &out);
bool tables(Dumps dumps, const Options &options, Text &out);
bool report(Dumps dumps, const Options &options, Text &out);
bool export_json(Dumps dumps, const Options &options, Text &out);
bool diff(Dumps dumps, const Options &options, Text &out);
bool check(Dumps dumps, const Options &options, Text &out);

}  // namespace trace_reader
