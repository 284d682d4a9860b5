// The tables of names. A macro makes each name out of its enumerator, so that the two cannot
// differ.
#include "tools/names.h"

#include <qvcl/channel.h>
#include <qvcl/main.h>
#include <qvcl/message.h>
#include <qvcl/nest.h>
#include <qvcl/recorder.h>
#include <qvcl/source.h>
#include <qvcl/starter.h>
#include <qvcl/timer.h>

#include <algorithm>
#include <cstring>

#include "core/places.h"

namespace trace_reader {

namespace {

struct Name {
    uint64_t value;
    std::string_view name;
};
#define NAME(prefix, word) \
    { prefix##word, #word }

constexpr Name kKinds[] = {
#define KIND_NAME(number, symbol, name) {number, name},
    CL_KINDS(KIND_NAME)
#undef KIND_NAME
};
constexpr Name kEvents[] = {NAME(CL_EVENT_, CONNECTION),
                            NAME(CL_EVENT_, CONNECTED),
                            NAME(CL_EVENT_, MESSAGE),
                            NAME(CL_EVENT_, SENT),
                            NAME(CL_EVENT_, DISCONNECT),
                            NAME(CL_EVENT_, EXEC_COMPLETE),
                            NAME(CL_EVENT_, CHILD_END),
                            NAME(CL_EVENT_, TIMER),
                            NAME(CL_EVENT_, END),
                            NAME(CL_EVENT_, DESCRIPTOR),
                            NAME(CL_EVENT_, FAILED),
                            NAME(CL_EVENT_, WAKE),
                            NAME(CL_EVENT_, NEST_TIMER),
                            NAME(CL_EVENT_, NEST_WATCH),
                            NAME(CL_EVENT_, NEST_POST),
                            NAME(CL_EVENT_, NEST_SIGNAL),
                            NAME(CL_EVENT_, NEST_PROCESS),
                            NAME(CL_EVENT_, CHANNEL_READ),
                            NAME(CL_EVENT_, CHANNEL_WRITE),
                            NAME(CL_EVENT_, CHANNEL_DRAINED),
                            NAME(CL_EVENT_, CHANNEL_CLOSED),
                            NAME(CL_EVENT_, CHANNEL_WAITING)};
constexpr Name kModes[] = {NAME(CL_MODE_, SYNC), NAME(CL_MODE_, IMMEDIATE),
                           NAME(CL_MODE_, DEFERRED), NAME(CL_TIMER_, ONESHOT),
                           NAME(CL_TIMER_, PERIODIC)};
constexpr Name kStates[] = {NAME(CL_STATE_, CONSTRUCTED), NAME(CL_STATE_, INITIALISED),
                            NAME(CL_STATE_, ENDED), NAME(CL_STATE_, FAILED)};
constexpr Name kModules[] = {
    NAME(CL_MODULE_, MAIN),    NAME(CL_MODULE_, LOOP),     NAME(CL_MODULE_, FD),
    NAME(CL_MODULE_, MSGS),    NAME(CL_MODULE_, MSGC),     NAME(CL_MODULE_, TIMER),
    NAME(CL_MODULE_, FILE),    NAME(CL_MODULE_, SHM),      NAME(CL_MODULE_, USERFD),
    NAME(CL_MODULE_, CHILD),   NAME(CL_MODULE_, LOG),      NAME(CL_MODULE_, THREAD),
    NAME(CL_MODULE_, STARTER), NAME(CL_MODULE_, RECORDER), NAME(CL_MODULE_, NEST),
    NAME(CL_MODULE_, CHANNEL), NAME(CL_MODULE_, SOURCE)};
constexpr Name kErrors[] = {NAME(CL_ERR_, QUEUE), NAME(CL_ERR_, IN_PROGRESS), NAME(CL_ERR_, STATE)};
constexpr Name kStatusBits[] = {NAME(CL_STATUS_, READY), NAME(CL_STATUS_, LISTED),
                                NAME(CL_STATUS_, RUNNING), NAME(CL_STATUS_, FAILED)};
constexpr Name kSubStatusBits[] = {NAME(CL_SUB_, CONNECT_PENDING), NAME(CL_SUB_, RECV_PENDING),
                                   NAME(CL_SUB_, SEND_PENDING),    NAME(CL_SUB_, PERIODIC),
                                   NAME(CL_SUB_, EXEC_AWAITED),    NAME(CL_SUB_, EXEC_COMPLETE)};

constexpr std::string_view find(std::span<const Name> names, uint64_t value) {
    const auto found = std::ranges::find(names, value, &Name::value);
    return found == names.end() ? std::string_view() : found->name;
}
static_assert(std::ranges::all_of(qvcl::kSources,
                                  [](const qvcl::Place &source) {
                                      return source.module == qvcl::kShared ||
                                             !find(kModules, source.module).empty();
                                  }),
              "every module has a name");

void put_name(Text &out, std::span<const Name> names, uint64_t value) {
    if (const auto name = find(names, value); !name.empty()) {
        out << name;
    } else {
        out << value;
    }
}

void put_bits(Text &out, std::span<const Name> names, uint64_t bits) {
    if (bits == 0) out << '0';
    std::string_view between;
    for (const Name &bit : names) {
        if ((bits & bit.value) != bit.value) continue;
        out << between << bit.name;
        between = "|";
        bits &= ~bit.value;
    }
    if (bits != 0) (out << between).hex(bits);
}

void put_set(Text &out, std::string_view name, Bytes set) {
    const int last = static_cast<int>(set.size() * 8);
    const auto holds = [&](int fd) {
        return fd < last && (set[static_cast<size_t>(fd) / 8] >> (fd % 8) & 1) != 0;
    };
    bool first = true;
    for (int fd = 0; fd < last; ++fd) {
        if (!holds(fd)) continue;
        const int begin = fd;
        while (holds(fd + 1))
            ++fd;
        out << (first ? name : std::string_view(",")) << begin;
        if (fd > begin) out << '-' << fd;
        first = false;
    }
}

// The source line that noticed a failure. Of another version only its numbers are known.
void put_place(Text &out, const CL_ErrInfo &error) {
    const qvcl::Place *place =
        error.version == CL_VERSION ? qvcl::place_at(error.module, error.line) : nullptr;
    if (place != nullptr) {
        out << place->file << ':' << qvcl::line_at(error.line);
    } else {
        put_name(out, kModules, error.module);
        out << ':' << error.line;
    }
}

}  // namespace

std::string_view kind_name(uint64_t kind) {
    return find(kKinds, kind);
}
void put_kind(Text &out, uint64_t kind) {
    put_name(out, kKinds, kind);
}
void put_event(Text &out, uint64_t type) {
    put_name(out, kEvents, type);
}
void put_mode(Text &out, uint64_t mode) {
    put_name(out, kModes, mode);
}
void put_state(Text &out, uint64_t state) {
    put_name(out, kStates, state);
}
void put_status(Text &out, uint64_t bits) {
    put_bits(out, kStatusBits, bits);
}
void put_sub_status(Text &out, uint64_t bits) {
    put_bits(out, kSubStatusBits, bits);
}

void put_error_code(Text &out, uint64_t code) {
    if (const auto name = find(kErrors, code); !name.empty()) {
        out << name;
    } else if (const char *word = strerrorname_np(static_cast<int>(code));
               word != nullptr && code != 0) {
        out << word;
    } else {
        out << code;
    }
}

void put_error(Text &out, const CL_ErrInfo &error) {
    put_error_code(out, error.err);
    if (error.err == 0) return;
    put_place(out << " (", error);
    if (error.detail != error.err) {
        out << ", detail ";
        put_error_code(out, error.detail);
    }
    out << ')';
}

void put_version(Text &out, uint64_t version) {
    out << (version >> 24) << '.' << (version >> 16 & 255) << '.' << (version >> 8 & 255);
    if ((version & 255) != 0) out << '+' << (version & 255);
}

void put_sets(Text &out, Bytes sets) {
    const size_t before = out.size();
    const size_t each = sizeof(fd_set);
    static constexpr std::string_view kNames[] = {"read ", " write ", " except "};
    for (size_t i = 0; i < 3 && (i + 1) * each <= sets.size(); ++i) {
        put_set(out, kNames[i].substr(i != 0 && out.size() == before ? 1 : 0),
                sets.subspan(i * each, each));
    }
    if (out.size() == before) out << "none";
}

}  // namespace trace_reader
