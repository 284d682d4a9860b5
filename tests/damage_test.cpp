/* Tables that contradict themselves, as after a stray write of the application: whatever walks or
 * changes them says so and goes no further, and works again once they are sound. */
#include <fcntl.h>
#include <qvcl/starter.h>
#include <sys/mman.h>

#include <csignal>
#include <fstream>

#include "tests/support.h"

namespace {

using test::Plan;

CL_MainBlock &table() {
    return *CL_MainTable;
}

/* Something wrong in a table, for as long as it lives. */
template <class T>
class Damage {
  public:
    Damage(T &place, T wrong) : place_(place), sound_(std::exchange(place, wrong)) {}
    ~Damage() { place_ = sound_; }
    Damage(const Damage &) = delete;
    Damage &operator=(const Damage &) = delete;

  private:
    T &place_;
    T sound_;
};

CL_Queue stranger; /* no queue of the library */

/* The link says that another queue holds its element. */
class Astray : Damage<CL_Queue *> {
  public:
    explicit Astray(CL_QueueLink &link) : Damage(link.owner, &stranger) {}
};

class Damaged : public test::Library {
  protected:
    void SetUp() override {
        Library::SetUp();
        ASSERT_NE(mkdtemp(directory), nullptr);
        path = std::string(directory) + "/x";
        cl_StatusChange_M(&stray, CL_STATUS_READY, 0, "test", 1);
    }
    void TearDown() override {
        unlink(path.c_str());
        EXPECT_EQ(rmdir(directory), 0);
    }

    CL_Object *ready(uint32_t kind) {
        CL_Object *object = create(kind);
        cl_StatusChange_M(object, CL_STATUS_READY, 0, "test", 1);
        return object;
    }
    void remove(CL_Object *object) {
        EXPECT_EQ(CL_DeleteFD_M(object, &err, 1, "test", 1), 1u) << err;
    }
    /* The object that the next creation would hand out. */
    static CL_Object &next() { return *static_cast<CL_Object *>(table().free_queue.head); }

    void expect_noticed(const char *what, bool failed, uint32_t code = CL_ERR_QUEUE) {
        EXPECT_TRUE(failed) << what;
        EXPECT_EQ(err.err, code) << what << ": " << err;
        EXPECT_NE(err.line, 0u) << what;
        err = test::UNTOUCHED;
    }

    char directory[32] = "/tmp/qvcl-damage-XXXXXX";
    std::string path;
    CL_Object stray{}; /* in no table */
};

/* Whatever makes an object passes the failure on and leaves nothing behind; a full table too. */
TEST_F(Damaged, NoObjectCanBeMade) {
    CL_Object *server = create(CL_KIND_MSGS);
    ASSERT_EQ(CL_OpenMSGS(server, path.c_str(), 5, &err), 1u) << err;
    test::set_env(CL_STARTER_SOCKET, path.c_str());
    static char name[] = "true";
    char *const arguments[] = {name, nullptr};
    const CL_Program program = {"/bin/true", arguments, nullptr, 0};
    const auto never = [](CL_Object *, CL_Event *, uint64_t, uint64_t) { return 0u; };
    const struct {
        const char *name;
        std::function<CL_Object *()> make;
    } rows[] = {
        {"create", [&] { return CL_CreateFD(CL_KIND_FD, nullptr, 0, 0, &err); }},
        {"accept", [&] { return CL_AcceptMSGS(server, nullptr, 0, 0, &err); }},
        {"open file", [&] { return CL_OpenFile("/dev/null", O_RDONLY, 0, &err); }},
        {"open segment", [&] { return cl_openshm("/none", O_RDONLY, 1, &err, "test", 1); }},
        {"start", [&] { return CL_StartProgram(&program, never, 0, 0, &err); }},
        {"report", [&] { return CL_StartupComplete(never, 0, 0, 0, &err); }},
    };
    const test::Balance before = test::Balance::now();
    for (const auto &row : rows) {
        {
            const Astray astray(next().kind_link);
            expect_noticed(row.name, row.make() == nullptr);
        }
        EXPECT_EQ(test::Balance::now(), before) << row.name;
    }
    while (create(CL_KIND_FD) != nullptr) {
    }
    for (const auto &row : rows)
        expect_noticed(row.name, row.make() == nullptr, EMFILE);
}

/* What the object stands for is released, the object stays: it can be deleted once all is well. */
TEST_F(Damaged, AnObjectCannotBeDeleted) {
    const int segment = shm_open("/qvcl-damage", O_CREAT | O_RDWR, 0600);
    close(segment);
    CL_Object *file = CL_OpenFile("/dev/null", O_RDONLY, 0, &err);
    CL_Object *memory = cl_openshm("/qvcl-damage", O_RDONLY, 1, &err, "test", 1);
    shm_unlink("/qvcl-damage");
    CL_Object *execs = ready(CL_KIND_EXECS), *report = create(CL_KIND_EXECC),
              *child = create(CL_KIND_CHILD);
    const struct {
        const char *name;
        CL_Object *object;
        std::function<uint32_t()> call;
    } rows[] = {
        {"close file", file, [&] { return CL_CloseFile(file, &err); }},
        {"close segment", memory, [&] { return CL_CloseSHM(memory, &err); }},
        {"report connections", report, [&] { return cl_clear_execc(&err); }},
        {"their server", report, [&] { return cl_DeleteEXECS_M(execs, &err); }},
        {"report", report,
         [&] {
             CL_MsgHeader message = {16, CL_MSG_VERSION, child->child.pid = 5000001,
                                     CL_MSG_EXEC_COMPLETE};
             child->sub_status = CL_SUB_EXEC_AWAITED;
             CL_QUE_PutTail(&table().exec_wait_list, child);
             CL_Event event{.type = CL_EVENT_MESSAGE, .data = &message};
             CL_Object *found = nullptr;
             return static_cast<uint32_t>(cl_ExecCompRecv(report, &event, &found, &err)) + 1;
         }},
    };
    for (const auto &row : rows) {
        const Astray astray(row.object->kind_link);
        expect_noticed(row.name, row.call() == 0);
    }
    execs->status = 0;
    for (CL_Object *object : {file, memory, execs, report, child})
        remove(object);
}

TEST_F(Damaged, ListsCannotBeChangedOrWalked) {
    CL_Object *timer = create(CL_KIND_TIMER), *child = ready(CL_KIND_CHILD);
    CL_Object *listed = ready(CL_KIND_FD), *unlisted = ready(CL_KIND_FD);
    CL_Object *running = create(CL_KIND_TIMER);
    CL_ErrInfo unused{};
    ASSERT_EQ(CL_AddEventList_M(child, 20, &unused, 1, "test", 1), 1u);
    ASSERT_EQ(CL_AddEventList(listed, 20, &unused), 1u);
    ASSERT_EQ(cl_move_eventlist(&unused), 0u);
    ASSERT_EQ(CL_StartTIMER(running, 9, CL_TIMER_ONESHOT, &unused), 1u);
    CL_Object *client = ready(CL_KIND_MSGC);
    CL_Queue unsent;
    CL_Event event{};
    const auto astray = [](CL_QueueLink &link, auto call) {
        return [&link, call] {
            const Astray wrong(link);
            return call();
        };
    };
    const auto headed_by_stray = [this](CL_Queue CL_MainBlock::*list, auto call) {
        return [this, list, call] {
            const Damage<void *> head((table().*list).head, &stray);
            return call();
        };
    };
    const auto walk = [&](auto call) {
        return headed_by_stray(&CL_MainBlock::priority_list, call);
    };
    const struct {
        const char *name;
        std::function<uint32_t()> call;
        uint32_t result;
    } rows[] = {
        {"start a timer",
         astray(timer->timer_link, [&] { return CL_StartTIMER(timer, 9, CL_TIMER_ONESHOT, &err); }),
         0},
        {"release a timer",
         astray(running->timer_link, [&] { return cl_DeleteTIMER_M(running, &err); }), 0},
        {"list", astray(unlisted->event_link, [&] { return CL_AddEventList(unlisted, 20, &err); }),
         0},
        {"unlist", astray(listed->event_link, [&] { return CL_DelEventList(listed, &err); }), 0},
        {"move what is listed",
         [&] {
             const Plan plan({.call = "malloc", .error = ENOMEM});
             const Damage<CL_Object **> scratch(table().scratch, nullptr);
             const Damage<uint32_t> count(table().priority_list.count, 200);
             const Damage<void *> head(table().priority_list.head, &stray);
             CL_QUE_PutTail(&table().pending_list, unlisted);
             return cl_move_eventlist(&err);
         },
         CL_LOOP_ERROR},
        {"send nothing", [&] { return static_cast<uint32_t>(cl_send(client, &event, &err)); },
         UINT32_MAX},
        {"ready for nothing",
         [&] {
             const Damage<int32_t> descriptor(client->descriptor, 5);
             table().sets = {};
             FD_SET(5, client->sub_status == 0 ? &table().sets.write : &table().sets.read);
             return cl_CheckMSGC_M(client, &err);
         },
         CL_LOOP_ERROR},
        {"disconnect",
         [&] {
             const Damage<uint32_t> offset(client->connection.send_queue.link_offset, 8);
             return CL_DiscMSGC(client, nullptr, &unsent, &err);
         },
         0},
        {"children",
         [&] {
             const Damage<CL_Object *> cursor(table().child_cursor, &stray);
             return cl_ChildCall(&err);
         },
         CL_LOOP_ERROR},
        {"timers",
         headed_by_stray(&CL_MainBlock::timer_list, [&] { return cl_TimerCheck(1, &err); }), 0},
        {"threads",
         headed_by_stray(&CL_MainBlock::thread_list, [&] { return cl_ThreadCallBack(&err); }),
         CL_LOOP_ERROR},
        {"loop", walk([&] { return CL_EventLoop(&err); }), CL_LOOP_ERROR},
        {"threaded loop", walk([&] { return CL_EventLoopThread(&err); }), CL_LOOP_ERROR},
        {"sets", walk([&] { return cl_fdmake(&err); }), CL_LOOP_ERROR},
        {"check", walk([&] { return cl_fdcheck(nullptr, nullptr, &err); }), CL_LOOP_ERROR},
        {"threaded check", walk([&] { return cl_fdcheckThread(nullptr, nullptr, &err); }),
         CL_LOOP_ERROR},
    };
    for (const uint32_t kind : {0u, uint32_t{CL_KIND_FD}}) { /* nothing it can be, or misplaced */
        stray.kind = kind;
        client->sub_status = kind == 0 ? 0 : CL_SUB_SEND_PENDING;
        for (const auto &row : rows) {
            const uint32_t result = row.call();
            expect_noticed(row.name, result == row.result);
        }
    }
    {
        const Plan plan({.call = "setitimer", .error = EPERM});
        expect_noticed("stop the clock", cl_DeleteTIMER_M(running, &err) == 0, EPERM);
    }
    const Plan nobody({{.call = "kill", .swallow = true}, {.call = "waitpid", .swallow = true}});
    for (CL_Object *object : {timer, running, listed, unlisted, child, client})
        remove(object);
}

/* The looks at the signals, called on their own. */
TEST_F(Damaged, SignalsCannotBeMasked) {
    sigset_t set, saved;
    sigemptyset(&set);
    sigaddset(&set, SIGALRM);
    const struct {
        const char *mask;
        uint32_t (*look)(uint32_t, const sigset_t *, sigset_t *, CL_ErrInfo *);
    } rows[] = {{"sigprocmask", cl_sigcheck}, {"pthread_sigmask", cl_sigcheckThread}};
    for (const auto &row : rows) {
        for (const int nth : {1, 2}) {
            table().child_signal = 1;
            const Plan plan({.call = row.mask, .error = EINVAL, .nth = nth});
            expect_noticed(row.mask, row.look(1, &set, &saved, &err) == CL_LOOP_ERROR, EINVAL);
            EXPECT_EQ(table().child_signal, 1u) << "what was seen but not told is seen again";
        }
    }
}

}  // namespace
