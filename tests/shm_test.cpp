/* Shared-memory objects on real segments: what is mapped, and what a failure leaves as it was. */
#include <fcntl.h>
#include <qvcl/shm.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "tests/folder.h"
#include "tests/support.h"

namespace {

using test::FailsWith;
using test::Fault;
using test::IsClear;
using test::Plan;

const Fault NO_FAULT{"chdir"};
constexpr uint64_t SIZE = 10000; /* three pages, the last one not full */

class SharedMemory : public test::Library {
  protected:
    void SetUp() override {
        Library::SetUp();
        make(name);
    }
    void TearDown() override {
        for (const std::string &made : names_)
            shm_unlink(made.c_str());
    }
    void make(const std::string &segment) {
        names_.push_back(segment);
        const int fd = shm_open(segment.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
        ASSERT_NE(fd, -1);
        ASSERT_EQ(ftruncate(fd, SIZE), 0);
        close(fd);
    }
    CL_Object *open(const std::string &segment, int flags = O_RDWR) {
        CL_Object *object = cl_openshm(segment.c_str(), flags, SIZE, &err, "open", 7);
        EXPECT_NE(object, nullptr) << err;
        EXPECT_THAT(err, IsClear());
        return object;
    }
    static bool exists(const std::string &segment) {
        return std::filesystem::exists("/dev/shm" + segment);
    }
    /* The line of the process's map that begins at an address. */
    static std::string mapping(const void *address) {
        char start[32];
        snprintf(start, sizeof start, "%lx-%lx ", test::address(address),
                 test::address(address) + (SIZE + 4095) / 4096 * 4096);
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line);) {
            if (line.starts_with(start)) return line;
        }
        return "";
    }

    struct Operation {
        const char *call;
        std::function<uint64_t(CL_Object *)> run;
    };
    const Operation operations[3] = {
        {"mmap", [this](CL_Object *o) { return test::address(CL_MapSHM(o, &err)); }},
        {"munmap", [this](CL_Object *o) { return CL_UnmapSHM(o, &err); }},
        {"close", [this](CL_Object *o) { return CL_CloseSHM(o, &err); }},
    };
    const std::string name = "/qvcl-tests-" + std::to_string(getpid());

  private:
    std::vector<std::string> names_;
};

TEST_F(SharedMemory, IsMappedAsItWasOpened) {
    const int segment = shm_open(name.c_str(), O_RDWR, 0);
    auto *own = static_cast<char *>(mmap(nullptr, SIZE, PROT_WRITE, MAP_SHARED, segment, 0));
    memcpy(own, "hello", 6);
    for (const int flags : {O_RDONLY, O_RDWR, O_RDONLY | O_TRUNC | O_CREAT | O_EXCL,
                            O_RDWR | O_TRUNC | O_CREAT | O_EXCL | O_NONBLOCK}) {
        const test::Balance before = test::Balance::now();
        const bool writable = (flags & 3) == O_RDWR;
        CL_Object *object = open(name, flags);
        EXPECT_EQ(fcntl(object->descriptor, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(fcntl(object->descriptor, F_GETFL) & (O_ACCMODE | O_NONBLOCK), flags & 3);
        for (int twice = 0; twice < 2; twice++) {
            auto *mapped = static_cast<char *>(CL_MapSHM(object, &err));
            ASSERT_NE(mapped, nullptr) << err;
            EXPECT_EQ(object->memory.address, mapped);
            EXPECT_NE(mapping(mapped).find(writable ? " rw-s " : " r--s "), std::string::npos)
                << mapping(mapped);
            EXPECT_STREQ(mapped, "hello") << "the segment was not cut";
            if (writable) mapped[SIZE - 1] = 'x';
            EXPECT_EQ(CL_UnmapSHM(object, &err), 1u);
            EXPECT_EQ(mapping(mapped), "");
        }
        EXPECT_EQ(CL_CloseSHM(object, &err), 1u);
        EXPECT_THAT(err, IsClear());
        EXPECT_EQ(object->descriptor, -1);
        EXPECT_EQ(test::Balance::now(), before);
    }
    EXPECT_EQ(own[SIZE - 1], 'x');
    EXPECT_TRUE(exists(name));
}

/* The walk through an object's states; each step fails first in every way it can. */
TEST_F(SharedMemory, FailedStepsChangeNothing) {
    CL_Object *object = create(CL_KIND_FILE);
    for (const auto &operation : operations)
        EXPECT_EQ(operation.run(object), 0u) << operation.call << " of another kind";
    object = open(name);
    const auto &[map, unmap, close] = operations;
    /* With a code the call is refused, without one the system's call fails. */
    const auto refuse = [&](const Operation &operation, int code) {
        const test::Balance before = test::Balance::now();
        const CL_Object copy = *object;
        err = test::UNTOUCHED;
        const Plan plan({.call = operation.call, .error = EIO, .times = test::FOREVER});
        EXPECT_EQ(operation.run(object), 0u) << operation.call;
        EXPECT_THAT(err, FailsWith(code != 0 ? code : EIO, CL_MODULE_SHM)) << operation.call;
        EXPECT_EQ(plan.count(operation.call), code != 0 ? 0 : 1);
        EXPECT_EQ(memcmp(&copy, object, sizeof copy), 0) << operation.call;
        EXPECT_EQ(test::Balance::now(), before);
    };
    const auto pass = [&](const Operation &operation) {
        EXPECT_NE(operation.run(object), 0u) << operation.call << " " << err;
        EXPECT_THAT(err, IsClear());
    };
    for (int round = 0; round < 2; round++) {
        refuse(unmap, ENOENT);
        refuse(map, 0);
        pass(map);
        refuse(map, EBADF);
        refuse(close, ENOENT);
        EXPECT_NE(mapping(object->memory.address), "");
        refuse(unmap, 0);
        pass(unmap);
    }
    refuse(unmap, ENOENT);
    refuse(close, 0);
    pass(close);
}

TEST_F(SharedMemory, NameIsRemovedOnRequest) {
    const std::string longest = name + std::string(140 - name.size(), 'l'); /* fills its field */
    const struct {
        std::string segment;
        uint32_t unlink;
        bool gone_before;
        Fault fault;
        uint32_t closed;
        bool exists_after; /* the first attempt */
    } rows[] = {
        {name + "a", 0, false, NO_FAULT, 1, true},
        {name + "b", 0x80000000u, false, NO_FAULT, 1, false},
        {name + "d", 1, true, NO_FAULT, 1, false},
        {name + "e", 1, false, {"shm_unlink", EACCES}, 0, true},
        {name + "f", 1, false, {"close", EIO}, 0, false},
        {longest, 1, false, NO_FAULT, 1, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.segment);
        make(row.segment);
        const test::Balance before = test::Balance::now();
        CL_Object *object = open(row.segment);
        object->memory.unlink_on_close = row.unlink;
        if (row.gone_before) shm_unlink(row.segment.c_str());
        {
            const Plan plan(row.fault);
            EXPECT_EQ(CL_CloseSHM(object, &err), row.closed);
        }
        EXPECT_EQ(exists(row.segment), row.exists_after);
        if (row.closed == 0) {
            EXPECT_EQ(CL_CloseSHM(object, &err), 1u) << err;
            EXPECT_FALSE(exists(row.segment));
        }
        EXPECT_EQ(test::Balance::now(), before);
    }
}

/* A name longer than its field is not known any more: no other segment may go in its place. */
TEST_F(SharedMemory, NobodyElsesNameIsRemoved) {
    const std::string other = name + std::string(140 - name.size(), 'o'), own = other + "-own";
    make(other);
    make(own);
    CL_Object *object = open(own);
    object->memory.unlink_on_close = 1;
    CL_CloseSHM(object, &err);
    EXPECT_TRUE(exists(other));
}

}  // namespace
