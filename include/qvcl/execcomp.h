/* Exec-completion channel: a started program tells its parent that it has come up, and learns from
 * it when to end.
 *
 * CL_Init_M opens the parent's server (EXECS) at the socket path given to it. A program connects,
 * sends a message of type CL_MSG_EXEC_COMPLETE and keeps the connection as an END(ExecComp) object.
 * The report is matched by the sender's process id to a waiting CHILD object, whose callback gets
 * CL_EVENT_EXEC_COMPLETE and which takes over the connection. A message of type CL_MSG_END_REQUEST
 * over it, or its loss, gives the program's end callback CL_EVENT_END. Messages are at most 20
 * bytes. starter.h does both sides.
 *
 * When a synchronous transfer sees the end (EINTR, client.h), it calls the end callback, with
 * error.err 0 whatever happened, but does not delete the object: delete it, or it reports again.
 *
 * These are the library's own callbacks. They fail with CL_LOOP_ERROR, which ends the loop; why is
 * in the main table's stored exec-completion error (CL_MODULE_MAIN), which the loop hands to its
 * caller. */
#ifndef QVCL_EXECCOMP_H
#define QVCL_EXECCOMP_H

#include <qvcl/message.h>

QVCL_BEGIN

/* EXECS: accepts a connection when a child waits for a report, else closes it. */
QVCL_API uint32_t cl_ExecSWaitCallback(CL_Object *server, CL_Event *event, uint64_t arg1,
                                       uint64_t arg2);

/* EXECC: matches the report and calls the CHILD object's callback, or closes the connection. */
QVCL_API uint32_t cl_ExecCWaitCallback(CL_Object *connection, CL_Event *event, uint64_t arg1,
                                       uint64_t arg2);

/* END(ExecComp): calls the end callback, and deletes the object unless that callback did. */
QVCL_API uint32_t cl_EndCallback(CL_Object *end, CL_Event *event, uint64_t arg1, uint64_t arg2);

/* Release of the EXECS object: deletes all report connections, then closes the server. 1 on
 * success, 0 on failure.
 * Errors: CL_ERR_STATE, CL_ERR_QUEUE, errno (close). */
QVCL_API uint32_t cl_DeleteEXECS_M(CL_Object *server, CL_ErrInfo *err);

QVCL_END

#endif
