// User descriptors: the loop watches what the application owns.
//
// Sets are merged and tested a machine word at a time, and only over the words in which the object
// has a descriptor, so an object costs what it watches and not what its count could hold.
#include <cstring>

#include <qvcl/main.h>
#include <qvcl/steps.h>
#include <qvcl/userfd.h>

#include "core/error.h"
#include "diag/traced.h"
#include "loop/known_order.h"
#include "loop/live_object.h"
#include "loop/watch.h"

using qvcl::address_of;
using qvcl::in_one_word;
using qvcl::kSets;
using qvcl::kSetWords;
using qvcl::kWordBits;
using qvcl::words;

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);

// Bits of a word that lie below `count` descriptors.
uint64_t below(uint32_t word, uint32_t count) {
    const uint32_t first = word * kWordBits;
    if (count >= first + kWordBits) return UINT64_MAX;
    return count <= first ? 0 : (uint64_t{1} << (count - first)) - 1;
}

// Runs visit(set, word, the object's descriptors in it) over the words of the object's sets; true
// as soon as a visit says so.
template <class Visit>
bool any_word(const CL_Object *object, uint32_t first, uint32_t end, Visit visit) {
    for (uint32_t w = first; w < end; ++w) {
        const uint64_t mask = below(w, static_cast<uint32_t>(object->user.count));
        for (const auto set : kSets) {
            if (visit(set, w, words(object->user.sets.*set)[w] & mask)) return true;
        }
    }
    return false;
}

// Notes which words of its sets the object uses.
void note_watch(CL_Object *object) {
    CL_Watch &watch = object->watch;
    watch = {kSetWords, 0, {}};
    any_word(object, 0, kSetWords, [&watch](auto, uint32_t w, uint64_t mine) {
        if (mine == 0) return false;
        if (watch.first_word == kSetWords) watch.first_word = w;
        watch.end_word = w + 1;
        return false;
    });
    if (watch.end_word == 0) watch.first_word = 0;
    uint64_t *bits = watch.bits;
    if (in_one_word(watch)) {
        any_word(object, watch.first_word, watch.end_word, [&bits](auto, uint32_t, uint64_t mine) {
            *bits++ = mine;
            return false;
        });
    }
}

}  // namespace

uint32_t CL_SetFD_M(CL_Object *object, uint32_t count, const fd_set *readSet,
                    const fd_set *writeSet, const fd_set *exceptSet, CL_ErrInfo *err,
                    uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcSetFd record = {};
    qvcl::fill_head(record.head, CL_API_SET_FD, sizeof record, callerFlag, file, line);
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
    note_watch(object);
    qvcl::forget_order();
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
    const CL_Watch &watch = object->watch;
    if (in_one_word(watch)) {
        for (uint32_t i = 0; i < 3; ++i) {
            words(main.sets.*kSets[i])[watch.first_word] |= watch.bits[i];
        }
    } else {
        any_word(object, watch.first_word, watch.end_word,
                 [&main](auto set, uint32_t w, uint64_t mine) {
                     words(main.sets.*set)[w] |= mine;
                     return false;
                 });
    }
    if (main.descriptor_count < object->user.count) main.descriptor_count = object->user.count;
    return 0;
}

uint32_t cl_CheckLFD_M(CL_Object *object, CL_ErrInfo * /*err*/, uint8_t /*callerFlag*/,
                       const char * /*file*/, uint32_t /*line*/) {
    const CL_FdSets &ready = CL_MainTable->sets;
    const CL_Watch &watch = object->watch;
    if (!qvcl::may_be_ready(watch, ready)) return 0;
    if (!in_one_word(watch) && !any_word(object, watch.first_word, watch.end_word,
                                         [&ready](auto set, uint32_t w, uint64_t mine) {
                                             return (words(ready.*set)[w] & mine) != 0;
                                         })) {
        return 0;
    }
    CL_Event event = {.type = CL_EVENT_DESCRIPTOR, .sets = ready};
    return cl_Callback_M(object->callback, object, &event, object->arg1, object->arg2, 0, kFile,
                         __LINE__);
}
