// The configuration reader: what a line is, which line is to blame, what comes back out.
#include <sys/resource.h>

#include <array>
#include <thread>

#include "tests/conf_model.h"
#include "tests/folder.h"
#include "tests/support.h"

namespace {

using namespace std::string_literals;
using conf_model::Outcome;
using conf_model::walk;
using test::Plan;

class Conf : public testing::Test {
  protected:
    static Outcome read_file(const char *path) {
        const test::Balance before = test::Balance::now();
        const Outcome outcome = conf_model::read(path);
        EXPECT_EQ(test::Balance::now(), before);
        return outcome;
    }
    Outcome read(std::string_view text) { return read_file(folder.put("conf", text).c_str()); }
    // The library and the model find the same; what it is.
    Outcome agree(const std::string &text) {
        const Outcome outcome = read(text);
        EXPECT_EQ(outcome, conf_model::Model().read(text)) << text;
        return outcome;
    }
    // A configuration in `conf`, until the end.
    void load(std::string_view text) {
        path = folder.put("conf", text);
        ASSERT_EQ(CL_ReadConf(&conf, path.c_str(), &line), 0u);
    }
    void TearDown() override { EXPECT_EQ(CL_FreeConf(&conf), 1u); }

    test::Folder folder;
    std::string path;
    CL_Queue conf{};
    uint32_t line = 0;
};

// The promise in so many words; everything else is compared with the model.
TEST_F(Conf, Syntax) {
    EXPECT_EQ(agree("\r\n [b c] x\r\n; one\nk=\n\t\xc3\xa4 = p  q ;\v\n[#]]\nx\t=x=\0y\n \n[a]"s),
              (Outcome{0, 10, "#@6{x=x=@7 }a@9{}b c@2{k=@4 \xc3\xa4=p  q ;@5 }"}));
    const struct {
        uint32_t code, line;
        std::vector<std::string> texts;
    } bad[] = {
        {4, 1, {"k=v", "=", "]a[", "\xef\xbb\xbf[a]", "\xff\xfe[\0a\0]\0"s}},
        {5, 1, {"[]", "[ \t]", "[a=b]", "[a", "[", "[a\tb]", "[a\x7f!]", "[a\0]"s}},
        {7, 3, {"[b]\n[a]\n[ b ]\n[", "[b]\nk=v\n[b]x"}},
        {8, 2, {"[a]\nkey", "[a]\n=v", "[a]\n \t = v", "[a]\n#", "[a]\nk\0=v\n"s}},
        {9, 8, {"[a]\nk=1\n[b]\nk=2\n[c]\nk=3\nK=4\nk =5\n"}},
    };
    for (const auto &row : bad) {
        for (const std::string &text : row.texts)
            EXPECT_EQ(agree(text), (Outcome{row.code, row.line, ""})) << text;
    }
}

// Each limit, and one beyond it. A line's length counts its end and whatever it holds; what follows
// in the same line never becomes one of its own.
TEST_F(Conf, Limits) {
    const auto code = [this](const std::string &text) { return agree("[a]\nk=v\n" + text).code; };
    for (const uint32_t beyond : {0u, 1u}) {
        EXPECT_EQ(code("[" + std::string(200, ' ') + std::string(50 + beyond, 'n') + "\t]"),
                  beyond * 5);
        EXPECT_EQ(code(std::string(50 + beyond, 'n') + " = v"), beyond * 8);
        EXPECT_EQ(code("l= " + std::string(500 + beyond, 'v') + " "), beyond * 8);
    }
    for (const size_t length : {999u, 1000u, 1001u, 1024u, 5000u}) {
        for (const std::string end : {"\n", "\r\n", ""}) {
            for (const auto &[start, fill, tail] : std::vector<std::array<std::string, 3>>{
                     {";", "c", "[x]"}, {"", " ", ""}, {"l=", " ", "w"}, {"l=w", "\0"s, "[x]"}}) {
                std::string text = start;
                text.append(length - start.size() - tail.size() - end.size(), fill[0]);
                EXPECT_EQ(code(text + tail + end), length <= 1000 ? 0u : 3u) << start << length;
            }
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
    const std::string none = folder.path("none"), itself = folder.path("");
    for (const char *place :
         {none.c_str(), itself.c_str(), "/proc/self/mem", static_cast<const char *>(nullptr)})
        EXPECT_EQ(read_file(place), (Outcome{2, 0, ""}));
}

TEST_F(Conf, QueueMustBeEmpty) {
    load("[a]\nk=v\n");
    EXPECT_EQ(CL_ReadConf(&conf, path.c_str(), &line), uint32_t{CL_CONF_NOT_EMPTY});
    EXPECT_EQ(walk(&conf), "a@1{k=v@2 }");
}

// Elements may be anywhere in memory, and may be taken away or kept by what was written over them.
TEST_F(Conf, ElementsFarApartAndDamaged) {
    CL_ConfSection *section = nullptr;
    char none[] = "", near[] = "[near]", far[] = "[far]", end[] = "[end]";
    EXPECT_EQ(cl_getsection(&conf, none, 1, &section), uint32_t{CL_CONF_BAD_SECTION});
    EXPECT_EQ(cl_getsection(&conf, near, 1, &section), 0u);
    std::thread([&] { EXPECT_EQ(cl_getsection(&conf, far, 2, &section), 0u); }).join();
    EXPECT_EQ(cl_getsection(&conf, end, 3, &section), 0u);
    for (const char *name : {"far", "near", "far", "end", "near"}) {
        ASSERT_EQ(CL_GetSectionIndex(&conf, name, &section), 0u);
        EXPECT_STREQ(section->name, name);
    }
    CL_QUE_GetData(&conf, section);
    EXPECT_EQ(CL_GetSectionIndex(&conf, "near", &section), uint32_t{CL_CONF_NOT_FOUND});
    CL_QUE_PutTail(&conf, section);

    char key[] = "k=v";
    EXPECT_EQ(cl_getmember(section, key, 4), 0u);
    void *const member = section->members.head, *const first = conf.head;
    for (void *block : {first, member}) {
        test::Damage damage;
        damage.lose(static_cast<CL_BlockHeader *>(block)[-1].link);
        EXPECT_EQ(CL_FreeConf(&conf), 0u);
        damage.repair();
        CL_ConfSection *rest;
        EXPECT_EQ(CL_GetSectionIndex(&conf, "far", &rest), block == first ? 0u : 11u);
    }
    for (void *block : {first, member, static_cast<void *>(section)})
        EXPECT_EQ(CL_free_M(block, 1, "test", 1), 1u);
}

// Every allocation fails in turn, once and from then on. Beyond 128 elements the sorted insertion
// needs memory of its own.
TEST_F(Conf, OutOfMemory) {
    constexpr uint32_t kMany = 130;
    std::string text;
    std::vector<Outcome> allocations;
    for (uint32_t i = 0; i < 2 * kMany; ++i) {
        const bool section = i < kMany;
        text += (section ? "[" : "k") + std::to_string(i) + (section ? "]\n" : "=v\n");
        allocations.push_back({CL_CONF_NO_MEMORY, i + 1, ""});
        if (i % kMany > 128) allocations.push_back({CL_CONF_INSERT_FAILED, i + 1, ""});
    }
    {
        const Plan plan;
        EXPECT_EQ(read(text).code, 0u);
        ASSERT_EQ(plan.count("malloc"), static_cast<int>(allocations.size()));
    }
    for (int i = 0; i < std::ssize(allocations); ++i) {
        for (const int times : {1, test::kForever}) {
            const Plan plan({.call = "malloc", .error = ENOMEM, .nth = i + 1, .times = times});
            ASSERT_EQ(read(text), allocations[static_cast<size_t>(i)]) << i;
        }
    }
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
    const auto sign = [](int order) {
        return static_cast<int>(order > 0) - static_cast<int>(order < 0);
    };
    for (const CL_ConfSection &a : sections) {
        for (const CL_ConfSection &b : sections) {
            const CL_ConfSection *slots[] = {&a, &b};
            EXPECT_EQ(sign(sec_compar(&slots[0], &slots[1])), sign(strcmp(a.name, b.name)))
                << a.name << " " << b.name;
        }
    }
}

TEST_F(Conf, LookUpsFillNoMoreThanTheirRoom) {
    load("[net]\nport=80\nname=\n[Net]\nport=81\n");
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
}

// Random files, right and wrong.
TEST_F(Conf, FollowsItsModel) {
    test::Random random;
    const auto text = [&](uint32_t longest) {
        std::string result(1 + random.below(longest), 0);
        for (char &c : result) {
            const bool plain = longest < 3 || random.below(3) != 0;
            c = static_cast<char>(plain ? 'a' + random.below(6) : 62 + random.below(194));
            if (c == '[' || c == ']' || c == 127) c = '#';
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
        std::string file = "[first]\n";
        for (uint32_t lines = random.below(round % 20 == 0 ? 600 : 40); lines > 0; --lines) {
            const uint32_t what = random.below(200);
            std::string row = text(longest) + blanks() + "=" + blanks();
            if (what == 0) row = text(20) + std::string(random.below(3), '[');
            if (what >= 1 && what < 20) row = what < 10 ? ";" + text(50) : "";
            if (what >= 20 && what < 60) row = "[" + blanks() + text(longest) + blanks() + "]";
            if (what % 4 == 0) row += text(what < 190 ? 20 : 500);
            file += blanks() + row + blanks() + (lines > 1 || what % 2 == 0 ? "\n" : "");
        }
        failures += static_cast<int>(agree(file).code != 0);
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(failures, 40);
    EXPECT_LT(failures, 360);
}

}  // namespace
