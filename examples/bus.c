/* A service on the D-Bus session bus, by sd-bus of libsystemd: it reminds.
 *
 * sd-bus can be asked for its descriptor and its time-out, and told to go on: a source of the
 * companion (qvcl/source.h) puts it on the loop. The reminders are timers of the nest. When one is
 * due, the program calls sd-bus by itself, so it updates the source afterwards.
 *
 *   Remind(u milliseconds, s text) -> u    later the signal Due(u number, s text)
 *
 *   bus NAME         serves as NAME, object /, interface example.Reminder
 *   bus NAME PEER    as well, and now and then asks whether PEER answers
 */
#define _GNU_SOURCE
#include "example.h"

#include <qvcl/source.h>

#include <poll.h>
#include <signal.h>
#include <systemd/sd-bus.h>

enum { STOP = 1, FAILED = 2 }; /* values that end the loop */
enum { MILLISECOND = 1000000 };
enum { PATIENCE = 300000 }; /* microseconds for the peer's answer */

#define INTERFACE "example.Reminder"

typedef struct Reminder {
    CL_QueueLink link;
    CL_NestTimer *timer;
    uint32_t number;
    char text[200];
} Reminder;

static sd_bus *bus;
static CL_Source *source;
static CL_Queue reminders;
static uint32_t reminded;

static void check(int result, const char *what) {
    if (result >= 0) return;
    errno = -result;
    example_fail_errno(what);
}

/* --- sd-bus on the loop --- */

/* Its events are those of poll, its time-out is in microseconds of the monotonic clock; 0 when
 * messages wait inside of it. */
static uint32_t prepare(CL_SourceFD *fds, uint32_t limit, uint64_t *due, uint64_t arg1,
                        uint64_t arg2) {
    const int events = sd_bus_get_events(bus);
    uint64_t microseconds;
    (void)limit, (void)arg1, (void)arg2;
    if (sd_bus_get_timeout(bus, &microseconds) >= 0 && microseconds < UINT64_MAX / 1000)
        *due = microseconds * 1000;
    if (events < 0) { /* not connected any more: dispatch is to notice */
        *due = 0;
        return 0;
    }
    fds[0].fd = sd_bus_get_fd(bus);
    fds[0].events = (events & POLLIN ? (uint32_t)CL_NEST_READ : 0) |
                    (events & POLLOUT ? (uint32_t)CL_NEST_WRITE : 0);
    return 1;
}

/* One message at a time, so that the rest of the loop has its turn. */
static uint32_t dispatch(CL_Source *self, int fd, uint32_t ready, uint64_t arg1, uint64_t arg2) {
    const int result = sd_bus_process(bus, NULL);
    (void)self, (void)fd, (void)ready, (void)arg1, (void)arg2;
    if (result >= 0) return 0;
    fprintf(stderr, "bus: the bus is lost: %s\n", strerror(-result));
    return FAILED;
}

static void called_the_bus(void) {
    CL_ErrInfo err;
    if (!CL_UpdateSource(source, &err)) example_fail("CL_UpdateSource", &err);
}

/* --- What it is for --- */

static void forget(Reminder *reminder) {
    CL_ErrInfo err;
    if (!CL_DeleteNestTimer(reminder->timer, &err)) example_fail("CL_DeleteNestTimer", &err);
    CL_QUE_GetData(&reminders, reminder);
    CL_free(reminder);
}

static uint32_t on_due(CL_NestTimer *timer, uint64_t missed, uint64_t arg1, uint64_t arg2) {
    Reminder *reminder = (Reminder *)arg1;
    (void)timer, (void)missed, (void)arg2;
    check(sd_bus_emit_signal(bus, "/", INTERFACE, "Due", "us", reminder->number, reminder->text),
          "sd_bus_emit_signal");
    called_the_bus();
    forget(reminder);
    return 0;
}

static int on_remind(sd_bus_message *call, void *data, sd_bus_error *error) {
    CL_ErrInfo err;
    uint32_t milliseconds;
    const char *text;
    (void)data, (void)error;
    const int result = sd_bus_message_read(call, "us", &milliseconds, &text);
    if (result < 0) return result;
    Reminder *reminder = CL_malloc(sizeof *reminder);
    if (!reminder) return -ENOMEM;
    reminder->number = ++reminded;
    snprintf(reminder->text, sizeof reminder->text, "%s", text);
    reminder->timer = CL_CreateNestTimer(0, on_due, (uint64_t)reminder, 0, &err);
    if (!reminder->timer ||
        !CL_StartNestTimer(reminder->timer, 0, (uint64_t)milliseconds * MILLISECOND, 0, &err))
        example_fail("a nest timer", &err);
    CL_QUE_PutTail(&reminders, reminder);
    return sd_bus_reply_method_return(call, "u", reminder->number);
}

static const sd_bus_vtable kInterface[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Remind", "us", "u", on_remind, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("Due", "us", 0),
    SD_BUS_VTABLE_END,
};

/* --- A peer, whose silence only a time-out of sd-bus ends --- */

static int on_answer(sd_bus_message *answer, void *data, sd_bus_error *error) {
    const sd_bus_error *failure = sd_bus_message_get_error(answer);
    (void)error;
    printf("%s: %s\n", (const char *)data, failure ? failure->name : "answers");
    return 0;
}

static uint32_t on_ask(CL_NestTimer *timer, uint64_t missed, uint64_t arg1, uint64_t arg2) {
    const char *peer = (const char *)arg1;
    sd_bus_message *call = NULL;
    (void)timer, (void)missed, (void)arg2;
    check(
        sd_bus_message_new_method_call(bus, &call, peer, "/", "org.freedesktop.DBus.Peer", "Ping"),
        "sd_bus_message_new_method_call");
    check(sd_bus_call_async(bus, NULL, call, on_answer, (void *)arg1, PATIENCE),
          "sd_bus_call_async");
    sd_bus_message_unref(call);
    called_the_bus();
    return 0;
}

static uint32_t on_signal(CL_NestSignal *watcher, const struct signalfd_siginfo *info,
                          uint64_t arg1, uint64_t arg2) {
    (void)watcher, (void)info, (void)arg1, (void)arg2;
    return STOP;
}

int main(int argc, char **argv) {
    CL_ErrInfo err;
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: %s NAME [PEER]\n", argv[0]);
        return EXIT_FAILURE;
    }
    example_begin("bus", 1, NULL);
    CL_QUE_InitQT(&reminders, offsetof(Reminder, link));
    if (!CL_CreateNest(CL_PRIORITY_FIRST, 0, &err)) example_fail("CL_CreateNest", &err);
    if (!CL_CreateNestSignal(SIGTERM, on_signal, 0, 0, &err))
        example_fail("CL_CreateNestSignal", &err);

    check(sd_bus_open_user(&bus), "sd_bus_open_user");
    check(sd_bus_add_object_vtable(bus, NULL, "/", INTERFACE, kInterface, NULL),
          "sd_bus_add_object_vtable");
    check(sd_bus_request_name(bus, argv[1], 0), "sd_bus_request_name");
    source = CL_CreateSource(1, 0, prepare, dispatch, 0, 0, &err);
    if (!source) example_fail("CL_CreateSource", &err);
    if (argc == 3) {
        CL_NestTimer *timer = CL_CreateNestTimer(0, on_ask, (uint64_t)argv[2], 0, &err);
        if (!timer || !CL_StartNestTimer(timer, 0, 0, 200ul * MILLISECOND, &err))
            example_fail("a nest timer", &err);
    }
    printf("serving\n");

    const uint32_t result = example_loop();
    while (CL_QUE_GetNum(&reminders) > 0)
        forget(reminders.head);
    if (!CL_DeleteSource(source, &err)) example_fail("CL_DeleteSource", &err);
    sd_bus_flush_close_unref(bus);
    if (!CL_DeleteNest(&err)) example_fail("CL_DeleteNest", &err);
    const int status = example_end();
    return result == STOP ? status : EXIT_FAILURE;
}
