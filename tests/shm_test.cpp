// Shared-memory objects on real segments: what is mapped, and whose name is removed.
#include <fcntl.h>
#include <qvcl/shm.h>
#include <sys/mman.h>

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
    // The line of the process's map that begins at an address.
    static std::string mapping(const void *address) {
        char start[40];
        snprintf(start, sizeof start, "%lx-%lx ", test::address(address),
                 test::address(address) + (kSize + 4095) / 4096 * 4096);
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line);) {
            if (line.starts_with(start)) return line;
        }
        return "";
    }

    const std::string name = "/qvcl-tests-" + std::to_string(getpid());

  private:
    std::vector<std::string> names_;
};

TEST_F(SharedMemory, IsMappedAsItWasOpened) {
    auto *own = static_cast<char *>(mmap(nullptr, kSize, PROT_WRITE, MAP_SHARED, make(name), 0));
    memcpy(own, "hello", 6);
    for (const int flags : {O_RDONLY, O_RDWR, O_RDONLY | O_TRUNC | O_CREAT | O_EXCL,
                            O_RDWR | O_TRUNC | O_CREAT | O_EXCL | O_NONBLOCK}) {
        const test::Balance before = test::Balance::now();
        const bool writable = (flags & O_ACCMODE) == O_RDWR;
        CL_Object *object = open(name, flags);
        EXPECT_EQ(fcntl(object->descriptor, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(fcntl(object->descriptor, F_GETFL) & (O_ACCMODE | O_NONBLOCK), flags & O_ACCMODE);
        for (int twice = 0; twice < 2; ++twice) {
            auto *mapped = static_cast<char *>(CL_MapSHM(object, &err));
            ASSERT_NE(mapped, nullptr) << err;
            EXPECT_EQ(object->memory.address, mapped);
            EXPECT_NE(mapping(mapped).find(writable ? " rw-s " : " r--s "), std::string::npos);
            EXPECT_STREQ(mapped, "hello") << "the segment was not cut";
            if (writable) mapped[kSize - 1] = 'x';
            EXPECT_EQ(CL_UnmapSHM(object, &err), 1u);
            EXPECT_EQ(mapping(mapped), "");
        }
        EXPECT_EQ(CL_CloseSHM(object, &err), 1u);
        EXPECT_THAT(err, test::IsClear());
        EXPECT_EQ(object->descriptor, -1);
        EXPECT_EQ(test::Balance::now(), before);
    }
    EXPECT_EQ(own[kSize - 1], 'x');
    EXPECT_TRUE(exists(name));
}

// A name longer than its field is not known any more: no other segment may go in its place.
TEST_F(SharedMemory, NameIsRemovedOnRequest) {
    const std::string longest = name + std::string(140 - name.size(), 'l');  // fills its field
    const struct {
        std::string segment;
        uint32_t unlink;
        bool gone_before, exists_after;
        uint32_t code;
    } rows[] = {
        {name + "a", 0, false, true, 0}, {name + "b", 0x80000000u, false, false, 0},
        {name + "c", 1, true, false, 0}, {longest + "-own", 1, false, true, ENAMETOOLONG},
        {longest, 1, false, false, 0},
    };
    for (const auto &row : rows)
        close(make(row.segment));
    for (const auto &row : rows) {
        SCOPED_TRACE(row.segment);
        CL_Object *object = open(row.segment);
        object->memory.unlink_on_close = row.unlink;
        if (row.gone_before) shm_unlink(row.segment.c_str());
        EXPECT_EQ(CL_CloseSHM(object, &err), row.code == 0 ? 1u : 0u);
        EXPECT_EQ(err.err, row.code);
        EXPECT_EQ(exists(row.segment), row.exists_after);
        EXPECT_EQ(exists(longest), &row != std::end(rows) - 1);
    }
}

}  // namespace
