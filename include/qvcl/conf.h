/* Reader of sectioned configuration files.
 *
 *     ; comment
 *     [section]
 *     key = value
 *
 * Lines of at most 1000 characters, their end included. Section names and keys have 1 to 50
 * characters, values 0 to 500; all three lose the spaces and control characters at both ends. ";"
 * comments out a whole line only, "#" nothing. A name may occur once.
 *
 * A configuration is a queue of section elements, each with a queue of member elements, sorted by
 * name (byte order). All functions return a code; none fills an error record or writes a trace
 * record. */
#ifndef QVCL_CONF_H
#define QVCL_CONF_H

#include <qvcl/queue.h>

QVCL_BEGIN

enum { CL_CONF_NAME_MAX = 50, CL_CONF_VALUE_MAX = 500, CL_CONF_LINE_MAX = 1000 };

/* Result codes. */
enum {
    CL_CONF_OK = 0,
    CL_CONF_NOT_EMPTY = 1,   /* the configuration queue was not empty */
    CL_CONF_NO_FILE = 2,     /* the file could not be opened or read */
    CL_CONF_LINE_LONG = 3,   /* a line longer than 1000 characters */
    CL_CONF_NO_SECTION = 4,  /* text before the first section header */
    CL_CONF_BAD_SECTION = 5, /* malformed section header */
    CL_CONF_NO_MEMORY = 6,
    CL_CONF_SECTION_TWICE = 7,
    CL_CONF_BAD_MEMBER = 8, /* malformed member line */
    CL_CONF_KEY_TWICE = 9,  /* in one section */
    CL_CONF_END = 10,       /* enumeration: no further element */
    CL_CONF_NOT_FOUND = 11,
    CL_CONF_BAD_CURSOR = 12, /* the cursor is no element of what is enumerated */
    CL_CONF_INSERT_FAILED = 99
};

/* Elements: library memory, owned by the configuration; CL_FreeConf alone takes them out of it. */
typedef struct CL_ConfSection {
    CL_QueueLink link;
    char name[64];
    uint32_t line; /* of the header in the file, from 1 */
    int32_t guess; /* the reader's own, for look-ups */
    CL_Queue members;
} CL_ConfSection;
CL_LAYOUT_AT(CL_ConfSection, name, 24);
CL_LAYOUT_AT(CL_ConfSection, line, 88);
CL_LAYOUT_AT(CL_ConfSection, members, 96);

typedef struct CL_ConfMember {
    CL_QueueLink link;
    char key[64];
    uint32_t line;
    char value[512];
    int32_t guess; /* as in a section */
} CL_ConfMember;
CL_LAYOUT_AT(CL_ConfMember, key, 24);
CL_LAYOUT_AT(CL_ConfMember, line, 88);
CL_LAYOUT_AT(CL_ConfMember, value, 92);
CL_LAYOUT_SIZE(CL_ConfMember, 608);

/* Reads the file at `path` into `conf`, which must be empty (CL_QUE_InitQT(conf, 0)). *line
 * receives the number of lines + 1, or after a failure the line that failed, from 1 (0 when the
 * queue was not empty or the file could not be opened). CL_CONF_OK, or the error; conf is then
 * empty.
 * Errors: CL_CONF_NOT_EMPTY (conf stays as it was), CL_CONF_NO_FILE, CL_CONF_LINE_LONG,
 * CL_CONF_NO_SECTION, CL_CONF_BAD_SECTION, CL_CONF_NO_MEMORY, CL_CONF_SECTION_TWICE,
 * CL_CONF_BAD_MEMBER, CL_CONF_KEY_TWICE, CL_CONF_INSERT_FAILED. */
QVCL_API uint32_t CL_ReadConf(CL_Queue *conf, const char *path, uint32_t *line);

/* Releases everything. 1 on success; 0 when an element could not be freed: the rest stays. */
QVCL_API uint32_t CL_FreeConf(CL_Queue *conf);

/* The next section in name order: *cursor null gives the first. name: at most `length` bytes,
 * padded with NUL, not terminated when the name fills them. CL_CONF_OK, or the error.
 * Errors: CL_CONF_END, CL_CONF_BAD_CURSOR. */
QVCL_API uint32_t CL_EnumSection(CL_Queue *conf, char *name, uint64_t length, uint32_t *line,
                                 CL_ConfSection **cursor);

/* Looks a section up by its exact name. CL_CONF_OK with *section set, or the error.
 * Errors: CL_CONF_NOT_FOUND. */
QVCL_API uint32_t CL_GetSectionIndex(CL_Queue *conf, const char *name, CL_ConfSection **section);

/* The next member of a section in key order; as CL_EnumSection.
 * Errors: CL_CONF_END, CL_CONF_BAD_CURSOR. */
QVCL_API uint32_t CL_EnumMember(CL_ConfSection *section, char *key, uint64_t keyLength, char *value,
                                uint64_t valueLength, uint32_t *line, CL_ConfMember **cursor);

/* Looks a value up. CL_CONF_OK with value (at most `length` bytes, as CL_EnumSection) and *line
 * stored, or the error.
 * Errors: CL_CONF_NOT_FOUND (section or key). */
QVCL_API uint32_t CL_GetMember(CL_Queue *conf, const char *section, const char *key, char *value,
                               uint64_t length, uint32_t *line);

/* Number of members of a section. */
QVCL_API uint32_t CL_GetMemberNum(const CL_ConfSection *section);

QVCL_END

#endif
