// export: the trace in the trace-event format of JSON, for a timeline viewer. Calls and callbacks
// are complete events, everything else instants; each object has a track, which bears its name.
#include <map>

#include "tools/commands.h"
#include "tools/render.h"

namespace trace_reader {

namespace {

class Exporter {
  public:
    Exporter(const Dump &d, const Trace &t, Text &o) : dump(d), trace(t), out(o) {}
    void run();

  private:
    uint64_t track_of(const Record &record);
    void put_event(const Record &record);
    void put_head(std::string_view phase, uint64_t track);
    void put_arguments(const Record &record, const Record *exit);
    void put_text(std::string_view key, std::string_view value);
    void put_names();

    const Dump &dump;
    const Trace &trace;
    Text &out;
    std::map<uint64_t, uint64_t> tracks;  // by address of the object; 0 is the process
    std::string_view between;
};

uint64_t Exporter::track_of(const Record &record) {
    const uint64_t handle = trace.object_of(record);
    if (const auto slot = dump.slot_of(handle)) return tracks[handle] = *slot + 1;
    // Addresses that are no slot get the numbers behind those of the table.
    return handle != 0 ? tracks.try_emplace(handle, dump.capacity + 1 + tracks.size()).first->second
                       : tracks[0] = 0;
}

void Exporter::put_text(std::string_view key, std::string_view value) {
    out << between;
    out.quoted(key, Escape::json) << ':';
    out.quoted(value, Escape::json);
    between = ",";
}

void Exporter::put_head(std::string_view phase, uint64_t track) {
    out << R"({"ph":")" << phase << R"(","pid":)" << dump.main.pid << R"(,"tid":)" << track;
}

void Exporter::put_arguments(const Record &record, const Record *exit) {
    out << R"(,"args":{)";
    between = "";
    if (record.operation != nullptr && !record.is_call()) {
        Text change;
        put_record(change, dump, record);
        put_text("change", change.str());
    } else if (record.operation != nullptr) {
        each_argument(dump, trace.fuller(record), Mask::no, [&](std::string_view name, auto write) {
            Text value;
            write(value);
            put_text(name, value.str());
        });
        Text outcome;
        if (exit != nullptr) put_outcome(outcome, dump, *exit);
        put_text("result", exit != nullptr ? outcome.str() : "not finished");
        Text position;
        put_position(position, record);
        put_text("position", position.str());
    } else {
        Text text;
        put_record(text, dump, record);
        put_text("data", text.str());
    }
    out << "}}";
}

void Exporter::put_event(const Record &record) {
    const Record *exit = trace.exit_of(record);
    const bool bad = trace.is_bad(record);
    // A call of which one record is lost reaches to the edge of the trace.
    const uint64_t begin = record.exit ? trace.records.front().time : record.time;
    const uint64_t end = exit != nullptr ? exit->time : trace.records.back().time;
    out << ",\n";
    put_head(record.is_call() ? "X" : "i", track_of(record));
    out << R"(,"ts":)" << begin;
    if (record.is_call()) {
        out << R"(,"dur":)" << (end > begin ? end - begin : 0);
    } else {
        out << R"(,"s":"t")";
    }
    Text name;
    put_title(name << (bad ? "! " : ""), record);
    (out << R"(,"name":)").quoted(name.str(), Escape::json);
    out << R"(,"cat":")"
        << (bad                    ? "error"
            : record.is_callback() ? "callback"
            : record.is_call()     ? "call"
                                   : "event")
        << '"' << (bad ? R"(,"cname":"terrible")" : "");
    put_arguments(record, exit);
    out.spill();
}

void Exporter::put_names() {
    for (const auto &[handle, track] : tracks) {
        Text name;
        if (handle != 0) {
            put_object(name, dump, handle);
        } else {
            name << "process";
        }
        out << ",\n";
        put_head("M", track);
        (out << R"(,"name":"thread_name","args":{"name":)").quoted(name.str(), Escape::json)
            << "}}";
        out << ",\n";
        put_head("M", track);
        out << R"(,"name":"thread_sort_index","args":{"sort_index":)" << track << "}}";
    }
}

void Exporter::run() {
    out << R"({"displayTimeUnit":"ms","traceEvents":[)" << '\n';
    put_head("M", 0);
    (out << R"(,"name":"process_name","args":{"name":)").quoted(dump.name, Escape::json) << "}}";
    for (const Record &record : trace.records) {
        if (trace.is_told(record)) put_event(record);
    }
    put_names();
    out << "\n]}\n";
}

}  // namespace

bool export_json(Dumps dumps, const Options &, Text &out) {
    const Trace trace(dumps.front());
    Exporter(dumps.front(), trace, out).run();
    return true;
}

}  // namespace trace_reader
