// Writes the corpus of trace_fuzz into a folder: dumps that are whole, each of them damaged, and
// the empty file of the story. Into another that of memory_fuzz: this process's memory, as far as
// it is looked at.
#include <dlfcn.h>

#include <filesystem>

#include "tests/folder.h"
#include "tests/trace_story.h"

#include "tests/fuzz/region.h"

namespace {

void append(std::string &to, const void *bytes, size_t size) {
    to.append(static_cast<const char *>(bytes), size);
}

void append_region(std::string &to, const void *place, size_t size, uint64_t flags) {
    const test::Region region{reinterpret_cast<uint64_t>(place), size, flags, 0};
    append(to, &region, sizeof region);
    append(to, place, size);
}

// The library's first page, which leads to nothing else here, and its blocks.
std::string memory_image() {
    std::string image;
    Dl_info library;
    dladdr(reinterpret_cast<void *>(CL_Init_M), &library);
    append_region(image, library.dli_fbase, 0x6000, test::kFile);
    append_region(image, CL_MainTable, sizeof *CL_MainTable, test::kWritable);
    for (const CL_TableHeader *block :
         {&CL_MainTable->library_ring->header, &CL_MainTable->user_ring->header,
          CL_MainTable->descriptor_table})
        append_region(image, block, block->size, test::kWritable);
    return image;
}

}  // namespace

int main(int argc, char **argv) {  // NOLINT(bugprone-exception-escape): ends it, as intended
    if (argc != 3) return 2;
    std::filesystem::create_directories(argv[1]);
    std::filesystem::create_directories(argv[2]);
    const std::filesystem::path memory = std::filesystem::absolute(argv[2]);
    std::filesystem::current_path(argv[1]);
    test::Story story;
    test::Story::rings(900);
    story.calls();
    CL_TRC_Out("calls", nullptr);
    unlink("socket");
    story.live("live");
    unlink("socket");
    std::mt19937 random(1);
    std::ofstream(memory / "memory", std::ios::binary) << memory_image();
    const std::string names[] = {"calls", "live", memory / "memory"};
    for (const std::string &name : names) {
        const std::string whole = test::bytes_of(name);
        for (int round = 0; round < 60; ++round) {
            std::string damaged = whole.substr(0, random() % (4 * whole.size()));
            for (int n = 0; n < 30 && !damaged.empty(); ++n)
                damaged[random() % damaged.size()] = static_cast<char>(random());
            std::ofstream(name + std::to_string(round), std::ios::binary) << damaged;
        }
    }
}
