#include "tools/ending.h"

#include <algorithm>
#include <csignal>

#include "tools/render.h"

namespace trace_reader {

namespace {

constexpr size_t kDurationWidth = 10;
constexpr size_t kMostOpen = 20;

// What a signal's code says, in words; empty when that is not known. Codes from 1 on mean something
// else for each signal, the others the same for all.
std::string_view meaning_of(uint64_t number, int64_t code) {
    static constexpr struct {
        int number;
        int code;
        std::string_view meaning;
    } kMeanings[] = {
        {0, SI_USER, "sent by a process"},
        {0, SI_QUEUE, "sent by a process"},
        {0, SI_TKILL, "sent to the thread, as by abort()"},
        {SIGSEGV, SI_KERNEL, "no valid address"},
        {SIGSEGV, SEGV_MAPERR, "address not mapped"},
        {SIGSEGV, SEGV_ACCERR, "access not permitted"},
        {SIGBUS, BUS_ADRALN, "address not aligned"},
        {SIGBUS, BUS_ADRERR, "nothing there, as behind the end of a mapped file"},
        {SIGBUS, BUS_OBJERR, "hardware error"},
        {SIGFPE, FPE_INTDIV, "integer division by zero"},
        {SIGFPE, FPE_INTOVF, "integer overflow"},
        {SIGILL, ILL_ILLOPC, "no such instruction"},
        {SIGILL, ILL_ILLOPN, "no such operand"},
    };
    for (const auto &row : kMeanings) {
        const bool is_its = row.number == 0 || static_cast<uint64_t>(row.number) == number;
        if (is_its && row.code == code) return row.meaning;
    }
    return {};
}

// The innermost open record for which the condition holds; null when there is none.
template <class Condition>
const Record *innermost(const Trace &trace, Condition condition) {
    for (auto i = trace.open.rbegin(); i != trace.open.rend(); ++i) {
        if (condition(trace.records[*i])) return &trace.records[*i];
    }
    return nullptr;
}

bool is_loop(const Record &record) {
    return record.api() == CL_API_LOOP;
}

// The exit record that was written last; null when there is none.
const Record *last_exit(const Trace &trace) {
    for (auto record = trace.records.rbegin(); record != trace.records.rend(); ++record) {
        if (record->is_call() && record->exit) return &*record;
    }
    return nullptr;
}

}  // namespace

void put_call(Text &out, const Dump &dump, const Trace &trace, const Record &record) {
    put_title(out, record);
    if (record.is_callback()) put_callback(out << ' ', dump, record);
    if (const uint64_t object = trace.object_of(record)) put_object(out << " of ", dump, object);
    if (!record.is_callback()) put_position(out << ", called at ", record);
}

void put_killed(Text &out, const Dump &dump, const Trace &trace) {
    if (!dump.header.signal) return;
    const HeaderLines::Signal &signal = *dump.header.signal;
    out << "killed by ";
    if (signal.name.empty()) {
        put_signal(out, signal.number);
    } else {
        out.plain(signal.name);
    }
    // The address is that of a fault only when the processor found one.
    if (signal.address && signal.code.value_or(1) > 0) {
        out << " at address ";
        out.hex(*signal.address);
    }
    if (signal.code) {
        const std::string_view meaning = meaning_of(signal.number, *signal.code);
        out << " (" << meaning;
        if (meaning.empty()) out << "code " << *signal.code;
        out << ')';
    }
    if (signal.thread) out << " in thread " << *signal.thread;
    const bool other = signal.thread && dump.header.pid && *signal.thread != *dump.header.pid;
    if (other) out << ", not the first of the process";
    const Record *callback = innermost(trace, [](const Record &r) { return r.is_callback(); });
    const Record *call =
        innermost(trace, [](const Record &r) { return !r.is_callback() && !is_loop(r); });
    if (call != nullptr && callback != nullptr && call < callback) call = nullptr;
    // The loop may run in another thread than the one that died.
    const std::string_view in = other ? ", while there ran " : ", in ";
    for (const Record *record : {call, callback}) {
        if (record != nullptr) put_call(out << in, dump, trace, *record);
    }
    if (call == nullptr && callback == nullptr) out << ", in no callback and no call";
    out << '\n';
}

void put_open_for(Text &out, const Trace &trace, const Record &record) {
    out << "not finished, open for ";
    out.duration(trace.open_for(record));
}

void put_open(Text &out, const Dump &dump, const Trace &trace) {
    if (std::ranges::none_of(trace.records, &Record::is_call)) return;
    const Record *loop = innermost(trace, is_loop);
    const size_t others = trace.open.size() - (loop != nullptr ? 1 : 0);
    const Record *last = last_exit(trace);
    // A call may be open whose beginning is overwritten by what it did since: such as the loop.
    const bool wrapped = dump.rings[CL_RING_LIBRARY].head.wrapped != 0;
    const bool in_loop = loop != nullptr || (last != nullptr && last->is_callback());
    out << (others != 0 ? "not returned at "
            : in_loop   ? "in no callback at "
            : wrapped   ? "in nothing that began within the trace, at "
                        : "in no call at ");
    out.day(trace.until) << ' ';
    out.clock(trace.until) << " (by " << name_of(trace.until_from) << ')';
    if (loop != nullptr) {
        put_title(out << ", in ", *loop);
        out << " for ";
        out.duration(trace.open_for(*loop));
    }
    if (others == 0 && last != nullptr) {
        const Record *entry = trace.partner(*last);
        put_call(out << "; the last was ", dump, trace, entry != nullptr ? *entry : *last);
        out << ", which ended ";
        out.duration(trace.open_for(*last)) << " before";
    }
    out << (others != 0 ? ":\n" : "\n");
    size_t depth = 0;
    for (const uint32_t i : trace.open) {
        const Record &record = trace.records[i];
        if (&record == loop) continue;
        if (depth == kMostOpen) {
            out << "  and " << others - depth << " more\n";
            break;
        }
        out.right(Text().duration(trace.open_for(record)).str(), kDurationWidth);
        out.fill(2 + 2 * depth++);
        put_call(out, dump, trace, record);
        out << ", since ";
        out.clock(record.time) << '\n';
    }
}

void put_origin(Text &out, const Dump &dump) {
    if (!dump.header.command.empty()) {
        if (dump.header.pid) out << "process " << *dump.header.pid << ": ";
        out.plain(dump.header.command) << '\n';
    }
    for (const std::string &what : dump.header.incomplete)
        (out << "incomplete: ").plain(what) << '\n';
}

}  // namespace trace_reader
