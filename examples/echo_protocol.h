/* What echo_server and echo_client agree on: message types, and the largest message. */
#ifndef ECHO_PROTOCOL_H
#define ECHO_PROTOCOL_H

#include <qvcl/message.h>

enum {
    ECHO_REQUEST = 1, /* the payload comes back as ECHO_REPLY */
    ECHO_REPLY = 2,
    DUMP_REQUEST = 3, /* the server writes its trace file, then answers DUMP_DONE */
    DUMP_DONE = 4
};

enum { MAX_MESSAGE = CL_MSG_HEADER_SIZE + 4096 };

#endif
