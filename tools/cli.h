// The command line of qvcl-trace without its process: tests call it with output that stays in
// memory.
#pragma once

#include "tools/commands.h"
#include "tools/source.h"

namespace trace_reader {

// Exit status: kDamaged also when diff finds a difference, kUsage also when a source cannot be read
// or a file not be written.
enum Status { kFine = 0, kDamaged = 1, kUsage = 2 };

struct Command {
    std::string_view name;
    bool (*run)(Dumps dumps, const Options &options, Text &out);
    size_t files;  // at least
    bool objects;  // whether it reads the descriptor table
    std::string_view help;
    size_t most_files = files;
    std::string_view writes = {};  // one more word that names what to write; empty: takes none
    // Instead of `run`: looks at a live process for some time.
    bool (*live)(Looks &looks, const Options &options, Text &out, Text &err) = nullptr;

    // Any dumps, and writes to `out`.
    bool only_reads() const { return writes.empty() && live == nullptr; }
};
extern const std::span<const Command> kCommands;

// Loads the dumps and runs the command over them. The command's output goes to `out`, what is wrong
// with the files to `err` when the command is done. Each of `names` stands for the source of the
// same index.
Status run_command(const Command &command, const Options &options,
                   std::span<const std::string> names, std::span<const Source *const> sources,
                   Text &out, Text &err);

// The whole program: parses the arguments, opens the files, runs the command.
Status run(int argc, char **argv, Text &out, Text &err);

}  // namespace trace_reader
