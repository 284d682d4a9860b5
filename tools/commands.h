// The commands of qvcl-trace, one source file each. A command writes to `out` and notes in the dump
// what is wrong with it; its result is true unless it found something to complain about itself.
#pragma once

#include <bitset>

#include "tools/dump.h"

namespace trace_reader {

struct Options {
    Access access;
    std::string out;        // the file to write; empty: as the command thinks best
    std::bitset<256> apis;  // operations to show; all when no bit is set
    std::optional<uint64_t> slot;
    std::optional<uint64_t> handle;
    std::string since;  // a text that parse_time takes, or empty, like `until`
    std::string until;
    std::optional<int64_t> slower;  // least duration in microseconds
    bool failures = false;
    int ring = -1;  // negative: both
    uint64_t last = UINT64_MAX;
    bool all = false;
    int64_t interval = 1000000;    // microseconds between two tables of `top`
    std::optional<int64_t> stall;  // microseconds that a callback may be open
    uint64_t max = 10;             // snapshots
};

// Reads "[YYYY-MM-DD ]HH:MM[:SS[.FRACTION]]" as local time. Returns microseconds since the epoch,
// or nothing for any other text. A text without a date means the day on which the time `day`
// (microseconds since the epoch) falls.
std::optional<uint64_t> parse_time(const std::string &text, uint64_t day);

// Writes all of the source into a file, mode 0600, that is there whole or not at all. Throws when
// it cannot be written.
void write_file(const std::string &path, const Source &source);

using Dumps = std::span<Dump>;
bool show(Dumps dumps, const Options &options, Text &out);
bool tables(Dumps dumps, const Options &options, Text &out);
bool report(Dumps dumps, const Options &options, Text &out);
bool export_json(Dumps dumps, const Options &options, Text &out);
bool flow(Dumps dumps, const Options &options, Text &out);
bool diff(Dumps dumps, const Options &options, Text &out);
bool check(Dumps dumps, const Options &options, Text &out);
bool snap(Dumps dumps, const Options &options, Text &out);

// These go on until the process ends, or a signal comes. They are true if they could do all that
// they were to do.
class Looks;
bool follow(Looks &looks, const Options &options, Text &out, Text &err);
bool top(Looks &looks, const Options &options, Text &out, Text &err);
bool watch(Looks &looks, const Options &options, Text &out, Text &err);

}  // namespace trace_reader
