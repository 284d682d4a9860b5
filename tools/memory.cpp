// Modules are read from the memory itself, not from their files: these may be gone, or new ones.
#include "tools/memory.h"

#include <elf.h>
#include <qvcl/main_table.h>

#include <algorithm>
#include <cstring>

namespace trace_reader {

namespace {

constexpr size_t kMostModules = 4096;
constexpr size_t kMostHeaders = 64;  // program headers of a module
constexpr uint64_t kLargestNotes = 65536;
constexpr uint64_t kMostDynamic = 512;  // entries
constexpr uint64_t kLongestChain = 1 << 16;
constexpr uint64_t kSearched = 1 << 30;  // bytes, for a table without a name
constexpr char kSymbol[] = "CL_EM_MainTable";

constexpr uint64_t kPage = 4096;

uint64_t page_of(uint64_t address) {
    return address & ~(kPage - 1);
}

// An ELF file as it lies in memory.
class Image {
  public:
    Image(const Memory &memory, uint64_t base);
    explicit operator bool() const { return !headers_.empty(); }
    uint64_t end() const;  // of its last segment
    std::string build_id() const;
    std::optional<uint64_t> symbol(std::string_view name) const;

  private:
    struct Dynamic {
        uint64_t symbols = 0, strings = 0, hash = 0;
    };
    Dynamic dynamic() const;
    std::optional<uint32_t> first_of(uint64_t hash_table, uint32_t hash, uint64_t &chain) const;
    const Elf64_Phdr *segment(uint32_t type) const;

    const Memory &memory_;
    uint64_t bias_ = 0;  // what is added to an address of the file
    std::vector<Elf64_Phdr> headers_;
};

Image::Image(const Memory &memory, uint64_t base) : memory_(memory) {
    const auto header = memory.get<Elf64_Ehdr>(base);
    if (!header || memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 ||
        header->e_ident[EI_CLASS] != ELFCLASS64 || header->e_phentsize != sizeof(Elf64_Phdr)) {
        return;
    }
    headers_.resize(std::min<size_t>(header->e_phnum, kMostHeaders));
    const uint64_t bytes = headers_.size() * sizeof(Elf64_Phdr);
    headers_.resize(memory.read(base + header->e_phoff, headers_.data(), bytes) /
                    sizeof(Elf64_Phdr));
    if (const Elf64_Phdr *first = segment(PT_LOAD)) bias_ = base - page_of(first->p_vaddr);
}

const Elf64_Phdr *Image::segment(uint32_t type) const {
    const auto found = std::ranges::find(headers_, type, &Elf64_Phdr::p_type);
    return found != headers_.end() ? &*found : nullptr;
}

uint64_t Image::end() const {
    uint64_t end = 0;
    for (const Elf64_Phdr &header : headers_) {
        if (header.p_type == PT_LOAD) end = std::max(end, bias_ + header.p_vaddr + header.p_memsz);
    }
    return end;
}

std::string Image::build_id() const {
    for (const Elf64_Phdr &header : headers_) {
        if (header.p_type != PT_NOTE) continue;
        std::vector<uint8_t> notes(std::min(header.p_memsz, kLargestNotes));
        notes.resize(memory_.read(bias_ + header.p_vaddr, notes.data(), notes.size()));
        const auto padded = [](uint64_t size) { return (size + 3) & ~uint64_t{3}; };
        for (uint64_t at = 0; at + sizeof(Elf64_Nhdr) <= notes.size();) {
            Elf64_Nhdr note;
            memcpy(&note, &notes[at], sizeof note);
            const uint64_t name = at + sizeof note, id = name + padded(note.n_namesz);
            at = id + padded(note.n_descsz);
            if (at > notes.size()) break;
            if (note.n_type != NT_GNU_BUILD_ID || note.n_namesz != sizeof ELF_NOTE_GNU ||
                memcmp(&notes[name], ELF_NOTE_GNU, sizeof ELF_NOTE_GNU) != 0) {
                continue;
            }
            return hex_of(part(notes, id, note.n_descsz));
        }
    }
    return {};
}

Image::Dynamic Image::dynamic() const {
    Dynamic found;
    const Elf64_Phdr *segment = this->segment(PT_DYNAMIC);
    if (segment == nullptr) return found;
    std::vector<Elf64_Dyn> entries(
        std::min<uint64_t>(segment->p_memsz / sizeof(Elf64_Dyn), kMostDynamic));
    entries.resize(
        memory_.read(bias_ + segment->p_vaddr, entries.data(), entries.size() * sizeof(Elf64_Dyn)) /
        sizeof(Elf64_Dyn));
    for (const Elf64_Dyn &entry : entries) {
        // The loader has made addresses of them, but not in every library.
        const uint64_t value =
            entry.d_un.d_ptr < bias_ ? bias_ + entry.d_un.d_ptr : entry.d_un.d_ptr;
        if (entry.d_tag == DT_SYMTAB) found.symbols = value;
        if (entry.d_tag == DT_STRTAB) found.strings = value;
        if (entry.d_tag == DT_GNU_HASH) found.hash = value;
        if (entry.d_tag == DT_NULL) break;
    }
    return found;
}

// The first symbol in the bucket of that hash; `chain` becomes the address of its hash.
std::optional<uint32_t> Image::first_of(uint64_t table, uint32_t hash, uint64_t &chain) const {
    struct Head {
        uint32_t buckets, first, blooms, shift;
    };
    const auto head = memory_.get<Head>(table);
    if (!head || head->buckets == 0) return {};
    const uint64_t buckets = table + sizeof *head + uint64_t{8} * head->blooms;
    const auto index = memory_.get<uint32_t>(buckets + uint64_t{4} * (hash % head->buckets));
    if (!index || *index < head->first) return {};
    chain = buckets + uint64_t{4} * head->buckets + uint64_t{4} * (*index - head->first);
    return index;
}

std::optional<uint64_t> Image::symbol(std::string_view name) const {
    const Dynamic tables = dynamic();
    uint32_t hash = 5381;
    for (const char c : name)
        hash = hash * 33 + static_cast<uint8_t>(c);
    uint64_t chain = 0;
    const auto first = first_of(tables.hash, hash, chain);
    if (!first) return {};
    for (uint64_t i = 0; i < kLongestChain; ++i) {
        const auto link = memory_.get<uint32_t>(chain + 4 * i);
        if (!link) return {};
        if ((*link | 1) == (hash | 1)) {
            const uint64_t place = tables.symbols + (uint64_t{*first} + i) * sizeof(Elf64_Sym);
            const auto symbol = memory_.get<Elf64_Sym>(place).value_or(Elf64_Sym{});
            std::string text(name.size() + 1, ' ');
            memory_.read(tables.strings + symbol.st_name, text.data(), text.size());
            if (text.c_str() == name) return bias_ + symbol.st_value;
        }
        if ((*link & 1) != 0) return {};
    }
    return {};
}

bool is_main_table(const Memory &memory, uint64_t address) {
    const auto header = memory.get<CL_TableHeader>(address);
    return header && memcmp(header->eye, CL_EYE_MAIN, sizeof CL_EYE_MAIN) == 0 &&
           header->address == address && header->size == sizeof(CL_MainBlock);
}

// Looks for the table at every address of [begin, end) where one may be.
std::optional<uint64_t> search(const Memory &memory, uint64_t begin, uint64_t end) {
    std::vector<uint8_t> piece(std::min<uint64_t>(end - begin, 1 << 20));
    constexpr std::string_view kEye(CL_EYE_MAIN, sizeof CL_EYE_MAIN);
    while (begin < end) {
        const uint64_t got = memory.read(begin, piece.data(), std::min(piece.size(), end - begin));
        const std::string_view text(reinterpret_cast<const char *>(piece.data()), got);
        for (size_t at = 0; (at = text.find(kEye, at)) != std::string_view::npos; ++at) {
            if (is_main_table(memory, begin + at)) return begin + at;
        }
        if (got >= end - begin) break;
        // An eye-catcher may lie across the end of a piece; what cannot be read is passed by.
        begin =
            got == piece.size() ? begin + got - (kEye.size() - 1) : page_of(begin + got) + kPage;
    }
    return {};
}

}  // namespace

uint64_t Memory::mapped(uint64_t address, uint64_t length) const {
    const std::vector<Mapping> &all = mappings();
    auto next = std::ranges::upper_bound(all, address, {}, &Mapping::end);
    uint64_t end = address;
    while (next != all.end() && next->begin <= end && end - address < length)
        end = next++->end;
    return std::min(end - address, length);
}

std::vector<Module> modules_of(const Memory &memory) {
    std::vector<Module> modules;
    const std::vector<Mapping> &all = memory.mappings();
    for (size_t i = 0; i < all.size() && modules.size() < kMostModules; ++i) {
        const Mapping &first = all[i];
        if (first.offset != 0 || first.path.empty() || first.path.front() == '[') continue;
        // A file that is only looked at lies there in one piece.
        const std::span rest = std::span(all).subspan(i, std::min(all.size() - i, kMostHeaders));
        uint64_t end = first.end;
        for (const Mapping &mapping : rest) {
            if (mapping.offset != 0 && mapping.path == first.path) end = mapping.end;
        }
        if (end == first.end || (!modules.empty() && first.begin < modules.back().end)) continue;
        const Image image(memory, first.begin);
        if (image) end = std::max(image.end(), first.end);
        modules.push_back({first.begin, end, image.build_id(), first.path});
    }
    return modules;
}

std::optional<uint64_t> find_main_table(const Memory &memory, std::span<const Module> modules) {
    for (const Module &module : modules) {
        const auto address = Image(memory, module.base).symbol(kSymbol);
        if (address && is_main_table(memory, *address)) return address;
    }
    uint64_t left = kSearched;
    for (const bool in_module : {true, false}) {
        for (const Mapping &mapping : memory.mappings()) {
            const bool inside = std::ranges::any_of(modules, [&](const Module &module) {
                return mapping.begin < module.end && mapping.end > module.base;
            });
            if (!mapping.writable || inside != in_module) continue;
            const uint64_t length = std::min(left, mapping.end - mapping.begin);
            const auto found = search(memory, mapping.begin, mapping.begin + length);
            if (found) return found;
            left -= length;
        }
    }
    return {};
}

}  // namespace trace_reader
