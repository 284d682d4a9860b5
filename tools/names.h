// Words for the numbers in a dump: kinds, events, modules, errors, status bits. A number that has
// no word is written as a number, so that a damaged dump is shown as it is.
#pragma once

#include <qvcl/base.h>

#include "tools/text.h"

namespace trace_reader {

std::string_view kind_name(uint64_t kind);  // empty when there is no such kind
void put_kind(Text &out, uint64_t kind);
void put_event(Text &out, uint64_t type);
void put_mode(Text &out, uint64_t mode);
void put_state(Text &out, uint64_t state);
void put_status(Text &out, uint64_t bits);
void put_sub_status(Text &out, uint64_t bits);
void put_error_code(Text &out, uint64_t code);       // EBADF
void put_error(Text &out, const CL_ErrInfo &error);  // EBADF (loop/cl_fd.cpp:31)
void put_version(Text &out, uint64_t version);       // 1.1.0
void put_sets(Text &out, Bytes sets);                // read 3,5-7 write 3

}  // namespace trace_reader
