// One table of line names, each with the function that takes the value. The text is a stranger's:
// numbers that do not fit are refused, and so many lines of a sort are kept at most.
#include "tools/header.h"

#include <algorithm>
#include <charconv>

#include "tools/text.h"

namespace trace_reader {

namespace {

constexpr size_t kMostModules = 4096;
constexpr size_t kMostIncomplete = 16;
constexpr uint64_t kSecond = 1000000;

using Signal = HeaderLines::Signal;

// All of the text as a number; "0x" in front of one whose base is 16.
template <class T>
bool parse_number(std::string_view text, T &value, int base = 10) {
    if (base == 16) {
        if (!text.starts_with("0x")) return false;
        text.remove_prefix(2);
    }
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base);
    return error == std::errc() && stop == end;
}

template <class T>
void take_number(std::optional<T> &to, std::string_view text, int base = 10) {
    T value = 0;
    if (!to && parse_number(text, value, base)) to = value;
}

std::string unescaped(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        uint8_t byte = 0;
        const std::string_view rest = text.substr(i);
        if (rest.starts_with("\\\\")) {
            ++i;
        } else if (rest.starts_with("\\x") && rest.size() >= 4 &&
                   std::from_chars(&rest[2], &rest[2] + 2, byte, 16).ptr == &rest[2] + 2) {
            out.push_back(static_cast<char>(byte));
            i += 3;
            continue;
        }
        out.push_back(text[i]);
    }
    return out;
}

// Takes the first word off the text.
std::string_view word_of(std::string_view &text) {
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(text.size(), word.size() + 1));
    return word;
}

void take_text(std::string &to, std::string_view value) {
    if (to.empty()) to = unescaped(value);
}

void take_time(HeaderLines &lines, std::string_view value) {
    const size_t point = value.find('.');
    uint64_t seconds = 0, fraction = 0;
    if (!lines.time && point != std::string_view::npos && value.size() == point + 7 &&
        parse_number(value.substr(0, point), seconds) && seconds < UINT64_MAX / kSecond &&
        parse_number(value.substr(point + 1), fraction)) {
        lines.time = seconds * kSecond + fraction;
    }
}

void take_signal(HeaderLines &lines, std::string_view value) {
    Signal signal;
    if (lines.signal || !parse_number(word_of(value), signal.number)) return;
    signal.name = unescaped(value);
    lines.signal = std::move(signal);
}

void take_module(HeaderLines &lines, std::string_view value) {
    HeaderLines::Module module;
    if (lines.modules.size() == kMostModules || !parse_number(word_of(value), module.base, 16) ||
        !parse_number(word_of(value), module.end, 16) || module.end <= module.base) {
        return;
    }
    const std::string_view id = word_of(value);
    if (id != "-") module.build_id = unescaped(id);
    module.path = unescaped(value);
    lines.modules.push_back(std::move(module));
}

// The four that follow a signal say nothing without one.
constexpr struct {
    std::string_view name;
    void (*take)(HeaderLines &lines, std::string_view value);
} kLines[] = {
    {"reason", [](HeaderLines &l, std::string_view value) { take_text(l.reason, value); }},
    {"time", take_time},
    {"process", [](HeaderLines &l, std::string_view value) { take_number(l.pid, value); }},
    {"command", [](HeaderLines &l, std::string_view value) { take_text(l.command, value); }},
    {"signal", take_signal},
    {"code",
     [](HeaderLines &l, std::string_view value) {
         if (l.signal) take_number(l.signal->code, value);
     }},
    {"address",
     [](HeaderLines &l, std::string_view value) {
         if (l.signal) take_number(l.signal->address, value, 16);
     }},
    {"thread",
     [](HeaderLines &l, std::string_view value) {
         if (l.signal) take_number(l.signal->thread, value);
     }},
    {"module", take_module},
    {"incomplete",
     [](HeaderLines &l, std::string_view value) {
         if (l.incomplete.size() < kMostIncomplete) l.incomplete.push_back(unescaped(value));
     }},
};

std::string escaped(std::string_view text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<uint8_t>(c);
        if (byte < 0x20 || byte == 0x7f) {
            out.append("\\x").append(hex_of({&byte, 1}));
        } else {
            out.append(c == '\\' ? "\\\\" : std::string_view(&c, 1));
        }
    }
    return out;
}

std::string text_of_signal(const HeaderLines::Signal &signal) {
    Text text;
    text << "signal: " << signal.number << ' ' << escaped(signal.name) << '\n';
    if (signal.code) text << "code: " << *signal.code << '\n';
    if (signal.address) (text << "address: ").hex(*signal.address) << '\n';
    if (signal.thread) text << "thread: " << *signal.thread << '\n';
    return text.str();
}

std::string text_of_module(const HeaderLines::Module &module) {
    Text text;
    (text << "module: ").hex(module.base) << ' ';
    text.hex(module.end) << ' ' << (module.build_id.empty() ? "-" : escaped(module.build_id)) << ' '
                         << escaped(module.path) << '\n';
    return text.str();
}

}  // namespace

std::string HeaderLines::text(size_t limit) const {
    Text front, back;
    if (!reason.empty()) front << "reason: " << escaped(reason) << '\n';
    if (time) {
        const std::string fraction = std::to_string(kSecond + *time % kSecond).substr(1);
        front << "time: " << *time / kSecond << '.' << fraction << '\n';
    }
    if (pid) front << "process: " << *pid << '\n';
    if (!command.empty()) {
        front << "command: " << escaped(std::string_view(command).substr(0, limit / 16)) << '\n';
    }
    if (signal) front << text_of_signal(*signal);
    for (const std::string &what : incomplete)
        back << "incomplete: " << escaped(what) << '\n';
    std::string text = front.str();
    for (const Module &module : modules) {
        const std::string line = text_of_module(module);
        if (text.size() + line.size() + back.size() > limit) break;
        text += line;
    }
    return text + back.str();
}

HeaderLines HeaderLines::parse(std::string_view text) {
    HeaderLines lines;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        const size_t colon = line.find(": ");
        if (colon == std::string_view::npos) continue;
        const auto *row = std::ranges::find(kLines, line.substr(0, colon),
                                            [](const auto &known) { return known.name; });
        if (row != std::end(kLines)) row->take(lines, line.substr(colon + 2));
    }
    return lines;
}

}  // namespace trace_reader
