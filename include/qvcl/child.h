/* Child processes.
 *
 * A CHILD object that is ready and listed stands for a running child: its end is noticed through
 * SIGCHLD, the child is reaped without blocking, and the callback gets CL_EVENT_CHILD_END. Only
 * children with an object are reaped. A child that ends before its object is listed is noticed with
 * the next SIGCHLD, whoever's: list the object in the callback that forks, as starter.h does, or
 * raise(SIGCHLD) after listing it. Deleting the object of a running child kills it with SIGABRT and
 * waits for it. Starting a program is the business of a starter; starter.h is one.
 *
 * These functions write no trace record; their failures carry CL_MODULE_CHILD. SIGCHLD belongs to
 * the library from CL_Init_M on. */
#ifndef QVCL_CHILD_H
#define QVCL_CHILD_H

#include <qvcl/descriptor.h>

QVCL_BEGIN

/* One environment change; an array of them ends with a null name. */
typedef struct CL_EnvChange {
    const char *name;
    const char *value; /* null removes the variable */
} CL_EnvChange;

/* Sets SIGCHLD to be ignored: the system reaps children itself and no child-end events arise.
 * Always 1. */
QVCL_API uint32_t cl_SIGCHLD_end(void);

/* Applies environment changes in order; meant for a forked child before it runs its program. 0 on
 * success; -1 on failure: the rest of the list is not applied.
 * Errors: ENOMEM (a variable could not be set). */
QVCL_API int32_t cl_envchange(const CL_EnvChange *changes, CL_ErrInfo *err);

QVCL_END

#endif
