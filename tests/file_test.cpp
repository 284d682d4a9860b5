/* File objects: flags, data, offsets beyond 32 bits, and every operation on what is no open file
 * and with every failing system call. */
#include <fcntl.h>
#include <qvcl/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/wire.h"

using test::Balance;
using test::FailsWith;
using test::IsClear;
using test::Plan;

namespace {

class File : public test::Library {
  protected:
    void SetUp() override {
        Library::SetUp();
        std::ofstream(path) << CONTENT;
        before = Balance::now();
    }
    CL_Object *open(uint32_t flags) { return CL_OpenFile(path.c_str(), flags, 0640, &err); }
    /* After a success the record tells where it ended, but no error. */
    void expect_success() const {
        EXPECT_EQ(err.err | err.detail, 0u) << err;
        EXPECT_EQ(err.module, uint32_t{CL_MODULE_FILE});
        EXPECT_NE(err.line, 0u);
        EXPECT_EQ(err.version, uint32_t{CL_VERSION});
    }

    static constexpr char CONTENT[] = "0123456789abcdefghij";
    static constexpr int32_t SIZE = 20;
    test::Folder folder;
    std::string path = folder.path("file");
    Balance before;
};

TEST_F(File, FlagsArePassedOrDropped) {
    const std::string fresh = folder.path("fresh");
    enum { FRESH = 1 };
    const struct {
        uint32_t flags;
        int got; /* F_GETFL, or -1 */
        uint32_t code;
        int which;
    } rows[] = {
        {O_RDONLY, O_RDONLY, 0, 0},
        {O_WRONLY, O_WRONLY, 0, 0},
        {O_RDWR, O_RDWR, 0, 0},
        {3, -1, EINVAL, 0},
        {3 | O_CREAT, -1, EINVAL, FRESH},
        {O_WRONLY, -1, ENOENT, FRESH},
        {O_WRONLY | O_CREAT | O_EXCL, -1, EEXIST, 0},
        {O_WRONLY | O_CREAT | O_EXCL, O_WRONLY, 0, FRESH},
        {O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK, O_WRONLY, 0, FRESH},
        {O_RDWR | O_APPEND | O_SYNC | O_NOATIME, O_RDWR | O_APPEND, 0, 0},
        {O_RDONLY | O_DIRECTORY, O_RDONLY, 0, 0}, /* dropped: the file is none */
        {0xfffff000u | O_RDWR, O_RDWR, 0, 0},
    };
    umask(0);
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << std::hex << row.flags);
        const std::string &at = row.which == FRESH ? fresh : path;
        CL_Object *object = CL_OpenFile(at.c_str(), row.flags, 0640, &err);
        EXPECT_EQ(object == nullptr, row.code != 0);
        if (object == nullptr) {
            EXPECT_THAT(err, FailsWith(row.code, CL_MODULE_FILE));
            EXPECT_EQ(Balance::now(), before);
            continue;
        }
        EXPECT_THAT(err, IsClear());
        EXPECT_EQ(object->kind, uint32_t{CL_KIND_FILE});
        EXPECT_EQ(object->status, uint32_t{CL_STATUS_READY});
        EXPECT_EQ(object->sub_status, 0u);
        EXPECT_STREQ(object->file.path, at.c_str());
        constexpr int LARGE = 0100000; /* the system's own mark */
        EXPECT_EQ(fcntl(object->descriptor, F_GETFL) & ~LARGE, row.got);
        EXPECT_EQ(fcntl(object->descriptor, F_GETFD), FD_CLOEXEC);
        if (row.which == FRESH) {
            struct stat info = {};
            EXPECT_EQ(stat(fresh.c_str(), &info), 0);
            EXPECT_EQ(info.st_mode & 07777, 0640u);
            std::filesystem::remove(fresh);
        }
        EXPECT_EQ(CL_CloseFile(object, &err), 1u);
        EXPECT_THAT(err, IsClear());
        EXPECT_EQ(Balance::now(), before);
    }
    EXPECT_EQ(CL_OpenFile(nullptr, O_RDONLY, 0, &err), nullptr);
    EXPECT_THAT(err, FailsWith(EFAULT, CL_MODULE_FILE));
    EXPECT_EQ(CL_OpenFile(nullptr, 3, 0, &err), nullptr);
    EXPECT_THAT(err, FailsWith(EINVAL, CL_MODULE_FILE));
}

TEST_F(File, KeepsPathAndPosition) {
    for (const std::size_t length : {139, 140, 141, 250}) {
        const std::string at =
            folder.root() + std::string(length - folder.root().size() - 1, '/') + "x";
        CL_Object *object =
            CL_OpenFile_M(at.c_str(), O_WRONLY | O_CREAT, 0600, &err, 0, "opener.c", 12);
        ASSERT_NE(object, nullptr) << err << at;
        EXPECT_EQ(std::string(object->file.path, strnlen(object->file.path, 140)),
                  at.substr(0, 140));
        EXPECT_STREQ(object->created.file, "opener.c");
        EXPECT_EQ(object->created.line, 12u);
        EXPECT_EQ(CL_CloseFile_M(object, &err, 0, "closer.c", 13), 1u);
        EXPECT_STREQ(object->deleted.file, "closer.c");
        EXPECT_EQ(object->deleted.line, 13u);
        std::filesystem::remove(at);
    }
}

TEST_F(File, ReadsAndWrites) {
    CL_Object *object = open(O_RDWR);
    char bytes[64] = {};
    EXPECT_EQ(CL_ReadFile(object, bytes, 5, &err), 5);
    expect_success();
    EXPECT_EQ(std::string(bytes), "01234");
    EXPECT_EQ(CL_WriteFile(object, "WRITE", 5, &err), 5);
    expect_success();
    EXPECT_EQ(CL_ReadFile(object, bytes, sizeof bytes, &err), 10);
    EXPECT_EQ(CL_ReadFile(object, bytes, sizeof bytes, &err), 0);
    expect_success();
    EXPECT_EQ(CL_WriteFile(object, nullptr, 0, &err), 0);
    expect_success();
    EXPECT_EQ(CL_FlushFile(object, &err), 1u);
    expect_success();
    {
        const Plan plan{{.call = "write", .at_most = 2}};
        EXPECT_EQ(CL_WriteFile(object, "short", 5, &err), 2) << "a short count is told";
        EXPECT_EQ(plan.count("write"), 1);
    }
    {
        const Plan plan{{.call = "write", .error = EINTR, .times = 2}};
        EXPECT_EQ(CL_WriteFile(object, "ort", 3, &err), 3);
        EXPECT_EQ(plan.count("write"), 3);
    }
    EXPECT_EQ(CL_WriteFile(object, nullptr, 5, &err), -1);
    EXPECT_THAT(err, FailsWith(EFAULT, CL_MODULE_FILE));
    EXPECT_EQ(CL_CloseFile(object, &err), 1u);
    std::string content;
    std::ifstream(path) >> content;
    EXPECT_EQ(content, "01234WRITEabcdefghijshort");

    object = open(O_RDONLY);
    EXPECT_EQ(CL_WriteFile(object, "x", 1, &err), -1);
    EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_FILE));
    EXPECT_EQ(CL_CloseFile(object, &err), 1u);
}

TEST_F(File, SeeksWithin32Bits) {
    CL_Object *object = open(O_RDWR);
    constexpr int64_t HUGE = int64_t{3} << 30;
    ASSERT_EQ(ftruncate(object->descriptor, HUGE), 0);
    const struct {
        int64_t from;
        int32_t offset;
        uint32_t whence;
        int32_t result;
        uint32_t code;
    } rows[] = {
        {0, 7, SEEK_SET, 7, 0},
        {9, 0, SEEK_SET, 0, 0},
        {9, 3, SEEK_CUR, 12, 0},
        {9, -9, SEEK_CUR, 0, 0},
        {9, -10, SEEK_CUR, -1, EINVAL},
        {9, -1, SEEK_SET, -1, EINVAL},
        {9, INT32_MIN, SEEK_SET, -1, EINVAL},
        {9, INT32_MAX, SEEK_SET, INT32_MAX, 0},
        {9, 0, 3, -1, EINVAL},
        {9, 0, 0xffffffff, -1, EINVAL},
        {9, INT32_MAX - 9, SEEK_CUR, INT32_MAX, 0},
        {9, INT32_MAX - 8, SEEK_CUR, -1, EOVERFLOW},
        {INT32_MAX, 1, SEEK_CUR, -1, EOVERFLOW},
        {INT32_MAX, INT32_MAX, SEEK_CUR, -1, EOVERFLOW},
        {9, 0, SEEK_END, -1, EOVERFLOW},
        {9, INT32_MIN, SEEK_END, 1 << 30, 0},
        {HUGE, 0, SEEK_CUR, -1, EOVERFLOW},
        {HUGE, -1, SEEK_CUR, -1, EOVERFLOW},
        {HUGE, INT32_MIN, SEEK_CUR, 1 << 30, 0},
        {HUGE, 5, SEEK_SET, 5, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.from << " " << row.whence << " " << row.offset);
        ASSERT_EQ(lseek(object->descriptor, row.from, SEEK_SET), row.from);
        EXPECT_EQ(CL_SeekFile(object, row.offset, row.whence, &err), row.result);
        if (row.code == 0) {
            expect_success();
        } else {
            EXPECT_THAT(err, FailsWith(row.code, CL_MODULE_FILE));
        }
        EXPECT_EQ(lseek(object->descriptor, 0, SEEK_CUR), row.code == 0 ? row.result : row.from)
            << "after a failure the offset is as before";
    }
    EXPECT_EQ(CL_CloseFile(object, &err), 1u);
    CL_Object *pipe = CL_OpenFile("/dev/stdin", O_RDONLY, 0, &err);
    if (pipe != nullptr) {
        test::Pipe real;
        EXPECT_EQ(dup2(real.out(), pipe->descriptor), pipe->descriptor);
        EXPECT_EQ(CL_SeekFile(pipe, 0, SEEK_CUR, &err), -1);
        EXPECT_THAT(err, FailsWith(ESPIPE, CL_MODULE_FILE));
        EXPECT_EQ(CL_CloseFile(pipe, &err), 1u);
    }
}

TEST_F(File, OnlyOpenFilesAreUsed) {
    char bytes[4];
    const struct {
        const char *what;
        std::function<int64_t(CL_Object *)> call;
        int64_t failure;
    } operations[] = {
        {"close", [&](CL_Object *o) { return CL_CloseFile(o, &err); }, 0},
        {"write", [&](CL_Object *o) { return CL_WriteFile(o, bytes, 4, &err); }, -1},
        {"read", [&](CL_Object *o) { return CL_ReadFile(o, bytes, 4, &err); }, -1},
        {"flush", [&](CL_Object *o) { return CL_FlushFile(o, &err); }, 0},
        {"seek", [&](CL_Object *o) { return CL_SeekFile(o, 0, SEEK_SET, &err); }, -1},
        {"bad seek", [&](CL_Object *o) { return CL_SeekFile(o, 0, 3, &err); }, -1},
    };
    CL_Object *open_file = open(O_RDWR), *closed = open(O_RDONLY);
    CL_Object *timer = create(CL_KIND_TIMER), *unready = create(CL_KIND_FILE);
    EXPECT_EQ(CL_CloseFile(closed, &err), 1u);
    auto *inside = reinterpret_cast<CL_Object *>(reinterpret_cast<char *>(open_file) + 8);
    const struct {
        CL_Object *object;
        int module;
    } objects[] = {{nullptr, CL_MODULE_FD},
                   {inside, CL_MODULE_FD},
                   {closed, CL_MODULE_FD},
                   {timer, CL_MODULE_FILE},
                   {unready, CL_MODULE_FILE}};
    const Balance balance = Balance::now();
    for (const auto &operation : operations) {
        for (const auto &object : objects) {
            SCOPED_TRACE(testing::Message() << operation.what << " of " << object.object);
            const bool whence = object.object == unready && operation.what[0] == 'b';
            const Plan plan;
            EXPECT_EQ(operation.call(object.object), operation.failure);
            EXPECT_THAT(err, FailsWith(whence ? EINVAL : EBADF, object.module));
            for (const char *call : {"read", "write", "lseek", "close", "fdatasync"})
                EXPECT_EQ(plan.count(call), 0);
        }
    }
    EXPECT_EQ(Balance::now(), balance);
    EXPECT_EQ(CL_DeleteFD(open_file, &err), 0u) << "only its close deletes it";
    EXPECT_EQ(CL_AddEventList_M(open_file, 20, &err, 1, "t", 1), 0u) << "it is never listed";
    EXPECT_THAT(err, FailsWith(EBADF, CL_MODULE_FD));
    EXPECT_EQ(CL_CloseFile(open_file, &err), 1u);
    CL_MainTable->state = CL_STATE_ENDED;
    for (const auto &operation : operations) {
        EXPECT_EQ(operation.call(unready), operation.failure);
        EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_FD));
    }
    EXPECT_EQ(open(O_RDONLY), nullptr);
    EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_FD));
    CL_MainTable->state = CL_STATE_INITIALISED;
}

TEST_F(File, FailedCallsAreTold) {
    char bytes[4];
    CL_Object *object = nullptr;
    const struct {
        const char *call;
        int nth;
        std::function<bool()> does;
    } rows[] = {
        {"open", 1, [&] { return open(O_RDWR) == nullptr; }},
        {"fcntl", 1, [&] { return open(O_RDWR) == nullptr; }},
        {nullptr, 0, [&] { return (object = open(O_RDWR)) != nullptr; }},
        {"read", 1, [&] { return CL_ReadFile(object, bytes, 4, &err) == -1; }},
        {"write", 1, [&] { return CL_WriteFile(object, bytes, 4, &err) == -1; }},
        {"fdatasync", 1, [&] { return CL_FlushFile(object, &err) == 0; }},
        {"lseek", 1, [&] { return CL_SeekFile(object, 1, SEEK_SET, &err) == -1; }},
        {"lseek", 1, [&] { return CL_SeekFile(object, 1, SEEK_END, &err) == -1; }},
        {"lseek", 2, [&] { return CL_SeekFile(object, 1, SEEK_CUR, &err) == -1; }},
        {"close", 1, [&] { return CL_CloseFile(object, &err) == 0; }},
        {"unlink", 1, [&] { return CL_DeleteFile(path.c_str(), &err) == 0; }},
    };
    for (const auto &row : rows) {
        if (row.call == nullptr) { /* the rows behind it need an open file */
            ASSERT_TRUE(row.does());
            continue;
        }
        for (const int code : {EIO, ENOSPC, EACCES}) {
            SCOPED_TRACE(testing::Message() << row.call << ": " << code);
            const Balance balance = Balance::now();
            {
                const Plan plan{{.call = row.call, .error = code, .nth = row.nth}};
                EXPECT_TRUE(row.does());
            }
            EXPECT_THAT(err, FailsWith(code, CL_MODULE_FILE));
            EXPECT_EQ(Balance::now(), balance);
        }
    }
    EXPECT_EQ(object->status, uint32_t{CL_STATUS_READY}) << "a failed close can be repeated";
    EXPECT_EQ(CL_CloseFile(object, &err), 1u);
    while (CL_MainTable->free_queue.count > 0)
        create(CL_KIND_FD);
    EXPECT_EQ(open(O_RDWR), nullptr);
    EXPECT_THAT(err, FailsWith(EMFILE, CL_MODULE_FD));
}

TEST(FileEarly, RemovingNeedsNoLibrary) {
    const test::Folder folder;
    const std::string path = folder.path("file");
    std::ofstream(path) << "content";
    CL_ErrInfo err = test::UNTOUCHED;
    EXPECT_EQ(CL_DeleteFile(path.c_str(), &err), 1u);
    EXPECT_THAT(err, IsClear());
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(CL_DeleteFile(path.c_str(), &err), 0u);
    EXPECT_THAT(err, FailsWith(ENOENT, CL_MODULE_FILE));
    EXPECT_EQ(CL_DeleteFile(folder.root().c_str(), &err), 0u);
    EXPECT_THAT(err, FailsWith(EISDIR, CL_MODULE_FILE));
    EXPECT_EQ(CL_DeleteFile(nullptr, &err), 0u);
    EXPECT_THAT(err, FailsWith(EFAULT, CL_MODULE_FILE));
}

}  // namespace
