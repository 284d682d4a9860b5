// Channels between two processes: streams and round trips, beside plain loops and other libraries.
//
// Two floors have no verdict: a loop that reads and writes the same bytes in bulk, and libuv where
// the program does the gathering; both know their one connection, and check and record nothing.
#include <qvcl/channel.h>
#include <qvcl/nest.h>
#include <qvcl/qvcl.h>

#include "bench/exchange.h"

using bench::Comparison;
using bench::Figure;
using bench::Order;
using bench::Placement;
using bench::Times;
using bench::Transport;

namespace {

constexpr uint32_t kBuffer = 131072;  // bytes, as those beside it that gather have

CL_ErrInfo err;

void fine(bool result, const char *what) {
    if (result) return;
    fprintf(stderr, "%s: err %u, module %u, location %u\n", what, err.err, err.module, err.line);
    _exit(1);
}

void begin() {
    fine(CL_Init(10, nullptr, &err), "CL_Init");
    fine(CL_CreateNest(CL_PRIORITY_FIRST, 0, &err), "CL_CreateNest");
}

uint32_t leave(CL_Channel * /*channel*/, const CL_ErrInfo * /*reason*/, uint64_t /*arg1*/,
               uint64_t /*arg2*/) {
    _exit(1);
}

uint32_t answer(CL_Channel *channel, const CL_MsgHeader *message, uint64_t /*arg1*/,
                uint64_t /*arg2*/) {
    if (message->type == bench::absorb) return 0;
    const uint32_t size = message->type == bench::echo ? message->length - 16 : 0;
    fine(CL_SendChannel(channel, message->type, message + 1, size, &err), "CL_SendChannel");
    return 0;
}

uint32_t accept_one(CL_ChannelListener *listener, uint64_t /*arg1*/, uint64_t /*arg2*/) {
    CL_ChannelOptions options = {};
    options.message = answer;
    options.closed = leave;
    options.send_size = options.receive_size = kBuffer;
    fine(CL_AcceptChannel(listener, &options, 0, 0, &err) != nullptr, "CL_AcceptChannel");
    return 0;
}

void serve(const std::string &path, const std::function<void()> &ready) {
    begin();
    fine(CL_CreateChannelListener(path.c_str(), 1, 0, accept_one, 0, 0, &err) != nullptr,
         "CL_CreateChannelListener");
    ready();
    CL_EventLoop(&err);
}

CL_Channel *channel;
Order order;
uint64_t left;
char payload[bench::kLargest];

// As much as there is room for; the rest when there is room again, or an answer.
void go_on() {
    while (left != 0) {
        const CL_MsgHeader header = bench::header_of(order, left == 1);
        if (!CL_SendChannel(channel, header.type, payload, order.payload, &err)) {
            fine(err.err == EAGAIN, "CL_SendChannel");
            return;
        }
        --left;
        if (header.type != bench::absorb) return;
    }
}

uint32_t on_answer(CL_Channel * /*channel*/, const CL_MsgHeader * /*message*/, uint64_t /*arg1*/,
                   uint64_t /*arg2*/) {
    if (left == 0) return 1;
    go_on();
    return 0;
}

uint32_t on_drained(CL_Channel * /*channel*/, uint64_t /*arg1*/, uint64_t /*arg2*/) {
    go_on();
    return 0;
}

std::function<void(const Order &)> connect(const std::string &path) {
    begin();
    CL_ChannelOptions options = {};
    options.message = on_answer;
    options.drained = on_drained;
    options.closed = leave;
    options.send_size = options.receive_size = kBuffer;
    channel = CL_ConnectChannel(path.c_str(), &options, 0, 0, &err);
    fine(channel != nullptr, "CL_ConnectChannel");
    return [](const Order &given) {
        order = given;
        left = given.count;
        go_on();
        CL_FlushChannel(channel, &err);
        fine(CL_EventLoop(&err) == 1, "CL_EventLoop");
    };
}

constexpr Transport kChannel = {"channel", serve, connect};

const Transport *const kTransports[] = {
    &kChannel,    &bench::kLibuv,  &bench::kLibuvGathers,   &bench::kLibevent,
    &bench::kNng, &bench::kZeroMq, &bench::kBareReadsFirst, &bench::kBareGathers};

// What is timed as one: so many messages that the answer at the end of a batch does not count.
constexpr uint64_t kStreamed = 1024;

Comparison exchange(Order given, const Placement &placement) {
    Comparison comparison;
    comparison.batch_seconds = given.shape == Order::stream ? 2e-2 : 5e-3;
    for (const Transport *transport : kTransports) {
        auto link = std::make_shared<bench::Link>(*transport, placement);
        comparison.sides.push_back(
            {transport->name, [link, given](size_t n) {
                 return link->run({given.shape, given.payload, n * given.count});
             }});
    }
    return comparison;
}

Comparison stream(uint32_t size, const Placement &placement) {
    Comparison comparison = exchange({Order::stream, size, kStreamed}, placement);
    for (size_t i = 1; i < std::size(kTransports); ++i) {
        const bool floor =
            kTransports[i] == &bench::kBareGathers || kTransports[i] == &bench::kLibuvGathers;
        comparison.figures.push_back({std::string("of the speed of ") + kTransports[i]->name,
                                      [i](const Times &t) { return t[i] / t[0]; },
                                      floor ? Figure::none : Figure::at_least, 1});
    }
    return comparison;
}

Comparison round_trips(uint32_t size, const Placement &placement) {
    Comparison comparison = exchange({Order::ping_pong, size, 1}, placement);
    for (size_t i = 1; i < std::size(kTransports); ++i) {
        const bool limited = kTransports[i] == &bench::kLibuv;
        comparison.figures.push_back({std::string("x ") + kTransports[i]->name,
                                      [i](const Times &t) { return t[0] / t[i]; },
                                      limited ? Figure::at_most : Figure::none, 1.1});
    }
    return comparison;
}

}  // namespace

int main(int argc, char **argv) {
    for (const Placement &placement : bench::placements()) {
        for (const uint32_t size : {64u, 4096u}) {
            bench::compare(
                "one way/1024 messages of " + std::to_string(size) + " bytes, " + placement.name,
                [=] { return stream(size, placement); }, 31);
            bench::compare("round trip/" + std::to_string(size) + " bytes, " + placement.name,
                           [=] { return round_trips(size, placement); });
        }
    }
    return bench::run(argc, argv);
}
