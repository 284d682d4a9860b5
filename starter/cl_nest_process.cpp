// The end of any process, by its pidfd.
#include <qvcl/qvcl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>

#include "starter/nest.h"

namespace qvcl::nest {

namespace {

constexpr Failure fail{place(__FILE__)};

constexpr auto kByPidfd = static_cast<idtype_t>(3);  // P_PIDFD, which not every C library names

// Leaves a child that has ended as it is: somebody else reaps it.
CL_NestExit how_ended(int fd, pid_t pid) {
    siginfo_t info = {};
    if (waitid(kByPidfd, static_cast<id_t>(fd), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
        info.si_pid == 0)
        return {pid, 0, 0};
    return {pid, info.si_code == CLD_EXITED ? uint32_t{CL_CHILD_EXITED} : uint32_t{CL_CHILD_KILLED},
            static_cast<uint32_t>(info.si_status)};
}

}  // namespace

// Once: the descriptor goes before the callback comes.
uint32_t process_ready(Nest &nest, Handle &process, uint32_t /*events*/) {
    const CL_NestExit end = how_ended(process.source.fd, process.source.pid);
    release_descriptor(nest, process);
    process.source.fd = -1;
    return Told(nest, CL_EVENT_NEST_PROCESS, process)
        .length(end.pid)
        .exit(end.reason, end.value)
        .call(function_of<CL_NestProcessCallback>(process),
              reinterpret_cast<CL_NestProcess *>(&process), &end, process.calls.arg1,
              process.calls.arg2);
}

}  // namespace qvcl::nest

using namespace qvcl::nest;

extern "C" CL_NestProcess *CL_CreateNestProcess_M(pid_t pid, uint32_t priority,
                                                  CL_NestProcessCallback callback, uint64_t arg1,
                                                  uint64_t arg2, CL_ErrInfo *err,
                                                  uint8_t /*callerFlag*/, const char *file,
                                                  uint32_t line) {
    const Report report(err);
    const Calls calls = {priority, any_function(callback), arg1, arg2};
    Nest *nest = existing(fail, calls, report);
    if (nest == nullptr) return nullptr;
    Handle *process = nest->handles.take(kProcess, calls, file, line);
    if (process == nullptr) return fail(report, ENOMEM);
    process->source.pid = pid;
    if (!keep(*nest, *process, static_cast<int>(syscall(SYS_pidfd_open, pid, 0))))  // close-on-exec
        return fail.sys(report);
    return reinterpret_cast<CL_NestProcess *>(process);
}

extern "C" uint32_t CL_DeleteNestProcess_M(CL_NestProcess *process, CL_ErrInfo *err,
                                           uint8_t /*callerFlag*/, const char * /*file*/,
                                           uint32_t /*line*/) {
    return remove(fail, process, kProcess, Report(err));
}
