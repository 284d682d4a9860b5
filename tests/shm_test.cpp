/* Shared-memory objects: opened, mapped, unmapped and closed in every order, with every access mode
 * and every failing system call. */
#include <fcntl.h>
#include <qvcl/shm.h>
#include <sys/mman.h>

#include <fstream>
#include <sstream>

#include "tests/wire.h"

using test::Balance;
using test::FailsWith;
using test::IsClear;
using test::Plan;

namespace {

constexpr std::size_t SIZE = 8192;

class Shm : public test::Library {
  protected:
    void SetUp() override {
        Library::SetUp();
        const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
        ASSERT_NE(fd, -1) << strerror(errno);
        ASSERT_EQ(ftruncate(fd, SIZE), 0);
        bytes = static_cast<char *>(mmap(nullptr, SIZE, PROT_WRITE, MAP_SHARED, fd, 0));
        ::close(fd);
        before = Balance::now();
    }
    void TearDown() override {
        EXPECT_EQ(Balance::now(), before);
        munmap(bytes, SIZE);
        shm_unlink(name.c_str());
    }
    CL_Object *open(const char *of, int32_t flags, uint64_t size = SIZE) {
        return cl_openshm(of, flags, size, &err, "opener.c", 7);
    }
    /* "r--s", "rw-s": how the system has mapped this address. */
    static std::string protection(const void *address) {
        std::ostringstream wanted;
        wanted << std::hex << reinterpret_cast<uintptr_t>(address) << '-';
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line);) {
            if (line.starts_with(wanted.str())) return line.substr(line.find(' ') + 1, 4);
        }
        return "none";
    }
    bool exists() const { return access(("/dev/shm" + name).c_str(), F_OK) == 0; }

    const std::string name = "/qvcl-test-" + std::to_string(getpid());
    char *bytes = nullptr;
    Balance before;
};

TEST_F(Shm, OpensWhatExists) {
    const std::string missing = name + "-missing";
    const struct {
        const char *of;
        int32_t flags;
        uint64_t size;
        int code;
    } rows[] = {
        {name.c_str(), O_RDONLY, SIZE, 0},
        {name.c_str(), O_RDWR, SIZE, 0},
        {name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_TRUNC, SIZE, 0}, /* mode alone counts */
        {name.c_str(), O_WRONLY, SIZE, EINVAL},
        {name.c_str(), 3, SIZE, EINVAL},
        {name.c_str(), -1, SIZE, EINVAL},
        {name.c_str(), O_RDWR, 0, EINVAL},
        {nullptr, O_RDWR, SIZE, EFAULT},
        {nullptr, O_RDWR, 0, EFAULT},
        {nullptr, O_WRONLY, SIZE, EINVAL},
        {missing.c_str(), O_RDWR, SIZE, ENOENT},
        {missing.c_str(), O_RDWR | O_CREAT, SIZE, ENOENT},
        {"/a/b", O_RDWR, SIZE, EINVAL},
    };
    memcpy(bytes, "content", 8);
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.code << " flags " << row.flags);
        CL_Object *object = open(row.of, row.flags, row.size);
        EXPECT_EQ(object == nullptr, row.code != 0);
        if (object == nullptr) {
            EXPECT_THAT(err, FailsWith(row.code, CL_MODULE_SHM));
            EXPECT_EQ(Balance::now(), before);
            continue;
        }
        EXPECT_THAT(err, IsClear());
        EXPECT_EQ(object->kind, uint32_t{CL_KIND_SHM});
        EXPECT_EQ(object->status, uint32_t{CL_STATUS_READY});
        EXPECT_EQ(object->callback, nullptr);
        EXPECT_STREQ(object->created.file, "opener.c");
        EXPECT_EQ(object->created.line, 7u);
        const CL_SharedMemory &memory = object->memory;
        EXPECT_EQ(memory.name, name);
        EXPECT_EQ(memory.size, SIZE);
        EXPECT_EQ(memory.flags, static_cast<uint32_t>(row.flags));
        EXPECT_EQ(memory.address, nullptr);
        EXPECT_EQ(memory.unlink_on_close, 0u);
        EXPECT_EQ(fcntl(object->descriptor, F_GETFD), FD_CLOEXEC);
        auto *mapped = static_cast<char *>(CL_MapSHM(object, &err));
        ASSERT_NE(mapped, nullptr) << err;
        EXPECT_THAT(err, IsClear());
        EXPECT_EQ(mapped, memory.address);
        const bool writable = (row.flags & 3) == O_RDWR;
        EXPECT_EQ(protection(mapped), writable ? "rw-s" : "r--s");
        EXPECT_STREQ(mapped, "content") << "what is there is neither made anew nor cut";
        if (writable) {
            mapped[SIZE - 1] = 'x';
            EXPECT_EQ(std::exchange(bytes[SIZE - 1], 0), 'x') << "it is shared";
        }
        EXPECT_EQ(CL_UnmapSHM(object, &err), 1u);
        EXPECT_THAT(err, IsClear());
        EXPECT_EQ(protection(mapped), "none");
        EXPECT_EQ(CL_CloseSHM_M(object, &err, 0, "closer.c", 8), 1u);
        EXPECT_THAT(err, IsClear());
        EXPECT_STREQ(object->deleted.file, "closer.c");
        EXPECT_TRUE(exists());
    }
}

/* An object is closed, open or mapped; what each operation does to each. */
TEST_F(Shm, HasItsOrder) {
    enum State { NONE, WRONG_KIND, UNREADY, OPEN, MAPPED };
    enum Operation { MAP, UNMAP, CLOSE };
    const struct {
        State state;
        int codes[3];
    } rows[] = {{NONE, {EBADF, EBADF, EBADF}},
                {WRONG_KIND, {EBADF, EBADF, EBADF}},
                {UNREADY, {EBADF, EBADF, EBADF}},
                {OPEN, {0, ENOENT, 0}},
                {MAPPED, {EBADF, 0, ENOENT}}};
    for (const auto &row : rows) {
        for (const Operation operation : {MAP, UNMAP, CLOSE}) {
            SCOPED_TRACE(testing::Message() << "state " << row.state << " call " << operation);
            CL_Object *object = nullptr;
            if (row.state == WRONG_KIND) object = create(CL_KIND_TIMER);
            if (row.state == UNREADY) object = create(CL_KIND_SHM);
            if (row.state >= OPEN) object = open(name.c_str(), O_RDWR);
            void *address = row.state == MAPPED ? CL_MapSHM(object, &err) : nullptr;
            err = test::UNTOUCHED;
            const bool done = operation == MAP     ? CL_MapSHM(object, &err) != nullptr
                              : operation == UNMAP ? CL_UnmapSHM(object, &err) != 0
                                                   : CL_CloseSHM(object, &err) != 0;
            const int code = row.codes[operation];
            EXPECT_EQ(done, code == 0);
            if (code == 0) {
                EXPECT_THAT(err, IsClear());
            } else {
                EXPECT_THAT(err, FailsWith(code, row.state == NONE ? CL_MODULE_FD : CL_MODULE_SHM));
            }
            if (row.state == MAPPED && operation != UNMAP) {
                EXPECT_EQ(object->memory.address, address);
                EXPECT_EQ(object->status, uint32_t{CL_STATUS_READY});
            }
            if (row.state >= OPEN && !(operation == CLOSE && done)) {
                EXPECT_EQ(CL_DeleteFD(object, &err), 0u) << "only its close deletes it";
                CL_UnmapSHM(object, &err);
                EXPECT_EQ(CL_CloseSHM(object, &err), 1u);
            } else if (row.state != NONE && row.state < OPEN) {
                EXPECT_EQ(CL_DeleteFD_M(object, &err, 1, "t", 1), 1u);
            }
            EXPECT_EQ(Balance::now(), before);
        }
    }
    CL_MainTable->state = CL_STATE_ENDED;
    EXPECT_EQ(open(name.c_str(), O_RDWR), nullptr);
    EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_FD));
    EXPECT_EQ(CL_MapSHM(nullptr, &err), nullptr);
    EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_FD));
    CL_MainTable->state = CL_STATE_INITIALISED;
}

TEST_F(Shm, FailedCallsAreTold) {
    CL_Object *object = nullptr;
    const struct {
        const char *call;
        std::function<void()> prepare;
        std::function<bool()> fails;
    } rows[] = {
        {"shm_open", nullptr, [&] { return open(name.c_str(), O_RDWR) == nullptr; }},
        {"fcntl", nullptr, [&] { return open(name.c_str(), O_RDWR) == nullptr; }},
        {"mmap", [&] { object = open(name.c_str(), O_RDWR); },
         [&] { return CL_MapSHM(object, &err) == nullptr; }},
        {"munmap", [&] { CL_MapSHM(object, &err); },
         [&] { return CL_UnmapSHM(object, &err) == 0; }},
        {"close", [&] { CL_UnmapSHM(object, &err); },
         [&] { return CL_CloseSHM(object, &err) == 0; }},
        {"shm_unlink", [&] { object->memory.unlink_on_close = 1; },
         [&] { return CL_CloseSHM(object, &err) == 0; }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.call);
        if (row.prepare) row.prepare();
        const Balance balance = Balance::now();
        const CL_SharedMemory memory = object != nullptr ? object->memory : CL_SharedMemory{};
        for (const int code : {EACCES, ENOMEM, EIO}) {
            {
                const Plan plan{{.call = row.call, .error = code}};
                EXPECT_TRUE(row.fails());
                EXPECT_EQ(plan.hits(), 1);
            }
            EXPECT_THAT(err, FailsWith(code, CL_MODULE_SHM));
            EXPECT_EQ(Balance::now(), balance);
            if (object == nullptr) continue;
            EXPECT_EQ(memcmp(&object->memory, &memory, sizeof memory), 0);
            EXPECT_EQ(object->status, uint32_t{CL_STATUS_READY});
            EXPECT_NE(object->descriptor, -1);
        }
    }
    EXPECT_TRUE(exists());
    shm_unlink(name.c_str());
    EXPECT_EQ(CL_CloseSHM(object, &err), 1u) << "a name that is gone already is no failure";
    while (CL_MainTable->free_queue.count > 0)
        create(CL_KIND_FD);
    EXPECT_EQ(open(name.c_str(), O_RDWR), nullptr);
    EXPECT_THAT(err, FailsWith(EMFILE, CL_MODULE_FD));
    while (CL_MainTable->used_queue.head != nullptr)
        CL_DeleteFD(static_cast<CL_Object *>(CL_MainTable->used_queue.head), &err);
}

TEST_F(Shm, NameGoesWithTheObjectOnRequest) {
    CL_Object *object = open(name.c_str(), O_RDONLY);
    object->memory.unlink_on_close = 1;
    EXPECT_EQ(CL_CloseSHM(object, &err), 1u);
    EXPECT_FALSE(exists());

    /* A name that fills its field is not terminated there. */
    const std::string longest = "/" + std::string(139, 'n');
    const int fd = shm_open(longest.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_NE(fd, -1);
    close(fd);
    object = open(longest.c_str(), O_RDONLY);
    ASSERT_NE(object, nullptr) << err;
    EXPECT_EQ(std::string(object->memory.name, 140), longest);
    object->memory.unlink_on_close = 1;
    EXPECT_EQ(CL_CloseSHM(object, &err), 1u);
    EXPECT_EQ(shm_unlink(longest.c_str()), -1);
}

TEST(ShmEarly, NeedsTheLibrary) {
    CL_ErrInfo err = test::UNTOUCHED;
    EXPECT_EQ(cl_openshm("/x", O_RDWR, 1, &err, "t", 1), nullptr);
    EXPECT_THAT(err, FailsWith(CL_ERR_STATE, CL_MODULE_FD));
    EXPECT_EQ(cl_openshm("/x", O_RDWR, 1, nullptr, "t", 1), nullptr);
}

}  // namespace
