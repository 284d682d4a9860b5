// Writing the header text of a dump: lines `name: value` in a buffer of fixed size. Numbers and
// lines are formatted without the C library, so that a signal handler may do it too.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvcl {

class HeaderText {
  public:
    HeaderText(char *buffer, size_t size) : buffer_(buffer), size_(size) {}

    HeaderText &put(const char *text);
    HeaderText &put_escaped(const char *text, size_t length);  // a value from outside
    HeaderText &put_decimal(uint64_t number, size_t digits = 1);
    HeaderText &put_hex(uint64_t number);
    void end_line();

    // Ends what has fitted, in whole lines, with a NUL. The length of all that was put.
    size_t finish();
    size_t length() const { return length_; }

  private:
    void put(char character);

    char *buffer_;
    size_t size_;
    size_t length_ = 0;
    size_t fitted_ = 0;  // up to the end of the last line that has fitted
};

// `time: ` and `process: `, of now. For signal handlers too.
void put_moment(HeaderText &text);
// `command: `, when it can be read; and `module: ` for each module.
void put_command(HeaderText &text);
void put_modules(HeaderText &text);

}  // namespace qvcl
