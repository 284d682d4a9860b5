// Where the library's catalogue comes from, and its lines for the system log go to.
#pragma once

#include <cstdint>

namespace kit {

struct Outlets {
    bool catalogue = false;  // not the real one
    const char *(*text)(int, void *) = nullptr;
    void *text_context = nullptr;
    uint64_t open_catalogues = 0;
    void (*line)(const char *, void *) = nullptr;
    void *line_context = nullptr;
    char identity[300] = "";
};
extern Outlets outlets;

}  // namespace kit
