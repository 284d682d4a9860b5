// Positions: who did something, and when.
#include <qvcl/base.h>
#include <qvcl/system.h>

#include "core/text.h"

void CL_SetPT(CL_Position *position, const char *file, uint32_t line) {
    qvcl::copy_file_name(position->file, file);
    position->line = line;
    position->microseconds = 0;
    position->seconds = CL_GetTime_M(&position->microseconds);
}
