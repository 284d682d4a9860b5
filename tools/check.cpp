// check: what must hold in every dump, since the library writes none while one of its operations
// is half done. Sizes and eye-catchers are checked while the file is read, records while the rings
// are walked, chains while the queues are followed; here is checked what one table says of another.
#include "tools/commands.h"
#include "tools/names.h"
#include "tools/records.h"

namespace trace_reader {

namespace {

// For each slot the queues that it is on: bit i stands for kQueues[i].
class Memberships {
  public:
    explicit Memberships(Dump &dump) : bits_(dump.objects.size()) {
        for (size_t i = 0; i < kQueues.size(); ++i) {
            for (const uint64_t slot : dump.follow(kQueues[i]))
                bits_[slot] |= uint64_t{1} << i;
        }
    }
    template <class Condition>
    bool any(uint64_t slot, Condition condition) const {
        for (size_t i = 0; i < kQueues.size(); ++i) {
            if ((bits_[slot] >> i & 1) != 0 && condition(kQueues[i])) return true;
        }
        return false;
    }

  private:
    std::vector<uint64_t> bits_;
};

void check_main(Dump &dump) {
    const CL_MainBlock &main = dump.main;
    const auto complain = [&](size_t place, const auto &...what) {
        dump.problems.add(dump.main_block.offset + place, what...);
    };
    if (main.version != CL_VERSION) {
        Text version;
        put_version(version, main.version);
        complain(offsetof(CL_MainBlock, version), "a dump of version ", version.str());
    }
    if (main.state != CL_STATE_FAILED &&
        (main.state < CL_STATE_CONSTRUCTED || main.state > CL_STATE_ENDED)) {
        complain(offsetof(CL_MainBlock, state), "state ", main.state);
    }
    const uint32_t capacity =
        main.descriptor_table != nullptr ? main.requested + CL_SPARE_OBJECTS : 0;
    if (main.capacity != capacity) {
        complain(offsetof(CL_MainBlock, capacity), main.capacity, " objects, ", main.requested,
                 " were asked for");
    }
    const struct {
        size_t place;
        const CL_Object *object;
    } cursors[] = {{offsetof(CL_MainBlock, execs), main.execs},
                   {offsetof(CL_MainBlock, loop_cursor), main.loop_cursor},
                   {offsetof(CL_MainBlock, timer_cursor), main.timer_cursor},
                   {offsetof(CL_MainBlock, child_cursor), main.child_cursor}};
    for (const auto &[place, object] : cursors) {
        if (object != nullptr && !dump.slot_of(address(object))) {
            complain(place, "the address of no object");
        }
    }
}

void check_object(Dump &dump, const Memberships &queues, uint64_t slot) {
    const CL_Object &object = dump.objects[slot];
    const auto on = [&](size_t place) {
        return queues.any(slot, [&](const QueueView &view) { return view.place == place; });
    };
    const auto complain = [&](size_t place, const auto &...what) {
        dump.problems.add(dump.offset_of(slot) + place, "#", slot, what...);
    };
    if (object.own_address != dump.address_of(slot)) {
        complain(offsetof(CL_Object, own_address), " has another address");
    }
    for (size_t link = 0; link < offsetof(CL_Object, created_before);
         link += sizeof(CL_QueueLink)) {
        const auto value = load<CL_QueueLink>(bytes_of(object), link);
        if ((value.next != nullptr || value.previous != nullptr || value.owner != nullptr) &&
            !queues.any(slot, [&](const QueueView &view) { return view.link == link; })) {
            complain(link, " is linked to no queue");
        }
    }
    const bool live = on(offsetof(CL_MainBlock, used_queue));
    if (live == on(offsetof(CL_MainBlock, free_queue))) {
        complain(offsetof(CL_Object, link),
                 live ? " is free and used" : " is neither free nor used");
    }
    if (live && kind_name(object.kind).empty()) {
        complain(offsetof(CL_Object, kind), " is of kind ", object.kind);
    }
    if (live && !queues.any(slot, [](const QueueView &view) { return view.kind != 0; })) {
        complain(offsetof(CL_Object, kind_link), " is on no kind queue");
    }
    if (queues.any(slot, [&](const QueueView &view) {
            return view.kind != 0 && (!live || view.kind != object.kind);
        })) {
        complain(offsetof(CL_Object, kind_link), " is on the queue of another kind");
    }
    static constexpr size_t kLists[] = {
        offsetof(CL_MainBlock, priority_list), offsetof(CL_MainBlock, pending_list),
        offsetof(CL_MainBlock, child_list), offsetof(CL_MainBlock, thread_list)};
    const bool listed = std::ranges::any_of(kLists, on);
    if (listed != ((object.status & CL_STATUS_LISTED) != 0)) {
        complain(offsetof(CL_Object, status), listed ? " is listed" : " is not listed",
                 ", its status says otherwise");
    }
    const bool timing = on(offsetof(CL_MainBlock, timer_list));
    if (timing != ((object.status & CL_STATUS_RUNNING) != 0)) {
        complain(offsetof(CL_Object, status), timing ? " is timed" : " is not timed",
                 ", its status says otherwise");
    }
}

}  // namespace

bool check(Dumps dumps, const Options &, Text &out) {
    Dump &dump = dumps.front();
    const Trace trace(dump);
    uint64_t live = 0;
    if (dump.main_block.size != 0) {
        check_main(dump);
        const Memberships queues(dump);
        for (uint64_t slot = 0; slot < dump.objects.size(); ++slot) {
            check_object(dump, queues, slot);
            if (dump.is_live(slot)) ++live;
        }
    }
    out << dump.name << ": " << trace.records.size() << " records, " << live << " live objects, ";
    if (const size_t problems = dump.problems.count()) {
        out << problems << " problem" << (problems > 1 ? "s\n" : "\n");
    } else {
        out << "whole and consistent\n";
    }
    return true;
}

}  // namespace trace_reader
