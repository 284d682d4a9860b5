// The command line of qvcl-trace without its process: tests call it with output that stays in
// memory.
#pragma once

#include "tools/commands.h"
#include "tools/source.h"

namespace trace_reader {

enum Status { kFine = 0, kDamaged = 1, kUsage = 2 };  // kDamaged: or it differs

struct Command {
    std::string_view name;
    bool (*run)(Dumps dumps, const Options &options, Text &out);
    size_t files;
    bool objects;  // whether it reads the descriptor table
    std::string_view help;
};
extern const std::span<const Command> kCommands;

// What is wrong with the files goes to `err` at the end.
Status run_command(const Command &command, const Options &options,
                   std::span<const std::string> names, std::span<const Source *const> sources,
                   Text &out, Text &err);

Status run(int argc, char **argv, Text &out, Text &err);

}  // namespace trace_reader
