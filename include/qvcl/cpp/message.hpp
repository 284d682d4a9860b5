// qvcl for C++: message servers and connections.
//
//     Task<> client(Connection c) {
//         for (;;) {
//             auto m = co_await c.receive();
//             if (!m || !co_await c.send(m->type + 1, m->payload)) co_return;
//         }
//     }
//
// The buffers are the connection's, never a task's: a message that is received is a view of the one
// for receiving, valid until the next receive, and what is sent is copied into a block. A
// connection reads while a task receives; a task that sends waits while all blocks are lent to the
// kernel's side. So a peer that does not read stops itself, and nobody else.
//
// A connection that has come to its end gives back its descriptor and its object at once, whether
// or not anybody looks; whoever receives or sends learns why.
#pragma once

#include <qvcl/client.h>
#include <qvcl/eventlist.h>
#include <qvcl/memory.h>
#include <qvcl/server.h>
#include <qvcl/cpp/runtime.hpp>
#include <qvcl/cpp/time.hpp>

#include <cstring>
#include <memory>
#include <span>
#include <string_view>

namespace qvcl {
inline namespace cpp {

/// A message that was received.
struct Message {
    uint32_t type = 0;                   ///< the sender's choice
    pid_t sender = 0;                    ///< as the sender says; peer() is as the kernel knows it
    std::span<const std::byte> payload;  ///< valid until the next receive

    /// The payload as a T: EBADMSG when it has not that size.
    template <class T>
    requires std::is_trivially_copyable_v<T> Result<T> as()
    const {
        if (payload.size() != sizeof(T)) return detail::failure("Message::as", EBADMSG);
        T value;
        memcpy(&value, payload.data(), sizeof value);
        return value;
    }
    /// The payload as characters.
    std::string_view text() const {
        return {reinterpret_cast<const char *>(payload.data()), payload.size()};
    }
};

/// What a connection is made with.
struct Limits {
    uint32_t message = 4096;  ///< bytes of the longest payload, in both directions
    uint32_t blocks = 4;      ///< messages that may be on their way out at a time; at least 1
    uint32_t priority = 50;   ///< place among the objects of the loop
};

/// The other side, as the kernel knows it.
struct Peer {
    pid_t pid;  ///< process
    uid_t uid;  ///< user
    gid_t gid;  ///< group
};

namespace detail {

// The bytes of what can be sent.
inline std::span<const std::byte> payload_of(std::span<const std::byte> bytes) {
    return bytes;
}
inline std::span<const std::byte> payload_of(std::string_view text) {
    return std::as_bytes(std::span(text.data(), text.size()));
}
template <class T>
concept Sendable = std::convertible_to<const T &, std::span<const std::byte>> ||
    std::convertible_to<const T &, std::string_view> ||
    (std::is_trivially_copyable_v<T> && !std::is_pointer_v<T> && !std::is_array_v<T>);
template <Sendable T>
std::span<const std::byte> bytes_of(const T &value) {
    if constexpr (std::convertible_to<const T &, std::span<const std::byte>>) {
        return payload_of(std::span<const std::byte>(value));
    } else if constexpr (std::convertible_to<const T &, std::string_view>) {
        return payload_of(std::string_view(value));
    } else {
        return std::as_bytes(std::span<const T, 1>(&value, 1));
    }
}

// Gives an object back, whatever state it is in.
inline void delete_object(CL_Object *&object, const Location &at) {
    if (object == nullptr) return;
    if ((object->status & CL_STATUS_LISTED) != 0)
        CL_DelEventList_M(object, nullptr, 0, at.file(), at.line());
    if (CL_DeleteFD_M(object, nullptr, 0, at.file(), at.line()) != 0) object = nullptr;
}

// The wait for the next message of a node; one task at a time.
template <class Of>
class [[nodiscard]] ReceiveOf : public Operation<ReceiveOf<Of>> {
  public:
    static constexpr char kOperation[] = "receive";
    ReceiveOf(Of *node, const Location &where)
        : Operation<ReceiveOf>(kOperation, where), node_(node) {}
    bool start() {
        if (node_ == nullptr) {
            this->error_ = record(EBADF);
        } else if (node_->template has<ReceiveOf>()) {
            this->error_ = record(EINPROGRESS);
        } else if (!node_->held && node_->end.err != 0) {
            this->error_ = node_->end;
        }
        if (this->failed()) return true;
        node_->waits.push_back(*this);
        if (!node_->held) node_->ask(this->at());
        return node_->held || this->finished();
    }
    Result<Message> finish() {
        if (this->failed()) return this->error();
        return node_->take();
    }

  private:
    Of *node_;
};

// A message that waits for room to be sent; any number, in their order.
template <class Of>
class [[nodiscard]] SendOf : public Operation<SendOf<Of>> {
  public:
    static constexpr char kOperation[] = "send";
    SendOf(Of *node, uint32_t type, std::span<const std::byte> payload, const Location &where)
        : Operation<SendOf>(kOperation, where), node_(node), type_(type), payload_(payload) {}
    bool start() {
        if (node_ == nullptr) {
            this->error_ = record(EBADF);
        } else if (node_->end.err != 0) {
            this->error_ = node_->end;
        } else if (payload_.size() > node_->longest()) {
            this->error_ = record(EMSGSIZE);
        }
        if (this->failed() || (node_->template first<SendOf>() == nullptr && put())) return true;
        node_->waits.push_back(*this);
        return false;
    }
    Result<> finish() { return this->error(); }
    // There may be room now. False: there is none.
    bool go_on() {
        if (!put()) return false;
        if (!this->finished()) this->complete();
        return true;
    }

  private:
    // True when it is on its way, or will never be.
    bool put() { return node_->put(type_, payload_, this->at(), this->error_); }

    Of *node_;
    uint32_t type_;
    std::span<const std::byte> payload_;
};

class ConnectionNode;
using Receive = ReceiveOf<ConnectionNode>;
using Send = SendOf<ConnectionNode>;
class Flush;
class Connect;

// A connection: its object, the buffer for receiving, and the blocks for sending.
class ConnectionNode final : public Node {
  public:
    ConnectionNode(const Limits &given, const Location &where) : limits(given), at(where) {}
    ~ConnectionNode() override {
        close(record(ECANCELED));
        release();
    }

    // Memory for the messages. The object is still to be had.
    CL_ErrInfo prepare() {
        if (limits.blocks == 0 || limits.message > INT32_MAX - sizeof(CL_MsgBlock))
            return record(EINVAL);
        const uint64_t size = receive_size() + uint64_t{limits.blocks} * block_size();
        memory_ = static_cast<char *>(CL_malloc_M(size, 0, at.file(), at.line()));
        if (memory_ == nullptr) return record(ENOMEM);
        CL_QUE_InitQT(&free_, offsetof(CL_MsgBlock, link));
        for (uint32_t i = 0; i < limits.blocks; ++i)
            CL_QUE_PutTail(&free_, memory_ + receive_size() + i * block_size());
        return {};
    }
    CL_ErrInfo list() {
        CL_ErrInfo err = {};
        CL_AddEventList_M(object, limits.priority, &err, 0, at.file(), at.line());
        return err;
    }

    static inline uint32_t on_event(CL_Object *object, CL_Event *event, uint64_t self,
                                    uint64_t arg2);

    // The end of the connection; the waits for it, and all later calls, fail with this.
    void close(const CL_ErrInfo &why) {
        if (end.err == 0) end = why;
        receiving = false;
        delete_object(object, at);
        cancel_all(end);
    }
    void release() override {
        close(record(CL_ERR_STATE));
        if (memory_ != nullptr) CL_free_M(memory_, 0, at.file(), at.line());
        memory_ = nullptr;
        held = false;
    }

    // Has the next message received.
    void ask(const Location &where) {
        if (receiving) return;
        CL_ErrInfo err = {};
        CL_RecvMSGC_M(object, memory_, static_cast<int32_t>(limits.message + CL_MSG_HEADER_SIZE),
                      CL_MODE_DEFERRED, 0, &err, 0, where.file(), where.line());
        receiving = err.err == CL_ERR_IN_PROGRESS;
        if (!receiving) close(err);
    }
    // Takes the message that is there.
    Message take() {
        held = false;
        CL_MsgHeader header;
        memcpy(&header, memory_, sizeof header);
        return {header.type, static_cast<pid_t>(header.sender),
                std::as_bytes(std::span(memory_ + sizeof header, header.length - sizeof header))};
    }

    uint64_t longest() const { return limits.message; }
    bool all_sent() const { return free_.count == limits.blocks; }
    // Copies a message into a free block, and sends it as far as it goes. False: none is free.
    bool put(uint32_t type, std::span<const std::byte> payload, const Location &where,
             CL_ErrInfo &error) {
        if (free_.count == 0) return false;
        auto *block = static_cast<CL_MsgBlock *>(CL_QUE_GetTop(&free_));
        block->header.type = type;
        if (!payload.empty()) memcpy(block + 1, payload.data(), payload.size());
        CL_ErrInfo err = {};
        CL_SendMSGC_M(object, block, static_cast<int32_t>(sizeof *block + payload.size()),
                      CL_MODE_IMMEDIATE, 0, &err, 0, where.file(), where.line());
        if (err.err == CL_ERR_IN_PROGRESS) return true;
        CL_QUE_PutTail(&free_, block);
        error = err;
        if (err.err != 0) close(err);
        return true;
    }

    CL_Object *object = nullptr;
    CL_ErrInfo end = {};  // why it is closed
    Limits limits;
    Location at;
    bool receiving = false;
    bool held = false;  // a message that nobody has taken
    bool connected = false;

  private:
    static constexpr uint64_t aligned(uint64_t size) { return (size + 7) / 8 * 8; }
    uint64_t receive_size() const { return aligned(CL_MSG_HEADER_SIZE + uint64_t{limits.message}); }
    uint64_t block_size() const { return aligned(sizeof(CL_MsgBlock) + uint64_t{limits.message}); }

    inline void take_back(void *block);

    char *memory_ = nullptr;
    CL_Queue free_ = {};
};

class [[nodiscard]] Flush : public Operation<Flush> {
  public:
    static constexpr char kOperation[] = "flush";
    Flush(ConnectionNode *node, const Location &where)
        : Operation(kOperation, where), node_(node) {}
    bool start() {
        if (node_ == nullptr) {
            error_ = record(EBADF);
        } else if (node_->end.err != 0) {
            error_ = node_->end;
        }
        if (failed() || node_->all_sent()) return true;
        node_->waits.push_back(*this);
        return false;
    }
    Result<> finish() { return error(); }

  private:
    ConnectionNode *node_;
};

}  // namespace detail

/// One end of a connection. It moves; destroying it closes it, and whoever waits for it gets
/// ECANCELED. One task receives at a time (EINPROGRESS); any number may send.
class Connection {
  public:
    /// Of no use: every call fails with EBADF.
    Connection() = default;

    /// Connects to the server at `path`. Result<Connection>.
    static inline detail::Connect connect(const char *path, const Limits &limits = {},
                                          Location at = {});

    /// Waits for the next message; the one before is invalid from now on. Result<Message>: EPIPE
    /// when the other side has closed, EMSGSIZE when it sent a message that is too long, EPROTO
    /// when it sent none; the connection has come to its end then.
    detail::Receive receive(Location at = {}) { return {node_.get(), at}; }

    /// Sends a message: bytes, text, or any T that can be copied as bytes. Waits while all blocks
    /// are lent; it is on its way afterwards. Result<>: EMSGSIZE when it is too long.
    template <detail::Sendable T>
    detail::Send send(uint32_t type, const T &payload, Location at = {}) {
        return {node_.get(), type, detail::bytes_of(payload), at};
    }
    /// Sends a message without payload.
    detail::Send send(uint32_t type, Location at = {}) { return {node_.get(), type, {}, at}; }

    /// Sends without waiting: EAGAIN when all blocks are lent, or somebody waits to send.
    template <detail::Sendable T>
    Result<> try_send(uint32_t type, const T &payload, Location at = {}) {
        detail::Send send(node_.get(), type, detail::bytes_of(payload), at);
        if (send.start()) return send.finish();
        return detail::failure("try_send", EAGAIN);
    }

    /// Waits until all that was sent is in the kernel's hands. Result<>.
    detail::Flush flush(Location at = {}) { return {node_.get(), at}; }

    /// Who is at the other side.
    inline Result<Peer> peer() const;

    /// Whether messages can be sent.
    bool is_open() const { return node_ != nullptr && node_->end.err == 0; }
    /// The object of the C interface, or null at the end.
    CL_Object *object() const { return node_ != nullptr ? node_->object : nullptr; }
    /// Closes it; unsent messages are dropped. Whoever waits gets ECANCELED.
    void close() {
        if (node_ != nullptr) node_->close(detail::record(ECANCELED));
    }

  private:
    friend class detail::Connect;
    friend class Server;
    explicit Connection(std::unique_ptr<detail::ConnectionNode> node) : node_(std::move(node)) {}

    std::unique_ptr<detail::ConnectionNode> node_;
};

namespace detail {

class [[nodiscard]] Connect : public Operation<Connect> {
  public:
    static constexpr char kOperation[] = "connect";
    Connect(const char *path, const Limits &limits, const Location &where)
        : Operation(kOperation, where), path_(path), limits_(limits) {}
    bool start() {
        node_.reset(new (std::nothrow) ConnectionNode(limits_, at()));
        error_ = node_ != nullptr ? begin() : record(ENOMEM);
        return failed();
    }
    Result<Connection> finish() {
        if (failed()) return error();
        return Connection(std::move(node_));
    }

  private:
    CL_ErrInfo begin() {
        CL_ErrInfo err = node_->prepare();
        if (err.err != 0) return err;
        node_->object = CL_CreateFD_M(CL_KIND_MSGC, ConnectionNode::on_event,
                                      reinterpret_cast<uint64_t>(node_.get()), 0, &err, 0,
                                      at().file(), at().line());
        if (node_->object == nullptr) return err;
        CL_CnctMSGC_M(node_->object, path_, CL_MODE_IMMEDIATE, 0, &err, 0, at().file(),
                      at().line());
        if (err.err != CL_ERR_IN_PROGRESS) return err;
        node_->waits.push_back(*this);
        return node_->list();
    }

    const char *path_;
    Limits limits_;
    std::unique_ptr<ConnectionNode> node_;
};

inline void ConnectionNode::take_back(void *block) {
    CL_QUE_PutTail(&free_, block);
    if (auto *send = first<Send>()) send->go_on();
    if (!all_sent()) return;
    while (auto *flush = first<Flush>())
        flush->complete();
}

inline uint32_t ConnectionNode::on_event(CL_Object * /*object*/, CL_Event *event, uint64_t self,
                                         uint64_t /*arg2*/) {
    auto &node = *reinterpret_cast<ConnectionNode *>(self);
    switch (event->type) {
        case CL_EVENT_MESSAGE:
            node.receiving = false;
            node.held = true;
            if (auto *wait = node.first<Receive>()) wait->complete();
            break;
        case CL_EVENT_SENT:
            node.take_back(event->data);
            break;
        case CL_EVENT_CONNECTED:
            if (auto *wait = node.first<Connect>()) wait->complete();
            break;
        default:
            // The unsent blocks leave the event's queue before their memory can go.
            CL_QUE_Clear(&event->queue);
            node.close(event->error);
    }
    return scheduler.drain();
}

class Accept;

// A server, listed while a task accepts.
class ServerNode final : public Node {
  public:
    ServerNode(uint32_t given, const Location &where) : retry_(*this), priority(given), at(where) {}
    ~ServerNode() override {
        close(record(ECANCELED));
        release();
    }

    static inline uint32_t on_event(CL_Object *object, CL_Event *event, uint64_t self,
                                    uint64_t arg2);

    CL_ErrInfo list() {
        CL_ErrInfo err = {};
        if ((object->status & CL_STATUS_LISTED) == 0)
            CL_AddEventList_M(object, priority, &err, 0, at.file(), at.line());
        return err;
    }
    void unlist() {
        if ((object->status & CL_STATUS_LISTED) != 0)
            CL_DelEventList_M(object, nullptr, 0, at.file(), at.line());
    }
    // No room for another connection: who comes waits, and it is tried again in a while.
    void rest() {
        unlist();
        const CL_ErrInfo err = retry_.start(CL_NEST_MONOTONIC, kRest, {}, at);
        if (err.err != 0) close(err);
    }
    inline void on_timer(uint64_t missed);

    void close(const CL_ErrInfo &why) {
        if (end.err == 0) end = why;
        retry_.stop();
        delete_object(object, at);
        cancel_all(end);
    }
    void release() override { close(record(CL_ERR_STATE)); }

  private:
    static constexpr std::chrono::milliseconds kRest{100};
    Timer<ServerNode> retry_;

  public:
    CL_Object *object = nullptr;
    CL_ErrInfo end = {};
    uint32_t priority;
    Location at;
};

}  // namespace detail

/// What a server is made with.
struct ServerOptions {
    uint32_t backlog = 128;  ///< of listen(2)
    uint32_t priority = 60;  ///< place among the objects of the loop
};

/// Listens at a path. It moves; destroying it closes it and removes the socket file.
class Server {
  public:
    /// Of no use: accept() fails with EBADF.
    Server() = default;

    /// Listens at `path`, as CL_OpenMSGS does: any file there is removed first, so the directory
    /// must be one that nobody else may write to.
    static inline Result<Server> listen(const char *path, const ServerOptions &options = {},
                                        Location at = {});

    /// Waits for somebody who connects. Result<Connection>. While objects, descriptors or memory
    /// are used up, it goes on waiting, and so do they.
    detail::Accept accept(const Limits &limits = {}, Location at = {});

    /// The object of the C interface, or null when it is closed.
    CL_Object *object() const { return node_ != nullptr ? node_->object : nullptr; }

  private:
    friend class detail::Accept;
    static Connection connection(std::unique_ptr<detail::ConnectionNode> node) {
        return Connection(std::move(node));
    }
    explicit Server(std::unique_ptr<detail::ServerNode> node) : node_(std::move(node)) {}

    std::unique_ptr<detail::ServerNode> node_;
};

namespace detail {

class [[nodiscard]] Accept : public Operation<Accept> {
  public:
    static constexpr char kOperation[] = "accept";
    Accept(ServerNode *node, const Limits &limits, const Location &where)
        : Operation(kOperation, where), server_(node), limits_(limits) {}
    bool start() {
        error_ = server_ == nullptr ? record(EBADF) : server_->end;
        if (failed()) return true;
        if (limits_.priority < CL_PRIORITY_FIRST || limits_.priority > CL_PRIORITY_LAST ||
            limits_.blocks == 0 || limits_.message > INT32_MAX - sizeof(CL_MsgBlock)) {
            error_ = record(EINVAL);
        } else {
            error_ = server_->list();
        }
        server_->waits.push_back(*this);
        return failed();
    }
    Result<Connection> finish() {
        if (failed()) return error();
        return Server::connection(std::move(accepted_));
    }
    // Somebody waits.
    void accept() {
        std::unique_ptr<ConnectionNode> node(new (std::nothrow) ConnectionNode(limits_, at()));
        CL_ErrInfo err = node != nullptr ? node->prepare() : record(ENOMEM);
        if (err.err == 0) {
            node->object = CL_AcceptMSGS_M(server_->object, ConnectionNode::on_event,
                                           reinterpret_cast<uint64_t>(node.get()), 0, &err, 0,
                                           at().file(), at().line());
        }
        if (err.err == EAGAIN || err.err == ECONNABORTED) return;
        if (err.err == 0) err = node->list();
        if (err.err != 0) {
            server_->rest();
            return;
        }
        accepted_ = std::move(node);
        complete();
    }

  private:
    ServerNode *server_;
    Limits limits_;
    std::unique_ptr<ConnectionNode> accepted_;
};

inline uint32_t ServerNode::on_event(CL_Object * /*object*/, CL_Event *event, uint64_t self,
                                     uint64_t /*arg2*/) {
    auto &node = *reinterpret_cast<ServerNode *>(self);
    if (event->type != CL_EVENT_CONNECTION) {
        node.close(event->error);
    } else if (auto *wait = node.first<Accept>()) {
        wait->accept();
    } else {
        node.unlist();
    }
    return scheduler.drain();
}

inline void ServerNode::on_timer(uint64_t /*missed*/) {
    if (first<Accept>() == nullptr) return;
    const CL_ErrInfo err = list();
    if (err.err != 0) close(err);
}

}  // namespace detail

inline detail::Connect Connection::connect(const char *path, const Limits &limits, Location at) {
    return {path, limits, at};
}

inline Result<Peer> Connection::peer() const {
    if (!is_open()) return detail::failure("peer", EBADF);
    ucred peer = {};
    socklen_t size = sizeof peer;
    if (getsockopt(node_->object->descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return detail::failure("peer", errno);
    return Peer{peer.pid, peer.uid, peer.gid};
}

inline Result<Server> Server::listen(const char *path, const ServerOptions &options, Location at) {
    std::unique_ptr<detail::ServerNode> node(new (std::nothrow)
                                                 detail::ServerNode(options.priority, at));
    if (node == nullptr) return detail::failure("listen", ENOMEM);
    if (options.priority < CL_PRIORITY_FIRST || options.priority > CL_PRIORITY_LAST)
        return detail::failure("listen", EINVAL);
    CL_ErrInfo err = {};
    node->object =
        CL_CreateFD_M(CL_KIND_MSGS, detail::ServerNode::on_event,
                      reinterpret_cast<uint64_t>(node.get()), 0, &err, 0, at.file(), at.line());
    if (node->object == nullptr) return Error("CL_CreateFD", err);
    if (CL_OpenMSGS_M(node->object, path, options.backlog, &err, 0, at.file(), at.line()) == 0)
        return Error("CL_OpenMSGS", err);
    return Server(std::move(node));
}

inline detail::Accept Server::accept(const Limits &limits, Location at) {
    return {node_.get(), limits, at};
}

}  // namespace cpp
}  // namespace qvcl
