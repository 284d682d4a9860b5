/* Threads that compute, and a loop that they wake.
 *
 * The library is driven by one thread, the loop's. The workers touch nothing of it: they take jobs
 * and hand in results under a lock of our own, and send SIGUSR1 to the loop's thread. The loop then
 * calls every listed THREAD object, whose callback collects what has been handed in. Several
 * wake-ups may arrive as one, so it always collects everything.
 *
 * The jobs: count the primes of one range after the other, which gives those below a limit.
 *
 *   pool [-t THREADS] [-l LIMIT]
 */
#define _GNU_SOURCE
#include "example.h"

#include <qvcl/thread.h>

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

enum { ALL_DONE = 1 }; /* value that ends the loop */
enum { RANGE = 10000, MAX_THREADS = 64 };

typedef struct Result {
    uint32_t first, primes;
} Result;

/* What the threads share; everything in it belongs to the lock. */
static struct {
    pthread_mutex_t lock;
    uint32_t next, limit; /* jobs: [next, limit) is still to be taken */
    Result *results;      /* handed in, not collected yet */
    uint32_t result_count;
} shared = {.lock = PTHREAD_MUTEX_INITIALIZER, .limit = 2000000};

static pthread_t loop_thread;

/* The loop's own, used by its thread alone. */
static uint32_t primes, jobs_open, wake_ups;

static uint32_t count_primes(uint32_t first, uint32_t end) {
    uint32_t count = 0;
    for (uint32_t n = first; n < end; ++n) {
        uint32_t divisor = 2;
        while (divisor * divisor <= n && n % divisor != 0)
            ++divisor;
        count += n >= 2 && divisor * divisor > n;
    }
    return count;
}

/* The next job's first number, or the limit when there is none. */
static uint32_t take_job(uint32_t *end) {
    pthread_mutex_lock(&shared.lock);
    const uint32_t first = shared.next;
    *end = shared.limit - first > RANGE ? first + RANGE : shared.limit;
    shared.next = *end;
    pthread_mutex_unlock(&shared.lock);
    return first;
}

static void hand_in(Result result) {
    pthread_mutex_lock(&shared.lock);
    shared.results[shared.result_count++] = result;
    pthread_mutex_unlock(&shared.lock);
    pthread_kill(loop_thread, SIGUSR1); /* after unlocking: the loop finds the lock free */
}

static void *work(void *unused) {
    uint32_t first, end;
    (void)unused;
    while ((first = take_job(&end)) < end)
        hand_in((Result){first, count_primes(first, end)});
    return NULL;
}

/* On the loop's thread, where calling the library is allowed. */
static uint32_t on_wake(CL_Object *object, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    (void)object, (void)arg1, (void)arg2;
    if (event->type != CL_EVENT_WAKE) return 0;
    ++wake_ups;
    pthread_mutex_lock(&shared.lock);
    for (uint32_t i = 0; i < shared.result_count; ++i)
        primes += shared.results[i].primes;
    jobs_open -= shared.result_count;
    shared.result_count = 0;
    pthread_mutex_unlock(&shared.lock);
    return jobs_open == 0 ? ALL_DONE : 0;
}

/* All signals go to the loop's thread: the workers are created with all of them blocked. */
static void start_workers(pthread_t *threads, int count) {
    sigset_t all, saved;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    for (int i = 0; i < count; ++i) {
        errno = pthread_create(&threads[i], NULL, work, NULL);
        if (errno != 0) example_fail_errno("pthread_create");
    }
    pthread_sigmask(SIG_SETMASK, &saved, NULL);
}

int main(int argc, char **argv) {
    CL_ErrInfo err;
    pthread_t threads[MAX_THREADS];
    int option, count = 4;
    while ((option = getopt(argc, argv, "t:l:")) != -1) {
        if (option == 't')
            count = atoi(optarg);
        else if (option == 'l')
            shared.limit = (uint32_t)strtoul(optarg, NULL, 10);
        else
            return EXIT_FAILURE;
    }
    if (count < 1 || count > MAX_THREADS || shared.limit < 1 || shared.limit > 100000000) {
        fprintf(stderr, "usage: %s [-t THREADS] [-l LIMIT]\n", argv[0]);
        return EXIT_FAILURE;
    }

    example_begin("pool", 1, NULL);
    loop_thread = pthread_self();
    jobs_open = (shared.limit + RANGE - 1) / RANGE;
    shared.results = CL_malloc(jobs_open * sizeof *shared.results);
    if (!shared.results) example_fail_errno("CL_malloc");
    CL_Object *object = CL_CreateFD(CL_KIND_THREAD, on_wake, 0, 0, &err);
    if (!object) example_fail("CL_CreateFD", &err);
    if (!CL_SetThreadFd(object, &err)) example_fail("CL_SetThreadFd", &err);
    if (!CL_AddEventList(object, CL_PRIORITY_FIRST, &err)) example_fail("CL_AddEventList", &err);
    /* The handler first: from then on no wake-up is lost, even before the loop runs. */
    if (!clSIGUSR1Initialize(&err)) example_fail("clSIGUSR1Initialize", &err);
    start_workers(threads, count);

    if (CL_EventLoopThread(&err) != ALL_DONE) example_fail("CL_EventLoopThread", &err);
    for (int i = 0; i < count; ++i)
        pthread_join(threads[i], NULL);
    clSIGUSR1End();
    printf("%u primes below %u, counted by %d threads, collected in %u wake-ups\n", primes,
           shared.limit, count, wake_ups);

    if (!CL_DeleteFD(object, &err)) example_fail("CL_DeleteFD", &err);
    CL_free(shared.results);
    return example_end();
}
