// How a trace ends: what killed the process, and which calls and callbacks were open.
#pragma once

#include "tools/records.h"

namespace trace_reader {

// "callback MESSAGE on_line (echo_server.c:120) of #4 MSGC",
// "CL_RecvMSGC_M of #4 MSGC, called at echo_client.c:87".
void put_call(Text &out, const Dump &dump, const Trace &trace, const Record &record);
// "killed by SIGSEGV ... in callback ..."; nothing unless the header text tells a fatal signal.
void put_killed(Text &out, const Dump &dump, const Trace &trace);
// What was open when the dump was taken, outermost first, and for how long. The event loop is open
// in every daemon, so it is told as what the others ran in.
void put_open(Text &out, const Dump &dump, const Trace &trace);
// Which process the dump is of, and what of it could not be read consistently.
void put_origin(Text &out, const Dump &dump);
// "not finished, open for 5.000s".
void put_open_for(Text &out, const Trace &trace, const Record &record);

}  // namespace trace_reader
