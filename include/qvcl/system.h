/* System calls that survive the library's signals, and a few utilities.
 *
 * The library keeps handlers for SIGALRM, SIGCHLD and SIGUSR1 installed, so any blocking call can
 * be interrupted at any time. Each cl_u_ wrapper takes the arguments of the call it is named
 * after (see that call's manual page) and returns its result; while the call fails with EINTR it
 * is made again, without bound. Any other failure is returned with errno as the call left it.
 * A single read, write, send or receive carries its count in 32 bits. Whatever closes a descriptor
 * or opens one takes its number out of what the running iteration of the loop found ready.
 *
 * Nothing here fills an error record or writes a trace record. */
#ifndef QVCL_SYSTEM_H
#define QVCL_SYSTEM_H

#include <nl_types.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <qvcl/base.h>

struct itimerval;
struct sigaction;
struct sysinfo;
struct timespec;
struct timeval;

QVCL_BEGIN

typedef void (*CL_SignalHandler)(int);

/* Called again while they fail with EINTR. */
QVCL_API int cl_u_gettimeofday(struct timeval *time, void *zone);
QVCL_API int cl_u_shm_open(const char *name, int flags, mode_t mode);
QVCL_API int cl_u_shm_unlink(const char *name);
QVCL_API int cl_u_kill(pid_t pid, int signal);
QVCL_API int cl_u_sigemptyset(sigset_t *set);
QVCL_API int cl_u_sigaddset(sigset_t *set, int signal);
QVCL_API int cl_u_sigaction(int signal, const struct sigaction *action, struct sigaction *old);
QVCL_API int cl_u_sigprocmask(int how, const sigset_t *set, sigset_t *old);
/* Returns the error number, as pthread_sigmask does; again on -1 with errno EINTR. */
QVCL_API int cl_u_pthread_sigmask(int how, const sigset_t *set, sigset_t *old);
QVCL_API int cl_u_ftruncate(int fd, off_t length);
QVCL_API void *cl_u_mmap(void *address, size_t length, int protection, int flags, int fd,
                         off_t offset);
QVCL_API int cl_u_munmap(void *address, size_t length);
QVCL_API int cl_u_open(const char *path, int flags, mode_t mode);
QVCL_API int cl_u_close(int fd);
QVCL_API int64_t cl_u_write(int fd, const void *data, size_t length);
QVCL_API int64_t cl_u_read(int fd, void *data, size_t length);
QVCL_API int cl_u_fdatasync(int fd);
QVCL_API int cl_u_chmod(const char *path, mode_t mode);
QVCL_API int cl_u_unlink(const char *path);
QVCL_API int cl_u_fcntl(int fd, int command, int argument);
QVCL_API int cl_u_socket(int domain, int type, int protocol);
QVCL_API int cl_u_bind(int fd, const struct sockaddr *address, socklen_t length);
QVCL_API int cl_u_listen(int fd, int backlog);
QVCL_API int cl_u_accept(int fd, struct sockaddr *address, socklen_t *length);
QVCL_API int cl_u_connect(int fd, const struct sockaddr *address, socklen_t length);
QVCL_API int32_t cl_u_send(int fd, const void *data, size_t length, int flags);
QVCL_API int32_t cl_u_recv(int fd, void *data, size_t length, int flags);
QVCL_API pid_t cl_u_fork(void);
QVCL_API int cl_u_execv(const char *path, char *const arguments[]);
QVCL_API pid_t cl_u_waitpid(pid_t pid, int *status, int options);
QVCL_API int cl_u_setitimer(int which, const struct itimerval *value, struct itimerval *old);
QVCL_API nl_catd cl_u_catopen(const char *name, int flag);
QVCL_API int cl_u_catclose(nl_catd catalogue);
QVCL_API int cl_u_chdir(const char *path);
QVCL_API int cl_u_sysinfo(struct sysinfo *info);

/* Sleeps for the whole time, resuming with what is left after an interruption. `remaining` is
 * never written. */
QVCL_API int cl_u_nanosleep(const struct timespec *request, struct timespec *remaining);

/* Called once, never again. */
QVCL_API CL_SignalHandler cl_u_signal(int signal, CL_SignalHandler handler);
QVCL_API pid_t cl_u_getpid(void);
QVCL_API char *cl_u_setlocale(int category, const char *locale);
QVCL_API int cl_u_setenv(const char *name, const char *value, int overwrite);
QVCL_API int cl_u_unsetenv(const char *name);
QVCL_API char *cl_u_catgets(nl_catd catalogue, int set, int number, const char *fallback);

/* Seconds of the current time of day; the microseconds go to *microseconds unless it is null.
 * 0, with nothing stored, when the clock fails. */
QVCL_API uint64_t CL_GetTime_M(uint64_t *microseconds);

/* The calling process's id. */
QVCL_API uint32_t CL_GetPid(void);

/* Sleeps for the whole of `milliseconds`, whatever signals arrive. 0 on success, -1 with errno on
 * failure. */
QVCL_API int CL_Sleep(uint32_t milliseconds);

/* The value of an environment variable, or null when it is not set. */
QVCL_API const char *cl_GetEnvValue(const char *name);

/* The next token of `text` (null to go on), or null; as strtok_r. */
QVCL_API char *cl_strtok(char *text, const char *delimiters, char **saved);

QVCL_END

#endif
