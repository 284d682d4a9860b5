// How each type of field is written, and which fields are shown at all.
#include "tools/render.h"

#include <qvcl/message.h>

#include <csignal>
#include <cstring>

namespace trace_reader {

namespace {

// The part of an application's record that is shown: what follows the head that all records have.
constexpr size_t kUserBegin = CL_TRC_MIN_ENTRY, kUserBytes = 48;

// Masked, only the address of an object is shown, as its slot: that is the same in every run.
void put_address(Text &out, const Dump &dump, uint64_t address, Mask mask) {
    if (mask == Mask::no || address == 0 || dump.slot_of(address)) {
        dump.put_handle(out, address);
    } else {
        out << '*';
    }
}

// The event of a callback; 0 of any other record.
uint32_t event_of(const Record &record) {
    return record.is_callback() ? load<uint32_t>(record.bytes, offsetof(CL_TrcCallback, type)) : 0;
}

// A callback by its name, where that is known.
void put_function(Text &out, const Dump &dump, uint64_t address, Mask mask) {
    const std::string name = mask == Mask::no ? function_name(dump, address) : "";
    if (name.empty()) {
        put_address(out, dump, address, mask);
    } else {
        out.plain(name);
    }
}

std::string_view text_at(Bytes bytes, size_t offset, size_t size) {
    const Bytes place = part(bytes, offset, size);
    const auto *text = reinterpret_cast<const char *>(place.data());
    return {text, strnlen(text, place.size())};
}

// Header and data of the message that begins at `bytes`; plain bytes when no message does.
void put_message(Text &out, Bytes bytes, Mask mask) {
    const auto header = load<CL_MsgHeader>(bytes, 0);
    if (bytes.size() < sizeof header || header.version != CL_MSG_VERSION) {
        out.dump(bytes);
        return;
    }
    out << "{length=" << header.length;
    if (mask == Mask::no) out << ", sender=" << header.sender;
    out << ", type=" << header.type << ", ";
    out.dump(part(bytes, sizeof header)) << '}';
}

void put_change(Text &out, uint32_t from, uint32_t to, void (*put)(Text &out, uint64_t bits)) {
    put(out, from);
    if (from != to) put(out << " -> ", to);
}

}  // namespace

void put_field(Text &out, const Dump &dump, Bytes bytes, const CL_TrcField &field, Mask mask) {
    const uint64_t value = number(bytes, field);
    switch (field.type) {
        case CL_TRC_UNSIGNED:
            out << value;
            break;
        case CL_TRC_SIGNED:
            out << static_cast<int64_t>(value);
            break;
        case CL_TRC_HEX:  // the arguments of a callback; one that exceeds 32 bits may be an address
            put_address(out, dump, value, value > UINT32_MAX ? mask : Mask::no);
            break;
        case CL_TRC_OCTAL:
            out.octal(value);
            break;
        case CL_TRC_ADDRESS:
            if (field.name == std::string_view("callback")) {
                put_function(out, dump, value, mask);
                break;
            }
            [[fallthrough]];
        case CL_TRC_HANDLE:
            put_address(out, dump, value, mask);
            break;
        case CL_TRC_KIND:
            put_kind(out, value);
            break;
        case CL_TRC_MODE:
            put_mode(out, value);
            break;
        case CL_TRC_EVENT:
            put_event(out, value);
            break;
        case CL_TRC_STATUS:
            put_status(out, value);
            break;
        case CL_TRC_SUB_STATUS:
            put_sub_status(out, value);
            break;
        case CL_TRC_TEXT:  // with an empty text a record is one byte longer than with none
            if (bytes.size() < field.offset + 8u) {
                out << "null";
            } else {
                out.quoted(text_at(bytes, field.offset, field.size));
            }
            break;
        case CL_TRC_BYTES:
            out.dump(part(bytes, field.offset, field.size));
            break;
        case CL_TRC_SETS:
            put_sets(out, part(bytes, field.offset));
            break;
        case CL_TRC_ERROR:
            put_error(out, load<CL_ErrInfo>(bytes, field.offset));
            break;
    }
}

std::string_view name_of(const Record &record) {
    return record.operation != nullptr   ? record.operation->name
           : record.ring == CL_RING_USER ? "user record"
                                         : "unknown record";
}

void put_title(Text &out, const Record &record) {
    out << name_of(record);
    if (record.is_callback()) put_event(out << ' ', event_of(record));
}

void put_object(Text &out, const Dump &dump, uint64_t address) {
    dump.put_handle(out, address);
    const auto slot = dump.slot_of(address);
    if (slot && *slot < dump.objects.size() && dump.objects[*slot].kind != 0) {
        put_kind(out << ' ', dump.objects[*slot].kind);
    }
}

std::string function_name(const Dump &dump, uint64_t address) {
    return dump.names != nullptr ? dump.names->name_of(address) : "";
}

void put_callback(Text &out, const Dump &dump, const Record &record) {
    const auto callback = load<uint64_t>(record.bytes, offsetof(CL_TrcCallback, callback));
    put_function(out, dump, callback, Mask::no);
}

void put_position(Text &out, const Record &record) {
    const size_t place = offsetof(CL_TrcHead, file);
    out.plain(text_at(record.bytes, place, sizeof CL_TrcHead::file));
    out << ':' << load<uint32_t>(record.bytes, offsetof(CL_TrcHead, line));
}

void put_signal(Text &out, uint64_t number) {
    const char *name = number < NSIG ? sigabbrev_np(static_cast<int>(number)) : nullptr;
    if (name != nullptr) {
        out << "SIG" << name;
    } else {
        out << "signal " << number;
    }
}

std::string child_end(const Record &record) {
    if (event_of(record) != CL_EVENT_CHILD_END) return "";
    const auto event = load<CL_TrcCallback>(record.bytes, 0);
    Text out;
    if (event.exit_reason == CL_CHILD_KILLED) {
        put_signal(out << "killed by ", event.exit_value);
    } else {
        out << "ended with status " << event.exit_value;
    }
    return out.str();
}

Carried carried(const Record &record) {
    static constexpr struct {
        uint8_t api;
        std::string_view name;
        CL_TrcField data;
        CL_TrcField count;  // how many bytes of data there are; without a name the result says it
        size_t skipped;     // bytes of data that are not shown
    } kData[] = {
        {CL_API_RECV_MSGC, "message", CL_TRC_FIELD(CL_TrcReceive, data, CL_TRC_BYTES), {}, 0},
        {CL_API_SEND_MSGC, "message", CL_TRC_FIELD(CL_TrcSend, data, CL_TRC_BYTES),
         CL_TRC_FIELD(CL_TrcSend, data_length, CL_TRC_UNSIGNED), offsetof(CL_MsgBlock, header)},
        {CL_API_READ_FILE, "data", CL_TRC_FIELD(CL_TrcFileData, data, CL_TRC_BYTES), {}, 0},
        {CL_API_WRITE_FILE, "data", CL_TRC_FIELD(CL_TrcFileData, data, CL_TRC_BYTES),
         CL_TRC_FIELD(CL_TrcFileData, length, CL_TRC_UNSIGNED), 0}};
    if (record.is_callback()) {
        return {event_of(record) == CL_EVENT_DESCRIPTOR ? "ready" : "message",
                part(record.bytes, sizeof(CL_TrcCallback))};
    }
    for (const auto &[api, name, data, count, skipped] : kData) {
        if (api != record.api() || (count.name == nullptr && (!record.exit || failed(record)))) {
            continue;
        }
        const CL_TrcField &field = count.name != nullptr ? count : record.operation->result;
        const auto room = part(record.bytes, data.offset, data.size);
        const auto used = static_cast<int64_t>(number(record.bytes, field));
        return {name,
                part(part(room, 0, static_cast<size_t>(std::max<int64_t>(used, 0))), skipped)};
    }
    return {};
}

void put_carried(Text &out, const Carried &carried, Mask mask) {
    if (carried.name == "ready") {
        put_sets(out, carried.bytes);
    } else if (carried.name == "message") {
        put_message(out, carried.bytes, mask);
    } else {
        out.dump(carried.bytes);
    }
}

namespace {
bool told_by_child_end(const Record &record, const CL_TrcField &field) {
    return event_of(record) == CL_EVENT_CHILD_END &&
           (field.offset == offsetof(CL_TrcCallback, exit_reason) ||
            field.offset == offsetof(CL_TrcCallback, exit_value));
}
}  // namespace

bool worth_showing(const Record &record, const CL_TrcField &field) {
    switch (field.type) {
        case CL_TRC_BYTES:  // put_carried shows them
        case CL_TRC_EVENT:  // put_title shows it
            return false;
        case CL_TRC_ERROR:  // of a callback the event's; that of a call is shown by put_outcome
            return record.is_callback() && error_of(record).err != 0;
        case CL_TRC_HANDLE:
        case CL_TRC_TEXT:
        case CL_TRC_SETS:
            return true;
        default:  // in a callback's record a field that its event does not fill is zero
            if (!record.is_callback()) return std::string_view(field.name) != "err_address";
            return number(record.bytes, field) != 0 && !told_by_child_end(record, field);
    }
}

void put_outcome(Text &out, const Dump &dump, const Record &exit, Mask mask) {
    put_field(out, dump, exit.bytes, exit.operation->result, mask);
    const CL_ErrInfo error = error_of(exit);
    if (error.err == 0 || exit.is_callback() || (exit.api() == CL_API_END && !failed(exit))) return;
    out << ' ';
    put_error(out, error);
}

void put_record(Text &out, const Dump &dump, const Record &record, Mask mask) {
    if (record.operation == nullptr) {
        out << name_of(record) << ' ' << record.length << " bytes";
        if (mask == Mask::no) (out << ": ").dump(part(record.bytes, kUserBegin, kUserBytes));
    } else if (record.api() == CL_API_STATUS) {
        const auto change = load<CL_TrcStatus>(record.bytes, 0);
        put_address(out << "status ", dump, change.handle, mask);
        put_change(out << ": ", change.old_status, change.status, put_status);
        if ((change.old_sub_status | change.sub_status) != 0) {
            put_change(out << ", ", change.old_sub_status, change.sub_status, put_sub_status);
        }
    } else {
        put_title(out, record);
        out << '(';
        std::string_view between;
        each_argument(dump, record, mask, [&](std::string_view name, auto write) {
            out << between << name << '=';
            write(out);
            between = ", ";
        });
        out << ')';
    }
}

}  // namespace trace_reader
