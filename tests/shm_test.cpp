// Shared-memory objects on real segments: what is mapped, and whose name is removed.
#include <fcntl.h>
#include <qvcl/shm.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <tuple>

#include "tests/folder.h"
#include "tests/support.h"

namespace {

constexpr uint64_t kSize = 10000;  // three pages, the last one not full

class SharedMemory : public test::Library {
  protected:
    void TearDown() override {
        for (const std::string &made : names_)
            shm_unlink(made.c_str());
    }
    int make(const std::string &segment) {
        names_.push_back(segment);
        const int fd = shm_open(segment.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
        EXPECT_EQ(ftruncate(fd, kSize), 0);
        return fd;
    }
    CL_Object *open(const std::string &segment, int flags = O_RDWR) {
        CL_Object *object = cl_openshm(segment.c_str(), flags, kSize, &err, "open", 7);
        EXPECT_NE(object, nullptr) << err;
        EXPECT_THAT(err, test::IsClear());
        return object;
    }
    static bool exists(const std::string &segment) {
        return std::filesystem::exists("/dev/shm" + segment);
    }
    // The rights of the mapping at an address, empty when there is none.
    static std::string rights(const void *address) {
        char place[40];
        const uint64_t start = test::address(address);
        snprintf(place, sizeof place, "%lx-%lx ", start, start + (kSize + 4095) / 4096 * 4096);
        const std::string maps = test::bytes_of("/proc/self/maps");
        const size_t at = maps.find(place);
        return at == std::string::npos ? "" : maps.substr(at + strlen(place), 4);
    }

    const std::string name = "/qvcl-tests-" + std::to_string(getpid());

  private:
    std::vector<std::string> names_;
};

TEST_F(SharedMemory, IsMappedAsItWasOpened) {
    auto *own = static_cast<char *>(mmap(nullptr, kSize, PROT_WRITE, MAP_SHARED, make(name), 0));
    memcpy(own, "hello", 6);
    const int dropped = O_TRUNC | O_CREAT | O_EXCL | O_NONBLOCK;
    for (const int flags : {O_RDONLY, O_RDWR, O_RDONLY | dropped, O_RDWR | dropped}) {
        const test::Balance before = test::Balance::now();
        const bool writable = (flags & O_ACCMODE) == O_RDWR;
        CL_Object *object = open(name, flags);
        EXPECT_EQ(fcntl(object->descriptor, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(fcntl(object->descriptor, F_GETFL) & (O_ACCMODE | O_NONBLOCK), flags & O_ACCMODE);
        for (int twice = 0; twice < 2; ++twice) {
            auto *mapped = static_cast<char *>(CL_MapSHM(object, &err));
            ASSERT_NE(mapped, nullptr) << err;
            EXPECT_EQ(object->memory.address, mapped);
            EXPECT_EQ(rights(mapped), writable ? "rw-s" : "r--s");
            EXPECT_STREQ(mapped, "hello") << "the segment was not cut";
            if (writable) mapped[kSize - 1] = 'x';
            EXPECT_EQ(CL_UnmapSHM(object, &err), 1u);
            EXPECT_EQ(rights(mapped), "");
        }
        EXPECT_EQ(CL_CloseSHM(object, &err), 1u);
        EXPECT_THAT(err, test::IsClear());
        EXPECT_EQ(object->descriptor, -1);
        EXPECT_EQ(test::Balance::now(), before);
    }
    EXPECT_EQ(own[kSize - 1], 'x');
    EXPECT_TRUE(exists(name));
}

// Anybody may make a name before its owner does. A link is not followed, what is no memory is not
// mapped, and how long a segment is, and whose, can be asked before it is touched.
TEST_F(SharedMemory, ASquattedNameIsFoundOut) {
    const std::string at = "/dev/shm" + name;
    close(make(name + "target"));
    std::filesystem::create_symlink("/dev/shm" + name + "target", at);
    EXPECT_EQ(cl_openshm(name.c_str(), O_RDWR, kSize, &err, "open", 7), nullptr);
    EXPECT_THAT(err, test::FailsWith(ELOOP, CL_MODULE_SHM));
    std::filesystem::remove(at);
    std::filesystem::create_directory(at);
    CL_Object *directory = open(name, O_RDONLY);
    EXPECT_EQ(CL_MapSHM(directory, &err), nullptr);
    EXPECT_THAT(err, test::FailsWith(ENODEV, CL_MODULE_SHM));
    EXPECT_EQ(CL_CloseSHM(directory, &err), 1u);
    std::filesystem::remove(at);
    ASSERT_EQ(ftruncate(make(name), 5), 0);
    CL_Object *segment = open(name);
    struct stat found = {};
    EXPECT_EQ(fstat(segment->descriptor, &found), 0);
    EXPECT_EQ(found.st_size, 5);
    EXPECT_EQ(found.st_uid, geteuid());
    EXPECT_EQ(CL_CloseSHM(segment, &err), 1u);
}

// A name longer than its field is not known any more: no other segment may go in its place.
TEST_F(SharedMemory, NameIsRemovedOnRequest) {
    const std::string longest = name + std::string(140 - name.size(), 'l');  // fills its field
    // What is asked, whether the name was gone before, whether it is there after, and the code.
    const std::tuple<std::string, uint32_t, bool, bool, uint32_t> rows[] = {
        {name + "a", 0, false, true, 0}, {name + "b", 0x80000000u, false, false, 0},
        {name + "c", 1, true, false, 0}, {longest + "-own", 1, false, true, ENAMETOOLONG},
        {longest, 1, false, false, 0},
    };
    for (const auto &row : rows)
        close(make(std::get<0>(row)));
    for (const auto &[segment, unlink, gone, stays, code] : rows) {
        SCOPED_TRACE(segment);
        CL_Object *object = open(segment);
        object->memory.unlink_on_close = unlink;
        if (gone) shm_unlink(segment.c_str());
        EXPECT_EQ(CL_CloseSHM(object, &err), code == 0 ? 1u : 0u);
        EXPECT_EQ(err.err, code);
        EXPECT_EQ(exists(segment), stays);
        EXPECT_EQ(exists(longest), segment != longest);
    }
}

}  // namespace
