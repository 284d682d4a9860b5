// What a kind is, as one table: who may create, delete and list its objects, which lists they are
// on, and what the loop and a deletion do with them. Nothing else switches on kinds.
#pragma once

#include <qvcl/main.h>

namespace qvcl {

enum class Access : uint8_t { anyone, library, nobody };

// Whether a call with this caller flag may.
inline bool allows(Access access, uint8_t callerFlag) {
    return access == Access::anyone || (access == Access::library && callerFlag == 1);
}

struct Kind {
    uint32_t number;
    Access create;
    Access remove;
    Access list;
    bool internal;                                   // in the leak report with CLLIB_DEBUG only
    CL_Queue CL_MainBlock::*event_list;              // listing puts an object here; null: never
    CL_Object *CL_MainBlock::*cursor;                // of a walk over its objects; null: none
    uint32_t (*release)(CL_Object *, CL_ErrInfo *);  // on deletion; null: nothing to release
    uint32_t (*add)(CL_Object *);                    // to the sets before a wait
    uint32_t (*check)(CL_Object *, CL_ErrInfo *);    // of the sets after a wait
};

// The kinds in the order of the main table's kind queues, and their names in reports.
extern const Kind kKinds[CL_KIND_COUNT];
#define QVCL_KIND_NAME(number, symbol, name) name,
inline constexpr const char *kKindNames[CL_KIND_COUNT] = {CL_KINDS(QVCL_KIND_NAME)};
#undef QVCL_KIND_NAME

// The kind with this number, or null.
const Kind *kind_of(uint32_t number);

inline size_t place_of(const Kind &kind) {
    return static_cast<size_t>(&kind - kKinds);
}

inline CL_Queue *kind_queue(const Kind &kind) {
    return &CL_MainTable->kind_queues[place_of(kind)];
}

// Whether objects of the kind are sorted by priority: they wait in the pending list first.
inline bool has_priority(const Kind &kind) {
    return kind.event_list == &CL_MainBlock::pending_list;
}

// Takes an object off a list that may be walked just now: a walk that is at it goes on with its
// successor. False when it is not there, and the walk stays where it is.
inline bool leave_list(CL_Queue *list, CL_Object *&cursor, CL_Object *object) {
    if (cursor == object) {
        uint32_t status;
        void *before = CL_QUE_Enum(list, object, CL_QUE_BACKWARD, &status);
        if (status != CL_QUE_WALKING) return false;
        cursor = static_cast<CL_Object *>(before);
    }
    return CL_QUE_GetData(list, object) != nullptr;
}

}  // namespace qvcl
