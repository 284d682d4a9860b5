/* The echo server's own suite, in plain C: the server runs in a process of its own, with a plan in
 * force that makes a call of the library fail, and clients are to be served all the same.
 *
 * The server's main is compiled as echo_server_main. Exits with 0 when all cases passed. */
#define _GNU_SOURCE
#include "echo_protocol.h"

#include <qvcl/kit.h>
#include <qvcl/qvcl.h>

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

int echo_server_main(int argc, char **argv);

static char path[] = "echo_suite.socket";

/* One failure each that a service has to survive. */
static const CL_KitFault kCases[] = {
    {.call = "accept", .error = ECONNABORTED, .nth = 1, .times = 1},
    {.call = "accept", .error = EMFILE, .nth = 1, .times = 1},
    {.call = "recv", .error = EINTR, .nth = 1, .times = 5},
    {.call = "recv", .nth = 1, .times = CL_KIT_FOREVER, .limited = 1, .at_most = 1},
    {.call = "send", .error = EAGAIN, .nth = 1, .times = 3},
    {.call = "send", .nth = 1, .times = CL_KIT_FOREVER, .limited = 1, .at_most = 7},
    {.call = "pselect", .error = EINTR, .nth = 1, .times = 10},
};

/* In a new process: whoever runs there ends with the suite. */
static pid_t start(int (*run)(const CL_KitFault *), const CL_KitFault *fault) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    exit(run(fault));
}

static int server(const CL_KitFault *fault) {
    char name[] = "echo_server", option[] = "-r", seconds[] = "1";
    char *arguments[] = {name, option, seconds, path, NULL};
    if (!CL_KitPlan(fault, 1)) return 2;
    const int status = echo_server_main(4, arguments);
    if (CL_KitHits() == 0) fprintf(stderr, "%s did not fail\n", fault->call);
    return CL_KitHits() == 0 ? 3 : status;
}

/* Sends one message and expects it back. */
static int client(const CL_KitFault *fault) {
    struct {
        CL_MsgBlock block;
        char payload[304];
    } request = {.block.header.type = ECHO_REQUEST};
    struct {
        CL_MsgHeader header;
        char payload[304];
    } reply;
    CL_ErrInfo err;
    (void)fault;
    memset(request.payload, 'x', sizeof request.payload);
    if (!CL_Init(5, NULL, &err)) return 2;
    CL_Object *connection = CL_CreateFD(CL_KIND_MSGC, NULL, 0, 0, &err);
    for (int i = 0; !CL_CnctMSGC(connection, path, CL_MODE_SYNC, &err); ++i) {
        if (i == 200) return 3;
        CL_Sleep(10);
    }
    if (CL_SendMSGC(connection, &request, sizeof request, CL_MODE_SYNC, 10, &err) < 0) return 4;
    if (CL_RecvMSGC(connection, &reply, sizeof reply, CL_MODE_SYNC, 10, &err) != sizeof reply)
        return 5;
    return memcmp(reply.payload, request.payload, sizeof reply.payload) == 0 ? 0 : 6;
}

static int status_of(pid_t pid) {
    int status = -1;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int main(void) {
    int failed = 0;
    setvbuf(stdout, NULL, _IOLBF, 0);
    for (size_t i = 0; i < sizeof kCases / sizeof *kCases; ++i) {
        const pid_t serves = start(server, &kCases[i]);
        const int client_status = status_of(start(client, NULL));
        kill(serves, SIGTERM);
        const int server_status = status_of(serves);
        const int well = client_status == 0 && server_status == 0;
        printf("%s %s %s: client %d, server %d\n", well ? "ok  " : "FAIL", kCases[i].call,
               kCases[i].error ? strerrorname_np(kCases[i].error) : "in pieces", client_status,
               server_status);
        failed += !well;
    }
    return failed != 0;
}
