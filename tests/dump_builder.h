// Builds dump files out of the public layouts, without the library, so that tests decide what is in
// them. The addresses are those of a process that never was.
#pragma once

#include <qvcl/main.h>
#include <qvcl/message.h>
#include <qvcl/timer.h>
#include <qvcl/trace_records.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace dump_builder {

using File = std::vector<uint8_t>;

constexpr uint64_t MAIN_ADDRESS = 0x7f0000010000;
constexpr uint64_t TABLE_ADDRESS = 0x7f0000200000;
constexpr uint64_t RING_ADDRESS[] = {0x7f0000300000, 0x7f0000400000};
constexpr uint64_t START = 1790000000;  // second of the first record

template <typename T>
T pointer(uint64_t address) {
    return reinterpret_cast<T>(address);
}

template <typename T>
void append(File &file, const T &value, size_t size = sizeof(T)) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(&value);
    file.insert(file.end(), bytes, bytes + size);
}

inline CL_TableHeader header(std::string_view eye, uint64_t size, uint64_t address) {
    CL_TableHeader result{};
    std::ranges::copy(eye, result.eye);
    result.size = size;
    result.address = address;
    return result;
}

struct Ring {
    Ring(int ring, uint32_t entry_size, uint32_t count, std::string_view prefix = {})
        : entries(count, File(sizeof(CL_TraceEntry) + entry_size)) {
        const uint64_t size = sizeof head + uint64_t{count} * entries[0].size();
        head.header =
            header(ring == CL_RING_USER ? CL_EYE_USRTRC : CL_EYE_LIBTRC, size, RING_ADDRESS[ring]);
        std::ranges::copy(prefix, head.prefix);
        head.entry_size = entry_size;
        head.entry_count = count;
    }

    void write(const void *record, uint32_t length) {
        const uint32_t count = (length + head.entry_size - 1) / head.entry_size;
        for (uint32_t i = 0; i < count; ++i) {
            if (head.next == head.oldest && head.wrapped) {
                CL_TraceEntry overwritten;
                std::memcpy(&overwritten, entries[head.next].data(), sizeof overwritten);
                head.oldest = (head.oldest + overwritten.remaining) % head.entry_count;
            }
            const CL_TraceEntry entry{(i == 0 ? 1u : 0u) + (i + 1 == count ? 2u : 0u), count - i};
            uint8_t *place = entries[head.next].data();
            std::memcpy(place, &entry, sizeof entry);
            std::memcpy(place + sizeof entry,
                        static_cast<const uint8_t *>(record) + i * head.entry_size,
                        std::min(head.entry_size, length - i * head.entry_size));
            if (++head.next == head.entry_count) head.next = 0, head.wrapped = 1;
        }
    }

    CL_TraceRing head{};
    std::vector<File> entries;
};

class Dump {
  public:
    Dump(uint32_t requested, uint32_t entries)
        : library(CL_RING_LIBRARY, CL_TRC_LIB_ENTRY, entries) {
        main.header = header(CL_EYE_MAIN, sizeof main, MAIN_ADDRESS);
        main.version = CL_VERSION;
        main.pid = 4242;
        main.state = CL_STATE_INITIALISED;
        main.requested = requested;
        main.capacity = requested + CL_SPARE_OBJECTS;
        main.descriptor_table = pointer<CL_TableHeader *>(TABLE_ADDRESS);
        main.library_ring = pointer<CL_TraceRing *>(RING_ADDRESS[CL_RING_LIBRARY]);
        main.memory_limit = 104857600;
        for (CL_Queue &queue : main.kind_queues)
            queue.link_offset = offsetof(CL_Object, kind_link);
        main.timer_list.link_offset = offsetof(CL_Object, timer_link);
        main.child_list.link_offset = offsetof(CL_Object, child_link);
        main.thread_list.link_offset = offsetof(CL_Object, thread_link);
        main.priority_list.link_offset = offsetof(CL_Object, event_link);
        main.pending_list.link_offset = offsetof(CL_Object, event_link);
        main.exec_wait_list.link_offset = offsetof(CL_Object, exec_link);
        objects.resize(main.capacity);
        for (uint32_t slot = 0; slot < main.capacity; ++slot) {
            objects[slot].own_address = handle(slot);
            objects[slot].descriptor = -1;
        }
    }

    static uint64_t handle(uint64_t slot) {
        return TABLE_ADDRESS + sizeof(CL_TableHeader) + slot * sizeof(CL_Object);
    }
    // Appends an object to the queue at that place of the main table.
    void list(CL_Queue &queue, uint64_t slot) {
        const auto link_of = [&](uint64_t address) {
            auto &object = objects[(address - handle(0)) / sizeof(CL_Object)];
            return reinterpret_cast<CL_QueueLink *>(reinterpret_cast<uint8_t *>(&object) +
                                                    queue.link_offset);
        };
        const uint64_t place = static_cast<uint64_t>(reinterpret_cast<uint8_t *>(&queue) -
                                                     reinterpret_cast<uint8_t *>(&main));
        const uint64_t last = reinterpret_cast<uint64_t>(queue.tail);
        void *const element = pointer<void *>(handle(slot));
        *link_of(handle(slot)) = {nullptr, queue.tail, pointer<CL_Queue *>(MAIN_ADDRESS + place)};
        if (last)
            link_of(last)->next = element;
        else
            queue.head = element;
        queue.tail = element;
        ++queue.count;
    }

    CL_Object &create(uint64_t slot, uint32_t kind, uint32_t status) {
#define PLACE(number, symbol, name) \
    if (kind == (number)) list(main.kind_queues[CL_KIND_QUEUE_##symbol], slot);
        CL_KINDS(PLACE)
#undef PLACE
        list(main.used_queue, slot);
        CL_Object &object = objects[slot];
        object.kind = kind;
        object.status = status;
        object.created = {"server.c", 40 + static_cast<uint32_t>(slot), 0, START, slot};
        return object;
    }

    void free_rest() {
        for (uint32_t slot = 0; slot < main.capacity; ++slot)
            if (!objects[slot].link.owner) list(main.free_queue, slot);
    }

    // Writes a record, `step` microseconds after the last one.
    template <typename T>
    void record(T record, uint8_t api, uint8_t phase, uint8_t marker, uint32_t size = sizeof(T)) {
        now += step;
        auto &head = reinterpret_cast<CL_TrcHead &>(record);
        head.seconds = now / 1000000;
        head.microseconds = now % 1000000;
        head.length = size;
        head.api = api;
        head.phase = phase;
        head.marker = marker;
        std::ranges::copy(std::string_view("server.c"), head.file);
        head.line = 7;
        library.write(&record, size);
    }
    template <typename T>
    void enter(const T &r, uint8_t api, uint32_t size = sizeof(T)) {
        record(r, api, 0, CL_MARK_ENTRY, size);
    }
    template <typename T>
    void leave(T r, uint8_t api, uint64_t result, uint32_t err = 0, uint32_t size = sizeof(T)) {
        std::memcpy(&r.result, &result, sizeof r.result);
        if (err) r.error = {err, err, CL_MODULE_MSGC, 1120031, main.version};
        record(r, api, 1, CL_MARK_EXIT, size);
    }
    template <typename T>
    void call(const T &r, uint8_t api, uint64_t result, uint32_t err = 0,
              uint32_t size = sizeof(T)) {
        enter(r, api, size);
        leave(r, api, result, err, size);
    }
    void status(uint64_t slot, uint32_t from, uint32_t to, uint32_t sub_from = 0,
                uint32_t sub_to = 0) {
        CL_TrcStatus r{};
        r.handle = handle(slot);
        r.old_status = from;
        r.status = to;
        r.old_sub_status = sub_from;
        r.sub_status = sub_to;
        r.head.caller = 2;
        record(r, CL_API_STATUS, 0, CL_MARK_STATUS);
    }

    File file(std::string_view text = {}) {
        File result;
        if (!text.empty()) {
            result.assign(text.begin(), text.end());
            result.push_back(0);
            result.resize(result.size() + 16 - result.size() % 16);
        }
        ring_at = result.size();
        append_ring(result, library);
        user_at = result.size();
        if (user) append_ring(result, *user);
        main.user_ring = user ? pointer<CL_TraceRing *>(RING_ADDRESS[CL_RING_USER]) : nullptr;
        main_at = result.size();
        append(result, main);
        table_at = result.size();
        const uint64_t size = sizeof(CL_TableHeader) + objects.size() * sizeof(CL_Object);
        append(result, header(CL_EYE_FDTBL, size, TABLE_ADDRESS));
        for (const CL_Object &object : objects)
            append(result, object);
        return result;
    }

    CL_MainBlock main{};
    std::vector<CL_Object> objects;
    Ring library;
    Ring *user = nullptr;
    uint64_t now = START * 1000000;
    uint64_t step = 10;
    size_t ring_at = 0, user_at = 0, main_at = 0, table_at = 0;  // in the last file

  private:
    static void append_ring(File &file, const Ring &ring) {
        append(file, ring.head);
        for (const File &entry : ring.entries)
            file.insert(file.end(), entry.begin(), entry.end());
    }
};

// A record about the object in a slot.
template <typename T>
T on(uint64_t slot) {
    T record{};
    record.handle = Dump::handle(slot);
    return record;
}

// A loop that calls back twice and never returns, between what happened before the trace and a
// record of the application; two of its records span entries.
struct Story : Dump {
    explicit Story(uint32_t entries) : Dump(0, entries), records(CL_RING_USER, 40, 4, "/tmp/s") {
        user = &records;
        create(0, CL_KIND_MSGS, CL_STATUS_READY | CL_STATUS_LISTED).priority = 20;
        objects[0].descriptor = 5;
        std::strcpy(objects[0].server.address.sun_path, "/run/s");
        list(main.priority_list, 0);
        auto &connection = create(1, CL_KIND_MSGC, CL_STATUS_READY | CL_STATUS_LISTED);
        connection.sub_status = CL_SUB_RECV_PENDING | CL_SUB_SEND_PENDING;
        connection.connection.receive_capacity = 64;
        connection.connection.received_count = 3;
        connection.connection.send_queue.count = 2;
        connection.error = {EPIPE, EPIPE, CL_MODULE_MSGC, 8, CL_VERSION};
        list(main.pending_list, 1);
        auto &timer = create(2, CL_KIND_TIMER, CL_STATUS_RUNNING);
        timer.interval = 9;
        timer.remaining = 4;
        list(main.timer_list, 2);
        free_rest();
        objects[3].deleted = {"gone.c", 7, 0, START, 5};

        now -= step;
        status(3, CL_STATUS_LISTED, 0);
        leave(on<CL_TrcHandle>(3), CL_API_DEL_LIST, 1);
        enter(CL_TrcProcess{}, CL_API_LOOP);
        struct {
            CL_TrcCallback callback;
            CL_MsgHeader message;
            char text[8];
        } wide{on<CL_TrcCallback>(1), {24, CL_MSG_VERSION, 77, 9}, "hello"};
        wide.callback.type = CL_EVENT_MESSAGE;
        wide.callback.callback = 0x1000;
        wide.callback.data_length = 24;
        const CL_TrcCallback message = wide.callback;
        record(wide, CL_API_CALLBACK, 0, CL_MARK_CALLBACK_ENTRY);
        auto start = on<CL_TrcStartTimer>(2);
        start.mode = CL_TIMER_ONESHOT;
        enter(start, CL_API_START_TIMER);
        status(2, 0, CL_STATUS_RUNNING);
        leave(start, CL_API_START_TIMER, 0, EBADF);
        struct {
            CL_TrcHead head;
            char text[10];
        } own{{}, "mine"};
        own.head = {now / 1000000, now % 1000000, {}, sizeof own, 0, 0, 0, 0, {}, 0, 0};
        records.write(&own, sizeof own);
        record(message, CL_API_CALLBACK, 1, CL_MARK_CALLBACK_EXIT);
        auto lost = on<CL_TrcCallback>(1);
        lost.type = CL_EVENT_DISCONNECT;
        lost.error = {EPIPE, EPIPE, CL_MODULE_MSGC, 8, CL_VERSION + 1};
        record(lost, CL_API_CALLBACK, 0, CL_MARK_CALLBACK_ENTRY);
    }
    Ring records;
};

}  // namespace dump_builder
