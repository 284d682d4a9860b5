// Writes the corpus of trace_fuzz into a folder: dumps that are whole, each of them damaged, and
// the empty file of the story.
#include <filesystem>

#include "tests/folder.h"
#include "tests/trace_story.h"

int main(int argc, char **argv) {
    if (argc != 2) return 2;
    std::filesystem::create_directories(argv[1]);
    std::filesystem::current_path(argv[1]);
    test::Story story;
    test::Story::rings(900);
    story.calls();
    CL_TRC_Out("calls", nullptr);
    unlink("socket");
    story.live("live");
    unlink("socket");
    std::mt19937 random(1);
    for (const std::string name : {"calls", "live"}) {
        const std::string whole = test::bytes_of(name);
        for (int round = 0; round < 60; ++round) {
            std::string damaged = whole.substr(0, random() % (4 * whole.size()));
            for (int n = 0; n < 30 && !damaged.empty(); ++n)
                damaged[random() % damaged.size()] = static_cast<char>(random());
            std::ofstream(name + std::to_string(round), std::ios::binary) << damaged;
        }
    }
}
