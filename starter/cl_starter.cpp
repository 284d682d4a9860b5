// The starter: forks and execs programs as CHILD objects, and is the started program's side of the
// exec-completion channel. It stands outside the library and uses what every application can use.
//
// The rule it keeps: until the CHILD object is ready and listed, nothing can dispatch the child's
// end or its report, because dispatch happens in the loop only, on the thread that is in here. So
// a child that ends or reports at once is met by an object that is complete; and whatever fails
// before that is undone to the last step, the child included.
#include <qvcl/qvcl.h>
#include <qvcl/starter.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>

#include "starter/report.h"

namespace {

// A starter that is busy starting others accepts nobody meanwhile, and its backlog has an end.
constexpr uint32_t kConnectPause = 20;      // milliseconds
constexpr uint32_t kConnectAttempts = 500;  // ten seconds

constexpr qvcl::Failure fail{qvcl::place(__FILE__)};

// Undoing must not hide why it is done: it reports into a record of its own.
void discard(CL_Object *object, const char *file, uint32_t line) {
    CL_ErrInfo scratch;
    CL_DeleteFD_M(object, &scratch, 1, file, line);
}

// --- The started program's first steps, between fork and exec ---

// Handlers end at exec, but "ignored" is inherited: what the library ignores must not stay ignored
// in a program that knows nothing of it. What else is ignored was so before, on purpose.
bool ignored_by_library(int signal) {
    switch (signal) {
        case SIGHUP:
        case SIGINT:
        case SIGQUIT:
        case SIGPIPE:
        case SIGUSR1:
        case SIGUSR2:
        case SIGPROF:
        case SIGALRM:
        case SIGCHLD:
            return true;
        default:
            return false;
    }
}

// Called with every signal blocked, so that no handler of the parent runs in the child.
void reset_signals() {
    struct sigaction action;
    for (int signal = 1; signal < NSIG; ++signal) {
        if (sigaction(signal, nullptr, &action) != 0) continue;
        if (action.sa_handler == SIG_DFL) continue;
        if (action.sa_handler == SIG_IGN && !ignored_by_library(signal)) continue;
        action = {};
        action.sa_handler = SIG_DFL;
        cl_u_sigaction(signal, &action, nullptr);
    }
    sigset_t none;
    cl_u_sigemptyset(&none);
    cl_u_sigprocmask(SIG_SETMASK, &none, nullptr);
}

// The program finds its starter's socket, never that of a starter further up. The application's
// changes come last: they may take the variable away again.
bool change_environment(const CL_EnvChange *changes, CL_ErrInfo *err) {
    const char *path = CL_MainTable->exec_path;
    const CL_EnvChange socket[] = {{CL_STARTER_SOCKET, *path ? path : nullptr}, {nullptr, nullptr}};
    return cl_envchange(socket, err) == 0 && (!changes || cl_envchange(changes, err) == 0);
}

[[noreturn]] void become(const CL_Program *program, int report) {
    CL_ErrInfo err = {};
    int error;
    reset_signals();
    if (change_environment(program->changes, &err)) {
        cl_u_execv(program->path, program->arguments);
        error = errno;
    } else {
        error = static_cast<int>(err.err);
    }
    cl_u_write(report, &error, sizeof error);
    _exit(127);
}

// --- Starting ---

void kill_and_reap(pid_t pid) {
    cl_u_kill(pid, SIGKILL);
    cl_u_waitpid(pid, nullptr, 0);
}

// Forks with every signal blocked. The child's id, or -1.
pid_t fork_into(const CL_Program *program, int report, CL_ErrInfo *err) {
    sigset_t all, saved;
    sigfillset(&all);
    cl_u_pthread_sigmask(SIG_SETMASK, &all, &saved);
    const pid_t pid = cl_u_fork();
    if (pid == 0) become(program, report);
    if (pid < 0) fail.sys(err);
    cl_u_pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    return pid;
}

// Runs the program in a new process. Its id once exec has succeeded (the pipe then closes without
// a word, however soon the program ends); -1 when it has not, and no process is left.
pid_t spawn(const CL_Program *program, CL_ErrInfo *err) {
    int pipe[2];
    if (pipe2(pipe, O_CLOEXEC) != 0) return fail.sys(err);
    pid_t pid = fork_into(program, pipe[1], err);
    cl_u_close(pipe[1]);
    int error;
    if (pid > 0 && cl_u_read(pipe[0], &error, sizeof error) == sizeof error) {
        fail(err, static_cast<uint32_t>(error));
        cl_u_waitpid(pid, nullptr, 0);
        pid = -1;
    }
    cl_u_close(pipe[0]);
    return pid;
}

// Makes the object stand for the child: from here on the loop finds its report and its end.
uint32_t adopt(CL_Object *child, pid_t pid, bool await_report, CL_ErrInfo *err, const char *file,
               uint32_t line) {
    child->child.pid = static_cast<uint32_t>(pid);
    cl_StatusChange_M(child, CL_STATUS_READY, await_report ? CL_SUB_EXEC_AWAITED : 0, file, line);
    CL_Queue *waiting = &CL_MainTable->exec_wait_list;
    if (await_report && !CL_QUE_PutTail(waiting, child)) return fail(err, CL_ERR_QUEUE);
    if (CL_AddEventList_M(child, CL_PRIORITY_FIRST, err, 1, file, line)) return 1;
    if (await_report) CL_QUE_GetData(waiting, child);
    return 0;
}

uint32_t may_start(const CL_Program *program, CL_Callback callback, CL_ErrInfo *err) {
    if (CL_MainTable->state != CL_STATE_INITIALISED) return fail(err, CL_ERR_STATE);
    if (!program || !program->path || !program->arguments || !callback) return fail(err, EFAULT);
    if (program->await_report && !CL_MainTable->execs) return fail(err, EINVAL);
    return 1;
}

// --- The started program's side of the channel ---

uint32_t may_report(const char *path, CL_Callback endCallback, CL_ErrInfo *err) {
    if (!path || !*path) return fail(err, ENOENT);
    if (!endCallback) return fail(err, EFAULT);
    return 1;
}

bool connect_to_starter(CL_Object *end, const char *path, CL_ErrInfo *err, const char *file,
                        uint32_t line) {
    for (uint32_t attempt = 1;; ++attempt) {
        if (CL_CnctMSGC_M(end, path, CL_MODE_SYNC, 0, err, 1, file, line)) return true;
        if (err->err != EAGAIN || attempt == kConnectAttempts) return false;
        CL_Sleep(kConnectPause);
    }
}

bool await_end_request(CL_Object *end, CL_ErrInfo *err, const char *file, uint32_t line) {
    CL_RecvMSGC_M(end, end->connection.report, sizeof end->connection.report, CL_MODE_DEFERRED, 0,
                  err, 1, file, line);
    return err->err == CL_ERR_IN_PROGRESS &&
           CL_AddEventList_M(end, CL_PRIORITY_REPORT, err, 1, file, line);
}

// A send that fails leaves the block on the send queue, until the caller deletes the object: the
// block is the caller's. The record tells success, since an end watch gives any result.
bool send_report(CL_Object *end, CL_MsgBlock *report, CL_ErrInfo *err, const char *file,
                 uint32_t line) {
    report->header.type = CL_MSG_EXEC_COMPLETE;
    CL_SendMSGC_M(end, report, sizeof *report, CL_MODE_SYNC, 0, err, 1, file, line);
    return err->err == 0;
}

}  // namespace

extern "C" CL_Object *CL_StartProgram_M(const CL_Program *program, CL_Callback callback,
                                        uint64_t arg1, uint64_t arg2, CL_ErrInfo *err,
                                        uint8_t callerFlag, const char *file, uint32_t line) {
    const qvcl::Report record(err);
    err = record;
    if (!may_start(program, callback, err)) return nullptr;
    CL_Object *child =
        CL_CreateFD_M(CL_KIND_CHILD, callback, arg1, arg2, err, callerFlag, file, line);
    if (!child) return nullptr;

    const pid_t pid = spawn(program, err);
    if (pid > 0) {
        if (adopt(child, pid, program->await_report != 0, err, file, line)) return child;
        kill_and_reap(pid);
        cl_StatusChange_M(child, 0, 0, file, line);  // nothing is left for the deletion to kill
    }
    discard(child, file, line);
    return nullptr;
}

extern "C" uint32_t CL_RequestEnd(CL_Object *child, CL_ErrInfo *err) {
    const qvcl::Report record(err);
    err = record;
    if (!cl_CheckFD(child, err)) return 0;
    if (child->kind != CL_KIND_CHILD || !(child->sub_status & CL_SUB_EXEC_COMPLETE))
        return fail(err, EBADF);

    const CL_MsgHeader request = {sizeof request, CL_MSG_VERSION, CL_GetPid(), CL_MSG_END_REQUEST};
    // So short a message goes into the socket whole or not at all.
    const int32_t sent =
        cl_u_send(child->descriptor, &request, sizeof request, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) return fail.sys(err);
    if (sent != static_cast<int32_t>(sizeof request)) return fail(err, EAGAIN);
    return 1;
}

// The report goes out last: who has reported is listening.
extern "C" CL_Object *CL_StartupComplete_M(CL_Callback endCallback, uint64_t arg1, uint64_t arg2,
                                           uint32_t watch_sync, CL_ErrInfo *err, uint8_t callerFlag,
                                           const char *file, uint32_t line) {
    (void)callerFlag;  // END objects are the library's to create, whoever asks
    const qvcl::Report record(err);
    err = record;
    const char *path = cl_GetEnvValue(CL_STARTER_SOCKET);
    if (!may_report(path, endCallback, err)) return nullptr;
    CL_Object *end = CL_CreateFD_M(CL_KIND_END, cl_EndCallback, arg1, arg2, err, 1, file, line);
    if (!end) return nullptr;

    end->connection.end_callback = endCallback;
    CL_MsgBlock report = {};
    if (connect_to_starter(end, path, err, file, line) && await_end_request(end, err, file, line) &&
        send_report(end, &report, err, file, line)) {
        if (watch_sync) CL_MainTable->sync_flag = 1;
        return end;
    }
    discard(end, file, line);
    return nullptr;
}

extern "C" uint32_t CL_NotifyManager(const char *state, CL_ErrInfo *err) {
    const qvcl::Report record(err);
    err = record;
    const char *path = cl_GetEnvValue("NOTIFY_SOCKET");
    if (!path || !*path) return 0;
    if (!state) return fail(err, EFAULT);

    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const size_t length = strlen(path);
    if (length >= sizeof address.sun_path) return fail(err, ENAMETOOLONG);
    memcpy(address.sun_path, path, length);
    if (*path == '@') address.sun_path[0] = '\0';  // a name that is no file

    const int fd = cl_u_socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return fail.sys(err);
    const socklen_t size = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + length);
    const bool sent =
        cl_u_connect(fd, reinterpret_cast<const struct sockaddr *>(&address), size) == 0 &&
        cl_u_send(fd, state, strlen(state), MSG_NOSIGNAL) >= 0;
    if (!sent) fail.sys(err);
    cl_u_close(fd);
    return sent;
}
