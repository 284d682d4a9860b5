/* The records of every operation, byte for byte: what the table of operations says about each, a
 * call that succeeds and one that fails. */
#include <fcntl.h>
#include <qvcl/trace_table.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <fstream>

#include "tests/support.h"

namespace {

using test::Action;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t LINE = 0x12345678;
constexpr char FILE_NAME[] = "a_file_name_of_24_chars";
constexpr uint64_t SECONDS = 0x1122334455, MICROSECONDS = 0x66778;

/* The caller's position; the flag is the application's. */
#define POSITION 0, FILE_NAME, LINE

/* What a field of an operation must hold, by the name that the table gives it. */
struct Field {
    template <class T>
    Field(const char *field, T number) : name(field) {
        if constexpr (std::is_pointer_v<T>) {
            value = reinterpret_cast<uint64_t>(number);
        } else {
            value = static_cast<uint64_t>(number);
        }
    }
    const char *name;
    uint64_t value = 0;
};

/* Fields that are not numbers. */
struct Extra {
    const char *path = nullptr; /* given: the operation's record has one */
    const void *sets = nullptr;
    Bytes entry_data = {}, exit_data = {};
    uint32_t entry_length = 0; /* when the entry record is shorter than the table says */
};

class TraceRecords : public testing::Test {
  protected:
    static const CL_TrcOperation &operation(uint8_t api) {
        for (const CL_TrcOperation &row : CL_TRC_OPERATIONS) {
            if (row.api == api) return row;
        }
        throw std::logic_error("no such operation");
    }
    static void put(Bytes &image, std::size_t offset, const void *from, std::size_t size) {
        ASSERT_LE(offset + size, image.size());
        memcpy(&image[offset], from, size);
    }

    /* The record as it must be, before (no error record) or after the call. */
    Bytes image(const CL_TrcOperation &row, const std::vector<Field> &fields, const Extra &extra,
                const CL_ErrInfo *error, uint64_t result) {
        const bool exit = error != nullptr;
        const bool has_path =
            std::any_of(std::begin(row.fields), std::end(row.fields),
                        [](const CL_TrcField &field) { return field.type == CL_TRC_TEXT; });
        std::size_t length = row.length;
        const std::size_t bound =
            row.api == CL_API_CNCT_MSGC || row.api == CL_API_DELETE_FILE ? 109 : 108;
        const std::size_t characters = extra.path != nullptr ? strnlen(extra.path, bound) : 0;
        if (has_path) length += extra.path != nullptr ? characters + 8 : 7;
        if (!exit && extra.entry_length != 0) length = extra.entry_length;

        CL_TrcHead head{};
        head.seconds = SECONDS;
        head.microseconds = MICROSECONDS;
        head.length = static_cast<uint32_t>(length);
        head.api = row.api;
        head.phase = exit ? 1 : 0;
        head.marker = exit ? CL_MARK_EXIT : CL_MARK_ENTRY;
        memcpy(head.file, FILE_NAME, sizeof head.file);
        head.line = LINE;
        Bytes bytes(std::max(length, sizeof head));
        put(bytes, 0, &head, sizeof head);
        if (exit) put(bytes, row.result.offset, &result, row.result.size);

        std::size_t used = 0;
        for (const CL_TrcField &field : row.fields) {
            if (field.name == nullptr) break;
            const std::string_view name = field.name;
            if (name == "err_address") {
                const void *address = &err;
                put(bytes, field.offset, &address, sizeof address);
            } else if (name == "error") {
                if (exit) put(bytes, field.offset, error, sizeof *error);
            } else if (field.type == CL_TRC_TEXT) {
                if (extra.path != nullptr) put(bytes, field.offset, extra.path, characters);
            } else if (field.type == CL_TRC_SETS) {
                put(bytes, field.offset, extra.sets, sizeof(CL_FdSets));
            } else if (field.type == CL_TRC_BYTES) {
                const Bytes &data = exit ? extra.exit_data : extra.entry_data;
                if (!data.empty()) put(bytes, field.offset, data.data(), data.size());
            } else {
                const auto given = std::find_if(fields.begin(), fields.end(),
                                                [&](const Field &f) { return name == f.name; });
                EXPECT_NE(given, fields.end()) << row.name << " has a field " << name;
                if (given == fields.end()) continue;
                put(bytes, field.offset, &given->value, field.size);
                used++;
            }
        }
        EXPECT_EQ(used, fields.size()) << row.name << ": a field that the table does not know";
        return bytes;
    }

    /* Makes the call; its result. */
    template <class Call>
    auto check(uint8_t api, const char *what, Call call, const std::vector<Field> &fields,
               Extra extra = {}, std::function<void(Extra &)> at_exit = nullptr) {
        const CL_TrcOperation &row = operation(api);
        SCOPED_TRACE(std::string(row.name) + ": " + what);
        err = test::UNTOUCHED;
        test::Tape tape;
        const auto result = call(&err);
        const auto records = tape.records(api);
        if (at_exit) at_exit(extra);
        covered.insert({api, err.err == 0});

        using Result = std::remove_cv_t<decltype(result)>;
        uint64_t value = 0;
        if constexpr (std::is_pointer_v<Result>) {
            value = reinterpret_cast<uint64_t>(result);
        } else if constexpr (std::is_same_v<Result, int32_t>) {
            value = api == CL_API_SEEK_FILE ? static_cast<uint64_t>(result)
                                            : static_cast<uint32_t>(result);
        } else {
            value = static_cast<uint64_t>(result);
        }
        EXPECT_EQ(records.size(), 2u);
        if (records.size() != 2) return result;
        expect_equal(records[0].bytes, image(row, fields, extra, nullptr, 0), "entry");
        expect_equal(records[1].bytes, image(row, fields, extra, &err, value), "exit");
        return result;
    }
    static void expect_equal(const Bytes &have, const Bytes &want, const char *which) {
        EXPECT_EQ(have.size(), want.size()) << which;
        for (std::size_t i = 0; i < std::min(have.size(), want.size()); i++) {
            ASSERT_EQ(int{have[i]}, int{want[i]}) << which << " record, byte " << i;
        }
    }

    void before_initialisation();
    void objects_and_lists();
    void loops();
    void timers();
    void messages();
    void files();
    void shared_memory();

    CL_Object *make(uint32_t kind, Action *action = nullptr) {
        return CL_CreateFD_M(kind, test::call_action, test::address(action), 0, &err, 1, "t", 1);
    }

    CL_ErrInfo err{};
    std::set<std::pair<uint8_t, bool>> covered; /* operation, success */
    std::string directory;
};

void TraceRecords::before_initialisation() {
    const std::string s200(200, 'p');
    const auto init = [](uint32_t count, const char *path) {
        return [=](CL_ErrInfo *e) { return CL_Init_M(count, path, e, POSITION); };
    };
    check(CL_API_END, "too early", [](CL_ErrInfo *e) { return CL_End_M(e, POSITION); }, {});
    check(CL_API_INIT, "empty path", init(20000, ""), {{"count", 20000}}, {.path = ""});
    check(CL_API_INIT, "long path", init(3, s200.c_str()), {{"count", 3}}, {.path = s200.c_str()});
    check(CL_API_CREATE_FD, "too early",
          [](CL_ErrInfo *e) { return CL_CreateFD_M(4, nullptr, 1, 2, e, POSITION); },
          {{"kind", 4}, {"callback", 0}, {"arg1", 1}, {"arg2", 2}});
    const std::string path = directory + "/exec";
    check(CL_API_INIT, "well", init(40, path.c_str()), {{"count", 40}}, {.path = path.c_str()});
}

void TraceRecords::objects_and_lists() {
    const uint64_t big = 0x8877665544332211;
    CL_Object *object = check(
        CL_API_CREATE_FD, "well",
        [=](CL_ErrInfo *e) { return CL_CreateFD_M(4, test::call_action, big, ~big, e, POSITION); },
        {{"kind", 4}, {"callback", test::call_action}, {"arg1", big}, {"arg2", ~big}});
    CL_FdSets sets;
    memset(&sets, 0x5a, sizeof sets);
    const auto set = [&](uint32_t count, const fd_set *except) {
        return [=, &sets](CL_ErrInfo *e) {
            return CL_SetFD_M(object, count, &sets.read, &sets.write, except, e, POSITION);
        };
    };
    check(CL_API_SET_FD, "too many", set(1025, &sets.except), {{"handle", object}, {"count", 1025}},
          {.sets = &sets});
    memset(&sets.except, 0, sizeof sets.except);
    check(CL_API_SET_FD, "well", set(0, nullptr), {{"handle", object}, {"count", 0}},
          {.sets = &sets});
    for (const uint32_t priority : {11u, 20u}) {
        check(CL_API_ADD_LIST, priority == 11 ? "priority" : "well",
              [=](CL_ErrInfo *e) { return CL_AddEventList_M(object, priority, e, POSITION); },
              {{"handle", object}, {"priority", priority}});
    }
    for (const char *what : {"well", "not listed"}) {
        check(CL_API_DEL_LIST, what,
              [=](CL_ErrInfo *e) { return CL_DelEventList_M(object, e, POSITION); },
              {{"handle", object}});
    }
    for (const char *what : {"well", "deleted"}) {
        check(CL_API_DELETE_FD, what,
              [=](CL_ErrInfo *e) { return CL_DeleteFD_M(object, e, POSITION); },
              {{"handle", object}});
    }
    CL_Object *thread = make(CL_KIND_THREAD);
    for (CL_Object *target : {thread, static_cast<CL_Object *>(nullptr)}) {
        check(CL_API_SET_THREAD, target != nullptr ? "well" : "no object",
              [=](CL_ErrInfo *e) { return CL_SetThreadFd_M(target, e, POSITION); },
              {{"handle", target}});
        /* A success keeps what the caller passed in, which is no failure. */
        if (target != nullptr) {
            covered.insert({CL_API_SET_THREAD, true});
        }
    }
}

void TraceRecords::loops() {
    test::Pipe pipe;
    pipe.fill();
    Action action = [](CL_Object *, CL_Event *) { return 7u; };
    CL_Object *object = make(CL_KIND_FD, &action);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(pipe.out(), &set);
    ASSERT_EQ(CL_SetFD(object, 100, &set, nullptr, nullptr, &err), 1u);
    ASSERT_EQ(CL_AddEventList(object, 20, &err), 1u);
    const auto loops = [&](const char *what, uint32_t value) {
        EXPECT_EQ(
            check(CL_API_LOOP, what, [](CL_ErrInfo *e) { return CL_EventLoop_M(e, POSITION); }, {}),
            value);
        EXPECT_EQ(check(CL_API_LOOP, what,
                        [](CL_ErrInfo *e) { return CL_EventLoopThread_M(e, POSITION); }, {}),
                  value);
    };
    loops("well", 7);
    test::Plan plan{{.call = "pselect", .error = ENOMEM, .times = 2}};
    loops("failing wait", CL_LOOP_ERROR);
    ASSERT_EQ(CL_DeleteFD(object, &err), 1u);
}

void TraceRecords::timers() {
    CL_Object *object = make(CL_KIND_TIMER);
    for (const uint32_t mode : {9u, 10u}) {
        check(CL_API_START_TIMER, mode == 9 ? "mode" : "well",
              [=](CL_ErrInfo *e) { return CL_StartTIMER_M(object, 99, mode, e, POSITION); },
              {{"handle", object}, {"seconds", 99}, {"mode", mode}});
    }
    for (const char *what : {"well", "stopped"}) {
        check(CL_API_STOP_TIMER, what,
              [=](CL_ErrInfo *e) { return CL_StopTIMER_M(object, e, POSITION); },
              {{"handle", object}});
    }
}

void TraceRecords::messages() {
    const std::string path = directory + "/socket", s200(200, 's');
    CL_Object *server = make(CL_KIND_MSGS);
    const auto open = [=](const char *at) {
        return [=](CL_ErrInfo *e) { return CL_OpenMSGS_M(server, at, 5, e, POSITION); };
    };
    const std::vector<Field> opening = {{"handle", server}, {"backlog", 5}};
    check(CL_API_OPEN_MSGS, "long", open(s200.c_str()), opening, {.path = s200.c_str()});
    check(CL_API_OPEN_MSGS, "well", open(path.c_str()), opening, {.path = path.c_str()});

    const auto accept = [&](const char *what) {
        return check(
            CL_API_ACCEPT_MSGS, what,
            [=](CL_ErrInfo *e) {
                return CL_AcceptMSGS_M(server, test::call_action, 5, 6, e, POSITION);
            },
            {{"handle", server}, {"callback", test::call_action}, {"arg1", 5}, {"arg2", 6}});
    };
    EXPECT_EQ(accept("nobody waits"), nullptr);
    CL_Object *client = make(CL_KIND_MSGC);
    const auto connect = [&](const char *what, const char *to) {
        return check(
            CL_API_CNCT_MSGC, what,
            [=](CL_ErrInfo *e) { return CL_CnctMSGC_M(client, to, CL_MODE_SYNC, 77, e, POSITION); },
            {{"handle", client}, {"mode", CL_MODE_SYNC}, {"reserved", 77}}, {.path = to});
    };
    connect("long", s200.c_str());
    EXPECT_EQ(connect("well", path.c_str()), 1u) << err;
    CL_Object *peer = accept("well");
    ASSERT_NE(peer, nullptr);

    struct {
        CL_MsgBlock block{};
        uint8_t payload[100];
    } message;
    const auto *raw = reinterpret_cast<const uint8_t *>(&message);
    const auto send = [&](const char *what, int32_t size, uint32_t mode) {
        for (std::size_t i = 0; i < sizeof message.payload; i++)
            message.payload[i] = static_cast<uint8_t>(i + 1);
        message.block.header.type = 0x1234;
        const uint32_t kept = size < 0 ? 0 : std::min(static_cast<uint32_t>(size), 72u);
        return check(
            CL_API_SEND_MSGC, what,
            [&, size, mode](CL_ErrInfo *e) {
                return CL_SendMSGC_M(client, &message, size, mode, 3, e, POSITION);
            },
            {{"handle", client},
             {"block", &message},
             {"block_size", static_cast<uint32_t>(size)},
             {"mode", mode},
             {"timeout", 3},
             {"data_length", kept}},
            {.entry_data = {raw, raw + kept}, .entry_length = 128 + kept},
            [=](Extra &extra) {
                extra.exit_data = {raw, raw + kept};
            });
    };
    EXPECT_EQ(send("negative", -5, CL_MODE_SYNC), -1);
    EXPECT_EQ(send("well", 140, CL_MODE_IMMEDIATE), 100) << err;

    uint8_t buffer[200] = "";
    const auto receive = [&](const char *what, int32_t capacity, uint32_t mode, uint32_t shown) {
        return check(
            CL_API_RECV_MSGC, what,
            [&, capacity, mode](CL_ErrInfo *e) {
                return CL_RecvMSGC_M(peer, buffer, capacity, mode, 3, e, POSITION);
            },
            {{"handle", peer},
             {"buffer", buffer},
             {"capacity", static_cast<uint32_t>(capacity)},
             {"mode", mode},
             {"timeout", 3}},
            {},
            [&, shown](Extra &extra) {
                extra.exit_data = {buffer, buffer + shown};
            });
    };
    EXPECT_EQ(receive("capacity", 15, CL_MODE_SYNC, 0), -1);
    EXPECT_EQ(receive("well", 200, CL_MODE_SYNC, 32), 100) << err;

    uint64_t buffer_out = 0;
    CL_Queue unsent;
    for (const char *what : {"well", "not connected"}) {
        check(
            CL_API_DISC_MSGC, what,
            [&](CL_ErrInfo *e) { return CL_DiscMSGC_M(client, &buffer_out, &unsent, e, POSITION); },
            {{"handle", client}, {"buffer_out", &buffer_out}, {"unsent_out", &unsent}});
    }
    for (const char *what : {"well", "closed"}) {
        check(CL_API_CLOSE_MSGS, what,
              [=](CL_ErrInfo *e) { return CL_CloseMSGS_M(server, e, POSITION); },
              {{"handle", server}});
    }
}

void TraceRecords::files() {
    const std::string path = directory + "/file", s300(300, 'f');
    const auto open = [&](const char *what, const char *name, uint32_t flags) {
        return check(CL_API_OPEN_FILE, what,
                     [=](CL_ErrInfo *e) { return CL_OpenFile_M(name, flags, 0640, e, POSITION); },
                     {{"flags", flags}, {"mode", 0640}}, {.path = name});
    };
    EXPECT_EQ(open("long", s300.c_str(), O_RDWR), nullptr);
    CL_Object *file = open("well", path.c_str(), O_RDWR | O_CREAT);
    CL_Object *gone = nullptr;

    const uint8_t text[] = "0123456789abcdefXYZ";
    uint8_t buffer[100] = "";
    const auto write = [&](CL_Object *object, const char *what, uint64_t length) {
        const Bytes shown(text, text + std::min<uint64_t>(length, 16));
        check(CL_API_WRITE_FILE, what,
              [&, object, length](CL_ErrInfo *e) {
                  return CL_WriteFile_M(object, text, length, e, POSITION);
              },
              {{"handle", object}, {"buffer", text}, {"length", length}},
              {.entry_data = shown, .exit_data = shown});
    };
    write(file, "well", 19);
    write(gone, "no file", 19);
    const auto seek = [&](const char *what, int32_t offset, uint32_t whence) {
        return check(
            CL_API_SEEK_FILE, what,
            [=](CL_ErrInfo *e) { return CL_SeekFile_M(file, offset, whence, e, POSITION); },
            {{"handle", file}, {"offset", static_cast<uint32_t>(offset)}, {"whence", whence}});
    };
    EXPECT_EQ(seek("whence", -1, 3), -1);
    EXPECT_EQ(seek("well", -19, SEEK_CUR), 0);
    const auto read = [&](const char *what, CL_Object *object, uint64_t length, uint64_t shown) {
        check(
            CL_API_READ_FILE, what,
            [&, object, length](CL_ErrInfo *e) {
                return CL_ReadFile_M(object, buffer, length, e, POSITION);
            },
            {{"handle", object}, {"buffer", buffer}, {"length", length}}, {},
            [&, shown](Extra &extra) {
                extra.exit_data = {buffer, buffer + shown};
            });
    };
    read("short", file, 5, 5);
    read("well", file, 100, 16);
    read("no file", gone, 100, 0);
    for (CL_Object *object : {file, gone}) {
        check(CL_API_FLUSH_FILE, object != gone ? "well" : "no file",
              [=](CL_ErrInfo *e) { return CL_FlushFile_M(object, e, POSITION); },
              {{"handle", object}});
    }
    for (const char *what : {"well", "closed"}) {
        check(CL_API_CLOSE_FILE, what,
              [=](CL_ErrInfo *e) { return CL_CloseFile_M(file, e, POSITION); }, {{"handle", file}});
    }
    for (const char *name :
         {path.c_str(), path.c_str(), s300.c_str(), static_cast<const char *>(nullptr)}) {
        check(CL_API_DELETE_FILE, "well, gone, long, none",
              [=](CL_ErrInfo *e) { return CL_DeleteFile_M(name, e, POSITION); }, {},
              {.path = name});
    }
}

void TraceRecords::shared_memory() {
    const std::string name = "/qvcl-records-" + std::to_string(getpid());
    const int segment = shm_open(name.c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_EQ(ftruncate(segment, 4096), 0);
    close(segment);
    CL_Object *object = cl_openshm(name.c_str(), O_RDWR, 4096, &err, FILE_NAME, LINE);
    shm_unlink(name.c_str());
    ASSERT_NE(object, nullptr) << err;
    for (const char *what : {"well", "mapped"}) {
        check(CL_API_MAP_SHM, what, [=](CL_ErrInfo *e) { return CL_MapSHM_M(object, e, POSITION); },
              {{"handle", object}});
    }
    check(CL_API_CLOSE_SHM, "mapped",
          [=](CL_ErrInfo *e) { return CL_CloseSHM_M(object, e, POSITION); }, {{"handle", object}});
    for (const char *what : {"well", "not mapped"}) {
        check(CL_API_UNMAP_SHM, what,
              [=](CL_ErrInfo *e) { return CL_UnmapSHM_M(object, e, POSITION); },
              {{"handle", object}});
    }
    check(CL_API_CLOSE_SHM, "well",
          [=](CL_ErrInfo *e) { return CL_CloseSHM_M(object, e, POSITION); }, {{"handle", object}});
}

TEST_F(TraceRecords, OfEveryOperation) {
    char name[] = "/tmp/qvcl-records-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    directory = name;
    test::set_time(SECONDS, MICROSECONDS);
    before_initialisation();
    objects_and_lists();
    loops();
    timers();
    messages();
    files();
    shared_memory();
    check(CL_API_END, "well",
          [](CL_ErrInfo *e) {
              *e = {};
              return CL_End_M(e, POSITION);
          },
          {});

    for (const CL_TrcOperation &row : CL_TRC_OPERATIONS) {
        if (row.api == CL_API_CALLBACK || row.api == CL_API_STATUS) continue;
        EXPECT_TRUE(covered.contains({row.api, true})) << row.name << " that succeeds";
        EXPECT_TRUE(covered.contains({row.api, false})) << row.name << " that fails";
    }
    EXPECT_EQ(rmdir(directory.c_str()), 0);
}

}  // namespace
