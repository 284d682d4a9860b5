/* A request server: sends every payload back to the client that sent it.
 *
 * Each client has one receive buffer and a few message blocks, all in one piece of memory that is
 * allocated when the client connects; while messages go to and fro nothing is allocated. The rule
 * that makes this work: a receive is set up only while a block is free for its reply. A client
 * that sends without reading its replies therefore stops itself, and nobody else.
 *
 * Replies are deferred (mode 3): the loop finishes them and hands each block back with
 * CL_EVENT_SENT. When objects, descriptors or memory are used up, the server leaves whoever comes
 * waiting at the socket until there is room again. SIGTERM ends it cleanly. After a kill, the next
 * start removes the socket file that was left.
 *
 *   echo_server [-r SECONDS] [-d DUMP] SOCKET
 *     -r SECONDS  report clients, messages and bytes every so many seconds (default 5)
 *     -d DUMP     trace file to write when a client asks for it
 *     CRASH_DUMP  environment variable: trace file that a crash leaves
 */
#define _GNU_SOURCE
#include "echo_protocol.h"
#include "example.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

enum { STOP = 1 }; /* value that ends the loop */
enum { MAX_CLIENTS = 200, BLOCKS_PER_CLIENT = 4 };

/* A reply. The block begins with the link of the send queue; while the block is ours, the same link
 * keeps it in the client's list of free blocks: it is on exactly one queue at a time. */
typedef struct Reply {
    CL_MsgBlock block;
    char payload[MAX_MESSAGE - CL_MSG_HEADER_SIZE];
} Reply;

typedef struct Client {
    CL_QueueLink link;
    CL_Object *connection;
    CL_Queue free_replies;
    int receiving;
    Reply replies[BLOCKS_PER_CLIENT];
    _Alignas(CL_MsgHeader) char request[MAX_MESSAGE];
} Client;

static const char *dump_path;
static CL_Queue clients;
static uint64_t messages, bytes, reported_messages;
static CL_Object *server;
static int accepting; /* the server object is listed */
static int told_full;

/* Sets up the next receive if a reply is free for it. 0 for a failed connection. */
static int receive_next(Client *client) {
    CL_ErrInfo err;
    if (client->receiving || CL_QUE_GetNum(&client->free_replies) == 0) return 1;
    CL_RecvMSGC(client->connection, client->request, sizeof client->request, CL_MODE_DEFERRED, 0,
                &err);
    client->receiving = err.err == CL_ERR_IN_PROGRESS;
    return client->receiving;
}

static void accept_clients(void) {
    CL_ErrInfo err;
    if (accepting) return;
    if (!CL_AddEventList(server, 60, &err)) example_fail("CL_AddEventList", &err);
    accepting = 1;
}

/* The event of somebody who waits comes again and again, and each accept would fail like the last
 * one. Off the list, the server object is not asked. */
static void leave_them_waiting(uint32_t why) {
    CL_ErrInfo err;
    if (!told_full)
        fprintf(stderr, "echo_server: full with %u clients (%s), the others wait\n",
                CL_QUE_GetNum(&clients), strerror((int)why));
    told_full = 1;
    if (!CL_DelEventList(server, &err)) example_fail("CL_DelEventList", &err);
    accepting = 0;
}

/* Deleting the connection closes it and takes unsent replies off its send queue; then the memory
 * they are in may go. That makes room for another client. A close that fails costs an object, which
 * must not be listed any more then; the others are served on. */
static void drop(Client *client) {
    CL_ErrInfo err;
    const int listed = (client->connection->status & CL_STATUS_LISTED) != 0;
    if (listed && !CL_DelEventList(client->connection, &err)) example_fail("CL_DelEventList", &err);
    if (!CL_DeleteFD(client->connection, &err))
        fprintf(stderr, "echo_server: a connection does not close: %s\n", strerror((int)err.err));
    CL_QUE_GetData(&clients, client);
    CL_free(client);
    accept_clients();
}

static void dump(void) {
    static char text[16384];
    if (!dump_path) return;
    CL_DescribeProcess("a client asked for it", text, sizeof text);
    CL_TRC_Out(dump_path, text);
}

/* 0 for a failed connection. */
static int answer(Client *client, const CL_MsgHeader *request, int32_t length) {
    CL_ErrInfo err;
    Reply *reply = CL_QUE_GetTop(&client->free_replies); /* there is one: see receive_next */
    const int32_t payload = request->type == ECHO_REQUEST ? length - CL_MSG_HEADER_SIZE : 0;
    if (request->type == DUMP_REQUEST) dump();
    memcpy(reply->payload, request + 1, (size_t)payload);
    reply->block.header.type = request->type == ECHO_REQUEST ? ECHO_REPLY : DUMP_DONE;
    CL_SendMSGC(client->connection, reply, (int32_t)sizeof reply->block + payload, CL_MODE_DEFERRED,
                0, &err);
    if (err.err == CL_ERR_IN_PROGRESS) return 1;
    CL_QUE_PutTail(&client->free_replies, reply); /* not taken: it is still ours */
    return 0;
}

static uint32_t on_client(CL_Object *connection, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    Client *client = (Client *)arg1;
    int alive = 1;
    (void)connection, (void)arg2;
    switch (event->type) {
        case CL_EVENT_MESSAGE:
            client->receiving = 0;
            ++messages;
            bytes += (uint64_t)event->length;
            alive = answer(client, event->data, event->length);
            break;
        case CL_EVENT_SENT: /* the reply is out, its block is ours again */
            CL_QUE_PutTail(&client->free_replies, event->data);
            break;
        default:
            /* Gone. The event's queue holds the unsent blocks during the callback, and the library
             * empties it afterwards: they must leave it before their memory goes. */
            CL_QUE_Clear(&event->queue);
            alive = 0;
    }
    if (!alive || !receive_next(client)) drop(client);
    return 0;
}

/* Somebody waits at the socket. The event comes again until nobody does, so one accept is enough.
 */
static uint32_t on_connection(CL_Object *object, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    CL_ErrInfo err = {.err = ENOMEM};
    (void)event, (void)arg1, (void)arg2;
    Client *client = CL_malloc(sizeof *client);
    if (client) client->connection = CL_AcceptMSGS(object, on_client, (uint64_t)client, 0, &err);
    if (!client || !client->connection) {
        CL_free(client);
        if (err.err != EAGAIN) leave_them_waiting(err.err); /* EAGAIN: gone again */
        return 0;
    }
    CL_QUE_InitQT(&client->free_replies, offsetof(CL_MsgBlock, link));
    for (int i = 0; i < BLOCKS_PER_CLIENT; ++i)
        CL_QUE_PutTail(&client->free_replies, &client->replies[i]);
    CL_QUE_PutTail(&clients, client);
    if (!receive_next(client) || !CL_AddEventList(client->connection, 50, &err)) drop(client);
    return 0;
}

static void report(void) {
    printf("%u clients, %lu messages (%lu new), %lu bytes\n", CL_QUE_GetNum(&clients),
           (unsigned long)messages, (unsigned long)(messages - reported_messages),
           (unsigned long)bytes);
    reported_messages = messages;
}

/* Others may have given up what was missing (descriptors of the system, memory), so now and then
 * accepting is tried again. That there is no room is told at most once between two reports. */
static uint32_t on_timer(CL_Object *timer, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    (void)timer, (void)event, (void)arg1, (void)arg2;
    report();
    told_full = !accepting;
    accept_clients();
    return 0;
}

static uint32_t on_signal(CL_Object *object, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    (void)object, (void)arg2;
    return event->type == CL_EVENT_DESCRIPTOR && FD_ISSET((int)arg1, &event->sets.read) ? STOP : 0;
}

static CL_Object *create(uint32_t kind, CL_Callback callback, uint64_t arg) {
    CL_ErrInfo err;
    CL_Object *object = CL_CreateFD(kind, callback, arg, 0, &err);
    if (!object) example_fail("CL_CreateFD", &err);
    return object;
}

/* SIGTERM as a descriptor that the loop watches, before everything else. */
static CL_Object *watch_termination(int *fd) {
    CL_ErrInfo err;
    sigset_t signals;
    fd_set readable;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, NULL);
    *fd = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
    if (*fd < 0) example_fail_errno("signalfd");
    FD_ZERO(&readable);
    FD_SET(*fd, &readable);
    CL_Object *object = create(CL_KIND_FD, on_signal, (uint64_t)*fd);
    if (!CL_SetFD(object, (uint32_t)*fd + 1, &readable, NULL, NULL, &err))
        example_fail("CL_SetFD", &err);
    if (!CL_AddEventList(object, CL_PRIORITY_FIRST, &err)) example_fail("CL_AddEventList", &err);
    return object;
}

int main(int argc, char **argv) {
    CL_ErrInfo err;
    uint32_t seconds = 5;
    int option, signals;
    while ((option = getopt(argc, argv, "r:d:")) != -1) {
        if (option == 'r')
            seconds = (uint32_t)strtoul(optarg, NULL, 10);
        else if (option == 'd')
            dump_path = optarg;
        else
            return EXIT_FAILURE;
    }
    if (optind + 1 != argc) {
        fprintf(stderr, "usage: %s [-r SECONDS] [-d DUMP] SOCKET\n", argv[0]);
        return EXIT_FAILURE;
    }

    example_begin("echo_server", MAX_CLIENTS + 3, NULL);
    example_record_crashes();
    CL_QUE_InitQT(&clients, offsetof(Client, link));
    CL_Object *termination = watch_termination(&signals);
    CL_Object *timer = create(CL_KIND_TIMER, on_timer, 0);
    server = create(CL_KIND_MSGS, on_connection, 0);
    if (!CL_OpenMSGS(server, argv[optind], 128, &err)) example_fail("CL_OpenMSGS", &err);
    accept_clients();
    if (!CL_StartTIMER(timer, seconds, CL_TIMER_PERIODIC, &err))
        example_fail("CL_StartTIMER", &err);
    printf("listening\n");

    example_loop();

    report();
    while (CL_QUE_GetNum(&clients) > 0)
        drop(clients.head);
    /* Deleting closes: the socket file goes with the server, the interval timer with the timer. */
    if (!CL_DeleteFD(server, &err) || !CL_DeleteFD(timer, &err) || !CL_DeleteFD(termination, &err))
        example_fail("CL_DeleteFD", &err);
    close(signals);
    return example_end();
}
