// The log: catalogue messages and the internal log.
//
// Catalogue texts come from files that the library does not control, so they are never handed to
// printf as they are: a text may say where an argument goes, not what the library reads or writes.
// All buffers are on the stack.
#include <syslog.h>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include <qvcl/log.h>
#include <qvcl/steps.h>

#include "core/error.h"
#include "core/text.h"

using qvcl::copy_text;

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};

constexpr size_t kNameMax = 31;
constexpr size_t kCatalogueMax = 255;
constexpr size_t kPathMax = 252;
constexpr size_t kTextSize = 1024;    // of a catalogue text
constexpr size_t kMessageSize = 999;  // of a formatted message
constexpr uint32_t kArgumentMax = 99;
constexpr int kKind = 4;  // the only kind of line the library passes to the callback

bool too_long(const char *text, size_t most) {
    return text != nullptr && strnlen(text, most + 1) > most;
}

// The arguments of one message as texts.
struct Arguments {
    uint32_t count = 0;
    const char *text[kArgumentMax];
    char made[kArgumentMax][32];

    const char *at(uint32_t index) const {
        return index < count && text[index] != nullptr ? text[index] : "(null)";
    }
};

// Takes the next argument of `type` and makes its text; false for a character that is no type.
bool take_argument(Arguments &arguments, char type, va_list *list) {
    char *made = arguments.made[arguments.count];
    constexpr size_t kSize = sizeof arguments.made[0];
    const char *text = made;
    switch (type) {
        case 'd':
            snprintf(made, kSize, "%d", va_arg(*list, int));
            break;
        case 'D':
            snprintf(made, kSize, "%lld", va_arg(*list, long long));
            break;
        case 'x':
            snprintf(made, kSize, "0x%08x", va_arg(*list, unsigned));
            break;
        case 'X':
            snprintf(made, kSize, "0x%016llx", va_arg(*list, unsigned long long));
            break;
        case 'p':
            snprintf(made, kSize, "%p", va_arg(*list, void *));
            break;
        case 's':
            text = va_arg(*list, const char *);
            break;
        default:
            return false;
    }
    arguments.text[arguments.count++] = text;
    return true;
}

// Output of at most size - 1 characters; more is dropped.
struct Output {
    char *text;
    size_t size;
    size_t length = 0;

    void put(const char *from, size_t count) {
        const size_t room = size - 1 - length;
        if (count > room) count = room;
        memcpy(text + length, from, count);
        length += count;
        text[length] = '\0';
    }
    void fill(size_t count) {
        const size_t room = size - 1 - length;
        if (count > room) count = room;
        memset(text + length, ' ', count);
        length += count;
        text[length] = '\0';
    }
};

// Reads digits as a number no larger than `most`.
uint32_t number(const char *&at, uint32_t most) {
    uint64_t value = 0;
    for (; *at >= '0' && *at <= '9'; ++at) {
        value = value * 10 + static_cast<uint32_t>(*at - '0');
        if (value > most) value = most;
    }
    return static_cast<uint32_t>(value);
}

// A string conversion of a catalogue text: %[N$][-][width][.precision]s.
struct Conversion {
    uint32_t position = 0;  // N, or 0
    bool left = false;
    uint32_t width = 0;
    int precision = -1;

    // Parses behind the "%"; returns what follows the conversion, or null when it is another one.
    const char *parse(const char *at) {
        const char *start = at;
        position = number(at, kArgumentMax + 1);
        if (position == 0 || *at != '$') {
            position = 0;
            at = start;
        } else {
            ++at;
        }
        for (; *at == '-' || *at == '0' || *at == ' ' || *at == '+' || *at == '#'; ++at) {
            if (*at == '-') left = true;
        }
        width = number(at, INT32_MAX);
        if (*at == '.') precision = static_cast<int>(number(++at, INT32_MAX));
        return *at == 's' ? at + 1 : nullptr;
    }

    void write(Output &out, const char *text) const {
        const size_t length =
            precision < 0 ? strlen(text) : strnlen(text, static_cast<size_t>(precision));
        const size_t padding = width > length ? width - length : 0;
        if (left) out.put(text, length);
        out.fill(padding);
        if (!left) out.put(text, length);
    }
};

// The message of a catalogue text. Conversions other than to a string stand for themselves.
void format_catalogue(Output &out, const char *format, const Arguments &arguments) {
    uint32_t next = 0;
    while (*format != '\0') {
        const size_t plain = strcspn(format, "%");
        out.put(format, plain);
        format += plain;
        if (*format == '\0') return;
        if (format[1] == '%') {
            out.put("%", 1);
            format += 2;
            continue;
        }
        Conversion conversion;
        const char *after = conversion.parse(format + 1);
        if (after == nullptr) {
            out.put("%", 1);
            ++format;
            continue;
        }
        const uint32_t index = conversion.position != 0 ? conversion.position - 1 : next++;
        conversion.write(out, arguments.at(index));
        format = after;
    }
}

// The message without a catalogue text: an argument that does not fit is left out, and later ones
// are still tried.
void format_plain(Output &out, const Arguments &arguments) {
    constexpr char kTitle[] = "catalog(id) not found:";
    out.put(kTitle, sizeof kTitle - 1);
    bool first = true;
    for (uint32_t i = 0; i < arguments.count; ++i) {
        const size_t length = strlen(arguments.at(i));
        if (out.length + length + 1 > kMessageSize) continue;
        if (!first) out.put(",", 1);
        first = false;
        out.put(arguments.at(i), length);
    }
}

}  // namespace

uint32_t CL_LOG_Init_M(const char *name, const char *catalogue, const char *altCatalogue,
                       const char *logPath, CL_ErrInfo *err) {
    CL_ErrInfo own;
    return cl_log_init(name, catalogue, altCatalogue, logPath, err != nullptr ? err : &own);
}

uint32_t cl_log_init(const char *name, const char *catalogue, const char *altCatalogue,
                     const char *logPath, CL_ErrInfo *err) {
    if (name == nullptr) return fail(err, EINVAL);
    if (too_long(name, kNameMax)) return fail(err, ENAMETOOLONG);
    if (catalogue == nullptr && altCatalogue == nullptr) return fail(err, EINVAL);
    if (too_long(catalogue, kCatalogueMax)) return fail(err, ENAMETOOLONG);
    if (too_long(altCatalogue, kCatalogueMax)) return fail(err, ENAMETOOLONG);
    if (logPath == nullptr) return fail(err, EINVAL);
    if (too_long(logPath, kPathMax)) return fail(err, ENAMETOOLONG);
    CL_MainBlock &table = *CL_MainTable;
    copy_text(table.log_name, sizeof table.log_name, name);
    copy_text(table.log_catalogue, sizeof table.log_catalogue, catalogue);
    copy_text(table.log_alt_catalogue, sizeof table.log_alt_catalogue, altCatalogue);
    copy_text(table.log_path, sizeof table.log_path, logPath);
    table.log_size = 1024;
    table.log_rotations = 4;
    table.log_ready = 1;
    return 1;
}

uint32_t cl_GetLogString(uint32_t messageId, char *out) {
    const auto failed = reinterpret_cast<nl_catd>(-1);
    nl_catd catalogue = cl_u_catopen(CL_MainTable->log_catalogue, 0);
    if (catalogue == failed) catalogue = cl_u_catopen(CL_MainTable->log_alt_catalogue, 0);
    if (catalogue == failed) return 0;
    const char *text = cl_u_catgets(catalogue, 1, static_cast<int>(messageId), "");
    const size_t length = strnlen(text, kTextSize - 1);
    if (length != 0) {
        memcpy(out, text, length);
        out[length] = '\0';
    }
    cl_u_catclose(catalogue);
    return length != 0 ? 1 : 0;
}

uint32_t CL_LOG_Out(uint32_t destinations, uint16_t severity, uint64_t /*reserved*/,
                    uint32_t messageId, const char *types, ...) {
    constexpr struct {
        char letter;
        int priority;
    } kSeverities[] = {{'E', LOG_ERR}, {'W', LOG_WARNING}, {'I', LOG_INFO}};
    constexpr uint32_t kAll = CL_LOG_SYSLOG | CL_LOG_INTERNAL | CL_LOG_STDERR;
    const CL_MainBlock &table = *CL_MainTable;
    if (table.log_ready == 0 || (destinations & kAll) == 0) return 0;
    if (severity < CL_LOG_ERROR || severity > CL_LOG_INFO) return 0;
    const auto &level = kSeverities[severity - 1];
    const uint32_t id = messageId & 0xffff;

    Arguments arguments;
    va_list list;
    va_start(list, types);
    for (const char *t = types; t != nullptr && arguments.count < kArgumentMax; ++t) {
        if (!take_argument(arguments, *t, &list)) break;
    }
    va_end(list);

    char message[kMessageSize + 1] = "";
    char text[kTextSize];
    if (cl_GetLogString(id, text) != 0) {
        Output out = {message, kMessageSize};
        format_catalogue(out, text, arguments);
    } else {
        Output out = {message, sizeof message};
        format_plain(out, arguments);
    }

    char line[1023];
    snprintf(line, sizeof line, "%c %05u %s", level.letter, id, message);
    if ((destinations & CL_LOG_SYSLOG) != 0) {
        openlog(table.log_name, 0, LOG_DAEMON);
        syslog(level.priority, "%s", line);
        closelog();
    }
    if ((destinations & CL_LOG_INTERNAL) != 0) cl_inlog_write(line);
    if ((destinations & CL_LOG_STDERR) != 0) fprintf(stderr, "%s : %s\n", table.log_name, line);
    return 1;
}

void CL_SetLogCallbackFunction(CL_LogCallback callback) {
    CL_MainTable->log_callback = callback;
    char text[80];
    snprintf(text, sizeof text, "Trace Callback is set by Kelvaris. %p",
             reinterpret_cast<void *>(callback));
    cl_inlog_write(text);
}

void cl_inlog_write(const char *text) {
    const CL_LogCallback callback = CL_MainTable->log_callback;
    if (callback == nullptr) return;  // nobody would see the line
    uint64_t microseconds = 0;
    const auto seconds = static_cast<time_t>(CL_GetTime_M(&microseconds));
    struct tm local = {};
    localtime_r(&seconds, &local);
    char date[32];  // holds any
    strftime(date, sizeof date, "%Y/%m/%d %H:%M:%S", &local);
    char line[1024];
    snprintf(line, sizeof line, "%s:%03u.%03u %s\n", date,
             static_cast<unsigned>(microseconds / 1000), static_cast<unsigned>(microseconds % 1000),
             text != nullptr ? text : "(null)");
    callback(kKind, line);
}

int32_t cl_log_lotate() {
    const CL_MainBlock &table = *CL_MainTable;
    const auto generations = static_cast<int32_t>(table.log_rotations);
    if (generations < 1) return 0;
    char from[sizeof table.log_path + 12];
    char to[sizeof from];
    for (int32_t k = generations - 1; k >= 1; --k) {
        snprintf(from, sizeof from, "%s.%d", table.log_path, k);
        snprintf(to, sizeof to, "%s.%d", table.log_path, k + 1);
        rename(from, to);  // a generation that is missing leaves a gap
    }
    snprintf(to, sizeof to, "%s.1", table.log_path);
    return rename(table.log_path, to);
}
