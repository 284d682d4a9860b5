// Sources against a library that changes its mind at random: every dispatch and every update finds
// descriptors closed, opened under the same number, wanted for something else, and other times.
#include <fcntl.h>
#include <qvcl/nest.h>
#include <qvcl/source.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <map>
#include <utility>

#include "tests/support.h"

using test::address;
using test::Balance;

namespace {

constexpr uint32_t kDone = 77;
constexpr uint32_t kMost = 6;
constexpr uint64_t kMillisecond = 1'000'000;

// Waits for sockets that have something to read, or room to write.
class Fickle {
  public:
    explicit Fickle(test::Random &random) : random_(random) {}
    ~Fickle() {
        for (const auto &[fd, socket] : sockets_) {
            close(fd);
            close(socket.other);
        }
    }

    uint32_t prepare(CL_SourceFD *fds, uint32_t limit, uint64_t *due) {
        EXPECT_EQ(limit, kMost);
        EXPECT_EQ(*due, CL_SOURCE_NEVER);
        for (const auto &refuse : {CL_UpdateSource_M, CL_DeleteSource_M}) {
            EXPECT_EQ(refuse(source, &err_, CL_HERE), 0u);
            EXPECT_EQ(err_.err, source != nullptr ? EBUSY : EBADF);
        }
        uint32_t count = 0;
        for (const auto &[fd, socket] : sockets_) {
            if (socket.events == (CL_NEST_READ | CL_NEST_WRITE) && count + 1 < limit)
                fds[count++] = {fd, CL_NEST_READ};  // in two halves
            if (count < limit) fds[count++] = {fd, socket.events};
        }
        *due = due_;
        return count;
    }

    uint32_t dispatch(int fd, uint32_t ready) {
        if (fd == -1) {
            EXPECT_LE(due_, CL_NestTime(CL_NEST_MONOTONIC));
            ++times_over;
            for (auto &[number, socket] : sockets_) {
                if (socket.unread == 0 || (socket.events & CL_NEST_READ) == 0) continue;
                EXPECT_LT(++socket.waited, 5) << "not told of what is ready";
            }
        } else {
            const auto socket = sockets_.find(fd);
            EXPECT_NE(socket, sockets_.end()) << "told of a descriptor that is closed";
            if (socket != sockets_.end()) use(socket->first, socket->second, ready);
        }
        change();
        return --left == 0 ? kDone : 0;
    }

    // Something other than the library's callbacks calls it.
    void change() {
        if (sockets_.size() < kMost / 2) open_one();
        const auto any = std::next(sockets_.begin(), random_.below(uint32_t(sockets_.size())));
        switch (random_.below(5)) {
            case 0:
                if (sockets_.size() > 1) shut(any);
                break;
            case 1:  // another file under this number, of which the source is not told
                replace(any->first, any->second);
                break;
            case 2:
                any->second.events = uint32_t{CL_NEST_WRITE} | random_.below(2);
                break;
            default:
                feed(any->second);
        }
        due_ = CL_NestTime(CL_NEST_MONOTONIC) + random_.below(2) * kMillisecond;
    }

    CL_Source *source = nullptr;
    int left = 5000;
    int times_over = 0, reads = 0, writes = 0;

  private:
    struct Socket {
        int other;
        uint32_t events;
        int unread = 0;
        int waited = 0;
    };

    void open_one() {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
        sockets_[ends[0]] = {ends[1], CL_NEST_READ};
        feed(sockets_[ends[0]]);
    }
    void shut(std::map<int, Socket>::iterator socket) {
        close(socket->first);
        close(socket->second.other);
        sockets_.erase(socket);
    }
    void replace(int fd, Socket &socket) {
        int ends[2];
        close(socket.other);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
        ASSERT_EQ(dup2(ends[0], fd), fd);
        close(ends[0]);
        socket = {ends[1], CL_NEST_READ};
        feed(socket);
    }
    void feed(Socket &socket) {
        if (write(socket.other, "x", 1) == 1) ++socket.unread;
    }
    void use(int fd, Socket &socket, uint32_t ready) {
        char byte;
        if ((ready & CL_NEST_READ) != 0) {
            EXPECT_NE(socket.events & CL_NEST_READ, 0u) << "told of what is not wanted";
            EXPECT_EQ(read(fd, &byte, 1), 1);
            --socket.unread;
            socket.waited = 0;
            ++reads;
        }
        if ((ready & CL_NEST_WRITE) == 0) return;
        EXPECT_NE(socket.events & CL_NEST_WRITE, 0u);
        socket.events = CL_NEST_READ;
        ++writes;
    }

    test::Random &random_;
    CL_ErrInfo err_{};
    std::map<int, Socket> sockets_;
    uint64_t due_ = CL_SOURCE_NEVER;
};

uint32_t prepare(CL_SourceFD *fds, uint32_t limit, uint64_t *due, uint64_t library, uint64_t) {
    return reinterpret_cast<Fickle *>(library)->prepare(fds, limit, due);
}
uint32_t dispatch(CL_Source *, int fd, uint32_t ready, uint64_t library, uint64_t) {
    return reinterpret_cast<Fickle *>(library)->dispatch(fd, ready);
}

class Source : public test::Library {
  protected:
    void SetUp() override {
        test::Library::SetUp();
        ASSERT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err), 1u) << err;
    }
};

TEST_F(Source, FollowsALibraryThatChangesItsMind) {
    test::Random random;
    const Balance before = Balance::now();
    {
        Fickle library(random);
        library.change();
        library.source = CL_CreateSource(kMost, 5, prepare, dispatch, address(&library), 0, &err);
        ASSERT_NE(library.source, nullptr) << err;
        const auto meddle = [](CL_NestTimer *, uint64_t, uint64_t arg, uint64_t) {
            CL_ErrInfo scratch;
            auto &its = *reinterpret_cast<Fickle *>(arg);
            its.change();
            EXPECT_EQ(CL_UpdateSource(its.source, &scratch), 1u) << scratch;
            return uint32_t{0};
        };
        CL_NestTimer *timer = CL_CreateNestTimer(0, meddle, address(&library), 0, &err);
        ASSERT_EQ(CL_StartNestTimer(timer, 0, 0, kMillisecond, &err), 1u) << err;
        EXPECT_EQ(CL_EventLoop(&err), kDone) << err;
        EXPECT_GT(library.reads, 100);
        EXPECT_GT(library.writes, 100);
        EXPECT_GT(library.times_over, 100);
        EXPECT_EQ(CL_DeleteNestTimer(timer, &err), 1u);
        EXPECT_EQ(CL_DeleteSource(library.source, &err), 1u) << err;
    }
    EXPECT_EQ(CL_DeleteNest(&err), 1u);
    EXPECT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err), 1u) << err;
    EXPECT_EQ(Balance::now(), before);
}

// One whose only descriptor is no descriptor, or a file; it deletes its source, or the nest.
TEST_F(Source, TellsWhatCannotBeWatchedAndMayBeDeletedThen) {
    const auto ask = [](CL_SourceFD *fds, uint32_t, uint64_t *, uint64_t fd, uint64_t) {
        fds[0] = {*reinterpret_cast<int *>(fd), CL_NEST_READ};
        return uint32_t{1};
    };
    static int asked;
    static CL_Source *next;  // mostly at the same address
    const auto end = [](CL_Source *source, int, uint32_t ready, uint64_t, uint64_t whole) {
        CL_ErrInfo scratch;
        EXPECT_EQ(ready, uint32_t{CL_NEST_ERROR});
        EXPECT_EQ(whole != 0 ? CL_DeleteNest(&scratch) : CL_DeleteSource(source, &scratch), 1u);
        const auto nothing = [](CL_SourceFD *, uint32_t, uint64_t *, uint64_t, uint64_t) {
            ++asked;
            return 0u;
        };
        asked = 0;
        if (whole != 0) CL_CreateNest(CL_PRIORITY_FIRST, 0, &scratch);
        next = CL_CreateSource(1, 0, nothing, dispatch, 0, 0, &scratch);
        return kDone;
    };
    for (const bool whole : {false, true}) {
        int fd = eventfd(0, EFD_CLOEXEC);
        ASSERT_EQ(dup2(fd, 500), 500);  // a number that nobody takes meanwhile
        close(std::exchange(fd, 500));
        CL_Source *source = CL_CreateSource(1, 0, ask, end, address(&fd), whole, &err);
        ASSERT_NE(source, nullptr) << err;
        close(fd);
        EXPECT_EQ(CL_CreateSource(1, 0, ask, end, address(&fd), 0, &err), nullptr);
        EXPECT_EQ(err.err, EBADF);
        EXPECT_EQ(CL_UpdateSource(source, &err), 0u);
        EXPECT_EQ(err.err, EBADF);
        fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(CL_UpdateSource(source, &err), 0u);
        EXPECT_EQ(err.err, EPERM);
        close(std::exchange(fd, 500));
        EXPECT_EQ(CL_EventLoop(&err), kDone) << err;
        EXPECT_EQ(asked, 1) << "in the name of the one before";
        EXPECT_EQ(CL_DeleteSource(next, &err), 1u) << err;
        EXPECT_EQ(CL_UpdateSource(source, &err), 0u);
        EXPECT_EQ(err.err, whole ? CL_ERR_STATE : EBADF);
        EXPECT_EQ(CL_DeleteSource(source, &err), whole ? 1u : 0u);
    }
    EXPECT_EQ(CL_DeleteNest(&err), 1u) << err;
    EXPECT_EQ(CL_CreateSource(1, 0, ask, end, 0, 0, &err), nullptr);
    EXPECT_EQ(err.err, CL_ERR_STATE);
    ASSERT_EQ(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err), 1u);
    EXPECT_EQ(CL_CreateSource(1, 0, nullptr, end, 0, 0, &err), nullptr);
    EXPECT_EQ(err.err, EFAULT);
    EXPECT_EQ(CL_CreateSource(1, 0, ask, nullptr, 0, 0, &err), nullptr);
    EXPECT_EQ(err.err, EFAULT);
    EXPECT_EQ(CL_CreateSource(CL_SOURCE_LIMIT + 1, 0, ask, end, 0, 0, &err), nullptr);
    EXPECT_EQ(err.err, EINVAL);
    const test::Plan plan{{.call = "malloc", .error = ENOMEM}};
    EXPECT_EQ(CL_CreateSource(1, 0, ask, end, 0, 0, &err), nullptr);
    EXPECT_EQ(err.err, ENOMEM);
}

}  // namespace
