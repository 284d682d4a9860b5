// File objects: what reaches the system, and what comes back.
#include <fcntl.h>
#include <qvcl/file.h>
#include <sys/stat.h>

#include <tuple>

#include "tests/folder.h"
#include "tests/support.h"

namespace {

using test::bytes_of;
using test::Plan;

class File : public test::Library {
  protected:
    CL_Object *open(const std::string &name, uint32_t flags, uint32_t mode = 0600) {
        err = test::kUntouched;
        CL_Object *object = CL_OpenFile(name.c_str(), flags, mode, &err);
        EXPECT_NE(object, nullptr) << name << " " << err;
        EXPECT_THAT(err, test::IsClear());
        return object;
    }

    test::Folder folder;
    const std::string path = folder.put("file", "0123456789");
};

// Only the access mode and four flags reach the system; no file is inherited by a program.
TEST_F(File, FlagsThatAreKept) {
    const std::string link = folder.path("link"), made = folder.path("made");
    std::filesystem::create_symlink(path, link);
    const uint32_t kept = O_ACCMODE | O_CREAT | O_EXCL | O_TRUNC | O_APPEND;
    for (const uint32_t flags :
         {0u, uint32_t{O_WRONLY}, uint32_t{O_RDWR}, O_RDWR | ~kept, O_WRONLY | ~kept,
          ~kept | uint32_t{O_APPEND}, uint32_t{O_RDWR | O_APPEND | O_NONBLOCK | O_SYNC}}) {
        CL_Object *object = open(link, flags);
        EXPECT_EQ(fcntl(object->descriptor, F_GETFD), FD_CLOEXEC);
        const auto got = static_cast<uint32_t>(fcntl(object->descriptor, F_GETFL));
        EXPECT_EQ(got & ~0100000u, flags & kept) << "but for large files, what the kernel adds";
        EXPECT_EQ(CL_CloseFile(object, &err), 1u);
    }
    EXPECT_EQ(bytes_of(path), "0123456789");
    CL_CloseFile(open(path, O_WRONLY | O_TRUNC), &err);
    EXPECT_EQ(bytes_of(path), "");
    umask(0);
    CL_CloseFile(open(made, O_WRONLY | O_CREAT | O_EXCL, 0640), &err);
    EXPECT_EQ(std::filesystem::status(made).permissions(), std::filesystem::perms{0640});
    // The object keeps 140 bytes of the path, the system gets all of it.
    for (const size_t length : {139u, 140u, 141u, 300u}) {
        std::string name = folder.path("");
        name.resize(length - 4, '/');
        CL_Object *object = open(name += "made", O_RDONLY);
        const char *known = object->file.path;
        EXPECT_EQ(std::string(known, strnlen(known, 140)), name.substr(0, 140));
        CL_CloseFile(object, &err);
    }
}

TEST_F(File, ShortCountsAreHandedOn) {
    CL_Object *file = open(path, O_RDWR);
    const std::string data = "abcdefghijklmnopqrst";
    const std::tuple<bool, size_t, size_t, size_t, size_t> rows[] = {
        {true, 8, 20, 3, 3}, {true, 3, 20, SIZE_MAX, 20}, {true, 3, 0, SIZE_MAX, 0},
        {true, 3, 5, 0, 0},  {false, 23, 5, SIZE_MAX, 0}, {false, 0, 9, SIZE_MAX, 9},
        {false, 9, 9, 4, 4}, {false, 9, 0, SIZE_MAX, 0},  {false, 13, 30, SIZE_MAX, 10}};
    for (const auto &[write, at, length, at_most, result] : rows) {
        lseek(file->descriptor, static_cast<off_t>(at), SEEK_SET);
        const Plan plan({.call = write ? "write" : "read", .at_most = at_most});
        std::string buffer(32, '?');
        EXPECT_EQ(write ? CL_WriteFile(file, data.data(), length, &err)
                        : CL_ReadFile(file, buffer.data(), length, &err),
                  static_cast<int64_t>(result));
        EXPECT_EQ(err.err, 0u);
        EXPECT_EQ(bytes_of(path).substr(at, result), (write ? data : buffer).substr(0, result));
        EXPECT_EQ(buffer[write ? 0 : result], '?') << "not a byte more";
        EXPECT_EQ(lseek(file->descriptor, 0, SEEK_CUR), static_cast<off_t>(at + result));
    }
    EXPECT_EQ(bytes_of(path), "012abcdefghijklmnopqrst");
}

TEST_F(File, Seeks) {
    constexpr int32_t kLast = INT32_MAX, kFirst = INT32_MIN;
    constexpr off_t kGiB = 1 << 30;
    CL_Object *file = open(path, O_RDWR);
    // The result is the new offset, or the code of a failure, negative.
    const std::tuple<uint64_t, off_t, int32_t, uint32_t, int64_t> rows[] = {
        {10, 7, 0, SEEK_SET, 0},
        {10, 7, -1, SEEK_SET, -EINVAL},
        {10, 7, -7, SEEK_CUR, 0},
        {10, 7, kLast - 6, SEEK_CUR, -EOVERFLOW},
        {10, 4 * kGiB - 1, kFirst, SEEK_CUR, kLast},
        {10, 4 * kGiB, kFirst, SEEK_CUR, -EOVERFLOW},
        {10, 3, -11, SEEK_END, -EINVAL},
        {10, 3, 90, SEEK_END, 100},
        {2 * kGiB, 8, 0, SEEK_END, -EOVERFLOW}};
    for (const auto &[size, before, offset, whence, result] : rows) {
        SCOPED_TRACE(testing::Message() << before << " " << offset << " " << whence);
        std::filesystem::resize_file(path, size);
        ASSERT_EQ(lseek(file->descriptor, before, SEEK_SET), before);
        const bool fails = result < 0;
        EXPECT_EQ(CL_SeekFile(file, offset, whence, &err), fails ? -1 : result);
        EXPECT_EQ(err.err, fails ? static_cast<uint32_t>(-result) : 0u);
        EXPECT_EQ(lseek(file->descriptor, 0, SEEK_CUR), fails ? before : result);
    }
}

}  // namespace
