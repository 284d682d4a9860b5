// tables: the header text, the blocks of the file, the main table, lists and queues as chains of
// slots, and what each descriptor object is and waits for.
#include <qvcl/timer.h>

#include "tools/commands.h"
#include "tools/render.h"

namespace trace_reader {

namespace {

constexpr size_t kLabelWidth = 20;
constexpr size_t kSlotsALine = 12;

#define FIELD(type, member) CL_TRC_FIELD(CL_MainBlock, member, CL_TRC_##type)
#define OBJECT(member) \
    { #member, CL_TRC_HANDLE, offsetof(CL_MainBlock, member), sizeof(uint64_t) }
constexpr CL_TrcField kMainFields[] = {FIELD(UNSIGNED, pid),
                                       FIELD(UNSIGNED, capacity),
                                       FIELD(UNSIGNED, requested),
                                       OBJECT(execs),
                                       FIELD(ERROR, exec_error),
                                       FIELD(TEXT, exec_path),
                                       FIELD(UNSIGNED, sync_flag),
                                       OBJECT(loop_cursor),
                                       OBJECT(timer_cursor),
                                       OBJECT(child_cursor),
                                       FIELD(UNSIGNED, timer_signals),
                                       FIELD(UNSIGNED, child_signal),
                                       FIELD(UNSIGNED, wake_signal),
                                       FIELD(UNSIGNED, timer_dispatched),
                                       FIELD(SIGNED, descriptor_count),
                                       FIELD(SETS, sets),
                                       FIELD(ADDRESS, dump_callback),
                                       FIELD(UNSIGNED, generations),
                                       FIELD(UNSIGNED, memory_check),
                                       FIELD(UNSIGNED, memory_limit),
                                       FIELD(UNSIGNED, library_bytes),
                                       FIELD(UNSIGNED, library_peak),
                                       FIELD(UNSIGNED, library_blocks.count),
                                       FIELD(UNSIGNED, user_bytes),
                                       FIELD(UNSIGNED, user_peak),
                                       FIELD(UNSIGNED, user_blocks.count),
                                       FIELD(UNSIGNED, log_ready),
                                       FIELD(TEXT, log_name),
                                       FIELD(TEXT, log_catalogue),
                                       FIELD(TEXT, log_alt_catalogue),
                                       FIELD(TEXT, log_path),
                                       FIELD(ADDRESS, log_callback)};

Text &label(Text &out, std::string_view text) {
    out << "  " << text;
    return out.column(out.size() - text.size(), kLabelWidth);
}

void put_block(Text &out, const Dump &dump, const Block &block) {
    if (block.size == 0) return;
    const auto *eye = block.header.eye;
    label(out, {eye, strnlen(eye, sizeof block.header.eye)});
    out << block.size << " bytes at offset " << block.offset << ", address ";
    dump.put_handle(out, block.header.address);
}

void put_ring(Text &out, const Dump &dump, const Ring &ring) {
    if (ring.block.size == 0) return;
    put_block(out, dump, ring.block);
    const CL_TraceRing &head = ring.head;
    out << ", " << head.entry_count << " entries of " << head.entry_size << ", oldest "
        << head.oldest << ", next " << head.next << (head.wrapped != 0 ? ", wrapped" : "");
    if (*head.prefix != '\0') {
        (out << ", prefix ").quoted({head.prefix, strnlen(head.prefix, sizeof head.prefix)});
    }
    out << '\n';
}

void put_header_text(Text &out, std::string_view text) {
    for (std::string_view name = "header text"; !text.empty(); name = "") {
        const std::string_view line = text.substr(0, text.find('\n'));
        label(out, name).quoted(line) << '\n';
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
}

void put_file(Text &out, const Dump &dump) {
    out << "file of " << dump.size << " bytes\n";
    put_header_text(out, dump.text);
    put_ring(out, dump, dump.rings[CL_RING_LIBRARY]);
    put_ring(out, dump, dump.rings[CL_RING_USER]);
    for (const Block *block : {&dump.main_block, &dump.table}) {
        put_block(out, dump, *block);
        out << (block->size != 0 ? "\n" : "");
    }
    if (dump.application_offset < dump.size) {
        label(out, "application's") << dump.size - dump.application_offset << " bytes at offset "
                                    << dump.application_offset << '\n';
    }
}

// A function by its name, where that is known.
void put_code(Text &out, const Dump &dump, uint64_t address) {
    const std::string name = function_name(dump, address);
    name.empty() ? out.hex(address) : out.plain(name);
}

void put_main(Text &out, const Dump &dump) {
    out << "\nmain table\n";
    label(out, "version");
    put_version(out, dump.main.version);
    label(out << '\n', "state");
    put_state(out, dump.main.state);
    out << '\n';
    for (const CL_TrcField &field : kMainFields) {
        label(out, field.name);
        if (std::string_view(field.name).ends_with("callback")) {
            put_code(out, dump, number(bytes_of(dump.main), field));
        } else {
            put_field(out, dump, bytes_of(dump.main), field);
        }
        out << '\n';
    }
}

void put_chain(Text &out, std::string_view name, const std::vector<uint64_t> &slots, bool brief) {
    label(out, name) << slots.size();
    for (size_t i = 0; i < slots.size() && !brief; ++i) {
        if (i != 0 && i % kSlotsALine == 0) (out << "\n  ").fill(kLabelWidth + 1);
        out << " #" << slots[i];
    }
    out << '\n';
}

void put_time_and_place(Text &out, std::string_view what, const CL_Position &position) {
    if (position.seconds == 0) return;
    const uint64_t time = position.seconds * 1000000 + position.microseconds;
    out << "    " << what << ' ';
    out.day(time) << ' ';
    out.clock(time) << "  ";
    out.plain({position.file, strnlen(position.file, sizeof position.file)});
    out << ':' << position.line << '\n';
}

template <size_t kSize>
void put_text(Text &out, const char (&text)[kSize]) {
    out.quoted({text, strnlen(text, kSize)});
}

void put_server(Text &out, const CL_Object &object) {
    put_text(out << "waits for connections at ", object.server.address.sun_path);
}

void put_connection(Text &out, const CL_Object &object) {
    const CL_Connection &connection = object.connection;
    out << "waits for ";
    const size_t begin = out.size();
    const auto next = [&] { return out.size() == begin ? "" : ", "; };
    if ((object.sub_status & CL_SUB_CONNECT_PENDING) != 0) {
        put_text(out << "the connection to ", connection.address.sun_path);
    }
    if ((object.sub_status & CL_SUB_RECV_PENDING) != 0) {
        out << next() << "a message, " << connection.received_count << " bytes of at most "
            << connection.receive_capacity << " are here";
    }
    if ((object.sub_status & CL_SUB_SEND_PENDING) != 0) {
        out << next() << "room to send " << connection.send_queue.count << " messages";
    }
    if (out.size() == begin) out << "nothing";
}

void put_child(Text &out, const CL_Object &object) {
    out << "waits for the end of process " << object.child.pid;
    if ((object.sub_status & CL_SUB_EXEC_AWAITED) != 0) out << ", its report that it is up";
}

void put_user(Text &out, const CL_Object &object) {
    put_sets(out << "waits for descriptors ", bytes_of(object.user.sets));
}

void put_thread(Text &out, const CL_Object &) {
    out << "waits for a wake-up";
}

void put_timer(Text &out, const CL_Object &object) {
    if ((object.status & CL_STATUS_RUNNING) == 0) {
        out << "does not run";
    } else if (object.remaining == CL_TIMER_DUE) {
        out << "is due";
    } else {
        out << "waits for " << object.remaining << " of " << object.interval
            << " s, started at uptime " << object.start_time;
    }
}

void put_memory(Text &out, const CL_Object &object) {
    put_text(out << "segment ", object.memory.name);
    (out << " of " << object.memory.size << " bytes, mapped at ")
        .hex(address(object.memory.address));
}

void put_open_file(Text &out, const CL_Object &object) {
    put_text(out << "file ", object.file.path);
}

constexpr struct {
    uint32_t kind;
    void (*put)(Text &out, const CL_Object &object);
} kWaits[] = {
    {CL_KIND_MSGS, put_server},    {CL_KIND_EXECS, put_server},     {CL_KIND_MSGC, put_connection},
    {CL_KIND_END, put_connection}, {CL_KIND_EXECC, put_connection}, {CL_KIND_CHILD, put_child},
    {CL_KIND_FD, put_user},        {CL_KIND_THREAD, put_thread},    {CL_KIND_TIMER, put_timer},
    {CL_KIND_SHM, put_memory},     {CL_KIND_FILE, put_open_file}};
static_assert(std::size(kWaits) == CL_KIND_COUNT, "every kind is shown");

void put_live(Text &out, const Dump &dump, const CL_Object &object) {
    put_kind(out << ' ', object.kind);
    put_status(out << "  ", object.status);
    if (object.sub_status != 0) put_sub_status(out << ", ", object.sub_status);
    out << "  priority " << object.priority << "  descriptor " << object.descriptor << '\n';
    for (const auto &[kind, put] : kWaits) {
        if (kind != object.kind) continue;
        put(out << "    ", object);
        out << '\n';
    }
    if (object.error.err != 0) {
        put_error(out << "    error ", object.error);
        out << '\n';
    }
    put_code(out << "    callback ", dump, reinterpret_cast<uint64_t>(object.callback));
    (out << "  arg1 ").hex(object.arg1);
    (out << "  arg2 ").hex(object.arg2) << '\n';
}

void put_object(Text &out, const Dump &dump, uint64_t slot, bool all) {
    const CL_Object &object = dump.objects[slot];
    const bool live = dump.is_live(slot);
    if (!live && !all) return;
    (out << '#' << slot << ' ').hex(dump.address_of(slot));
    if (live) {
        put_live(out, dump, object);
    } else {
        out << " free\n";
    }
    put_time_and_place(out, "created", object.created);
    if (all) {
        put_time_and_place(out, "created before", object.created_before);
        put_time_and_place(out, "deleted", object.deleted);
        put_time_and_place(out, "deleted before", object.deleted_before);
    }
    out.spill();
}

}  // namespace

bool tables(Dumps dumps, const Options &options, Text &out) {
    Dump &dump = dumps.front();
    put_file(out, dump);
    if (dump.main_block.size == 0) return true;
    put_main(out, dump);
    out << "\nlists and queues\n";
    for (const QueueView &view : kQueues) {
        const bool is_free_queue = view.place == offsetof(CL_MainBlock, free_queue);
        put_chain(out, view.name, dump.follow(view), is_free_queue && !options.all);
    }
    out << "\nobjects\n";
    for (uint64_t slot = 0; slot < dump.objects.size(); ++slot)
        put_object(out, dump, slot, options.all);
    return true;
}

}  // namespace trace_reader
