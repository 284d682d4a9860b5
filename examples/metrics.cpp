// A daemon whose counters a browser or curl can read: a page over HTTP, in the loop, beside its
// work. Built without exceptions and without RTTI.
//
// Whoever connects has five seconds for the request and for taking the answer; nobody is read who
// sends more than a request has. So slow and silent readers cost a descriptor for a while, no more.
//
//   cpp_metrics [PORT]       on the loopback interface; without PORT on one that is free
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>
#include <qvcl/qvcl.hpp>

#include <string>

using namespace qvcl;
using namespace std::chrono_literals;

// A descriptor that is closed.
class Socket {
  public:
    explicit Socket(int fd = -1) : fd_(fd) {}
    Socket(Socket &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Socket &operator=(Socket &&) = delete;
    ~Socket() {
        if (fd_ >= 0) cl_u_close(fd_);
    }
    int get() const { return fd_; }

  private:
    int fd_;
};

static uint64_t turns, pages, refused;

static std::string page() {
    const CL_MainBlock &table = *CL_MainTable;
    const auto line = [](const char *name, uint64_t value) {
        return std::string(name) + ' ' + std::to_string(value) + '\n';
    };
    return line("daemon_turns_total", turns) + line("daemon_pages_total", pages) +
           line("daemon_refused_total", refused) + line("qvcl_memory_bytes", table.user_bytes) +
           line("qvcl_objects", table.used_queue.count);
}

static Task<> answer(Socket socket) {
    constexpr size_t kLongest = 8192;
    Watch watch(socket.get());
    const auto limit = std::chrono::steady_clock::now() + 5s;
    std::string request;
    while (request.find("\r\n\r\n") == request.npos) {
        char part[1024];
        if (!co_await with_deadline(limit, watch.readable())) co_return;
        const ssize_t count = recv(socket.get(), part, sizeof part, 0);
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (count <= 0 || request.size() > kLongest) co_return;
        request.append(part, static_cast<size_t>(count));
    }
    const bool known = request.starts_with("GET /metrics ");
    ++(known ? pages : refused);
    const std::string body = known ? page() : "only GET /metrics\n";
    std::string text = std::string("HTTP/1.1 ") + (known ? "200 OK" : "404 Not Found") +
                       "\r\nContent-Type: text/plain; version=0.0.4\r\nContent-Length: " +
                       std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
    while (!text.empty()) {
        const ssize_t count = send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno != EAGAIN) co_return;
        if (count > 0) text.erase(0, static_cast<size_t>(count));
        if (count < 0 && !co_await with_deadline(limit, watch.writable())) co_return;
    }
}

// Who cannot be watched or accepted now (no memory or no descriptor is left, say) waits.
static Task<> serve(Runtime &rt, Socket listener, uint16_t port) {
    printf("http://127.0.0.1:%u/metrics\n", port);
    for (;;) {
        Watch watch(listener.get());
        while (co_await watch.readable()) {
            Socket socket(accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
            if (socket.get() >= 0) {
                rt.spawn(answer(std::move(socket)));
            } else if (errno != EAGAIN) {
                co_await after(100ms);
            }
        }
        co_await after(100ms);
    }
}

static Task<> work(Runtime &rt) {
    for (Ticker tick(250ms); co_await tick.next();)
        ++turns;
    rt.stop(EXIT_FAILURE);
}

static Task<> control(Runtime &rt) {
    Signals signals{SIGTERM, SIGINT};
    const auto signal = co_await signals.next();
    rt.stop(signal ? EXIT_SUCCESS : EXIT_FAILURE);
}

// The port it is; 0 when there is none.
static uint16_t listen_on(const Socket &socket, uint16_t port) {
    const int on = 1;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    socklen_t size = sizeof address;
    setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(socket.get(), generic, size) != 0 || listen(socket.get(), 64) != 0) return 0;
    return getsockname(socket.get(), generic, &size) == 0 ? ntohs(address.sin_port) : uint16_t{0};
}

int main(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    log_to_stderr();
    Result<> begun;
    Runtime rt({}, begun);
    if (!begun) {
        fprintf(stderr, "%s: %s\n", argv[0], begun.error().message().c_str());
        return EXIT_FAILURE;
    }
    Socket listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const auto wanted = static_cast<uint16_t>(argc > 1 ? strtoul(argv[1], nullptr, 10) : 0);
    const uint16_t port = listen_on(listener, wanted);
    if (port == 0) {
        fprintf(stderr, "%s: port %u: %s\n", argv[0], wanted, strerror(errno));
        return EXIT_FAILURE;
    }
    rt.spawn(control(rt));
    rt.spawn(work(rt));
    rt.spawn(serve(rt, std::move(listener), port));
    return rt.run().value_or(EXIT_FAILURE);
}
