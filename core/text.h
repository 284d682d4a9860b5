// Bounded texts, names of source files, and settings in the environment.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string_view>

#include <qvcl/system.h>

namespace qvcl {

// Copies at most `bound` characters (none from null) and zeroes the rest of the field, which is not
// terminated when the text fills it. Returns the number of characters copied.
inline size_t copy_text(char *to, size_t bound, const char *from) {
    const size_t length = from != nullptr ? strnlen(from, bound) : 0;
    if (length != 0) memcpy(to, from, length);
    memset(to + length, 0, bound - length);
    return length;
}

// The same for the file name of a position, which every record and every block has: in a name of a
// few characters a loop is done before a call into the C library has begun.
inline void copy_file_name(char (&to)[16], const char *from) {
    memset(to, 0, sizeof to);
    if (from == nullptr) return;
    for (size_t i = 0; i < sizeof to && from[i] != '\0'; ++i)
        to[i] = from[i];
}

// A source file's name as positions show it, without folders and ending: what a file passes on as
// its own when it calls a public operation.
struct SourceName {
    char text[17];
    constexpr operator const char *() const { return text; }
};

consteval SourceName source_name(std::string_view path) {
    const size_t slash = path.rfind('/');
    std::string_view stem = slash == path.npos ? path : path.substr(slash + 1);
    stem = stem.substr(0, stem.find('.'));
    SourceName name = {};
    stem.copy(name.text, sizeof name.text - 1);
    return name;
}

// What the environment says of a setting of the library's own, or null. A program with more rights
// than whoever runs it takes no settings from him.
inline const char *setting(const char *variable) {
    return secure_getenv(variable);
}

// Switches count only when their value is exactly "1".
inline bool switched_on(const char *variable) {
    const char *value = setting(variable);
    return value != nullptr && strcmp(value, "1") == 0;
}

inline uint64_t address_of(const void *pointer) {
    return reinterpret_cast<uint64_t>(pointer);
}

}  // namespace qvcl
