/* What the nest brings to the loop: a timer of fractions of a second, work posted from a thread, a
 * signal as an event that tells its sender, a descriptor of our own.
 *
 * A monitor of its own breath: a thread measures how late it wakes up from short sleeps and posts
 * each figure to the loop; five times a second the loop tells the worst. A line on the standard
 * input is told as well. SIGTERM ends it, and is told with the process that sent it.
 *
 *   nest [-i INTERVAL_IN_MILLISECONDS]
 */
#define _GNU_SOURCE
#include "example.h"

#include <qvcl/nest.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <time.h>
#include <unistd.h>

enum { TERMINATED = 1 }; /* value that ends the loop */
enum { MILLISECOND = 1000000, REST = 2 * MILLISECOND };

static atomic_bool end_of_work;
static CL_NestPosts *figures; /* whoever posts needs nothing else of the library */

/* The loop's own, used by its thread alone. */
static uint64_t worst, count, refused;
static char input[200];
static size_t input_length;

/* ---- The thread's */

static uint32_t on_figure(uint64_t late, uint64_t lost);

static void *work(void *unused) {
    const struct timespec rest = {0, REST};
    uint64_t lost = 0;
    (void)unused;
    while (!end_of_work) {
        CL_ErrInfo err;
        const uint64_t start = CL_NestTime(CL_NEST_MONOTONIC);
        nanosleep(&rest, NULL);
        const uint64_t late = CL_NestTime(CL_NEST_MONOTONIC) - start - REST;
        /* The queue is bounded: a loop that is busy for long loses figures, not memory. */
        if (!CL_NestPost(figures, on_figure, late, lost, &err)) ++lost;
    }
    return NULL;
}

/* ---- The loop's */

/* Called on the loop's thread, with what was posted. */
static uint32_t on_figure(uint64_t late, uint64_t lost) {
    if (late > worst) worst = late;
    ++count;
    refused = lost;
    return 0;
}

static uint32_t on_interval(CL_NestTimer *timer, uint64_t missed, uint64_t arg1, uint64_t arg2) {
    (void)timer, (void)arg1, (void)arg2;
    printf("worst of %llu: %.3f ms late", (unsigned long long)count, (double)worst / MILLISECOND);
    if (refused) printf(", %llu lost", (unsigned long long)refused);
    if (missed) printf(", %llu intervals missed", (unsigned long long)missed);
    printf("\n");
    worst = count = 0;
    return 0;
}

static void tell_lines(void) {
    char *end;
    while ((end = memchr(input, '\n', input_length)) || input_length == sizeof input) {
        const size_t length = end ? (size_t)(end - input) : input_length;
        const size_t taken = end ? length + 1 : length;
        printf("somebody says: %.*s\n", (int)length, input);
        input_length -= taken;
        memmove(input, input + taken, input_length);
    }
}

/* The descriptor does not block: what is ready now may be gone when it is read, or be a part of a
 * line. A failure comes again in the next turn, unless it was one that passes. */
static uint32_t on_input(CL_NestWatch *watch, uint32_t ready, uint64_t arg1, uint64_t arg2) {
    static int failures;
    const ssize_t length = read(STDIN_FILENO, input + input_length, sizeof input - input_length);
    (void)ready, (void)arg1, (void)arg2;
    if (length > 0) {
        failures = 0;
        input_length += (size_t)length;
        tell_lines();
    } else if (length == 0 || (errno != EAGAIN && errno != EINTR && ++failures == 50)) {
        CL_ErrInfo err;
        if (input_length > 0) printf("somebody says: %.*s\n", (int)input_length, input);
        if (!CL_DeleteNestWatch(watch, &err)) example_fail("CL_DeleteNestWatch", &err);
        printf("nobody says any more\n");
    }
    return 0;
}

static uint32_t on_term(CL_NestSignal *watcher, const struct signalfd_siginfo *info, uint64_t arg1,
                        uint64_t arg2) {
    (void)watcher, (void)arg1, (void)arg2;
    printf("SIGTERM from process %u\n", info->ssi_pid);
    return TERMINATED;
}

static void watch_input(void) {
    CL_ErrInfo err;
    if (fcntl(STDIN_FILENO, F_SETFL, fcntl(STDIN_FILENO, F_GETFL) | O_NONBLOCK) == -1)
        example_fail_errno("fcntl");
    /* A regular file is always ready, and cannot be watched. */
    if (!CL_CreateNestWatch(STDIN_FILENO, CL_NEST_READ, 2, on_input, 0, 0, &err) &&
        err.err != EPERM)
        example_fail("CL_CreateNestWatch", &err);
}

int main(int argc, char **argv) {
    CL_ErrInfo err;
    pthread_t thread;
    uint64_t interval = 200;
    int option;
    while ((option = getopt(argc, argv, "i:")) != -1) {
        interval = option == 'i' ? strtoull(optarg, NULL, 10) : 0;
        if (interval == 0 || interval > 1000000) return EXIT_FAILURE;
    }
    example_begin("nest", 10, NULL);
    if (!CL_CreateNest(CL_PRIORITY_FIRST, 0, &err)) example_fail("CL_CreateNest", &err);

    /* The signal first: it is blocked from here on, in the threads that we make, too. */
    if (!CL_CreateNestSignal(SIGTERM, on_term, 0, 0, &err)) example_fail("SIGTERM", &err);
    figures = CL_CreateNestPosts(1024, 1, NULL, &err);
    if (!figures) example_fail("CL_CreateNestPosts", &err);
    CL_NestTimer *timer = CL_CreateNestTimer(0, on_interval, 0, 0, &err);
    if (!timer || !CL_StartNestTimer(timer, CL_NEST_MONOTONIC, interval * MILLISECOND,
                                     interval * MILLISECOND, &err))
        example_fail("the timer", &err);
    watch_input();
    if (pthread_create(&thread, NULL, work, NULL) != 0) example_fail_errno("pthread_create");

    example_loop();

    end_of_work = true;
    pthread_join(thread, NULL); /* nobody posts any more: the nest may go */
    if (!CL_DeleteNest(&err)) example_fail("CL_DeleteNest", &err);
    return example_end();
}
