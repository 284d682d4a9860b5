// The command line: one table of commands, one of options.
//
// run() parses the words, finds the command and opens its files; run_command() loads them and runs
// it. An option belongs to one command and is refused with any other, so that none is ignored
// silently. Only run() knows of arguments and files, which is why tests and fuzz targets can give
// run_command() bytes in memory.
#include "tools/cli.h"

#include <getopt.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <list>

#include "tools/looks.h"
#include "tools/names.h"
#include "tools/progress.h"
#include "tools/records.h"

namespace trace_reader {

namespace {

constexpr size_t kMostFiles = 64;
constexpr Command kTable[] = {
    {"show", show, 1, false, "calls, callbacks and status changes, oldest first"},
    {"tables", tables, 1, true, "main table, lists and queues, descriptor objects"},
    {"report", report, 1, true, "counts, failures and durations by operation and object"},
    {"export", export_json, 1, true, "a timeline of one or more traces in trace-event JSON",
     kMostFiles},
    {"flow", flow, 2, true, "which message went where between several traces, how long it lay",
     kMostFiles},
    {"diff", diff, 2, false, "first difference between two traces"},
    {"check", check, 1, true, "whether the file is whole and consistent"},
    {"snap", snap, 1, false, "what was read as a dump file, FILE or one named by process and time",
     1, "FILE"},
    {"follow", nullptr, 1, false, "lines as they come, of a live process", 1, {}, follow},
    {"top", nullptr, 1, false, "once a second what a live process does most", 1, {}, top},
    {"watch",
     nullptr,
     1,
     false,
     "snapshots of a live process whenever a callback does not return",
     1,
     {},
     watch}};

bool is_hex(std::string_view text) {
    return text.starts_with("0x") || text.starts_with("0X");
}

bool parse_number(std::string_view text, uint64_t &value) {
    const bool hex = is_hex(text);
    const char *end = text.data() + text.size();
    const auto [stop, error] =
        std::from_chars(text.data() + (hex ? 2 : 0), end, value, hex ? 16 : 10);
    return error == std::errc() && stop == end;
}

bool set_api(Options &options, const char *text) {
    uint64_t number = 0;
    const bool numeric = parse_number(text, number);
    const std::string_view wanted = text;
    bool found = false;
    for (const CL_TrcOperation &operation : operations()) {
        const std::string_view name = operation.name;
        const auto same = [](char a, char b) { return (a | 0x20) == (b | 0x20); };
        if (numeric ? operation.api != number
                    : std::search(name.begin(), name.end(), wanted.begin(), wanted.end(), same) ==
                          name.end()) {
            continue;
        }
        options.apis.set(operation.api);
        found = true;
    }
    return found;
}

bool set_handle(Options &options, const char *text) {
    uint64_t value = 0;
    const bool is_marked = *text == '#';
    if (!parse_number(text + (is_marked ? 1 : 0), value)) return false;
    (is_marked || !is_hex(text) ? options.slot : options.handle) = value;
    return true;
}

// "250us", "10ms", "1.5s"; without a unit microseconds.
std::optional<int64_t> parse_duration(const char *text) {
    char *unit = nullptr;
    const double value = strtod(text, &unit);
    static constexpr std::pair<std::string_view, double> kUnits[] = {
        {"us", 1}, {"ms", 1e3}, {"s", 1e6}, {"", 1}};
    for (const auto &[name, factor] : kUnits) {
        if (unit != text && name == unit && value >= 0 && value < 1e9) {
            return static_cast<int64_t>(value * factor);
        }
    }
    return {};
}

bool set_ring(Options &options, const char *text) {
    const std::string_view name = text;
    options.ring = name == "user" ? CL_RING_USER : CL_RING_LIBRARY;
    return name == "user" || name == "library";
}

struct Option {
    const char *name;
    const char *value;          // what the help calls its value; null when it takes none
    std::string_view commands;  // those that take it, with blanks between them; empty: all
    bool (*set)(Options &options, const char *value);
    std::string_view help;

    bool belongs_to(std::string_view command) const {
        for (std::string_view rest = commands; !rest.empty();) {
            const std::string_view word = rest.substr(0, rest.find(' '));
            if (word == command) return true;
            rest.remove_prefix(std::min(rest.size(), word.size() + 1));
        }
        return commands.empty();
    }
};
constexpr Option kOptions[] = {
    {"api", "NAME", "show follow", set_api,
     "calls whose name holds NAME, or with that number; repeatable"},
    {"handle", "#N|ADDRESS", "show follow", set_handle,
     "calls about the object in slot N, or at ADDRESS"},
    {"since", "TIME", "show",
     [](Options &o, const char *text) { return parse_time(o.since = text, 0).has_value(); },
     "[YYYY-MM-DD ]HH:MM[:SS[.FRACTION]], local time"},
    {"until", "TIME", "show",
     [](Options &o, const char *text) { return parse_time(o.until = text, 0).has_value(); },
     "the same, for the end"},
    {"failures", nullptr, "show follow", [](Options &o, const char *) { return o.failures = true; },
     "only what failed"},
    {"slower", "TIME", "show follow",
     [](Options &o, const char *text) { return (o.slower = parse_duration(text)).has_value(); },
     "calls that took at least so long: 250us, 10ms, 1.5s"},
    {"ring", "NAME", "show follow", set_ring, "only records of the library or the user ring"},
    {"last", "N", "show follow",
     [](Options &o, const char *text) { return parse_number(text, o.last); }, "the last N lines"},
    {"all", nullptr, "tables", [](Options &o, const char *) { return o.all = true; },
     "also free slots, and where all were used before"},
    {"json", nullptr, "export", [](Options &, const char *) { return true; },
     "the format, and the only one"},
    {"out", "FILE|DIR", "snap watch",
     [](Options &o, const char *text) { return !(o.out = text).empty(); },
     "where to write; \"-\": standard output"},
    {"stall", "TIME", "watch",
     [](Options &o, const char *text) { return (o.stall = parse_duration(text)).has_value(); },
     "how long a callback may take: 5s (1s without it)"},
    {"max", "N", "watch",
     [](Options &o, const char *text) { return parse_number(text, o.max) && o.max != 0; },
     "snapshots at most, 10 without it"},
    {"interval", "TIME", "top",
     [](Options &o, const char *text) {
         o.interval = parse_duration(text).value_or(0);
         return o.interval >= 10000;
     },
     "how often, 1s without it"},
    {"stop", nullptr, "", [](Options &o, const char *) { return o.access.stop = true; },
     "stop a process for the moment of reading"},
    {"exe", "FILE", "", [](Options &o, const char *text) { return !(o.access.exe = text).empty(); },
     "the executable that a core file is of"}};
constexpr int kHelp = std::size(kOptions), kVersion = kHelp + 1;

void put_options(Text &out, std::string_view command) {
    for (const Option &option : kOptions) {
        if (option.commands.empty() != command.empty() || !option.belongs_to(command)) continue;
        const size_t begin = out.size();
        out << "    --" << option.name << (option.value != nullptr ? "=" : "")
            << (option.value != nullptr ? option.value : "");
        out.column(begin, 26) << option.help << '\n';
    }
}

void put_help(Text &out) {
    out << "usage: qvcl-trace COMMAND [OPTION...] SOURCE\n"
           "       qvcl-trace export|flow SOURCE SOURCE...\n"
           "       qvcl-trace diff SOURCE SOURCE\n"
           "       qvcl-trace snap SOURCE [FILE]\n"
           "Reads what libqvcl has recorded: a SOURCE is a trace file (\"-\": standard input), a\n"
           "core file, or pid:N, a live process.\n\n";
    for (const Command &command : kTable) {
        (out << "  " << command.name).fill(10 - command.name.size()) << command.help << '\n';
        put_options(out, command.name);
    }
    out << "\n  every command\n";
    put_options(out, "");
    out << "\nExit status: 0 fine, 1 the file is damaged or the traces differ, 2 wrong usage, or "
           "a\n"
           "source that cannot be read.\n";
}

Status usage(Text &err, std::string_view problem, std::string_view what = {}) {
    err << "qvcl-trace: " << problem << what << "\nTry \"qvcl-trace --help\".\n";
    return kUsage;
}

struct Line {
    Options options;
    std::vector<const Option *> used;
    std::vector<std::string> words;  // the command and its files
    int other = -1;                  // kHelp or kVersion when one was given
};

Status parse(int argc, char **argv, Line &line, Text &err) {
    std::array<option, std::size(kOptions) + 3> longs{};
    for (size_t i = 0; i < std::size(kOptions); ++i) {
        longs[i] = {kOptions[i].name, kOptions[i].value != nullptr ? 1 : 0, nullptr,
                    static_cast<int>(i)};
    }
    longs[kHelp] = {"help", 0, nullptr, kHelp};
    longs[kVersion] = {"version", 0, nullptr, kVersion};
    optind = 0;  // a test calls this more than once in a process
    opterr = 0;
    for (int index = 0; (index = getopt_long(argc, argv, "", longs.data(), nullptr)) != -1;) {
        if (index == '?') {
            // None of one letter is known; those of a word in which they stand are read one by one.
            const char letter[] = {'-', static_cast<char>(optopt), '\0'};
            return usage(err, "unknown option, or a value is missing: ",
                         optopt > kVersion ? letter : argv[optind - 1]);
        }
        if (index >= kHelp) {
            line.other = index;
            return kFine;
        }
        const Option &option = kOptions[index];
        if (!option.set(line.options, optarg)) {
            return usage(err, (Text() << "--" << option.name << ": not understood: ").str(),
                         optarg);
        }
        line.used.push_back(&option);
    }
    line.words.assign(argv + optind, argv + argc);
    return kFine;
}

}  // namespace

constinit const std::span<const Command> kCommands = kTable;

Status run_command(const Command &command, const Options &options,
                   std::span<const std::string> names, std::span<const Source *const> sources,
                   Text &out, Text &err) {
    Progress::begin_command();
    std::vector<Dump> dumps(sources.size());
    for (size_t i = 0; i < dumps.size(); ++i) {
        dumps[i].name = names[i];
        dumps[i].load(*sources[i], command.objects);
    }
    bool fine = command.run(dumps, options, out);
    for (const Dump &dump : dumps) {
        dump.problems.print(err, dump.name);
        for (const std::string &what : dump.header.incomplete)
            (err << "qvcl-trace: " << dump.name << ": incomplete: ").plain(what) << '\n';
        fine = fine && dump.problems.count() == 0;
    }
    return fine ? kFine : kDamaged;
}

namespace {

Status run_live(const Command &command, const Options &options, const std::string &name, Text &out,
                Text &err) {
    const std::optional<pid_t> pid = process_of(name);
    if (!pid || options.access.stop || !options.access.exe.empty()) {
        return usage(err, command.name, " looks at a live process that runs on: pid:N");
    }
    Looks looks(*pid);
    if (!looks.failure().empty()) {
        err << "qvcl-trace: " << name << ": " << looks.failure() << '\n';
        return kUsage;
    }
    return command.live(looks, options, out, err) ? kFine : kDamaged;
}

}  // namespace

Status run(int argc, char **argv, Text &out, Text &err) {
    Line line;
    if (const Status status = parse(argc, argv, line, err); status != kFine) return status;
    if (line.other == kHelp) put_help(out);
    if (line.other == kVersion) {
        put_version(out << "qvcl-trace ", CL_VERSION);
        out << '\n';
    }
    if (line.other >= 0) return kFine;
    if (line.words.empty()) return usage(err, "no command");
    const auto command = std::ranges::find(kTable, line.words.front(), &Command::name);
    if (command == std::end(kTable)) return usage(err, "no such command: ", line.words.front());
    for (const Option *option : line.used) {
        if (!option->belongs_to(command->name)) {
            return usage(err, "not an option of this command: --", option->name);
        }
    }
    std::span names = std::span(line.words).subspan(1);
    const bool writes = !command->writes.empty() && line.options.out.empty();
    if (writes && names.size() == command->files + 1) {
        line.options.out = names.back();
        names = names.first(command->files);
    }
    if (names.size() < command->files || names.size() > command->most_files) {
        Text needed;
        needed << command->files;
        if (command->most_files != command->files) needed << " to " << command->most_files;
        return usage(err, "number of sources for this command: ", needed.str());
    }
    if (command->live != nullptr) return run_live(*command, line.options, names.front(), out, err);
    std::list<Source> sources;
    std::vector<const Source *> pointers;
    for (const std::string &name : names) {
        pointers.push_back(&sources.emplace_back(name.c_str(), line.options.access));
        if (sources.back().error().empty()) continue;
        err << "qvcl-trace: " << name << ": " << sources.back().error() << '\n';
        return kUsage;
    }
    return run_command(*command, line.options, names, pointers, out, err);
}

}  // namespace trace_reader
