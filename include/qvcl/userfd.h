/* User descriptors (FD): the loop watches descriptors that the application owns.
 *
 * The callback gets CL_EVENT_DESCRIPTOR at most once an iteration, with all sets as pselect
 * returned them (other objects' bits included); it tests its own descriptors in them. The library
 * never opens, reads, writes or closes these descriptors. Failures carry CL_MODULE_USERFD. */
#ifndef QVCL_USERFD_H
#define QVCL_USERFD_H

#include <qvcl/descriptor.h>

QVCL_BEGIN

/* Gives the object its sets: descriptors 0 to count - 1 of each (null: none); count at most 1024.
 * The sets are copied, and may be replaced at any time; the loop waits for the new ones from the
 * next iteration on. 1 on success, 0 on failure: nothing changed.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, not an FD object), EINVAL (count). */
QVCL_API uint32_t CL_SetFD_M(CL_Object *object, uint32_t count, const fd_set *readSet,
                             const fd_set *writeSet, const fd_set *exceptSet, CL_ErrInfo *err,
                             uint8_t callerFlag, const char *file, uint32_t line);
#define CL_SetFD(object, count, readSet, writeSet, exceptSet, err) \
    CL_SetFD_M((object), (count), (readSet), (writeSet), (exceptSet), (err), CL_HERE)

QVCL_END

#endif
