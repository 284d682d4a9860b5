// qvcl for C++: the source position of a caller.
//
// Every function of the layer that calls the library takes a Location as its last argument. Nobody
// passes it: the default is the line that makes the call, so traces, objects and blocks show the
// application's own file and line.
#pragma once

#include <cstdint>

namespace qvcl {
inline namespace cpp {

/// A source position: base name of the file, and line. Made by the compiler, never at run time.
class Location {
  public:
    /// Stands in front, so that no string is ever taken for a position.
    struct Caller {};

    /// Of whoever calls the function that has `Location at = {}` as its last argument.
    consteval Location(Caller /*here*/ = {}, const char *file = __builtin_FILE(),
                       uint32_t line = __builtin_LINE())
        : file_(file), line_(line) {
        for (const char *at = file; *at != '\0'; ++at)
            if (*at == '/') file_ = at + 1;
    }

    /// Base name of the file.
    constexpr const char *file() const { return file_; }
    /// Line, from 1.
    constexpr uint32_t line() const { return line_; }

  private:
    const char *file_;
    uint32_t line_;
};

}  // namespace cpp
}  // namespace qvcl
