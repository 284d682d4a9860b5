// top: what a live process did most since the last table. Counted are calls that returned
// meanwhile; the shares of time are those of callbacks, with the ones still open, and of the
// application's own calls outside of them. The rest is the loop's wait, and whatever is no call of
// the library.
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <map>

#include "tools/commands.h"
#include "tools/looks.h"
#include "tools/render.h"

namespace trace_reader {

namespace {

constexpr int kWait = 50;       // milliseconds
constexpr size_t kSlowest = 5;  // callbacks
constexpr size_t kRows = 20;    // operations
constexpr size_t kNameWidth = 28, kWidth = 11;

struct Row {
    uint64_t count = 0, failures = 0;
    int64_t total = 0, longest = 0;
};

struct Slow {
    int64_t duration;
    std::string what;
};

enum class Order { count, time, longest };

// Keys without Enter, for as long as it lives, when standard input is a terminal. Only for a table
// on a terminal: a job in the background that touches its terminal's modes is stopped.
class Keys {
  public:
    explicit Keys(bool wanted) {
        if (!wanted || tcgetattr(STDIN_FILENO, &saved_) != 0) return;
        termios raw = saved_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        is_terminal_ = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
    }
    ~Keys() {
        if (is_terminal_) tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
    }
    Keys(const Keys &) = delete;
    Keys &operator=(const Keys &) = delete;

    char pressed() const {  // 0: none
        pollfd input = {STDIN_FILENO, POLLIN, 0};
        char key = 0;
        return is_terminal_ && poll(&input, 1, 0) == 1 && read(STDIN_FILENO, &key, 1) == 1 ? key
                                                                                           : '\0';
    }

  private:
    termios saved_{};
    bool is_terminal_ = false;
};

class Counts {
  public:
    uint64_t began() const { return began_; }
    void add(Looks &looks);
    void put_summary(Text &out, Looks &looks, bool brief) const;
    void put_rows(Text &out, Order order) const;
    explicit Counts(const Process &process) : began_(now()), used_(process.used()) {}

  private:
    void add_call(Looks &looks, const Record &exit);
    int64_t open_time(const Looks &looks) const;

    uint64_t began_;
    uint64_t used_;  // processor time at the beginning
    uint64_t calls_ = 0, callbacks_ = 0, records_ = 0, failures_ = 0;
    bool lost_ = false;
    int64_t in_callbacks_ = 0, in_calls_ = 0;
    std::map<std::string, Row> rows_;
    std::vector<Slow> slowest_;
};

// A call is counted when it returns, whole, or what of it lies behind the beginning.
void Counts::add_call(Looks &looks, const Record &exit) {
    const Trace &trace = looks.trace();
    const Record *entry = trace.partner(exit);
    const Record &told = entry != nullptr ? *entry : exit;
    const auto duration = static_cast<int64_t>(exit.time - told.time);
    Text title;
    put_title(title, told);
    Row &row = rows_[title.str()];
    ++row.count;
    const bool bad = trace.is_bad(told);
    row.failures += bad ? 1 : 0;
    failures_ += bad ? 1 : 0;
    row.total += duration;
    row.longest = std::max(row.longest, duration);
    const bool in_loop = told.parent == kNone || trace.records[told.parent].api() == CL_API_LOOP;
    const int64_t recent = std::min(duration, static_cast<int64_t>(exit.time - began_));
    if (in_loop && told.api() != CL_API_LOOP) {
        (told.is_callback() ? in_callbacks_ : in_calls_) += std::max<int64_t>(recent, 0);
    }
    ++(told.is_callback() ? callbacks_ : calls_);
    if (!told.is_callback() ||
        (slowest_.size() == kSlowest && duration <= slowest_.back().duration)) {
        return;
    }
    const auto function = load<uint64_t>(told.bytes, offsetof(CL_TrcCallback, callback));
    const std::string name = function_name(looks.dump(), function);
    put_object(title << ' ', looks.dump(), trace.object_of(told));
    slowest_.push_back({duration, title.str() + ' ' + name});
    std::ranges::stable_sort(slowest_, std::greater(), &Slow::duration);
    slowest_.resize(std::min(slowest_.size(), kSlowest));
}

void Counts::add(Looks &looks) {
    lost_ = lost_ || looks.lost();
    for (const uint32_t i : looks.fresh()) {
        const Record &record = looks.trace().records[i];
        ++records_;
        if (record.is_call() && record.exit) add_call(looks, record);
    }
    looks.take(looks.fresh().size());
}

int64_t Counts::open_time(const Looks &looks) const {
    for (const uint32_t i : looks.trace().open) {
        const Record &record = looks.trace().records[i];
        if (record.is_callback())
            return static_cast<int64_t>(now() - std::max(record.time, began_));
    }
    return 0;
}

void put_lists(Text &out, const CL_MainBlock &main) {
    const std::pair<const char *, const CL_Queue *> lists[] = {
        {"used", &main.used_queue},      {"priority", &main.priority_list},
        {"pending", &main.pending_list}, {"timers", &main.timer_list},
        {"children", &main.child_list},  {"threads", &main.thread_list},
        {"blocks", &main.user_blocks}};
    for (const auto &[name, queue] : lists)
        out << ' ' << name << ' ' << queue->count;
}

void Counts::put_summary(Text &out, Looks &looks, bool brief) const {
    const auto elapsed = static_cast<int64_t>(std::max<uint64_t>(now() - began_, 1));
    const auto rate = [&](uint64_t count) {
        return count * 1000000 / static_cast<uint64_t>(elapsed);
    };
    const int64_t callbacks =
        std::min((in_callbacks_ + open_time(looks)) * 100 / elapsed, int64_t{100});
    const int64_t calls = std::min(in_calls_ * 100 / elapsed, 100 - callbacks);
    const CL_MainBlock &main = looks.dump().main;
    const char *between = brief ? "  " : "\n";
    if (brief) out.clock(now()) << ' ';
    out << rate(records_) << " records/s, " << rate(calls_) << " calls/s, " << rate(callbacks_)
        << " callbacks/s, " << rate(failures_) << " failures/s" << (lost_ ? " (some lost)" : "")
        << between;
    out << callbacks << "% in callbacks, " << calls << "% in calls outside, "
        << 100 - callbacks - calls << "% waiting or elsewhere; "
        << (looks.process().used() - used_) * 100 / static_cast<uint64_t>(elapsed)
        << "% of a processor" << between;
    out << "objects:";
    put_lists(out, main);
    out << between << "memory: " << main.user_bytes << " (peak " << main.user_peak
        << "), the library's " << main.library_bytes << '\n';
}

void Counts::put_rows(Text &out, Order order) const {
    std::vector<std::pair<std::string, Row>> rows(rows_.begin(), rows_.end());
    std::ranges::stable_sort(rows, std::greater(), [&](const auto &row) {
        return order == Order::count  ? static_cast<int64_t>(row.second.count)
               : order == Order::time ? row.second.total
                                      : row.second.longest;
    });
    const size_t begin = out.size();
    (out << "\noperation").column(begin, kNameWidth + 1);
    for (const std::string_view head : {"count", "failed", "time", "longest"})
        out.right(head, kWidth);
    out << '\n';
    for (const auto &[name, row] : std::span(rows).first(std::min(rows.size(), kRows))) {
        out << name;
        out.column(out.size() - name.size(), kNameWidth);
        out.right(row.count, kWidth);
        out.right(row.failures, kWidth);
        out.right(row.total, kWidth, "");
        out.right(row.longest, kWidth, "") << '\n';
    }
    out << "\nslowest callbacks\n";
    for (const Slow &slow : slowest_)
        out.right(slow.duration, kWidth, "") << "  " << slow.what << '\n';
}

}  // namespace

bool top(Looks &looks, const Options &options, Text &out, Text &err) {
    const bool whole = isatty(STDOUT_FILENO) != 0;
    const Keys keys(whole);
    Order order = Order::count;
    Counts counts(looks.process());
    looks.take(looks.fresh().size());  // of the time before
    bool fine = true;
    while (fine && looks.next(kWait)) {
        counts.add(looks);
        const char key = keys.pressed();
        if (key == 'q') return true;
        if (key == 'c') order = Order::count;
        if (key == 't') order = Order::time;
        if (key == 'm') order = Order::longest;
        if (key == 0 && now() - counts.began() < static_cast<uint64_t>(options.interval)) continue;
        if (whole) {
            out << "\x1b[H\x1b[J"
                << "process " << looks.process().pid() << "  ";
            out.plain(looks.process().command())
                << "\nkeys: c by count, t by time, m by the longest, q to end\n\n";
        }
        counts.put_summary(out, looks, !whole);
        if (whole) counts.put_rows(out, order);
        fine = out.flush();
        if (key == 0) counts = Counts(looks.process());
    }
    if (const std::string failure = looks.process().failure(); !failure.empty()) {
        err << "qvcl-trace: pid:" << looks.process().pid() << ": " << failure << '\n';
    }
    return true;
}

}  // namespace trace_reader
