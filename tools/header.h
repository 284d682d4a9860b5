// The header text of a dump: lines "name: value" that say when, why and of which process the dump
// was taken, and where its modules were. An application may put any text there, so what is no such
// line is left alone. Control characters in a value are escaped as \xHH, a backslash as two.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace trace_reader {

struct HeaderLines {
    struct Signal {  // there only after a fatal signal
        uint64_t number = 0;
        std::string name;  // "SIGSEGV"; empty when it was not given
        std::optional<int64_t> code;
        std::optional<uint64_t> address;
        std::optional<uint64_t> thread;
    };
    struct Module {            // a mapped ELF file
        uint64_t base = 0;     // address where the file's offset 0 is mapped
        uint64_t end = 0;      // of the mapping, above `base`
        std::string build_id;  // hexadecimal; empty when it has none
        std::string path;
    };

    std::string reason;
    std::optional<uint64_t> time;  // microseconds since the epoch
    std::optional<uint64_t> pid;
    std::string command;
    std::optional<Signal> signal;
    std::vector<Module> modules;
    std::vector<std::string> incomplete;  // what could not be read consistently

    // Reads a header text. A line whose value is not understood counts as not there; of lines that
    // can be there only once the first one counts. Takes time and memory linear in the text.
    static HeaderLines parse(std::string_view text);
    // The text that says all this. It is no longer than `limit`: the last modules go first.
    std::string text(size_t limit) const;
};

}  // namespace trace_reader
