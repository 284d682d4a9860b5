// qvcl-kit sweep: notes where a program's calls come from, then runs it once for each of these
// places, each errno that the call can have: the first time, the last time, and for ever. Each run
// has a process that looks
// after it: it takes in whoever the program leaves behind, keeps the time, and looks into processes
// that crash, end or hang. What has been found is kept in a folder, so that a sweep that was
// stopped goes on.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <qvcl/kit.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

#include "kit/run.h"
#include "tools/modules.h"
#include "tools/process.h"
#include "tools/snapshot.h"

namespace kit {

namespace {

namespace fs = std::filesystem;

struct Options {
    unsigned jobs = 0;
    double limit = 0;  // seconds; 0: by the time that the program takes
    fs::path out = "qvcl-sweep";
    std::set<std::string> calls;  // empty: all
    bool strict = false;
    size_t again = 0;  // the number of one run, to be repeated in sight; 0: all
    std::vector<std::string> command;
};

// A place that calls come from, as it is kept in a file.
struct Place {
    uint64_t key = 0;
    Call call = kCallCount;
    std::string program;
    uint32_t count = 0;
    std::string open;  // the functions that are, innermost first
};

enum When { kOnce, kAtLast, kForever };

struct Case {
    size_t place = 0;
    int error = 0;  // 0: moves one byte
    When when = kOnce;

    // No system interrupts, or says that it is too early, for ever: whoever tries again is right.
    int times() const {
        const bool passes = error == EINTR || error == EAGAIN;
        return when != kForever ? 1 : passes ? 20 : int{CL_KIT_FOREVER};
    }
};

enum VerdictOf { kFine, kStatus, kUnmet, kLeft, kLeak, kHang, kCrash, kVerdictCount };
constexpr const char *kVerdicts[] = {"fine", "status", "unmet", "left", "leak", "hang", "crash"};

// What a run was like.
struct Outcome {
    VerdictOf verdict = kFine;
    std::string detail;
    int status = 0;
    double seconds = 0;
    std::multiset<std::string> leaks, left, crashes;
    std::multiset<std::string> ends;  // End::text()
    std::string who;                  // the command line of the first that was looked into
    bool hangs = false;
    bool met = false;
};

double seconds_now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

std::string base_name(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

// Names that hold a process's number are the same in another run.
std::string without_numbers(std::string text) {
    for (char &c : text)
        if (c >= '0' && c <= '9') c = '#';
    return text;
}

std::string line_of_file(const std::string &path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// A process that ends: what program it is, its exit status, and the descriptors that are open.
struct End {
    std::string program;
    int status = 0;
    std::multiset<std::string> open;

    std::string text() const {
        std::string text = program + '|' + std::to_string(status);
        for (const std::string &name : open)
            text += '|' + name;
        return text;
    }
    static End of(const std::string &text) {
        std::istringstream in(text);
        End end;
        std::string field;
        std::getline(in, end.program, '|');
        std::getline(in, field, '|');
        end.status = atoi(field.c_str());
        while (std::getline(in, field, '|'))
            end.open.insert(field);
        return end;
    }
};

// What descriptors are on, without what is another in each run; not the standard ones.
std::multiset<std::string> descriptors_of(pid_t pid, const fs::path &folder) {
    std::multiset<std::string> names;
    std::error_code error;
    for (const auto &entry :
         fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error)) {
        if (atoi(entry.path().filename().c_str()) <= STDERR_FILENO) continue;
        std::string name = fs::read_symlink(entry.path(), error).string();
        if (name.starts_with(folder.string())) name.replace(0, folder.string().size(), ".");
        if (name.ends_with(" (deleted)")) name.resize(name.size() - strlen(" (deleted)"));
        if (const size_t colon = name.find(":["); colon != std::string::npos && name[0] != '/') {
            const bool anonymous = name.starts_with("anon_inode:");
            name = anonymous ? name.substr(colon + 1) : name.substr(0, colon);
        }
        names.insert(without_numbers(name));
    }
    return names;
}

std::string command_line_of(pid_t pid) {
    std::string line = line_of_file("/proc/" + std::to_string(pid) + "/cmdline");
    while (!line.empty() && line.back() == '\0')
        line.pop_back();
    for (const char c : {'\0', '\t'})
        std::ranges::replace(line, c, ' ');
    return base_name(line.substr(0, line.find(' '))) +
           (line.find(' ') != std::string::npos ? line.substr(line.find(' ')) : "");
}

// ---- Looking after a run

class Run {
  public:
    Run(const Options &options, size_t number, double limit)
        : options_(options),
          limit_(limit),
          folder_(options.out / "work" / std::to_string(number)),
          output_(options.out / (std::to_string(number) + ".out")),
          dump_(options.out / (std::to_string(number) + ".trc")),
          number_(number) {
        fs::remove_all(folder_);
        fs::create_directories(folder_);
    }

    Page &page() { return *page_; }
    // What the program may know of it.
    void set_fault(const std::string &text) { fault_ = text; }

    Outcome go() {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        sigset_t child;
        sigemptyset(&child);
        for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP})
            sigaddset(&child, signal);
        sigset_t before;
        sigprocmask(SIG_BLOCK, &child, &before);
        const double begin = seconds_now();
        start();
        Outcome outcome;
        bool ended = false;
        while (!ended && seconds_now() - begin < limit_) {
            wait_a_little(child);
            look_at_halts(outcome);
            ended = reap(outcome);
        }
        outcome.seconds = seconds_now() - begin;
        if (ended) {
            leave_time_to_end(child, outcome);
        } else {
            outcome.hangs = true;
            look_at_members(outcome);
        }
        for (const std::string &name : end_all())
            if (!outcome.hangs) outcome.left.insert("process " + name);
        look_around(outcome);
        fs::remove_all(folder_);
        sigprocmask(SIG_SETMASK, &before, nullptr);  // a sweep can be stopped between its runs
        return outcome;
    }

  private:
    void start() {
        root_ = fork();
        if (root_ < 0) throw std::runtime_error("no process can be made");
        if (root_ > 0) return;
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        signal(SIGTERM, SIG_DFL);
        setsid();
        const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        const int out = open(fs::absolute(output_).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(null, STDIN_FILENO);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        if (out > STDERR_FILENO) close(out);
        if (chdir(folder_.c_str()) != 0) _exit(127);
        setenv("QVCL_KIT_RUN", std::to_string(number_).c_str(), 1);
        setenv("QVCL_KIT_FAULT", fault_.c_str(), 1);
        page_.become(options_.command);
        _exit(127);
    }

    // A sweep that is stopped leaves no process of a run behind.
    void wait_a_little(const sigset_t &awaited) {
        const timespec slice = {0, 2'000'000};
        const int signal = sigtimedwait(&awaited, nullptr, &slice);
        if (signal < 0 || signal == SIGCHLD) return;
        end_all();
        fs::remove_all(folder_);
        _exit(128 + signal);
    }

    // True when the program has ended.
    bool reap(Outcome &outcome) const {
        bool ended = false;
        int status = 0;
        pid_t pid = 0;
        while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
            if (pid != root_) continue;
            ended = true;
            outcome.status = status;
        }
        return ended;
    }

    static std::vector<pid_t> children() {
        std::ifstream file("/proc/self/task/" + std::to_string(getpid()) + "/children");
        std::vector<pid_t> pids;
        for (pid_t pid = 0; file >> pid;)
            pids.push_back(pid);
        return pids;
    }

    void leave_time_to_end(const sigset_t &child, Outcome &outcome) {
        const double begin = seconds_now();
        while (!children().empty() && seconds_now() - begin < 0.5) {
            wait_a_little(child);
            look_at_halts(outcome);
            int status = 0;
            while (waitpid(-1, &status, WNOHANG) > 0) {
            }
        }
    }

    // Kills whoever is left: the children of those that go come to this process. Their names.
    std::vector<std::string> end_all() {
        std::vector<std::string> names;
        for (std::vector<pid_t> pids = children(); !pids.empty(); pids = children()) {
            for (const pid_t pid : pids) {
                names.push_back(line_of_file("/proc/" + std::to_string(pid) + "/comm"));
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
            }
        }
        return names;
    }

    void snap(pid_t pid, const std::string &reason, bool anew) {
        if (!anew && fs::exists(dump_)) return;
        const trace_reader::Process process(pid);
        const trace_reader::Snapshots snapshots(process);
        if (!process.failure().empty() || !snapshots.found()) return;
        const trace_reader::Snapshot snapshot = snapshots.of_live(process, false, reason);
        if (!snapshot.failure.empty()) return;
        std::ofstream(dump_, std::ios::binary)
            .write(reinterpret_cast<const char *>(snapshot.file.data()),
                   static_cast<std::streamsize>(snapshot.file.size()));
    }

    void look_at_halts(Outcome &outcome) {
        for (Halt &halt : page_->halts) {
            if (halt.state.load() != Halt::kHalted) continue;
            const std::string program = base_name(page_->programs[halt.program]);
            if (outcome.who.empty()) outcome.who = command_line_of(halt.pid);
            if (halt.signal == 0) {
                outcome.ends.insert(
                    End{program, halt.status, descriptors_of(halt.pid, folder_)}.text());
            }
            std::string reason = "ends after a fault";
            if (halt.signal != 0) {
                reason = std::string("SIG") + sigabbrev_np(halt.signal) + " in " + program;
                outcome.crashes.insert(reason);
            }
            snap(halt.pid, "qvcl-kit: " + reason, halt.signal != 0);
            halt.state = Halt::kSeen;
        }
    }

    // Those that have met a fault are the first to be looked into.
    void look_at_members(Outcome &outcome) {
        for (const bool met : {true, false}) {
            for (const Member &member : page_->members) {
                const int32_t pid = member.pid.load();
                if (pid == 0 || (member.hits.load() > 0) != met || kill(pid, 0) != 0) continue;
                if (outcome.detail.empty()) outcome.detail = command_line_of(pid) + " goes on";
                snap(pid, "qvcl-kit: does not end in time", met);
                if (fs::exists(dump_)) return;
            }
        }
    }

    void look_around(Outcome &outcome) {
        outcome.met = page_->hits.load() > 0;
        std::ifstream output(output_);
        for (std::string line; std::getline(output, line);) {
            const size_t at = line.find("CLLIB:");
            if (at != std::string::npos && line.find(" not released.", at) != std::string::npos)
                outcome.leaks.insert(line.substr(at));
        }
        for (const auto &segment : page_->segments) {
            if (segment[0] == '\0') continue;
            outcome.left.insert("segment " + without_numbers(segment));
            shm_unlink(segment);
        }
        for (const auto &item : fs::recursive_directory_iterator(folder_)) {
            outcome.left.insert("file " +
                                without_numbers(fs::relative(item.path(), folder_).string()));
        }
    }

    const Options &options_;
    double limit_;
    fs::path folder_, output_, dump_;
    size_t number_;
    std::string fault_;
    SharedPage page_;
    pid_t root_ = -1;
};

// ---- What the program does when nothing fails

struct Baseline {
    std::vector<Place> places;
    Outcome outcome;
};

// Names of functions and lines in the two modules of a page, at made-up addresses.
class FrameNames {
  public:
    const std::string &name_of(const std::string &path, uint32_t offset) {
        std::string &name = names_[{path, offset}];
        if (!name.empty()) return name;
        auto &module = modules_[path];
        constexpr uint64_t kBase = 0x10000000;
        if (module == nullptr) {
            module = trace_reader::names_of(
                {{kBase, kBase + UINT32_MAX, trace_reader::build_id_of_file(path), path}}, {});
        }
        return name = plain(module->name_of(kBase + offset));
    }

  private:
    // What tells a place, without what only a linker wants to know.
    static std::string plain(std::string name) {
        for (const std::string_view noise : {"(anonymous namespace)::", "qvcl::"}) {
            for (size_t at = 0; (at = name.find(noise)) != std::string::npos;)
                name.erase(at, noise.size());
        }
        const size_t offset = name.find("+0x"), line = name.find(" (");
        const size_t parameters = name.find('(');
        if (line == std::string::npos) return name;
        return name.substr(0, std::min({offset, line, parameters})) + name.substr(name.rfind(" ("));
    }

    std::map<std::string, std::shared_ptr<const trace_reader::Names>> modules_;
    std::map<std::pair<std::string, uint32_t>, std::string> names_;
};

std::vector<Place> places_of(const Page &seen, const Options &options) {
    std::vector<Place> places;
    FrameNames names;
    for (const Site &site : seen.sites) {
        if (site.key.load() == 0) continue;
        if (!options.calls.empty() && !options.calls.contains(kit::name_of(site.call))) continue;
        if (*errors_of(site.call) == 0) continue;
        Place place = {site.key.load(), site.call, base_name(seen.programs[site.program]),
                       site.count.load(), ""};
        for (size_t i = 0; i < site.frames; ++i) {
            const Frame &frame = site.frame[i];
            const char *path = frame.library != 0 ? seen.library : seen.programs[site.program];
            const std::string &name = names.name_of(path, frame.offset);
            if (name.starts_with("_start") || name.starts_with("std::")) continue;
            place.open += (place.open.empty() ? "" : " < ") + name;
        }
        places.push_back(std::move(place));
    }
    std::ranges::sort(places, [](const Place &a, const Place &b) {
        return std::tuple(a.program, kit::name_of(a.call), a.open, a.key) <
               std::tuple(b.program, kit::name_of(b.call), b.open, b.key);
    });
    return places;
}

void save(const Baseline &baseline, const fs::path &path) {
    std::ofstream file(path);
    file << baseline.outcome.status << '\t' << baseline.outcome.seconds << '\n';
    for (const auto &list : {baseline.outcome.leaks, baseline.outcome.left,
                             baseline.outcome.crashes, baseline.outcome.ends}) {
        file << list.size() << '\n';
        for (const std::string &line : list)
            file << line << '\n';
    }
    for (const Place &place : baseline.places) {
        file << place.key << '\t' << kit::name_of(place.call) << '\t' << place.program << '\t'
             << place.count << '\t' << place.open << '\n';
    }
}

std::vector<std::string> fields(const std::string &line) {
    std::vector<std::string> result;
    std::istringstream in(line);
    for (std::string field; std::getline(in, field, '\t');)
        result.push_back(field);
    result.resize(8);
    return result;
}

bool load(Baseline &baseline, const fs::path &path) {
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line)) return false;
    baseline.outcome.status = atoi(fields(line)[0].c_str());
    baseline.outcome.seconds = atof(fields(line)[1].c_str());
    for (auto *list : {&baseline.outcome.leaks, &baseline.outcome.left, &baseline.outcome.crashes,
                       &baseline.outcome.ends}) {
        std::getline(file, line);
        for (int left = atoi(line.c_str()); left > 0 && std::getline(file, line); --left)
            list->insert(line);
    }
    while (std::getline(file, line)) {
        const auto field = fields(line);
        baseline.places.push_back({strtoull(field[0].c_str(), nullptr, 10),
                                   call_named(field[1].c_str()), field[2],
                                   static_cast<uint32_t>(atol(field[3].c_str())), field[4]});
    }
    return true;
}

Baseline take_baseline(const Options &options) {
    Baseline baseline;
    double longest = 0;
    for (const bool notes : {true, false}) {
        Run run(options, 0, options.limit > 0 ? options.limit : 120);
        run.page().note_sites = notes;
        run.page().halt_at_ends = true;
        run.page().halt_at_all_ends = true;
        const int status = baseline.outcome.status;
        baseline.outcome = run.go();
        if (baseline.outcome.hangs) {
            throw std::runtime_error(
                "the program does not end by itself: give sweep a script that "
                "ends what it starts");
        }
        if (notes) baseline.places = places_of(run.page(), options);
        if (notes && run.page().library[0] == '\0')
            throw std::runtime_error("the program does not use libqvcl");
        if (!notes && status != baseline.outcome.status)
            fprintf(stderr, "qvcl-kit: the program ends differently without any fault\n");
        longest = std::max(longest, baseline.outcome.seconds);
    }
    baseline.outcome.seconds = longest;
    return baseline;
}

// ---- Cases

std::vector<Case> cases_of(const std::vector<Place> &places) {
    std::vector<Case> cases;
    for (size_t i = 0; i < places.size(); ++i) {
        for (const When when : {kOnce, kAtLast, kForever}) {
            if (when == kAtLast && places[i].count < 2) continue;
            for (const int *error = errors_of(places[i].call); *error != 0; ++error)
                cases.push_back({i, *error, when});
            if (transfers(places[i].call)) cases.push_back({i, 0, when});
        }
    }
    return cases;
}

std::string error_of(const Case &one) {
    return one.error != 0 ? name_of_error(one.error) : "one byte";
}

std::string times_of(const Place &place, const Case &one) {
    if (one.when == kOnce) return "once";
    if (one.when == kAtLast) return "at call " + std::to_string(place.count);
    return one.times() == CL_KIT_FOREVER ? "for ever" : "20 times";
}

std::string fault_text(const Place &place, const Case &one) {
    return std::string(kit::name_of(place.call)) + ' ' + error_of(one) + ' ' + times_of(place, one);
}

std::string describe(const Place &place, const std::string &errors, const std::string &times) {
    return std::string(kit::name_of(place.call)) + ' ' + errors + ' ' + times + ", in " +
           place.program + ": " + place.open;
}

template <class T>
std::string more(const std::multiset<T> &now, const std::multiset<T> &before) {
    std::vector<T> added;
    std::ranges::set_difference(now, before, std::back_inserter(added));
    std::string text;
    for (const T &one : added)
        text += (text.empty() ? "" : ", ") + one;
    return text;
}

// What is open at the end of a process, and was not when nothing failed and it ended with the same
// status; of those that did, the one it is most like.
std::string left_open(const std::multiset<std::string> &ends,
                      const std::multiset<std::string> &before) {
    for (const std::string &text : ends) {
        const End end = End::of(text);
        std::string least;
        bool comparable = false;
        for (const std::string &other : before) {
            const End usual = End::of(other);
            if (usual.program != end.program || usual.status != end.status) continue;
            const std::string added = more(end.open, usual.open);
            if (!comparable || added.size() < least.size()) least = added;
            comparable = true;
        }
        if (!least.empty()) return "descriptor " + least + " is open at the end of " + end.program;
    }
    return "";
}

std::string status_text(int status) {
    return WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                             : std::string("killed by SIG") + sigabbrev_np(WTERMSIG(status));
}

void judge_outcome(Outcome &outcome, const Outcome &baseline, const Place &place) {
    const auto set = [&](VerdictOf verdict, const std::string &detail) {
        if (verdict <= outcome.verdict) return;
        outcome.verdict = verdict;
        outcome.detail = detail;
    };
    const std::string still = outcome.detail;
    if (!outcome.met) set(kUnmet, "the program did not come there");
    const bool differs = outcome.status != baseline.status;
    if (differs && outcome.met) set(kStatus, status_text(outcome.status));
    std::multiset<std::string> left = outcome.left;
    // Who ends because of a failure may leave files; and who cannot remove one does.
    const bool removes = place.call == kCall_unlink || place.call == kCall_rename ||
                         place.call == kCall_shm_unlink || place.call == kCall_rmdir;
    std::erase_if(left, [&](const std::string &name) {
        return name.starts_with("file ") ? differs || removes
                                         : removes && name.starts_with("segment ");
    });
    const std::string added = more(left, baseline.left),
                      leaks = more(outcome.leaks, baseline.leaks);
    if (!added.empty()) set(kLeft, added);
    if (!leaks.empty()) set(kLeak, leaks);
    if (const std::string open = left_open(outcome.ends, baseline.ends); !open.empty())
        set(kLeak, open);
    if (outcome.hangs) set(kHang, still);
    const std::string crashes = more(outcome.crashes, baseline.crashes);
    if (!crashes.empty()) set(kCrash, crashes);
    const int ended_by = WIFSIGNALED(outcome.status) ? WTERMSIG(outcome.status) : 0;
    if (ended_by != 0 && differs && ended_by != SIGKILL && ended_by != SIGTERM && !outcome.hangs)
        set(kCrash, status_text(outcome.status));
    if (outcome.verdict > kUnmet && outcome.verdict < kHang && differs)
        outcome.detail += "; " + status_text(outcome.status);
}

// ---- All of them

class Sweep {
  public:
    explicit Sweep(const Options &options) : options_(options) {}

    int go() {
        prepare();
        if (options_.again != 0) return run_again();
        run_all();
        print_table();
        return findings_ > 0 ? 1 : 0;
    }

  private:
    void prepare() {
        fs::create_directories(options_.out);
        std::string words;
        for (const std::string &word : options_.command)
            words += word + '\n';
        for (const std::string &call : options_.calls)
            words += "call " + call + '\n';
        const fs::path note = options_.out / "command";
        std::ifstream known(note);
        const std::string before{std::istreambuf_iterator<char>(known), {}};
        const bool goes_on = before == words && load(baseline_, options_.out / "sites");
        if (!before.empty() && before != words)
            throw std::runtime_error(options_.out.string() + " is of another sweep");
        if (!goes_on) {
            fprintf(stderr, "qvcl-kit: looking at the program when nothing fails\n");
            baseline_ = take_baseline(options_);
            save(baseline_, options_.out / "sites");
            std::ofstream(note) << words;
        }
        cases_ = cases_of(baseline_.places);
        results_.resize(cases_.size());
        if (goes_on) load_results();
        limit_ = options_.limit > 0 ? options_.limit : 10 + 4 * baseline_.outcome.seconds;
        if (options_.again != 0) return;
        fprintf(stderr, "qvcl-kit: %zu call sites, %zu runs of about %.1f s (at most %.1f s)%s\n",
                baseline_.places.size(), cases_.size(), baseline_.outcome.seconds, limit_,
                done_ > 0 ? (", " + std::to_string(done_) + " done before").c_str() : "");
    }

    struct Result {
        bool known = false;
        VerdictOf verdict = kFine;
        std::string detail, who;
    };

    void take(const std::string &line) {
        const auto field = fields(line);
        const size_t index = strtoull(field[0].c_str(), nullptr, 10) - 1;
        if (index >= results_.size() || results_[index].known) return;
        for (int i = 0; i < kVerdictCount; ++i)
            if (field[1] == kVerdicts[i]) results_[index].verdict = static_cast<VerdictOf>(i);
        results_[index].detail = field[2];
        results_[index].who = field[3];
        results_[index].known = true;
        ++done_;
        if (is_finding(results_[index])) ++findings_;
    }

    bool is_finding(const Result &result) const {
        return result.verdict >= kLeft || (options_.strict && result.verdict == kStatus);
    }

    void load_results() {
        std::ifstream file(options_.out / "results");
        for (std::string line; std::getline(file, line);)
            take(line);
    }

    // In a process of its own: writes the result's line into the pipe.
    [[noreturn]] void look_after(size_t index, int pipe) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        const Case &one = cases_[index];
        const Place &place = baseline_.places[one.place];
        std::string line;
        try {
            Run run(options_, index + 1, limit_);
            set_fault(run.page(), one, place);
            run.set_fault(fault_text(place, one));
            Outcome outcome = run.go();
            judge_outcome(outcome, baseline_.outcome, place);
            line = std::to_string(index + 1) + '\t' + kVerdicts[outcome.verdict] + '\t' +
                   outcome.detail + '\t' + outcome.who + '\t' +
                   describe(place, error_of(one), times_of(place, one)) + '\n';
            if (!is_finding({true, outcome.verdict, "", ""})) {
                fs::remove(options_.out / (std::to_string(index + 1) + ".trc"));
                fs::remove(options_.out / (std::to_string(index + 1) + ".out"));
            }
        } catch (const std::exception &e) {
            fprintf(stderr, "qvcl-kit: %s\n", e.what());
            _exit(2);
        }
        const ssize_t written = write(pipe, line.data(), line.size());
        _exit(written == static_cast<ssize_t>(line.size()) ? 0 : 2);
    }

    static void set_fault(Page &to, const Case &one, const Place &place) {
        Fault &fault = to.faults[0];
        fault.call = place.call;
        fault.from = CL_KIT_LIBRARY | CL_KIT_PROGRAM;
        fault.error = one.error;
        fault.made = place.call == kCall_close;  // it closes, whatever it returns
        fault.at_most = one.error != 0 ? UINT64_MAX : 1;
        fault.nth = one.when == kAtLast ? static_cast<int32_t>(place.count) : 1;
        fault.times = one.times();
        fault.site = place.key;
        place.program.copy(fault.program, sizeof fault.program - 1);
        to.fault_count = 1;
        to.halt_at_ends = true;
    }

    // One run, where it can be seen and a debugger can be used.
    int run_again() {
        if (options_.again > cases_.size()) {
            throw std::invalid_argument("--again: there are " + std::to_string(cases_.size()) +
                                        " runs");
        }
        const Case &one = cases_[options_.again - 1];
        const Place &place = baseline_.places[one.place];
        fprintf(stderr, "qvcl-kit: %s\n",
                describe(place, error_of(one), times_of(place, one)).c_str());
        SharedPage shared;
        set_fault(*shared, one, place);
        setenv("QVCL_KIT_FAULT", fault_text(place, one).c_str(), 1);
        shared->halt_at_ends = false;
        return run_to_end(shared, options_.command);
    }

    void run_all() {
        std::map<pid_t, int> running;  // who looks after a run, and where its result comes out
        begin_ = seconds_now();
        before_ = done_;
        size_t next = 0;
        for (;;) {
            while (next < cases_.size() && results_[next].known)
                ++next;
            if (next < cases_.size() && running.size() < options_.jobs) {
                int ends[2];
                if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
                const pid_t pid = fork();
                if (pid < 0) throw std::runtime_error("no process can be made");
                if (pid == 0) look_after(next, ends[1]);
                close(ends[1]);
                running[pid] = ends[0];
                ++next;
                continue;
            }
            if (running.empty()) break;
            const pid_t pid = waitpid(-1, nullptr, 0);
            const auto found = running.find(pid);
            if (found == running.end()) continue;
            char line[4096];
            const ssize_t length = read(found->second, line, sizeof line);
            if (length > 1) {
                take({line, static_cast<size_t>(length) - 1});
                // Not kept open, or each run would have it.
                std::ofstream(options_.out / "results", std::ios::app).write(line, length);
            }
            close(found->second);
            running.erase(found);
            tell();
        }
        if (isatty(STDERR_FILENO) != 0) fputs("\r\33[K", stderr);
    }

    void tell() {
        const double now = seconds_now();
        const bool terminal = isatty(STDERR_FILENO) != 0;
        if (now - told_ < (terminal ? 0.2 : 10)) return;
        told_ = now;
        const double each = done_ > before_ ? (now - begin_) / static_cast<double>(done_ - before_)
                                            : baseline_.outcome.seconds / options_.jobs;
        fprintf(stderr, "%sqvcl-kit: %zu of %zu runs, %zu found, %.0f s left%s",
                terminal ? "\r" : "", done_, cases_.size(), findings_,
                each * static_cast<double>(cases_.size() - done_), terminal ? "\33[K" : "\n");
    }

    void print_table() const {
        std::map<std::string, std::map<int, size_t>> rows;
        std::map<std::string, std::set<size_t>> sites;
        for (size_t i = 0; i < cases_.size(); ++i) {
            const std::string call = kit::name_of(baseline_.places[cases_[i].place].call);
            ++rows[call][results_[i].known ? results_[i].verdict : kUnmet];
            sites[call].insert(cases_[i].place);
        }
        print_findings();
        printf("%-16s %6s %6s", "call", "sites", "runs");
        for (const char *name : kVerdicts)
            printf(" %6s", name);
        printf("\n");
        std::map<int, size_t> sum;
        for (const auto &[call, counts] : rows) {
            print_row(call, sites[call].size(), counts);
            for (const auto &[verdict, count] : counts)
                sum[verdict] += count;
        }
        print_row("all", baseline_.places.size(), sum);
    }

    // Those of a place that say the same are one; the worst come first.
    void print_findings() const {
        std::map<std::tuple<int, size_t, std::string>, std::vector<size_t>> alike;
        for (size_t i = 0; i < cases_.size(); ++i) {
            if (is_finding(results_[i]))
                alike[{-results_[i].verdict, cases_[i].place, results_[i].detail}].push_back(i);
        }
        for (const auto &[what, indices] : alike) {
            const auto &[worse, at, detail] = what;
            const Place &place = baseline_.places[at];
            std::string errors, times, runs;
            for (const size_t i : indices) {
                add_to(errors, "|", error_of(cases_[i]));
                add_to(times, "|", times_of(place, cases_[i]));
                add_to(runs, " ", std::to_string(i + 1));
            }
            printf("%s: %s\n    %s\n", kVerdicts[-worse], describe(place, errors, times).c_str(),
                   detail.c_str());
            if (const std::string &who = results_[indices[0]].who; !who.empty())
                printf("    met by %s\n", who.c_str());
            const std::string kept = (options_.out / std::to_string(indices[0] + 1)).string();
            printf("    %s %s, output %s.out", indices.size() == 1 ? "run" : "runs", runs.c_str(),
                   kept.c_str());
            printf(fs::exists(kept + ".trc") ? ", trace %s.trc\n" : "\n", kept.c_str());
        }
        if (alike.empty()) return;
        std::string words;
        for (const std::string &word : options_.command)
            words += ' ' + word;
        printf("one of them in sight: qvcl-kit sweep --out=%s --again=RUN --%s\n",
               options_.out.c_str(), words.c_str());
    }

    static void add_to(std::string &list, const char *separator, const std::string &item) {
        const std::string all = separator + list + separator;
        if (all.find(separator + item + separator) == std::string::npos)
            list += (list.empty() ? "" : separator) + item;
    }

    static void print_row(const std::string &name, size_t sites, std::map<int, size_t> counts) {
        size_t runs = 0;
        for (const auto &[verdict, count] : counts)
            runs += count;
        printf("%-16s %6zu %6zu", name.c_str(), sites, runs);
        for (int verdict = 0; verdict < kVerdictCount; ++verdict)
            printf(" %6zu", counts[verdict]);
        printf("\n");
    }

    Options options_;
    Baseline baseline_;
    std::vector<Case> cases_;
    std::vector<Result> results_;
    double limit_ = 0, begin_ = 0, told_ = 0;
    size_t done_ = 0, before_ = 0, findings_ = 0;
};

}  // namespace

int sweep_command(const std::vector<std::string> &arguments) {
    Options options;
    std::string value;
    options.command = command_of(arguments, "sweep", [&](const std::string &argument) {
        if (option(argument, "jobs", value)) {
            options.jobs = static_cast<unsigned>(number(value, "--jobs"));
        } else if (option(argument, "timeout", value)) {
            options.limit = static_cast<double>(number(value, "--timeout"));
        } else if (option(argument, "out", value)) {
            options.out = value;
        } else if (option(argument, "calls", value)) {
            std::istringstream names(value);
            for (std::string name; std::getline(names, name, ',');) {
                if (call_named(name.c_str()) == kCallCount) {
                    throw std::invalid_argument("--calls: no such call can be made to fail: " +
                                                name);
                }
                options.calls.insert(name);
            }
        } else if (option(argument, "again", value)) {
            options.again = number(value, "--again");
        } else if (argument == "--strict") {
            options.strict = true;
        } else {
            return false;
        }
        return true;
    });
    // Runs have folders of their own to be in.
    if (fs::exists(options.command[0]))
        options.command[0] = fs::absolute(options.command[0]).string();
    options.out = fs::absolute(options.out);
    if (options.jobs == 0) options.jobs = static_cast<unsigned>(sysconf(_SC_NPROCESSORS_ONLN));
    preloaded_object();
    return Sweep(options).go();
}

}  // namespace kit
