/* Log: numbered catalogue messages to the system log, the internal log and standard error.
 *
 * The internal log is also where the library writes its own lines, which begin with "CLLIB:" (but
 * for the greeting of a new callback). It stamps each line with the local time to the microsecond
 * and hands it to the application's log callback; without one the line goes nowhere. No allocation;
 * catalogue and system log are opened and closed for every message. */
#ifndef QVCL_LOG_H
#define QVCL_LOG_H

#include <qvcl/base.h>

QVCL_BEGIN

/* Destinations of CL_LOG_Out, to be combined. */
enum {
    CL_LOG_SYSLOG = 1,   /* facility LOG_DAEMON */
    CL_LOG_INTERNAL = 2, /* the log callback */
    CL_LOG_STDERR = 4
};

/* Severities. */
enum { CL_LOG_ERROR = 1, CL_LOG_WARNING = 2, CL_LOG_INFO = 3 };

/* Receives each line of the internal log: a time stamp of 28 characters, the text, a newline; 1023
 * characters at most. A text of more than 994 characters is cut, and its line has no newline. kind
 * is always 4, the result is ignored. */
typedef int (*CL_LogCallback)(int kind, const char *line);

/* Sets up the log; may be repeated. name: identity, at most 31 characters. catalogue, altCatalogue:
 * message catalogues as of catopen(3), at most 255 characters; one may be null. logPath: file whose
 * generations cl_log_lotate rotates, at most 252 characters. 1 on success, with err as the caller
 * passed it in; 0 on failure (CL_MODULE_LOG).
 * Errors: EINVAL (name, both catalogues or logPath null), ENAMETOOLONG (one of them too long). */
QVCL_API uint32_t CL_LOG_Init_M(const char *name, const char *catalogue, const char *altCatalogue,
                                const char *logPath, CL_ErrInfo *err);

/* Writes message `messageId` (its low 16 bits) of set 1 of the catalogue. types: one character per
 * argument that follows:
 *   d int32_t   D int64_t   x uint32_t   X uint64_t   p pointer   s NUL-terminated string
 * The first other character ends the list; at most 99 arguments are taken. The catalogue text uses
 * %s or %N$s for every argument; any other conversion is printed as it stands. A null string
 * prints "(null)". The line is "E 00042 text", with E, W or I for the severity. reserved: not
 * used. 1 when the line was sent; 0 when the log is not set up, or no destination or no severity
 * is given. */
QVCL_API uint32_t CL_LOG_Out(uint32_t destinations, uint16_t severity, uint64_t reserved,
                             uint32_t messageId, const char *types, ...);

/* Sets the log callback (null: none); the new one at once receives a line that begins with "Trace
 * Callback is set by". */
QVCL_API void CL_SetLogCallbackFunction(CL_LogCallback callback);

/* Writes one line to the internal log. text: without newline. */
QVCL_API void cl_inlog_write(const char *text);

/* Copies the catalogue text of `messageId` into `out`, 1024 bytes: at most 1023 characters and a
 * NUL. 1 on success, 0 when there is none. */
QVCL_API uint32_t cl_GetLogString(uint32_t messageId, char *out);

/* Renames the log file to its generation 1, and generations 1 to 3 to 2 to 4. The result of the
 * last rename(2), or 0 before the log is set up. */
QVCL_API int32_t cl_log_lotate(void);

QVCL_END

#endif
