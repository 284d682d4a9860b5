// qvcl for C++: errors as values.
//
// Whatever can fail returns a Result: a value, or an Error that names the operation and carries the
// library's whole error record. A Result that is not looked at is a warning. value() throws a
// std::system_error when there is none; in a program without exceptions it says what failed on
// standard error and ends the process.
#pragma once

#include <qvcl/base.h>
#include <qvcl/cpp/location.hpp>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

#if defined(__cpp_exceptions)
#define QVCL_EXCEPTIONS 1
#else
#define QVCL_EXCEPTIONS 0
#endif

namespace qvcl {
inline namespace cpp {

/// CL_ErrInfo::module of failures that this layer found itself.
inline constexpr uint32_t kModule = 110;

namespace detail {

class Category final : public std::error_category {
  public:
    const char *name() const noexcept override { return "qvcl"; }
    std::string message(int code) const override {
        switch (code) {
            case CL_ERR_QUEUE:
                return "internal queue operation failed";
            case CL_ERR_IN_PROGRESS:
                return "in progress";
            case CL_ERR_STATE:
                return "the library is not in a state that allows the call";
            default:
                return std::generic_category().message(code);
        }
    }
    std::error_condition default_error_condition(int code) const noexcept override {
        return {code, std::generic_category()};
    }
};

}  // namespace detail

/// The category of Error::code(). Its errno codes compare equal to std::errc.
inline const std::error_category &category() noexcept {
    static const detail::Category instance;
    return instance;
}

/// Why an operation failed.
class Error {
  public:
    /// No error.
    Error() = default;
    /// operation: its name, a literal. record: as the library filled it.
    Error(const char *operation, const CL_ErrInfo &record)
        : operation_(operation), record_(record) {}

    /// The name of the operation that failed, such as "CL_OpenMSGS".
    const char *operation() const { return operation_; }
    /// The library's error record, whole.
    const CL_ErrInfo &record() const { return record_; }
    /// The code as the standard library has it; category() is its category.
    std::error_code code() const { return {static_cast<int>(record_.err), category()}; }
    /// Operation, text and place, for people: "CL_OpenMSGS: Permission denied (module 4, place
    /// 12)".
    std::string message() const {
        return std::string(operation_) + ": " + category().message(static_cast<int>(record_.err)) +
               " (module " + std::to_string(record_.module) + ", place " +
               std::to_string(record_.line) + ")";
    }
    /// True when there is an error.
    explicit operator bool() const { return record_.err != 0; }
    /// Whether the code is that: an errno value, or CL_ERR_...
    friend bool operator==(const Error &error, int code) {
        return error.record_.err == static_cast<uint32_t>(code);
    }

  private:
    const char *operation_ = "";
    CL_ErrInfo record_ = {};
};

/// Throws the error as a std::system_error; without exceptions tells it on standard error and ends
/// the process.
[[noreturn]] inline void raise(const Error &error) {
#if QVCL_EXCEPTIONS
    throw std::system_error(error.code(), error.operation());
#else
    fprintf(stderr, "%s\n", error.message().c_str());
    std::terminate();
#endif
}

namespace detail {

// A record of a failure that the layer found.
inline CL_ErrInfo record(int code, uint32_t line = __builtin_LINE()) {
    return {static_cast<uint32_t>(code), static_cast<uint32_t>(code), kModule, line, CL_VERSION};
}
inline Error failure(const char *operation, int code, uint32_t line = __builtin_LINE()) {
    return {operation, record(code, line)};
}

}  // namespace detail

/// A value, or why there is none.
template <class T = void>
class [[nodiscard]] Result {
  public:
    /// What a success holds.
    using value_type = T;

    /// A success.
    Result(T value) : value_(std::move(value)) {}
    /// A failure.
    Result(const Error &error) : error_(error) {}

    /// True on success.
    explicit operator bool() const { return value_.has_value(); }
    /// True on success.
    bool has_value() const { return value_.has_value(); }
    /// The value; only on success (asserted in debug builds).
    T &operator*() & { return held(); }
    /// The same.
    const T &operator*() const & { return const_cast<Result *>(this)->held(); }
    /// The same.
    T &&operator*() && { return std::move(held()); }
    /// The same.
    T *operator->() { return &held(); }
    /// The same.
    const T *operator->() const { return &const_cast<Result *>(this)->held(); }
    /// The value, or raise(error()).
    T &value() & {
        if (!value_) raise(error_);
        return *value_;
    }
    /// The same.
    T &&value() && {
        if (!value_) raise(error_);
        return std::move(*value_);
    }
    /// The value, or that one.
    template <class U>
    T value_or(U &&instead) && {
        return value_ ? std::move(*value_) : static_cast<T>(std::forward<U>(instead));
    }
    /// Why it failed; no error on success.
    const Error &error() const { return error_; }

  private:
    T &held() {
        assert(value_.has_value());
        return *value_;
    }

    std::optional<T> value_;
    Error error_;
};

/// Success, or why not.
template <>
class [[nodiscard]] Result<void> {
  public:
    /// What a success holds: nothing.
    using value_type = void;

    /// A success.
    Result() = default;
    /// A failure.
    Result(const Error &error) : error_(error) {}

    /// True on success.
    explicit operator bool() const { return !error_; }
    /// True on success.
    bool has_value() const { return !error_; }
    /// Nothing on success, else raise(error()).
    void value() const {
        if (error_) raise(error_);
    }
    /// Why it failed; no error on success.
    const Error &error() const { return error_; }

  private:
    Error error_;
};

namespace detail {

template <class T>
struct IsResult : std::false_type {};
template <class T>
struct IsResult<Result<T>> : std::true_type {};

// T as a Result: what may be cut short returns that.
template <class T>
using ResultOf = std::conditional_t<IsResult<T>::value, T, Result<T>>;

}  // namespace detail

}  // namespace cpp
}  // namespace qvcl
