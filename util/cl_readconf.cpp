// Reader of sectioned configuration files.
//
// A line is read whole or not at all: its length counts every character, so neither an over-long
// line nor one with a NUL byte can pass for two. The text of a line ends at its first NUL. Whatever
// fails, the caller's queue is empty afterwards.
#include <cstdio>
#include <cstring>

#include <qvcl/conf.h>
#include <qvcl/memory.h>

namespace {

constexpr char kFile[] = "cl_readconf";
constexpr uint64_t kNameOffset = offsetof(CL_ConfSection, name);
static_assert(kNameOffset == offsetof(CL_ConfMember, key), "both are searched at one offset");

constexpr size_t kLineBuffer = 1024;

bool is_blank(char c) {
    const auto code = static_cast<unsigned char>(c);
    return code <= ' ' || code == 127;
}

bool is_control(char c) {
    return is_blank(c) && c != ' ';
}

enum class Line { read, too_long, end, failed };

// Reads one line without its trimming into `text`.
Line read_line(FILE *file, char (&text)[kLineBuffer]) {
    size_t length = 0;
    int c;
    while ((c = getc_unlocked(file)) != EOF) {
        if (length < sizeof text - 1) text[length] = static_cast<char>(c);
        ++length;
        if (c == '\n' || length > CL_CONF_LINE_MAX) break;
    }
    if (length > CL_CONF_LINE_MAX) return Line::too_long;
    text[length] = '\0';
    if (c == EOF && ferror(file) != 0) return Line::failed;
    return length == 0 ? Line::end : Line::read;
}

template <class Element>
Element *make_element() {
    return static_cast<Element *>(CL_malloc_M(sizeof(Element), 1, kFile, __LINE__));
}

void free_element(void *element) {
    CL_free_M(element, 1, kFile, __LINE__);
}

// Inserts a finished element in name order, or frees it.
uint32_t insert(CL_Queue *queue, void *element, CL_Comparator compare, uint32_t twice) {
    const uint32_t result =
        CL_QUE_Insert(queue, element, CL_QUE_SORTED_UNIQUE, nullptr, nullptr, compare);
    if (result == CL_QUE_INSERTED) return CL_CONF_OK;
    free_element(element);
    return result == CL_QUE_DUPLICATE ? twice : uint32_t{CL_CONF_INSERT_FAILED};
}

bool section_name_fine(const char *name) {
    const size_t length = strlen(name);
    if (length == 0 || length > CL_CONF_NAME_MAX) return false;
    for (const char *c = name; *c != '\0'; ++c) {
        if (*c == '=' || is_control(*c)) return false;
    }
    return true;
}

// One line of the file: a section, a member, or nothing.
uint32_t take_line(CL_Queue *conf, char *line, uint32_t number, CL_ConfSection **section) {
    char *text = cl_delst(line);
    if (text[0] == '\0' || text[0] == ';') return CL_CONF_OK;
    if (cl_issection(text) != 0) return cl_getsection(conf, text, number, section);
    if (*section == nullptr) return CL_CONF_NO_SECTION;
    return cl_getmember(*section, text, number);
}

// All lines; *lines is the number of lines before the one that failed.
uint32_t take_lines(CL_Queue *conf, FILE *file, uint32_t *lines) {
    CL_ConfSection *section = nullptr;
    char line[kLineBuffer];
    for (;; ++*lines) {
        switch (read_line(file, line)) {
            case Line::end:
                return CL_CONF_OK;
            case Line::failed:
                return CL_CONF_NO_FILE;
            case Line::too_long:
                return CL_CONF_LINE_LONG;
            case Line::read:
                break;
        }
        if (const uint32_t code = take_line(conf, line, *lines + 1, &section)) return code;
    }
}

int compare_names(const void *a, const void *b) {
    const auto name = [](const void *slot) {
        return *static_cast<const char *const *>(slot) + kNameOffset;
    };
    return strncmp(name(a), name(b), sizeof CL_ConfSection{}.name);
}

// The next element of an enumeration, into the cursor.
template <class Element>
uint32_t next_element(const CL_Queue *queue, Element **cursor) {
    uint32_t status;
    auto *element = static_cast<Element *>(CL_QUE_Enum(queue, *cursor, CL_QUE_FORWARD, &status));
    if (status != CL_QUE_WALKING) return CL_CONF_BAD_CURSOR;
    if (element == nullptr) return CL_CONF_END;
    *cursor = element;
    return CL_CONF_OK;
}

// strncpy's contract: padded with NUL, not terminated when the text fills the buffer.
void copy_out(char *to, uint64_t size, const char *from) {
    const size_t length = strnlen(from, size);
    memcpy(to, from, length);
    memset(to + length, 0, size - length);
}

}  // namespace

uint32_t CL_ReadConf(CL_Queue *conf, const char *path, uint32_t *line) {
    *line = 0;
    if (conf->count != 0) return CL_CONF_NOT_EMPTY;
    FILE *file = path != nullptr ? fopen(path, "r") : nullptr;
    if (file == nullptr) return CL_CONF_NO_FILE;
    uint32_t lines = 0;
    const uint32_t code = take_lines(conf, file, &lines);
    fclose(file);
    // A directory opens but has nothing to read: no line of it failed.
    *line = code == CL_CONF_NO_FILE && lines == 0 ? 0 : lines + 1;
    if (code != CL_CONF_OK) CL_FreeConf(conf);
    return code;
}

uint32_t CL_FreeConf(CL_Queue *conf) {
    while (auto *section = static_cast<CL_ConfSection *>(CL_QUE_GetTop(conf))) {
        while (void *member = CL_QUE_GetTop(&section->members)) {
            if (CL_free_M(member, 1, kFile, __LINE__) == 0) return 0;
        }
        if (CL_free_M(section, 1, kFile, __LINE__) == 0) return 0;
    }
    return 1;
}

uint32_t CL_EnumSection(CL_Queue *conf, char *name, uint64_t length, uint32_t *line,
                        CL_ConfSection **cursor) {
    if (const uint32_t code = next_element(conf, cursor)) return code;
    copy_out(name, length, (*cursor)->name);
    *line = (*cursor)->line;
    return CL_CONF_OK;
}

uint32_t CL_GetSectionIndex(CL_Queue *conf, const char *name, CL_ConfSection **section) {
    void *found = CL_QUE_SearchStr(conf, nullptr, name, kNameOffset);
    if (found == nullptr) return CL_CONF_NOT_FOUND;
    *section = static_cast<CL_ConfSection *>(found);
    return CL_CONF_OK;
}

uint32_t CL_EnumMember(CL_ConfSection *section, char *key, uint64_t keyLength, char *value,
                       uint64_t valueLength, uint32_t *line, CL_ConfMember **cursor) {
    if (const uint32_t code = next_element(&section->members, cursor)) return code;
    copy_out(key, keyLength, (*cursor)->key);
    copy_out(value, valueLength, (*cursor)->value);
    *line = (*cursor)->line;
    return CL_CONF_OK;
}

uint32_t CL_GetMember(CL_Queue *conf, const char *section, const char *key, char *value,
                      uint64_t length, uint32_t *line) {
    CL_ConfSection *found;
    if (const uint32_t code = CL_GetSectionIndex(conf, section, &found)) return code;
    const auto *member = static_cast<const CL_ConfMember *>(
        CL_QUE_SearchStr(&found->members, nullptr, key, kNameOffset));
    if (member == nullptr) return CL_CONF_NOT_FOUND;
    copy_out(value, length, member->value);
    *line = member->line;
    return CL_CONF_OK;
}

uint32_t CL_GetMemberNum(const CL_ConfSection *section) {
    return CL_QUE_GetNum(&section->members);
}

char *cl_delst(char *text) {
    while (*text != '\0' && is_blank(*text))
        ++text;
    size_t length = strlen(text);
    while (length != 0 && is_blank(text[length - 1]))
        --length;
    text[length] = '\0';
    return text;
}

uint32_t cl_issection(const char *text) {
    return text[0] == '[';
}

uint32_t cl_getsection(CL_Queue *conf, char *text, uint32_t line, CL_ConfSection **section) {
    char *close = strchr(text, ']');
    if (close == nullptr) return CL_CONF_BAD_SECTION;
    *close = '\0';
    const char *name = cl_delst(text + 1);
    if (!section_name_fine(name)) return CL_CONF_BAD_SECTION;
    auto *element = make_element<CL_ConfSection>();
    if (element == nullptr) return CL_CONF_NO_MEMORY;
    memcpy(element->name, name, strlen(name));
    element->line = line;
    CL_QUE_InitQT(&element->members, 0);
    const uint32_t code = insert(conf, element, sec_compar, CL_CONF_SECTION_TWICE);
    if (code == CL_CONF_OK) *section = element;
    return code;
}

uint32_t cl_getmember(CL_ConfSection *section, char *text, uint32_t line) {
    char *equals = strchr(text, '=');
    if (equals == nullptr) return CL_CONF_BAD_MEMBER;
    *equals = '\0';
    const char *key = cl_delst(text);
    const char *value = cl_delst(equals + 1);
    const size_t key_length = strlen(key);
    const size_t value_length = strlen(value);
    if (key_length == 0 || key_length > CL_CONF_NAME_MAX || value_length > CL_CONF_VALUE_MAX) {
        return CL_CONF_BAD_MEMBER;
    }
    auto *element = make_element<CL_ConfMember>();
    if (element == nullptr) return CL_CONF_NO_MEMORY;
    memcpy(element->key, key, key_length);
    memcpy(element->value, value, value_length);
    element->line = line;
    return insert(&section->members, element, mbr_compar, CL_CONF_KEY_TWICE);
}

int sec_compar(const void *a, const void *b) {
    return compare_names(a, b);
}

int mbr_compar(const void *a, const void *b) {
    return compare_names(a, b);
}
