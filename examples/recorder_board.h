/* What recorder and recorder_reader agree on: the shared-memory segment, and the records of the
 * file, one a line: eight digits of its number, a blank, the text. */
#ifndef RECORDER_BOARD_H
#define RECORDER_BOARD_H

#include <stdatomic.h>
#include <stdint.h>

enum { BOARD_TEXT = 200 };

/* The recorder raises `version` before and after every change. Who reads the same even version
 * before and after copying has a whole state. */
typedef struct Board {
    _Atomic uint32_t version;
    uint32_t records;
    int32_t last_offset; /* of the last record in the file */
    uint32_t last_length;
    char last[BOARD_TEXT]; /* the record itself */
} Board;

#endif
