// Channels: turns, reading, writing, the end.
//
// Bytes to be told lie in `in` from begin to end; a message that is not complete moves to the front
// before the next read. Bytes to be written are `used` bytes of the ring `out` from head on.
//
// What the socket takes is asked for once it has said no (`blocked`), and only then.
#include <pthread.h>
#include <qvcl/qvcl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <cerrno>

#include "core/text.h"
#include "msg/socket.h"
#include "starter/channel.h"

namespace qvcl::channel {

namespace {

constexpr Failure fail{place(__FILE__)};
constexpr uint32_t kHeader = CL_MSG_HEADER_SIZE;
constexpr uint32_t kAligned = 8;
constexpr uint64_t kLongest = uint64_t{1} << 62;

struct Channel : Member {
    CL_ChannelOptions options;
    CL_ChannelPeer peer;
    CL_ErrInfo reason;  // why it is at its end; err 0: it is not
    CL_ErrInfo broken;  // why nothing can be written any more; err 0: it can
    uint32_t events;    // of the watch
    bool paused;
    bool backlog;      // what was read is not all told
    bool blocked;      // the socket was full
    uint32_t refused;  // bytes of a message that found no room; 0: none since the last call
    uint64_t heard;    // when bytes came, where there is a limit
    uint64_t begun;    // when those of the message that is not complete came; 0: there is none

    char *in;
    uint32_t begin;
    uint32_t end;
    char *out;
    uint32_t head;
    uint32_t used;
    uint32_t gathered;  // messages since the last write
};

CL_Channel *handle_of(const Channel &channel) {
    return reinterpret_cast<CL_Channel *>(channel.handle);
}

// --- The sender ---

// Asked for once, and again after a fork.
uint32_t own_pid;

void forget_pid() {
    own_pid = 0;
}

uint32_t sender() {
    static const bool told_of_forks = pthread_atfork(nullptr, nullptr, forget_pid) == 0;
    if (own_pid == 0 || !told_of_forks) own_pid = CL_GetPid();
    return own_pid;
}

// --- Turns ---

struct {
    nest::Handles handles;
    uint32_t live;
    uint64_t nests;       // of the timer
    CL_NestTimer *timer;  // null: none
    bool in_turn;
    bool started;  // the timer
    Link due;      // channels that need a turn
    Member *gone;  // deleted in this turn
} turns;

bool is_empty(const Link &list) {
    return list.next == nullptr || list.next == &list;
}

void unlink(Link &link) {
    if (link.next == nullptr) return;
    link.previous->next = link.next;
    link.next->previous = link.previous;
    link = {};
}

void append(Link &list, Link &link) {
    if (list.next == nullptr) list = {&list, &list};
    link = {list.previous, &list};
    link.previous->next = &link;
    list.previous = &link;
}

Channel *take_first(Link &list) {
    if (is_empty(list)) return nullptr;
    auto *channel = static_cast<Channel *>(reinterpret_cast<Member *>(list.next));
    unlink(channel->link);
    return channel;
}

bool start_timer(CL_ErrInfo *err) {
    if (!turns.started)
        turns.started = CL_StartNestTimer(turns.timer, CL_NEST_MONOTONIC, 0, 0, err) != 0;
    return turns.started;
}

// Gives the channel a turn: at the end of the one that runs, or soon. False with err filled.
bool enlist(Channel &channel, CL_ErrInfo *err) {
    if (channel.link.next != nullptr) return true;
    if (!turns.in_turn && !start_timer(err)) return false;
    append(turns.due, channel.link);
    return true;
}

uint32_t read_some(Channel &channel);

// Whether there is something to read, or to tell, that the watch will not tell of.
bool reads_again(const Channel &channel) {
    if (channel.paused || channel.reason.err != 0) return false;
    return channel.backlog || channel.broken.err != 0;
}

uint32_t on_timer(CL_NestTimer * /*timer*/, uint64_t /*missed*/, uint64_t /*arg1*/,
                  uint64_t /*arg2*/) {
    begin_turn();
    turns.started = false;
    Link now = {};
    while (Channel *channel = take_first(turns.due))
        append(now, channel->link);
    uint32_t result = 0;
    while (Channel *channel = take_first(now)) {
        if (gone(*channel)) continue;
        append(turns.due, channel->link);
        if (result == 0 && reads_again(*channel)) result = read_some(*channel);
    }
    return finish_turn(result);
}

// The timer of this nest.
bool have_timer(CL_ErrInfo *err) {
    if (turns.timer != nullptr && turns.nests == nest::deleted) return true;
    while (take_first(turns.due) != nullptr) {
    }
    turns.started = false;
    turns.nests = nest::deleted;
    turns.timer = CL_CreateNestTimer(0, on_timer, 0, 0, err);
    return turns.timer != nullptr;
}

// Releases what was deleted; with the last one the timer and the table of handles.
void clear_up() {
    while (Member *member = turns.gone) {
        turns.gone = member->next_gone;
        CL_free_M(member, 0, CL_FILE_LINE);
    }
    if (turns.live != 0) return;
    if (turns.timer != nullptr && turns.nests == nest::deleted)
        CL_DeleteNestTimer(turns.timer, nullptr);
    turns.timer = nullptr;
    turns.started = false;
    turns.handles.free_all();
    turns.handles = {};
}

}  // namespace

Member *make_member(const Failure &told, nest::Kind kind, size_t size, CL_ErrInfo *err,
                    const char *file, uint32_t line) {
    auto *member = static_cast<Member *>(CL_malloc_M(size, 0, file, line));
    if (member == nullptr) return told(err, ENOMEM);
    member->handle = turns.handles.take(kind, {.arg1 = address_of(member)}, file, line);
    if (member->handle == nullptr) {
        CL_free_M(member, 0, file, line);
        return told(err, ENOMEM);
    }
    member->nests = nest::deleted;
    member->fd = -1;
    ++turns.live;
    if (have_timer(err)) return member;
    delete_member(*member);
    return nullptr;
}

void release(Member &member) {
    if (member.nests == nest::deleted) {
        if (member.watch != nullptr) CL_DeleteNestWatch(member.watch, nullptr);
        if (member.timer != nullptr) CL_DeleteNestTimer(member.timer, nullptr);
    }
    member.watch = nullptr;
    member.timer = nullptr;
    if (member.fd != -1) cl_u_close(member.fd);
    member.fd = -1;
}

void delete_member(Member &member) {
    release(member);
    unlink(member.link);
    turns.handles.give_back(member.handle);
    member.handle = nullptr;
    --turns.live;
    member.next_gone = turns.gone;
    turns.gone = &member;
    if (!turns.in_turn) clear_up();
}

Member *any_member(const Failure &told, const void *handle, nest::Kind kind, CL_ErrInfo *err,
                   uint32_t line) {
    if (turns.handles.has(handle, kind))
        return reinterpret_cast<Member *>(static_cast<const nest::Handle *>(handle)->calls.arg1);
    told.because(Reason::not_live)(err, EBADF, line);
    return nullptr;
}

Member *live_member(const Failure &told, const void *handle, nest::Kind kind, CL_ErrInfo *err,
                    uint32_t line) {
    if (nest::existing(told, err, line) == nullptr) return nullptr;
    Member *member = any_member(told, handle, kind, err, line);
    if (member == nullptr || member->nests == nest::deleted) return member;
    told.because(Reason::not_open)(err, CL_ERR_STATE, line);
    return nullptr;
}

// --- Reading ---

namespace {

// A message ends the channel by the same rules as it ends a message connection.
bool is_fine(Channel &channel, const CL_MsgHeader &header) {
    const auto length = static_cast<int32_t>(header.length);
    if (length > static_cast<int32_t>(channel.options.receive_size))
        return fail(&channel.reason, EMSGSIZE);
    if (header.version != CL_MSG_VERSION || length < CL_MSG_HEADER_SIZE)
        return fail(&channel.reason, EPROTO);
    return true;
}

bool has_limit(const Channel &channel) {
    return channel.timer != nullptr;
}

void receive(Channel &channel) {
    const uint32_t held = channel.end - channel.begin;
    if (channel.begin != 0 && held != 0) memmove(channel.in, channel.in + channel.begin, held);
    channel.begin = 0;
    channel.end = held;
    const ssize_t got =
        recv(channel.fd, channel.in + held, channel.options.receive_size - held, MSG_DONTWAIT);
    if (got > 0) {
        channel.end += static_cast<uint32_t>(got);
        if (has_limit(channel)) channel.heard = CL_NestTime(CL_NEST_MONOTONIC);
    } else if (got == 0) {
        fail(&channel.reason, EPIPE);
    } else if (errno != EAGAIN && errno != EINTR) {
        fail.sys(&channel.reason);
    } else if (errno == EINTR || channel.broken.err == 0) {
        return;
    }
    if (got <= 0 && channel.broken.err != 0) channel.reason = channel.broken;
}

// The message at `begin`, moved down to an aligned address if it is not there: the bytes in front
// of it were told before.
const CL_MsgHeader *aligned(Channel &channel, uint32_t length) {
    const uint32_t off = channel.begin % kAligned;
    if (off != 0) {
        char *from = channel.in + channel.begin;
        memmove(from - off, from, length);
    }
    return reinterpret_cast<const CL_MsgHeader *>(channel.in + channel.begin - off);
}

// Tells messages, and how many they were.
uint32_t tell_messages(Channel &channel, uint32_t &count) {
    uint32_t result = 0;
    channel.backlog = false;
    while (channel.end - channel.begin >= kHeader) {
        if (result != 0 || channel.paused || count == channel.options.most) {
            channel.backlog = true;
            break;
        }
        CL_MsgHeader header;
        memcpy(&header, channel.in + channel.begin, kHeader);
        if (!is_fine(channel, header) || channel.end - channel.begin < header.length) break;
        const CL_MsgHeader *message = aligned(channel, header.length);
        channel.begin += header.length;
        ++count;
        result = channel.options.message(handle_of(channel), message, channel.arg1, channel.arg2);
        if (gone(channel)) break;
    }
    return result;
}

// One read, unless what was read before is not all told, and what there is to tell.
uint32_t read_some(Channel &channel) {
    if (channel.paused || channel.reason.err != 0) return 0;
    if (!channel.backlog) receive(channel);
    if (channel.end - channel.begin < kHeader) {
        channel.backlog = false;
        if (channel.begun == 0 && channel.end != channel.begin) channel.begun = channel.heard;
        return 0;
    }
    uint32_t count = 0;
    nest::Told batch =
        told(channel, CL_EVENT_CHANNEL_READ, nest::any_function(channel.options.message));
    const uint32_t result = batch.length(channel.end - channel.begin).call([&] {
        const uint32_t ended_with = tell_messages(channel, count);
        batch.exit(0, count);
        return ended_with;
    });
    if (gone(channel)) return result;
    if (channel.end == channel.begin) {
        channel.begun = 0;
    } else if (channel.begun == 0 || count != 0) {
        channel.begun = channel.heard;
    }
    return result;
}

// --- Writing ---

// A channel whose other side takes no more has what that has sent still to tell; any other error is
// its end.
void break_off(Channel &channel) {
    const bool peer_left = errno == EPIPE || errno == ECONNRESET;
    fail.sys(&channel.broken);
    if (!peer_left) channel.reason = channel.broken;
    channel.used = 0;
}

ssize_t write_ring(const Channel &channel) {
    char *from = channel.out + channel.head;
    const uint32_t behind = channel.options.send_size - channel.head;
    constexpr int kFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
    if (channel.used <= behind) return send(channel.fd, from, channel.used, kFlags);
    struct iovec parts[2] = {{from, behind}, {channel.out, channel.used - behind}};
    struct msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    return sendmsg(channel.fd, &message, kFlags);
}

void write_gathered(Channel &channel) {
    if (channel.used == 0 || channel.blocked) return;
    nest::Told batch = told(channel, CL_EVENT_CHANNEL_WRITE, nullptr);
    batch.length(channel.used).exit(0, channel.gathered).call([&] {
        const ssize_t written = write_ring(channel);
        batch.length(written);
        if (written >= 0) {
            const uint32_t size = channel.options.send_size;
            channel.used -= static_cast<uint32_t>(written);
            channel.head =
                static_cast<uint32_t>((channel.head + static_cast<uint64_t>(written)) % size);
            if (channel.used == 0) channel.head = 0;
            channel.blocked = channel.used != 0;
            channel.gathered = 0;
        } else if (errno == EAGAIN) {
            channel.blocked = true;
        } else if (errno != EINTR) {
            break_off(channel);
        }
        return 0u;
    });
}

uint32_t room(const Channel &channel) {
    return channel.options.send_size - channel.used;
}

void put_bytes(Channel &channel, const void *from, uint32_t length) {
    const uint32_t size = channel.options.send_size;
    uint32_t at = channel.head + channel.used;
    if (at >= size) at -= size;
    const uint32_t first = length < size - at ? length : size - at;
    memcpy(channel.out + at, from, first);
    if (first < length)
        memcpy(channel.out, static_cast<const char *>(from) + first, length - first);
    channel.used += length;
}

void put(Channel &channel, const CL_MsgHeader &header, const void *payload, uint32_t size) {
    const uint32_t at = channel.head + channel.used;
    if (at + uint64_t{header.length} <= channel.options.send_size) {
        memcpy(channel.out + at, &header, sizeof header);
        if (size != 0) memcpy(channel.out + at + sizeof header, payload, size);
        channel.used += header.length;
    } else {
        put_bytes(channel, &header, sizeof header);
        if (size != 0) put_bytes(channel, payload, size);
    }
}

// --- The end of a turn ---

// Has the watch tell what is waited for. False with err filled.
bool set_watch(Channel &channel, CL_ErrInfo *err) {
    const uint32_t events = (channel.paused ? 0u : uint32_t{CL_NEST_READ}) |
                            (channel.blocked ? uint32_t{CL_NEST_WRITE} : 0u);
    if (events == channel.events) return true;
    if (CL_ChangeNestWatch(channel.watch, events, err) == 0) return false;
    channel.events = events;
    return true;
}

bool wants_close(const Channel &channel) {
    return channel.reason.err != 0 && channel.fd != -1;
}

bool wants_drained(const Channel &channel) {
    if (channel.refused == 0) return false;
    const uint32_t half = channel.options.send_size / 2;
    return room(channel) >= (channel.refused > half ? channel.refused : half);
}

uint32_t close_channel(Channel &channel) {
    release(channel);
    channel.used = 0;  // or it would wait for turns to write them
    channel.refused = 0;
    return told(channel, CL_EVENT_CHANNEL_CLOSED, nest::any_function(channel.options.closed))
        .exit(0, channel.reason.err)
        .call(channel.options.closed, handle_of(channel), &channel.reason, channel.arg1,
              channel.arg2);
}

uint32_t tell_drained(Channel &channel) {
    channel.refused = 0;
    if (channel.options.drained == nullptr) return 0;
    return told(channel, CL_EVENT_CHANNEL_DRAINED, nest::any_function(channel.options.drained))
        .length(room(channel))
        .call(channel.options.drained, handle_of(channel), channel.arg1, channel.arg2);
}

// Writes; then tells what there is to tell, unless the loop is to end, and returns that result.
uint32_t settle(Channel &channel, uint32_t result) {
    write_gathered(channel);
    if (channel.reason.err == 0) set_watch(channel, &channel.reason);
    if (result != 0) return result;
    if (wants_close(channel)) return close_channel(channel);
    if (wants_drained(channel)) return tell_drained(channel);
    return 0;
}

}  // namespace

void begin_turn() {
    turns.in_turn = true;
}

uint32_t finish_turn(uint32_t result) {
    Link later = {};
    while (Channel *channel = take_first(turns.due)) {
        if (gone(*channel)) continue;
        result = settle(*channel, result);
        if (gone(*channel) || channel->link.next != nullptr) continue;
        if (reads_again(*channel) || wants_close(*channel) || wants_drained(*channel) ||
            (channel->used != 0 && !channel->blocked)) {
            append(later, channel->link);
        }
    }
    while (Channel *channel = take_first(later))
        append(turns.due, channel->link);
    turns.in_turn = false;
    if (!is_empty(turns.due) && turns.nests == nest::deleted) start_timer(nullptr);
    clear_up();
    return result;
}

namespace {

uint32_t on_watch(CL_NestWatch * /*watch*/, uint32_t ready, uint64_t arg1, uint64_t /*arg2*/) {
    auto &channel = *reinterpret_cast<Channel *>(arg1);
    begin_turn();
    enlist(channel, nullptr);
    if (ready != CL_NEST_READ) channel.blocked = false;
    return finish_turn(ready != CL_NEST_WRITE ? read_some(channel) : 0);
}

// --- Time limits ---

// When the limits are reached unless something comes; what does not count now counts from now on.
uint64_t limit_of(const Channel &channel, uint64_t now) {
    const bool waits = channel.paused || channel.backlog;
    const uint64_t heard = waits ? now : channel.heard;
    const uint64_t begun = waits || channel.begun == 0 ? now : channel.begun;
    uint64_t at = UINT64_MAX;
    if (channel.options.idle_limit != 0) at = heard + channel.options.idle_limit;
    if (channel.options.message_limit != 0 && begun + channel.options.message_limit < at)
        at = begun + channel.options.message_limit;
    return at;
}

bool start_limit(Channel &channel, uint64_t at, CL_ErrInfo *err) {
    return CL_StartNestTimer(channel.timer, CL_NEST_MONOTONIC | CL_NEST_ABSOLUTE, at, 0, err) != 0;
}

// A loop that was late finds in the socket what came in time.
uint32_t on_limit(CL_NestTimer * /*timer*/, uint64_t /*missed*/, uint64_t arg1, uint64_t /*arg2*/) {
    auto &channel = *reinterpret_cast<Channel *>(arg1);
    begin_turn();
    enlist(channel, nullptr);
    const uint64_t now = CL_NestTime(CL_NEST_MONOTONIC);
    uint32_t result = 0;
    if (limit_of(channel, now) <= now) result = read_some(channel);
    if (!gone(channel) && channel.reason.err == 0) {
        const uint64_t at = limit_of(channel, now);
        if (at <= now) {
            fail(&channel.reason, ETIMEDOUT);
        } else {
            start_limit(channel, at, &channel.reason);
        }
    }
    return finish_turn(result);
}

// --- Making one ---

bool is_size(uint32_t size) {
    return size == 0 || (size >= kHeader && size <= CL_CHANNEL_LIMIT_SIZE);
}

bool options_fine(const CL_ChannelOptions *options, CL_ErrInfo *err) {
    if (options == nullptr || options->message == nullptr || options->closed == nullptr)
        return fail(err, EFAULT);
    if (!is_size(options->receive_size) || !is_size(options->send_size)) return fail(err, EINVAL);
    if (options->idle_limit > kLongest || options->message_limit > kLongest)
        return fail(err, EINVAL);
    return true;
}

uint32_t or_default(uint32_t value, uint32_t instead) {
    return value != 0 ? value : instead;
}

Channel *allocate(const CL_ChannelOptions &given, CL_ErrInfo *err, const char *file,
                  uint32_t line) {
    CL_ChannelOptions options = given;
    options.receive_size = or_default(given.receive_size, CL_CHANNEL_DEFAULT_SIZE);
    options.send_size = or_default(given.send_size, CL_CHANNEL_DEFAULT_SIZE);
    options.most = or_default(given.most, CL_CHANNEL_DEFAULT_MOST);
    const size_t size =
        sizeof(Channel) + kAligned + size_t{options.receive_size} + options.send_size;
    auto *channel = static_cast<Channel *>(make_member(fail, kChannel, size, err, file, line));
    if (channel == nullptr) return nullptr;
    channel->options = options;
    channel->in = reinterpret_cast<char *>(channel + 1);
    channel->in += (kAligned - address_of(channel->in) % kAligned) % kAligned;
    channel->out = channel->in + options.receive_size;
    return channel;
}

// Who is there. False with err filled: this is no connection.
bool find_peer(Channel &channel, int fd, CL_ErrInfo *err) {
    int type = 0;
    socklen_t size = sizeof type;
    if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0) return fail.sys(err);
    if (type != SOCK_STREAM) return fail(err, EINVAL);
    struct sockaddr_storage address;
    size = sizeof address;
    if (getpeername(fd, reinterpret_cast<struct sockaddr *>(&address), &size) != 0)
        return fail.sys(err);
    struct ucred peer = {};
    size = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return fail.sys(err);
    channel.peer = {peer.pid, peer.uid, peer.gid};
    return true;
}

// The watch and the time limits.
bool begin(Channel &channel, int fd, CL_ErrInfo *err, uint8_t callerFlag, const char *file,
           uint32_t line) {
    const CL_ChannelOptions &options = channel.options;
    const uint64_t self = address_of(&channel);
    channel.events = CL_NEST_READ;
    channel.watch = CL_CreateNestWatch_M(fd, channel.events, options.priority, on_watch, self, 0,
                                         err, callerFlag, file, line);
    if (channel.watch == nullptr) return false;
    if (options.idle_limit == 0 && options.message_limit == 0) return true;
    channel.timer =
        CL_CreateNestTimer_M(options.priority, on_limit, self, 0, err, callerFlag, file, line);
    if (channel.timer == nullptr) return false;
    channel.heard = CL_NestTime(CL_NEST_MONOTONIC);
    return start_limit(channel, limit_of(channel, channel.heard), err);
}

Channel *open_channel(const CL_Channel *handle, CL_ErrInfo *err, uint32_t line = __builtin_LINE()) {
    auto *channel = static_cast<Channel *>(live_member(fail, handle, kChannel, err, line));
    if (channel == nullptr || (channel->fd != -1 && channel->reason.err == 0)) return channel;
    fail.because(Reason::not_open)(err, EBADF, line);
    return nullptr;
}

int connect_to(const char *path, CL_ErrInfo *err) {
    const int fd = cl_u_socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd == -1) {
        fail.sys(err);
        return -1;
    }
    const struct sockaddr_un address = socket_address(path);
    if (cl_u_connect(fd, generic(address), sizeof address) == 0) return fd;
    fail.sys(err);
    cl_u_close(fd);
    return -1;
}

}  // namespace

}  // namespace qvcl::channel

using namespace qvcl::channel;
using qvcl::nest::existing;
using qvcl::nest::Report;

extern "C" CL_Channel *CL_CreateChannel_M(int fd, const CL_ChannelOptions *options, uint64_t arg1,
                                          uint64_t arg2, CL_ErrInfo *err, uint8_t callerFlag,
                                          const char *file, uint32_t line) {
    const Report report(err);
    if (existing(fail, report) == nullptr || !options_fine(options, report)) return nullptr;
    Channel *channel = allocate(*options, report, file, line);
    if (channel == nullptr) return nullptr;
    channel->arg1 = arg1;
    channel->arg2 = arg2;
    if (!find_peer(*channel, fd, report) || !begin(*channel, fd, report, callerFlag, file, line)) {
        delete_member(*channel);
        return nullptr;
    }
    channel->fd = fd;
    return handle_of(*channel);
}

extern "C" CL_Channel *CL_ConnectChannel_M(const char *path, const CL_ChannelOptions *options,
                                           uint64_t arg1, uint64_t arg2, CL_ErrInfo *err,
                                           uint8_t callerFlag, const char *file, uint32_t line) {
    const Report report(err);
    if (existing(fail, report) == nullptr) return nullptr;
    if (path == nullptr) return fail(report, EFAULT);
    if (qvcl::path_too_long(path)) return fail(report, ENAMETOOLONG);
    if (!options_fine(options, report)) return nullptr;
    const int fd = connect_to(path, report);
    if (fd == -1) return nullptr;
    CL_Channel *channel =
        CL_CreateChannel_M(fd, options, arg1, arg2, report, callerFlag, file, line);
    if (channel == nullptr) cl_u_close(fd);
    return channel;
}

extern "C" uint32_t CL_SendChannel_M(CL_Channel *channel, uint32_t type, const void *payload,
                                     uint32_t size, CL_ErrInfo *err, uint8_t /*callerFlag*/,
                                     const char * /*file*/, uint32_t /*line*/) {
    const Report report(err);
    Channel *self = open_channel(channel, report);
    if (self == nullptr) return 0;
    if (payload == nullptr && size != 0) return fail(report, EFAULT);
    const uint64_t length = uint64_t{size} + kHeader;
    if (length > self->options.send_size) return fail(report, EMSGSIZE);
    if (room(*self) < length) write_gathered(*self);
    const bool watched = self->blocked && (self->events & CL_NEST_WRITE) != 0;
    if (!watched && !enlist(*self, report)) return 0;
    if (self->broken.err != 0) return fail(report, EPIPE);
    if (room(*self) < length) {
        self->refused = static_cast<uint32_t>(length);
        return fail(report, EAGAIN);
    }
    const CL_MsgHeader header = {static_cast<uint32_t>(length), CL_MSG_VERSION, sender(), type};
    put(*self, header, payload, size);
    ++self->gathered;
    return 1;
}

extern "C" uint32_t CL_FlushChannel_M(CL_Channel *channel, CL_ErrInfo *err, uint8_t /*callerFlag*/,
                                      const char * /*file*/, uint32_t /*line*/) {
    const Report report(err);
    Channel *self = open_channel(channel, report);
    if (self == nullptr) return 0;
    if (self->used != 0 && !enlist(*self, report)) return 0;
    self->blocked = false;  // unless the socket says so again
    write_gathered(*self);
    if (self->broken.err != 0) return fail(report, EPIPE);
    if (self->used != 0) return fail(report, EAGAIN);
    return 1;
}

extern "C" uint32_t CL_PauseChannel_M(CL_Channel *channel, CL_ErrInfo *err, uint8_t /*callerFlag*/,
                                      const char * /*file*/, uint32_t /*line*/) {
    const Report report(err);
    Channel *self = open_channel(channel, report);
    if (self == nullptr) return 0;
    const bool before = std::exchange(self->paused, true);
    if (set_watch(*self, report)) return 1;
    self->paused = before;
    return 0;
}

extern "C" uint32_t CL_ResumeChannel_M(CL_Channel *channel, CL_ErrInfo *err, uint8_t /*callerFlag*/,
                                       const char * /*file*/, uint32_t /*line*/) {
    const Report report(err);
    Channel *self = open_channel(channel, report);
    if (self == nullptr) return 0;
    const bool before = std::exchange(self->paused, false);
    if ((reads_again(*self) && !enlist(*self, report)) || !set_watch(*self, report)) {
        self->paused = before;
        return 0;
    }
    if (before && has_limit(*self)) {
        self->heard = CL_NestTime(CL_NEST_MONOTONIC);
        if (self->begun != 0) self->begun = self->heard;
    }
    return 1;
}

extern "C" uint32_t CL_GetChannelPeer_M(CL_Channel *channel, CL_ChannelPeer *peer, CL_ErrInfo *err,
                                        uint8_t /*callerFlag*/, const char * /*file*/,
                                        uint32_t /*line*/) {
    const Report report(err);
    const auto *self = static_cast<Channel *>(live_member(fail, channel, kChannel, report));
    if (self == nullptr) return 0;
    if (peer == nullptr) return fail(report, EFAULT);
    *peer = self->peer;
    return 1;
}

extern "C" uint32_t CL_DeleteChannel_M(CL_Channel *channel, CL_ErrInfo *err, uint8_t /*callerFlag*/,
                                       const char * /*file*/, uint32_t /*line*/) {
    const Report report(err);
    Member *self = any_member(fail, channel, kChannel, report);
    if (self == nullptr) return 0;
    delete_member(*self);
    return 1;
}
