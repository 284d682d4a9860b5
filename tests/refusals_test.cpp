// What is refused: every operation on a handle under every condition, arguments, the full table,
// and callers who may not touch a kind. Whatever is refused is told with its code and changes
// nothing.
#include <fcntl.h>
#include <qvcl/child.h>
#include <qvcl/loop.h>
#include <qvcl/recorder.h>
#include <qvcl/starter.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <span>
#include <tuple>

#include "tests/wire.h"

namespace {

using test::Balance;
using test::FailsWith;
using test::table;

struct Operation {
    const char *name;
    uint32_t kind;   // 0: any
    int module;      // that answers, unless the handle is bad
    bool for_fresh;  // also works on an object that is not set up
    int64_t (*call)(CL_Object *, CL_ErrInfo *, uint8_t flag);  // more than 0: success
};

char bytes[100];
char *const kNoArguments[] = {nullptr};
const CL_Program kNoProgram = {nullptr, kNoArguments, nullptr, 0};
const CL_Program kTrue = {"/bin/true", kNoArguments, nullptr, 0};

// clang-format off
#define ON(kind, module, for_fresh, ...)                                             \
    {#__VA_ARGS__, kind, CL_MODULE_##module, for_fresh,                              \
     []([[maybe_unused]] CL_Object *o, CL_ErrInfo *err, [[maybe_unused]] uint8_t f)  \
         -> int64_t { return (__VA_ARGS__) != 0 ? 1 : 0; }}
#define HERE err, f, "test", 1
// Whose failure is -1 has 1 added. The first two go on when the library has ended.
const Operation kOperations[] = {
    ON(0, FD, true, cl_CheckFD_sub(o, err)),
    ON(0, FD, true, CL_DeleteFD_M(o, HERE)),
    ON(0, FD, true, cl_CheckFD(o, err)),
    ON(0, FD, false, CL_AddEventList_M(o, 20, HERE)),
    ON(0, FD, false, CL_DelEventList_M(o, HERE)),
    ON(CL_KIND_FD, USERFD, true, CL_SetFD_M(o, 0, nullptr, nullptr, nullptr, HERE)),
    ON(CL_KIND_THREAD, THREAD, true, CL_SetThreadFd_M(o, HERE)),
    ON(CL_KIND_TIMER, TIMER, true, CL_StartTIMER_M(o, 99, CL_TIMER_ONESHOT, HERE)),
    ON(CL_KIND_TIMER, TIMER, false, CL_StopTIMER_M(o, HERE)),
    ON(CL_KIND_MSGS, MSGS, true, CL_OpenMSGS_M(o, "/none/x", 5, HERE)),
    ON(CL_KIND_MSGS, MSGS, false, CL_AcceptMSGS_M(o, nullptr, 0, 0, HERE)),
    ON(CL_KIND_MSGS, MSGS, false, CL_CloseMSGS_M(o, HERE)),
    ON(CL_KIND_MSGC, MSGC, true, CL_CnctMSGC_M(o, "/none/x", CL_MODE_SYNC, 0, HERE)),
    ON(CL_KIND_MSGC, MSGC, false, CL_RecvMSGC_M(o, bytes, 100, CL_MODE_SYNC, 0, HERE) + 1),
    ON(CL_KIND_MSGC, MSGC, false, CL_SendMSGC_M(o, bytes, 100, CL_MODE_SYNC, 0, HERE) + 1),
    ON(CL_KIND_MSGC, MSGC, false, CL_DiscMSGC_M(o, nullptr, nullptr, HERE)),
    ON(CL_KIND_CHILD, STARTER, false, CL_RequestEnd(o, err)),
    ON(CL_KIND_FILE, FILE, false, CL_CloseFile_M(o, HERE)),
    ON(CL_KIND_FILE, FILE, false, CL_WriteFile_M(o, bytes, 9, HERE) + 1),
    ON(CL_KIND_FILE, FILE, false, CL_ReadFile_M(o, bytes, 9, HERE) + 1),
    ON(CL_KIND_FILE, FILE, false, CL_SeekFile_M(o, 1, SEEK_SET, HERE) + 1),
    ON(CL_KIND_FILE, FILE, false, CL_FlushFile_M(o, HERE)),
    ON(CL_KIND_SHM, SHM, false, CL_MapSHM_M(o, HERE)),
    ON(CL_KIND_SHM, SHM, false, CL_UnmapSHM_M(o, HERE)),
    ON(CL_KIND_SHM, SHM, false, CL_CloseSHM_M(o, HERE)),
};
// Those that make an object, here from an open server.
const Operation kMakers[] = {
    ON(0, FD, true, CL_CreateFD_M(CL_KIND_FD, nullptr, 0, 0, HERE)),
    ON(0, FD, true, CL_AcceptMSGS_M(o, nullptr, 0, 0, HERE)),
    ON(0, FD, true, CL_OpenFile_M("/dev/null", O_RDONLY, 0, HERE)),
    ON(0, FD, true, cl_openshm("/none", O_RDONLY, 1, err, "test", 1)),
    ON(0, STARTER, true, CL_StartProgram(&kTrue, test::call_action, 0, 0, err)),
    ON(0, FD, true, CL_StartupComplete(test::call_action, 0, 0, 0, err)),
};
// clang-format on

class Refusals : public test::Library {
  protected:
    using Library::refused;
    void refused(const Operation &row, CL_Object *object, int code, int module, uint8_t flag = 0) {
        refused(row.name, code, module, [&] { return row.call(object, &err, flag); });
    }
    // The call succeeds for some and is refused for others.
    void allowed(bool is, const char *what, int code, const std::function<int64_t()> &call) {
        if (!is) return refused(what, code, CL_MODULE_FD, call);
        EXPECT_EQ(call(), 1) << what;
        EXPECT_THAT(err, test::IsClear()) << what;
    }
    void remove(CL_Object *object) {
        object->status &= CL_STATUS_RUNNING;
        EXPECT_EQ(CL_DeleteFD_M(object, &err, 1, "test", 1), 1u) << err;
    }
};

TEST_F(Refusals, HandlesAreChecked) {
    CL_Object *live = create(CL_KIND_FD), *deleted = create(CL_KIND_FD);
    remove(deleted);
    const auto at = [](const void *from, int64_t offset) {
        return reinterpret_cast<CL_Object *>(test::address(from) + static_cast<uint64_t>(offset));
    };
    CL_Object on_stack{};
    const CL_TableHeader *first = table().descriptor_table;
    CL_Object *const never = static_cast<CL_Object *>(table().free_queue.head);
    for (CL_Object *bad :
         {static_cast<CL_Object *>(nullptr), deleted, never, at(live, 1), at(live, -1),
          at(first + 1, -int64_t{sizeof(CL_Object)}), at(first, static_cast<int64_t>(first->size)),
          &on_stack, at(nullptr, 8), at(nullptr, -1)}) {
        for (const Operation &row : kOperations)
            refused(row, bad, EBADF, CL_MODULE_FD, 1);
    }
}

// Objects of another kind, for whom callers from the library may use some operations; objects that
// nobody has set up; calls without an error record.
TEST_F(Refusals, ObjectsAreChecked) {
    for (const Operation &row : kOperations) {
        if (row.kind != 0) {
            CL_Object *other = create(row.kind == CL_KIND_FD ? CL_KIND_TIMER : CL_KIND_FD);
            refused(row, other, EBADF, row.module);
            const CL_ErrInfo as_application = err;
            err = {};
            EXPECT_EQ(row.call(other, nullptr, 0), 0) << row.name;
            row.call(other, &err, 1);
            const bool whoever_calls =
                row.kind == CL_KIND_CHILD || row.kind == CL_KIND_SHM || row.kind == CL_KIND_FILE;
            EXPECT_EQ(err.line == as_application.line, whoever_calls) << row.name;
            remove(other);
        }
        CL_Object *fresh = create(std::max<uint32_t>(row.kind, CL_KIND_MSGS));
        if (!row.for_fresh) refused(row, fresh, EBADF, row.module);
        if (cl_CheckFD(fresh, nullptr) != 0) remove(fresh);
    }
}

// Only the test of handles and the deletion of what needs no release go on.
TEST_F(Refusals, AnEndedLibrary) {
    CL_Object *live = create(CL_KIND_FD), *server = create(CL_KIND_MSGS);
    ASSERT_EQ(CL_End(&err), 1u);
    test::set_env(CL_STARTER_SOCKET, "/none/x");
    for (const Operation &row : std::span(kOperations).subspan(2))
        refused(row, live, CL_ERR_STATE, CL_MODULE_FD);
    for (const Operation &row : kMakers)
        refused(row, live, CL_ERR_STATE, row.module);
    // There is something to release.
    live->status = server->status = CL_STATUS_READY | CL_STATUS_RUNNING;
    for (const auto release :
         {cl_DeleteMSGS_M, cl_DeleteMSGC_M, cl_DeleteTIMER_M, cl_DeleteEXECS_M})
        refused("release", CL_ERR_STATE, CL_MODULE_FD, [&] { return release(live, &err); });
    EXPECT_EQ(CL_DeleteFD(server, &err), 0u);
    EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_FD));
    live->status = 0;
    EXPECT_EQ(cl_CheckFD_sub(live, &err), 1u);
    EXPECT_EQ(CL_DeleteFD(live, &err), 1u) << err;
}

// Nothing is lost: what waited for room gets it.
TEST_F(Refusals, AFullTable) {
    const test::Folder folder;
    const std::string path = folder.path("x");
    CL_Object *server = create(CL_KIND_MSGS), *last = nullptr;
    ASSERT_EQ(CL_OpenMSGS(server, path.c_str(), 5, &err), 1u) << err;
    const test::Socket raw = test::Socket::connected(path);
    test::set_env(CL_STARTER_SOCKET, path.c_str());
    while (CL_Object *object = create(CL_KIND_FD))
        last = object;
    for (const Operation &row : kMakers)
        refused(row, server, EMFILE, CL_MODULE_FD);
    remove(last);
    EXPECT_NE(CL_AcceptMSGS(server, nullptr, 0, 0, &err), nullptr) << err;
}

TEST_F(Refusals, ArgumentsAreChecked) {
    const test::Folder folder;
    const std::string path = folder.put("x", "0123456789");
    CL_Object *server = create(CL_KIND_MSGS), *fd = create(CL_KIND_FD);
    const test::Pipe pipe;
    const std::string end = "/dev/fd/" + std::to_string(pipe.out());
    CL_Object *file = CL_OpenFile(path.c_str(), O_RDWR, 0, &err);
    CL_Object *piped = CL_OpenFile(end.c_str(), O_RDONLY, 0, &err);
    const std::string name = "/qvcl-refusals-" + std::to_string(getpid());
    close(shm_open(name.c_str(), O_CREAT | O_RDWR, 0600));
    CL_Object *mapped = cl_openshm(name.c_str(), O_RDWR, 4096, &err, "test", 1);
    CL_Object *unmapped = cl_openshm(name.c_str(), O_RDONLY, 4096, &err, "test", 1);
    shm_unlink(name.c_str());
    ASSERT_NE(CL_MapSHM(mapped, &err), nullptr) << err;
    const fd_set set{};
    ASSERT_EQ(CL_SetFD(fd, 10, &set, &set, nullptr, &err), 1u);
    const std::string too_long(108, 'p');
    const auto report_to = [this](const char *starter, CL_Callback callback) {
        test::set_env(CL_STARTER_SOCKET, starter);
        return CL_StartupComplete(callback, 0, 0, 0, &err) != nullptr;
    };
    const auto start = [this](const CL_Program *program, CL_Callback callback) {
        return CL_StartProgram(program, callback, 0, 0, &err) != nullptr;
    };
    const auto segment = [this](const char *at, int32_t flags, uint64_t size) {
        return cl_openshm(at, flags, size, &err, "test", 1) != nullptr;
    };
    const CL_Program awaited = {"/bin/true", kNoArguments, nullptr, 1};
    const CL_Callback told = test::call_action;
    test::set_env("NOTIFY_SOCKET", "/none/x");
    // clang-format off
#define ROW(code, module, ...) \
    {#__VA_ARGS__, code, CL_MODULE_##module, [&] { return (__VA_ARGS__) ? 1 : 0; }}
    const std::tuple<const char *, int, int, std::function<int64_t()>> rows[] = {
        ROW(EFAULT, MSGS, CL_OpenMSGS(server, nullptr, 5, &err) != 0),
        ROW(EFAULT, FILE, CL_OpenFile(nullptr, O_RDONLY, 0, &err) != nullptr),
        ROW(EINVAL, FILE, CL_OpenFile(path.c_str(), 3, 0600, &err) != nullptr),
        ROW(EINVAL, FILE, CL_SeekFile(file, 0, 3, &err) != -1),
        ROW(ESPIPE, FILE, CL_SeekFile(piped, 0, SEEK_CUR, &err) != -1),
        ROW(EFAULT, SHM, segment(nullptr, O_RDWR, 1)),
        ROW(EINVAL, SHM, segment("/x", O_RDWR, 0)),
        ROW(EINVAL, SHM, segment("/x", O_WRONLY, 1)),
        ROW(EINVAL, SHM, segment("/x", 3, 1)),
        ROW(EBADF, SHM, CL_MapSHM(mapped, &err) != nullptr),
        ROW(ENOENT, SHM, CL_CloseSHM(mapped, &err) != 0),
        ROW(ENOENT, SHM, CL_UnmapSHM(unmapped, &err) != 0),
        ROW(EFAULT, STARTER, start(nullptr, told)),
        ROW(EFAULT, STARTER, start(&kNoProgram, told)),
        ROW(EFAULT, STARTER, start(&awaited, nullptr)),
        ROW(EINVAL, STARTER, start(&awaited, told)),  // no server
        ROW(EFAULT, STARTER, report_to("/none/x", nullptr)),
        ROW(ENAMETOOLONG, MSGC, report_to(too_long.c_str(), told)),
        ROW(EFAULT, STARTER, CL_NotifyManager(nullptr, &err) != 0),
        ROW(EFAULT, RECORDER, CL_RecordCrashes(nullptr, &err) != 0),
        ROW(ENOENT, RECORDER, CL_RecordCrashes("", &err) != 0),
        ROW(ENOENT, RECORDER, CL_RecordCrashes("/none/x", &err) != 0),
        ROW(ENOTDIR, RECORDER, CL_RecordCrashes((path + "/x").c_str(), &err) != 0),
        ROW(EISDIR, RECORDER, CL_RecordCrashes("/tmp", &err) != 0),
        ROW(EISDIR, RECORDER, CL_RecordCrashes("/tmp/", &err) != 0),
        ROW(EINVAL, RECORDER, CL_RecordCrashes("/dev/null", &err) != 0),
        ROW(ENAMETOOLONG, RECORDER, CL_RecordCrashes(std::string(4090, '/').c_str(), &err) != 0),
        ROW(ENAMETOOLONG, RECORDER, CL_RecordCrashes(std::string(250, 'x').c_str(), &err) != 0),
        ROW(ENAMETOOLONG, RECORDER, CL_RecordCrashes(std::string(5000, '/').c_str(), &err) != 0),
        ROW(ENOMEM, RECORDER, CL_RecordCrashes("x", &err) != 0),   // no memory is mapped
        ROW(ENOMEM, RECORDER, CL_CrashStack(&err) != 0),
    };
    // clang-format on
    const test::Plan no_mapping(
        {.call = "mmap", .error = ENOMEM, .times = test::kForever, .from_anyone = true});
    for (const auto &[name_of_call, code, module, call] : rows)
        refused(name_of_call, code, module, call);
    for (const uint32_t count : {1025u, 2048u, 0x80000000u, UINT32_MAX}) {
        refused("set", EINVAL, CL_MODULE_USERFD,
                [&] { return CL_SetFD(fd, count, nullptr, nullptr, &set, &err); });
    }
    for (const uint32_t kind : {0u, 5u, 12u, 14u, 15u, 255u, 0x101u, UINT32_MAX})
        refused("create", EINVAL, CL_MODULE_FD, [&] { return create(kind) != nullptr ? 1 : 0; });
}

constexpr uint8_t kFlags[] = {0, 2, 255, 1};

enum Who { kNobody, kLibrary, kAnyone };

bool may(Who who, uint8_t flag) {
    return who == kAnyone || (who == kLibrary && flag == 1);
}

TEST_F(Refusals, KindsAreOpenToWhomTheyBelong) {
    // Who may create, delete and list them, and where they wait then.
    const std::tuple<uint32_t, uint32_t, Who, Who, Who, CL_Queue *> rows[] = {
        {1, CL_KIND_QUEUE_MSGS, kAnyone, kAnyone, kAnyone, &table().pending_list},
        {2, CL_KIND_QUEUE_MSGC, kAnyone, kAnyone, kAnyone, &table().pending_list},
        {3, CL_KIND_QUEUE_CHILD, kAnyone, kAnyone, kLibrary, &table().child_list},
        {4, CL_KIND_QUEUE_FD, kAnyone, kAnyone, kAnyone, &table().pending_list},
        {6, CL_KIND_QUEUE_END, kLibrary, kAnyone, kLibrary, &table().pending_list},
        {7, CL_KIND_QUEUE_EXECS, kLibrary, kLibrary, kLibrary, &table().pending_list},
        {8, CL_KIND_QUEUE_EXECC, kLibrary, kLibrary, kLibrary, &table().pending_list},
        {9, CL_KIND_QUEUE_TIMER, kAnyone, kAnyone, kLibrary, &table().timer_list},
        {10, CL_KIND_QUEUE_SHM, kLibrary, kLibrary, kNobody, nullptr},
        {11, CL_KIND_QUEUE_FILE, kLibrary, kLibrary, kNobody, nullptr},
        {13, CL_KIND_QUEUE_THREAD, kAnyone, kAnyone, kAnyone, &table().thread_list},
    };
    static_assert(std::size(rows) == CL_KIND_COUNT);
    const Balance empty = Balance::now();
    for (const auto &[kind, place, creates, removes, lists, event_list] : rows) {
        for (const uint8_t flag : kFlags) {
            SCOPED_TRACE(testing::Message() << "kind " << kind << " flag " << int{flag});
            CL_Object *object = nullptr;
            const auto add = [&] { return CL_AddEventList_M(object, 20, &err, flag, "test", 1); };
            const auto take = [&] { return CL_DelEventList_M(object, &err, flag, "test", 1); };
            const bool listed = may(lists, flag), removed = may(removes, flag);
            allowed(may(creates, flag), "create", EINVAL, [&, kind = kind] {
                object = CL_CreateFD_M(kind, nullptr, 0, 0, &err, flag, "test", 1);
                return object != nullptr ? 1 : 0;
            });
            if (object == nullptr) object = create(kind);
            EXPECT_TRUE(object->kind == kind && object->descriptor == -1);
            EXPECT_EQ(object->link.owner, &table().used_queue);
            EXPECT_EQ(object->kind_link.owner, &table().kind_queues[place]);
            object->status = CL_STATUS_READY;
            allowed(listed, "add", EBADF, add);
            if (listed) {
                EXPECT_EQ(event_list->tail, object);
                EXPECT_EQ(object->status, uint32_t{CL_STATUS_READY | CL_STATUS_LISTED});
                allowed(false, "add twice", EBADF, add);
                if (lists == kLibrary) {
                    allowed(false, "take off", EBADF,
                            [&] { return CL_DelEventList(object, &err); });
                }
            }
            allowed(listed, "take off", EBADF, take);
            EXPECT_EQ(object->status, uint32_t{CL_STATUS_READY});
            allowed(false, "take off twice", EBADF, take);
            object->status = 0;
            allowed(removed, "delete", EBADF,
                    [&] { return CL_DeleteFD_M(object, &err, flag, "test", 1); });
            if (!removed) remove(object);
            EXPECT_EQ(Balance::now(), empty);
        }
    }
}

TEST_F(Refusals, PrioritiesHaveTheirRanges) {
    CL_Object *object = create(CL_KIND_FD);
    object->status = CL_STATUS_READY;
    for (const uint32_t priority : {0u, 11u, 12u, 111u, 112u, 121u, 122u, UINT32_MAX}) {
        for (const uint8_t flag : kFlags) {
            const auto add = [&] {
                return CL_AddEventList_M(object, priority, &err, flag, "test", 1);
            };
            const bool may_add = flag == 0 ? priority >= 12 && priority <= 111 : priority <= 121;
            allowed(may_add, "add", EINVAL, add);
            if (may_add) CL_DelEventList(object, &err);
        }
    }
}

// Steps of the loop, called on their own.
TEST_F(Refusals, StepsThatFail) {
    sigset_t set, saved;
    sigemptyset(&set);
    for (const int nth : {1, 2}) {
        table().child_signal = 1;
        const test::Plan plan({{.call = "sigprocmask", .error = EINVAL, .nth = nth},
                               {.call = "pthread_sigmask", .error = EINVAL, .nth = nth}});
        EXPECT_EQ(cl_sigcheck(1, &set, &saved, &err), CL_LOOP_ERROR);
        EXPECT_EQ(cl_sigcheckThread(1, &set, &saved, &err), CL_LOOP_ERROR);
        EXPECT_EQ(table().child_signal, 1u) << "what was seen but not told is seen again";
    }
    for (const uint32_t type : {CL_EVENT_MESSAGE, CL_EVENT_SENT}) {
        CL_Event event = {};
        event.type = type;  // without data, for an object without a callback
        EXPECT_EQ(cl_Callback_M(nullptr, nullptr, &event, 0, 0, 0, nullptr, 0), 0u);
    }
    // What has lost its descriptor is not watched, and an error that nobody asks for is not told.
    CL_Object *object = create(CL_KIND_MSGC);
    fd_set read = {}, write = {};
    int32_t count = 0;
    cl_make_send_fd(object, object, &read, &write, &count);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(cl_openshm(nullptr, O_RDONLY, 1, nullptr, "test", 1), nullptr);
    EXPECT_EQ(clSIGUSR1Initialize(nullptr), 1u);
    EXPECT_EQ(clSIGUSR1End(), 1u);
    EXPECT_EQ(CL_WriteFile(object, nullptr, 9, &err) + CL_WriteFile(object, bytes, 0, &err), -2);
    EXPECT_EQ(cl_envchange(nullptr, &err), 0);
    EXPECT_NE(CL_GetTime_M(nullptr), 0u);
    const timespec negative = {-1, 0};
    timespec left = {5, 0};
    EXPECT_EQ(cl_u_nanosleep(&negative, &left), -1);
    char folder_of[8];
    EXPECT_STREQ(cl_getpath("a/b/c", folder_of), "a/b/");
    EXPECT_EQ(cl_getpath("c", folder_of), nullptr);
    EXPECT_STREQ(folder_of, "");
    CL_Object *timer = create(CL_KIND_TIMER);
    ASSERT_EQ(CL_StartTIMER(timer, 99, CL_TIMER_ONESHOT, &err), 1u);
    const test::Plan plan({.call = "setitimer", .error = EPERM});
    EXPECT_EQ(CL_DeleteFD(timer, &err), 0u);
    EXPECT_THAT(err, FailsWith(EPERM, CL_MODULE_TIMER));
}

}  // namespace
