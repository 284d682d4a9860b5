// Records as text. With Mask::yes what differs from run to run is left out: times, addresses,
// process ids.
#pragma once

#include "tools/names.h"
#include "tools/records.h"

namespace trace_reader {

enum class Mask { no, yes };

// One field of a record, or of any other struct whose fields are described the same way.
void put_field(Text &out, const Dump &dump, Bytes bytes, const CL_TrcField &field,
               Mask mask = Mask::no);

std::string_view name_of(const Record &record);
void put_title(Text &out, const Record &record);  // the name, and of a callback the event
void put_object(Text &out, const Dump &dump, uint64_t address);  // #4 TIMER
// The callback's name as far as the modules are known, else its address.
void put_callback(Text &out, const Dump &dump, const Record &record);
std::string function_name(const Dump &dump, uint64_t address);  // empty when it is not known
void put_position(Text &out, const Record &record);             // server.c:42
// CL_Name_M(argument=value, ...), a change of status, or the beginning of a record that is not the
// library's.
void put_record(Text &out, const Dump &dump, const Record &record, Mask mask = Mask::no);
// What a call returned, and its error record in words.
void put_outcome(Text &out, const Dump &dump, const Record &exit, Mask mask = Mask::no);

// Calls visit(name, write) for each argument that is worth showing; write(text) appends its value.
template <class Visit>
void each_argument(const Dump &dump, const Record &record, Mask mask, Visit visit);

// How a child ended, of a callback that reports it: "killed by SIGKILL", "ended with status 3".
// Empty for all other records.
std::string child_end(const Record &record);
// "SIGSEGV"; the number of one that has no name.
void put_signal(Text &out, uint64_t number);

// What a record carries besides arguments: the beginning of a message, or ready descriptors.
struct Carried {
    std::string_view name;
    Bytes bytes;
};
Carried carried(const Record &record);
void put_carried(Text &out, const Carried &carried, Mask mask);
bool worth_showing(const Record &record, const CL_TrcField &field);

template <class Visit>
void each_argument(const Dump &dump, const Record &record, Mask mask, Visit visit) {
    for (const CL_TrcField &field : fields(*record.operation)) {
        if (worth_showing(record, field)) {
            visit(field.name, [&](Text &out) { put_field(out, dump, record.bytes, field, mask); });
        }
    }
    if (const std::string end = child_end(record); !end.empty()) {
        visit("child", [&](Text &out) { out << end; });
    }
    if (const Carried data = carried(record); !data.bytes.empty()) {
        visit(data.name, [&](Text &out) { put_carried(out, data, mask); });
    }
}

}  // namespace trace_reader
