// Every command of qvcl-trace over arbitrary bytes.
#include "tools/cli.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace trace_reader;
    const Source source(Bytes(data, size));
    const Source *sources[] = {&source, &source};
    const std::string names[] = {"a", "b"};
    for (const Command &command : kCommands) {
        if (!command.only_reads()) continue;
        for (size_t files = command.files; files <= std::min<size_t>(command.most_files, 2);
             ++files) {
            Text out, err;
            run_command(command, {.all = true}, std::span(names).first(files),
                        std::span(sources).first(files), out, err);
        }
    }
    return 0;
}
