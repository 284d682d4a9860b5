// What qvcl-bridge carries over loopback, beside the engine itself used directly (PUSH to PULL),
// and how long one message is under way.
//
// The local sockets' other ends are bare: they write and read in bulk and cost next to nothing.
#include <sys/socket.h>
#include <sys/un.h>
#include <zmq.h>
#include <cstring>
#include <thread>

#include <qvcl/message.h>

#include "bench/support.h"

namespace {

constexpr int kRounds = 7;
constexpr const char *kTcp = "tcp://127.0.0.1:47611";
constexpr const char *kDirect = "tcp://127.0.0.1:47612";

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address = {.sun_family = AF_UNIX};
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    return address;
}

pid_t start(const char *side, const std::string &path) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    execl(QVCL_BRIDGE, QVCL_BRIDGE, side, path.c_str(), kTcp, nullptr);
    _exit(127);
}

// Both sides of the bridge, a client of the one and a server of the other.
class Bridge {
  public:
    explicit Bridge(const std::string &folder) {
        const sockaddr_un to = address_of(folder + "/to"), from = address_of(folder + "/from");
        const int server = socket(AF_UNIX, SOCK_STREAM, 0);
        bench::check(bind(server, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0 &&
                         listen(server, 1) == 0,
                     "bind");
        sides_[0] = start("to", to.sun_path);
        sides_[1] = start("from", from.sun_path);
        out_ = accept(server, nullptr, nullptr);
        close(server);
        in_ = socket(AF_UNIX, SOCK_STREAM, 0);
        while (connect(in_, reinterpret_cast<const sockaddr *>(&from), sizeof from) != 0)
            usleep(1000);
    }
    ~Bridge() {
        close(in_);
        for (const pid_t pid : {sides_[1], sides_[0]}) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
        close(out_);
    }
    Bridge(const Bridge &) = delete;
    Bridge &operator=(const Bridge &) = delete;

    // Seconds for so many messages of so many bytes, header included.
    double carry(size_t count, uint32_t size) const {
        const size_t together = std::min<size_t>(count, 65536 / size);
        std::string batch;
        for (size_t i = 0; i < together; ++i) {
            const CL_MsgHeader header = {size, CL_MSG_VERSION, 0, 1};
            batch.append(reinterpret_cast<const char *>(&header), sizeof header);
            batch.append(size - sizeof header, 'x');
        }
        const auto begin = bench::Clock::now();
        std::thread writer([&] {
            for (size_t left = count; left > 0;) {
                const size_t now = std::min(left, together) * size;
                for (size_t at = 0; at < now;) {
                    const ssize_t done = write(in_, batch.data() + at, now - at);
                    bench::check(done > 0, "write");
                    at += static_cast<size_t>(done);
                }
                left -= now / size;
            }
        });
        static char buffer[1 << 20];
        for (size_t left = count * size; left > 0;) {
            const ssize_t done = read(out_, buffer, std::min(left, sizeof buffer));
            bench::check(done > 0, "read");
            left -= static_cast<size_t>(done);
        }
        const double seconds = bench::since(begin);
        writer.join();
        return seconds;
    }

  private:
    pid_t sides_[2];
    int in_, out_;
};

// The same by the engine alone, between two processes.
double carry_directly(size_t count, size_t size) {
    const pid_t pid = fork();
    if (pid == 0) {
        void *context = zmq_ctx_new();
        void *socket = zmq_socket(context, ZMQ_PUSH);
        const std::string data(size, 'x');
        zmq_connect(socket, kDirect);
        for (size_t i = 0; i < count + 1; ++i)
            zmq_send(socket, data.data(), data.size(), 0);
        zmq_close(socket);
        zmq_ctx_term(context);
        _exit(0);
    }
    void *context = zmq_ctx_new();
    void *socket = zmq_socket(context, ZMQ_PULL);
    std::string data(size, 0);
    bench::check(zmq_bind(socket, kDirect) == 0, "zmq_bind");
    zmq_recv(socket, data.data(), size, 0);
    const auto begin = bench::Clock::now();
    for (size_t i = 0; i < count; ++i)
        zmq_recv(socket, data.data(), size, 0);
    const double seconds = bench::since(begin);
    zmq_close(socket);
    zmq_ctx_term(context);
    waitpid(pid, nullptr, 0);
    return seconds;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main() {
    char folder[] = "/tmp/qvcl-benchXXXXXX";
    bench::check(mkdtemp(folder) != nullptr, "mkdtemp");
    {
        const Bridge bridge(folder);
        bridge.carry(1000, 64);
        for (const auto &[size, count] : {std::pair<uint32_t, size_t>{64, 100000},
                                          {1024, 60000},
                                          {4096, 30000},
                                          {60000, 3000}}) {
            std::vector<double> ours, direct, ratio;
            for (int round = 0; round < kRounds; ++round) {
                ours.push_back(static_cast<double>(count) / bridge.carry(count, size));
                direct.push_back(static_cast<double>(count) / carry_directly(count, size));
                ratio.push_back(ours.back() / direct.back());
            }
            printf(
                "%5u bytes: bridge %8.0f messages/s (%6.1f MB/s), engine directly %8.0f, ratio "
                "%.2f\n",
                size, median(ours), median(ours) * size / 1e6, median(direct), median(ratio));
        }
        std::vector<double> once(1000);
        for (double &time : once)
            time = bridge.carry(1, 64);
        printf("   64 bytes, one at a time: %.0f us under way\n", median(once) * 1e6);
    }
    rmdir(folder);
    return 0;
}
