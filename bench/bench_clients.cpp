// One server, 900 connected clients: set-up, and one message of each client echoed.
//
// The clients are raw sockets of one process. The floor is a bare server under pselect that makes
// the same reads and writes.
#include <fcntl.h>
#include <malloc.h>
#include <sys/select.h>
#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include <qvcl/qvcl.h>

#include "bench/exchange.h"

namespace {

using bench::Order;
using bench::Transport;

constexpr size_t kClients = 900;
constexpr size_t kSkip = 10;  // one after another, every tenth is asked
constexpr uint32_t kPayload = 64;
constexpr uint32_t kLength = sizeof(CL_MsgHeader) + kPayload;

// ---------------------------------------------------------------- the clients

class Clients {
  public:
    explicit Clients(std::string path) : path_(std::move(path)) { join(); }

    void run(const Order &order) {
        for (uint64_t left = order.count; left != 0; --left) {
            if (order.shape == Order::leave) return leave();
            if (order.shape == Order::join) join();
            if (order.shape == Order::one_by_one) {
                for (size_t i = 0; i < kClients; i += kSkip) {
                    send_to(fds_[i]);
                    receive_from(fds_[i]);
                }
            } else {
                std::for_each(fds_.begin(), fds_.end(), send_to);
                std::for_each(fds_.begin(), fds_.end(), receive_from);
            }
        }
    }

  private:
    void join() {
        while (fds_.size() < kClients)
            fds_.push_back(bench::connect_to(path_));
    }
    // Each waits until the server has let it go: the server's descriptors are limited.
    void leave() {
        for (const int fd : fds_)
            shutdown(fd, SHUT_WR);
        for (const int fd : fds_) {
            char nothing;
            bench::check(recv(fd, &nothing, 1, 0) == 0, "leave");
            close(fd);
        }
        fds_.clear();
    }
    static void send_to(int fd) {
        char message[kLength] = {};
        *reinterpret_cast<CL_MsgHeader *>(message) = {kLength, CL_MSG_VERSION, 0, bench::echo};
        bench::check(send(fd, message, sizeof message, MSG_NOSIGNAL) == kLength, "send");
    }
    static void receive_from(int fd) {
        char message[kLength];
        bench::check(recv(fd, message, sizeof message, MSG_WAITALL) == kLength, "recv");
    }

    std::string path_;
    std::vector<int> fds_;
};

std::function<void(const Order &)> connect_clients(const std::string &path) {
    auto clients = std::make_shared<Clients>(path);
    return [clients](const Order &order) { clients->run(order); };
}

// Called by the servers for every message that they have echoed.
std::function<void(size_t)> on_echo;
size_t echoed = 0;

void count_echo() {
    ++echoed;
    if (on_echo) on_echo(echoed);
}

// ---------------------------------------------------------------- the library's server

struct Connection {
    struct {
        CL_MsgBlock block;
        char payload[kPayload];
    } out;
    alignas(CL_MsgHeader) char in[kLength];
};

void receive(CL_Object *object, Connection &connection) {
    CL_RecvMSGC(object, connection.in, sizeof connection.in, CL_MODE_IMMEDIATE, 0, nullptr);
}

uint32_t on_client(CL_Object *object, CL_Event *event, uint64_t arg1, uint64_t) {
    auto &connection = *reinterpret_cast<Connection *>(arg1);
    if (event->type == CL_EVENT_DISCONNECT) {
        CL_DeleteFD(object, nullptr);
    } else if (event->type == CL_EVENT_MESSAGE) {
        CL_SendMSGC(object, &connection.out, sizeof connection.out, CL_MODE_IMMEDIATE, 0, nullptr);
        receive(object, connection);
        count_echo();
    }
    return 0;
}

uint32_t on_connections(CL_Object *server, CL_Event *, uint64_t arg1, uint64_t) {
    auto *connections = reinterpret_cast<Connection *>(arg1);
    for (;;) {
        static size_t next = 0;
        Connection &connection = connections[next];
        CL_Object *client =
            CL_AcceptMSGS(server, on_client, reinterpret_cast<uint64_t>(&connection), 0, nullptr);
        if (client == nullptr) return 0;
        next = (next + 1) % kClients;
        connection = {};
        receive(client, connection);
        bench::check(CL_AddEventList(client, CL_PRIORITY_FIRST, nullptr) == 1, "CL_AddEventList");
    }
}

void serve(const std::string &path, const std::function<void()> &ready) {
    CL_ErrInfo err;
    std::vector<Connection> connections(kClients);
    CL_Init(2 * kClients, nullptr, &err);
    CL_Object *server = CL_CreateFD(CL_KIND_MSGS, on_connections,
                                    reinterpret_cast<uint64_t>(connections.data()), 0, &err);
    bench::check(CL_OpenMSGS(server, path.c_str(), kClients, &err) == 1 &&
                     CL_AddEventList(server, CL_PRIORITY_FIRST, &err) == 1,
                 "the server");
    ready();
    CL_EventLoop(&err);
    fprintf(stderr, "the loop ended: err %u, module %u\n", err.err, err.module);
}

constexpr Transport kLibrary = {"qvcl", serve, connect_clients};

// ---------------------------------------------------------------- the bare server

void close_connection(std::vector<int> &connections, fd_set &watched, int fd) {
    close(fd);
    FD_CLR(fd, &watched);
    std::erase(connections, fd);
}

void serve_bare(const std::string &path, const std::function<void()> &ready) {
    const int listening = bench::listen_at(path);
    fcntl(listening, F_SETFL, O_NONBLOCK);
    fd_set watched;
    FD_ZERO(&watched);
    FD_SET(listening, &watched);
    std::vector<int> connections;
    ready();
    for (int count = listening + 1;;) {
        fd_set found = watched;
        pselect(count, &found, nullptr, nullptr, nullptr, nullptr);
        for (const int fd : std::vector<int>(connections)) {
            if (!FD_ISSET(fd, &found)) continue;
            char message[kLength];
            if (recv(fd, message, sizeof(CL_MsgHeader), MSG_NOSIGNAL) <= 0) {
                close_connection(connections, watched, fd);
                continue;
            }
            recv(fd, message + sizeof(CL_MsgHeader), kPayload, MSG_NOSIGNAL);
            send(fd, message, sizeof message, MSG_NOSIGNAL);
            count_echo();
        }
        for (int fd;
             FD_ISSET(listening, &found) && (fd = accept(listening, nullptr, nullptr)) >= 0;) {
            fcntl(fd, F_SETFL, O_NONBLOCK);
            fcntl(fd, F_SETFD, FD_CLOEXEC);
            connections.push_back(fd);
            FD_SET(fd, &watched);
            count = std::max(count, fd + 1);
        }
    }
}

constexpr Transport kBare = {"pselect", serve_bare, connect_clients};

// ---------------------------------------------------------------- what is asked

bench::Comparison clients(Order::Shape shape, const bench::Placement &placement) {
    bench::Comparison comparison;
    // Times are those of one message. Nobody joins twice.
    const double messages = shape == Order::one_by_one ? kClients / kSkip : kClients;
    comparison.batch_seconds = shape == Order::join ? 0 : 10e-3 / messages;
    for (const Transport *transport : {&kLibrary, &kBare}) {
        auto link = std::make_shared<bench::Link>(*transport, placement);
        comparison.sides.push_back({transport->name, [link, shape, messages](size_t n) {
                                        if (shape == Order::join) link->run({Order::leave, 0, 1});
                                        return link->run({shape, kPayload, n}) / messages;
                                    }});
    }
    comparison.figures = {bench::times_of("pselect")};
    return comparison;
}

// The server counts: the first round of messages ends the set-up, the second is measured.
void tell_calls_and_memory(const Transport &transport) {
    const std::string path = "/tmp/qvcl-bench-" + std::to_string(getpid());
    const bench::Calls calls = bench::count_calls([&] {
        struct mallinfo2 before = {};
        on_echo = [&](size_t count) {
            if (count == kClients) {
                printf("%s: %.1f bytes allocated for a connection\n", transport.name,
                       static_cast<double>(mallinfo2().uordblks - before.uordblks) / kClients);
                bench::mark();
            } else if (count == 2 * kClients) {
                bench::mark();
                fflush(stdout);
                _exit(0);
            }
        };
        transport.serve(path, [&] {
            before = mallinfo2();
            if (fork() != 0) return;
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            Clients all(path);
            all.run({Order::everyone, kPayload, 2});
            pause();
        });
    });
    unlink(path.c_str());
    printf("%s: %s for a message\n", transport.name, calls.per(kClients).c_str());
}

}  // namespace

int main(int argc, char **argv) {
    printf("%zu clients; a descriptor object is %zu bytes of the table\n", kClients,
           sizeof(CL_Object));
    tell_calls_and_memory(kLibrary);
    tell_calls_and_memory(kBare);
    static const std::pair<const char *, Order::Shape> shapes[] = {
        {"a message of each, all at once", Order::everyone},
        {"a message of each, one after another", Order::one_by_one},
        {"connect, and a message of each", Order::join}};
    for (const auto &[name, shape] : shapes) {
        bench::compare(
            name, [shape = shape] { return clients(shape, bench::placements()[0]); }, 31);
    }
    return bench::run(argc, argv);
}
