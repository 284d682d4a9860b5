/* The descriptor table: who may make and delete what, which handles are valid, how slots are
 * reused. */
#include <fcntl.h>
#include <qvcl/descriptor.h>
#include <qvcl/execcomp.h>
#include <qvcl/starter.h>

#include <cstddef>
#include <deque>

#include "tests/support.h"

namespace {

using test::FailsWith;
using test::IsClear;

CL_MainBlock &table() {
    return *CL_MainTable;
}
CL_Object *slot(std::size_t index) {
    return reinterpret_cast<CL_Object *>(table().descriptor_table + 1) + index;
}

class Descriptor : public test::Library {};

constexpr uint8_t FLAGS[] = {0, 2, 255, 1};

char *const NO_ARGUMENTS[] = {nullptr};
const CL_Program NO_PROGRAM = {nullptr, NO_ARGUMENTS, nullptr, 0};

struct Kind {
    uint32_t number;
    uint32_t place;
    bool application_creates;
    bool application_deletes;
};
const Kind KINDS[] = {
    {1, CL_KIND_QUEUE_MSGS, true, true},    {2, CL_KIND_QUEUE_MSGC, true, true},
    {3, CL_KIND_QUEUE_CHILD, true, true},   {4, CL_KIND_QUEUE_FD, true, true},
    {6, CL_KIND_QUEUE_END, false, true},    {7, CL_KIND_QUEUE_EXECS, false, false},
    {8, CL_KIND_QUEUE_EXECC, false, false}, {9, CL_KIND_QUEUE_TIMER, true, true},
    {10, CL_KIND_QUEUE_SHM, false, false},  {11, CL_KIND_QUEUE_FILE, false, false},
    {13, CL_KIND_QUEUE_THREAD, true, true},
};

TEST_F(Descriptor, KindsAreOpenToWhomTheyBelong) {
    const test::Balance empty = test::Balance::now();
    for (const Kind &kind : KINDS) {
        for (const uint8_t flag : FLAGS) {
            const bool allowed = kind.application_creates || flag == 1;
            CL_Object *object =
                CL_CreateFD_M(kind.number, test::call_action, 11, 12, &err, flag, "x", 1);
            ASSERT_EQ(object != nullptr, allowed) << kind.number << " flag " << int{flag};
            if (!allowed) {
                EXPECT_THAT(err, FailsWith(EINVAL, CL_MODULE_FD));
                EXPECT_EQ(test::Balance::now(), empty);
                continue;
            }
            EXPECT_THAT(err, IsClear());
            EXPECT_EQ(object->kind, kind.number);
            EXPECT_EQ(object->descriptor, -1);
            EXPECT_EQ(object->link.owner, &table().used_queue);
            EXPECT_EQ(object->kind_link.owner, &table().kind_queues[kind.place]);

            for (const uint8_t deleter : FLAGS) {
                const bool may = kind.application_deletes || deleter == 1;
                EXPECT_EQ(CL_DeleteFD_M(object, &err, deleter, "x", 1), may ? 1u : 0u);
                if (may) {
                    break;
                }
                EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_FD));
            }
            EXPECT_THAT(err, IsClear());
            EXPECT_EQ(test::Balance::now(), empty);
        }
    }
    for (const uint32_t number : {0u, 5u, 12u, 14u, 15u, 255u, 0x101u, UINT32_MAX}) {
        EXPECT_EQ(CL_CreateFD_M(number, nullptr, 0, 0, &err, 1, "x", 1), nullptr);
        EXPECT_THAT(err, FailsWith(EINVAL, CL_MODULE_FD)) << number;
    }
}

TEST_F(Descriptor, HandlesAreChecked) {
    CL_Object *live = create(CL_KIND_FD);
    CL_Object *deleted = create(CL_KIND_FD), *kept = create(CL_KIND_MSGS);
    ASSERT_EQ(CL_DeleteFD(deleted, &err), 1u);
    const auto moved = [](CL_Object *object, std::ptrdiff_t bytes) {
        return reinterpret_cast<CL_Object *>(reinterpret_cast<char *>(object) + bytes);
    };
    CL_Object on_stack{};
    CL_Object *const bad[] = {
        nullptr,
        deleted,
        slot(20), /* never created */
        moved(live, 1),
        moved(live, -1),
        moved(slot(0), -840),
        slot(table().capacity),
        &on_stack,
        reinterpret_cast<CL_Object *>(8),
        reinterpret_cast<CL_Object *>(UINTPTR_MAX),
    };
    char bytes[100];
    const struct {
        const char *name;
        std::function<int64_t(CL_Object *)> call; /* succeeds with more than 0 */
    } operations[] = {
        {"check", [&](CL_Object *o) { return cl_CheckFD(o, &err); }},
        {"check sub", [&](CL_Object *o) { return cl_CheckFD_sub(o, &err); }},
        {"delete", [&](CL_Object *o) { return CL_DeleteFD_M(o, &err, 1, "x", 1); }},
        {"add", [&](CL_Object *o) { return CL_AddEventList(o, 20, &err); }},
        {"del", [&](CL_Object *o) { return CL_DelEventList(o, &err); }},
        {"set", [&](CL_Object *o) { return CL_SetFD(o, 0, nullptr, nullptr, nullptr, &err); }},
        {"thread", [&](CL_Object *o) { return CL_SetThreadFd(o, &err); }},
        {"start timer", [&](CL_Object *o) { return CL_StartTIMER(o, 1, CL_TIMER_ONESHOT, &err); }},
        {"stop timer", [&](CL_Object *o) { return CL_StopTIMER(o, &err); }},
        {"open server", [&](CL_Object *o) { return CL_OpenMSGS(o, "/none/x", 5, &err); }},
        {"accept",
         [&](CL_Object *o) { return CL_AcceptMSGS(o, nullptr, 0, 0, &err) == nullptr ? 0 : 1; }},
        {"close server", [&](CL_Object *o) { return CL_CloseMSGS(o, &err); }},
        {"connect", [&](CL_Object *o) { return CL_CnctMSGC(o, "/none/x", CL_MODE_SYNC, &err); }},
        {"receive",
         [&](CL_Object *o) { return CL_RecvMSGC(o, bytes, 100, CL_MODE_SYNC, 0, &err); }},
        {"send", [&](CL_Object *o) { return CL_SendMSGC(o, bytes, 100, CL_MODE_SYNC, 0, &err); }},
        {"disconnect", [&](CL_Object *o) { return CL_DiscMSGC(o, nullptr, nullptr, &err); }},
        {"close file", [&](CL_Object *o) { return CL_CloseFile(o, &err); }},
        {"write file", [&](CL_Object *o) { return CL_WriteFile(o, bytes, 100, &err); }},
        {"read file", [&](CL_Object *o) { return CL_ReadFile(o, bytes, 100, &err); }},
        {"flush file", [&](CL_Object *o) { return CL_FlushFile(o, &err); }},
        {"seek file", [&](CL_Object *o) { return CL_SeekFile(o, 0, 0, &err); }},
        {"map", [&](CL_Object *o) { return CL_MapSHM(o, &err) == nullptr ? 0 : 1; }},
        {"unmap", [&](CL_Object *o) { return CL_UnmapSHM(o, &err); }},
        {"close segment", [&](CL_Object *o) { return CL_CloseSHM(o, &err); }},
        {"request end", [&](CL_Object *o) { return CL_RequestEnd(o, &err); }},
    };
    const test::Balance before = test::Balance::now();
    for (const auto &operation : operations) {
        for (std::size_t i = 0; i < std::size(bad); i++) {
            err = {};
            EXPECT_LE(operation.call(bad[i]), 0) << operation.name << " handle " << i;
            EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_FD)) << operation.name << " handle " << i;
        }
    }
    EXPECT_EQ(test::Balance::now(), before);
    EXPECT_EQ(cl_CheckFD(live, &err), 1u);
    EXPECT_EQ(cl_CheckFD_sub(live, &err), 1u);

    /* Once the library has ended, only the handle test and deletion go on. */
    ASSERT_EQ(CL_End(&err), 1u);
    for (const auto &operation : operations) {
        const bool goes_on = operation.name == std::string_view("check sub") ||
                             operation.name == std::string_view("delete");
        EXPECT_EQ(operation.call(live) > 0, goes_on) << operation.name;
        if (!goes_on) {
            EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_FD)) << operation.name;
        }
    }
    live->status = CL_STATUS_READY | CL_STATUS_RUNNING; /* there is something to release */
    kept->status = CL_STATUS_READY;
    EXPECT_EQ(CL_DeleteFD(kept, &err), 0u);
    EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_FD));
    for (const auto release :
         {cl_DeleteMSGS_M, cl_DeleteMSGC_M, cl_DeleteTIMER_M, cl_DeleteEXECS_M}) {
        err = {};
        EXPECT_EQ(release(live, &err), 0u);
        EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_FD));
    }
    test::set_env(CL_STARTER_SOCKET, "/none/x");
    const CL_Object *const made[] = {
        cl_openshm("/none", O_RDONLY, 1, &err, "x", 1),
        CL_OpenFile("/dev/null", O_RDONLY, 0, &err),
        CL_StartProgram(&NO_PROGRAM, test::call_action, 0, 0, &err),
        CL_StartupComplete(test::call_action, 0, 0, 0, &err),
    };
    EXPECT_THAT(made, testing::Each(nullptr));
}

/* What no test of a family asks for. */
TEST_F(Descriptor, ArgumentsAreChecked) {
    CL_Object *server = create(CL_KIND_MSGS);
    const std::string too_long(108, 'p');
    const auto report_to = [this](const char *starter, CL_Callback callback) {
        test::set_env(CL_STARTER_SOCKET, starter);
        return CL_StartupComplete(callback, 0, 0, 0, &err) != nullptr;
    };
    const auto start = [this](const CL_Program *program, CL_Callback callback) {
        return CL_StartProgram(program, callback, 0, 0, &err) != nullptr;
    };
    const auto segment = [this](const char *name, int32_t flags, uint64_t size) {
        return cl_openshm(name, flags, size, &err, "x", 1) != nullptr;
    };
    const CL_Program awaited = {"/bin/true", NO_PROGRAM.arguments, nullptr, 1};
    test::set_env("NOTIFY_SOCKET", "/none/x");
    const struct {
        const char *name;
        std::function<bool()> call;
        int code, module;
    } rows[] = {
        {"no path", [&] { return CL_OpenMSGS(server, nullptr, 5, &err) != 0; }, EFAULT,
         CL_MODULE_MSGS},
        {"no path", [&] { return CL_OpenFile(nullptr, O_RDONLY, 0, &err) != nullptr; }, EFAULT,
         CL_MODULE_FILE},
        {"no name", [&] { return segment(nullptr, O_RDWR, 1); }, EFAULT, CL_MODULE_SHM},
        {"no size", [&] { return segment("/x", O_RDWR, 0); }, EINVAL, CL_MODULE_SHM},
        {"write only", [&] { return segment("/x", O_WRONLY, 1); }, EINVAL, CL_MODULE_SHM},
        {"no access mode", [&] { return segment("/x", 3, 1); }, EINVAL, CL_MODULE_SHM},
        {"no program", [&] { return start(nullptr, test::call_action); }, EFAULT,
         CL_MODULE_STARTER},
        {"no path of it", [&] { return start(&NO_PROGRAM, test::call_action); }, EFAULT,
         CL_MODULE_STARTER},
        {"nobody to tell", [&] { return start(&awaited, nullptr); }, EFAULT, CL_MODULE_STARTER},
        {"no server", [&] { return start(&awaited, test::call_action); }, EINVAL,
         CL_MODULE_STARTER},
        {"no callback", [&] { return report_to("/none/x", nullptr); }, EFAULT, CL_MODULE_STARTER},
        {"long path", [&] { return report_to(too_long.c_str(), test::call_action); }, ENAMETOOLONG,
         CL_MODULE_MSGC},
        {"no state", [&] { return CL_NotifyManager(nullptr, &err) != 0; }, EFAULT,
         CL_MODULE_STARTER},
    };
    const test::Balance before = test::Balance::now();
    for (const auto &row : rows) {
        err = {};
        EXPECT_FALSE(row.call()) << row.name;
        EXPECT_THAT(err, FailsWith(row.code, row.module)) << row.name;
    }
    EXPECT_EQ(test::Balance::now(), before);
}

/* First in, first out, against a list of free slots; what is handed out is clean and remembers
 * where it was made and deleted before. */
TEST_F(Descriptor, SlotsAreReusedInOrder) {
    test::Random random;
    struct Life {
        uint32_t made[2] = {0, 0}; /* lines: the last creation and the one before */
        uint32_t deleted[2] = {0, 0};
    };
    std::vector<Life> lives(table().capacity);
    std::deque<std::size_t> free;
    std::vector<std::size_t> live;
    for (std::size_t i = 0; i < table().capacity; i++) {
        free.push_back(i);
    }
    for (uint32_t step = 1; step < 3000; step++) {
        if (live.empty() || random.below(100) < 55) {
            CL_Object *object = CL_CreateFD_M(CL_KIND_FD, nullptr, step, 0, &err, 0, "made", step);
            if (free.empty()) {
                ASSERT_EQ(object, nullptr);
                ASSERT_THAT(err, FailsWith(EMFILE, CL_MODULE_FD));
                continue;
            }
            const std::size_t index = free.front();
            free.pop_front();
            live.push_back(index);
            ASSERT_EQ(object, slot(index));
            Life &life = lives[index];
            life.made[1] = std::exchange(life.made[0], step);
            const auto *bytes = reinterpret_cast<const uint8_t *>(object);
            for (std::size_t i = offsetof(CL_Object, area); i < sizeof *object; i++) {
                ASSERT_EQ(bytes[i], 0) << "byte " << i;
            }
            ASSERT_EQ(object->created.line, life.made[0]);
            ASSERT_EQ(object->created_before.line, life.made[1]);
            ASSERT_EQ(object->deleted.line, life.deleted[0]);
            ASSERT_EQ(object->deleted_before.line, life.deleted[1]);
            ASSERT_EQ(object->error, CL_ErrInfo{});
            ASSERT_EQ(object->interval + object->remaining + object->start_time, 0u);
            memset(object->area, 0xaa, sizeof object->area);
            object->error = test::UNTOUCHED;
            object->interval = object->remaining = 5;
            object->start_time = 6;
        } else {
            const std::size_t i = random.below(static_cast<uint32_t>(live.size()));
            const std::size_t index = live[i];
            live.erase(live.begin() + static_cast<std::ptrdiff_t>(i));
            free.push_back(index);
            Life &life = lives[index];
            life.deleted[1] = std::exchange(life.deleted[0], step);
            ASSERT_EQ(CL_DeleteFD_M(slot(index), &err, 0, "deleted", step), 1u);
            ASSERT_EQ(CL_DeleteFD_M(slot(index), &err, 0, "again", step), 0u);
            ASSERT_THAT(err, FailsWith(EBADF, CL_MODULE_FD));
            ASSERT_EQ(slot(index)->deleted.line, life.deleted[0]);
            ASSERT_EQ(slot(index)->deleted_before.line, life.deleted[1]);
            ASSERT_EQ(slot(index)->status, 0u);
        }
        ASSERT_EQ(table().free_queue.count, free.size());
        ASSERT_EQ(table().used_queue.count, live.size());
    }
}

}  // namespace
