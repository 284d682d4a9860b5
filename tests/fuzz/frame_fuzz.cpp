// Arbitrary bytes as the stream of a peer. The first byte says how the rest is cut, the second how
// large the receive buffer is. The messages, and how the stream ends, must be those that a reader
// of a few lines finds, and nothing behind the buffer may change.
#include <qvcl/client.h>
#include <qvcl/main.h>
#include <qvcl/steps.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

void require(bool fine) {
    if (!fine) abort();
}

struct Reading {
    std::vector<std::string> messages;
    uint32_t end = 0;  // error of the disconnect event
    bool operator==(const Reading &other) const = default;
};

uint32_t number(std::string_view bytes, size_t at) {
    uint32_t result = 0;
    for (size_t i = 4; i-- > 0;)
        result = result << 8 | static_cast<uint8_t>(bytes[at + i]);
    return result;
}

// What the stream holds, without the library.
Reading expected(std::string_view stream, size_t capacity) {
    Reading reading;
    reading.end = EPIPE;
    while (stream.size() >= 16) {
        const uint32_t length = number(stream, 0);
        const bool negative = length >= 0x80000000u;
        if (!negative && length > capacity) {
            reading.end = EMSGSIZE;
            break;
        }
        if (negative || length < 16 || number(stream, 4) != 0x00010001) {
            reading.end = EPROTO;
            break;
        }
        if (length > stream.size()) break;
        reading.messages.emplace_back(stream.substr(0, length));
        stream.remove_prefix(length);
    }
    return reading;
}

// A listening socket of the test's own, and the library, once for all inputs.
struct Stage {
    Stage() : listener(socket(AF_UNIX, SOCK_STREAM, 0)) {
        address.sun_family = AF_UNIX;
        const std::string path = "/tmp/qvcl-frame-" + std::to_string(getpid());
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(address.sun_path);
        require(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0);
        require(listen(listener, 1) == 0);
        CL_ErrInfo err;
        require(CL_Init(1, nullptr, &err) == 1);
        client = CL_CreateFD(CL_KIND_MSGC, nullptr, 0, 0, &err);
        require(client != nullptr);
    }
    ~Stage() {
        unlink(address.sun_path);
        close(listener);
    }
    int listener;
    sockaddr_un address = {};
    CL_Object *client;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static Stage stage;
    if (size < 2 || size > 65536) return 0;
    const size_t piece = 1 + data[0], capacity = 16 + data[1];
    const std::string stream(reinterpret_cast<const char *>(data) + 2, size - 2);
    std::vector<char> buffer(capacity + 64, '#');
    CL_ErrInfo err;
    CL_Object *client = stage.client;
    require(CL_CnctMSGC(client, stage.address.sun_path, CL_MODE_SYNC, &err) == 1);
    const int peer = accept(stage.listener, nullptr, nullptr);
    require(peer != -1);

    Reading reading;
    const auto set_up = [&] {
        client->sub_status = 0;
        require(CL_RecvMSGC(client, buffer.data(), static_cast<int32_t>(capacity), CL_MODE_DEFERRED,
                            0, &err) == -1);
        require(err.err == CL_ERR_IN_PROGRESS);
    };
    const auto take = [&] {
        CL_Event event;
        while (reading.end == 0 && cl_recv(client, &event, &err) == 1) {
            if (event.type == CL_EVENT_MESSAGE) {
                reading.messages.emplace_back(buffer.data(), static_cast<size_t>(event.length));
                set_up();
            } else {
                require(event.type == CL_EVENT_DISCONNECT && event.error.err == err.err);
                require((client->status & CL_STATUS_FAILED) != 0);
                reading.end = err.err;
            }
        }
    };
    set_up();
    for (size_t at = 0; at < stream.size(); at += piece) {
        const size_t length = std::min(piece, stream.size() - at);
        require(send(peer, stream.data() + at, length, MSG_NOSIGNAL) ==
                static_cast<ssize_t>(length));
        take();
        if (reading.end != 0) break;
    }
    close(peer);
    take();
    require(reading == expected(stream, capacity));
    require(std::all_of(buffer.begin() + static_cast<ptrdiff_t>(capacity), buffer.end(),
                        [](char c) { return c == '#'; }));
    require(CL_DiscMSGC(client, nullptr, nullptr, &err) == 1);
    return 0;
}
