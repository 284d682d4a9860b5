// What every endpoint does with a new socket or a socket path.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <cerrno>

#include <qvcl/main.h>
#include <qvcl/message.h>

#include "core/error.h"
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

// Closes a socket on the way out of a failure; 0.
inline uint32_t abandon_socket(CL_Object *object) {
    cl_u_close(object->descriptor);
    object->descriptor = -1;
    return 0;
}

// Makes a new socket fit for the loop: non-blocking, close-on-exec. A number that the sets cannot
// hold counts as the process limit reached (EMFILE). False with err filled and the socket closed.
inline bool prepare_socket(const Failure &fail, CL_Object *object, CL_ErrInfo *err) {
    const Failure here = fail.at(place(__FILE__));
    const int32_t descriptor = object->descriptor;
    const auto undo = [object] {
        abandon_socket(object);
        return false;
    };
    if (!fits_sets(descriptor)) {
        here(err, EMFILE);
        return undo();
    }
    if (cl_u_fcntl(descriptor, F_SETFL, O_NONBLOCK) == -1) {
        here.sys(err);
        return undo();
    }
    if (cl_u_fcntl(descriptor, F_SETFD, FD_CLOEXEC) == -1) {
        here.sys(err);
        return undo();
    }
    return true;
}

// Gives the object a socket. False with err filled, and none.
inline bool make_socket(const Failure &fail, CL_Object *object, CL_ErrInfo *err) {
    object->descriptor = cl_u_socket(AF_UNIX, SOCK_STREAM, 0);
    if (object->descriptor != -1) return prepare_socket(fail, object, err);
    return fail.at(place(__FILE__)).sys(err);
}

}  // namespace qvcl
