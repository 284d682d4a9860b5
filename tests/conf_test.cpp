// The configuration reader: what a line is, which line is to blame, what comes back out.
#include <qvcl/conf.h>
#include <sys/resource.h>

#include <algorithm>
#include <map>

#include "tests/folder.h"
#include "tests/support.h"

namespace {

using namespace std::string_literals;
using test::Plan;

struct Found {
    uint32_t line;
    std::string section, key, value;
};

// Every member is found, whatever was looked up before: in the order of the file, backwards, and
// all over the place.
void look_all_up(CL_Queue *conf, std::vector<Found> members) {
    std::sort(members.begin(), members.end(),
              [](const Found &a, const Found &b) { return a.line < b.line; });
    const size_t count = members.size();
    for (const size_t step : {size_t{1}, count - 1, count / 3 * 2 + 1}) {
        for (size_t i = 0; i < count; ++i) {
            const Found &member = members[i * step % count];
            char value[512];
            uint32_t line = 0;
            EXPECT_EQ(CL_GetMember(conf, member.section.c_str(), member.key.c_str(), value,
                                   sizeof value, &line),
                      0u);
            EXPECT_EQ(member.value, value);
            EXPECT_EQ(member.line, line);
            EXPECT_EQ(CL_GetMember(conf, member.section.c_str(), "\x01", value, 1, &line), 11u);
        }
    }
}

// "a@1{k=v@2 }b@3{}": sections and members with their lines, as the enumerations give them.
std::string walk(CL_Queue *conf) {
    std::string all;
    std::vector<Found> found;
    char name[64], value[512];
    uint32_t line = 0, code;
    CL_ConfSection *section = nullptr;
    while ((code = CL_EnumSection(conf, name, sizeof name, &line, &section)) == CL_CONF_OK) {
        all += name + ("@" + std::to_string(line)) + "{";
        CL_ConfMember *member = nullptr;
        uint32_t members = 0;
        while ((code = CL_EnumMember(section, name, sizeof name, value, sizeof value, &line,
                                     &member)) == CL_CONF_OK) {
            all += name + ("=" + std::string(value)) + "@" + std::to_string(line) + " ";
            found.push_back({line, section->name, name, value});
            members++;
        }
        EXPECT_EQ(code, uint32_t{CL_CONF_END});
        EXPECT_EQ(CL_GetMemberNum(section), members);
        all += "}";
    }
    EXPECT_EQ(code, uint32_t{CL_CONF_END});
    look_all_up(conf, std::move(found));
    return all;
}

struct Outcome {
    uint32_t code;
    uint32_t line;
    std::string content;
    bool operator==(const Outcome &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Outcome &o) {
    return out << "code " << o.code << " line " << o.line << " " << o.content.substr(0, 300);
}

class Conf : public testing::Test {
  protected:
    // Reads, walks and frees; nothing may be left.
    static Outcome read_file(const char *path) {
        const test::Balance before = test::Balance::now();
        CL_Queue conf;
        CL_QUE_InitQT(&conf, 0);
        Outcome outcome{0, 4711, ""};
        outcome.code = CL_ReadConf(&conf, path, &outcome.line);
        outcome.content = walk(&conf);
        if (outcome.code != CL_CONF_OK) {
            EXPECT_EQ(conf.count, 0u) << "after a failure the queue is empty";
        }
        EXPECT_EQ(CL_FreeConf(&conf), 1u);
        EXPECT_EQ(test::Balance::now(), before);
        return outcome;
    }
    Outcome read(std::string_view text) { return read_file(folder.put("conf", text).c_str()); }

    test::Folder folder;
};

TEST_F(Conf, Syntax) {
    const std::string n50(50, 'n'), n51(51, 'n'), v500(500, 'v'), v501(501, 'v');
    const struct {
        std::string text;
        uint32_t line;
        std::string content;
    } good[] = {
        // lines and their ends
        {" \t\r\n; one\n  ;two", 4, ""},
        {"[a]\nk=v\n", 3, "a@1{k=v@2 }"},
        {"[a]\r\nk = v", 3, "a@1{k=v@2 }"},
        {"[a]\rk=v\r", 2, "a@1{}"},
        // a NUL byte ends the text of its line, not the line
        {"[a]\nk=v\0w=x\nl=\0\n\0m=n\n"s, 5, "a@1{k=v@2 l=@3 }"},
        // headers
        {"  [ net ]  \nport = 80 ; main\n\tname=a=b", 4, "net@1{name=a=b@3 port=80 ; main@2 }"},
        {"[a]x=y\n[b] ; c\n[c]]\n[[d]\n", 5, "[d@4{}a@1{}b@2{}c@3{}"},
        {"[a b  c]\n[\xc3\xa4\xff]\n[#;]\n", 4, "#;@3{}a b  c@1{}\xc3\xa4\xff@2{}"},
        {"[" + std::string(200, ' ') + n50 + "\t\t]\n", 2, n50 + "@1{}"},
        // members
        {"[a]\nk=\nl =  \n # = #\n", 5, "a@1{#=#@4 k=@2 l=@3 }"},
        {"[a]\nx y = p  q \nk[=]\nl==;\n", 5, "a@1{k[=]@3 l==;@4 x y=p  q@2 }"},
        {"[a]\n\xef\xbb\xbfk=v", 3, "a@1{\xef\xbb\xbfk=v@2 }"},
        {"[a]\n" + n50 + "= " + v500 + " ", 3, "a@1{" + n50 + "=" + v500 + "@2 }"},
        // order
        {"[b]\n[a]\n[B]\n[ab]\n[\x80]\n", 6, "B@3{}a@2{}ab@4{}b@1{}\x80@5{}"},
    };
    for (const auto &row : good) {
        EXPECT_EQ(read(row.text), (Outcome{0, row.line, row.content})) << row.text;
    }
    const struct {
        uint32_t code, line;
        std::vector<std::string> texts;
    } bad[] = {
        {4, 1, {"k=v", "=", "]a[", "\xef\xbb\xbf[a]", "\xef\xbb\xbf; c", "\xff\xfe[\0a\0]\0"s}},
        {5, 1, {"[]", "[ \t]", "[a=b]", "[=]", "[a", "[", "[a\tb]", "[a\x7f!]", "[a\0]"s}},
        {7, 3, {"[b]\n[a]\n[ b ]\n[", "[b]\nk=v\n[b]x"}},
        {8, 2, {"[a]\nkey", "[a]\n=v", "[a]\n \t = v", "[a]\n#", "[a]\nk\0=v\n"s}},
        {5, 1, {"[" + n51 + "]"}},
        {8, 2, {"[a]\n" + n51 + "=v", "[a]\nk=" + v501}},
        {9, 8, {"[a]\nk=1\n[b]\nk=2\n[c]\nk=3\nK=4\nk =5\n"}},
    };
    for (const auto &row : bad) {
        for (const std::string &text : row.texts) {
            EXPECT_EQ(read(text), (Outcome{row.code, row.line, ""})) << text;
        }
    }
}

// A line's length counts its end and whatever it holds. What follows in the same line never becomes
// one of its own.
TEST_F(Conf, LongLines) {
    const struct {
        std::string start, fill, tail, content;
    } rows[] = {{";", "c", "[x]", "a@1{k=v@2 }"},
                {"", " ", "", "a@1{k=v@2 }"},
                {"l=", " ", "w", "a@1{k=v@2 l=w@3 }"},
                {"[b]", " ", "[x]", "a@1{k=v@2 }b@3{}"},
                {"l=w", "\0"s, "[x]", "a@1{k=v@2 l=w@3 }"}};
    for (const size_t length : {999u, 1000u, 1001u, 1024u, 5000u}) {
        for (const std::string end : {"\n", "\r\n", ""}) {
            for (const auto &row : rows) {
                const std::string tail = row.tail + end;
                std::string line = row.start;
                line.append(length - line.size() - tail.size(), row.fill[0]);
                Outcome outcome{3, 3, ""};
                if (length <= 1000) outcome = {0, 4, row.content};
                EXPECT_EQ(read("[a]\nk=v\n" + line + tail), outcome) << row.start << length;
            }
            const std::string text = std::string(length - end.size(), 'x') + end;
            EXPECT_EQ(read(text), (Outcome{length <= 1000 ? 4u : 3u, 1, ""})) << length;
        }
    }
}

// A line that never ends is too long; who reads on for its end fills hours, or memory.
TEST_F(Conf, EndlessLine) {
    const rlimit two_seconds = {2, 3};
    ASSERT_EQ(setrlimit(RLIMIT_CPU, &two_seconds), 0);
    EXPECT_EQ(read_file("/dev/zero"), (Outcome{3, 1, ""}));
}

TEST_F(Conf, FilesThatCannotBeRead) {
    for (const std::string &path : {folder.path("none"), folder.path(""), "/proc/self/mem"s}) {
        EXPECT_EQ(read_file(path.c_str()), (Outcome{2, 0, ""})) << path;
    }
    EXPECT_EQ(read_file(nullptr), (Outcome{2, 0, ""}));
}

TEST_F(Conf, QueueMustBeEmpty) {
    CL_Queue conf;
    CL_QUE_InitQT(&conf, 0);
    uint32_t line = 0;
    const std::string path = folder.put("conf", "[a]\nk=v\n");
    ASSERT_EQ(CL_ReadConf(&conf, path.c_str(), &line), 0u);
    EXPECT_EQ(CL_ReadConf(&conf, path.c_str(), &line), uint32_t{CL_CONF_NOT_EMPTY});
    EXPECT_EQ(walk(&conf), "a@1{k=v@2 }");
    EXPECT_EQ(CL_FreeConf(&conf), 1u);
}

// Every allocation fails in turn, once and from then on. Beyond 128 elements the sorted insertion
// needs memory of its own.
TEST_F(Conf, OutOfMemory) {
    constexpr uint32_t kMany = 130;
    struct Allocation {
        uint32_t code, line;
    };
    std::string text;
    std::vector<Allocation> allocations;
    for (uint32_t i = 0; i < 2 * kMany; ++i) {
        const bool section = i < kMany;
        text += (section ? "[" : "k") + std::to_string(i) + (section ? "]\n" : "=v\n");
        allocations.push_back({CL_CONF_NO_MEMORY, i + 1});
        if (i % kMany > 128) allocations.push_back({CL_CONF_INSERT_FAILED, i + 1});
    }
    {
        const Plan plan;
        EXPECT_EQ(read(text).code, 0u);
        ASSERT_EQ(plan.count("malloc"), static_cast<int>(allocations.size()));
    }
    for (size_t i = 0; i < allocations.size(); ++i) {
        for (const int times : {1, test::FOREVER}) {
            const Plan plan({.call = "malloc",
                             .error = ENOMEM,
                             .nth = static_cast<int>(i) + 1,
                             .times = times});
            ASSERT_EQ(read(text), (Outcome{allocations[i].code, allocations[i].line, ""})) << i;
        }
    }
}

// Elements that CL_FreeConf could not free everything of: what is left is looked up without what
// is gone.
TEST_F(Conf, LookUpsAfterARefusedRelease) {
    CL_Queue conf;
    CL_QUE_InitQT(&conf, 0);
    uint32_t line = 0;
    const std::string path = folder.put("conf", "[c]\n[a]\n[b]\n");
    ASSERT_EQ(CL_ReadConf(&conf, path.c_str(), &line), 0u);
    CL_ConfSection *section = nullptr;
    ASSERT_EQ(CL_GetSectionIndex(&conf, "b", &section), 0u);
    CL_Queue *&owner = (reinterpret_cast<CL_BlockHeader *>(section) - 1)->link.owner;
    owner = nullptr;
    EXPECT_EQ(CL_FreeConf(&conf), 0u);
    owner = &CL_MainTable->library_blocks;
    EXPECT_EQ(CL_free_M(section, 1, "test", 1), 1u);
    EXPECT_EQ(CL_GetSectionIndex(&conf, "a", &section), 11u);
    EXPECT_EQ(CL_GetSectionIndex(&conf, "c", &section), 0u);
    EXPECT_EQ(CL_FreeConf(&conf), 1u);
}

// Names compare as strncmp compares their fields, whatever stands behind their end.
TEST_F(Conf, NamesCompareAsTheirFields) {
    const auto field = [](std::string_view text) {
        CL_ConfSection section = {};
        memset(section.name, 'x', sizeof section.name);
        section.name[text.copy(section.name, sizeof section.name)] = '\0';
        return section;
    };
    std::vector<CL_ConfSection> sections;
    for (const char *text : {"", "a", "\x01", "\x80", "ab", "abcdefg", "abcdefgh", "abcdefg\xff",
                             "abcdefgha", "abcdefghb", "b", "\x01\x01", "bbcdefgh"}) {
        sections.push_back(field(text));
        sections.push_back(field(text));
        sections.back().name[strlen(text) + 1] = 'y';
    }
    const auto sign = [](int order) { return (order > 0) - (order < 0); };
    for (const CL_ConfSection &a : sections) {
        for (const CL_ConfSection &b : sections) {
            const CL_ConfSection *slots[] = {&a, &b};
            EXPECT_EQ(sign(sec_compar(&slots[0], &slots[1])), sign(strcmp(a.name, b.name)))
                << a.name << " " << b.name;
        }
    }
}

TEST_F(Conf, LookUpsFillNoMoreThanTheirRoom) {
    CL_Queue conf;
    CL_QUE_InitQT(&conf, 0);
    uint32_t line = 0;
    const auto path = folder.put("conf", "[net]\nport=80\nname=\n[Net]\nport=81\n");
    ASSERT_EQ(CL_ReadConf(&conf, path.c_str(), &line), 0u);
    const struct {
        const char *section, *key;
        uint32_t line;  // 0: not found
        const char *value;
    } rows[] = {{"net", "port", 2, "80"}, {"Net", "port", 5, "81"}, {"net", "name", 3, ""},
                {"NET", "port", 0, ""},   {"ne", "port", 0, ""},    {"net ", "port", 0, ""},
                {"", "port", 0, ""},      {"net", "Port", 0, ""},   {"net", "por", 0, ""},
                {"net", "", 0, ""},       {"Net", "name", 0, ""}};
    for (const auto &row : rows) {
        for (const size_t size : {0u, 1u, 2u, 3u, 6u}) {
            char value[7] = "??????", expected[7] = "??????";
            line = 0;
            ASSERT_EQ(CL_GetMember(&conf, row.section, row.key, value, size, &line),
                      row.line == 0 ? 11u : 0u);
            EXPECT_EQ(line, row.line);
            if (row.line != 0) strncpy(expected, row.value, size);
            EXPECT_EQ(std::string(value, 7), std::string(expected, 7)) << row.value << size;
        }
    }
    // A cursor into the other section, or of the section that is walked.
    CL_ConfSection *net = nullptr, *other = nullptr;
    ASSERT_EQ(CL_GetSectionIndex(&conf, "net", &net), 0u);
    ASSERT_EQ(CL_GetSectionIndex(&conf, "Net", &other), 0u);
    char key[7], value[7];
    auto *foreign = static_cast<CL_ConfMember *>(other->members.head);
    EXPECT_EQ(CL_EnumMember(net, key, 7, value, 7, &line, &foreign), 12u);
    auto *member = reinterpret_cast<CL_ConfSection *>(net->members.head);
    EXPECT_EQ(CL_EnumSection(&conf, key, 7, &line, &member), 12u);
    EXPECT_EQ(CL_FreeConf(&conf), 1u);
}

// Random files, right and wrong, against a map.
TEST_F(Conf, FollowsItsModel) {
    test::Random random;
    const auto text = [&](size_t longest, std::string_view never) {
        std::string result;
        const size_t length = 1 + random.below(static_cast<uint32_t>(longest));
        while (result.size() < length) {
            const bool plain = longest < 3 || random.below(3) != 0;
            const auto c =
                static_cast<char>(plain ? 'a' + random.below(6) : 33 + random.below(223));
            if (c != 127 && never.find(c) == std::string_view::npos) result += c;
        }
        return result;
    };
    const auto blanks = [&] {
        const char *const some[] = {"", "", " ", "\t", " \v \x7f"};
        return std::string(some[random.below(5)]);
    };
    int failures = 0;
    for (int round = 0; round < 400; ++round) {
        const uint32_t longest = round % 4 == 0 ? 2 : 50;
        const uint32_t lines = random.below(round % 20 == 0 ? 600 : 40);
        std::map<std::string, std::pair<uint32_t, std::map<std::string, std::string>>> model;
        auto *section = static_cast<decltype(&model.begin()->second)>(nullptr);
        std::string file;
        uint32_t code = 0, bad_line = 0, read_lines = 0;
        for (uint32_t line = 1; line <= lines; ++line) {
            uint32_t found = 0;
            const uint32_t what = random.below(100);
            std::string row;
            if (what < 10) {
                row = what < 5 ? ";" + text(50, "") : "";
            } else if (what < 30 || (section == nullptr && what < 97)) {
                const std::string name = text(longest, "=]");
                row = "[" + blanks() + name + blanks() + "]" + (what < 15 ? text(50, "") : "");
                found = model.contains(name) ? 7 : 0;
                if (code == 0 && found == 0) section = &model[name];
                if (section != nullptr && found == 0) section->first = line;
            } else if (what < 99) {
                const std::string key = text(longest, "=;[");
                const std::string value = what < 50 ? "" : text(what < 95 ? 20 : 500, "");
                row = key + blanks() + "=" + blanks() + value;
                found = section == nullptr ? 4 : section->second.contains(key) ? 9 : 0;
                if (found == 0 && code == 0) {
                    section->second[key] = value + "@" + std::to_string(line);
                }
            } else {
                row = text(20, "=;[");
                found = section == nullptr ? 4 : 8;
            }
            if (found != 0 && code == 0) {
                code = found;
                bad_line = line;
            }
            row = blanks() + row + blanks();
            const bool ends = line < lines || what % 2 == 0;
            read_lines += ends || !row.empty();  // nothing behind the last end is no line
            file += row + (ends ? "\n" : "");
        }
        Outcome expected{code, code != 0 ? bad_line : read_lines + 1, ""};
        if (code == 0) {
            for (const auto &[name, content] : model) {
                expected.content += name + "@" + std::to_string(content.first) + "{";
                for (const auto &[key, value] : content.second) {
                    expected.content += key + "=" + value + " ";
                }
                expected.content += "}";
            }
        }
        failures += code != 0;
        ASSERT_EQ(read(file), expected) << file;
    }
    EXPECT_GT(failures, 40);
    EXPECT_LT(failures, 360);
}

}  // namespace
