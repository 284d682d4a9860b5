// A module's file is opened when the first address in it is asked for. Without libdw, or without
// the file that belongs to it, the module and the offset in it remain.
#include "tools/modules.h"

#include <algorithm>
#include <map>

#ifdef QVCL_ELFUTILS
#include <cxxabi.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwelf.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#endif

namespace trace_reader {

namespace {

using Module = HeaderLines::Module;

std::string_view base_name(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

#ifdef QVCL_ELFUTILS

std::string build_id_of(int fd) {
    elf_version(EV_CURRENT);
    Elf *elf = elf_begin(fd, ELF_C_READ, nullptr);
    const void *id = nullptr;
    const ssize_t length = dwelf_elf_gnu_build_id(elf, &id);
    std::string text;
    if (length > 0) text = hex_of({static_cast<const uint8_t *>(id), static_cast<size_t>(length)});
    elf_end(elf);
    return text;
}

// One module's symbols and lines.
class Symbols {
  public:
    Symbols(const Module &module, std::optional<uint64_t> pid);
    ~Symbols() {
        if (dwfl_ != nullptr) dwfl_end(dwfl_);
    }
    Symbols(const Symbols &) = delete;
    Symbols &operator=(const Symbols &) = delete;
    std::string name_of(uint64_t address) const;

  private:
    Dwarf_Line *line_of(uint64_t address) const;

    Dwfl *dwfl_ = nullptr;
    Dwfl_Module *module_ = nullptr;
};

// The first file that has the module's build id; negative: none.
int file_of(const Module &module, std::optional<uint64_t> pid) {
    if (module.build_id.empty()) return -1;
    std::vector<std::string> places = {module.path};
    if (pid) {
        const std::string process = "/proc/" + std::to_string(*pid);
        places.insert(places.end(), {process + "/root" + module.path, process + "/exe"});
    }
    for (const std::string &place : places) {
        // The path is a stranger's: opening what is no file may have an effect.
        struct stat status = {};
        stat(place.c_str(), &status);
        if (!S_ISREG(status.st_mode)) continue;
        const int fd = open(place.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        if (build_id_of(fd) == module.build_id) return fd;
        close(fd);
    }
    return -1;
}

Symbols::Symbols(const Module &module, std::optional<uint64_t> pid) {
    // Only what is on this machine: a name is not worth a wait for the network.
    unsetenv("DEBUGINFOD_URLS");
    static constexpr Dwfl_Callbacks kCallbacks = {dwfl_build_id_find_elf,
                                                  dwfl_standard_find_debuginfo,
                                                  dwfl_offline_section_address, nullptr};
    const int fd = file_of(module, pid);
    if (fd < 0) return;
    dwfl_ = dwfl_begin(&kCallbacks);
    if (dwfl_ == nullptr) {
        close(fd);
        return;
    }
    dwfl_report_begin(dwfl_);
    module_ =
        dwfl_report_elf(dwfl_, module.path.c_str(), module.path.c_str(), fd, module.base, false);
    dwfl_report_end(dwfl_, nullptr, nullptr);
    if (module_ == nullptr) close(fd);
}

std::string demangled(const char *name) {
    int status = 0;
    char *text = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    std::string result = text != nullptr ? text : name;
    free(text);
    return result;
}

std::string Symbols::name_of(uint64_t address) const {
    GElf_Off offset = 0;
    GElf_Sym symbol;
    const char *name = module_ != nullptr ? dwfl_module_addrinfo(module_, address, &offset, &symbol,
                                                                 nullptr, nullptr, nullptr)
                                          : nullptr;
    if (name == nullptr) return {};
    Text text;
    text.plain(demangled(name));
    if (offset != 0) (text << '+').hex(offset);
    int line = 0;
    Dwarf_Line *place = line_of(address);
    const char *file = place != nullptr ? dwarf_linesrc(place, nullptr, nullptr) : nullptr;
    if (file != nullptr && dwarf_lineno(place, &line) == 0) {
        (text << " (").plain(base_name(file)) << ':' << line << ')';
    }
    return text.str();
}

// Every unit is asked whether the address is its own: the table of addresses that would say so is
// one that not all compilers write.
Dwarf_Line *Symbols::line_of(uint64_t address) const {
    Dwarf_Addr bias = 0;
    Dwarf_Die *unit = nullptr;
    while ((unit = dwfl_module_nextcu(module_, unit, &bias)) != nullptr) {
        if (dwarf_haspc(unit, address - bias) == 1) return dwarf_getsrc_die(unit, address - bias);
    }
    return nullptr;
}

#else

class Symbols {
  public:
    Symbols(const Module &, std::optional<uint64_t>) {}
    static std::string name_of(uint64_t) { return {}; }
};

#endif

class ModuleNames final : public Names {
  public:
    ModuleNames(const std::vector<Module> &modules, std::optional<uint64_t> pid)
        : modules_(modules), pid_(pid) {}

    std::string name_of(uint64_t address) const override {
        const auto [known, is_new] = known_.try_emplace(address);
        if (is_new) known->second = find(address);
        return known->second;
    }

  private:
    std::string find(uint64_t address) const {
        const auto module = std::ranges::find_if(modules_, [&](const Module &candidate) {
            return candidate.base <= address && address < candidate.end;
        });
        if (module == modules_.end()) return {};
        auto &symbols = symbols_[module->base];
        if (symbols == nullptr) symbols = std::make_unique<Symbols>(*module, pid_);
        std::string name = symbols->name_of(address);
        if (!name.empty()) return name;
        Text text;
        (text.plain(base_name(module->path)) << '+').hex(address - module->base);
        return text.str();
    }

    std::vector<Module> modules_;
    std::optional<uint64_t> pid_;
    mutable std::map<uint64_t, std::string> known_;
    mutable std::map<uint64_t, std::unique_ptr<Symbols>> symbols_;
};

}  // namespace

std::shared_ptr<const Names> names_of(const std::vector<Module> &modules,
                                      std::optional<uint64_t> pid) {
    if (modules.empty()) return nullptr;
    return std::make_shared<ModuleNames>(modules, pid);
}

std::string build_id_of_file([[maybe_unused]] const std::string &path) {
#ifdef QVCL_ELFUTILS
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return {};
    std::string id = build_id_of(fd);
    close(fd);
    return id;
#else
    return {};
#endif
}

}  // namespace trace_reader
