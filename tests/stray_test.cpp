// Stray writes: one field of the library's lists is overwritten, as a write past the end of
// something would, and the operation that meets it says so. Nothing crashes or blocks; and when the
// field is as it was, no object, child or descriptor is lost, and the loop turns.
#include <fcntl.h>
#include <qvcl/child.h>
#include <qvcl/loop.h>

#include "tests/wire.h"

namespace {

using test::Damage;
using test::table;

class Stray : public test::Messaging, public testing::WithParamInterface<size_t>, public Damage {
  public:
    struct Row {
        const char *name;
        uint32_t module, code, detail;
        std::function<int64_t(Stray &)> run;  // damages; the result of the call that fails
    };
    static const std::vector<Row> &rows();

  protected:
    CL_Object *ready(uint32_t kind) {
        CL_Object *object = make(kind);
        cl_StatusChange_M(object, CL_STATUS_READY, 0, "test", 1);
        return object;
    }
    CL_Object *listed(uint32_t kind) {
        CL_Object *object = ready(kind);
        list(object);
        EXPECT_EQ(iterate(), 0u) << err;
        return object;
    }
    CL_Object *running(uint32_t mode, bool due = false) {
        CL_Object *timer = make(CL_KIND_TIMER);
        EXPECT_EQ(CL_StartTIMER(timer, due ? 0 : 99, mode, &err), 1u);
        EXPECT_EQ(cl_TimerCheck(0, &err), due ? 1u : 0u);
        return timer;
    }
    CL_QueueLink &next_kind_link() {
        return static_cast<CL_Object *>(table().free_queue.head)->kind_link;
    }
    // What has been reaped, but not told, is only to be deleted.
    void give_up(CL_Object *child) {
        repair();
        CL_ErrInfo scratch;
        EXPECT_EQ(CL_DelEventList_M(child, &scratch, 1, "test", 1), 1u);
        child->status = 0;
    }
    sigset_t set{}, saved{};
    std::unique_ptr<test::Block> block;
};

const std::vector<Stray::Row> &Stray::rows() {
    constexpr uint32_t kBad = CL_ERR_QUEUE, kGone = CL_QUE_NOT_HELD;
#define ROW(name, module, code, detail, ...)                                            \
    {                                                                                   \
        name, CL_MODULE_##module, code, detail, [](Stray &s) -> int64_t { __VA_ARGS__ } \
    }
    static const std::vector<Row> rows = {
        // clang-format off
        ROW("create_unused", FD, kBad, kBad, s.misplace(table().used_queue); return s.make(CL_KIND_FD) != nullptr;),
        ROW("create_kind", FD, kBad, kBad, s.take(s.next_kind_link()); return s.make(CL_KIND_FD) != nullptr;),
        ROW("open_file", FD, kBad, kBad, s.take(s.next_kind_link()); return CL_OpenFile("/dev/null", O_RDONLY, 0, &s.err) != nullptr;),
        ROW("close_file", FD, kBad, kBad, auto *o = s.ready(CL_KIND_FILE); o->descriptor = dup(0); s.lose(o->kind_link); return CL_CloseFile(o, &s.err);),
        ROW("open_shm", FD, kBad, kBad, s.take(s.next_kind_link()); return cl_openshm("/none", O_RDONLY, 1, &s.err, "test", 1) != nullptr;),
        ROW("close_shm", FD, kBad, kBad, auto *o = s.ready(CL_KIND_SHM); o->descriptor = dup(0); s.lose(o->kind_link); return CL_CloseSHM(o, &s.err);),
        ROW("accept", FD, kBad, kBad, auto *o = s.make(CL_KIND_MSGS); const std::string path = s.folder.path("s");
            EXPECT_EQ(CL_OpenMSGS(o, path.c_str(), 5, &s.err), 1u);
            s.peer = test::Socket::connected(path); s.take(s.next_kind_link());
            return CL_AcceptMSGS(o, nullptr, 0, 0, &s.err) != nullptr;),
        ROW("delete_kind", FD, EBADF, EBADF, auto *o = s.make(CL_KIND_FD); s.write(o->kind, 0u); return CL_DeleteFD(o, &s.err);),
        ROW("delete_timer", TIMER, kBad, kBad, auto *o = s.make(CL_KIND_FD);
            EXPECT_EQ(CL_StartTIMER_M(o, 9, CL_TIMER_ONESHOT, &s.err, 1, "test", 1), 1u);
            s.lose(o->timer_link); return CL_DeleteFD(o, &s.err);),
        ROW("delete_listed", FD, kBad, kBad, auto *o = s.listed(CL_KIND_FD); s.lose(o->event_link); return CL_DeleteFD(o, &s.err);),
        ROW("delete_used", FD, kBad, kBad, auto *o = s.make(CL_KIND_FD); s.lose(o->link); return CL_DeleteFD(o, &s.err);),
        ROW("delete_free", FD, kBad, kBad, auto *o = s.make(CL_KIND_FD); s.misplace(table().free_queue); return CL_DeleteFD(o, &s.err);),
        ROW("add_pending", FD, kBad, CL_QUE_REFUSED, auto *o = s.ready(CL_KIND_FD); s.take(o->event_link); return CL_AddEventList(o, 20, &s.err);),
        ROW("add_thread", FD, EBADF, EBADF, auto *o = s.ready(CL_KIND_THREAD); s.take(o->thread_link); return CL_AddEventList(o, 20, &s.err);),
        ROW("add_kind", FD, EBADF, EBADF, auto *o = s.ready(CL_KIND_FD); s.write(o->kind, 0u); return CL_AddEventList(o, 20, &s.err);),
        ROW("take_off", FD, kBad, kBad, auto *o = s.listed(CL_KIND_FD); s.lose(o->event_link); return CL_DelEventList(o, &s.err);),
        ROW("join", FD, kBad, CL_QUE_REFUSED, s.list(s.ready(CL_KIND_FD)); s.misplace(table().priority_list); return CL_EventLoop(&s.err);),
        ROW("ask_thread", LOOP, kBad, CL_KIND_THREAD, auto *o = s.listed(CL_KIND_FD); s.write(o->kind, CL_KIND_THREAD); return cl_fdmake(&s.err);),
        ROW("ask_nothing", LOOP, kBad, 0, auto *o = s.listed(CL_KIND_FD); s.write(o->kind, 0u); return CL_EventLoop(&s.err);),
        ROW("ask_next", LOOP, kBad, kGone, auto *o = s.listed(CL_KIND_FD); s.lose(o->event_link); return cl_fdmake(&s.err);),
        ROW("check_thread", LOOP, kBad, kBad, auto *o = s.listed(CL_KIND_FD); s.write(o->kind, CL_KIND_THREAD); return cl_fdcheck(&s.set, &s.saved, &s.err);),
        ROW("check_nothing", THREAD, kBad, kBad, auto *o = s.listed(CL_KIND_FD); s.write(o->kind, 0u); return cl_fdcheckThread(&s.set, &s.saved, &s.err);),
        ROW("check_next", LOOP, kBad, kBad, auto *o = s.listed(CL_KIND_FD); s.lose(o->event_link); return cl_fdcheck(&s.set, &s.saved, &s.err);),
        // Its own callback cannot take it off: the walk ends there, and does not begin anew.
        ROW("checked", THREAD, kBad, kBad, auto *o = s.connect(); s.list(o, 12); s.await(o); EXPECT_EQ(s.iterate(), 0u);
            s.peer.send(test::wire_message("x"));
            s.reply = [&s](CL_Object *object, CL_Event *) {
                s.lose(object->event_link);
                EXPECT_EQ(CL_DelEventList(object, &s.err), 0u);
                EXPECT_EQ(table().loop_cursor, object);
                return 0u;
            };
            return CL_EventLoopThread(&s.err);),
        ROW("wake", THREAD, kBad, kGone, auto *o = s.listed(CL_KIND_THREAD); s.lose(o->thread_link); table().wake_signal = 1; return CL_EventLoopThread(&s.err);),
        ROW("start_timer", TIMER, kBad, kBad, auto *o = s.make(CL_KIND_TIMER); s.take(o->timer_link); return CL_StartTIMER(o, 9, CL_TIMER_ONESHOT, &s.err);),
        ROW("start_unused", TIMER, EBADF, EBADF, auto *o = s.make(CL_KIND_TIMER); s.lose(o->link); return CL_StartTIMER(o, 9, CL_TIMER_ONESHOT, &s.err);),
        ROW("stop_timer", TIMER, kBad, kBad, auto *o = s.running(CL_TIMER_ONESHOT); s.lose(o->timer_link); return CL_StopTIMER(o, &s.err);),
        ROW("delete_running", TIMER, kBad, kBad, auto *o = s.running(CL_TIMER_ONESHOT); s.lose(o->timer_link); return cl_DeleteTIMER_M(o, &s.err);),
        ROW("look_at_timers", TIMER, kBad, kGone, auto *o = s.running(CL_TIMER_ONESHOT); s.lose(o->timer_link); return cl_TimerCheck(0, &s.err);),
        ROW("tell_once", TIMER, kBad, kBad, auto *o = s.running(CL_TIMER_ONESHOT, true); s.lose(o->timer_link); return cl_TimerCall(&s.err);),
        ROW("tell_often", TIMER, kBad, kGone, auto *o = s.running(CL_TIMER_PERIODIC, true); s.lose(o->timer_link); return cl_TimerCall(&s.err);),
        ROW("children", CHILD, kBad, kGone, auto *o = s.adopt(s.make(CL_KIND_CHILD), test::child_process()); s.lose(o->child_link); return cl_ChildCall(&s.err);),
        ROW("reap", CHILD, kBad, kBad, auto *o = s.adopt(s.make(CL_KIND_CHILD), test::ended_process()); s.lose(o->child_link);
            const uint32_t result = cl_ChildCall(&s.err);
            s.give_up(o); return result;),
        // Its process is gone: a second deletion kills nobody who has got the number.
        ROW("kill", CHILD, kBad, kBad, auto *o = s.adopt(s.make(CL_KIND_CHILD), test::child_process()); s.lose(o->child_link);
            EXPECT_EQ(CL_DeleteFD(o, &s.err), 0u);
            const test::Plan plan;
            CL_ErrInfo scratch;
            EXPECT_EQ(CL_DeleteFD(o, &scratch), 0u);
            EXPECT_EQ(plan.count("kill"), 0);
            s.give_up(o); return 0;),
        ROW("disconnect", MSGC, kBad, kBad, auto *o = s.connect(); s.block = s.stuff(o);
            s.write(o->connection.send_queue.link_offset, 8u);
            CL_Queue unsent; return CL_DiscMSGC(o, nullptr, &unsent, &s.err);),
        // Nothing is there to send: the loop goes on.
        ROW("send_nothing", MSGC, kBad, kBad, auto *o = s.connect(); s.list(o); s.write(o->sub_status, CL_SUB_SEND_PENDING);
            EXPECT_EQ(s.iterate(), 0u) << s.err;
            EXPECT_EQ(o->sub_status, 0u);
            CL_Event event; return cl_send(o, &event, &s.err);),
        // clang-format on
    };
    return rows;
}

TEST_P(Stray, IsToldAndLosesNothing) {
    const Row &row = rows()[GetParam()];
    EXPECT_THAT(row.run(*this), testing::AnyOf(0, -1, int64_t{CL_LOOP_ERROR}));
    EXPECT_EQ(err.err, row.code);
    EXPECT_EQ(err.detail, row.detail);
    EXPECT_EQ(err.module, row.module);
    repair();
    EXPECT_EQ(table().free_queue.count + table().used_queue.count, table().capacity);
    for (auto *object = static_cast<CL_Object *>(table().used_queue.head); object != nullptr;
         object = static_cast<CL_Object *>(object->link.next))
        test::back_to_its_kind(object);
    reply = nullptr;
    EXPECT_EQ(iterate(), 0u) << err;
}
INSTANTIATE_TEST_SUITE_P(Writes, Stray, testing::Range(size_t{0}, Stray::rows().size()),
                         [](const auto &row) {
                             return std::string(Stray::rows()[row.param].name);
                         });

// Before anything is there: initialisation fails, and leaves nothing open.
TEST(StrayBefore, Initialisation) {
    for (CL_Queue *queue : {&table().free_queue, &table().used_queue, &table().pending_list}) {
        IN_NEW_PROCESS({
            test::Folder folder;
            const std::string path = folder.path("server");
            const auto before = test::descriptors();
            Damage damage;
            damage.misplace(*queue);
            CL_ErrInfo err;
            EXPECT_EQ(CL_Init(20, path.c_str(), &err), 0u);
            EXPECT_EQ(err.err, uint32_t{CL_ERR_QUEUE});
            damage.repair();
            EXPECT_EQ(CL_End(&err), 1u);
            EXPECT_EQ(test::descriptors(), before);
        });
    }
}

}  // namespace
