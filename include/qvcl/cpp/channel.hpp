// qvcl for C++: channels, connections that read and write messages in bulk (channel.h).
//
// They are used as connections are (message.hpp), and the other side may be one. A channel takes no
// descriptor object, reads many messages at once, and writes at the end of the turn what was sent
// in it. While nobody receives it is paused, with one message kept.
#pragma once

#include <qvcl/channel.h>
#include <qvcl/cpp/message.hpp>

namespace qvcl {
inline namespace cpp {

/// What a channel is made with.
struct ChannelLimits {
    uint32_t message = 4096;                          ///< bytes of the longest payload received
    uint32_t receive_size = CL_CHANNEL_DEFAULT_SIZE;  ///< bytes of the buffer for reading
    uint32_t send_size = CL_CHANNEL_DEFAULT_SIZE;     ///< bytes of the buffer for sending
    uint32_t priority = 0;                            ///< in the nest
    std::chrono::nanoseconds idle_limit{0};           ///< without a byte received; 0: none
    std::chrono::nanoseconds message_limit{0};        ///< for the bytes of a message; 0: none
};

namespace detail {

class ChannelNode;
using ChannelReceive = ReceiveOf<ChannelNode>;
using ChannelSend = SendOf<ChannelNode>;

class ChannelNode final : public Node {
  public:
    ChannelNode(const ChannelLimits &given, const Location &where) : limits(given), at(where) {}
    ~ChannelNode() override {
        if (alive_ != nullptr) *alive_ = nullptr;
        close(record(ECANCELED));
        free_buffer();
    }

    CL_ErrInfo prepare() {
        const uint64_t size = sizeof(CL_MsgHeader) + uint64_t{limits.message};
        if (size > CL_CHANNEL_LIMIT_SIZE || limits.idle_limit.count() < 0 ||
            limits.message_limit.count() < 0)
            return record(EINVAL);
        if (limits.receive_size < size) limits.receive_size = static_cast<uint32_t>(size);
        buffer_ = static_cast<char *>(CL_malloc_M(size, 0, at.file(), at.line()));
        return buffer_ != nullptr ? CL_ErrInfo{} : record(ENOMEM);
    }
    CL_ChannelOptions options() const {
        CL_ChannelOptions result = {};
        result.message = on_message;
        result.drained = on_drained;
        result.closed = on_closed;
        result.priority = limits.priority;
        result.receive_size = limits.receive_size;
        result.send_size = limits.send_size;
        result.idle_limit = static_cast<uint64_t>(limits.idle_limit.count());
        result.message_limit = static_cast<uint64_t>(limits.message_limit.count());
        return result;
    }
    uint64_t self() { return reinterpret_cast<uint64_t>(this); }

    void close(const CL_ErrInfo &why) {
        if (end.err == 0) end = why;
        if (handle != nullptr) CL_DeleteChannel_M(handle, nullptr, 0, at.file(), at.line());
        handle = nullptr;
        cancel_all(end);
    }
    void free_buffer() {
        if (buffer_ != nullptr) CL_free_M(buffer_, 0, at.file(), at.line());
        buffer_ = nullptr;
        held = false;
    }
    void release() override {
        close(record(CL_ERR_STATE));
        free_buffer();
    }

    // Somebody receives.
    void ask(const Location &where) {
        if (!paused) return;
        CL_ErrInfo err = {};
        paused = CL_ResumeChannel_M(handle, &err, 0, where.file(), where.line()) == 0;
        if (paused) close(err);
    }
    uint64_t longest() const { return limits.send_size; }
    // Puts a message in the buffer. False: it is full.
    bool put(uint32_t type, std::span<const std::byte> payload, const Location &where,
             CL_ErrInfo &error) {
        CL_ErrInfo err = {};
        CL_SendChannel_M(handle, type, payload.data(), static_cast<uint32_t>(payload.size()), &err,
                         0, where.file(), where.line());
        if (err.err == EAGAIN) return false;
        error = err;
        return true;
    }
    Message take() {
        held = false;
        CL_MsgHeader header;
        memcpy(&header, buffer_, sizeof header);
        return {header.type, static_cast<pid_t>(header.sender),
                std::as_bytes(std::span(buffer_ + sizeof header, header.length - sizeof header))};
    }

    CL_Channel *handle = nullptr;
    CL_ErrInfo end = {};
    ChannelLimits limits;
    Location at;
    bool held = false;
    bool paused = false;

  private:
    static inline uint32_t on_message(CL_Channel *channel, const CL_MsgHeader *message,
                                      uint64_t self, uint64_t arg2);
    static inline uint32_t on_drained(CL_Channel *channel, uint64_t self, uint64_t arg2);
    static uint32_t on_closed(CL_Channel * /*channel*/, const CL_ErrInfo *reason, uint64_t self,
                              uint64_t /*arg2*/) {
        reinterpret_cast<ChannelNode *>(self)->close(*reason);
        return scheduler.drain();
    }

    // After a message was told: nobody waits for the next one, which would take its place.
    void pause() {
        if (handle == nullptr || paused || first<ChannelReceive>() != nullptr) return;
        CL_ErrInfo err = {};
        paused = CL_PauseChannel_M(handle, &err, 0, at.file(), at.line()) != 0;
        if (!paused) close(err);
    }

    char *buffer_ = nullptr;
    ChannelNode **alive_ = nullptr;  // of the callback that tells a message
};

inline uint32_t ChannelNode::on_message(CL_Channel * /*channel*/, const CL_MsgHeader *message,
                                        uint64_t self, uint64_t /*arg2*/) {
    auto &node = *reinterpret_cast<ChannelNode *>(self);
    if (message->length - sizeof *message > node.limits.message) {
        node.close(record(EMSGSIZE));
        return scheduler.drain();
    }
    memcpy(node.buffer_, message, message->length);
    node.held = true;
    if (auto *wait = node.first<ChannelReceive>()) wait->complete();
    ChannelNode *alive = &node;
    node.alive_ = &alive;
    const uint32_t result = scheduler.drain();
    if (alive == nullptr) return result;
    node.alive_ = nullptr;
    node.pause();
    return result;
}

inline uint32_t ChannelNode::on_drained(CL_Channel * /*channel*/, uint64_t self,
                                        uint64_t /*arg2*/) {
    auto &node = *reinterpret_cast<ChannelNode *>(self);
    for (auto *send = node.first<ChannelSend>(); send != nullptr && send->go_on();)
        send = node.first<ChannelSend>();
    return scheduler.drain();
}

}  // namespace detail

/// One end of a connection that works in bulk; used as a Connection is. It moves; destroying it
/// closes it, and drops what was not written: flush() before.
class Channel {
  public:
    /// Of no use: every call fails with EBADF.
    Channel() = default;

    /// Connects to the server at `path`, at once: channels or connections, the other side cannot
    /// tell.
    static Result<Channel> connect(const char *path, const ChannelLimits &limits = {},
                                   Location at = {}) {
        return make(
            "CL_ConnectChannel", limits, at,
            [&](detail::ChannelNode &node, const CL_ChannelOptions &options, CL_ErrInfo *err) {
                return CL_ConnectChannel_M(path, &options, node.self(), 0, err, 0, at.file(),
                                           at.line());
            });
    }
    /// Makes a channel of a connected stream socket, which is the channel's on success.
    static Result<Channel> adopt(int fd, const ChannelLimits &limits = {}, Location at = {}) {
        return make(
            "CL_CreateChannel", limits, at,
            [&](detail::ChannelNode &node, const CL_ChannelOptions &options, CL_ErrInfo *err) {
                return CL_CreateChannel_M(fd, &options, node.self(), 0, err, 0, at.file(),
                                          at.line());
            });
    }

    /// Waits for the next message; the one before is invalid from now on. Result<Message>: EPIPE
    /// when the other side has closed, EMSGSIZE, EPROTO, or ETIMEDOUT by its limits.
    detail::ChannelReceive receive(Location at = {}) { return {node_.get(), at}; }
    /// Puts a message in the buffer for sending; waits while that is full. Result<>.
    template <detail::Sendable T>
    detail::ChannelSend send(uint32_t type, const T &payload, Location at = {}) {
        return {node_.get(), type, detail::bytes_of(payload), at};
    }
    /// The same without payload.
    detail::ChannelSend send(uint32_t type, Location at = {}) {
        return {node_.get(), type, {}, at};
    }
    /// Writes now what was sent. EAGAIN when the socket is full: the rest follows in the loop.
    Result<> flush(Location at = {}) {
        CL_ErrInfo err = {};
        if (!is_open()) return detail::failure("flush", EBADF);
        if (CL_FlushChannel_M(node_->handle, &err, 0, at.file(), at.line()) != 0) return {};
        return Error("CL_FlushChannel", err);
    }
    /// Who is at the other side.
    Result<Peer> peer() const {
        CL_ErrInfo err = {};
        CL_ChannelPeer peer = {};
        if (!is_open()) return detail::failure("peer", EBADF);
        if (CL_GetChannelPeer(node_->handle, &peer, &err) == 0)
            return Error("CL_GetChannelPeer", err);
        return Peer{peer.pid, peer.uid, peer.gid};
    }
    /// Whether messages can be sent.
    bool is_open() const { return node_ != nullptr && node_->handle != nullptr; }
    /// The handle of the C interface, or null at the end.
    CL_Channel *handle() const { return node_ != nullptr ? node_->handle : nullptr; }
    /// Closes it. Whoever waits gets ECANCELED.
    void close() {
        if (node_ != nullptr) node_->close(detail::record(ECANCELED));
    }

  private:
    friend class ChannelServer;

    template <class Open>
    static Result<Channel> make(const char *operation, const ChannelLimits &limits,
                                const Location &at, Open open) {
        Channel channel;
        channel.node_.reset(new (std::nothrow) detail::ChannelNode(limits, at));
        CL_ErrInfo err =
            channel.node_ != nullptr ? channel.node_->prepare() : detail::record(ENOMEM);
        if (err.err != 0) return Error(operation, err);
        channel.node_->handle = open(*channel.node_, channel.node_->options(), &err);
        if (channel.node_->handle == nullptr) return Error(operation, err);
        return channel;
    }

    std::unique_ptr<detail::ChannelNode> node_;
};

/// Listens at a path, for channels. Destroying it closes it and removes the socket file.
class ChannelServer : private detail::Node {
  public:
    class Accept;

    /// Listens, as CL_CreateChannelListener does: any file there is removed first, so the directory
    /// must be one that nobody else may write to. A failure is told by accept().
    explicit ChannelServer(const char *path, uint32_t backlog = 128, Location at = {}) : at_(at) {
        listener_ = CL_CreateChannelListener_M(path, backlog, 0, on_waiting,
                                               reinterpret_cast<uint64_t>(this), 0, &end_, 0,
                                               at.file(), at.line());
    }
    ~ChannelServer() override { close(); }

    /// Waits for somebody who connects. Result<Channel>. While descriptors or memory are used up,
    /// it goes on waiting, and so do they.
    Accept accept(const ChannelLimits &limits = {}, Location at = {});

  private:
    static inline uint32_t on_waiting(CL_ChannelListener *listener, uint64_t self, uint64_t arg2);
    void close() {
        if (listener_ != nullptr)
            CL_DeleteChannelListener_M(listener_, nullptr, 0, at_.file(), at_.line());
        listener_ = nullptr;
    }
    void release() override {
        close();
        end_ = detail::record(CL_ERR_STATE);
        cancel_all(end_);
    }

    CL_ChannelListener *listener_ = nullptr;
    CL_ErrInfo end_ = {};
    Location at_;
};

/// The wait for somebody who connects.
class [[nodiscard]] ChannelServer::Accept : public detail::Operation<Accept> {
  public:
    static constexpr char kOperation[] = "accept";
    Accept(ChannelServer &server, const ChannelLimits &limits, const Location &at)
        : Operation(kOperation, at), server_(server), limits_(limits) {}
    bool start() {
        error_ = server_.end_;
        server_.waits.push_back(*this);
        return failed();
    }
    Result<Channel> finish() {
        if (failed()) return error();
        return std::move(accepted_);
    }
    // Somebody waits. Limits that are none fail the wait; the want of anything else does not.
    void accept() {
        auto channel = Channel::make(
            "CL_AcceptChannel", limits_, at(),
            [&](detail::ChannelNode &node, const CL_ChannelOptions &options, CL_ErrInfo *err) {
                return CL_AcceptChannel_M(server_.listener_, &options, node.self(), 0, err, 0,
                                          at().file(), at().line());
            });
        if (channel) {
            accepted_ = std::move(*channel);
            complete();
        } else if (channel.error() == EINVAL) {
            fail(channel.error().record());
        }
    }

  private:
    ChannelServer &server_;
    ChannelLimits limits_;
    Channel accepted_;
};

inline ChannelServer::Accept ChannelServer::accept(const ChannelLimits &limits, Location at) {
    return Accept(*this, limits, at);
}

inline uint32_t ChannelServer::on_waiting(CL_ChannelListener * /*listener*/, uint64_t self,
                                          uint64_t /*arg2*/) {
    if (auto *wait = reinterpret_cast<ChannelServer *>(self)->first<Accept>()) wait->accept();
    return detail::scheduler.drain();
}

}  // namespace cpp
}  // namespace qvcl
