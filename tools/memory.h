// The address space of a process: of one that runs, of one that left a core file, or one that a
// test made up. Nothing in it is believed, not even what the loader put there: reads are bounded by
// whoever asks, and what cannot be read is absent.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/header.h"
#include "tools/text.h"

namespace trace_reader {

struct Mapping {
    uint64_t begin = 0;
    uint64_t end = 0;
    bool writable = false;
    uint64_t offset = 0;  // in the file
    std::string path;     // empty: no file
};

class Memory {
  public:
    Memory() = default;
    Memory(const Memory &) = delete;
    Memory &operator=(const Memory &) = delete;
    virtual ~Memory() = default;

    // Reads at most `length` bytes from `address` on and returns how many there were: fewer where
    // the memory ends or cannot be read.
    virtual uint64_t read(uint64_t address, void *to, uint64_t length) const = 0;
    // By address; they do not overlap.
    virtual const std::vector<Mapping> &mappings() const = 0;

    template <class T>
    std::optional<T> get(uint64_t address) const {
        T value{};
        if (read(address, &value, sizeof value) != sizeof value) return {};
        return value;
    }
    // Bytes from `address` on that are mapped without a gap, at most `length`.
    uint64_t mapped(uint64_t address, uint64_t length) const;
};

using Module = HeaderLines::Module;

// The ELF files that are mapped to be run, by address.
std::vector<Module> modules_of(const Memory &memory);

// The address of the library's main table; nothing when there is none. What decides is its header:
// the eye-catcher, its size, and its own address. It is looked for under its name first, in every
// module, as the linker may have given the library's variable a place in the executable; then, for
// files that were linked without names, in what the modules may write to.
std::optional<uint64_t> find_main_table(const Memory &memory, std::span<const Module> modules);

}  // namespace trace_reader
