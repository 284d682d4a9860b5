#include "tools/render.h"

#include <qvcl/message.h>

namespace trace_reader {

namespace {

constexpr size_t USER_BYTES = 32;  // shown of a record of the application's

// A slot has the same number in every run, an address has not.
void put_address(Text &out, const Dump &dump, uint64_t address, Mask mask) {
    if (mask == Mask::NO || !address || dump.slot_of(address))
        dump.put_handle(out, address);
    else
        out << '*';
}

std::string_view text_at(Bytes bytes, size_t offset, size_t size) {
    if (offset >= bytes.size()) return {};
    const auto *text = reinterpret_cast<const char *>(bytes.data() + offset);
    return {text, strnlen(text, std::min(size, bytes.size() - offset))};
}

// The message whose beginning is at `bytes`, when it is one.
void put_message(Text &out, Bytes bytes, Mask mask) {
    const auto header = load<CL_MsgHeader>(bytes, 0);
    if (bytes.size() < sizeof header || header.version != CL_MSG_VERSION) {
        out.dump(bytes);
        return;
    }
    out << "{length=" << header.length;
    if (mask == Mask::NO) out << ", sender=" << header.sender;
    out << ", type=" << header.type << ", ";
    out.dump(bytes.subspan(sizeof header)) << '}';
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
        case CL_TRC_HEX:  // arguments of a callback may be addresses
            put_address(out, dump, value, value > UINT32_MAX ? mask : Mask::NO);
            break;
        case CL_TRC_HANDLE:
        case CL_TRC_ADDRESS:
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
        case CL_TRC_TEXT:  // a record without a text is one byte shorter than that of an empty one
            if (bytes.size() < field.offset + 8u)
                out << "null";
            else
                out.quoted(text_at(bytes, field.offset, field.size));
            break;
        case CL_TRC_BYTES:
            out.dump(bytes.subspan(std::min<size_t>(field.offset, bytes.size())));
            break;
        case CL_TRC_SETS:
            put_sets(out, bytes.subspan(std::min<size_t>(field.offset, bytes.size())));
            break;
        case CL_TRC_ERROR:
            put_error(out, load<CL_ErrInfo>(bytes, field.offset));
            break;
    }
}

std::string_view name_of(const Record &record) {
    return record.operation              ? record.operation->name
           : record.ring == CL_RING_USER ? "user record"
                                         : "unknown record";
}

void put_title(Text &out, const Record &record) {
    out << name_of(record);
    if (record.is_callback())
        put_event(out << ' ', load<uint32_t>(record.bytes, offsetof(CL_TrcCallback, type)));
}

void put_object(Text &out, const Dump &dump, uint64_t address) {
    dump.put_handle(out, address);
    const auto slot = dump.slot_of(address);
    if (slot && *slot < dump.objects.size() && dump.objects[*slot].kind)
        put_kind(out << ' ', dump.objects[*slot].kind);
}

void put_position(Text &out, const Record &record) {
    const size_t place = offsetof(CL_TrcHead, file);
    out.plain(text_at(record.bytes, place, sizeof CL_TrcHead::file));
    out << ':' << load<uint32_t>(record.bytes, offsetof(CL_TrcHead, line));
}

Carried carried(const Record &record) {
    const auto from = [&](size_t begin, uint64_t count) {
        begin = std::min(begin, record.bytes.size());
        return record.bytes.subspan(begin, std::min<uint64_t>(count, record.bytes.size() - begin));
    };
    const auto filled = [&](uint64_t room) {  // bytes that a successful read left in `room`
        const auto result = static_cast<int64_t>(number(record.bytes, record.operation->result));
        return record.exit && result > 0 ? std::min<uint64_t>(static_cast<uint64_t>(result), room)
                                         : 0;
    };
    switch (record.api()) {
        case CL_API_RECV_MSGC:
            return {"message",
                    from(offsetof(CL_TrcReceive, data), filled(sizeof CL_TrcReceive::data))};
        case CL_API_SEND_MSGC: {
            const auto held = load<uint32_t>(record.bytes, offsetof(CL_TrcSend, data_length));
            const size_t prefix = offsetof(CL_MsgBlock, header);
            return {"message", from(offsetof(CL_TrcSend, data) + prefix,
                                    held - std::min<uint64_t>(held, prefix))};
        }
        case CL_API_READ_FILE:
            return {"data",
                    from(offsetof(CL_TrcFileData, data), filled(sizeof CL_TrcFileData::data))};
        case CL_API_WRITE_FILE:
            return {"data", from(offsetof(CL_TrcFileData, data),
                                 std::min<uint64_t>(
                                     load<uint64_t>(record.bytes, offsetof(CL_TrcFileData, length)),
                                     sizeof CL_TrcFileData::data))};
        case CL_API_CALLBACK: {
            const auto type = load<uint32_t>(record.bytes, offsetof(CL_TrcCallback, type));
            return {type == CL_EVENT_DESCRIPTOR ? "ready" : "message",
                    from(sizeof(CL_TrcCallback), sizeof(CL_FdSets))};
        }
        default:
            return {};
    }
}

void put_carried(Text &out, const Carried &carried, Mask mask) {
    if (carried.name == "ready")
        put_sets(out, carried.bytes);
    else if (carried.name == "message")
        put_message(out, carried.bytes, mask);
    else
        out.dump(carried.bytes);
}

bool worth_showing(const Record &record, const CL_TrcField &field) {
    switch (field.type) {
        case CL_TRC_BYTES:  // part of what the record carries
            return false;
        case CL_TRC_ERROR:  // an event's; that of a call is its outcome
            return record.is_callback() && error_of(record).err;
        case CL_TRC_EVENT:
        case CL_TRC_HANDLE:
        case CL_TRC_TEXT:
        case CL_TRC_SETS:
            return true;
        default:  // events fill only what belongs to their type
            return record.is_callback() ? number(record.bytes, field) != 0
                                        : std::string_view(field.name) != "err_address";
    }
}

void put_outcome(Text &out, const Dump &dump, const Record &exit, Mask mask) {
    put_field(out, dump, exit.bytes, exit.operation->result, mask);
    const CL_ErrInfo error = error_of(exit);
    if (!error.err || exit.is_callback() || (exit.api() == CL_API_END && !failed(exit))) return;
    out << ' ';
    put_error(out, error);
}

void put_record(Text &out, const Dump &dump, const Record &record, Mask mask) {
    if (!record.operation) {
        const size_t begin = std::min(offsetof(CL_TrcHead, api), record.bytes.size());
        out << name_of(record) << ' ' << record.length << " bytes";
        if (mask == Mask::YES) return;
        out << ": ";
        out.dump(record.bytes.subspan(begin, std::min(record.bytes.size() - begin, USER_BYTES)));
    } else if (record.api() == CL_API_STATUS) {
        const auto change = load<CL_TrcStatus>(record.bytes, 0);
        out << "status ";
        put_address(out, dump, change.handle, mask);
        out << ": ";
        put_status(out, change.old_status);
        out << " -> ";
        put_status(out, change.status);
        if (!(change.old_sub_status | change.sub_status)) return;
        out << ", ";
        put_sub_status(out, change.old_sub_status);
        out << " -> ";
        put_sub_status(out, change.sub_status);
    } else {
        out << name_of(record) << '(';
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
