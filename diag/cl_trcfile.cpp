// Trace files: rings and tables, byte for byte, and the generation number in their names.
//
// A dump changes nothing of what it writes and reports failures to the internal log only: whoever
// asks for one is already in trouble.
#include <fcntl.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <qvcl/conf.h>
#include <qvcl/log.h>
#include <qvcl/main.h>
#include <qvcl/steps.h>
#include <qvcl/system.h>
#include <qvcl/trace.h>

namespace {

constexpr char kSection[] = "GenConfig";
constexpr char kMember[] = "GenNum";
constexpr size_t kAlignment = 16;
constexpr int kNone = -1;

__attribute__((format(printf, 1, 2))) void log_line(const char *format, ...) {
    char line[320];
    va_list list;
    va_start(list, format);
    vsnprintf(line, sizeof line, format, list);
    va_end(list);
    cl_inlog_write(line);
}

// One write; a short one is a failure.
bool write_all(int fd, const void *data, uint64_t length) {
    const int64_t written = cl_u_write(fd, data, length);
    if (written >= 0 && static_cast<uint64_t>(written) == length) return true;
    log_line("CLLIB:trc file write err(%zd:%d)", static_cast<ssize_t>(written), errno);
    return false;
}

// The header text with its NUL, padded so that the first block begins at a multiple of 16.
bool write_header_text(int fd, const char *text) {
    constexpr char kZero[kAlignment] = {};
    const size_t length = strlen(text) + 1;
    return write_all(fd, text, length) && write_all(fd, kZero, kAlignment - length % kAlignment);
}

bool add_block(const CL_TableHeader *header) {
    return header == nullptr || CL_TRC_AddTbl(header, header->size) != 0;
}

bool add_tables() {
    const CL_MainBlock &main = *CL_MainTable;
    const auto header_of = [](const CL_TraceRing *ring) {
        return ring != nullptr ? &ring->header : nullptr;
    };
    return add_block(header_of(main.library_ring)) && add_block(header_of(main.user_ring)) &&
           add_block(&main.header) && add_block(main.descriptor_table);
}

// The number that the generation file names, 0 instead of an unusable one; kNone when it names
// none.
int32_t stored_generation(const char *path) {
    CL_Queue conf;
    CL_QUE_InitQT(&conf, 0);
    uint32_t line;
    if (CL_ReadConf(&conf, path, &line) != CL_CONF_OK) return kNone;
    char value[CL_CONF_VALUE_MAX + 1];
    long number = kNone;
    if (CL_GetMember(&conf, kSection, kMember, value, sizeof value, &line) == CL_CONF_OK) {
        char *end;
        number = strtol(value, &end, 0);
        if (*end != '\0' || number < 0 || number >= long{CL_MainTable->generations}) number = 0;
    }
    CL_FreeConf(&conf);
    return static_cast<int32_t>(number);
}

}  // namespace

void CL_TRC_Out(const char *path, const char *headerText) {
    CL_MainBlock &main = *CL_MainTable;
    const int fd = cl_open_trc(path, headerText);
    if (fd == kNone) return;
    // Another dump is in progress when its callback asks for this one, directly or because it
    // crashed. The callback is not entered again, and goes on with its own file afterwards.
    const int outer = main.trace_fd;
    main.trace_fd = fd;
    if (add_tables()) {
        if (main.dump_callback != nullptr && outer == kNone) main.dump_callback();
        if (cl_u_fdatasync(fd) != 0) log_line("CLLIB:trc file fdatasync err(%d).", errno);
        if (cl_u_close(fd) != 0) log_line("CLLIB:trc file close err(%d).", errno);
    } else {
        cl_u_close(fd);
    }
    main.trace_fd = outer;
}

uint32_t CL_TRC_AddTbl(const void *block, uint64_t length) {
    const int fd = CL_MainTable->trace_fd;
    return fd != kNone && write_all(fd, block, length) ? 1 : 0;
}

int32_t cl_open_trc(const char *path, const char *headerText) {
    constexpr mode_t kMode = 0600;
    char name[sizeof CL_TraceRing{}.prefix + 16];
    if (path == nullptr) {
        const CL_TraceRing *ring = CL_MainTable->user_ring;
        if (ring == nullptr || ring->prefix[0] == '\0') return kNone;
        snprintf(name, sizeof name, "%.256s%d.trc", ring->prefix, cl_getgen(ring->prefix));
        path = name;
    }
    const int fd = cl_u_open(path, O_RDWR | O_CREAT | O_TRUNC, kMode);
    if (fd == -1) {
        log_line("CLLIB:trc file open err %s (%d).", path, errno);
        return kNone;
    }
    log_line("CLLIB:trc out start %s", path);
    if (headerText != nullptr && !write_header_text(fd, headerText)) {
        cl_u_close(fd);
        return kNone;
    }
    return fd;
}

int32_t cl_getgen(const char *prefix) {
    char path[sizeof CL_TraceRing{}.prefix + 8];
    snprintf(path, sizeof path, "%.256s.cnf", prefix);
    const int32_t now = stored_generation(path);
    if (now == kNone) {
        cl_writegen(path, 1);
        return 0;
    }
    const int32_t next = now + 1;
    cl_writegen(path, static_cast<uint32_t>(next) < CL_MainTable->generations ? next : 0);
    return now;
}

void cl_writegen(const char *path, int n) {
    FILE *file = fopen(path, "w+");
    if (file == nullptr) return;
    fprintf(file, "[%s]\n", kSection);
    fprintf(file, "%s = %d\n", kMember, n);
    fclose(file);
}

char *cl_getpath(const char *path, char *out) {
    const char *slash = strrchr(path, '/');
    const size_t length = slash != nullptr ? static_cast<size_t>(slash - path) + 1 : 0;
    memcpy(out, path, length);
    out[length] = '\0';
    return slash != nullptr ? out : nullptr;
}
