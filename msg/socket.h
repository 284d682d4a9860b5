// What every endpoint does with a new socket or a socket path.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <cerrno>

#include <qvcl/main.h>
#include <qvcl/message.h>

#include "core/text.h"

namespace qvcl {

// Whether the loop's sets can hold the descriptor.
inline bool fits_sets(int32_t descriptor) {
    return descriptor >= 0 && descriptor < FD_SETSIZE;
}

// Whether the sets, as pselect returned them, hold the descriptor.
inline bool ready_in(int32_t descriptor, const fd_set &set) {
    return fits_sets(descriptor) && FD_ISSET(descriptor, &set);
}

inline void watch(int32_t descriptor, fd_set &set, int32_t &count) {
    FD_SET(descriptor, &set);
    if (count <= descriptor) count = descriptor + 1;
}

inline bool path_too_long(const char *path) {
    return strnlen(path, CL_MSG_PATH_MAX + 1) > CL_MSG_PATH_MAX;
}

inline struct sockaddr_un socket_address(const char *path) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    copy_text(address.sun_path, sizeof address.sun_path, path);
    return address;
}

inline const struct sockaddr *generic(const struct sockaddr_un &address) {
    return reinterpret_cast<const struct sockaddr *>(&address);
}

// Makes a new socket fit for the loop: non-blocking, close-on-exec. A number that the sets cannot
// hold counts as the process limit reached (EMFILE). What the running iteration knows about that
// number belongs to a descriptor closed meanwhile, so it is dropped. False with errno.
inline bool prepare_socket(int32_t descriptor) {
    if (!fits_sets(descriptor)) {
        errno = EMFILE;
        return false;
    }
    CL_FdSets &sets = CL_MainTable->sets;
    FD_CLR(descriptor, &sets.read);
    FD_CLR(descriptor, &sets.write);
    FD_CLR(descriptor, &sets.except);
    return cl_u_fcntl(descriptor, F_SETFL, O_NONBLOCK) != -1 &&
           cl_u_fcntl(descriptor, F_SETFD, FD_CLOEXEC) != -1;
}

// Closes a socket on the way out of a failure, whose errno stays.
inline void abandon_socket(CL_Object *object) {
    const int kept = errno;
    if (object->descriptor != -1) cl_u_close(object->descriptor);
    object->descriptor = -1;
    errno = kept;
}

}  // namespace qvcl
