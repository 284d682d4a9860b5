// Plain loops and other libraries as transports: libuv's pipes, libevent's buffer events, nng and
// ZeroMQ over local sockets. And malloc, which is counted in their processes.
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <fcntl.h>
#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <uv.h>
#include <zmq.h>
#include <cerrno>
#include <cstring>

#include "bench/exchange.h"

// ---------------------------------------------------------------- counted allocations

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t nmemb, size_t size);
void *__libc_realloc(void *ptr, size_t size);

static void count_allocation() {
    if (bench::allocations != nullptr) bench::allocations->fetch_add(1, std::memory_order_relaxed);
}
void *malloc(size_t size) {
    count_allocation();
    return __libc_malloc(size);
}
void *calloc(size_t nmemb, size_t size) {
    count_allocation();
    return __libc_calloc(nmemb, size);
}
void *realloc(void *ptr, size_t size) {
    count_allocation();
    return __libc_realloc(ptr, size);
}
}

namespace bench {

namespace {

// ---------------------------------------------------------------- plain loops

// `kTriesFirst`: reads before it waits, which saves the wait in a stream and costs a read in a
// round trip.
template <bool kTriesFirst>
struct BarePort {
    int fd;
    alignas(CL_MsgHeader) char buffer[kLargest] = {};

    explicit BarePort(int socket) : fd(socket) { fcntl(fd, F_SETFL, O_NONBLOCK); }

    CL_MsgHeader &header() { return *reinterpret_cast<CL_MsgHeader *>(buffer); }

    void wait(bool to_write) const {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        pselect(fd + 1, to_write ? nullptr : &set, to_write ? &set : nullptr, nullptr, nullptr,
                nullptr);
    }
    void send() const {
        const auto *from = reinterpret_cast<const CL_MsgHeader *>(buffer);
        for (size_t sent = 0; sent < from->length;) {
            const ssize_t written = ::send(fd, buffer + sent, from->length - sent, MSG_NOSIGNAL);
            if (written > 0) {
                sent += static_cast<size_t>(written);
            } else {
                check(errno == EAGAIN, "send");
                wait(true);
            }
        }
    }
    void receive() {
        bool wait_first = !kTriesFirst;
        size_t wanted = sizeof(CL_MsgHeader);
        for (size_t got = 0; got < wanted;) {
            if (wait_first) wait(false);
            const ssize_t more = recv(fd, buffer + got, wanted - got, MSG_NOSIGNAL);
            if (more == 0) _exit(0);
            wait_first = more < 0;
            if (more < 0) continue;
            got += static_cast<size_t>(more);
            if (got == sizeof(CL_MsgHeader)) wanted = header().length;
        }
    }
};

template <bool kTriesFirst>
void bare_serve(const std::string &path, const std::function<void()> &ready) {
    const int listening = listen_at(path);
    ready();
    static BarePort<kTriesFirst> port(accept(listening, nullptr, nullptr));
    serve_port(port);
}

template <bool kTriesFirst>
std::function<void(const Order &)> bare_connect(const std::string &path) {
    static BarePort<kTriesFirst> port(connect_to(path));
    return [](const Order &order) { run_order(port, order); };
}

// The same in bulk: one read for whatever is there, writes of a buffer full, epoll to wait.
class BulkPort {
  public:
    explicit BulkPort(int socket) : fd_(socket), epoll_(epoll_create1(0)) {
        fcntl(fd_, F_SETFL, O_NONBLOCK);
        struct epoll_event event = {};
        event.events = EPOLLIN | EPOLLOUT | EPOLLET;
        check(epoll_ctl(epoll_, EPOLL_CTL_ADD, fd_, &event) == 0, "epoll_ctl");
    }
    CL_MsgHeader &header() { return header_; }
    void send() {
        if (filled_ + header_.length > sizeof outgoing_) flush();
        memcpy(outgoing_ + filled_, &header_, sizeof header_);
        memcpy(outgoing_ + filled_ + sizeof header_, payload_, header_.length - sizeof header_);
        filled_ += header_.length;
        if (header_.type != absorb) flush();
    }
    void receive() {
        for (;;) {
            if (held_ - at_ >= sizeof header_) {
                memcpy(&header_, incoming_ + at_, sizeof header_);
                if (held_ - at_ >= header_.length) break;
            }
            memmove(incoming_, incoming_ + at_, held_ - at_);
            held_ -= at_;
            at_ = 0;
            const ssize_t got = recv(fd_, incoming_ + held_, sizeof incoming_ - held_, 0);
            if (got == 0) _exit(0);
            if (got > 0) held_ += static_cast<size_t>(got);
            if (got < 0) wait();
        }
        at_ += header_.length;
    }

  private:
    void wait() const {
        struct epoll_event event;
        epoll_wait(epoll_, &event, 1, -1);
    }
    void flush() {
        for (size_t sent = 0; sent < filled_;) {
            const ssize_t written = ::send(fd_, outgoing_ + sent, filled_ - sent, MSG_NOSIGNAL);
            if (written > 0) {
                sent += static_cast<size_t>(written);
            } else {
                wait();
            }
        }
        filled_ = 0;
    }

    int fd_;
    int epoll_;
    size_t held_ = 0, at_ = 0, filled_ = 0;
    CL_MsgHeader header_ = {};
    char payload_[kLargest] = {};
    char incoming_[131072];
    char outgoing_[131072];
};

void bulk_serve(const std::string &path, const std::function<void()> &ready) {
    const int listening = listen_at(path);
    ready();
    static BulkPort port(accept(listening, nullptr, nullptr));
    serve_port(port);
}

std::function<void(const Order &)> bulk_connect(const std::string &path) {
    static BulkPort port(connect_to(path));
    return [](const Order &order) { run_order(port, order); };
}

// ---------------------------------------------------------------- libuv

// One end of a libuv pipe that frames messages. Both ends run in callbacks: a received message
// calls on_message, a write that could not be done at once calls on_written when it is. One that
// gathers writes when its buffer is full and when flush() says so.
template <bool kGathers>
class UvEnd {
  public:
    std::function<void(const CL_MsgHeader &)> on_message;
    std::function<void()> on_written;

    UvEnd() {
        uv_loop_init(&loop);
        uv_pipe_init(&loop, &pipe, 0);
        pipe.data = this;
    }
    void start() { uv_read_start(reinterpret_cast<uv_stream_t *>(&pipe), on_allocate, on_read); }
    // False when it has to wait for on_written.
    bool send(const CL_MsgHeader &header) {
        memcpy(outgoing_ + filled_, &header, sizeof header);
        if (kGathers)
            memcpy(outgoing_ + filled_ + sizeof header, payload_, header.length - sizeof header);
        filled_ += header.length;
        return (kGathers && sizeof outgoing_ - filled_ >= kLargest) || flush();
    }
    bool flush() {
        if (filled_ == 0) return true;
        auto *stream = reinterpret_cast<uv_stream_t *>(&pipe);
        const auto length = static_cast<unsigned>(std::exchange(filled_, 0));
        uv_buf_t buffer = uv_buf_init(outgoing_, length);
        const int written = uv_try_write(stream, &buffer, 1);
        if (written == static_cast<int>(length)) return true;
        check(written > 0 || written == UV_EAGAIN, "uv_try_write");
        const unsigned done = written > 0 ? static_cast<unsigned>(written) : 0;
        buffer = uv_buf_init(outgoing_ + done, length - done);
        request_.data = this;
        uv_write(&request_, stream, &buffer, 1, [](uv_write_t *request, int) {
            const auto &self = *static_cast<UvEnd *>(request->data);
            if (self.on_written) self.on_written();
        });
        return false;
    }

    uv_loop_t loop;
    uv_pipe_t pipe;

  private:
    static void on_allocate(uv_handle_t *handle, size_t, uv_buf_t *buffer) {
        auto &self = *static_cast<UvEnd *>(handle->data);
        *buffer = uv_buf_init(self.incoming_ + self.held_,
                              static_cast<unsigned>(sizeof self.incoming_ - self.held_));
    }
    static void on_read(uv_stream_t *stream, ssize_t got, const uv_buf_t *) {
        if (got < 0) _exit(1);
        auto &self = *static_cast<UvEnd *>(stream->data);
        self.held_ += static_cast<size_t>(got);
        size_t at = 0;
        while (self.held_ - at >= sizeof(CL_MsgHeader)) {
            CL_MsgHeader header;
            memcpy(&header, self.incoming_ + at, sizeof header);
            if (self.held_ - at < header.length) break;
            at += header.length;
            self.on_message(header);
        }
        memmove(self.incoming_, self.incoming_ + at, self.held_ - at);
        self.held_ -= at;
    }

    uv_write_t request_;
    size_t held_ = 0;
    char incoming_[2 * kLargest];
    size_t filled_ = 0;
    char payload_[kLargest] = {};
    char outgoing_[(kGathers ? 2 : 1) * kLargest] = {};
};

template <bool kGathers>
void uv_serve(const std::string &path, const std::function<void()> &ready) {
    static UvEnd<kGathers> end;
    static uv_pipe_t server;
    uv_pipe_init(&end.loop, &server, 0);
    check(uv_pipe_bind(&server, path.c_str()) == 0, "uv_pipe_bind");
    end.on_message = [](const CL_MsgHeader &header) {
        if (header.type == absorb) return;
        CL_MsgHeader answer = header;
        if (header.type == acknowledge) answer.length = sizeof answer;
        end.send(answer);
        end.flush();
    };
    uv_listen(reinterpret_cast<uv_stream_t *>(&server), 1, [](uv_stream_t *from, int) {
        uv_accept(from, reinterpret_cast<uv_stream_t *>(&end.pipe));
        end.start();
    });
    ready();
    uv_run(&end.loop, UV_RUN_DEFAULT);
}

template <bool kGathers>
std::function<void(const Order &)> uv_connect_to(const std::string &path) {
    static UvEnd<kGathers> end;
    static Order order;
    static uint64_t left;
    static uv_connect_t request;
    uv_pipe_connect(&request, &end.pipe, path.c_str(), [](uv_connect_t *, int status) {
        check(status == 0, "uv_pipe_connect");
        uv_stop(&end.loop);
    });
    uv_run(&end.loop, UV_RUN_DEFAULT);
    // As much as goes out at once; the rest when the pipe is writable again or an answer is there.
    static const auto go_on = [] {
        while (left != 0) {
            const CL_MsgHeader header = header_of(order, left == 1);
            --left;
            if (!end.send(header)) return;
            if (header.type != absorb) break;
        }
        end.flush();
    };
    end.on_written = [] {
        if (order.shape == Order::stream) go_on();
    };
    end.on_message = [](const CL_MsgHeader &) {
        if (left == 0) uv_stop(&end.loop);
        go_on();
    };
    end.start();
    return [](const Order &given) {
        order = given;
        left = given.count;
        go_on();
        uv_run(&end.loop, UV_RUN_DEFAULT);
    };
}

// ---------------------------------------------------------------- libevent

// One end of a socket with libevent's buffers, which gather by themselves.
class EvEnd {
  public:
    static constexpr size_t kMost = 131072;  // bytes waiting to be written
    std::function<void(const CL_MsgHeader &)> on_message;
    std::function<void()> on_written;

    event_base *base = event_base_new();

    void open(int fd) {
        evutil_make_socket_nonblocking(fd);
        buffers_ = bufferevent_socket_new(base, fd, 0);
        bufferevent_setcb(buffers_, on_read, on_write, on_event, this);
        bufferevent_set_max_single_read(buffers_, kMost);
        bufferevent_set_max_single_write(buffers_, kMost);
        bufferevent_enable(buffers_, EV_READ | EV_WRITE);
    }
    bool full() const { return evbuffer_get_length(bufferevent_get_output(buffers_)) >= kMost; }
    void send(const CL_MsgHeader &header) {
        memcpy(outgoing_, &header, sizeof header);
        bufferevent_write(buffers_, outgoing_, header.length);
    }

  private:
    static void on_read(bufferevent *buffers, void *arg) {
        auto &self = *static_cast<EvEnd *>(arg);
        evbuffer *input = bufferevent_get_input(buffers);
        CL_MsgHeader header;
        while (evbuffer_copyout(input, &header, sizeof header) == sizeof header) {
            if (evbuffer_get_length(input) < header.length) break;
            evbuffer_drain(input, header.length);
            self.on_message(header);
        }
    }
    static void on_write(bufferevent *, void *arg) {
        const auto &self = *static_cast<EvEnd *>(arg);
        if (self.on_written) self.on_written();
    }
    static void on_event(bufferevent *, short, void *) { _exit(1); }

    bufferevent *buffers_ = nullptr;
    char outgoing_[kLargest] = {};
};

void ev_serve(const std::string &path, const std::function<void()> &ready) {
    const int listening = listen_at(path);
    ready();
    static EvEnd end;
    end.on_message = [](const CL_MsgHeader &header) {
        if (header.type == absorb) return;
        CL_MsgHeader answer = header;
        if (header.type == acknowledge) answer.length = sizeof answer;
        end.send(answer);
    };
    end.open(accept(listening, nullptr, nullptr));
    event_base_dispatch(end.base);
}

std::function<void(const Order &)> ev_connect_to(const std::string &path) {
    static EvEnd end;
    static Order order;
    static uint64_t left;
    static const auto go_on = [] {
        while (left != 0 && !end.full()) {
            const CL_MsgHeader header = header_of(order, left == 1);
            --left;
            end.send(header);
            if (header.type != absorb) return;
        }
    };
    end.on_written = [] {
        if (order.shape == Order::stream) go_on();
    };
    end.on_message = [](const CL_MsgHeader &) {
        if (left == 0) event_base_loopbreak(end.base);
        go_on();
    };
    end.open(connect_to(path));
    return [](const Order &given) {
        order = given;
        left = given.count;
        go_on();
        event_base_dispatch(end.base);
    };
}

// ---------------------------------------------------------------- nng and ZeroMQ

// What both are: a socket that sends and receives whole messages, and waits.
template <class Api>
struct SocketPort {
    typename Api::Socket socket = Api::open();
    alignas(CL_MsgHeader) char buffer[kLargest] = {};

    CL_MsgHeader &header() { return *reinterpret_cast<CL_MsgHeader *>(buffer); }
    void send() { check(Api::send(socket, buffer, header().length), "send"); }
    void receive() { check(Api::receive(socket, buffer, sizeof buffer), "receive"); }
};

template <class Api>
void serve_socket(const std::string &path, const std::function<void()> &ready) {
    static SocketPort<Api> port;
    check(Api::listen(port.socket, ("ipc://" + path).c_str()), "listen");
    ready();
    serve_port(port);
}

template <class Api>
std::function<void(const Order &)> connect_socket(const std::string &path) {
    static SocketPort<Api> port;
    check(Api::connect(port.socket, ("ipc://" + path).c_str()), "connect");
    return [](const Order &order) { run_order(port, order); };
}

struct Nng {
    using Socket = nng_socket;
    static Socket open() {
        nng_socket socket = NNG_SOCKET_INITIALIZER;
        check(nng_pair0_open(&socket) == 0, "nng_pair0_open");
        return socket;
    }
    static bool listen(Socket socket, const char *url) {
        return nng_listen(socket, url, nullptr, 0) == 0;
    }
    static bool connect(Socket socket, const char *url) {
        return nng_dial(socket, url, nullptr, 0) == 0;
    }
    static bool send(Socket socket, char *data, size_t size) {
        return nng_send(socket, data, size, 0) == 0;
    }
    static bool receive(Socket socket, char *data, size_t size) {
        return nng_recv(socket, data, &size, 0) == 0;
    }
};

struct ZeroMq {
    using Socket = void *;
    static Socket open() { return zmq_socket(zmq_ctx_new(), ZMQ_PAIR); }
    static bool listen(Socket socket, const char *url) { return zmq_bind(socket, url) == 0; }
    static bool connect(Socket socket, const char *url) { return zmq_connect(socket, url) == 0; }
    static bool send(Socket socket, char *data, size_t size) {
        return zmq_send(socket, data, size, 0) >= 0;
    }
    static bool receive(Socket socket, char *data, size_t size) {
        return zmq_recv(socket, data, size, 0) >= 0;
    }
};

}  // namespace

const Transport kBare = {"pselect", bare_serve<false>, bare_connect<false>};
const Transport kBareReadsFirst = {"pselect, read first", bare_serve<true>, bare_connect<true>};
const Transport kBareGathers = {"bare, in bulk", bulk_serve, bulk_connect};
const Transport kLibuv = {"libuv", uv_serve<false>, uv_connect_to<false>};
const Transport kLibuvGathers = {"libuv, gathering", uv_serve<true>, uv_connect_to<true>};
const Transport kLibevent = {"libevent", ev_serve, ev_connect_to};
const Transport kNng = {"nng", serve_socket<Nng>, connect_socket<Nng>};
const Transport kZeroMq = {"ZeroMQ", serve_socket<ZeroMq>, connect_socket<ZeroMq>};

}  // namespace bench
