// export: the trace of one process as a timeline.
#include "tools/commands.h"
#include "tools/timeline.h"

namespace trace_reader {

bool export_json(Dumps dumps, const Options &, Text &out) {
    const Trace trace(dumps.front());
    Timeline timeline;
    timeline.add(dumps.front(), trace);
    timeline.write(out);
    return true;
}

}  // namespace trace_reader
