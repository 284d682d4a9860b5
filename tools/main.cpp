// qvcl-trace: reads the trace files of libqvcl. Here is what belongs to the process: its streams,
// whether they take colours, and its exit status.
#include <unistd.h>

#include <cstdlib>
#include <exception>

#include "tools/cli.h"

using namespace trace_reader;

int main(int argc, char **argv) {
    const char *none = getenv("NO_COLOR");
    Text out(stdout, isatty(STDOUT_FILENO) != 0 && !(none != nullptr && *none != '\0'));
    Text err(stderr);
    int status = kUsage;
    try {
        status = run(argc, argv, out, err);
    } catch (const std::exception &e) {  // no memory left for a large file
        err << "qvcl-trace: " << e.what() << '\n';
    }
    if (!out.flush()) {
        err << "qvcl-trace: the output could not be written\n";
        status = kUsage;
    }
    err.flush();
    return status;
}
