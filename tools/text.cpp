// Numbers and times are written digit by digit: a dump has many, and a stream would be slow. For
// the same reason each second is broken down into local time only once.
#include "tools/text.h"

namespace trace_reader {

namespace {
constexpr size_t kPiece = 65536;
constexpr uint64_t kSecond = 1000000;

bool printable(uint8_t c) {
    return c >= 0x20 && c < 0x7f;
}
}  // namespace

std::string hex_of(Bytes bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        text.push_back("0123456789abcdef"[byte >> 4]);
        text.push_back("0123456789abcdef"[byte & 15]);
    }
    return text;
}

Text &Text::hex(uint64_t value) {
    return (*this << "0x").number(value, 16);
}

Text &Text::octal(uint64_t value) {
    return (*this << '0').number(value, 8);
}

Text &Text::quoted(std::string_view bytes, Escape escape) {
    static constexpr char kDigits[] = "0123456789abcdef";
    buffer_.push_back('"');
    for (const char c : bytes) {
        const auto byte = static_cast<uint8_t>(c);
        if (printable(byte)) {
            if (c == '"' || c == '\\') buffer_.push_back('\\');
            buffer_.push_back(c);
        } else {
            buffer_.append(escape == Escape::c ? "\\x" : "\\u00");
            buffer_.push_back(kDigits[byte >> 4]);
            buffer_.push_back(kDigits[byte & 15]);
        }
    }
    buffer_.push_back('"');
    return *this;
}

Text &Text::plain(std::string_view bytes) {
    for (const char c : bytes)
        buffer_.push_back(printable(static_cast<uint8_t>(c)) ? c : '?');
    return *this;
}

Text &Text::dump(Bytes bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0 && i % 4 == 0) buffer_.push_back(' ');
        buffer_.push_back(kDigits[bytes[i] >> 4]);
        buffer_.push_back(kDigits[bytes[i] & 15]);
    }
    buffer_.append(" |");
    for (const uint8_t byte : bytes)
        buffer_.push_back(printable(byte) ? static_cast<char>(byte) : '.');
    buffer_.push_back('|');
    return *this;
}

Text &Text::padded(uint64_t value, size_t width) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    const auto length = static_cast<size_t>(end - digits);
    if (length < width) buffer_.append(width - length, '0');
    buffer_.append(digits, end);
    return *this;
}

Text &Text::duration(int64_t usec) {
    if (usec < 0) buffer_.push_back('-');  // the clock was set back
    const uint64_t value = usec < 0 ? 0 - static_cast<uint64_t>(usec) : static_cast<uint64_t>(usec);
    if (value < 1000) return *this << value << "us";
    const uint64_t unit = value < kSecond ? 1000 : kSecond;
    (*this << value / unit << '.').padded(value % unit / (unit / 1000), 3);
    return *this << (value < kSecond ? "ms" : "s");
}

// Microseconds in 64 bits end long before the years do.
const tm &Text::local(uint64_t usec) {
    const uint64_t second = usec / kSecond;
    if (second != known_second_) {
        const auto time = static_cast<time_t>(second);
        localtime_r(&time, &known_);
        known_second_ = second;
    }
    return known_;
}

Text &Text::day(uint64_t usec) {
    const tm &time = local(usec);
    padded(static_cast<uint64_t>(time.tm_year) + 1900, 4) << '-';
    padded(static_cast<uint64_t>(time.tm_mon) + 1, 2) << '-';
    return padded(static_cast<uint64_t>(time.tm_mday), 2);
}

Text &Text::clock(uint64_t usec) {
    const tm &time = local(usec);
    padded(static_cast<uint64_t>(time.tm_hour), 2) << ':';
    padded(static_cast<uint64_t>(time.tm_min), 2) << ':';
    padded(static_cast<uint64_t>(time.tm_sec), 2) << '.';
    return padded(usec % kSecond, 6);
}

Text &Text::colour(Colour colour) {
    static constexpr std::string_view kCodes[] = {"\33[0m", "\33[2m", "\33[31m"};
    return colours_ ? *this << kCodes[static_cast<size_t>(colour)] : *this;
}

Text &Text::fill(size_t count, char c) {
    buffer_.append(count, c);
    return *this;
}

Text &Text::column(size_t start, size_t width) {
    const size_t used = buffer_.size() - start;
    return fill(used < width ? width - used : 1);
}

Text &Text::right(std::string_view text, size_t width) {
    return fill(text.size() < width ? width - text.size() : 0) << text;
}

Text &Text::right(std::optional<int64_t> usec, size_t width, std::string_view none) {
    return usec ? right(Text().duration(*usec).str(), width) : right(none, width);
}

void Text::spill() {
    if (stream_ != nullptr && buffer_.size() >= kPiece) flush();
}

bool Text::flush() {
    if (stream_ == nullptr) return true;
    failed_ |= fwrite(buffer_.data(), 1, buffer_.size(), stream_) != buffer_.size();
    buffer_.clear();
    failed_ |= fflush(stream_) != 0;
    return !failed_;
}

}  // namespace trace_reader
