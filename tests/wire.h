// What the tests of messages share: the other end of a connection as a raw socket, messages made by
// hand, blocks, and a client whose events are kept.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/folder.h"
#include "tests/support.h"

namespace test {

// `size` bytes that differ from those of another seed.
std::string pattern(size_t size, uint32_t seed = 1);

std::string wire_header(uint32_t length, uint32_t version = 0x00010001, uint32_t type = 7,
                        uint32_t sender = 4711);
std::string wire_message(std::string_view payload, uint32_t type = 7);

// One end of a local stream socket without the library; sends wait, receives do not.
class Socket {
  public:
    explicit Socket(int fd = -1) : fd_(fd) {}
    Socket(Socket &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Socket &operator=(Socket &&other) noexcept;
    ~Socket() { close(); }

    static Socket listening(const std::string &path, int backlog = 16);
    static Socket connected(const std::string &path);
    Socket accept() const;

    void send(std::string_view bytes) const;
    std::string receive(size_t most = SIZE_MAX) const;  // what is there now
    bool ended() const;                                 // the other side closed
    void close();
    int fd() const { return fd_; }

  private:
    int fd_;
};

// A message block of its own, its payload filled.
class Block {
  public:
    explicit Block(size_t payload = 0, uint32_t type = 7, uint32_t seed = 1);
    CL_MsgBlock *get() { return reinterpret_cast<CL_MsgBlock *>(words_.data()); }
    CL_MsgBlock *operator->() { return get(); }
    int32_t size() const { return size_; }
    int32_t length() const { return size_ - 40; }
    // What the peer is to receive.
    std::string message();
    bool queued() { return get()->link.owner != nullptr; }

  private:
    std::vector<uint64_t> words_;
    int32_t size_;
};

// The elements of a queue of blocks.
std::vector<CL_MsgBlock *> blocks_of(const CL_Queue &queue);

// A library whose loop can be run for one iteration, a raw listening socket to connect to, and the
// events of all objects made here. What a test leaves is deleted at its end, and then nothing may
// be left.
class Messaging : public Library {
  public:
    struct Heard {
        CL_Object *object;
        CL_Event event;
    };

  protected:
    void SetUp() override;
    void TearDown() override;

    // An object whose events are kept in `heard`; its callback returns what `reply` says.
    CL_Object *make(uint32_t kind) { return create(kind, call_action, keeper()); }
    // The argument with which call_action keeps an event.
    uint64_t keeper() const { return address(&keep_); }
    // A client connected to `peer`.
    CL_Object *connect();
    // Gives the client a new connection.
    void reconnect(CL_Object *object);
    void list(CL_Object *object, uint32_t priority = 20);
    // A deferred receive into `buffer`, which a guard follows.
    void await(CL_Object *object, int32_t capacity = kCapacity);
    std::string received() const { return {buffer.data(), static_cast<size_t>(kCapacity)}; }
    bool guard_intact() const;
    // Iterations of the loop; what it returned when it is not the one that was asked for.
    uint32_t iterate(int turns = 1);
    uint32_t disconnect(CL_Object *object) { return CL_DiscMSGC(object, nullptr, nullptr, &err); }
    // A block that is larger than the socket's room, sent in mode 2 and still queued.
    std::unique_ptr<Block> stuff(CL_Object *object);

    static constexpr int32_t kCapacity = 64;
    Folder folder;
    std::string path = folder.path("raw");
    Socket listener = Socket::listening(path);
    Socket peer;
    std::vector<char> buffer;
    std::vector<Heard> heard;
    Action reply;
    Balance before;

  private:
    Pipe always_;
    CL_Object *stopper_ = nullptr;
    int turns_ = 0;
    Action stop_ = [this](CL_Object *, CL_Event *) { return --turns_ > 0 ? 0u : 99u; };
    Action keep_ = [this](CL_Object *object, CL_Event *event) {
        heard.push_back({object, *event});
        return reply ? reply(object, event) : 0u;
    };
};

MATCHER_P(IsEvent, type, "") {
    return arg.event.type == static_cast<uint32_t>(type);
}

}  // namespace test
