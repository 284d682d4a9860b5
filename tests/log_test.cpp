// The log: forms of lines, destinations, and catalogue texts that nobody should write.
#include <qvcl/log.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <syslog.h>

#include "tests/folder.h"
#include "tests/support.h"

namespace {

using test::FailsWith;
using test::log_lines;
using test::Plan;
using testing::ElementsAre;

class Log : public testing::Test {
  protected:
    void SetUp() override {
        test::set_env("TZ", "UTC");
        ASSERT_EQ(CL_LOG_Init_M("tester", "primary", "secondary", "/nowhere/log", &err), 1u);
        CL_KitKeepLog();
        text_is(nullptr);
    }
    // Every message of the catalogue has this text.
    void text_is(const char *text) {
        test::set_catalogue([text](int) { return text; });
    }
    // The one line that came since the last look.
    std::string line() {
        const auto lines = log_lines();
        CL_KitForgetLog();
        EXPECT_EQ(lines.size(), 1u);
        return lines.empty() ? "" : lines[0];
    }
    // What the internal log says of a message.
    template <class... T>
    std::string said(uint32_t id, const char *types, T... arguments) {
        EXPECT_EQ(CL_LOG_Out(CL_LOG_INTERNAL, CL_LOG_INFO, 0, id, types, arguments...), 1u);
        return line();
    }
    CL_ErrInfo err = test::kUntouched;
    const test::Folder folder;
    const std::string plain = " catalog(id) not found:";  // stands for the text that is missing
};

TEST(LogSetup, ChecksItsArgumentsInOrder) {
    const std::string s31(31, 'n'), s32(32, 'n'), s252(252, 'p'), s253(253, 'p'), s255(255, 'c'),
        s256(256, 'c');
    const char *none = nullptr;
    const struct {
        const char *name, *catalogue, *alternative, *path;
        uint32_t code;
    } rows[] = {{none, none, none, none, 22},
                {s32.c_str(), none, none, none, 36},
                {"n", none, none, none, 22},
                {"n", none, "a", none, 22},
                {"n", s256.c_str(), s256.c_str(), none, 36},
                {"n", "c", s256.c_str(), none, 36},
                {"n", "c", "a", none, 22},
                {"n", "c", "a", s253.c_str(), 36},
                {s31.c_str(), s255.c_str(), s255.c_str(), s252.c_str(), 0},
                {"", "c", none, "", 0}};
    for (const auto &[name, catalogue, alternative, path, code] : rows) {
        CL_ErrInfo err = test::kUntouched;
        const CL_MainBlock before = test::table();
        if (code != 0) {
            EXPECT_EQ(CL_LOG_Init_M(name, catalogue, alternative, path, nullptr), 0u);
        }
        EXPECT_EQ(CL_LOG_Init_M(name, catalogue, alternative, path, &err), code == 0 ? 1u : 0u);
        if (code != 0) {
            EXPECT_THAT(err, FailsWith(code, CL_MODULE_LOG));
            EXPECT_EQ(memcmp(&before, &test::table(), sizeof before), 0);
        } else {
            EXPECT_EQ(err, test::kUntouched);
            EXPECT_STREQ(CL_MainTable->log_name, name);
            EXPECT_STREQ(CL_MainTable->log_path, path);
        }
    }
}

TEST(LogSetup, NothingIsSentBefore) {
    CL_KitKeepLog();
    EXPECT_EQ(CL_LOG_Out(7, CL_LOG_ERROR, 0, 1, ""), 0u);
    Plan plan;
    EXPECT_EQ(cl_log_lotate(), 0);
    EXPECT_TRUE(plan.calls().empty());
    EXPECT_TRUE(test::system_log().empty());
    cl_inlog_write("but the library's own lines");
    cl_inlog_write(nullptr);
    EXPECT_THAT(log_lines(), ElementsAre("but the library's own lines", "(null)"));
    CL_SetLogCallbackFunction(nullptr);
    cl_inlog_write("go nowhere now");
    EXPECT_EQ(test::raw_log().size(), 2u);
}

TEST_F(Log, MakesTextOfEveryArgumentType) {
    const void *pointer = reinterpret_cast<void *>(0x1234abcd);
    const char *const missing_text = nullptr;
    EXPECT_EQ(said(42, "ds", 7, "abc"), "I 00042" + plain + "7,abc");
    EXPECT_EQ(said(70000, "dDxXps", INT32_MIN, INT64_MIN, 255u, uint64_t{255}, pointer, ""),
              "I 04464" + plain +
                  "-2147483648,-9223372036854775808,0x000000ff,0x00000000000000ff,0x1234abcd,");
    EXPECT_EQ(said(5, "xXpsds", UINT32_MAX, UINT64_MAX, nullptr, missing_text, 1, "x"),
              "I 00005" + plain + "0xffffffff,0xffffffffffffffff,(nil),(null),1,x");
    EXPECT_EQ(said(99999, "d?d", 1, 2), "I 34463" + plain + "1") << "an unknown type ends the list";
    EXPECT_EQ(said(0, ""), "I 00000" + plain);
    EXPECT_EQ(said(0, nullptr), "I 00000" + plain);
}

// Nothing in a catalogue can do more than choose arguments and text.
TEST_F(Log, PrintsHostileCatalogueTexts) {
    const std::string x997(997, 'x');
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"%s %s %s %s", "one two (null) (null)"},
        {"%2$s %1$s 50%% %99999999999999999999$s", "two one 50% (null)"},
        {"%n %*s %1$*2$s %S %c %f %p %0$s %1$", "%n %*s %1$*2$s %S %c %f %p %0$s %1$"},
        {"%.2s|%5s|%-5.1s|%", "on|  two|(    |%"},
        {"%+0 #5s|%-0 #+5s|%# 05s|", "  one|two  |(null)|"},
        {"%999999s", std::string(998, ' ')},
        {std::string(5000, 'x'), x997 + "x"},
        {x997 + "%s", x997 + "o"},
        {"\xff\x80\n\t%s", "\xff\x80\n\tone"}};
    for (const auto &[text, message] : rows) {
        text_is(text.c_str());
        CL_KitForgetLog();
        EXPECT_EQ(CL_LOG_Out(CL_LOG_INTERNAL, CL_LOG_INFO, 0, 1, "ss", "one", "two"), 1u);
        ASSERT_EQ(test::raw_log().size(), 1u);
        // A line ends at 1023 characters, the stamp's 28 included.
        EXPECT_EQ(test::raw_log()[0].substr(28), ("I 00001 " + message + "\n").substr(0, 995))
            << text.substr(0, 60);
    }
}

TEST_F(Log, CutsWhatIsTooLong) {
    const std::string s400(400, 'a'), s979(979, 'b'), s976(976, 'c');
    // One text stays within 999 characters, separators not counted; what does not fit is skipped,
    // what follows it is still tried.
    EXPECT_EQ(said(1, "sssds", s400.c_str(), s400.c_str(), s400.c_str(), 7, "end"),
              "I 00001" + plain + s400 + "," + s400 + ",7,end");
    EXPECT_EQ(said(1, "ss", s979.c_str(), "x"), "I 00001" + plain + "x");
    CL_LOG_Out(CL_LOG_SYSLOG, 1, 0, 1, "ss", s976.c_str(), "x");
    EXPECT_EQ(test::system_log().back(), "tester/0/24/3/E 00001 catalog(id) not found:" + s976);

    // The system log gets up to 1022 characters; the internal log's line ends at 1023 with its
    // stamp.
    text_is("%s%s%s");
    CL_LOG_Out(3, 1, 0, 1, "sss", s400.c_str(), s400.c_str(), s400.c_str());
    const std::string message = "E 00001 " + s400 + s400 + s400.substr(0, 198);
    EXPECT_EQ(test::system_log().back(), "tester/0/24/3/" + message);
    EXPECT_EQ(test::raw_log().back().size(), 1023u);
    EXPECT_EQ(test::raw_log().back().substr(28, 900), message.substr(0, 900));

    text_is("%1067s");
    CL_LOG_Out(CL_LOG_SYSLOG, 1, 0, 1, "s", "one");
    EXPECT_EQ(test::system_log().back(), "tester/0/24/3/E 00001 " + std::string(998, ' '));

    const std::string endless(100000, 'z');
    cl_inlog_write(endless.c_str());
    EXPECT_EQ(test::raw_log().back().size(), 1023u);
}

#define TEN(x) x, x, x, x, x, x, x, x, x, x
TEST_F(Log, TakesNinetyNineArguments) {
    const std::string types(110, 'd');
    const auto all = [&] {
        return said(1, types.c_str(), TEN(1), TEN(2), TEN(3), TEN(4), TEN(5), TEN(6), TEN(7),
                    TEN(8), TEN(9), TEN(10), TEN(11));
    };
    std::string numbers;
    for (int i = 0; i < 99; ++i)
        numbers += (i == 0 ? "" : ",") + std::to_string(i / 10 + 1);
    EXPECT_EQ(all(), "I 00001" + plain + numbers);
    text_is("%99$s %98$s %1$s %100$s");
    EXPECT_EQ(all(), "I 00001 10 10 1 (null)");
}

TEST_F(Log, SendsToWhatIsAskedFor) {
    const struct {
        uint32_t destinations;
        uint16_t severity;
        const char *priority;  // empty: refused
    } rows[] = {{1, 1, "3"}, {2, 2, "4"}, {4, 3, "6"}, {7, 3, "6"},
                {9, 1, "3"}, {8, 1, ""},  {7, 0, ""},  {7, 4, ""}};
    text_is("text");
    for (const auto &[destinations, severity, priority] : rows) {
        CL_KitForgetLog();
        test::system_log().clear();
        testing::internal::CaptureStderr();
        const uint32_t sent = *priority != '\0' ? destinations : 0;
        EXPECT_EQ(CL_LOG_Out(destinations, severity, 99, 3, ""), sent != 0 ? 1u : 0u);
        const std::string text = std::string(1, " EWI"[severity & 3]) + " 00003 text";
        const std::string system = std::string("tester/0/24/") + priority + "/" + text;
        using Lines = std::vector<std::string>;
        EXPECT_EQ(test::system_log(), Lines(sent & 1, system));
        EXPECT_EQ(log_lines(), Lines(sent >> 1 & 1, text));
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  (sent & 4) != 0 ? "tester : " + text + "\n" : "");
    }
}

TEST_F(Log, StampsEveryLine) {
    CL_KitSetTime(1794852345, 123456);  // 2026-11-16 18:05:45 UTC
    cl_inlog_write("text");
    CL_KitSetTime(0, 7008);
    cl_inlog_write("");
    EXPECT_THAT(test::raw_log(), ElementsAre("2026/11/16 18:05:45:123.456 text\n",
                                             "1970/01/01 00:00:00:007.008 \n"));
}

TEST_F(Log, LooksIntoBothCatalogues) {
    const auto source = folder.put("text", "$set 1\n42 value %s name %s\n$set 2\n43 wrong set\n");
    const std::string real = folder.path("real.cat"), missing = folder.path("missing.cat");
    ASSERT_EQ(system(("gencat " + real + " " + source).c_str()), 0);
    test::set_env("LANG", "C");

    const struct {
        const char *primary, *secondary, *text;
    } rows[] = {{real.c_str(), nullptr, "E 00042 value 7 name abc"},
                {missing.c_str(), real.c_str(), "E 00042 value 7 name abc"},
                {missing.c_str(), missing.c_str(), "E 00042 catalog(id) not found:7,abc"}};
    CL_KitRealCatalogue();
    for (const auto &[primary, secondary, text] : rows) {
        ASSERT_EQ(CL_LOG_Init_M("n", primary, secondary, "p", &err), 1u);
        const test::Balance before = test::Balance::now();
        CL_LOG_Out(2, 1, 0, 42, "ds", 7, "abc");
        EXPECT_EQ(line(), text);
        EXPECT_EQ(test::Balance::now(), before);
    }
    // Another set's message is none.
    ASSERT_EQ(CL_LOG_Init_M("n", real.c_str(), missing.c_str(), "p", &err), 1u);
    EXPECT_EQ(said(43, "d", 7), "I 00043 catalog(id) not found:7");
}

TEST_F(Log, RotatesGenerations) {
    ASSERT_EQ(CL_LOG_Init_M("n", "c", nullptr, folder.path("log").c_str(), &err), 1u);
    EXPECT_EQ(cl_log_lotate(), -1) << "there is no log yet";
    const auto rotate = [&](const std::string &text) {
        folder.put("log", text);
        EXPECT_EQ(cl_log_lotate(), 0);
        std::string all;
        for (const char *name : {"log", "log.1", "log.2", "log.3", "log.4", "log.5"}) {
            const std::string at = folder.path(name);
            all += std::filesystem::exists(at) ? test::bytes_of(at) : "-";
        }
        return all;
    };
    for (const char *files : {"-a----", "-ba---", "-cba--", "-dcba-", "-edcb-"})
        EXPECT_EQ(rotate({files[1]}), files);
    std::filesystem::remove(folder.path("log.2"));
    EXPECT_EQ(rotate("f"), "-fe-c-") << "a gap stays a gap";
}

}  // namespace
