// Where in the library something happened: the source files that fill error records, and the
// location numbers that name a line of theirs.
//
//     location = reason * 1000000 + range * 10000 + line
//
// A module number may span several files, so each file has a range, and a number names one site of
// its module. A header that files of several modules share keeps its range in all of them. A check
// that refuses on behalf of its caller gives the caller's line, and one that has several reasons
// tells them apart by the first digit.
//
// Who adds a source file that fills error records adds its row; qvcl-trace prints places by the
// same table.
#pragma once

#include <string_view>

#include <qvcl/base.h>
#include <qvcl/channel.h>
#include <qvcl/nest.h>
#include <qvcl/recorder.h>
#include <qvcl/source.h>
#include <qvcl/starter.h>

namespace qvcl {

struct Place {
    uint32_t module;
    uint32_t range;
    const char *file;
};

inline constexpr uint32_t kShared = 0;  // the module of a shared header's row: its includers'

inline constexpr Place kSources[] = {
    {CL_MODULE_MAIN, 0, "core/cl_main.cpp"},
    {CL_MODULE_MAIN, 1, "msg/cl_execcomp.cpp"},
    {CL_MODULE_LOOP, 0, "loop/cl_loop.cpp"},
    {CL_MODULE_FD, 0, "loop/cl_fd.cpp"},
    {CL_MODULE_FD, 1, "loop/cl_eventlist.cpp"},
    {CL_MODULE_MSGS, 0, "msg/cl_fd_msgs.cpp"},
    {CL_MODULE_MSGC, 0, "msg/cl_fd_msgc.cpp"},
    {CL_MODULE_MSGC, 1, "msg/cl_transfer.cpp"},
    {CL_MODULE_TIMER, 0, "sources/cl_fd_timer.cpp"},
    {CL_MODULE_FILE, 0, "io/cl_fd_file.cpp"},
    {CL_MODULE_SHM, 0, "io/cl_fd_shm.cpp"},
    {CL_MODULE_USERFD, 0, "io/cl_fd_fd.cpp"},
    {CL_MODULE_CHILD, 0, "sources/cl_fd_child.cpp"},
    {CL_MODULE_LOG, 0, "diag/cl_log.cpp"},
    {CL_MODULE_THREAD, 0, "loop/cl_thread.cpp"},
    {CL_MODULE_STARTER, 0, "starter/cl_starter.cpp"},
    {CL_MODULE_RECORDER, 0, "starter/cl_crash.cpp"},
    {CL_MODULE_NEST, 0, "starter/cl_nest.cpp"},
    {CL_MODULE_NEST, 1, "starter/cl_nest_timer.cpp"},
    {CL_MODULE_NEST, 2, "starter/cl_nest_watch.cpp"},
    {CL_MODULE_NEST, 3, "starter/cl_nest_post.cpp"},
    {CL_MODULE_NEST, 4, "starter/cl_nest_signal.cpp"},
    {CL_MODULE_NEST, 5, "starter/cl_nest_process.cpp"},
    {CL_MODULE_CHANNEL, 0, "starter/cl_channel.cpp"},
    {CL_MODULE_CHANNEL, 1, "starter/cl_channel_listener.cpp"},
    {CL_MODULE_SOURCE, 0, "starter/cl_source.cpp"},
    {kShared, 10, "loop/loop_policy.h"},
    {kShared, 11, "core/signal_handler.h"},
    {kShared, 12, "msg/socket.h"},
    {kShared, 13, "io/open_descriptor.h"},
};

inline constexpr uint32_t kLinesOfFile = 10000;
inline constexpr uint32_t kRanges = 100;
inline constexpr uint32_t kReasonStep = kRanges * kLinesOfFile;

consteval bool sources_are_unique() {
    for (const Place &a : kSources) {
        if (a.range >= kRanges) return false;
        for (const Place &b : kSources) {
            if (&a == &b) continue;
            const bool meet = a.module == b.module || a.module == kShared || b.module == kShared;
            if (meet && a.range == b.range) return false;
            if (std::string_view(a.file).ends_with(b.file)) return false;
        }
    }
    return true;
}
static_assert(sources_are_unique(), "a file is listed twice, or has a range that is taken");

void this_file_is_not_in_the_table_of_sources();  // never defined: the name is the compiler's
                                                  // message

// The row of the source file that asks: place(__FILE__).
consteval Place place(std::string_view path) {
    for (const Place &row : kSources)
        if (path.ends_with(row.file)) return row;
    this_file_is_not_in_the_table_of_sources();
    return {};
}

// The row that a module's location number names; null: none does.
constexpr const Place *place_at(uint32_t module, uint32_t location) {
    const uint32_t range = location / kLinesOfFile % kRanges;
    for (const Place &row : kSources)
        if ((row.module == module || row.module == kShared) && row.range == range) return &row;
    return nullptr;
}

constexpr uint32_t line_at(uint32_t location) {
    return location % kLinesOfFile;
}

}  // namespace qvcl
