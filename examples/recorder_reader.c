/* Looks at the board of recorder, and finds the record that it shows in the recorder's file.
 *
 *   recorder_reader SEGMENT FILE        exit status 0 when both agree
 */
#define _GNU_SOURCE
#include "example.h"
#include "recorder_board.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

/* A whole state: the version was even, and the same before and after the copy. */
static Board look(const Board *board) {
    Board copy;
    uint32_t before, after;
    do {
        before = atomic_load_explicit(&board->version, memory_order_acquire);
        copy.records = board->records;
        copy.last_offset = board->last_offset;
        copy.last_length = board->last_length;
        memcpy(copy.last, board->last, sizeof copy.last);
        atomic_thread_fence(memory_order_acquire);
        after = atomic_load_explicit(&board->version, memory_order_relaxed);
    } while (before != after || before % 2 != 0);
    atomic_init(&copy.version, after);
    return copy;
}

/* 1 when the file holds the board's record where the board says. */
static int agrees(const Board *state, const char *path) {
    CL_ErrInfo err;
    char record[BOARD_TEXT];
    CL_Object *file = CL_OpenFile(path, O_RDONLY, 0, &err);
    if (!file) example_fail("CL_OpenFile", &err);
    if (CL_SeekFile(file, state->last_offset, SEEK_SET, &err) != state->last_offset)
        example_fail("CL_SeekFile", &err);
    const int64_t count = CL_ReadFile(file, record, state->last_length, &err);
    if (count < 0) example_fail("CL_ReadFile", &err);
    if (!CL_CloseFile(file, &err)) example_fail("CL_CloseFile", &err);
    return count == (int64_t)state->last_length && memcmp(record, state->last, (size_t)count) == 0;
}

int main(int argc, char **argv) {
    CL_ErrInfo err;
    if (argc != 3) {
        fprintf(stderr, "usage: %s SEGMENT FILE\n", argv[0]);
        return EXIT_FAILURE;
    }
    example_begin("recorder_reader", 2, NULL);
    CL_Object *segment = cl_openshm(argv[1], O_RDONLY, sizeof(Board), &err, CL_FILE_NAME, __LINE__);
    if (!segment) example_fail("cl_openshm", &err);
    /* A recorder that has only just begun has not given it its size yet. */
    struct stat status;
    if (fstat(segment->descriptor, &status) != 0) example_fail_errno("fstat");
    errno = EAGAIN;
    if (status.st_size < (off_t)sizeof(Board)) example_fail_errno(argv[1]);
    const Board *board = CL_MapSHM(segment, &err);
    if (!board) example_fail("CL_MapSHM", &err);

    const Board state = look(board);
    errno = EBADMSG;
    if (state.last_length > sizeof state.last) example_fail_errno("the board");
    printf("%u records, the last: %.*s", state.records, (int)state.last_length, state.last);
    const int same = agrees(&state, argv[2]);
    printf("the file %s\n", same ? "agrees" : "does not agree");

    if (!CL_UnmapSHM(segment, &err)) example_fail("CL_UnmapSHM", &err);
    if (!CL_CloseSHM(segment, &err)) example_fail("CL_CloseSHM", &err);
    return example_end() == EXIT_SUCCESS && same ? EXIT_SUCCESS : EXIT_FAILURE;
}
