// Reader of sectioned configuration files.
//
// A line is read whole or not at all: its length counts every character, so neither an over-long
// line nor one with a NUL byte can pass for two. The text of a line ends at its first NUL. Whatever
// fails, the caller's queue is empty afterwards.
#include <cstdio>
#include <cstring>

#include <qvcl/conf.h>
#include <qvcl/memory.h>
#include <qvcl/steps.h>
#include <qvcl/system.h>

#include "core/text.h"
#include "util/sorted_run.h"

using qvcl::address_of;
using qvcl::SortedRun;

namespace {

constexpr qvcl::SourceName kFile = qvcl::source_name(__FILE__);
constexpr uint64_t kNameOffset = offsetof(CL_ConfSection, name);
static_assert(kNameOffset == offsetof(CL_ConfMember, key), "both are searched at one offset");
constexpr int64_t kGuessUnit = alignof(CL_QueueLink);

bool is_blank(char c) {
    const auto code = static_cast<unsigned char>(c);
    return code <= ' ' || code == 127;
}

bool is_control(char c) {
    return is_blank(c) && c != ' ';
}

// Text in a line, followed by a NUL.
struct Text {
    char *at;
    size_t length;
};

Text trim(char *text, size_t length) {
    for (; length != 0 && is_blank(*text); --length)
        ++text;
    while (length != 0 && is_blank(text[length - 1]))
        --length;
    text[length] = '\0';
    return {text, length};
}

enum class Line { read, too_long, end, failed };

// The lines of an open file.
class Lines {
  public:
    explicit Lines(int file) : file_(file) {}

    // The next line, trimmed; it may be changed until the next call.
    Line next(Text *line) {
        for (;;) {
            char *start = buffer_ + at_;
            const size_t left = end_ - at_;
            const auto *end = static_cast<const char *>(memchr(start, '\n', left));
            const size_t text = end != nullptr ? static_cast<size_t>(end - start) : left;
            const size_t length = text + (end != nullptr ? 1 : 0);
            if (length > CL_CONF_LINE_MAX) return Line::too_long;
            if (end != nullptr || ended_) {
                at_ += length;
                *line = trim(start, strnlen(start, text));
                return length != 0 ? Line::read : Line::end;
            }
            if (!read_on(start, left)) return Line::failed;
        }
    }

  private:
    // Brings the line that is not whole yet to the front, and what follows it behind.
    bool read_on(const char *start, size_t left) {
        memmove(buffer_, start, left);
        const int64_t count = cl_u_read(file_, buffer_ + left, sizeof buffer_ - 1 - left);
        if (count < 0) return false;
        at_ = 0;
        end_ = left + static_cast<size_t>(count);
        ended_ = count == 0;
        return true;
    }

    int file_;
    bool ended_ = false;
    size_t at_ = 0;          // where the next line begins
    size_t end_ = 0;         // of what has been read
    char buffer_[4096 + 1];  // the last line may need room for its NUL
};

template <class Element>
Element *make_element() {
    return static_cast<Element *>(CL_malloc_M(sizeof(Element), 1, kFile, __LINE__));
}

void free_element(void *element) {
    CL_free_M(element, 1, kFile, __LINE__);
}

// Where a look-up is likely to end stands in the elements: the first of a queue knows where the
// last look-up ended, every other one which element comes next in the file. It is kept as a
// distance, for which there is room, and believed when the element there says that it is in the
// queue.
template <class Element>
Element *guess(const CL_Queue *queue, Element *element) {
    char *at = reinterpret_cast<char *>(element) + int64_t{element->guess} * kGuessUnit;
    auto *other = reinterpret_cast<Element *>(at);
    return other->link.owner == queue ? other : element;
}

template <class Element>
void set_guess(Element *element, const Element *other) {
    const auto bytes = static_cast<int64_t>(address_of(other) - address_of(element));
    const int64_t units = bytes / kGuessUnit;
    const bool fits = units == static_cast<int32_t>(units);
    element->guess = fits ? static_cast<int32_t>(units) : 0;
}

// The element with this name: the guesses, then the rest of the queue, onwards from the last one
// that was looked up.
template <class Element>
Element *find(const CL_Queue *queue, const char *name) {
    const auto is_it = [name](const Element *element) {
        return strcmp(name, reinterpret_cast<const char *>(element) + kNameOffset) == 0;
    };
    auto *head = static_cast<Element *>(queue->head);
    if (head == nullptr) return nullptr;
    Element *const last = guess(queue, head);
    if (is_it(last)) return last;
    Element *found = guess(queue, last);
    if (!is_it(found)) {
        found = last;
        do {
            auto *next = static_cast<Element *>(found->link.next);
            found = next != nullptr ? next : head;
            if (found == last) return nullptr;
        } while (!is_it(found));
    }
    set_guess(head, found);
    return found;
}

// What was freed may be guessed by what is left. The members of a section go with it.
uint32_t forget_guesses(const CL_Queue *conf) {
    for (void *e = conf->head; e != nullptr; e = static_cast<CL_ConfSection *>(e)->link.next)
        static_cast<CL_ConfSection *>(e)->guess = 0;
    return 0;
}

// Inserts a finished element in name order, or frees it.
uint32_t insert(SortedRun &run, void *element, CL_Comparator compare, uint32_t twice) {
    const uint32_t result = run.insert(element, CL_QUE_SORTED_UNIQUE, compare);
    if (result == CL_QUE_INSERTED) return CL_CONF_OK;
    free_element(element);
    return result == CL_QUE_DUPLICATE ? twice : uint32_t{CL_CONF_INSERT_FAILED};
}

bool section_name_fine(const Text &name) {
    if (name.length == 0 || name.length > CL_CONF_NAME_MAX) return false;
    for (const char *c = name.at; *c != '\0'; ++c) {
        if (*c == '=' || is_control(*c)) return false;
    }
    return true;
}

uint32_t take_section(SortedRun &sections, const Text &line, uint32_t number,
                      CL_ConfSection **section) {
    if (line.length == 0) return CL_CONF_BAD_SECTION;
    char *start = line.at + 1;
    const auto *close = static_cast<const char *>(memchr(start, ']', line.length - 1));
    if (close == nullptr) return CL_CONF_BAD_SECTION;
    const Text name = trim(start, static_cast<size_t>(close - start));
    if (!section_name_fine(name)) return CL_CONF_BAD_SECTION;
    auto *element = make_element<CL_ConfSection>();
    if (element == nullptr) return CL_CONF_NO_MEMORY;
    memcpy(element->name, name.at, name.length);
    element->line = number;
    CL_QUE_InitQT(&element->members, 0);
    const uint32_t code = insert(sections, element, sec_compar, CL_CONF_SECTION_TWICE);
    if (code == CL_CONF_OK) *section = element;
    return code;
}

uint32_t take_member(SortedRun &members, const Text &line, uint32_t number,
                     CL_ConfMember **member) {
    auto *equals = static_cast<char *>(memchr(line.at, '=', line.length));
    if (equals == nullptr) return CL_CONF_BAD_MEMBER;
    const auto before = static_cast<size_t>(equals - line.at);
    const Text key = trim(line.at, before);
    const Text value = trim(equals + 1, line.length - before - 1);
    if (key.length == 0 || key.length > CL_CONF_NAME_MAX || value.length > CL_CONF_VALUE_MAX) {
        return CL_CONF_BAD_MEMBER;
    }
    auto *element = make_element<CL_ConfMember>();
    if (element == nullptr) return CL_CONF_NO_MEMORY;
    memcpy(element->key, key.at, key.length);
    memcpy(element->value, value.at, value.length);
    element->line = number;
    const uint32_t code = insert(members, element, mbr_compar, CL_CONF_KEY_TWICE);
    if (code == CL_CONF_OK) *member = element;
    return code;
}

// A configuration being read. No section is read twice, so the members of the current one come in
// one run.
class Reading {
  public:
    explicit Reading(CL_Queue *conf) : sections_(conf, places_[0], qvcl::kStackElements) {}

    // One line of the file: a section, a member, or nothing.
    uint32_t take(const Text &line, uint32_t number) {
        if (line.length == 0 || line.at[0] == ';') return CL_CONF_OK;
        if (cl_issection(line.at) != 0) return section(line, number);
        return section_ != nullptr ? member(line, number) : uint32_t{CL_CONF_NO_SECTION};
    }

  private:
    uint32_t section(const Text &line, uint32_t number) {
        CL_ConfSection *previous = section_;
        if (const uint32_t code = take_section(sections_, line, number, &section_)) return code;
        if (previous != nullptr) set_guess(previous, section_);
        members_ = SortedRun(&section_->members, places_[1], qvcl::kStackElements);
        member_ = nullptr;
        return CL_CONF_OK;
    }

    uint32_t member(const Text &line, uint32_t number) {
        CL_ConfMember *previous = member_;
        if (const uint32_t code = take_member(members_, line, number, &member_)) return code;
        if (previous != nullptr) set_guess(previous, member_);
        return CL_CONF_OK;
    }

    void *places_[2][qvcl::kStackElements];
    SortedRun sections_;
    SortedRun members_;
    CL_ConfSection *section_ = nullptr;
    CL_ConfMember *member_ = nullptr;
};

// All lines; *lines is the number of lines before the one that failed.
uint32_t take_lines(CL_Queue *conf, FILE *file, uint32_t *lines) {
    Reading reading(conf);
    Lines text(fileno(file));
    Text line;
    for (;; ++*lines) {
        switch (text.next(&line)) {
            case Line::end:
                return CL_CONF_OK;
            case Line::failed:
                return CL_CONF_NO_FILE;
            case Line::too_long:
                return CL_CONF_LINE_LONG;
            case Line::read:
                break;
        }
        if (const uint32_t code = reading.take(line, *lines + 1)) return code;
    }
}

// strncmp over the whole field. Most names differ in their first eight bytes, and the first byte
// that differs decides there as long as not both names have ended before it.
int compare_names(const void *a, const void *b) {
    const auto name = [](const void *slot) {
        return *static_cast<const char *const *>(slot) + kNameOffset;
    };
    const auto start = [](const char *text) {
        uint64_t bytes;
        memcpy(&bytes, text, sizeof bytes);
        return bytes;
    };
    const uint64_t first = start(name(a));
    const uint64_t second = start(name(b));
    const uint64_t either = first | second;
    // Bit 7 of every byte that is NUL in both; only the first of them is exact.
    const uint64_t ends = (either - 0x0101010101010101) & ~either & 0x8080808080808080;
    const uint64_t before_end = (ends & -ends) - 1;
    if (((first ^ second) & before_end) != 0) {
        return __builtin_bswap64(first) < __builtin_bswap64(second) ? -1 : 1;
    }
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
            if (CL_free_M(member, 1, kFile, __LINE__) == 0) return forget_guesses(conf);
        }
        if (CL_free_M(section, 1, kFile, __LINE__) == 0) return forget_guesses(conf);
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
    auto *found = find<CL_ConfSection>(conf, name);
    if (found == nullptr) return CL_CONF_NOT_FOUND;
    *section = found;
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
    const auto *member = find<CL_ConfMember>(&found->members, key);
    if (member == nullptr) return CL_CONF_NOT_FOUND;
    copy_out(value, length, member->value);
    *line = member->line;
    return CL_CONF_OK;
}

uint32_t CL_GetMemberNum(const CL_ConfSection *section) {
    return CL_QUE_GetNum(&section->members);
}

char *cl_delst(char *text) {
    return trim(text, strlen(text)).at;
}

uint32_t cl_issection(const char *text) {
    return text[0] == '[' ? 1 : 0;
}

uint32_t cl_getsection(CL_Queue *conf, char *text, uint32_t line, CL_ConfSection **section) {
    SortedRun sections(conf, nullptr, 0);
    return take_section(sections, {text, strlen(text)}, line, section);
}

uint32_t cl_getmember(CL_ConfSection *section, char *text, uint32_t line) {
    SortedRun members(&section->members, nullptr, 0);
    CL_ConfMember *member;
    return take_member(members, {text, strlen(text)}, line, &member);
}

int sec_compar(const void *a, const void *b) {
    return compare_names(a, b);
}

int mbr_compar(const void *a, const void *b) {
    return compare_names(a, b);
}
