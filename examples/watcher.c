/* A daemon that watches three descriptors of its own, each at a priority:
 *
 *   15  signals   a signalfd: SIGTERM ends it, SIGHUP makes it tell what it remembers
 *   20  lines     a FIFO, or standard input: the lines that somebody feeds it
 *   90  digest    an eventfd that the lines callback raises: work that may wait until nothing
 *                 more urgent is left in the same round
 *
 * It remembers the most recent lines in library memory, as many as the limit lets it, and forgets
 * the oldest ones for them. It ends when the last writer has closed the FIFO (result 1) or when it
 * is asked to (result 2): the value of the callback that ended the loop.
 *
 *   watcher [-l BYTES] [-o] [FIFO]
 *     -l BYTES  memory limit (default 65536)
 *     -o        have signals and digest ready when the loop begins, and show the first callbacks
 */
#define _GNU_SOURCE
#include "example.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

enum { AT_END_OF_INPUT = 1, AT_REQUEST = 2 }; /* values that end the loop */
enum { SHOWN_CALLBACKS = 6, LINE_ROOM = 32768 };
enum { MESSAGE_STARTED = 1, MESSAGE_FORGOT = 2, MESSAGE_ENDED = 3, MESSAGE_STATE = 4 };

#ifndef WATCHER_CATALOGUE
#define WATCHER_CATALOGUE "watcher.cat"
#endif

/* A remembered line. The link makes it an element of the queue; nothing else is allocated. */
typedef struct Line {
    CL_QueueLink link;
    size_t length;
    char text[];
} Line;

/* A watched descriptor: the object stands for it in the loop. */
typedef struct Watch {
    const char *name;
    int fd;
    uint32_t priority;
    CL_Object *object;
} Watch;

static CL_Queue memory; /* of Line, oldest first */
static uint64_t lines_read, lines_forgotten, digests;
static size_t longest; /* line, in characters, when last digested */
static int callbacks_to_show;
static char input[LINE_ROOM]; /* the line that has not ended yet */
static size_t input_length;

static void show_callback(const Watch *watch) {
    if (callbacks_to_show == 0) return;
    --callbacks_to_show;
    printf("callback %s (priority %u)\n", watch->name, watch->priority);
}

/* A message from the catalogue, to the internal log and to standard error. */
#define TELL(severity, message, ...) \
    CL_LOG_Out(CL_LOG_INTERNAL | CL_LOG_STDERR, severity, 0, message, __VA_ARGS__)

static void tell_state(void) {
    const uint64_t bytes = CL_MainTable->user_bytes;
    TELL(CL_LOG_INFO, MESSAGE_STATE, "dDD", (int32_t)CL_QUE_GetNum(&memory), (int64_t)bytes,
         (int64_t)lines_forgotten);
    printf("remembers %u lines (longest %zu) in %lu bytes, forgot %lu\n", CL_QUE_GetNum(&memory),
           longest, (unsigned long)bytes, (unsigned long)lines_forgotten);
}

static void forget_oldest(void) {
    Line *line = CL_QUE_GetTop(&memory);
    if (!CL_free(line)) abort();
    if (lines_forgotten++ == 0) TELL(CL_LOG_WARNING, MESSAGE_FORGOT, "D", (int64_t)lines_read);
}

/* CL_malloc refuses what would exceed the limit: then older lines make room. */
static void remember(const char *text, size_t length) {
    Line *line;
    ++lines_read;
    while (!(line = CL_malloc(sizeof *line + length))) {
        if (CL_QUE_GetNum(&memory) == 0) return; /* the line alone is too long */
        forget_oldest();
    }
    line->length = length;
    memcpy(line->text, text, length);
    CL_QUE_PutTail(&memory, line);
}

/* Cuts what has been read into lines; the last one may go on in the next read. */
static void take_lines(void) {
    size_t begin = 0;
    for (size_t i = 0; i < input_length; ++i) {
        if (input[i] != '\n') continue;
        remember(input + begin, i - begin);
        begin = i + 1;
    }
    if (begin == 0 && input_length == sizeof input) { /* no end in sight: cut it */
        remember(input, input_length);
        begin = input_length;
    }
    input_length -= begin;
    memmove(input, input + begin, input_length);
}

/* Every callback has this form. arg1 is what CL_CreateFD was given: our Watch. */
static uint32_t on_lines(CL_Object *object, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    const Watch *watch = (const Watch *)arg1;
    const Watch *digest = (const Watch *)arg2;
    (void)object;
    /* The sets are those of the whole loop: a callback asks for its own descriptor. */
    if (event->type != CL_EVENT_DESCRIPTOR || !FD_ISSET(watch->fd, &event->sets.read)) return 0;
    show_callback(watch);
    const ssize_t count = read(watch->fd, input + input_length, sizeof input - input_length);
    if (count < 0) return errno == EAGAIN || errno == EINTR ? 0 : AT_REQUEST;
    if (count == 0) {
        if (input_length > 0) remember(input, input_length);
        return AT_END_OF_INPUT;
    }
    input_length += (size_t)count;
    take_lines();
    return eventfd_write(digest->fd, 1) == 0 ? 0 : AT_REQUEST;
}

static void digest_lines(void) {
    uint32_t status;
    longest = 0;
    for (const Line *line = NULL; (line = CL_QUE_Enum(&memory, line, CL_QUE_FORWARD, &status));)
        if (line->length > longest) longest = line->length;
    ++digests;
}

static uint32_t on_digest(CL_Object *object, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    const Watch *watch = (const Watch *)arg1;
    eventfd_t batches;
    (void)object, (void)arg2;
    if (event->type != CL_EVENT_DESCRIPTOR || !FD_ISSET(watch->fd, &event->sets.read)) return 0;
    show_callback(watch);
    if (eventfd_read(watch->fd, &batches) == 0) digest_lines();
    return 0;
}

static uint32_t on_signal(CL_Object *object, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    const Watch *watch = (const Watch *)arg1;
    struct signalfd_siginfo info;
    (void)object, (void)arg2;
    if (event->type != CL_EVENT_DESCRIPTOR || !FD_ISSET(watch->fd, &event->sets.read)) return 0;
    show_callback(watch);
    if (read(watch->fd, &info, sizeof info) != sizeof info) return 0;
    if (info.ssi_signo == SIGTERM) return AT_REQUEST;
    tell_state();
    return 0;
}

/* An object for the descriptor, with its set, on the event list. */
static void watch_it(Watch *watch, CL_Callback callback, Watch *other) {
    CL_ErrInfo err;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(watch->fd, &readable);
    watch->object = CL_CreateFD(CL_KIND_FD, callback, (uint64_t)watch, (uint64_t)other, &err);
    if (!watch->object) example_fail("CL_CreateFD", &err);
    if (!CL_SetFD(watch->object, (uint32_t)watch->fd + 1, &readable, NULL, NULL, &err))
        example_fail("CL_SetFD", &err);
    if (!CL_AddEventList(watch->object, watch->priority, &err))
        example_fail("CL_AddEventList", &err);
}

/* The library never closes descriptors of ours. */
static void unwatch(Watch *watch) {
    CL_ErrInfo err;
    if (!CL_DeleteFD(watch->object, &err)) example_fail("CL_DeleteFD", &err);
    close(watch->fd);
}

/* The signals must be blocked to be read from a descriptor. The library ignores SIGHUP, but a
 * signal that is blocked is kept all the same. */
static int open_signals(void) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    if (sigprocmask(SIG_BLOCK, &signals, NULL) != 0) return -1;
    return signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
}

int main(int argc, char **argv) {
    uint64_t limit = 65536;
    int option;
    while ((option = getopt(argc, argv, "l:o")) != -1) {
        if (option == 'l')
            limit = strtoull(optarg, NULL, 10);
        else if (option == 'o')
            callbacks_to_show = SHOWN_CALLBACKS;
        else
            return EXIT_FAILURE;
    }

    CL_ErrInfo err;
    Watch signals = {"signals", open_signals(), 15, NULL};
    example_begin("watcher", 3, NULL);
    if (!CL_LOG_Init_M("watcher", WATCHER_CATALOGUE, NULL, "watcher.log", &err))
        example_fail("CL_LOG_Init", &err);
    CL_memlimit(limit);
    CL_QUE_InitQT(&memory, offsetof(Line, link));

    Watch lines = {"lines", STDIN_FILENO, 20, NULL};
    Watch digest = {"digest", eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), 90, NULL};
    if (optind < argc) lines.fd = open(argv[optind], O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (signals.fd < 0 || lines.fd < 0 || digest.fd < 0) example_fail_errno("descriptors");

    /* The order of listing does not matter: the priorities do. */
    watch_it(&digest, on_digest, NULL);
    watch_it(&lines, on_lines, &digest);
    watch_it(&signals, on_signal, NULL);
    TELL(CL_LOG_INFO, MESSAGE_STARTED, "d", (int32_t)getpid());
    if (callbacks_to_show && (eventfd_write(digest.fd, 1) != 0 || raise(SIGHUP) != 0))
        example_fail_errno("raise");

    const uint32_t result = example_loop();
    TELL(CL_LOG_INFO, MESSAGE_ENDED, "dDD", (int32_t)result, (int64_t)lines_read, (int64_t)digests);
    tell_state();
    printf("loop ended by a callback with %u after %lu lines\n", result, (unsigned long)lines_read);

    while (CL_QUE_GetNum(&memory) > 0)
        CL_free(CL_QUE_GetTop(&memory));
    unwatch(&signals);
    unwatch(&lines);
    unwatch(&digest);
    return example_end();
}
