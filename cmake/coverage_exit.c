/* For builds that count executed lines: what runs in a process that ends with _exit, or with a
 * signal that it sends itself, counts too. Each counted module enlists its counters when it is
 * loaded, and whoever is about to end has them all written first. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdarg.h>
#include <sys/syscall.h>
#include <unistd.h>

typedef void (*Dump)(void);

#ifdef QVCL_COVERAGE_MODULE

extern void __gcov_dump(void);
extern void qvcl_coverage_enlist(Dump dump);

__attribute__((constructor)) static void enlist(void) {
    qvcl_coverage_enlist(__gcov_dump);
}

#else

static Dump dumps[16];
static unsigned enlisted;

void qvcl_coverage_enlist(Dump dump) {
    if (enlisted < sizeof dumps / sizeof *dumps) dumps[enlisted++] = dump;
}

static void write_counters(void) {
    while (enlisted > 0)
        dumps[--enlisted]();
}

void _exit(int status) {
    write_counters();
    for (;;)
        syscall(SYS_exit_group, status);
}

/* A crash recorder sends its signal once more. */
long syscall(long number, ...) {
    long (*const real)(long, ...) = (long (*)(long, ...))dlsym(RTLD_NEXT, "syscall");
    long a[6];
    va_list more;
    va_start(more, number);
    for (int i = 0; i < 6; ++i)
        a[i] = va_arg(more, long);
    va_end(more);
    if (number == SYS_rt_tgsigqueueinfo) write_counters();
    return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

#endif
