/* A client of echo_server: sends requests one after the other, waits for each reply, checks it, and
 * tells how many round trips a second that makes.
 *
 * It needs no loop: connect, send and receive in mode 1 wait for their end. When the server goes
 * away in the middle, the client connects again as soon as there is one, and repeats the request
 * that got no reply. While the server is not there, is full or drops the connection, the client
 * tries again after pauses that double, until its patience is at an end.
 *
 *   echo_client [-n COUNT] [-s SIZE] [-w SECONDS] [-d] SOCKET
 *     -n COUNT    requests (default 1000)
 *     -s SIZE     bytes of payload, at most 4096 (default 64)
 *     -w SECONDS  how long to go without the server (default 5)
 *     -d          in the end ask the server for its trace file
 */
#define _GNU_SOURCE
#include "echo_protocol.h"
#include "example.h"

#include <time.h>
#include <unistd.h>

enum { FIRST_PAUSE = 20, LONGEST_PAUSE = 1000 }; /* milliseconds between two attempts */

static const char *socket_path;
static uint32_t patience = 5;
static uint64_t connections;

/* From the first attempt to connect, or a loss, up to the next reply: */
static int trying;
static double give_up;      /* when patience is at an end */
static uint32_t pause_time; /* before the next attempt */

static struct {
    CL_MsgBlock block;
    char payload[MAX_MESSAGE - CL_MSG_HEADER_SIZE];
} request;

static struct {
    CL_MsgHeader header;
    char payload[MAX_MESSAGE - CL_MSG_HEADER_SIZE];
} reply;

static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

static void begin_trying(void) {
    trying = 1;
    give_up = now() + patience;
    pause_time = FIRST_PAUSE;
}

/* Waits before another attempt, unless there have been attempts for long enough. */
static void try_again_later(const char *what, const CL_ErrInfo *err) {
    if (now() >= give_up) example_fail(what, err);
    CL_Sleep(pause_time);
    pause_time = pause_time * 2 < LONGEST_PAUSE ? pause_time * 2 : LONGEST_PAUSE;
}

/* Whoever has connected may still wait in vain, because the server is full. Once it has replied,
 * it is waited for without limit (0), which costs no timer. */
static uint32_t reply_limit(void) {
    const double left = trying ? give_up - now() : -1;
    return left < 0 ? (uint32_t)trying : (uint32_t)left + 1;
}

/* Connects, and tries again while the server is not there (no socket file, or a stale one that
 * refuses) or has no place left. */
static void connect_to_server(CL_Object *connection) {
    CL_ErrInfo err;
    while (!CL_CnctMSGC(connection, socket_path, CL_MODE_SYNC, &err)) {
        const int later = err.err == ENOENT || err.err == ECONNREFUSED || err.err == EAGAIN;
        if (!later) example_fail("CL_CnctMSGC", &err);
        try_again_later("CL_CnctMSGC", &err);
    }
    ++connections;
    printf("connected\n");
}

/* One request and its reply, whose length is the result; -1 when the connection is lost. The block
 * and the buffer are lent to the library only during the calls. */
static int32_t exchange_once(CL_Object *connection, int32_t size, CL_ErrInfo *err) {
    const int32_t block = (int32_t)sizeof request.block + size;
    if (CL_SendMSGC(connection, &request, block, CL_MODE_SYNC, 0, err) < 0) return -1;
    return CL_RecvMSGC(connection, &reply, sizeof reply, CL_MODE_SYNC, reply_limit(), err);
}

static void exchange(CL_Object *connection, uint32_t type, uint32_t expected, int32_t size) {
    CL_ErrInfo err, scratch;
    int32_t length;
    request.block.header.type = type;
    while ((length = exchange_once(connection, size, &err)) < 0) {
        if (!trying) begin_trying();
        if (!CL_DiscMSGC(connection, NULL, NULL, &scratch)) example_fail("CL_DiscMSGC", &scratch);
        try_again_later("no reply", &err);
        connect_to_server(connection);
    }
    trying = 0;
    const int32_t payload = length - CL_MSG_HEADER_SIZE;
    if (reply.header.type != expected || payload != size ||
        memcmp(reply.payload, request.payload, (size_t)size) != 0) {
        fprintf(stderr, "echo_client: not the reply to the request (type %u, %d bytes)\n",
                reply.header.type, payload);
        exit(EXIT_FAILURE);
    }
}

/* Every request has another payload, so that a reply cannot be taken for that of another. */
static void fill_payload(uint32_t number, int32_t size) {
    for (int32_t i = 0; i < size; ++i)
        request.payload[i] = (char)(number * 31 + (uint32_t)i);
}

int main(int argc, char **argv) {
    CL_ErrInfo err;
    uint32_t count = 1000;
    int32_t size = 64;
    int option, dump = 0;
    while ((option = getopt(argc, argv, "n:s:w:d")) != -1) {
        switch (option) {
            case 'n':
                count = (uint32_t)strtoul(optarg, NULL, 10);
                break;
            case 's':
                size = (int32_t)strtol(optarg, NULL, 10);
                break;
            case 'w':
                patience = (uint32_t)strtoul(optarg, NULL, 10);
                break;
            case 'd':
                dump = 1;
                break;
            default:
                return EXIT_FAILURE;
        }
    }
    if (optind + 1 != argc || size < 0 || size > (int32_t)sizeof request.payload) {
        fprintf(stderr, "usage: %s [-n COUNT] [-s SIZE] [-w SECONDS] [-d] SOCKET\n", argv[0]);
        return EXIT_FAILURE;
    }
    socket_path = argv[optind];

    example_begin("echo_client", 1, NULL);
    CL_Object *connection = CL_CreateFD(CL_KIND_MSGC, NULL, 0, 0, &err);
    if (!connection) example_fail("CL_CreateFD", &err);
    begin_trying();
    connect_to_server(connection);

    const double begin = now();
    for (uint32_t i = 0; i < count; ++i) {
        fill_payload(i, size);
        exchange(connection, ECHO_REQUEST, ECHO_REPLY, size);
    }
    const double seconds = now() - begin;
    printf(
        "%u round trips of %d bytes in %.3f s: %.0f a second, %lu bytes each way, "
        "%lu connection(s)\n",
        count, size, seconds, (double)count / seconds,
        (unsigned long)count * (unsigned long)(size + CL_MSG_HEADER_SIZE),
        (unsigned long)connections);
    if (dump) exchange(connection, DUMP_REQUEST, DUMP_DONE, 0);

    if (!CL_DeleteFD(connection, &err)) example_fail("CL_DeleteFD", &err);
    return example_end();
}
