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
 * The library does its part in callbacks of its own (steps.h). They fail with CL_LOOP_ERROR, which
 * ends the loop; why is in the main table's stored exec-completion error (CL_MODULE_MAIN), which
 * the loop hands to its caller.
 *
 * The message types are in message.h; nothing is declared here. */
#ifndef QVCL_EXECCOMP_H
#define QVCL_EXECCOMP_H

#include <qvcl/message.h>

#endif
