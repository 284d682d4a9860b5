// Names of what lies in a process's modules.
#pragma once

#include <memory>

#include "tools/dump.h"

namespace trace_reader {

// Looks into the modules' files, where they are at hand and their build ids say that they are the
// same. pid: of the process, which may still run and then knows its files best.
std::shared_ptr<const Names> names_of(const std::vector<HeaderLines::Module> &modules,
                                      std::optional<uint64_t> pid);

std::string build_id_of_file(const std::string &path);  // hexadecimal; empty when it has none

}  // namespace trace_reader
