/* Records lines: appends each to a file, and shows the latest on a board in shared memory, where
 * recorder_reader looks at any time without disturbing it.
 *
 * The library maps segments that exist; creating, sizing and removing one is the program's
 * business.
 *
 * When a line cannot be written (the disk is full, say), the input waits: the recorder tries again
 * for five seconds, and then ends.
 *
 *   recorder SEGMENT FILE < LINES       SEGMENT begins with a slash: /board
 */
#define _GNU_SOURCE
#include "example.h"
#include "recorder_board.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

enum { END_OF_INPUT = 1, FAILED = 2 }; /* values that end the loop */
enum { FLUSH_EVERY = 100 };

static CL_Object *file;
static Board *board;
static int32_t offset; /* where the next record goes */
static const char *segment_name;
static char input[BOARD_TEXT];
static size_t input_length;

static int failed(const char *what, int code) {
    fprintf(stderr, "recorder: %s: %s\n", what, strerror(code));
    return 0;
}

/* One write may take fewer bytes than it is given, or none for the moment. */
static int write_all(const char *data, size_t length) {
    CL_ErrInfo err;
    int failures = 0;
    while (length > 0) {
        const int64_t count = CL_WriteFile(file, data, length, &err);
        if (count < 0) {
            if (!example_wait(&failures)) return failed("CL_WriteFile", (int)err.err);
            continue;
        }
        failures = 0;
        data += count;
        length -= (size_t)count;
    }
    return 1;
}

/* Readers see the version odd while the rest changes. */
static void show(const char *record, size_t length) {
    atomic_fetch_add_explicit(&board->version, 1, memory_order_relaxed);
    atomic_thread_fence(memory_order_release);
    ++board->records;
    board->last_offset = offset;
    board->last_length = (uint32_t)length;
    memcpy(board->last, record, length);
    atomic_fetch_add_explicit(&board->version, 1, memory_order_release);
}

/* The file first, then the board: what the board tells is in the file. */
static int record_line(const char *line, size_t length) {
    CL_ErrInfo err;
    char record[BOARD_TEXT];
    const int size =
        snprintf(record, sizeof record, "%08u %.*s\n", board->records + 1, (int)length, line);
    const size_t bytes = (size_t)size < sizeof record ? (size_t)size : sizeof record - 1;
    record[bytes - 1] = '\n'; /* a line that is too long was cut, its end too */
    if (!write_all(record, bytes)) return 0;
    show(record, bytes);
    offset += (int32_t)bytes;
    /* A flush is not tried again: the next one may know nothing of what this one lost. */
    if (board->records % FLUSH_EVERY != 0 || CL_FlushFile(file, &err)) return 1;
    return failed("CL_FlushFile", (int)err.err);
}

static int take_lines(void) {
    char *end;
    while ((end = memchr(input, '\n', input_length)) || input_length == sizeof input) {
        const size_t length = end ? (size_t)(end - input) : input_length;
        const size_t taken = end ? length + 1 : length;
        if (!record_line(input, length)) return 0;
        input_length -= taken;
        memmove(input, input + taken, input_length);
    }
    return 1;
}

static uint32_t on_input(CL_Object *object, CL_Event *event, uint64_t arg1, uint64_t arg2) {
    static int failures;
    (void)object, (void)arg1, (void)arg2;
    if (event->type != CL_EVENT_DESCRIPTOR || !FD_ISSET(STDIN_FILENO, &event->sets.read)) return 0;
    const ssize_t count = read(STDIN_FILENO, input + input_length, sizeof input - input_length);
    if (count < 0) { /* what is there to be read comes again */
        const int code = errno;
        if (code == EINTR || code == EAGAIN || example_wait(&failures)) return 0;
        failed("read", code);
        return FAILED;
    }
    failures = 0;
    if (count == 0) /* the last line may lack its end */
        return input_length == 0 || record_line(input, input_length) ? END_OF_INPUT : FAILED;
    input_length += (size_t)count;
    return take_lines() ? 0 : FAILED;
}

/* However the recorder ends, its segment goes. */
static void remove_segment(void) {
    shm_unlink(segment_name);
}

static void create_segment(const char *name) {
    const int fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) example_fail_errno(name);
    segment_name = name;
    atexit(remove_segment);
    while (ftruncate(fd, sizeof(Board)) != 0)
        if (errno != EINTR) example_fail_errno(name);
    close(fd);
}

static CL_Object *open_board(const char *name) {
    CL_ErrInfo err;
    create_segment(name);
    CL_Object *segment = cl_openshm(name, O_RDWR, sizeof(Board), &err, CL_FILE_NAME, __LINE__);
    if (!segment) example_fail("cl_openshm", &err);
    board = CL_MapSHM(segment, &err);
    if (!board) example_fail("CL_MapSHM", &err);
    return segment;
}

int main(int argc, char **argv) {
    CL_ErrInfo err;
    fd_set readable;
    if (argc != 3) {
        fprintf(stderr, "usage: %s SEGMENT FILE < LINES\n", argv[0]);
        return EXIT_FAILURE;
    }
    example_begin("recorder", 3, NULL);
    file = CL_OpenFile(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0600, &err);
    if (!file) example_fail("CL_OpenFile", &err);
    CL_Object *segment = open_board(argv[1]);

    CL_Object *lines = CL_CreateFD(CL_KIND_FD, on_input, 0, 0, &err);
    if (!lines) example_fail("CL_CreateFD", &err);
    FD_ZERO(&readable);
    FD_SET(STDIN_FILENO, &readable);
    if (!CL_SetFD(lines, STDIN_FILENO + 1, &readable, NULL, NULL, &err))
        example_fail("CL_SetFD", &err);
    if (!CL_AddEventList(lines, CL_PRIORITY_FIRST, &err)) example_fail("CL_AddEventList", &err);

    if (example_loop() != END_OF_INPUT) return EXIT_FAILURE; /* it has been told why */
    printf("recorded %u lines, %d bytes\n", board->records, offset);

    if (!CL_DeleteFD(lines, &err)) example_fail("CL_DeleteFD", &err);
    if (!CL_FlushFile(file, &err)) example_fail("CL_FlushFile", &err);
    if (!CL_CloseFile(file, &err)) example_fail("CL_CloseFile", &err);
    if (!CL_UnmapSHM(segment, &err)) example_fail("CL_UnmapSHM", &err);
    if (!CL_CloseSHM(segment, &err)) example_fail("CL_CloseSHM", &err);
    return example_end();
}
