// qvcl for C++: the log. Lines of the internal log go to one function of the application; catalogue
// messages are as in log.h, with arguments of any fitting type.
#pragma once

#include <qvcl/log.h>
#include <qvcl/cpp/result.hpp>

#include <concepts>
#include <string>
#include <string_view>

namespace qvcl {
inline namespace cpp {

/// Hands every line of the internal log to `function(std::string_view line)`, the library's own
/// lines and what end() finds left included. The function must have no captures.
template <class Function>
requires std::is_empty_v<Function> && std::is_invocable_v<Function, std::string_view>
void log_to(Function /*function*/) {
    CL_SetLogCallbackFunction([](int /*kind*/, const char *line) -> int {
        Function{}(std::string_view(line));
        return 0;
    });
}
/// Hands every line of the internal log to standard error.
inline void log_to_stderr() {
    log_to([](std::string_view line) {
        fwrite(line.data(), 1, line.size(), stderr);
        if (!line.ends_with('\n')) fputc('\n', stderr);
    });
}

/// Writes one line to the internal log.
inline void log(std::string_view text) {
    cl_inlog_write(std::string(text).c_str());
}

/// Where catalogue messages come from and go to; as CL_LOG_Init_M.
inline Result<> init_log(const char *name, const char *catalogue, const char *alternative = nullptr,
                         const char *path = "") {
    CL_ErrInfo err = {};
    if (CL_LOG_Init_M(name, catalogue, alternative, path, &err) != 0) return {};
    return Error("CL_LOG_Init", err);
}

namespace detail {

template <class T>
constexpr char log_type() {
    if constexpr (std::convertible_to<T, const char *>) return 's';
    if constexpr (std::is_pointer_v<T>) return 'p';
    if constexpr (std::signed_integral<T>) return sizeof(T) <= 4 ? 'd' : 'D';
    return sizeof(T) <= 4 ? 'x' : 'X';
}

}  // namespace detail

/// Something that a catalogue message shows: a number, a pointer, or a string that ends with NUL.
template <class T>
concept Loggable = std::integral<T> || std::is_pointer_v<T>;

/// Writes a catalogue message to CL_LOG_... destinations: signed numbers are shown in decimal,
/// unsigned ones in hexadecimal. ENODATA when it was not sent.
template <Loggable... Arguments>
Result<> log_message(uint32_t destinations, uint16_t severity, uint32_t id,
                     Arguments... arguments) {
    constexpr char kTypes[] = {detail::log_type<Arguments>()..., '\0'};
    if (CL_LOG_Out(destinations, severity, 0, id, kTypes, arguments...) != 0) return {};
    return detail::failure("CL_LOG_Out", ENODATA);
}

}  // namespace cpp
}  // namespace qvcl
