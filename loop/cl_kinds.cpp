// The table of kinds.
#include "loop/kinds.h"

#include <algorithm>

#include <qvcl/child.h>
#include <qvcl/client.h>
#include <qvcl/server.h>
#include <qvcl/steps.h>
#include <qvcl/timer.h>
#include <qvcl/userfd.h>

namespace qvcl {

namespace {

using enum Access;

uint32_t check_server(CL_Object *object, CL_ErrInfo *) {
    return cl_CheckMSGS_M(object);
}
uint32_t add_user(CL_Object *object) {
    return cl_MakeListLFD_M(object, 1, "cl_loop", __LINE__);
}
uint32_t check_user(CL_Object *object, CL_ErrInfo *err) {
    return cl_CheckLFD_M(object, err, 1, "cl_loop", __LINE__);
}

}  // namespace

// clang-format off
constexpr Kind kKinds[CL_KIND_COUNT] = {
    // number         create   remove   list    internal event list                   cursor                        release            add                check
    {CL_KIND_MSGS,    anyone,  anyone,  anyone,  false,   &CL_MainBlock::pending_list, &CL_MainBlock::loop_cursor,   cl_DeleteMSGS_M,   cl_MakeListMSGS_M, check_server},
    {CL_KIND_MSGC,    anyone,  anyone,  anyone,  false,   &CL_MainBlock::pending_list, &CL_MainBlock::loop_cursor,   cl_DeleteMSGC_M,   cl_MakeListMSGC_M, cl_CheckMSGC_M},
    {CL_KIND_CHILD,   anyone,  anyone,  library, false,   &CL_MainBlock::child_list,   &CL_MainBlock::child_cursor,  cl_DeleteCHILD_M,  nullptr,           nullptr},
    {CL_KIND_FD,      anyone,  anyone,  anyone,  false,   &CL_MainBlock::pending_list, &CL_MainBlock::loop_cursor,   nullptr,           add_user,          check_user},
    {CL_KIND_THREAD,  anyone,  anyone,  anyone,  false,   &CL_MainBlock::thread_list,  nullptr,                      nullptr,           nullptr,           nullptr},
    {CL_KIND_END,     library, anyone,  library, true,    &CL_MainBlock::pending_list, &CL_MainBlock::loop_cursor,   cl_DeleteMSGC_M,   cl_MakeListMSGC_M, cl_CheckMSGC_M},
    {CL_KIND_EXECS,   library, library, library, true,    &CL_MainBlock::pending_list, &CL_MainBlock::loop_cursor,   cl_DeleteEXECS_M,  cl_MakeListMSGS_M, check_server},
    {CL_KIND_EXECC,   library, library, library, true,    &CL_MainBlock::pending_list, &CL_MainBlock::loop_cursor,   cl_DeleteMSGC_M,   cl_MakeListMSGC_M, cl_CheckMSGC_M},
    {CL_KIND_TIMER,   anyone,  anyone,  library, false,   &CL_MainBlock::timer_list,   &CL_MainBlock::timer_cursor,  cl_DeleteTIMER_M,  nullptr,           nullptr},
    {CL_KIND_SHM,     library, library, nobody,  false,   nullptr,                     nullptr,                      nullptr,           nullptr,           nullptr},
    {CL_KIND_FILE,    library, library, nobody,  false,   nullptr,                     nullptr,                      nullptr,           nullptr,           nullptr},
};
// clang-format on

namespace {

// Places by number, so that looking a kind up is one array access.
#define QVCL_NUMBER(number, symbol, name) number,
constexpr uint32_t kLargest = std::max({CL_KINDS(QVCL_NUMBER)});
#undef QVCL_NUMBER
struct Places {
    int8_t at[kLargest + 1];
};
constexpr Places places() {
    Places result = {};
    for (auto &place : result.at)
        place = -1;
    int8_t next = 0;
#define QVCL_PLACE(number, symbol, name) result.at[number] = next++;
    CL_KINDS(QVCL_PLACE)
#undef QVCL_PLACE
    return result;
}
constexpr Places kPlaces = places();

constexpr bool in_order() {
    for (const Kind &kind : kKinds) {
        if (&kKinds[kPlaces.at[kind.number]] != &kind) return false;
    }
    return true;
}
static_assert(in_order(), "the rows stand in the order of CL_KINDS");

}  // namespace

const Kind *kind_of(uint32_t number) {
    if (number > kLargest || kPlaces.at[number] < 0) return nullptr;
    return &kKinds[kPlaces.at[number]];
}

}  // namespace qvcl
