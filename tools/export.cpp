// export: the trace in the trace-event format of JSON, for a timeline viewer. Calls and callbacks
// are complete events, everything else instants; each object has a track, which bears its name.
#include <map>

#include "tools/commands.h"
#include "tools/render.h"

namespace trace_reader {

namespace {

class Exporter {
  public:
    Exporter(const Dump &dump, const Trace &trace, Text &out)
        : dump_(dump), trace_(trace), out_(out) {}
    void run();

  private:
    uint64_t track_of(const Record &record);
    void put_event(const Record &record);
    void put_head(std::string_view phase, uint64_t track);
    void put_arguments(const Record &record, const Record *exit);
    void put_text(std::string_view key, std::string_view value);
    void put_names();

    const Dump &dump_;
    const Trace &trace_;
    Text &out_;
    std::map<uint64_t, uint64_t> tracks_;  // by the object's address; track 0 is the process
    std::string_view between_;             // what precedes the next member of a JSON object
};

uint64_t Exporter::track_of(const Record &record) {
    const uint64_t handle = trace_.object_of(record);
    if (const auto slot = dump_.slot_of(handle)) return tracks_[handle] = *slot + 1;
    // Addresses that are in no slot get track numbers behind those of the slots.
    return handle != 0
               ? tracks_.try_emplace(handle, dump_.capacity + 1 + tracks_.size()).first->second
               : tracks_[0] = 0;
}

void Exporter::put_text(std::string_view key, std::string_view value) {
    out_ << between_;
    out_.quoted(key, Escape::json) << ':';
    out_.quoted(value, Escape::json);
    between_ = ",";
}

void Exporter::put_head(std::string_view phase, uint64_t track) {
    out_ << R"({"ph":")" << phase << R"(","pid":)" << dump_.main.pid << R"(,"tid":)" << track;
}

void Exporter::put_arguments(const Record &record, const Record *exit) {
    out_ << R"(,"args":{)";
    between_ = "";
    if (record.operation != nullptr && !record.is_call()) {
        Text change;
        put_record(change, dump_, record);
        put_text("change", change.str());
    } else if (record.operation != nullptr) {
        each_argument(dump_, trace_.fuller(record), Mask::no,
                      [&](std::string_view name, auto write) {
                          Text value;
                          write(value);
                          put_text(name, value.str());
                      });
        Text outcome;
        if (exit != nullptr) put_outcome(outcome, dump_, *exit);
        put_text("result", exit != nullptr ? outcome.str() : "not finished");
        Text position;
        put_position(position, record);
        put_text("position", position.str());
    } else {
        Text text;
        put_record(text, dump_, record);
        put_text("data", text.str());
    }
    out_ << "}}";
}

void Exporter::put_event(const Record &record) {
    const Record *exit = trace_.exit_of(record);
    const bool bad = trace_.is_bad(record);
    // A call whose entry record is overwritten begins with the trace, one that has no exit record
    // ends with it.
    const uint64_t begin = record.exit ? trace_.records.front().time : record.time;
    const uint64_t end = exit != nullptr ? exit->time : trace_.records.back().time;
    out_ << ",\n";
    put_head(record.is_call() ? "X" : "i", track_of(record));
    out_ << R"(,"ts":)" << begin;
    if (record.is_call()) {
        out_ << R"(,"dur":)" << (end > begin ? end - begin : 0);
    } else {
        out_ << R"(,"s":"t")";
    }
    Text name;
    put_title(name << (bad ? "! " : ""), record);
    (out_ << R"(,"name":)").quoted(name.str(), Escape::json);
    out_ << R"(,"cat":")"
         << (bad                    ? "error"
             : record.is_callback() ? "callback"
             : record.is_call()     ? "call"
                                    : "event")
         << '"' << (bad ? R"(,"cname":"terrible")" : "");
    put_arguments(record, exit);
    out_.spill();
}

void Exporter::put_names() {
    for (const auto &[handle, track] : tracks_) {
        Text name;
        if (handle != 0) {
            put_object(name, dump_, handle);
        } else {
            name << "process";
        }
        out_ << ",\n";
        put_head("M", track);
        (out_ << R"(,"name":"thread_name","args":{"name":)").quoted(name.str(), Escape::json)
            << "}}";
        out_ << ",\n";
        put_head("M", track);
        out_ << R"(,"name":"thread_sort_index","args":{"sort_index":)" << track << "}}";
    }
}

void Exporter::run() {
    out_ << R"({"displayTimeUnit":"ms","traceEvents":[)" << '\n';
    put_head("M", 0);
    (out_ << R"(,"name":"process_name","args":{"name":)").quoted(dump_.name, Escape::json) << "}}";
    for (const Record &record : trace_.records) {
        if (trace_.is_told(record)) put_event(record);
    }
    put_names();
    out_ << "\n]}\n";
}

}  // namespace

bool export_json(Dumps dumps, const Options &, Text &out) {
    const Trace trace(dumps.front());
    Exporter(dumps.front(), trace, out).run();
    return true;
}

}  // namespace trace_reader
