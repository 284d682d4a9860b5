// Header of the library's large blocks.
#pragma once

#include "core/text.h"

namespace qvcl {

// The eye-catcher begins with "!" until its text is whole, so that a dump taken in between shows a
// block that was being made.
inline void write_table_header(CL_TableHeader *header, const char *eye, uint64_t size) {
    copy_text(header->eye, sizeof header->eye, eye);
    header->eye[0] = '!';
    header->eye[0] = eye[0];
    header->size = size;
    header->address = address_of(header);
}

}  // namespace qvcl
