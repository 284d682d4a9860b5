// The configuration reader over arbitrary bytes. What it accepts keeps its limits and its order and
// can be looked up; what it refuses leaves nothing behind.
#include <qvcl/conf.h>
#include <qvcl/memory.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

namespace {

void require(bool fine) {
    if (!fine) abort();
}

bool bounded(const char *text, std::size_t least, std::size_t most) {
    const std::size_t length = strnlen(text, most + 1);
    return length >= least && length <= most;
}

void walk(CL_Queue *conf) {
    char name[64], key[64], value[512], found[512];
    std::string last_name;
    uint32_t line = 0, at = 0;
    CL_ConfSection *section = nullptr, *same = nullptr;
    while (CL_EnumSection(conf, name, sizeof name, &line, &section) == CL_CONF_OK) {
        require(bounded(name, 1, CL_CONF_NAME_MAX) && last_name < name && line != 0);
        require(CL_GetSectionIndex(conf, name, &same) == CL_CONF_OK && same == section);
        last_name = name;
        std::string last_key;
        uint32_t members = 0;
        CL_ConfMember *member = nullptr;
        while (CL_EnumMember(section, key, sizeof key, value, sizeof value, &line, &member) ==
               CL_CONF_OK) {
            require(bounded(key, 1, CL_CONF_NAME_MAX) && bounded(value, 0, CL_CONF_VALUE_MAX));
            require(last_key < key && line > section->line);
            require(CL_GetMember(conf, name, key, found, sizeof found, &at) == CL_CONF_OK);
            require(strcmp(found, value) == 0 && at == line);
            last_key = key;
            members++;
        }
        require(members == CL_GetMemberNum(section));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const int fd = memfd_create("conf", 0);
    require(fd != -1 && write(fd, data, size) == static_cast<ssize_t>(size));
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    const uint32_t blocks = CL_nmem_M(1);
    const auto lines = static_cast<uint32_t>(std::count(data, data + size, '\n'));
    CL_Queue conf;
    CL_QUE_InitQT(&conf, 0);
    uint32_t line = 0;
    const uint32_t code = CL_ReadConf(&conf, path.c_str(), &line);
    require(line >= 1 && line <= lines + 2);
    if (code == CL_CONF_OK) {
        const bool ended = size == 0 || data[size - 1] == '\n';
        require(line == lines + (ended ? 1 : 2));
        walk(&conf);
    } else {
        require(code >= CL_CONF_LINE_LONG && code <= CL_CONF_KEY_TWICE);
        require(conf.count == 0 && CL_nmem_M(1) == blocks);
    }
    require(CL_FreeConf(&conf) == 1 && CL_nmem_M(1) == blocks);
    close(fd);
    return 0;
}
