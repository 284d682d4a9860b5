// qvcl-bridge: carries messages from a local socket to the same on another machine.
#include <getopt.h>
#include <cstdio>
#include <cstdlib>

#include <qvcl/version.h>
#include "bridge/bridge.h"

namespace {

constexpr char kUsage[] =
    "usage: qvcl-bridge from SOCKET ENDPOINT [--queue=N] [--message=BYTES] [--clients=N] "
    "[--linger=SECONDS]\n"
    "       qvcl-bridge to SOCKET ENDPOINT [--queue=N] [--message=BYTES] [--linger=SECONDS]\n";

[[noreturn]] void refuse() {
    fputs(kUsage, stderr);
    exit(2);
}

uint32_t number(const char *text, unsigned long least, unsigned long most) {
    char *end;
    const unsigned long value = strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || value < least || value > most) refuse();
    return static_cast<uint32_t>(value);
}

}  // namespace

int main(int argc, char **argv) {
    static const option long_options[] = {{"queue", required_argument, nullptr, 'q'},
                                          {"message", required_argument, nullptr, 'm'},
                                          {"clients", required_argument, nullptr, 'c'},
                                          {"linger", required_argument, nullptr, 'l'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {"version", no_argument, nullptr, 'v'},
                                          {nullptr, 0, nullptr, 0}};
    bridge::Options options;
    int letter;
    while ((letter = getopt_long(argc, argv, "", long_options, nullptr)) != -1) {
        switch (letter) {
            case 'q':
                options.queue = number(optarg, 1, 1000000);
                break;
            case 'm':
                options.largest = number(optarg, CL_MSG_HEADER_SIZE, 1u << 30);
                break;
            case 'c':
                options.clients = number(optarg, 1, 900);
                break;
            case 'l':
                options.linger = number(optarg, 0, 86400);
                break;
            case 'h':
                fputs(kUsage, stdout);
                return 0;
            case 'v':
                printf("qvcl-bridge %d.%d.%d\n", CL_VERSION_MAJOR, CL_VERSION_MINOR,
                       CL_VERSION_PATCH);
                return 0;
            default:
                refuse();
        }
    }
    if (argc - optind != 3) refuse();
    // Each client may have room for one message, or those who are silent would stop the others.
    if (options.clients > options.queue) options.clients = options.queue;
    const std::string_view side = argv[optind];
    options.path = argv[optind + 1];
    options.endpoint = argv[optind + 2];
    if (side != "from" && side != "to") refuse();
    const int status = side == "from" ? bridge::run_sender(options) : bridge::run_receiver(options);
    bridge::end();
    return status;
}
