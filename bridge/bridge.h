// What the two sides of the bridge share: options, frames, the engine's socket on the loop.
//
// A frame is a head and, of kData, the payload of a message. Numbers are little-endian. Messages
// have sequence numbers from 1, each sender's own. A sender keeps what it has accepted until the
// other side says that it is delivered; every frame of its tells the first number that it keeps, so
// a receiver that begins anew knows where.
//
// A connection keeps the order of frames. So a receiver that answers a ping without having received
// what was sent before it has lost that, and only then is anything sent again.
#pragma once

#include <endian.h>
#include <qvcl/qvcl.h>
#include <qvcl/source.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace bridge {

struct Options {
    std::string path;
    std::string endpoint;
    uint32_t queue = 1000;     // messages
    uint32_t largest = 65536;  // bytes of a message, its header included
    uint32_t clients = 16;
    uint32_t linger = 5;  // seconds
};

// The exit status.
int run_sender(const Options &options);
int run_receiver(const Options &options);

enum Kind : uint8_t { kData = 1, kPing, kAnswer };

struct Head {
    char name[2];
    uint8_t version;
    Kind kind;
    uint32_t type;      // kData: of the message
    uint64_t first;     // from a sender: the first number that it keeps; answer: delivered up to
    uint64_t sequence;  // kData: its number; kPing: what is sent next; answer: received up to
    uint64_t round;     // of a ping, and its answer: how often something was sent again
    uint64_t sent;      // answer: the ping's sequence; 0: to no ping
};
static_assert(sizeof(Head) == 40);

struct Frame {
    Head head;
    std::string_view payload;
};

// The engine's socket. It is read and written in `turn`, which the loop calls when something has
// changed, and which says whether it is at its end: nothing left to read or write, or no way to.
class Engine {
  public:
    explicit Engine(const Options &options) : options_(options) {}
    ~Engine();
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    // Ends the program when it cannot.
    void connect();  // as one of many senders
    void bind();     // as their receiver
    void put_on_loop(std::function<bool()> turn);
    // Something outside of the turn made it useful to have one.
    void have_turn();

    // False: cannot be sent now. peer: empty for a sender's.
    bool send(std::string_view peer, const Head &head, std::string_view payload = {});
    // False: nothing there. A frame that is none is counted and left out. The payload is valid
    // until the next call.
    bool receive(std::string *peer, Frame *frame);

    // Whether it can be read, or written, now.
    bool is_readable() const { return has(kReadable); }
    bool is_writable() const { return has(kWritable); }

    uint64_t refused = 0;

  private:
    enum { kReadable = 1, kWritable = 2 };
    bool has(int events) const;
    void open(int type);
    bool receive_part(bool *more);

    const Options &options_;
    void *context_ = nullptr;
    void *socket_ = nullptr;
    void *message_ = nullptr;
    CL_Source *source_ = nullptr;
    std::function<bool()> turn_;
    bool left_ = false;  // the last turn was not at its end
};

// Ends the program, of which something failed that it needs.
[[noreturn]] void fail(const char *what, const CL_ErrInfo &err);
[[noreturn]] void fail_errno(const char *what);

// The library, the nest, and SIGTERM and SIGINT, which call `on_stop`; the second time the loop
// ends at once.
void begin(uint32_t objects, std::function<void()> on_stop);
// The loop ends then, done or not.
void stop_after(uint32_t seconds);
void end();

// Values that end the loop.
enum : uint32_t { kGoOn = 0, kStop = 1 };
// What callbacks return: set by whoever has seen that all is done.
inline uint32_t verdict = kGoOn;

}  // namespace bridge
