/* Keeps programs running: starts them in order, each when the one before has come up, starts again
 * what dies, after a pause that doubles from death to death, and on SIGTERM asks all of them to
 * end, kills who has not done so within the grace time, and tells how each ended.
 *
 *   supervisor SOCKET CONFIGURATION       sections in the order of their names, for example
 *                                           [10-clock]
 *                                           command = /usr/bin/clock -q
 *                                           patience = 3
 *   supervisor SOCKET -- COMMAND...       one program for each argument
 *
 * SOCKET is where the started programs report. Who does not report within its patience (seconds,
 * default 10) is left alone, and the next one is started. The arguments of a command are separated
 * by blanks. A crash leaves a dump where the environment variable CRASH_DUMP says.
 */
#define _GNU_SOURCE
#include "example.h"

#include <qvcl/starter.h>

#include <signal.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

enum { ALL_ENDED = 1 }; /* value that ends the loop */
enum { MAX_PROGRAMS = 50, MAX_ARGUMENTS = 30, LONGEST_PAUSE = 60, GRACE = 5, CALM = 60 };

typedef enum State { NOT_STARTED, STARTING, UP, RESTING, ENDED } State;

typedef struct Program {
    char name[CL_CONF_NAME_MAX + 1];
    char command[CL_CONF_VALUE_MAX + 1];
    char *arguments[MAX_ARGUMENTS + 1];
    uint32_t patience;
    State state;
    CL_Object *child; /* while it runs */
    CL_Object *timer; /* its patience while it starts, its pause while it rests */
    uint32_t pause;
    time_t started;
} Program;

static Program programs[MAX_PROGRAMS];
static uint32_t program_count, next_program;
static int ending, all_up;

static void start(Program *program);

static CL_Object *create(uint32_t kind, CL_Callback callback, uint64_t arg) {
    CL_ErrInfo err;
    CL_Object *object = CL_CreateFD(kind, callback, arg, 0, &err);
    if (!object) example_fail("CL_CreateFD", &err);
    return object;
}

static void stop_timer(CL_Object *timer) {
    CL_ErrInfo err;
    if ((timer->status & CL_STATUS_RUNNING) && !CL_StopTIMER(timer, &err))
        example_fail("CL_StopTIMER", &err);
}

static void set_timer(CL_Object *timer, uint32_t seconds) {
    CL_ErrInfo err;
    stop_timer(timer);
    if (!CL_StartTIMER(timer, seconds, CL_TIMER_ONESHOT, &err)) example_fail("CL_StartTIMER", &err);
}

/* Goes on starting, up to the first program that has to come up yet. */
static void start_next(void) {
    while (next_program == 0 || programs[next_program - 1].state != STARTING) {
        if (next_program == program_count) {
            if (!all_up) printf("all started\n");
            if (!all_up) CL_NotifyManager("READY=1", NULL); /* our own service manager, if any */
            all_up = 1;
            return;
        }
        start(&programs[next_program++]);
    }
}

static void rest(Program *program) {
    program->state = RESTING;
    printf("%s: starting again in %u s\n", program->name, program->pause);
    set_timer(program->timer, program->pause);
    program->pause = program->pause * 2 < LONGEST_PAUSE ? program->pause * 2 : LONGEST_PAUSE;
}

static void on_child_end(Program *program, const CL_Event *event) {
    CL_ErrInfo err;
    printf("%s: %s %u\n", program->name,
           event->exit_reason == CL_CHILD_KILLED ? "killed by signal" : "exited with",
           event->exit_value);
    if (!CL_DeleteFD(program->child, &err)) example_fail("CL_DeleteFD", &err);
    program->child = NULL;
    stop_timer(program->timer);
    if (ending) {
        program->state = ENDED;
        return;
    }
    if (time(NULL) - program->started >= CALM) program->pause = 1;
    rest(program);
}

static int all_ended(void) {
    for (uint32_t i = 0; i < program_count; ++i)
        if (programs[i].child) return 0;
    return 1;
}

static uint32_t on_child(CL_Object *child, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    Program *program = (Program *)arg1;
    (void)child, (void)arg2;
    if (event->type == CL_EVENT_EXEC_COMPLETE) {
        printf("%s: up\n", program->name);
        program->state = UP;
        stop_timer(program->timer);
    } else if (event->type == CL_EVENT_CHILD_END) {
        on_child_end(program, event);
    }
    if (ending) return all_ended() ? ALL_ENDED : 0;
    start_next();
    return 0;
}

static uint32_t on_timer(CL_Object *timer, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    Program *program = (Program *)arg1;
    (void)timer, (void)event, (void)arg2;
    if (program->state == RESTING) {
        start(program);
    } else if (program->state == STARTING) {
        printf("%s: has not reported in %u s, going on without\n", program->name,
               program->patience);
        program->state = UP;
    }
    start_next();
    return 0;
}

static void start(Program *program) {
    CL_ErrInfo err;
    const CL_Program what = {program->arguments[0], program->arguments, NULL, 1};
    program->started = time(NULL);
    program->child = CL_StartProgram(&what, on_child, (uint64_t)program, 0, &err);
    if (!program->child) {
        printf("%s: cannot be started: %s\n", program->name, strerror((int)err.err));
        rest(program);
        return;
    }
    printf("%s: started as %u\n", program->name, program->child->child.pid);
    program->state = STARTING;
    set_timer(program->timer, program->patience);
}

/* SIGKILL ends whatever ignores its signals or is stopped; the loop then tells the end as any
 * other. Deleting the object would not do: it sends SIGABRT and waits. */
static uint32_t on_grace_over(CL_Object *timer, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    (void)timer, (void)event, (void)arg1, (void)arg2;
    for (uint32_t i = 0; i < program_count; ++i) {
        if (!programs[i].child) continue;
        printf("%s: did not end in %d s\n", programs[i].name, GRACE);
        kill((pid_t)programs[i].child->child.pid, SIGKILL);
    }
    return 0;
}

/* Who has reported is asked over its connection; the others know no other way than a signal. */
static uint32_t on_signal(CL_Object *object, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    struct signalfd_siginfo info;
    (void)object;
    if (event->type != CL_EVENT_DESCRIPTOR || !FD_ISSET((int)arg1, &event->sets.read)) return 0;
    /* A signal that cannot be read has come all the same. */
    if (read((int)arg1, &info, sizeof info) < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
    if (ending) return 0;
    printf("asking all to end\n");
    ending = 1;
    set_timer((CL_Object *)arg2, GRACE);
    for (uint32_t i = program_count; i-- > 0;) { /* the last started first */
        stop_timer(programs[i].timer);
        if (!programs[i].child) continue;
        if (!CL_RequestEnd(programs[i].child, NULL))
            kill((pid_t)programs[i].child->child.pid, SIGTERM);
    }
    return all_ended() ? ALL_ENDED : 0;
}

static void add_program(const char *name, const char *command, const char *patience) {
    if (program_count == MAX_PROGRAMS) {
        fprintf(stderr, "supervisor: at most %d programs\n", MAX_PROGRAMS);
        exit(EXIT_FAILURE);
    }
    Program *program = &programs[program_count++];
    int count = 0;
    char *saved;
    snprintf(program->name, sizeof program->name, "%s", name);
    snprintf(program->command, sizeof program->command, "%s", command);
    for (char *word = cl_strtok(program->command, " \t", &saved); word && count < MAX_ARGUMENTS;
         word = cl_strtok(NULL, " \t", &saved))
        program->arguments[count++] = word;
    program->patience = (uint32_t)strtoul(patience, NULL, 10);
    program->pause = 1;
}

static void read_configuration(const char *path) {
    CL_Queue conf;
    CL_ConfSection *section = NULL;
    char name[CL_CONF_NAME_MAX + 1] = "", command[CL_CONF_VALUE_MAX + 1], patience[11];
    uint32_t line, code;
    CL_QUE_InitQT(&conf, 0);
    code = CL_ReadConf(&conf, path, &line);
    if (code != CL_CONF_OK) {
        fprintf(stderr, "supervisor: %s, line %u: code %u\n", path, line, code);
        exit(EXIT_FAILURE);
    }
    while (CL_EnumSection(&conf, name, sizeof name, &line, &section) == CL_CONF_OK) {
        if (CL_GetMember(&conf, name, "command", command, sizeof command, &line) != CL_CONF_OK ||
            !command[0]) {
            fprintf(stderr, "supervisor: %s: no command in section %s\n", path, name);
            exit(EXIT_FAILURE);
        }
        if (CL_GetMember(&conf, name, "patience", patience, sizeof patience - 1, &line) !=
            CL_CONF_OK)
            strcpy(patience, "10");
        patience[sizeof patience - 1] = '\0';
        add_program(name, command, patience);
    }
    CL_FreeConf(&conf);
}

/* SIGTERM as a descriptor that the loop watches. arg2 of its callback: the timer of the grace. */
static CL_Object *watch_termination(int *fd, CL_Object *grace) {
    CL_ErrInfo err;
    sigset_t signals;
    fd_set readable;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, NULL); /* started programs begin with an empty mask again */
    *fd = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
    if (*fd < 0) example_fail_errno("signalfd");
    FD_ZERO(&readable);
    FD_SET(*fd, &readable);
    CL_Object *object = CL_CreateFD(CL_KIND_FD, on_signal, (uint64_t)*fd, (uint64_t)grace, &err);
    if (!object) example_fail("CL_CreateFD", &err);
    if (!CL_SetFD(object, (uint32_t)*fd + 1, &readable, NULL, NULL, &err))
        example_fail("CL_SetFD", &err);
    if (!CL_AddEventList(object, CL_PRIORITY_FIRST, &err)) example_fail("CL_AddEventList", &err);
    return object;
}

int main(int argc, char **argv) {
    CL_ErrInfo err;
    int signals;
    const int commands = argc > 3 && strcmp(argv[2], "--") == 0;
    if (argc != 3 && !commands) {
        fprintf(stderr, "usage: %s SOCKET CONFIGURATION | SOCKET -- COMMAND...\n", argv[0]);
        return EXIT_FAILURE;
    }
    example_begin("supervisor", 2 * MAX_PROGRAMS + 2, argv[1]);
    example_record_crashes();
    if (!commands) read_configuration(argv[2]);
    for (int i = 3; i < argc; ++i)
        add_program(argv[i], argv[i], "10");

    CL_Object *grace = create(CL_KIND_TIMER, on_grace_over, 0);
    CL_Object *termination = watch_termination(&signals, grace);
    for (uint32_t i = 0; i < program_count; ++i)
        programs[i].timer = create(CL_KIND_TIMER, on_timer, (uint64_t)&programs[i]);
    start_next();

    example_loop();
    for (uint32_t i = 0; i < program_count; ++i)
        if (!CL_DeleteFD(programs[i].timer, &err)) example_fail("CL_DeleteFD", &err);
    if (!CL_DeleteFD(termination, &err) || !CL_DeleteFD(grace, &err))
        example_fail("CL_DeleteFD", &err);
    close(signals);
    return example_end();
}
