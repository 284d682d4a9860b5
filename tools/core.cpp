// A core file holds what was mapped, segment by segment, and notes of the process. What is only in
// the mapped files, as most code is, is mostly not in it.
#include "tools/core.h"

#ifndef QVCL_ELFUTILS

namespace trace_reader {

Snapshot snapshot_of_core(int, uint64_t, const std::string &) {
    return {"a core file, and this was built without libdw, which reads them", {}};
}

}  // namespace trace_reader

#else

#include <elfutils/libdwelf.h>
#include <fcntl.h>
#include <gelf.h>
#include <sys/procfs.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>

#include "tools/modules.h"

namespace trace_reader {

namespace {

constexpr uint64_t kLargestNotes = 64 << 20;
constexpr size_t kMostSegments = 1 << 20;

class Core final : public Memory {
  public:
    explicit Core(int fd);
    ~Core() override { elf_end(elf_); }

    const std::string &failure() const { return failure_; }
    uint64_t read(uint64_t address, void *to, uint64_t length) const override;
    const std::vector<Mapping> &mappings() const override { return mappings_; }
    uint64_t entry() const { return entry_; }  // where the program began
    std::optional<HeaderLines::Signal> killer() const;
    HeaderLines header;

  private:
    struct Segment {
        uint64_t begin, end;  // addresses
        uint64_t offset;      // in the file
    };
    void take_segment(const GElf_Phdr &segment);
    void take_notes(const GElf_Phdr &segment);
    void take_note(const GElf_Nhdr &note, std::string_view bytes);
    void take_files(std::string_view bytes);

    int fd_;
    Elf *elf_;
    std::string failure_;
    std::vector<Segment> segments_;
    std::vector<Mapping> mappings_;
    std::vector<Mapping> files_;
    uint64_t entry_ = 0;
    HeaderLines::Signal signal_;
};

Core::Core(int fd) : fd_(fd) {
    elf_version(EV_CURRENT);
    elf_ = elf_begin(fd, ELF_C_READ, nullptr);
    GElf_Ehdr head;
    size_t count = 0;
    if (gelf_getehdr(elf_, &head) == nullptr || head.e_type != ET_CORE ||
        elf_getphdrnum(elf_, &count) != 0) {
        failure_ = "an ELF file, but no core file";
        return;
    }
    if (gelf_getclass(elf_) != ELFCLASS64) {
        failure_ = "the core file of a 32-bit process";
        return;
    }
    for (size_t i = 0; i < std::min(count, kMostSegments); ++i) {
        GElf_Phdr segment;
        if (gelf_getphdr(elf_, static_cast<int>(i), &segment) == nullptr) continue;
        if (segment.p_type == PT_LOAD) take_segment(segment);
        if (segment.p_type == PT_NOTE) take_notes(segment);
    }
    std::ranges::sort(segments_, {}, &Segment::begin);
    std::ranges::sort(mappings_, {}, &Mapping::begin);
    for (Mapping &mapping : mappings_) {
        const auto file = std::ranges::find_if(files_, [&](const Mapping &known) {
            return known.begin <= mapping.begin && mapping.begin < known.end;
        });
        if (file == files_.end()) continue;
        mapping.path = file->path;
        mapping.offset = file->offset + (mapping.begin - file->begin);
    }
}

void Core::take_segment(const GElf_Phdr &segment) {
    if (segment.p_memsz == 0 || segment.p_vaddr + segment.p_memsz < segment.p_vaddr) return;
    Mapping mapping;
    mapping.begin = segment.p_vaddr;
    mapping.end = segment.p_vaddr + segment.p_memsz;
    mapping.writable = (segment.p_flags & PF_W) != 0;
    mappings_.push_back(std::move(mapping));
    const uint64_t held = std::min(segment.p_filesz, segment.p_memsz);
    segments_.push_back({segment.p_vaddr, segment.p_vaddr + held, segment.p_offset});
}

void Core::take_notes(const GElf_Phdr &segment) {
    if (segment.p_filesz > kLargestNotes) return;
    Elf_Data *data = elf_getdata_rawchunk(elf_, static_cast<int64_t>(segment.p_offset),
                                          segment.p_filesz, ELF_T_NHDR);
    GElf_Nhdr note;
    size_t name = 0, content = 0;
    for (size_t at = 0; data != nullptr;) {
        at = gelf_getnote(data, at, &note, &name, &content);
        if (at == 0) return;
        take_note(note, {static_cast<const char *>(data->d_buf) + content, note.n_descsz});
    }
}

template <class T>
T value_of(std::string_view bytes, size_t offset = 0) {
    return load<T>({reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()}, offset);
}

void Core::take_note(const GElf_Nhdr &note, std::string_view bytes) {
    if (note.n_type == NT_PRPSINFO) {
        const auto info = value_of<prpsinfo_t>(bytes);
        header.pid = static_cast<uint64_t>(info.pr_pid);
        header.command.assign(info.pr_psargs, strnlen(info.pr_psargs, sizeof info.pr_psargs));
        while (header.command.ends_with(' '))
            header.command.pop_back();
    } else if (note.n_type == NT_PRSTATUS && !signal_.thread) {
        // The thread that the signal was for comes first.
        const auto status = value_of<prstatus_t>(bytes);
        signal_.number = static_cast<uint64_t>(status.pr_info.si_signo);
        signal_.thread = static_cast<uint64_t>(status.pr_pid);
    } else if (note.n_type == NT_SIGINFO && !signal_.code) {
        const auto info = value_of<siginfo_t>(bytes);
        signal_.code = info.si_code;
        // Only for a fault of its own is there an address.
        if (info.si_code > 0) signal_.address = address(info.si_addr);
    } else if (note.n_type == NT_AUXV) {
        for (size_t at = 0; at < bytes.size(); at += sizeof(Elf64_auxv_t)) {
            const auto value = value_of<Elf64_auxv_t>(bytes, at);
            if (value.a_type == AT_ENTRY) entry_ = value.a_un.a_val;
        }
    } else if (note.n_type == NT_FILE) {
        take_files(bytes);
    }
}

// A count, the size of a page, three numbers for each mapping, then the paths.
void Core::take_files(std::string_view bytes) {
    constexpr size_t kHead = 2 * sizeof(uint64_t), kRow = 3 * sizeof(uint64_t);
    const auto count = value_of<uint64_t>(bytes), page = value_of<uint64_t>(bytes, 8);
    if (bytes.size() < kHead || count > (bytes.size() - kHead) / kRow) return;
    std::string_view paths = bytes.substr(kHead + count * kRow);
    for (uint64_t i = 0; i < count; ++i) {
        const size_t row = kHead + i * kRow;
        Mapping file;
        file.begin = value_of<uint64_t>(bytes, row);
        file.end = value_of<uint64_t>(bytes, row + 8);
        file.offset = value_of<uint64_t>(bytes, row + 16) * page;
        file.path = paths.substr(0, paths.find('\0'));
        paths.remove_prefix(std::min(file.path.size() + 1, paths.size()));
        files_.push_back(std::move(file));
    }
}

uint64_t Core::read(uint64_t address, void *to, uint64_t length) const {
    uint64_t done = 0;
    auto segment = std::ranges::upper_bound(segments_, address, {}, &Segment::end);
    while (done < length && segment != segments_.end() && segment->begin <= address + done) {
        const uint64_t at = address + done - segment->begin;
        const uint64_t here = std::min(length - done, segment->end - (address + done));
        const ssize_t got = pread(fd_, static_cast<uint8_t *>(to) + done, here,
                                  static_cast<off_t>(segment->offset + at));
        if (got <= 0) break;
        done += static_cast<uint64_t>(got);
        if (address + done == segment->end) ++segment;
    }
    return done;
}

// A debugger that wrote the core of a running process has stopped it, not killed it.
std::optional<HeaderLines::Signal> Core::killer() const {
    const int64_t code = signal_.code.value_or(0);
    const uint64_t number = signal_.number;
    if (number == 0 || number == SIGSTOP || (number == SIGTRAP && code <= 0)) return {};
    HeaderLines::Signal signal = signal_;
    const char *name = sigabbrev_np(static_cast<int>(number));
    if (name != nullptr) signal.name = std::string("SIG") + name;
    return signal;
}

// The executable's place among the modules leads to the file that was given, if it is that.
std::string take_exe(const Core &core, const std::string &exe, std::vector<Module> &modules) {
    const std::string id = build_id_of_file(exe);
    if (id.empty()) return exe + " is no ELF file with a build id";
    auto module = std::ranges::find(modules, id, &Module::build_id);
    if (module == modules.end()) {  // its build id may not be in the core
        module = std::ranges::find_if(modules, [&](const Module &main) {
            return main.build_id.empty() && main.base <= core.entry() && core.entry() < main.end;
        });
    }
    if (module == modules.end()) return exe + " is not what this core file is of";
    module->build_id = id;
    module->path = exe;
    return {};
}

}  // namespace

Snapshot snapshot_of_core(int fd, uint64_t written, const std::string &exe) {
    Core core(fd);
    if (!core.failure().empty()) return {core.failure(), {}};
    Snapshots snapshots(core);
    if (!snapshots.found()) return {"no main table of libqvcl in this core file", {}};
    std::string failure;
    if (!exe.empty()) failure = take_exe(core, exe, snapshots.modules());
    if (!failure.empty()) return {failure, {}};
    HeaderLines header = core.header;
    header.signal = core.killer();
    header.reason = "core file";
    if (written != 0) header.time = written;
    return snapshots.of_rest(std::move(header));
}

}  // namespace trace_reader

#endif
