// The heads of the rings are read every millisecond, which costs nearly nothing. The rest is read
// when a quarter of a ring is new, so that nothing is overwritten before it was seen, or when there
// is anything new for some time. A record is known again by its place and by its head.
#include "tools/looks.h"

#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "tools/modules.h"

namespace trace_reader {

namespace {

constexpr useconds_t kPoll = 1000;  // microseconds
constexpr uint64_t kLate = 50000;   // microseconds: then a single record is worth a look
constexpr size_t kKnown = 32;       // bytes that a record is known by

volatile sig_atomic_t interrupted = 0;

// Whether nobody reads the output any more: `head` has its lines, and the process may be silent for
// hours until the next one meets the closed pipe.
bool is_unread() {
    pollfd output = {STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) == 1 && (output.revents & (POLLERR | POLLHUP)) != 0;
}

}  // namespace

Looks::Looks(pid_t pid) : process_(pid), failure_(process_.failure()) {
    if (!failure_.empty()) return;
    snapshots_.emplace(process_);
    if (!snapshots_->found()) {
        failure_ = "it has not loaded libqvcl";
        return;
    }
    names_ = names_of(snapshots_->modules(), pid);
    struct sigaction action = {};
    action.sa_handler = [](int) { interrupted = 1; };
    for (const int signal : {SIGINT, SIGTERM})
        sigaction(signal, &action, nullptr);
    look();
    if (trace_ == nullptr) failure_ = "its rings cannot be read";
}

bool Looks::worth_a_look(bool late) {
    const auto main = process_.get<CL_MainBlock>(snapshots_->main_table());
    if (!main) return true;
    for (const int ring : {CL_RING_LIBRARY, CL_RING_USER}) {
        const auto *place = ring == CL_RING_LIBRARY ? main->library_ring : main->user_ring;
        const std::vector<uint8_t> mark = mark_of(process_, address(place));
        if (mark == seen_[ring]) continue;
        const auto head = load<CL_TraceRing>(mark, 0), before = load<CL_TraceRing>(seen_[ring], 0);
        const uint64_t count = std::max(head.entry_count, 1u);
        const uint64_t written = (head.next % count + count - before.next % count) % count;
        if (late || before.wrapped != head.wrapped || written >= count / 4) return true;
    }
    return false;
}

bool Looks::next(int milliseconds) {
    if (is_unread()) return false;
    const uint64_t begin = now();
    const uint64_t end = begin + 1000 * static_cast<uint64_t>(milliseconds);
    for (uint64_t time = begin; time < end; time = now()) {
        if (interrupted != 0 || !process_.failure().empty()) return false;
        if (worth_a_look(time - begin >= kLate)) break;
        usleep(kPoll);
    }
    look();
    return true;
}

void Looks::look() {
    if (const auto main = process_.get<CL_MainBlock>(snapshots_->main_table())) {
        seen_[CL_RING_LIBRARY] = mark_of(process_, address(main->library_ring));
        seen_[CL_RING_USER] = mark_of(process_, address(main->user_ring));
    }
    std::vector<uint8_t> file = snapshots_->rings_of_live();
    if (file.empty()) {
        process_.look_again();  // a ring may be new, in memory that is
        return;
    }
    trace_.reset();
    file_ = std::move(file);
    source_ = std::make_unique<Source>(Bytes(file_));
    dump_ = std::make_unique<Dump>();
    dump_->load(*source_, false);
    dump_->names = names_;
    dump_->time = now();
    dump_->time_from = TimeFrom::snapshot;
    trace_ = std::make_unique<Trace>(*dump_);
    find_fresh();
}

bool Looks::is_marked(const Record &record) const {
    const Mark &mark = marks_[record.ring];
    const Bytes head = part(record.bytes, 0, kKnown);
    return record.offset == mark.offset && head.size() == mark.head.size() &&
           std::equal(head.begin(), head.end(), mark.head.begin());
}

void Looks::find_fresh() {
    fresh_.clear();
    lost_ = false;
    bool passed[2];
    for (const int ring : {CL_RING_LIBRARY, CL_RING_USER}) {
        const bool there = std::ranges::any_of(trace_->records, [&](const Record &record) {
            return record.ring == ring && is_marked(record);
        });
        passed[ring] = !there;
        // Of a ring that was empty nothing is missing until it has been full.
        const bool was_more = !marks_[ring].head.empty() || dump_->rings[ring].head.wrapped != 0;
        lost_ = lost_ || (!there && was_more && looked_);
    }
    looked_ = true;
    for (uint32_t i = 0; i < trace_->records.size(); ++i) {
        const Record &record = trace_->records[i];
        if (passed[record.ring]) {
            fresh_.push_back(i);
        } else {
            passed[record.ring] = is_marked(record);
        }
    }
}

void Looks::take(size_t count) {
    for (const uint32_t i : std::span(fresh_).first(count)) {
        const Record &record = trace_->records[i];
        const Bytes head = part(record.bytes, 0, kKnown);
        marks_[record.ring] = {record.offset, {head.begin(), head.end()}};
    }
    fresh_.erase(fresh_.begin(), fresh_.begin() + static_cast<ptrdiff_t>(count));
    lost_ = false;
}

}  // namespace trace_reader
