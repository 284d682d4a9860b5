/* What all the examples share: where the internal log goes, how a failure is told, and how an
 * example ends. Every example begins with example_begin and ends with `return example_end()`, which
 * is 0 only when the library found nothing that was not given back. */
#ifndef EXAMPLE_H
#define EXAMPLE_H

#include <qvcl/qvcl.h>
#include <qvcl/recorder.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static const char *example_name;
static int example_leaks;

/* The internal log: the library's own lines and the application's, each with its time stamp. The
 * library writes no file; who wants one writes it here. */
static int example_log(int kind, const char *line) {
    (void)kind;
    if (strstr(line, " not released.")) ++example_leaks;
    fprintf(stderr, "%s: %s", example_name, line);
    return 0;
}

/* Ends the program because something failed that it cannot go on without. */
_Noreturn static inline void example_fail(const char *what, const CL_ErrInfo *err) {
    fprintf(stderr, "%s: %s: error %u (%s), module %u, place %u\n", example_name, what, err->err,
            strerror((int)err->err), err->module, err->line);
    exit(EXIT_FAILURE);
}

/* The same for a call of the C library. */
_Noreturn static inline void example_fail_errno(const char *what) {
    fprintf(stderr, "%s: %s: %s\n", example_name, what, strerror(errno));
    exit(EXIT_FAILURE);
}

/* objects: descriptor objects that the program needs at a time. exec_path: socket path on which
 * started programs report, or null. */
static inline void example_begin(const char *name, uint32_t objects, const char *exec_path) {
    CL_ErrInfo err;
    example_name = name;
    setvbuf(stdout, NULL, _IOLBF, 0); /* whoever reads along sees every line at once */
    CL_SetLogCallbackFunction(example_log);
    if (!CL_Init(objects, exec_path, &err)) example_fail("CL_Init", &err);
}

/* A crash leaves a dump where the environment variable CRASH_DUMP says. */
static inline void example_record_crashes(void) {
    CL_ErrInfo err;
    const char *path = getenv("CRASH_DUMP");
    if (path && !CL_RecordCrashes(path, &err)) example_fail("CL_RecordCrashes", &err);
}

/* Missing memory, room or descriptors may pass: waits a moment before another attempt. 0 when fifty
 * attempts in a row have failed. */
static inline int example_wait(int *failures) {
    if (++*failures > 50) return 0;
    CL_Sleep(100);
    return 1;
}

/* Runs the loop, and returns its value. What may pass ends the loop, but not the example, and no
 * more does a program that reports and is gone again. */
static inline uint32_t example_loop(void) {
    CL_ErrInfo err;
    uint32_t value;
    int failures = 0;
    time_t last = 0;
    while ((value = CL_EventLoop(&err)) == CL_LOOP_ERROR) {
        const int code = (int)err.err;
        const int passes = code == ECONNABORTED || code == EAGAIN || code == EMFILE ||
                           code == ENFILE || code == ENOBUFS || code == ENOMEM || code == EPERM;
        if (time(NULL) - last > 1) failures = 0; /* the loop has run in between */
        if (!passes || !example_wait(&failures)) example_fail("CL_EventLoop", &err);
        last = time(NULL);
        fprintf(stderr, "%s: goes on after: %s\n", example_name, strerror(code));
    }
    return value;
}

static inline int example_end(void) {
    CL_ErrInfo err = {0};
    if (!CL_End(&err)) example_fail("CL_End", &err);
    if (example_leaks) return EXIT_FAILURE;
    printf("%s: leak report clean\n", example_name);
    return EXIT_SUCCESS;
}

#endif
