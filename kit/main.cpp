// qvcl-kit: runs a program that uses libqvcl under stand-ins for the C library's calls.
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "kit/run.h"

namespace {

constexpr const char *kUsage =
    "usage: qvcl-kit run [--fail=CALL[:NTH[:ERRNO]]]... [--forever] [--short=BYTES]\n"
    "                    [--clock=virtual|+TIME|virtual+TIME] [--settle=MS] [--seed=N] -- "
    "PROGRAM...\n"
    "       qvcl-kit sweep [--jobs=N] [--timeout=S] [--out=DIR] [--calls=NAME,...] [--strict]\n"
    "                      [--again=RUN] -- PROGRAM...\n"
    "       qvcl-kit calls\n";

int list_calls() {
    for (uint16_t i = 0; i < kit::kCallCount; ++i) {
        printf("%s", kit::name_of(static_cast<kit::Call>(i)));
        for (const int *error = kit::errors_of(static_cast<kit::Call>(i)); *error != 0; ++error)
            printf(" %s", kit::name_of_error(*error).c_str());
        printf("\n");
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    const std::vector<std::string> arguments(argv + (argc > 1 ? 2 : 1), argv + argc);
    const std::string command = argc > 1 ? argv[1] : "";
    try {
        if (command == "run") return kit::run_command(arguments);
        if (command == "sweep") return kit::sweep_command(arguments);
        if (command == "calls" && arguments.empty()) return list_calls();
        if (command == "--help") {
            fputs(kUsage, stdout);
            return 0;
        }
    } catch (const std::invalid_argument &e) {
        fprintf(stderr, "qvcl-kit: %s\n", e.what());
    } catch (const std::exception &e) {
        fprintf(stderr, "qvcl-kit: %s\n", e.what());
        return 2;
    }
    fputs(kUsage, stderr);
    return 2;
}
