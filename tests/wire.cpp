// See wire.h. Nothing here uses the library's layouts of what is on the wire.
#include "tests/wire.h"

#include <sys/socket.h>
#include <sys/un.h>

namespace test {

std::string pattern(size_t size, uint32_t seed) {
    std::string bytes(size, '\0');
    std::minstd_rand engine(seed);
    for (char &byte : bytes)
        byte = static_cast<char>(engine() >> 8);
    return bytes;
}

namespace {

void put(std::string &bytes, uint32_t number) {
    for (int shift = 0; shift < 32; shift += 8)
        bytes.push_back(static_cast<char>(number >> shift));
}

sockaddr_un address_at(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

using Setup = int (*)(int, const sockaddr *, socklen_t);

Socket make_socket(const std::string &path, Setup setup) {
    Socket made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = address_at(path);
    EXPECT_EQ(setup(made.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0)
        << path << ": " << strerror(errno);
    return made;
}

}  // namespace

std::string wire_header(uint32_t length, uint32_t version, uint32_t type, uint32_t sender) {
    std::string bytes;
    put(bytes, length);
    put(bytes, version);
    put(bytes, sender);
    put(bytes, type);
    return bytes;
}

std::string wire_message(std::string_view payload, uint32_t type) {
    return wire_header(static_cast<uint32_t>(payload.size()) + 16, 0x00010001, type) +
           std::string(payload);
}

Socket &Socket::operator=(Socket &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
}

Socket Socket::listening(const std::string &path, int backlog) {
    Socket made = make_socket(path, ::bind);
    EXPECT_EQ(listen(made.fd(), backlog), 0);
    return made;
}

Socket Socket::connected(const std::string &path) {
    return make_socket(path, ::connect);
}

Socket Socket::accept() const {
    return Socket(accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
}

void Socket::send(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        ASSERT_GE(sent, 0) << strerror(errno);
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
}

std::string Socket::receive(size_t most) const {
    std::string bytes;
    std::vector<char> part(65536);
    while (bytes.size() < most) {
        const size_t wanted = std::min(part.size(), most - bytes.size());
        const ssize_t got = recv(fd_, part.data(), wanted, MSG_DONTWAIT);
        if (got <= 0) break;
        bytes.append(part.data(), static_cast<size_t>(got));
    }
    return bytes;
}

bool Socket::ended() const {
    char byte;
    const ssize_t got = recv(fd_, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
    return got == 0 || (got < 0 && errno == ECONNRESET);
}

void Socket::close() {
    if (fd_ != -1) ::close(fd_);
    fd_ = -1;
}

Block::Block(size_t payload, uint32_t type, uint32_t seed)
    : words_((56 + payload + 7) / 8), size_(static_cast<int32_t>(56 + payload)) {
    get()->header.type = type;
    pattern(payload, seed).copy(reinterpret_cast<char *>(get() + 1), payload);
}

std::string Block::message() {
    std::string bytes;
    put(bytes, static_cast<uint32_t>(length()));
    put(bytes, 0x00010001);
    put(bytes, static_cast<uint32_t>(getpid()));
    const auto *at = reinterpret_cast<const char *>(words_.data());
    return bytes.append(at + 52, static_cast<size_t>(size_) - 52);
}

std::vector<CL_MsgBlock *> blocks_of(const CL_Queue &queue) {
    std::vector<CL_MsgBlock *> blocks;
    for (auto *block = static_cast<CL_MsgBlock *>(queue.head); block != nullptr;
         block = static_cast<CL_MsgBlock *>(block->link.next)) {
        EXPECT_EQ(block->link.owner, &queue);
        blocks.push_back(block);
    }
    EXPECT_EQ(blocks.size(), queue.count);
    return blocks;
}

void Messaging::SetUp() {
    Library::SetUp();
    buffer.assign(kCapacity + 16, '#');
    always_.fill();
    before = Balance::now();
    stopper_ = watch(always_.out(), &stop_, CL_PRIORITY_LAST);
}

void Messaging::TearDown() {
    while (CL_MainTable->used_queue.head != nullptr) {
        auto *object = static_cast<CL_Object *>(CL_MainTable->used_queue.head);
        ASSERT_EQ(CL_DeleteFD_M(object, &err, 1, "test", 1), 1u) << err;
    }
    peer.close();
    EXPECT_EQ(Balance::now(), before);
}

CL_Object *Messaging::connect() {
    CL_Object *object = make(CL_KIND_MSGC);
    reconnect(object);
    return object;
}

void Messaging::reconnect(CL_Object *object) {
    if ((object->status & CL_STATUS_READY) != 0) {
        EXPECT_EQ(disconnect(object), 1u) << err;
    }
    EXPECT_EQ(CL_CnctMSGC(object, path.c_str(), CL_MODE_SYNC, &err), 1u) << err;
    peer = listener.accept();
    buffer.assign(buffer.size(), '#');
    heard.clear();
}

void Messaging::list(CL_Object *object, uint32_t priority) {
    EXPECT_EQ(CL_AddEventList(object, priority, &err), 1u) << err;
}

void Messaging::await(CL_Object *object, int32_t capacity) {
    EXPECT_EQ(CL_RecvMSGC(object, buffer.data(), capacity, CL_MODE_DEFERRED, 0, &err), -1);
    EXPECT_EQ(err.err, uint32_t{CL_ERR_IN_PROGRESS}) << err;
}

bool Messaging::guard_intact() const {
    return std::all_of(buffer.begin() + kCapacity, buffer.end(), [](char c) { return c == '#'; });
}

uint32_t Messaging::iterate(int turns) {
    turns_ = turns;
    const uint32_t result = CL_EventLoop(&err);
    return result == 99 ? 0 : result;
}

std::unique_ptr<Block> Messaging::stuff(CL_Object *object) {
    auto block = std::make_unique<Block>(size_t{1} << 20);
    EXPECT_EQ(CL_SendMSGC(object, block->get(), block->size(), CL_MODE_IMMEDIATE, 0, &err), -1);
    EXPECT_EQ(err.err, uint32_t{CL_ERR_IN_PROGRESS}) << err;
    return block;
}

}  // namespace test
