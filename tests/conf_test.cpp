/* The configuration reader: its syntax as a table, lines at the limits, files that are none, memory
 * that runs out at every allocation, and random configurations against a model. */
#include <fcntl.h>
#include <qvcl/conf.h>
#include <qvcl/memory.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <map>

#include "tests/wire.h"

using test::Plan;

namespace {

const std::string BOM = "\xef\xbb\xbf";

class Conf : public testing::Test {
  protected:
    void SetUp() override { CL_QUE_InitQT(&conf, 0); }
    void TearDown() override {
        EXPECT_EQ(CL_FreeConf(&conf), 1u);
        EXPECT_EQ(conf.count, 0u);
        EXPECT_EQ(CL_nmem_M(1), blocks);
    }
    void write(std::string_view text) const { std::ofstream(path, std::ios::binary) << text; }
    uint32_t read(std::string_view text) {
        write(text);
        line = 4711;
        return CL_ReadConf(&conf, path.c_str(), &line);
    }
    /* Reads what must fail; nothing may be left of it. */
    void expect_failure(std::string_view text, uint32_t code, uint32_t at) {
        EXPECT_EQ(read(text), code);
        EXPECT_EQ(line, at);
        EXPECT_EQ(conf.count, 0u);
        EXPECT_EQ(CL_nmem_M(1), blocks);
    }
    /* Everything, in the order of the enumeration: "[name@line] key@line=value; ..." */
    std::string contents() {
        std::string all;
        CL_ConfSection *section = nullptr;
        char name[65] = {}, key[65] = {}, value[513] = {};
        uint32_t at = 0;
        while (CL_EnumSection(&conf, name, sizeof name, &at, &section) == 0) {
            all += "[" + std::string(name) + "@" + std::to_string(at) + "]";
            CL_ConfMember *member = nullptr;
            uint32_t members = 0;
            while (CL_EnumMember(section, key, sizeof key, value, sizeof value, &at, &member) ==
                   0) {
                all += std::string(key) + "@" + std::to_string(at) + "=" + value + ";";
                members++;
            }
            EXPECT_EQ(CL_GetMemberNum(section), members);
        }
        return all;
    }

    test::Folder folder;
    std::string path = folder.path("test.conf");
    CL_Queue conf = {};
    uint32_t line = 0;
    const uint32_t blocks = CL_nmem_M(1);
};

TEST_F(Conf, Syntax) {
    const std::string fifty(50, 'n'), longest(500, 'v');
    const struct {
        int row;
        std::string text;
        uint32_t code, line;
        std::string contents;
    } rows[] = {
        /* comments, blank lines, ends of lines */
        {__LINE__, "", 0, 1, ""},
        {__LINE__, "\n", 0, 2, ""},
        {__LINE__, "; one\n\n \t \n;[a]\n  ; five", 0, 6, ""},
        {__LINE__, "[a]", 0, 2, "[a@1]"},
        {__LINE__, "[a]\nk=v", 0, 3, "[a@1]k@2=v;"},
        {__LINE__, "[a]\r\nk=v\r\n\r\n", 0, 4, "[a@1]k@2=v;"},
        {__LINE__, "[a]\rk=v\n", 0, 2, "[a@1]"}, /* a lone CR ends no line */
        {__LINE__, "# no comment\n", 4, 1, ""},
        {__LINE__, "[a]\n#k=v\n", 0, 3, "[a@1]#k@2=v;"},
        /* trimming, and what belongs to a value */
        {__LINE__, "  [ net ]  \nport = 80 ; main\n\tname=a=b\n", 0, 4,
         "[net@1]name@3=a=b;port@2=80 ; main;"},
        {__LINE__, "[\x01 a\x7f]\x1f\n\x02k\x03=\x04v\x05\n", 0, 3, "[a@1]k@2=v;"},
        {__LINE__, "[a b]\nk 1 = v  w\n", 0, 3, "[a b@1]k 1@2=v  w;"},
        {__LINE__, "[a]text [b]\nk=[c]\n", 0, 3, "[a@1]k@2=[c];"},
        {__LINE__, "[a[b]]\n", 0, 2, "[a[b@1]"},
        {__LINE__, "[a]\nk=\nl= \t\n", 0, 4, "[a@1]k@2=;l@3=;"},
        {__LINE__, "[\xe4\xff]\n\xfe=\x80\n", 0, 3, "[\xe4\xff@1]\xfe@2=\x80;"},
        /* the order is that of bytes, not of the file */
        {__LINE__, "[b]\n[a]\n[B]\n[\xe4]\n", 0, 5, "[B@3][a@2][b@1][\xe4@4]"},
        {__LINE__, "[s]\nb=1\na=2\nB=3\na1=4\n", 0, 6, "[s@1]B@4=3;a@3=2;a1@5=4;b@2=1;"},
        {__LINE__, "[s]\nk=1\n[t]\nk=2\n", 0, 5, "[s@1]k@2=1;[t@3]k@4=2;"},
        /* limits */
        {__LINE__, "[" + fifty + "]\n" + fifty + "=" + longest, 0, 3,
         "[" + fifty + "@1]" + fifty + "@2=" + longest + ";"},
        {__LINE__, "[ " + fifty + " ]\n " + fifty + " = " + longest + " ", 0, 3,
         "[" + fifty + "@1]" + fifty + "@2=" + longest + ";"},
        {__LINE__, "[" + fifty + "n]\n", 5, 1, ""},
        {__LINE__, "[a]\n" + fifty + "n=v\n", 8, 2, ""},
        {__LINE__, "[a]\nk=" + longest + "v\n", 8, 2, ""},
        /* text before the first section */
        {__LINE__, "k=v\n[a]\n", 4, 1, ""},
        {__LINE__, "\n;\ntext\n", 4, 3, ""},
        {__LINE__, "]a[\n", 4, 1, ""},
        {__LINE__, BOM + "[a]\n", 4, 1, ""},
        {__LINE__, BOM + "; comment\n", 4, 1, ""},
        /* section headers */
        {__LINE__, "[a]\n[]\n", 5, 2, ""},
        {__LINE__, "[  \t]\n", 5, 1, ""},
        {__LINE__, "[a\n]\n", 5, 1, ""},
        {__LINE__, "[a=b]\n", 5, 1, ""},
        {__LINE__, "[a\tb]\n", 5, 1, ""},
        {__LINE__,
         "[a\x7f"
         "b]\n",
         5, 1, ""},
        /* members */
        {__LINE__, "[a]\n=v\n", 8, 2, ""},
        {__LINE__, "[a]\n \t= v\n", 8, 2, ""},
        {__LINE__, "[a]\n=\n", 8, 2, ""},
        {__LINE__, "[a]\n\nkey\n", 8, 3, ""},
        /* twice */
        {__LINE__, "[b]\n[a]\n[b]\n", 7, 3, ""},
        {__LINE__, "[b]\n[a]\n[ b ] again\n", 7, 3, ""},
        {__LINE__, "[a]\nk=1\nl=2\nk =3\n", 9, 4, ""},
        {__LINE__, "[a]\nk=1\n[b]\nk=2\n[a]\n", 7, 5, ""},
        /* a line ends where its text does, at the first NUL */
        {__LINE__, std::string("[a]\nk=v\0[b]\nl=w\n", 16), 0, 4, "[a@1]k@2=v;l@3=w;"},
        {__LINE__, std::string("\0[a]\n[b]\n", 9), 0, 3, "[b@2]"},
        {__LINE__, std::string("[a]\nk\0=v\n", 9), 8, 2, ""},
        {__LINE__, std::string("[a\0]\n", 5), 5, 1, ""},
        {__LINE__, std::string("\0", 1), 0, 2, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "row of line " << row.row);
        if (row.code != 0) {
            expect_failure(row.text, row.code, row.line);
            continue;
        }
        EXPECT_EQ(read(row.text), 0u);
        EXPECT_EQ(line, row.line);
        EXPECT_EQ(contents(), row.contents);
        EXPECT_EQ(CL_FreeConf(&conf), 1u);
    }
}

/* A line counts with its end, whatever is in it, and is never read as two. */
TEST_F(Conf, LinesHaveALimit) {
    enum Fill { COMMENT, VALUE, BLANK, EVIL, NUL };
    for (const std::size_t length : {999, 1000, 1001, 1002, 1022, 1023, 1024, 1025, 2046, 5000}) {
        for (const bool ended : {false, true}) {
            for (const Fill fill : {COMMENT, VALUE, BLANK, EVIL, NUL}) {
                SCOPED_TRACE(testing::Message() << length << (ended ? " ended " : " ") << fill);
                std::string text(length - (ended ? 1 : 0), fill == BLANK ? ' ' : ';');
                if (fill == VALUE)
                    text.replace(0, 4, "k=v ").replace(4, text.size(), text.size() - 4, ' ');
                if (fill == NUL) text[5] = '\0';
                /* what would be a line of its own if it were read in pieces */
                if (fill == EVIL) {
                    for (const std::size_t at : {990u, 999u, 1000u, 1022u, 1023u, 1024u}) {
                        if (at + 4 < text.size()) text.replace(at, 4, "[x]k");
                    }
                }
                if (ended) text += "\n";
                ASSERT_EQ(text.size(), length);
                const std::string whole = "[a]\n" + text + (ended ? "l=w\n" : "");
                if (length > 1000) {
                    expect_failure(whole, 3, 2);
                    continue;
                }
                EXPECT_EQ(read(whole), 0u);
                EXPECT_EQ(line, ended ? 4u : 3u);
                EXPECT_EQ(contents(), std::string("[a@1]") + (fill == VALUE ? "k@2=v;" : "") +
                                          (ended ? "l@3=w;" : ""));
                EXPECT_EQ(CL_FreeConf(&conf), 1u);
            }
        }
    }
    expect_failure(std::string(5000, 'x') + "\n[a]\n", 3, 1);
}

TEST_F(Conf, FilesThatAreNone) {
    const std::string locked = folder.path("locked");
    std::ofstream(locked) << "[a]\n";
    ASSERT_EQ(chmod(locked.c_str(), 0), 0);
    const std::string missing = folder.path("missing");
    const auto refuse = [&](const char *what) {
        line = 4711;
        EXPECT_EQ(CL_ReadConf(&conf, what, &line), uint32_t{CL_CONF_NO_FILE});
        EXPECT_EQ(line, 0u);
        EXPECT_EQ(conf.count, 0u);
    };
    const auto descriptors = test::descriptors();
    refuse(missing.c_str());
    refuse(folder.root().c_str());
    refuse("");
    refuse(nullptr);
    {
        const test::Unprivileged nobody;
        refuse(locked.c_str());
    }
    EXPECT_EQ(read("[a]\nk=v\n"), 0u);
    line = 4711;
    EXPECT_EQ(CL_ReadConf(&conf, path.c_str(), &line), uint32_t{CL_CONF_NOT_EMPTY});
    EXPECT_EQ(line, 0u);
    EXPECT_EQ(CL_ReadConf(&conf, missing.c_str(), &line), uint32_t{CL_CONF_NOT_EMPTY});
    EXPECT_EQ(contents(), "[a@1]k@2=v;") << "what was there stays";
    EXPECT_EQ(test::descriptors(), descriptors);
}

TEST_F(Conf, LooksUpAndEnumerates) {
    ASSERT_EQ(read("[b]\nkey=value\n[a]\nother=1\n"), 0u);
    CL_ConfSection *a = nullptr, *b = nullptr, *none = nullptr;
    ASSERT_EQ(CL_GetSectionIndex(&conf, "a", &a), 0u);
    ASSERT_EQ(CL_GetSectionIndex(&conf, "b", &b), 0u);
    EXPECT_EQ(a->line, 3u);
    for (const char *name : {"B", "", "bb", "c"})
        EXPECT_EQ(CL_GetSectionIndex(&conf, name, &none), uint32_t{CL_CONF_NOT_FOUND}) << name;
    EXPECT_EQ(none, nullptr);

    const struct {
        const char *section, *key;
        uint32_t code;
    } lookups[] = {{"b", "key", 0},   {"B", "key", 11}, {"b", "Key", 11},
                   {"b", "key ", 11}, {"a", "key", 11}, {"", "", 11}};
    char value[8];
    for (const auto &lookup : lookups) {
        SCOPED_TRACE(testing::Message() << lookup.section << "." << lookup.key);
        memset(value, '#', sizeof value);
        line = 4711;
        EXPECT_EQ(CL_GetMember(&conf, lookup.section, lookup.key, value, sizeof value, &line),
                  lookup.code);
        EXPECT_EQ(line, lookup.code == 0 ? 2u : 4711u);
        EXPECT_EQ(std::string(value, 8),
                  lookup.code == 0 ? std::string("value\0\0\0", 8) : std::string(8, '#'));
    }

    /* Buffers are filled as strncpy does: padded, or full and not terminated. */
    for (const uint64_t length : {0, 1, 4, 5, 6, 7}) {
        SCOPED_TRACE(length);
        const std::string wanted = std::string("value\0\0\0", 8).substr(0, length);
        const std::string rest(8 - length, '#');
        memset(value, '#', sizeof value);
        EXPECT_EQ(CL_GetMember(&conf, "b", "key", value, length, &line), 0u);
        EXPECT_EQ(std::string(value, 8), wanted + rest);
        char key[8];
        memset(key, '#', sizeof key);
        memset(value, '#', sizeof value);
        CL_ConfMember *member = nullptr;
        EXPECT_EQ(CL_EnumMember(b, key, 2, value, length, &line, &member), 0u);
        EXPECT_EQ(std::string(key, 3), "ke#");
        EXPECT_EQ(std::string(value, 8), wanted + rest);
        EXPECT_EQ(CL_EnumMember(b, key, 2, value, length, &line, &member), uint32_t{CL_CONF_END});
    }

    CL_ConfSection foreign = {};
    CL_ConfMember stranger = {};
    CL_ConfSection *cursor = &foreign;
    CL_ConfMember *member = &stranger;
    memset(value, '#', sizeof value);
    line = 4711;
    EXPECT_EQ(CL_EnumSection(&conf, value, 8, &line, &cursor), uint32_t{CL_CONF_BAD_CURSOR});
    EXPECT_EQ(CL_EnumMember(b, value, 8, value, 8, &line, &member), uint32_t{CL_CONF_BAD_CURSOR});
    member = static_cast<CL_ConfMember *>(b->members.head);
    EXPECT_EQ(CL_EnumMember(a, value, 8, value, 8, &line, &member), uint32_t{CL_CONF_BAD_CURSOR});
    EXPECT_EQ(std::string(value, 8), std::string(8, '#'));
    EXPECT_EQ(line, 4711u);
}

TEST_F(Conf, MemoryMayRunOutAnywhere) {
    /* More than 128 members: the sorted insertion needs memory of its own. */
    std::string text = "; comment\n[one]\n";
    for (int i = 0; i < 130; i++)
        text += "k" + std::to_string(i) + "=v\n";
    text += "[two]\nlast=1\n";
    write(text);
    int allocations = 0;
    {
        const Plan plan;
        ASSERT_EQ(CL_ReadConf(&conf, path.c_str(), &line), 0u);
        allocations = plan.count("malloc");
    }
    const std::string all = contents();
    EXPECT_EQ(CL_FreeConf(&conf), 1u);
    EXPECT_EQ(allocations, 2 + 131 + 1) << "elements, and the array for the 130th member";
    for (int nth = 1; nth <= allocations; nth++) {
        SCOPED_TRACE(nth);
        for (const int times : {1, test::FOREVER}) {
            const Plan plan{{.call = "malloc", .error = ENOMEM, .nth = nth, .times = times}};
            const auto element = static_cast<uint32_t>(nth);
            const uint32_t code = CL_ReadConf(&conf, path.c_str(), &line);
            const bool array = nth == 132;
            EXPECT_EQ(code, uint32_t{array ? CL_CONF_INSERT_FAILED : CL_CONF_NO_MEMORY});
            EXPECT_EQ(line, array ? 132u : element < 132 ? element + 1 : element);
            EXPECT_EQ(conf.count, 0u);
            EXPECT_EQ(CL_nmem_M(1), blocks);
        }
    }
    EXPECT_EQ(CL_ReadConf(&conf, path.c_str(), &line), 0u);
    EXPECT_EQ(contents(), all);
}

TEST_F(Conf, FreeStopsAtWhatIsNotItsOwn) {
    ASSERT_EQ(read("[a]\nk=1\nl=2\nm=3\n[b]\n"), 0u);
    auto *section = static_cast<CL_ConfSection *>(conf.head);
    auto *mine = static_cast<CL_ConfMember *>(CL_malloc(sizeof(CL_ConfMember)));
    ASSERT_EQ(CL_QUE_Insert(&section->members, mine, CL_QUE_BEFORE_ELEMENT, section->members.tail,
                            nullptr, nullptr),
              0u);
    EXPECT_EQ(CL_FreeConf(&conf), 0u);
    EXPECT_EQ(mine->link.owner, nullptr) << "what was refused is off its queue";
    EXPECT_EQ(CL_GetMemberNum(section), 1u) << "what follows stays";
    EXPECT_EQ(conf.count, 1u);
    EXPECT_EQ(CL_free(mine), 1u);
    /* The section itself is off the configuration; its last member and it are the caller's. */
    EXPECT_EQ(CL_free_M(CL_QUE_GetTop(&section->members), 1, "t", 1), 1u);
    EXPECT_EQ(CL_free_M(section, 1, "t", 1), 1u);
}

TEST_F(Conf, Steps) {
    const struct {
        std::string text, trimmed;
    } trims[] = {{"", ""},      {" \t\r\n\x7f", ""}, {"a", "a"}, {"\x01 a b \x1f", "a b"},
                 {"a \n", "a"}, {" \xa0 ", "\xa0"}};
    for (const auto &trim : trims) {
        std::string text = trim.text;
        const char *kept = cl_delst(text.data());
        EXPECT_EQ(kept, trim.trimmed);
        EXPECT_GE(kept, text.data());
    }
    EXPECT_EQ(cl_issection("[a"), 1u);
    EXPECT_EQ(cl_issection(" [a"), 0u);
    EXPECT_EQ(cl_issection(""), 0u);
    CL_ConfSection low = {}, high = {};
    strcpy(low.name, "A");
    strcpy(high.name, "a\xff");
    const CL_ConfSection *l = &low, *h = &high;
    for (const auto compare : {sec_compar, mbr_compar}) {
        EXPECT_LT(compare(&l, &h), 0);
        EXPECT_GT(compare(&h, &l), 0);
        EXPECT_EQ(compare(&h, &h), 0);
    }
}

/* Random configurations, written with random decoration and some with one fault. */
TEST_F(Conf, FollowsItsModel) {
    test::Random random;
    const auto word = [&random](std::size_t longest, bool may_be_empty) {
        static constexpr char LETTERS[] = "abcdefABCDEF012 .;[#-_\"'\\\xe4";
        std::string made(random.below(static_cast<uint32_t>(longest) + 1), ' ');
        for (char &c : made)
            c = LETTERS[random.below(sizeof LETTERS - 1)];
        made.erase(0, made.find_first_not_of(' ') == std::string::npos
                          ? made.size()
                          : made.find_first_not_of(' '));
        made.erase(made.find_last_not_of(' ') + 1);
        return made.empty() && !may_be_empty ? std::string("x") : made;
    };
    for (int round = 0; round < 150; round++) {
        struct Member {
            std::string value;
            uint32_t line;
        };
        struct Section {
            uint32_t line;
            std::map<std::string, Member> members;
        };
        std::map<std::string, Section> model;
        std::string text;
        uint32_t lines = 0;
        const char *const end_of_line = random.below(2) == 0 ? "\n" : "\r\n";
        const auto blanks = [&] {
            return std::string(random.below(3), random.below(2) ? ' ' : '\t');
        };
        const auto add = [&](const std::string &content) {
            text += blanks() + content + blanks() + end_of_line;
            return ++lines;
        };
        const auto decorate = [&] {
            while (random.below(4) == 0)
                add(random.below(2) == 0 ? "" : ";" + word(60, true));
        };
        const uint32_t sections = random.below(12);
        for (uint32_t s = 0; s < sections; s++) {
            decorate();
            const std::string name = word(CL_CONF_NAME_MAX, false);
            if (model.contains(name)) continue;
            Section &section = model[name];
            section.line = add("[" + blanks() + name + blanks() + "]" +
                               (random.below(4) == 0 ? word(20, true) : ""));
            const uint32_t members = random.below(random.below(10) == 0 ? 150 : 15);
            for (uint32_t m = 0; m < members; m++) {
                decorate();
                std::string key = word(CL_CONF_NAME_MAX, false);
                if (key[0] == ';' || key[0] == '[') key[0] = 'k';
                if (section.members.contains(key)) continue;
                std::string value = word(random.below(20) == 0 ? 500 : 30, true);
                if (random.below(5) == 0 && value.size() < 490) value += "=" + word(5, false);
                section.members[key] = {value, lines + 1};
                add(key + blanks() + "=" + blanks() + value);
            }
        }
        decorate();
        if (random.below(4) == 0 && !text.empty()) text.erase(text.find_last_not_of("\r\n") + 1);
        if (random.below(3) == 0 && !model.empty()) {
            const std::pair<std::string, uint32_t> faults[] = {
                {std::string(1001, ';'), 3},
                {"[]", 5},
                {"[" + model.begin()->first + "]", 7},
                {"no member", 8},
                {"=", 8},
            };
            const auto &[fault, code] = faults[random.below(5)];
            if (!text.empty() && text.back() != '\n') text += end_of_line;
            const auto at = static_cast<uint32_t>(std::count(text.begin(), text.end(), '\n')) + 1;
            expect_failure(text + fault + "\nmore=1\n", code, at);
        }
        ASSERT_EQ(read(text), 0u) << text;
        const auto ends = static_cast<uint32_t>(std::count(text.begin(), text.end(), '\n'));
        EXPECT_EQ(line, ends + (text.empty() || text.back() == '\n' ? 1 : 2));
        std::string expected;
        for (const auto &[name, section] : model) {
            expected += "[" + name + "@" + std::to_string(section.line) + "]";
            for (const auto &[key, member] : section.members) {
                expected += key + "@" + std::to_string(member.line) + "=" + member.value + ";";
                char value[CL_CONF_VALUE_MAX + 1];
                uint32_t at = 0;
                ASSERT_EQ(CL_GetMember(&conf, name.c_str(), key.c_str(), value, sizeof value, &at),
                          0u);
                ASSERT_EQ(value, member.value);
                ASSERT_EQ(at, member.line);
            }
        }
        ASSERT_EQ(contents(), expected);
        ASSERT_EQ(CL_FreeConf(&conf), 1u);
    }
}

}  // namespace
