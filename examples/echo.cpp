// The request server of echo_server.c in C++: sends every payload back to the client that sent it.
//
// A client that sends without reading its replies stops itself, and nobody else: its task waits in
// send() while all blocks are on their way. Those of other users are not served. SIGTERM ends it.
//
//   cpp_echo SOCKET [DUMP]     DUMP: trace file to write when a client asks for it
#include <unistd.h>
#include <qvcl/qvcl.hpp>

#include "echo_protocol.h"

using namespace qvcl;
using namespace std::chrono_literals;

static uint64_t messages;

static Task<> client(Runtime &rt, Connection connection, const char *dump) {
    for (;;) {
        auto request = co_await connection.receive();
        if (!request) co_return;
        ++messages;
        if (request->type == DUMP_REQUEST && dump != nullptr)
            rt.dump(dump, "a client asked for it");
        if (!co_await connection.send(request->type + 1, request->payload)) co_return;
    }
}

static Task<> serve(Runtime &rt, Server server, const char *dump) {
    printf("listening\n");
    for (;;) {
        auto connection = (co_await server.accept({.message = MAX_MESSAGE})).value();
        if (connection.peer() && connection.peer()->uid == getuid())
            rt.spawn(client(rt, std::move(connection), dump));
    }
}

static Task<> report() {
    for (Ticker second(1s);;) {
        (co_await second.next()).value();
        printf("%lu messages\n", static_cast<unsigned long>(messages));
    }
}

static Task<> stop(Runtime &rt) {
    Signals signals{SIGTERM, SIGINT};
    (co_await signals.next()).value();
    rt.stop(EXIT_SUCCESS);
}

int main(int argc, char **argv) try {
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: %s SOCKET [DUMP]\n", argv[0]);
        return EXIT_FAILURE;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    log_to_stderr();
    Runtime rt({.objects = 300});
    rt.spawn(stop(rt));
    rt.spawn(report());
    rt.spawn(serve(rt, Server::listen(argv[1]).value(), argv[2]));
    return rt.run().value();
} catch (const std::exception &error) {
    fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return EXIT_FAILURE;
}
