// Building output: text, numbers, times and untrusted bytes are appended to one buffer, which goes
// to its stream in large pieces. Text out of a dump passes through `quoted`, `plain` or `dump`, so
// no control character of it reaches a terminal and JSON strings stay valid.
#pragma once

#include <algorithm>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace trace_reader {

using Bytes = std::span<const uint8_t>;

std::string hex_of(Bytes bytes);  // two digits for each

// `count` bytes from `begin` on, or as many of them as there are.
inline Bytes part(Bytes bytes, size_t begin, size_t count = SIZE_MAX) {
    begin = std::min(begin, bytes.size());
    return bytes.subspan(begin, std::min(count, bytes.size() - begin));
}

// By nearest rank: the smallest value with that share of all at or below it. Nothing for no values.
inline std::optional<int64_t> percentile(std::span<const int64_t> sorted, size_t percent) {
    if (sorted.empty()) return {};
    return sorted[(sorted.size() * percent + 99) / 100 - 1];
}

enum class Escape { c, json };
enum class Colour { none, dim, red };

class Text {
  public:
    // Without a stream all text stays in the buffer, for str().
    explicit Text(FILE *stream = nullptr, bool coloured = false)
        : stream_(stream), colours_(coloured) {}

    Text &operator<<(std::string_view text) {
        buffer_.append(text);
        return *this;
    }
    Text &operator<<(char c) {
        buffer_.push_back(c);
        return *this;
    }
    template <std::integral T>
    Text &operator<<(T value) {
        return number(value, 10);
    }
    Text &hex(uint64_t value);
    Text &octal(uint64_t value);
    Text &quoted(std::string_view bytes, Escape escape = Escape::c);
    Text &plain(std::string_view bytes);  // unquoted, with '?' for what cannot be printed
    Text &dump(Bytes bytes);              // hexadecimal in groups of four, then as characters
    Text &duration(int64_t usec);         // 3us, 1.204ms, 2.500s
    Text &day(uint64_t usec);             // local date
    Text &clock(uint64_t usec);           // local time of day
    Text &colour(Colour colour);
    Text &fill(size_t count, char c = ' ');
    Text &column(size_t start, size_t width);  // pads what was appended since `start`
    Text &right(std::string_view text, size_t width);
    template <std::integral T>
    Text &right(T value, size_t width) {
        return right((Text() << value).str(), width);
    }
    // A duration, or that text when there is none.
    Text &right(std::optional<int64_t> usec, size_t width, std::string_view none);

    size_t size() const { return buffer_.size(); }
    const std::string &str() const { return buffer_; }
    void spill();  // writes the buffer to the stream once it has filled a piece
    bool flush();  // writes all of it; false when any of it could not be written

  private:
    template <std::integral T>
    Text &number(T value, int base) {
        char digits[24];
        auto end = std::to_chars(digits, digits + sizeof digits, value, base).ptr;
        buffer_.append(digits, end);
        return *this;
    }
    Text &padded(uint64_t value, size_t width);
    const tm &local(uint64_t usec);

    FILE *stream_;
    bool colours_;
    bool failed_ = false;
    std::string buffer_;
    uint64_t known_second_ = UINT64_MAX;  // since the epoch
    tm known_{};                          // the same second in local time
};

}  // namespace trace_reader
