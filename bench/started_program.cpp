// The program that bench_start starts: it reports, or writes a byte; and ends when it is told to.
#include <unistd.h>
#include <cstring>

#include <qvcl/qvcl.h>
#include <qvcl/starter.h>

int main(int argc, char **argv) {
    char byte = 0;
    if (argc > 1 && strcmp(argv[1], "pipe") == 0) {
        const bool fine = write(STDOUT_FILENO, &byte, 1) == 1 && read(STDIN_FILENO, &byte, 1) == 0;
        return fine ? 0 : 1;
    }
    const auto on_end = [](CL_Object *, CL_Event *, uint64_t, uint64_t) { return 1u; };
    const bool fine = CL_Init(1, nullptr, nullptr) == 1 &&
                      CL_StartupComplete(on_end, 0, 0, 0, nullptr) != nullptr &&
                      CL_EventLoop(nullptr) == 1;
    return fine ? 0 : 1;
}
