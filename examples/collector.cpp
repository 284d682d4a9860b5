// Collects lines from many clients into a file that is rotated, and tells how it stands on request.
//
// A client's line is in the file when it gets the reply: what was said is there, whatever happens
// to the client next. When the disk is full the reply says so, and the collector goes on.
//
//   cpp_collector SOCKET FILE [BYTES]
//
// FILE, and FILE.1 to FILE.4 before it, of so many BYTES each (1 MB). A client that says so many
// lines, and then asks for the status:
//
//   cpp_collector -c SOCKET LINES
#include <qvcl/qvcl.hpp>

#include <unistd.h>
#include <string>

using namespace qvcl;
using namespace std::chrono_literals;

enum : uint32_t { kLine = 1, kStored = 2, kStatus = 3 };
static constexpr int kGenerations = 4;

struct Status {
    uint64_t lines, bytes, rotations, failures;
    uint32_t clients;
};

static Error failure(const char *call) {
    CL_ErrInfo error = {};
    error.err = static_cast<uint32_t>(errno);
    return {call, error};
}

class Collector {
  public:
    Collector(std::string path, uint64_t most) : path_(std::move(path)), most_(most) {}

    Result<> store(std::string_view line) {
        if (file_.object() == nullptr || written_ + line.size() + 1 > most_) {
            const Result<> fresh = rotate();
            if (!fresh) ++status.failures;
            if (file_.object() == nullptr) return fresh;  // else it grows on
        }
        const Result<> stored = file_.write(std::string(line) + '\n');
        if (stored) {
            written_ += line.size() + 1;
            status.bytes += line.size() + 1;
            ++status.lines;
        } else {
            ++status.failures;
        }
        return stored;
    }

    Status status = {};

  private:
    std::string generation(int number) const {
        return number == 0 ? path_ : path_ + '.' + std::to_string(number);
    }
    // The generations up to the first gap move on by one. So a rotation that failed half way costs
    // none of them when it is tried again.
    Result<> move_on() const {
        int gap = 0;
        while (gap < kGenerations && access(generation(gap).c_str(), F_OK) == 0)
            ++gap;
        for (int i = gap; i > 0; --i) {
            const std::string from = generation(i - 1);
            // What is not there need not move.
            if (rename(from.c_str(), generation(i).c_str()) != 0 && access(from.c_str(), F_OK) == 0)
                return failure("rename");
        }
        return {};
    }
    // Changes nothing before there is a file to go on with.
    Result<> rotate() {
        const std::string next = path_ + ".next";
        const Result<> rotated = go_on_in(next);
        if (!rotated) unlink(next.c_str());
        return rotated;
    }
    Result<> go_on_in(const std::string &next) {
        auto file = File::open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
        if (!file) return file.error();
        if (const auto moved = move_on(); !moved) return moved;
        if (rename(next.c_str(), path_.c_str()) != 0) return failure("rename");
        file_ = std::move(*file);
        written_ = 0;
        ++status.rotations;
        return {};
    }

    std::string path_;
    uint64_t most_;
    uint64_t written_ = 0;
    File file_;
};

static Task<> client(Collector &collector, Connection connection) {
    struct Here {
        explicit Here(Collector &in) : status(in.status) { ++status.clients; }
        ~Here() { --status.clients; }
        Status &status;
    } const here(collector);
    for (;;) {
        auto message = co_await with_deadline(60s, connection.receive());
        if (!message) co_return;
        Result<> sent;
        if (message->type == kLine) {
            const Result<> stored = collector.store(message->text());
            sent = co_await connection.send(kStored, stored.error().code().value());
        } else {
            sent = co_await connection.send(kStatus, collector.status);
        }
        if (!sent) co_return;
    }
}

static Task<> serve(Runtime &rt, Server server, Collector &collector) {
    printf("listening\n");
    for (;;) {
        auto connection = (co_await server.accept({.message = 1000})).value();
        rt.spawn(client(collector, std::move(connection)));
    }
}

static Task<> stop(Runtime &rt) {
    Signals signals{SIGTERM, SIGINT};
    (co_await signals.next()).value();
    rt.stop(EXIT_SUCCESS);
}

static Task<> say(const char *path, uint32_t lines) {
    auto c = (co_await Connection::connect(path, {.message = 1000})).value();
    for (uint32_t i = 0; i < lines; ++i) {
        (co_await c.send(kLine, std::to_string(getpid()) + " says " + std::to_string(i))).value();
        const int code = (co_await with_deadline(5s, c.receive())).value().as<int>().value();
        if (code != 0) throw std::runtime_error(category().message(code));
    }
    (co_await c.send(kStatus)).value();
    const auto status = (co_await with_deadline(5s, c.receive())).value().as<Status>().value();
    printf("%lu lines, %lu bytes, %lu files, %lu failures, %u clients\n", status.lines,
           status.bytes, status.rotations, status.failures, status.clients);
}

int main(int argc, char **argv) try {
    const bool is_client = argc == 4 && std::string_view(argv[1]) == "-c";
    if (argc < 3 || argc > 4) {
        fprintf(stderr, "usage: %s SOCKET FILE [BYTES] | -c SOCKET LINES\n", argv[0]);
        return EXIT_FAILURE;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    log_to_stderr();
    // The tasks that the runtime destroys at its end refer to it.
    Collector collector(argv[2], argc > 3 ? strtoull(argv[3], nullptr, 10) : 1000000);
    Runtime rt({.objects = 300});
    if (is_client) {
        rt.run(say(argv[2], static_cast<uint32_t>(strtoul(argv[3], nullptr, 10)))).value();
        return EXIT_SUCCESS;
    }
    rt.spawn(stop(rt));
    rt.spawn(serve(rt, Server::listen(argv[1]).value(), collector));
    return rt.run().value();
} catch (const std::exception &error) {
    fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return EXIT_FAILURE;
}
