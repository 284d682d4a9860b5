/* A program that is started by supervisor: it reports that it is up, works once a second, and ends
 * when it is asked to. Started by hand it does the same without anybody to report to.
 *
 *   worker [-c FILE] [-q]
 *     -c FILE  crash at the first work, unless FILE exists (and create it): a crash that happens
 * once -q       keep quiet: never report, so that nobody can ask it to end either
 */
#define _GNU_SOURCE
#include "example.h"

#include <qvcl/starter.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

enum { END = 1 }; /* value that ends the loop */

static uint32_t work_done;

static void crash_once(const char *file) {
    const struct rlimit no_core = {0, 0};
    const int fd = open(file, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return;
    setrlimit(RLIMIT_CORE, &no_core);
    printf("crashing\n");
    CL_Abort_M();
}

static uint32_t on_work(CL_Object *timer, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    (void)timer, (void)event, (void)arg2;
    ++work_done;
    if (arg1) crash_once((const char *)arg1);
    return 0;
}

/* Asked to end, or (error 32) nobody is left who could ask. The library deletes the object. */
static uint32_t on_end(CL_Object *end, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    (void)end, (void)arg1, (void)arg2;
    printf("%s after %u seconds of work\n", event->error.err ? "supervisor lost" : "asked to end",
           work_done);
    return END;
}

static void report(void) {
    CL_ErrInfo err;
    if (CL_StartupComplete(on_end, 0, 0, 0, &err)) return;
    if (err.err != ENOENT) example_fail("CL_StartupComplete", &err); /* ENOENT: not started so */
}

int main(int argc, char **argv) {
    CL_ErrInfo err;
    const char *crash_file = NULL;
    int option, quiet = 0;
    while ((option = getopt(argc, argv, "c:q")) != -1) {
        if (option == 'c')
            crash_file = optarg;
        else if (option == 'q')
            quiet = 1;
        else
            return EXIT_FAILURE;
    }

    example_begin("worker", 2, NULL);
    CL_Object *timer = CL_CreateFD(CL_KIND_TIMER, on_work, (uint64_t)crash_file, 0, &err);
    if (!timer) example_fail("CL_CreateFD", &err);
    if (!CL_StartTIMER(timer, 1, CL_TIMER_PERIODIC, &err)) example_fail("CL_StartTIMER", &err);
    if (!quiet) report(); /* last: whoever has reported is ready */

    example_loop();
    if (!CL_DeleteFD(timer, &err)) example_fail("CL_DeleteFD", &err);
    return example_end();
}
