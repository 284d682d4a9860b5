// Other libraries as transports: libuv's pipes, nng and ZeroMQ over local sockets.
#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <uv.h>
#include <zmq.h>
#include <cstring>

#include "bench/exchange.h"

namespace bench {

namespace {

// ---------------------------------------------------------------- libuv

// One end of a libuv pipe that frames messages. Both ends run in callbacks: a received message
// calls on_message, a write that could not be done at once calls on_written when it is.
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
    // True when the whole message went out at once.
    bool send(const CL_MsgHeader &header) {
        memcpy(outgoing_, &header, sizeof header);
        auto *stream = reinterpret_cast<uv_stream_t *>(&pipe);
        uv_buf_t buffer = uv_buf_init(outgoing_, header.length);
        const int written = uv_try_write(stream, &buffer, 1);
        if (written == static_cast<int>(header.length)) return true;
        check(written > 0 || written == UV_EAGAIN, "uv_try_write");
        const unsigned done = written > 0 ? static_cast<unsigned>(written) : 0;
        buffer = uv_buf_init(outgoing_ + done, header.length - done);
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
    char outgoing_[kLargest] = {};
};

void uv_serve(const std::string &path, const std::function<void()> &ready) {
    static UvEnd end;
    static uv_pipe_t server;
    uv_pipe_init(&end.loop, &server, 0);
    check(uv_pipe_bind(&server, path.c_str()) == 0, "uv_pipe_bind");
    end.on_message = [](const CL_MsgHeader &header) {
        if (header.type == absorb) return;
        CL_MsgHeader answer = header;
        if (header.type == acknowledge) answer.length = sizeof answer;
        end.send(answer);
    };
    uv_listen(reinterpret_cast<uv_stream_t *>(&server), 1, [](uv_stream_t *from, int) {
        uv_accept(from, reinterpret_cast<uv_stream_t *>(&end.pipe));
        end.start();
    });
    ready();
    uv_run(&end.loop, UV_RUN_DEFAULT);
}

std::function<void(const Order &)> uv_connect_to(const std::string &path) {
    static UvEnd end;
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
            if (!end.send(header) || header.type != absorb) return;
        }
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

const Transport kLibuv = {"libuv", uv_serve, uv_connect_to};
const Transport kNng = {"nng", serve_socket<Nng>, connect_socket<Nng>};
const Transport kZeroMq = {"ZeroMQ", serve_socket<ZeroMq>, connect_socket<ZeroMq>};

}  // namespace bench
