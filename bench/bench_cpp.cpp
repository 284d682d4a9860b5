// The layer for C++: an echo server of coroutines, beside the same in C, once as the C example does
// it and once answering at once, and beside libuv. The client is the same plain loop for all.
//
// And what an idle connection and a waiting task take.
#include <malloc.h>
#include <cstring>

#include <qvcl/qvcl.hpp>

#include "bench/exchange.h"

using bench::Comparison;
using bench::Figure;
using bench::Order;
using bench::Placement;
using bench::Times;
using bench::Transport;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t kPayload = 65536;

// ---------------------------------------------------------------- the servers

qvcl::Task<> serve_one(qvcl::Server server, qvcl::Runtime &rt) {
    auto connection = (co_await server.accept({.message = kPayload})).value();
    for (;;) {
        const auto message = co_await connection.receive();
        if (!message || !co_await connection.send(message->type, message->payload)) break;
    }
    rt.stop();
}

// Every receive may take ten seconds at most.
qvcl::Task<> serve_in_time(qvcl::Server server, qvcl::Runtime &rt) {
    auto connection = (co_await server.accept({.message = kPayload})).value();
    for (;;) {
        const auto message = co_await qvcl::with_deadline(10s, connection.receive());
        if (!message || !co_await connection.send(message->type, message->payload)) break;
    }
    rt.stop();
}

template <auto kServe>
void serve_coroutines(const std::string &path, const std::function<void()> &ready) {
    qvcl::Runtime rt;
    rt.spawn(kServe(qvcl::Server::listen(path.c_str()).value(), rt));
    ready();
    rt.run().value();
}

// The C server: its buffers, and the mode of its answers.
struct Plain {
    CL_Object *connection = nullptr;
    uint32_t mode = 0;
    CL_Queue free = {};
    struct {
        CL_MsgBlock block;
        char payload[kPayload];
    } replies[4] = {};
    alignas(CL_MsgHeader) char request[sizeof(CL_MsgHeader) + kPayload] = {};
} plain;

uint32_t on_client(CL_Object *connection, CL_Event *event, uint64_t /*arg1*/, uint64_t /*arg2*/) {
    CL_ErrInfo err = {};
    if (event->type == CL_EVENT_SENT) {
        CL_QUE_PutTail(&plain.free, event->data);
        return 0;
    }
    if (event->type != CL_EVENT_MESSAGE) return 1;
    const auto *header = static_cast<const CL_MsgHeader *>(event->data);
    auto *block = static_cast<CL_MsgBlock *>(CL_QUE_GetTop(&plain.free));
    const int32_t payload = event->length - CL_MSG_HEADER_SIZE;
    memcpy(block + 1, header + 1, static_cast<size_t>(payload));
    block->header.type = header->type;
    CL_SendMSGC(connection, block, static_cast<int32_t>(sizeof *block) + payload, plain.mode, 0,
                &err);
    if (err.err != CL_ERR_IN_PROGRESS) CL_QUE_PutTail(&plain.free, block);
    CL_RecvMSGC(connection, plain.request, sizeof plain.request, CL_MODE_DEFERRED, 0, &err);
    return 0;
}

uint32_t on_connection(CL_Object *server, CL_Event * /*event*/, uint64_t /*arg1*/,
                       uint64_t /*arg2*/) {
    CL_ErrInfo err = {};
    plain.connection = CL_AcceptMSGS(server, on_client, 0, 0, &err);
    CL_RecvMSGC(plain.connection, plain.request, sizeof plain.request, CL_MODE_DEFERRED, 0, &err);
    bench::check(CL_AddEventList(plain.connection, 50, &err) == 1, "CL_AddEventList");
    return 0;
}

template <uint32_t kMode>
void serve_plain(const std::string &path, const std::function<void()> &ready) {
    CL_ErrInfo err = {};
    plain.mode = kMode;
    CL_QUE_InitQT(&plain.free, offsetof(CL_MsgBlock, link));
    for (auto &reply : plain.replies)
        CL_QUE_PutTail(&plain.free, &reply);
    CL_Init(10, nullptr, &err);
    CL_Object *server = CL_CreateFD(CL_KIND_MSGS, on_connection, 0, 0, &err);
    bench::check(CL_OpenMSGS(server, path.c_str(), 1, &err) == 1, "CL_OpenMSGS");
    CL_AddEventList(server, 60, &err);
    ready();
    CL_EventLoop(&err);
}

const Transport kServers[] = {
    {"coroutines", serve_coroutines<serve_one>, bench::kBare.connect},
    {"coroutines, each receive with a deadline", serve_coroutines<serve_in_time>,
     bench::kBare.connect},
    {"C, as the example", serve_plain<CL_MODE_DEFERRED>, bench::kBare.connect},
    {"C, answers at once", serve_plain<CL_MODE_IMMEDIATE>, bench::kBare.connect},
    {"libuv", bench::kLibuv.serve, bench::kBare.connect}};

Comparison round_trips(uint32_t payload, const Placement &placement) {
    Comparison comparison;
    comparison.batch_seconds = 5e-3;
    for (const Transport &transport : kServers) {
        auto link = std::make_shared<bench::Link>(transport, placement);
        comparison.sides.push_back({transport.name, [link, payload](size_t n) {
                                        return link->run({Order::ping_pong, payload, n});
                                    }});
    }
    comparison.figures = {
        {"coroutines, of the round trips of the C example",
         [](const Times &t) { return t[2] / t[0]; }, Figure::at_least, 0.95},
        {"coroutines, of those of C that answers at once",
         [](const Times &t) { return t[3] / t[0]; }, Figure::at_least, 0.95},
        {"the same with deadlines, of those without", [](const Times &t) { return t[0] / t[1]; }},
        {"coroutines, of those of libuv", [](const Times &t) { return t[4] / t[0]; }}};
    return comparison;
}

void tell_allocations(const Placement &placement) {
    printf("allocations of both processes in a round trip of 64 bytes:");
    for (const Transport &transport : kServers) {
        bench::Link link(transport, placement);
        constexpr uint64_t kTrips = 1000;
        link.run({Order::ping_pong, 64, kTrips});
        const uint64_t before = link.allocated();
        link.run({Order::ping_pong, 64, kTrips});
        printf("  %s %.2f", transport.name,
               static_cast<double>(link.allocated() - before) / kTrips);
    }
    printf("\n");
}

// ---------------------------------------------------------------- memory

qvcl::Task<> hold(qvcl::Connection connection) {
    static_cast<void>(co_await connection.receive());
}
qvcl::Task<> wait(qvcl::Event &event) {
    static_cast<void>(co_await event.wait());
}

qvcl::Task<> tell_sizes(
    qvcl::Runtime &rt,
    std::string path) {  // NOLINT(performance-unnecessary-value-param): its own in the frame
    constexpr int kConnections = 200, kTasks = 10000;
    qvcl::Server server = qvcl::Server::listen(path.c_str()).value();
    size_t before = mallinfo2().uordblks;
    for (int i = 0; i < kConnections; ++i) {
        bench::connect_to(path);
        rt.spawn(hold((co_await server.accept({.message = 1024, .blocks = 2})).value()));
    }
    co_await qvcl::after(10ms);
    printf(
        "bytes of an idle connection of 1024-byte messages and two blocks, its task included, "
        "beside its object: %zu\n",
        (mallinfo2().uordblks - before) / kConnections);
    qvcl::Event event;
    before = mallinfo2().uordblks;
    for (int i = 0; i < kTasks; ++i)
        rt.spawn(wait(event));
    co_await qvcl::after(10ms);
    printf("bytes of a waiting task: %zu\n", (mallinfo2().uordblks - before) / kTasks);
}

}  // namespace

int main(int argc, char **argv) {  // NOLINT(bugprone-exception-escape): ends it, as intended
    tell_allocations(bench::placements()[0]);
    for (const Placement &placement : bench::placements()) {
        for (const uint32_t payload : {0u, 64u, 4096u}) {
            bench::compare("echo/" + std::to_string(payload) + " bytes, " + placement.name,
                           [=] { return round_trips(payload, placement); });
        }
    }
    const int result = bench::run(argc, argv);
    qvcl::Runtime rt({.objects = 500});
    rt.run(tell_sizes(rt, "/tmp/qvcl-bench-cpp-" + std::to_string(getpid()))).value();
    return result;
}
