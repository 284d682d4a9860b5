// User descriptors: the loop watches what the application owns.
//
// Sets are merged and tested a machine word at a time, and only over the words in which the object
// has a descriptor, so an object costs what it watches and not what its count could hold.
#include <cstring>

#include <qvcl/main.h>
#include <qvcl/userfd.h>

#include "core/error.h"
#include "diag/traced.h"
#include "loop/live_object.h"

using qvcl::address_of;

namespace {

constexpr qvcl::Failure fail{CL_MODULE_USERFD};
constexpr char kFile[] = "cl_fd_fd";

constexpr uint32_t kBits = 64;
constexpr uint32_t kWords = FD_SETSIZE / kBits;
using Words = fd_mask[kWords];
static_assert(sizeof(Words) == sizeof(fd_set));

// The three sets of a CL_FdSets as one row of words each.
constexpr fd_set CL_FdSets::*kSets[] = {&CL_FdSets::read, &CL_FdSets::write, &CL_FdSets::except};

Words &words(fd_set &set) {
    return *reinterpret_cast<Words *>(&set);
}
const Words &words(const fd_set &set) {
    return *reinterpret_cast<const Words *>(&set);
}

// Bits of a word that lie below `count` descriptors.
fd_mask below(uint32_t word, uint32_t count) {
    const uint32_t first = word * kBits;
    if (count >= first + kBits) return -1;
    if (count <= first) return 0;
    return static_cast<fd_mask>((uint64_t{1} << (count - first)) - 1);
}

// Notes which words hold a descriptor below the count.
void note_words(CL_UserSets &user) {
    user.first_word = kWords;
    user.end_word = 0;
    for (uint32_t w = 0; w < kWords; ++w) {
        fd_mask any = 0;
        for (const auto set : kSets)
            any |= words(user.sets.*set)[w];
        if ((any & below(w, static_cast<uint32_t>(user.count))) == 0) continue;
        if (user.first_word == kWords) user.first_word = w;
        user.end_word = w + 1;
    }
}

// Runs visit(set, word index, mask of the descriptors that count) over the words of the object's
// sets; true as soon as a visit says so.
template <class Visit>
bool any_word(const CL_UserSets &user, Visit visit) {
    for (uint32_t w = user.first_word; w < user.end_word; ++w) {
        const fd_mask mask = below(w, static_cast<uint32_t>(user.count));
        for (const auto set : kSets) {
            if (visit(set, w, words(user.sets.*set)[w] & mask)) return true;
        }
    }
    return false;
}

}  // namespace

uint32_t CL_SetFD_M(CL_Object *object, uint32_t count, const fd_set *readSet,
                    const fd_set *writeSet, const fd_set *exceptSet, CL_ErrInfo *err,
                    uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcSetFd record = {};
    record.head = qvcl::trace_head(CL_API_SET_FD, sizeof record, callerFlag, file, line);
    record.handle = address_of(object);
    record.count = count;
    if (readSet != nullptr) record.sets.read = *readSet;
    if (writeSet != nullptr) record.sets.write = *writeSet;
    if (exceptSet != nullptr) record.sets.except = *exceptSet;
    record.err_address = address_of(err);
    return qvcl::traced(record, err, [=](CL_ErrInfo *e) {
        return cl_setfd(object, count, readSet, writeSet, exceptSet, e, callerFlag);
    });
}

uint32_t cl_setfd(CL_Object *object, uint32_t count, const fd_set *readSet, const fd_set *writeSet,
                  const fd_set *exceptSet, CL_ErrInfo *err, uint8_t callerFlag) {
    if (!qvcl::live_object(fail, object, CL_KIND_FD, err, callerFlag)) return 0;
    if (count > FD_SETSIZE) return fail(err, EINVAL);
    CL_UserSets &user = object->user;
    user.count = static_cast<int32_t>(count);
    user.sets.read = readSet != nullptr ? *readSet : fd_set{};
    user.sets.write = writeSet != nullptr ? *writeSet : fd_set{};
    user.sets.except = exceptSet != nullptr ? *exceptSet : fd_set{};
    note_words(user);
    const uint32_t listed = object->status & CL_STATUS_LISTED;
    if (object->status != (CL_STATUS_READY | listed)) {
        cl_StatusChange_M(object, CL_STATUS_READY | listed, 0, kFile, __LINE__);
    }
    return 1;
}

uint32_t cl_MakeListLFD_M(CL_Object *object, uint8_t /*callerFlag*/, const char * /*file*/,
                          uint32_t /*line*/) {
    if ((object->status & CL_STATUS_READY) == 0) {
        cl_StatusChange_M(object, object->status | CL_STATUS_FAILED, object->sub_status, kFile,
                          __LINE__);
        fail(&object->error, EBADF);
        return EBADF;
    }
    CL_MainBlock &main = *CL_MainTable;
    any_word(object->user, [&main](auto set, uint32_t w, fd_mask mine) {
        words(main.sets.*set)[w] |= mine;
        return false;
    });
    if (main.descriptor_count < object->user.count) main.descriptor_count = object->user.count;
    return 0;
}

uint32_t cl_CheckLFD_M(CL_Object *object, CL_ErrInfo * /*err*/, uint8_t /*callerFlag*/,
                       const char * /*file*/, uint32_t /*line*/) {
    const CL_FdSets &ready = CL_MainTable->sets;
    const bool any = any_word(object->user, [&ready](auto set, uint32_t w, fd_mask mine) {
        return (words(ready.*set)[w] & mine) != 0;
    });
    if (!any) return 0;
    CL_Event event = {};
    event.type = CL_EVENT_DESCRIPTOR;
    event.sets = ready;
    return cl_Callback_M(object->callback, object, &event, object->arg1, object->arg2, 0, kFile,
                         __LINE__);
}
