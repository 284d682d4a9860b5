// Core files.
#pragma once

#include "tools/snapshot.h"

namespace trace_reader {

// What a process had in its rings and tables when it left the core file that is open at `fd`.
// written: when the file was, in microseconds since the epoch. exe: the executable that belongs to
// it, for the names in it, where the path that the core knows does not lead to it; or empty.
Snapshot snapshot_of_core(int fd, uint64_t written, const std::string &exe);

}  // namespace trace_reader
