// The library's life: the constructor, CL_Init_M, CL_End_M.
//
// All state is in the main table, and everything reaches it through CL_MainTable.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include <qvcl/child.h>
#include <qvcl/eventlist.h>
#include <qvcl/memory.h>
#include <qvcl/server.h>
#include <qvcl/steps.h>
#include <qvcl/system.h>

#include "core/error.h"
#include "core/table_header.h"
#include "diag/traced.h"
#include "loop/kinds.h"

using qvcl::switched_on;

namespace {

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};
constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);

void init_queues(CL_MainBlock &main) {
    constexpr struct {
        CL_Queue CL_MainBlock::*queue;
        uint32_t link_offset;
    } kQueues[] = {
        {&CL_MainBlock::timer_list, offsetof(CL_Object, timer_link)},
        {&CL_MainBlock::child_list, offsetof(CL_Object, child_link)},
        {&CL_MainBlock::thread_list, offsetof(CL_Object, thread_link)},
        {&CL_MainBlock::priority_list, offsetof(CL_Object, event_link)},
        {&CL_MainBlock::pending_list, offsetof(CL_Object, event_link)},
        {&CL_MainBlock::exec_wait_list, offsetof(CL_Object, exec_link)},
        {&CL_MainBlock::user_blocks, offsetof(CL_BlockHeader, link)},
        {&CL_MainBlock::library_blocks, offsetof(CL_BlockHeader, link)},
    };
    CL_QUE_InitQT(&main.free_queue, offsetof(CL_Object, link));
    CL_QUE_InitQT(&main.used_queue, offsetof(CL_Object, link));
    for (CL_Queue &queue : main.kind_queues)
        CL_QUE_InitQT(&queue, offsetof(CL_Object, kind_link));
    for (const auto &row : kQueues)
        CL_QUE_InitQT(&(main.*row.queue), row.link_offset);
}

__attribute__((constructor)) void construct() {
    // A second copy of the library, opened from another path, finds the table of the first one, and
    // works on that.
    if (CL_MainTable != nullptr) return;
    CL_MainTable = &CL_EM_MainTable;
    CL_MainBlock &main = *CL_MainTable;
    main = {};
    qvcl::write_table_header(&main.header, CL_EYE_MAIN, sizeof main);
    main.version = CL_VERSION;
    main.pid = CL_GetPid();
    main.trace_fd = -1;
    init_queues(main);
    main.memory_check = switched_on("CL_MEM_CHECK") ? 1 : 0;
    main.memory_limit = CL_MEM_DEFAULT_LIMIT;
    main.state = CL_STATE_CONSTRUCTED;
    CL_INTRC_Init();
}

// Opens the exec-completion server at the stored path.
bool open_exec_server(CL_ErrInfo *err) {
    constexpr uint32_t kBacklog = 128;
    CL_MainBlock &main = *CL_MainTable;
    CL_Object *server =
        CL_CreateFD_M(CL_KIND_EXECS, cl_ExecSWaitCallback, 0, 0, err, 1, kFile, __LINE__);
    if (server == nullptr ||
        CL_OpenMSGS_M(server, main.exec_path, kBacklog, err, 1, kFile, __LINE__) == 0 ||
        CL_AddEventList_M(server, CL_PRIORITY_EXEC_SERVER, err, 1, kFile, __LINE__) == 0) {
        return false;
    }
    main.execs = server;
    return true;
}

// The steps of initialisation that cannot be taken back.
bool set_up(uint32_t count, CL_ErrInfo *err) {
    CL_MainBlock &main = *CL_MainTable;
    if (CL_FD_TblInit(count, err) == 0) return false;
    main.state = CL_STATE_INITIALISED;
    if (main.exec_path[0] != '\0' && !open_exec_server(err)) return false;
    return cl_sigchld_init(err) != 0;
}

// Deletes the first exec-completion server. One that initialisation left half-way may be open, and
// closing it takes an initialised library.
bool delete_exec_server() {
    CL_MainBlock &main = *CL_MainTable;
    auto *server = static_cast<CL_Object *>(main.kind_queues[CL_KIND_QUEUE_EXECS].head);
    if (server == nullptr) return true;
    const uint32_t state = main.state;
    main.state = CL_STATE_INITIALISED;
    CL_ErrInfo scratch = {};
    const bool deleted = CL_DeleteFD_M(server, &scratch, 1, kFile, __LINE__) != 0;
    main.state = state;
    if (deleted && main.execs == server) main.execs = nullptr;
    return deleted;
}

void report_line(const char *what, uint32_t count) {
    char line[256];
    snprintf(line, sizeof line, "CLLIB:%s(%d) is/are not released.", what, static_cast<int>(count));
    cl_inlog_write(line);
}

// Names what the application left, and with the switch what is the library's own.
void report_leaks() {
    const CL_MainBlock &main = *CL_MainTable;
    const bool debug = switched_on("CLLIB_DEBUG");
    if (main.user_blocks.count != 0) report_line("user memory", main.user_blocks.count);
    if (debug && main.library_blocks.count != 0) {
        report_line("lib memory", main.library_blocks.count);
    }
    if (main.used_queue.count == 0) return;
    for (const qvcl::Kind &kind : qvcl::kKinds) {
        const uint32_t count = qvcl::kind_queue(kind)->count;
        if (count == 0 || (kind.internal && !debug)) continue;
        char what[40];
        snprintf(what, sizeof what, "%s objects", qvcl::kKindNames[qvcl::place_of(kind)]);
        report_line(what, count);
    }
}

}  // namespace

void CL_Abort_M() {
    abort();
}

uint32_t CL_Init_M(uint32_t count, const char *execPath, CL_ErrInfo *err, uint8_t callerFlag,
                   const char *file, uint32_t line) {
    CL_TrcInit record = {};
    qvcl::fill_head(record.head, CL_API_INIT, 0, callerFlag, file, line);
    record.count = count;
    record.err_address = qvcl::address_of(err);
    qvcl::trace_path(record, execPath);
    return qvcl::traced(record, err, [=](CL_ErrInfo *e) { return cl_init(count, execPath, e); });
}

uint32_t cl_init(uint32_t count, const char *execPath, CL_ErrInfo *err) {
    CL_MainBlock &main = *CL_MainTable;
    *err = {};
    if (main.state != CL_STATE_CONSTRUCTED) return fail(err, EPERM);
    if (execPath != nullptr && strnlen(execPath, sizeof main.exec_path) >= sizeof main.exec_path) {
        return fail(err, ENAMETOOLONG);
    }
    qvcl::copy_text(main.exec_path, sizeof main.exec_path, execPath);
    if (count > CL_MAX_OBJECTS) return fail(err, EINVAL);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGUSR2, SIGPROF}) {
        cl_u_signal(signal, SIG_IGN);
    }
    if (set_up(count, err)) return 1;
    main.state = CL_STATE_FAILED;
    return 0;
}

uint32_t CL_End_M(CL_ErrInfo *err, uint8_t callerFlag, const char *file, uint32_t line) {
    CL_TrcProcess record = {};
    qvcl::fill_head(record.head, CL_API_END, sizeof record, callerFlag, file, line);
    record.err_address = qvcl::address_of(err);
    return qvcl::traced(record, err, [](CL_ErrInfo *e) { return cl_end(e); });
}

uint32_t cl_end(CL_ErrInfo *err) {
    CL_MainBlock &main = *CL_MainTable;
    if (main.state == CL_STATE_CONSTRUCTED || main.state == CL_STATE_ENDED) {
        return fail(err, CL_ERR_STATE);
    }
    if (!delete_exec_server()) fail(err, CL_ERR_QUEUE);
    report_leaks();
    cl_memdisp();
    main.state = CL_STATE_ENDED;
    return 1;
}
