/* Event lists: which objects take part in the loop, and in which order.
 *
 * MSGS, MSGC and FD objects (and the library's exec-completion objects) share one list in
 * ascending priority; THREAD objects have a list in order of addition. Timers and children are
 * listed by the library itself. An object added while the loop runs takes part from the next
 * iteration on. Among objects of equal priority the order is the one that a binary search
 * settles, not the order of addition. */
#ifndef QVCL_EVENTLIST_H
#define QVCL_EVENTLIST_H

#include <qvcl/descriptor.h>

QVCL_BEGIN

/* Priorities; smaller is checked earlier. The library lists with 0 to 121. */
enum {
    CL_PRIORITY_FIRST = 12, /* the application's range */
    CL_PRIORITY_LAST = 111,
    CL_PRIORITY_LIBRARY_LAST = 121,
    CL_PRIORITY_REPORT = 1,       /* exec-completion report connections */
    CL_PRIORITY_EXEC_SERVER = 112 /* exec-completion server */
};

/* Lists a ready object. priority: CL_PRIORITY_FIRST to CL_PRIORITY_LAST; checked for every kind,
 * used by those of the priority list. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, kind not listable by this caller, not ready, listed
 * already), EINVAL (priority), CL_ERR_QUEUE. */
QVCL_API uint32_t CL_AddEventList_M(CL_Object *object, uint32_t priority, CL_ErrInfo *err,
                                    uint8_t callerFlag, const char *file, uint32_t line);
#define CL_AddEventList(object, priority, err) \
    CL_AddEventList_M((object), (priority), (err), CL_HERE)

/* Unlists an object; open to callbacks, for any object. 1 on success, 0 on failure.
 * Errors: CL_ERR_STATE, EBADF (invalid handle, kind not listable by this caller, not listed),
 * CL_ERR_QUEUE. */
QVCL_API uint32_t CL_DelEventList_M(CL_Object *object, CL_ErrInfo *err, uint8_t callerFlag,
                                    const char *file, uint32_t line);
#define CL_DelEventList(object, err) CL_DelEventList_M((object), (err), CL_HERE)

QVCL_END

#endif
