// Two processes that exchange messages, whatever carries them.
//
// A transport says what the serving and the asking process do; a Link runs both, each on its
// processor, and orders exchanges from the asking one. Every message begins with the library's
// header, which also tells a stream transport where it ends and the server what to do with it.
#pragma once

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <array>
#include <atomic>
#include <csignal>
#include <functional>
#include <memory>
#include <string>

#include <qvcl/message.h>

#include "bench/support.h"

namespace bench {

enum MessageType : uint32_t { echo = 1, absorb = 2, acknowledge = 3 };

constexpr size_t kLargest = sizeof(CL_MsgHeader) + 65536;

struct Order {
    enum Shape : uint32_t { ping_pong, stream, everyone, one_by_one, leave, join } shape;
    uint32_t payload;
    uint64_t count;
};

// A message of the order: the last one of a stream asks for an answer.
inline CL_MsgHeader header_of(const Order &order, bool last) {
    const uint32_t type = order.shape == Order::ping_pong ? echo : last ? acknowledge : absorb;
    return {static_cast<uint32_t>(sizeof(CL_MsgHeader)) + order.payload, CL_MSG_VERSION, 0, type};
}

struct Transport {
    const char *name;
    // Listens at the path, calls ready once, serves one client until it is killed.
    void (*serve)(const std::string &path, const std::function<void()> &ready);
    // Connects; what it returns runs an order to its end.
    std::function<void(const Order &)> (*connect)(const std::string &path);
};

// ---------------------------------------------------------------- transports that just wait

// A port sends the message in its buffer and receives one into it. Both sides as plain loops.
template <class Port>
[[noreturn]] void serve_port(Port &port) {
    for (;;) {
        port.receive();
        CL_MsgHeader &header = port.header();
        if (header.type == absorb) continue;
        if (header.type == acknowledge) header.length = sizeof header;
        port.send();
    }
}

template <class Port>
void run_order(Port &port, const Order &order) {
    for (uint64_t left = order.count; left != 0; --left) {
        port.header() = header_of(order, left == 1);
        port.send();
        if (port.header().type != absorb) port.receive();
    }
}

// ---------------------------------------------------------------- allocations

// Where malloc is counted; shared by the two processes of a link.
inline std::atomic<uint64_t> *allocations = nullptr;

// ---------------------------------------------------------------- the two processes

struct Placement {
    const char *name;
    int server;
    int client;
};

inline const std::array<Placement, 2> &placements() {
    static const std::array<Placement, 2> all = {{{"two processors", processor(0), processor(1)},
                                                  {"one processor", processor(1), processor(1)}}};
    return all;
}

class Link {
  public:
    Link(const Transport &transport, const Placement &placement) {
        path_ = "/tmp/qvcl-bench-" + std::to_string(getpid()) + "-" + std::to_string(++made_);
        void *page = mmap(nullptr, sizeof *counter_, PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        check(page != MAP_FAILED, "mmap");
        counter_ = new (page) std::atomic<uint64_t>(0);
        check(socketpair(AF_UNIX, SOCK_STREAM, 0, channel_) == 0, "socketpair");
        server_ = start(placement.server, [&] {
            transport.serve(path_, [this] {
                answer(0.0);
                close(channel_[1]);  // or nobody would notice the end of the client
            });
        });
        ask<double>();
        client_ = start(placement.client, [&] {
            const auto run = transport.connect(path_);
            for (;;) {
                const auto order = get<Order>(channel_[1]);
                const auto start = Clock::now();
                run(order);
                answer(since(start));
            }
        });
        close(channel_[1]);
    }
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    ~Link() {
        for (const pid_t process : {server_, client_}) {
            kill(process, SIGKILL);
            waitpid(process, nullptr, 0);
        }
        munmap(counter_, sizeof *counter_);
        close(channel_[0]);
        unlink(path_.c_str());
    }

    double run(const Order &order) {
        check(write(channel_[0], &order, sizeof order) == sizeof order, "order");
        return ask<double>();
    }

    uint64_t allocated() const { return *counter_; }

  private:
    template <class Work>
    pid_t start(int cpu, Work work) {
        fflush(stdout);
        const pid_t process = fork();
        check(process >= 0, "fork");
        if (process != 0) return process;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(channel_[0]);
        pin(cpu);
        allocations = counter_;
        work();
        _exit(1);
    }
    template <class Value>
    static Value get(int fd) {
        Value value;
        if (read(fd, &value, sizeof value) != sizeof value) _exit(1);
        return value;
    }
    void answer(double value) {
        if (write(channel_[1], &value, sizeof value) != sizeof value) _exit(1);
    }
    template <class Value>
    Value ask() {
        return get<Value>(channel_[0]);
    }

    static inline int made_ = 0;
    std::string path_;
    std::atomic<uint64_t> *counter_ = nullptr;
    int channel_[2] = {-1, -1};  // ours, the processes'
    pid_t server_ = -1;
    pid_t client_ = -1;
};

// ---------------------------------------------------------------- sockets

inline sockaddr_un address_of(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

inline int listen_at(const std::string &path) {
    const sockaddr_un address = address_of(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    check(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
              listen(fd, 1024) == 0,
          "listen");
    return fd;
}

inline int connect_to(const std::string &path) {
    const sockaddr_un address = address_of(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    check(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0,
          "connect");
    return fd;
}

// ---------------------------------------------------------------- the peers (exchange_peers.cpp)

// They send and receive one message at a time: a plain loop, one that reads before it waits, libuv.
extern const Transport kBare;
extern const Transport kBareReadsFirst;
extern const Transport kLibuv;
// They gather what they send, and read whatever is there.
extern const Transport kBareGathers;
extern const Transport kLibuvGathers;
extern const Transport kLibevent;
extern const Transport kNng;
extern const Transport kZeroMq;

}  // namespace bench
