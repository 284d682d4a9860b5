// export: the traces of one or more processes as a timeline, with an arrow for each message.
#include "tools/commands.h"
#include "tools/join.h"
#include "tools/timeline.h"

namespace trace_reader {

namespace {

void add_arrows(Timeline &timeline, const Flow &flow) {
    for (const Message &sent : flow.messages) {
        if (!sent.sent || !Flow::is_joined(sent)) continue;
        const Message &read = flow.messages[sent.other];
        Text name;
        name << "message of type " << sent.header().type
             << (sent.fate == Fate::ambiguous ? " (ambiguous)" : "");
        timeline.arrow({flow.ends[sent.end].trace, sent.record},
                       {flow.ends[read.end].trace, read.record, read.at_exit}, name.str());
    }
}

}  // namespace

bool export_json(Dumps dumps, const Options &, Text &out) {
    std::vector<Trace> traces;
    for (Dump &dump : dumps)
        traces.emplace_back(dump);
    Timeline timeline;
    for (size_t i = 0; i < dumps.size(); ++i)
        timeline.add(dumps[i], traces[i]);
    if (dumps.size() > 1) add_arrows(timeline, Flow(dumps, traces));
    timeline.write(out);
    return true;
}

}  // namespace trace_reader
