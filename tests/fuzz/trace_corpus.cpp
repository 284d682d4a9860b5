// Writes the corpus of trace_fuzz into a folder: dumps that are whole, and each of them damaged.
#include <filesystem>
#include <fstream>
#include <random>

#include "dump_builder.h"

using namespace dump_builder;

int main(int argc, char **argv) {
    if (argc != 2) return 2;
    std::filesystem::create_directories(argv[1]);
    int number = 0;
    const auto save = [&](const File &file) {
        std::ofstream(std::filesystem::path(argv[1]) / std::to_string(number++), std::ios::binary)
            .write(reinterpret_cast<const char *>(file.data()),
                   static_cast<std::streamsize>(file.size()));
    };
    std::mt19937 random(1);
    for (const uint32_t entries : {9u, 20u, 100u}) {
        for (const std::string_view text : {"", "a text"}) {
            const File whole = Story(entries).file(text);
            save(whole);
            for (int round = 0; round < 20; ++round) {
                File damaged = whole;
                for (int n = 0; n < 30; ++n)
                    damaged[random() % damaged.size()] = static_cast<uint8_t>(random());
                if (round % 4 == 0) damaged.resize(random() % damaged.size());
                save(damaged);
            }
        }
    }
    save({});
}
