// Messages between two processes: round trips and one-way streams.
//
// The floor is a bare program that waits in pselect, reads 16 bytes and then the rest, and writes.
// The library goes the same way twice, in the loop and with synchronous calls; other libraries
// stand beside it. All exchange the same bytes over a local stream socket.
#include <cstring>

#include <qvcl/qvcl.h>

#include "bench/exchange.h"

using bench::Comparison;
using bench::Figure;
using bench::Order;
using bench::Placement;
using bench::Times;
using bench::Transport;

namespace {

// ---------------------------------------------------------------- the library

void fine(bool result, const char *what, const CL_ErrInfo &err) {
    if (result) return;
    fprintf(stderr, "%s: err %u, module %u\n", what, err.err, err.module);
    _exit(1);
}

// One end of a connection, its message block and its receive buffer.
struct End {
    CL_ErrInfo err = {};
    CL_Object *object = nullptr;
    struct {
        CL_MsgBlock block;
        char payload[bench::kLargest];
    } out = {};
    alignas(CL_MsgHeader) char in[bench::kLargest] = {};

    CL_MsgHeader &received() { return *reinterpret_cast<CL_MsgHeader *>(in); }

    void send(const CL_MsgHeader &header, uint32_t mode) {
        out.block.header.type = header.type;
        CL_SendMSGC(object, &out, static_cast<int32_t>(CL_MSG_PREFIX_SIZE + header.length), mode, 0,
                    &err);
        fine(err.err == 0 || err.err == CL_ERR_IN_PROGRESS, "CL_SendMSGC", err);
    }
    bool sending() const { return out.block.link.owner != nullptr; }
    void receive(uint32_t mode) {
        CL_RecvMSGC(object, in, sizeof in, mode, 0, &err);
        fine(err.err == 0 || err.err == CL_ERR_IN_PROGRESS, "CL_RecvMSGC", err);
    }
    void connect(const std::string &path, CL_Callback callback) {
        fine(CL_Init(10, nullptr, &err), "CL_Init", err);
        object = CL_CreateFD(CL_KIND_MSGC, callback, 0, 0, &err);
        fine(CL_CnctMSGC(object, path.c_str(), CL_MODE_SYNC, &err), "CL_CnctMSGC", err);
    }
    // Listens, waits for one client, and leaves the loop with `object` connected to it.
    void accept_one(const std::string &path, CL_Callback callback,
                    const std::function<void()> &ready) {
        fine(CL_Init(10, nullptr, &err), "CL_Init", err);
        static CL_Callback for_client;
        for_client = callback;
        const auto on_connection = [](CL_Object *server, CL_Event *, uint64_t self,
                                      uint64_t) -> uint32_t {
            auto *end = reinterpret_cast<End *>(self);
            end->object = CL_AcceptMSGS(server, for_client, 0, 0, &end->err);
            return 1;
        };
        CL_Object *server =
            CL_CreateFD(CL_KIND_MSGS, on_connection, reinterpret_cast<uint64_t>(this), 0, &err);
        fine(CL_OpenMSGS(server, path.c_str(), 1, &err), "CL_OpenMSGS", err);
        fine(CL_AddEventList(server, CL_PRIORITY_FIRST, &err), "CL_AddEventList", err);
        ready();
        CL_EventLoop(&err);
        fine(object != nullptr, "CL_AcceptMSGS", err);
        CL_DeleteFD(server, &err);
    }
};

struct SyncPort : End {
    CL_MsgHeader &header() { return received(); }
    void send() { End::send(received(), CL_MODE_SYNC); }
    void receive() { End::receive(CL_MODE_SYNC); }
};

constexpr Transport kSync = {"qvcl synchronous",
                             [](const std::string &path, const std::function<void()> &ready) {
                                 static SyncPort port;
                                 port.accept_one(path, nullptr, ready);
                                 bench::serve_port(port);
                             },
                             [](const std::string &path) -> std::function<void(const Order &)> {
                                 static SyncPort port;
                                 port.connect(path, nullptr);
                                 return [](const Order &order) { bench::run_order(port, order); };
                             }};

void list_and_receive(End &end) {
    fine(CL_AddEventList(end.object, CL_PRIORITY_FIRST, &end.err), "CL_AddEventList", end.err);
    end.receive(CL_MODE_IMMEDIATE);
}

void serve_in_loop(const std::string &path, const std::function<void()> &ready) {
    static End end;
    const auto on_event = [](CL_Object *, CL_Event *event, uint64_t, uint64_t) -> uint32_t {
        if (event->type == CL_EVENT_DISCONNECT) return 1;
        if (event->type != CL_EVENT_MESSAGE) return 0;
        CL_MsgHeader header = end.received();
        if (header.type == bench::acknowledge) header.length = sizeof header;
        if (header.type != bench::absorb) end.send(header, CL_MODE_IMMEDIATE);
        end.receive(CL_MODE_IMMEDIATE);
        return 0;
    };
    end.accept_one(path, on_event, ready);
    list_and_receive(end);
    CL_EventLoop(&end.err);
}

std::function<void(const Order &)> connect_in_loop(const std::string &path) {
    static End end;
    static Order order;
    static uint64_t left;
    // As much as goes out at once; the rest when the block or an answer comes back.
    static const auto go_on = [] {
        while (left != 0 && !end.sending()) {
            const CL_MsgHeader header = bench::header_of(order, left == 1);
            --left;
            end.send(header, CL_MODE_IMMEDIATE);
            if (header.type != bench::absorb) return;
        }
    };
    const auto on_event = [](CL_Object *, CL_Event *event, uint64_t, uint64_t) -> uint32_t {
        if (event->type == CL_EVENT_DISCONNECT) _exit(1);
        if (event->type == CL_EVENT_MESSAGE) {
            end.receive(CL_MODE_IMMEDIATE);
            if (left == 0) return 1;
            go_on();
        } else if (order.shape == Order::stream) {
            go_on();
        }
        return 0;
    };
    end.connect(path, on_event);
    list_and_receive(end);
    return [](const Order &given) {
        order = given;
        left = given.count;
        go_on();
        fine(CL_EventLoop(&end.err) == 1, "CL_EventLoop", end.err);
    };
}

constexpr Transport kLoop = {"qvcl loop", serve_in_loop, connect_in_loop};

// ---------------------------------------------------------------- what is asked

const Transport *const kTransports[] = {
    &kSync,         &bench::kBare, &kLoop,         &bench::kBareReadsFirst,
    &bench::kLibuv, &bench::kNng,  &bench::kZeroMq};

Comparison exchange(Order order, const Placement &placement) {
    Comparison comparison;
    comparison.batch_seconds = 5e-3;
    for (const Transport *transport : kTransports) {
        auto link = std::make_shared<bench::Link>(*transport, placement);
        comparison.sides.push_back({transport->name, [link, order](size_t n) {
                                        return link->run({order.shape, order.payload, n});
                                    }});
    }
    return comparison;
}

Comparison round_trips(uint32_t payload, const Placement &placement) {
    Comparison comparison = exchange({Order::ping_pong, payload, 0}, placement);
    const auto best_other = [](const Times &t) { return std::min({t[4], t[5], t[6]}); };
    const bool ahead = payload == 64 || payload == 1024;
    comparison.figures = {{"synchronous, of pselect's round trips",
                           [](const Times &t) { return t[1] / t[0]; }, Figure::at_least, 0.95},
                          {"loop, of pselect's round trips",
                           [](const Times &t) { return t[1] / t[2]; }, Figure::at_least, 0.85},
                          {"synchronous, of the best other library's round trips",
                           [best_other](const Times &t) { return best_other(t) / t[0]; },
                           ahead ? Figure::at_least : Figure::none, 1}};
    return comparison;
}

Comparison stream(uint32_t payload, const Placement &placement) {
    Comparison comparison = exchange({Order::stream, payload, 0}, placement);
    comparison.figures = {
        {"synchronous, of the speed of pselect with a read first",
         [](const Times &t) { return t[3] / t[0]; }},
        {"loop, of the speed of pselect", [](const Times &t) { return t[1] / t[2]; }}};
    return comparison;
}

void tell_allocations(const Placement &placement) {
    printf("allocations of both processes in a round trip of 64 bytes:");
    for (const Transport *transport : kTransports) {
        bench::Link link(*transport, placement);
        constexpr uint64_t kTrips = 1000;
        link.run({Order::ping_pong, 64, kTrips});
        const uint64_t before = link.allocated();
        link.run({Order::ping_pong, 64, kTrips});
        printf("  %s %.2f", transport->name,
               static_cast<double>(link.allocated() - before) / kTrips);
    }
    printf("\n");
}

}  // namespace

int main(int argc, char **argv) {
    tell_allocations(bench::placements()[0]);
    for (const Placement &placement : bench::placements()) {
        for (const uint32_t payload : {0u, 64u, 1024u, 65536u}) {
            bench::compare("round trip/" + std::to_string(payload) + " bytes, " + placement.name,
                           [=] { return round_trips(payload, placement); });
        }
        for (const uint32_t payload : {64u, 4096u, 65536u}) {
            bench::compare("one way/" + std::to_string(payload) + " bytes, " + placement.name,
                           [=] { return stream(payload, placement); });
        }
    }
    return bench::run(argc, argv);
}
