// What a dump says of its process: moment, command and modules, from the dynamic linker and /proc.
#include <fcntl.h>
#include <link.h>
#include <qvcl/recorder.h>
#include <qvcl/system.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "starter/header_text.h"

namespace qvcl {

namespace {

constexpr char kDigits[] = "0123456789abcdef";
constexpr size_t kLongestCommand = 4096;  // bytes; the rest is left out

bool is_control(char character) {
    const auto code = static_cast<unsigned char>(character);
    return code < 0x20 || code == 0x7f;
}

}  // namespace

void HeaderText::put(char character) {
    if (length_ < size_) buffer_[length_] = character;
    ++length_;
}

HeaderText &HeaderText::put(const char *text) {
    while (*text != '\0')
        put(*text++);
    return *this;
}

HeaderText &HeaderText::put_escaped(const char *text, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        const auto code = static_cast<unsigned char>(text[i]);
        if (text[i] == '\\') {
            put("\\\\");
        } else if (is_control(text[i])) {
            put("\\x");
            put(kDigits[code >> 4]);
            put(kDigits[code & 15]);
        } else {
            put(text[i]);
        }
    }
    return *this;
}

HeaderText &HeaderText::put_decimal(uint64_t number, size_t digits) {
    char reversed[20];
    size_t count = 0;
    for (; number != 0 || count < digits; number /= 10)
        reversed[count++] = kDigits[number % 10];
    while (count != 0)
        put(reversed[--count]);
    return *this;
}

HeaderText &HeaderText::put_hex(uint64_t number) {
    unsigned shift = 60;
    while (shift != 0 && number >> shift == 0)
        shift -= 4;
    put("0x");
    for (;; shift -= 4) {
        put(kDigits[number >> shift & 15]);
        if (shift == 0) return *this;
    }
}

void HeaderText::end_line() {
    put('\n');
    if (length_ < size_) fitted_ = length_;
}

size_t HeaderText::finish() {
    if (size_ != 0) buffer_[fitted_] = '\0';
    return length_;
}

void put_moment(HeaderText &text) {
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    text.put("time: ").put_decimal(static_cast<uint64_t>(now.tv_sec)).put(".");
    text.put_decimal(static_cast<uint64_t>(now.tv_nsec / 1000), 6).end_line();
    text.put("process: ").put_decimal(static_cast<uint64_t>(getpid())).end_line();
}

void put_command(HeaderText &text) {
    char command[kLongestCommand];
    const int fd = cl_u_open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC, 0);
    if (fd == -1) return;
    int64_t length = cl_u_read(fd, command, sizeof command);
    cl_u_close(fd);
    while (length > 0 && command[length - 1] == '\0')
        --length;
    if (length <= 0) return;
    for (int64_t i = 0; i < length; ++i) {
        if (command[i] == '\0') command[i] = ' ';
    }
    text.put("command: ").put_escaped(command, static_cast<size_t>(length)).end_line();
}

namespace {

// The build id among a segment's notes, as hexadecimal digits; "-" when there is none.
bool put_build_id(HeaderText &text, const char *notes, uint64_t size, uint64_t alignment) {
    constexpr char kName[] = "GNU";
    const auto padded = [&](uint64_t length) { return (length + alignment - 1) & -alignment; };
    while (size >= sizeof(ElfW(Nhdr))) {
        ElfW(Nhdr) note;
        memcpy(&note, notes, sizeof note);
        const uint64_t description = sizeof note + padded(note.n_namesz);
        const uint64_t end = description + note.n_descsz;
        if (end > size) return false;
        if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == sizeof kName &&
            memcmp(notes + sizeof note, kName, sizeof kName) == 0) {
            for (const char *byte = notes + description; byte != notes + end; ++byte) {
                const auto code = static_cast<unsigned char>(*byte);
                const char digits[] = {kDigits[code >> 4], kDigits[code & 15], '\0'};
                text.put(digits);
            }
            return note.n_descsz != 0;
        }
        const uint64_t next = padded(end);
        if (next >= size) return false;
        notes += next;
        size -= next;
    }
    return false;
}

// The path of a module: the linker has none for the program itself, and for others the one that
// they were opened with. Null: no file (the kernel's own module).
const char *path_of(const struct dl_phdr_info &module, char *room) {
    if (module.dlpi_name[0] == '/') return module.dlpi_name;
    if (strchr(module.dlpi_name, '/') != nullptr) return realpath(module.dlpi_name, room);
    if (module.dlpi_name[0] != '\0') return nullptr;
    const ssize_t length = readlink("/proc/self/exe", room, PATH_MAX - 1);
    if (length <= 0) return nullptr;
    room[length] = '\0';
    return room;
}

int put_module(struct dl_phdr_info *module, size_t, void *to) {
    auto &text = *static_cast<HeaderText *>(to);
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    uint64_t begin = UINT64_MAX;
    uint64_t end = 0;  // of the last one: they ascend
    for (const auto *at = module->dlpi_phdr; at != module->dlpi_phdr + module->dlpi_phnum; ++at) {
        if (at->p_type != PT_LOAD) continue;
        if (at->p_vaddr < begin) begin = at->p_vaddr;
        end = at->p_vaddr + at->p_memsz;
    }
    char room[PATH_MAX];
    const char *path = path_of(*module, room);
    if (path == nullptr || end == 0) return 0;

    text.put("module: ").put_hex(module->dlpi_addr + (begin & -page)).put(" ");
    text.put_hex(module->dlpi_addr + ((end + page - 1) & -page)).put(" ");
    bool found = false;
    for (const auto *at = module->dlpi_phdr; at != module->dlpi_phdr + module->dlpi_phnum; ++at) {
        if (found || at->p_type != PT_NOTE) continue;
        const auto *notes = reinterpret_cast<const char *>(module->dlpi_addr + at->p_vaddr);
        found = put_build_id(text, notes, at->p_memsz, at->p_align == 8 ? 8 : 4);
    }
    text.put(found ? " " : "- ").put_escaped(path, strlen(path)).end_line();
    return 0;
}

}  // namespace

void put_modules(HeaderText &text) {
    dl_iterate_phdr(put_module, &text);
}

}  // namespace qvcl

extern "C" size_t CL_DescribeProcess(const char *reason, char *buffer, size_t size) {
    qvcl::HeaderText text(buffer, size);
    if (reason != nullptr) text.put("reason: ").put_escaped(reason, strlen(reason)).end_line();
    put_moment(text);
    put_command(text);
    put_modules(text);
    return text.finish();
}
