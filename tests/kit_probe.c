// A program with a fault for qvcl-kit to find, the one that its argument names; `year` lets a year
// of timers pass.
#define _GNU_SOURCE
#include <fcntl.h>
#include <qvcl/qvcl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

static int log_line(int kind, const char *line) {
    (void)kind;
    return fputs(line, stderr) < 0;
}

static uint32_t count(CL_Object *timer, CL_Event *event, uint64_t ticks, uint64_t wanted) {
    (void)timer, (void)event;
    return ++*(uint64_t *)ticks == wanted;
}

static void year(void) {
    CL_ErrInfo err;
    uint64_t ticks = 0;
    CL_Object *timer = CL_CreateFD(CL_KIND_TIMER, count, (uint64_t)&ticks, 365L * 24, &err);
    CL_StartTIMER(timer, 3600, CL_TIMER_PERIODIC, &err);
    const time_t begin = time(NULL);
    CL_EventLoop(&err);
    printf("%lu hours in %ld seconds\n", (unsigned long)ticks, (long)(time(NULL) - begin));
    CL_DeleteFD(timer, &err);
}

int main(int argc, char **argv) {
    CL_ErrInfo err;
    char name[64];
    const char *fault = argc > 1 ? argv[1] : "none";
    const char *run = getenv("QVCL_KIT_RUN");
    snprintf(name, sizeof name, "/qvcl-probe-%s", run ? run : "0");
    CL_SetLogCallbackFunction(log_line);
    if (!CL_Init(5, NULL, &err)) return 1;
    if (strcmp(fault, "year") == 0) year();

    const int segment = shm_open(name, O_CREAT | O_RDWR, 0600);
    const int fails = ftruncate(segment, 4096) != 0;
    char *memory = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, segment, 0);
    void *block = CL_malloc(10);
    if (fails && strcmp(fault, "hang") == 0) CL_Sleep(100000);
    if (strcmp(fault, "crash") == 0) *memory = 1;  // not mapped, or mapped and not there
    if (!fails || strcmp(fault, "leak") != 0) CL_free(block);
    if (!fails || strcmp(fault, "open") != 0) close(segment);
    if (!fails || strcmp(fault, "left") != 0) shm_unlink(name);
    return !CL_End(&err);
}
