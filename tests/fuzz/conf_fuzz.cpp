// The configuration reader over arbitrary bytes: what it accepts is in order, within its limits and
// reads the same when it is written out again; what it refuses leaves nothing.
#include <qvcl/conf.h>
#include <qvcl/memory.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

void require(bool holds, const char *what) {
    if (holds) return;
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
}

// Reads the bytes; the configuration as text comes back, the elements are freed.
uint32_t read(std::string_view bytes, std::string &text) {
    const int file = memfd_create("conf", MFD_CLOEXEC);
    require(write(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "memfd");
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    const uint32_t blocks = CL_nmem_M(1);
    CL_Queue conf;
    CL_QUE_InitQT(&conf, 0);
    uint32_t end = 0, line = 0;
    const uint32_t code = CL_ReadConf(&conf, path.c_str(), &end);
    close(file);
    require(code <= CL_CONF_KEY_TWICE && code != CL_CONF_NOT_EMPTY && code != CL_CONF_NO_FILE &&
                code != CL_CONF_NO_MEMORY,
            "a code that a file can give");
    require(end >= 1 && end <= bytes.size() + 1, "line within the file");
    require(code == CL_CONF_OK || conf.count == 0, "empty after a failure");

    char name[64], key[64], value[512], found[512];
    std::string last;
    for (CL_ConfSection *section = nullptr;
         CL_EnumSection(&conf, name, sizeof name, &line, &section) == CL_CONF_OK; last = name) {
        require(strlen(name) >= 1 && strlen(name) <= CL_CONF_NAME_MAX, "length of a name");
        require(last < name, "sections in order");
        require(line >= 1 && line < end, "line of a section");
        text += "[" + std::string(name) + "]\n";
        const uint32_t header = line;
        std::string last_key;
        for (CL_ConfMember *member = nullptr;
             CL_EnumMember(section, key, sizeof key, value, sizeof value, &line, &member) == 0;
             last_key = key) {
            require(strlen(key) >= 1 && strlen(key) <= CL_CONF_NAME_MAX, "length of a key");
            require(strlen(value) <= CL_CONF_VALUE_MAX, "length of a value");
            require(last_key < key, "keys in order");
            require(line > header && line < end, "line of a member");
            text += key + ("=" + std::string(value)) + "\n";
            require(CL_GetMember(&conf, name, key, found, sizeof found, &line) == CL_CONF_OK &&
                        strcmp(found, value) == 0,
                    "look-up finds what the walk shows");
        }
    }
    require(CL_FreeConf(&conf) == 1 && CL_nmem_M(1) == blocks, "balanced memory");
    return code;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string once, twice;
    if (read({reinterpret_cast<const char *>(data), size}, once) == CL_CONF_OK) {
        require(read(once, twice) == CL_CONF_OK && once == twice, "reads the same again");
    }
    return 0;
}
