/* Companion of libqvcl: the header text of dumps, and a dump at the crash (libqvcl-starter.a).
 *
 * A header text says when, why and of which process a dump was taken, in lines `name: value` that
 * qvcl-trace understands: with the time, a call that was open has a length; with the modules,
 * callbacks have names.
 *
 *     reason: on request
 *     time: 1795422136.104501
 *     process: 7312
 *     command: /usr/bin/clockd -q
 *     module: 0x55d0c8a4e000 0x55d0c8a54000 5f3a...c1 /usr/bin/clockd
 *
 * After a fatal signal, `signal` (number and name), `code` (the signal's si_code), `address` (where
 * the signal has one) and `thread` stand in front of the modules. Modules are the mapped files of
 * the process: first and last address, build id or "-", path. Control characters and "\" in a value
 * are written as \xHH and "\\".
 *
 * It uses nothing but the exported interface. Failures of its own carry CL_MODULE_RECORDER. */
#ifndef QVCL_RECORDER_H
#define QVCL_RECORDER_H

#include <qvcl/base.h>

QVCL_BEGIN

enum { CL_MODULE_RECORDER = 101 };

/* Writes the header text of a dump that is taken now, for CL_TRC_Out. reason: a few words on why;
 * null leaves that line out. buffer, size: receive the text with its NUL, as many whole lines as
 * fit; 16 KB hold some hundred modules. The length of the whole text, without the NUL: it was cut
 * when that is `size` or more. buffer may be null when size is 0. Any thread may call it, no signal
 * handler. */
size_t CL_DescribeProcess(const char *reason, char *buffer, size_t size);

/* From now on SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGSYS and SIGTRAP write a dump before they
 * do what they did before: the handler that was there is called, or the process ends by the signal.
 * path: the dump; a relative one is of the current directory. It replaces the file of the crash
 * before. Gives the calling thread an alternate stack as CL_CrashStack does. Called again it takes
 * the new path, and the modules that have been loaded meanwhile; the handlers stay as they are.
 * Call it at any time, from one thread at once. 1 on success; 0 on failure, and nothing has
 * changed.
 * Errors: EFAULT (path null), ENOENT (path empty, or its directory does not exist), ENAMETOOLONG
 * (path or its last part too long), EISDIR (path is a directory), EINVAL (path is a device), ENOMEM
 * (no memory), errno (no file can be made in the directory). */
uint32_t CL_RecordCrashes(const char *path, CL_ErrInfo *err);

/* Gives the calling thread an alternate stack for signals, unless it has one, so that a crash is
 * recorded also when its stack has overflowed; it is released when the thread ends. Threads that do
 * not call it are recorded on their own stack. 1 on success, 0 on failure.
 * Errors: ENOMEM (no memory). */
uint32_t CL_CrashStack(CL_ErrInfo *err);

QVCL_END

#endif
