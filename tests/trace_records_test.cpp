// The records of every operation, and what qvcl-trace says of them: transcripts of the tool over
// dumps of one story, in tests/data. A record that changes in any field, in its length or in its
// place changes a transcript; what a text cannot show is checked byte for byte.
//
// To write the transcripts anew, after a change that is wanted:
//
//     QVCL_TRANSCRIPTS=write ctest --preset release -R trace_records_test
#include <cstdlib>
#include <fstream>
#include <regex>

#include "tests/folder.h"
#include "tests/trace_story.h"
#include "tools/cli.h"
#include "tools/records.h"
#include "tools/render.h"

namespace {

using test::Record;
using test::Story;
using trace_reader::Bytes;
using trace_reader::number;

class Transcript : public testing::Test {
  protected:
    Transcript() { std::filesystem::current_path(folder_.path("")); }
    // A command and what a user sees of it; words lie between blanks, a "~" is a blank.
    void enter(const std::string &command) {
        said_ += "$ qvcl-trace " + command + "\n";
        if (const int status = run(command); status != 0)
            said_ += "status " + std::to_string(status) + "\n";
        said_ += "\n";
    }
    int run(const std::string &command) {
        std::istringstream stream("qvcl-trace " + command);
        std::vector<std::string> words;
        for (std::string word; stream >> word; words.push_back(word))
            std::ranges::replace(word, '~', ' ');
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        trace_reader::Text out, err;
        const int status = trace_reader::run(static_cast<int>(words.size()), argv.data(), out, err);
        said_ += out.str() + err.str();
        return status;
    }
    // Without what differs from run to run, or with every edit of a source: addresses get names.
    std::string masked() const {
        std::string text;
        const std::regex varying(
            R"((0x[0-9a-f]{9,})|((?:cl_\w+(?:\.cpp)?|open_descriptor|\w+\.h):)\d+|((?:sender=|descriptor(?:_count)? +|sets +read ))\d+)");
        auto rest = said_.cbegin();
        for (std::sregex_iterator at(rest, said_.cend(), varying), end; at != end; ++at) {
            const std::smatch &found = *at;
            text.append(rest, found[0].first);
            rest = found[0].second;
            if (found[1].matched) {
                const auto name = story_.names.find(std::stoull(found[1], nullptr, 16));
                text += name != story_.names.end() ? "&" + name->second : "&?";
            } else {
                text += found[2].str() + found[3].str() + "*";
            }
        }
        return text.append(rest, said_.cend());
    }
    void expect(const std::string &name) {
        const std::string path = QVCL_TEST_DATA "/" + name, text = masked();
        said_.clear();
        const char *wanted = getenv("QVCL_TRANSCRIPTS");
        if (wanted != nullptr && wanted == std::string_view("write")) std::ofstream(path) << text;
        EXPECT_EQ(text, test::bytes_of(path)) << name;
    }

    test::Folder folder_;
    Story story_;
    std::string said_;
};

// Which bytes of a record mean something; the others are zero.
class Meaning {
  public:
    Meaning(const Record &record, const CL_TrcOperation &row)
        : bytes_(record.bytes), known_(record.bytes.size()), row_(row), head_(record.head()) {}
    void check(const Story &story);

  private:
    void mark(size_t offset, size_t size) {
        ASSERT_LE(offset + size, known_.size());
        std::fill_n(known_.begin() + static_cast<ptrdiff_t>(offset), size, true);
    }
    void mark(const CL_TrcField &field, const Story &story);

    Bytes bytes_;
    std::vector<bool> known_;
    const CL_TrcOperation &row_;
    const CL_TrcHead head_;
    size_t length_ = 0;
};

void Meaning::mark(const CL_TrcField &field, const Story &story) {
    if (field.type == CL_TRC_BYTES) return;  // as many as are shown
    const bool callback = row_.api == CL_API_CALLBACK;
    if (field.type == CL_TRC_ERROR && head_.phase == 0 && !callback) return;
    size_t size = field.size;
    if (field.type == CL_TRC_TEXT) {
        const auto *text = reinterpret_cast<const char *>(&bytes_[field.offset]);
        size = strnlen(text, bytes_.size() - field.offset);
        length_ += bytes_.size() == row_.length + 7u ? 7 : size + 8;
    }
    mark(field.offset, size);
    if (field.name == std::string_view("err_address") && head_.caller == 0) {
        EXPECT_EQ(number(bytes_, field), test::address(&story.err));
    }
}

void Meaning::check(const Story &story) {
    length_ = row_.length;
    mark(0, offsetof(CL_TrcHead, reserved));
    mark(offsetof(CL_TrcHead, length),
         offsetof(CL_TrcHead, reserved2) - offsetof(CL_TrcHead, length));
    if (head_.phase != 0) mark(row_.result.offset, row_.result.size);
    for (const CL_TrcField &field : trace_reader::fields(row_))
        mark(field, story);
    const trace_reader::Record record{
        .bytes = bytes_, .length = head_.length, .operation = &row_, .exit = head_.phase != 0};
    const Bytes shown = trace_reader::carried(record).bytes;
    if (!shown.empty()) mark(static_cast<size_t>(shown.data() - bytes_.data()), shown.size());
    if (row_.api == CL_API_SEND_MSGC) {
        const auto send = trace_reader::load<CL_TrcSend>(bytes_, 0);
        mark(offsetof(CL_TrcSend, data), std::min<size_t>(send.data_length, CL_MSG_PREFIX_SIZE));
        if (head_.phase == 0) length_ = offsetof(CL_TrcSend, data) + send.data_length;
        EXPECT_TRUE(send.result != 100 || memcmp(send.data, &story.message, 72) == 0);
    } else if (row_.api == CL_API_CALLBACK) {
        mark(offsetof(CL_TrcCallback, block), sizeof CL_TrcCallback::block);
        const bool made_up = head_.file == std::string_view("event");
        const CL_Queue queue = made_up ? story.pattern : CL_Queue{};
        EXPECT_EQ(memcmp(&bytes_[offsetof(CL_TrcCallback, block)], &queue, sizeof queue), 0);
        if (head_.phase == 0) length_ += shown.size();
    }
    EXPECT_EQ(bytes_.size(), length_);
    for (size_t i = 0; i < bytes_.size(); ++i)
        ASSERT_TRUE(known_[i] || bytes_[i] == 0) << "byte " << i;
}

// An exit record is the entry record again, but for what the call has brought.
void expect_pair(const Record &entry, const Record &exit, const CL_TrcOperation &row) {
    EXPECT_EQ(memcmp(entry.head().file, exit.head().file, 20), 0);
    EXPECT_EQ(entry.head().caller, exit.head().caller);
    for (const CL_TrcField &field : trace_reader::fields(row)) {
        if (field.type == CL_TRC_BYTES || field.name == std::string_view("error")) continue;
        const size_t size = std::min<size_t>(field.size, exit.bytes.size() - field.offset);
        EXPECT_EQ(memcmp(&entry.bytes[field.offset], &exit.bytes[field.offset], size), 0)
            << field.name;
    }
}

void expect_exact(const std::vector<Record> &records, const Story &story) {
    std::set<std::pair<uint8_t, bool>> seen;  // operation, success
    std::vector<const Record *> open;
    for (const Record &record : records) {
        const CL_TrcHead head = record.head();
        const auto row = std::ranges::find(CL_TRC_OPERATIONS, head.api, &CL_TrcOperation::api);
        ASSERT_NE(row, std::end(CL_TRC_OPERATIONS));
        SCOPED_TRACE(testing::Message() << row->name << " phase " << int{head.phase} << " #"
                                        << &record - records.data());
        Meaning(record, *row).check(story);
        if (head.phase == 0 && head.api != CL_API_STATUS) {
            open.push_back(&record);
        } else if (head.phase != 0) {
            ASSERT_FALSE(open.empty());
            expect_pair(*open.back(), record, *row);
            open.pop_back();
            seen.insert({head.api, !failed(trace_reader::Record{
                                       .bytes = record.bytes, .operation = row, .exit = true})});
        }
    }
    EXPECT_TRUE(open.empty());
    for (const CL_TrcOperation &row : CL_TRC_OPERATIONS) {
        if (row.api == CL_API_CALLBACK || row.api == CL_API_STATUS) continue;
        EXPECT_TRUE(seen.contains({row.api, true})) << row.name << " that succeeds";
        EXPECT_TRUE(seen.contains({row.api, false})) << row.name << " that fails";
    }
}

TEST_F(Transcript, OfEveryOperation) {
    Story::rings(900);
    story_.calls();
    auto records = test::records(CL_MainTable->library_ring);
    CL_TRC_Out("calls", nullptr);
    Story::rings(9);
    story_.err = {};
    CL_End_M(&story_.err, POSITION);
    CL_TRC_Out("end", nullptr);
    std::ranges::copy(test::records(CL_MainTable->library_ring), std::back_inserter(records));
    expect_exact(records, story_);
    for (const char *command : {"show calls", "check calls", "show --api=end end"})
        enter(command);
    expect("trace_calls.txt");
}

TEST_F(Transcript, OfEveryCommand) {
    ASSERT_EQ(CL_Init(Story::kObjects, nullptr, &story_.err), 1u);
    story_.live("live");
    // Two runs that differ in what always does, and one that does not do the same.
    const struct {
        const char *dump;
        uint32_t sender;
        uint64_t buffer;
        uint32_t seconds;
    } odd[] = {{"odd", 1, 0x7fff00001000, 5},
               {"same", 2, 0x7fff00002000, 5},
               {"other", 1, 0x7fff00003000, 6}};
    for (const auto &[dump, sender, buffer, seconds] : odd) {
        Story::rings(100);
        story_.odd(sender, buffer, seconds);
        CL_TRC_Out(dump, nullptr);
    }
    std::ofstream("empty");
    for (const char *command : {
             "show live",
             "show --api timer live",
             "show --api=66 --api 0xff live",
             "show --handle #6 live",
             "show --handle=0x1234 live",
             "show --failures live",
             "show --slower=0.02ms live",
             "show --since 14:13:20.00005 live",
             "show --until 2026-09-21~14:13:20.000036 live",
             "show --last 2 --failures live",
             "show --ring=user live",
             "tables --all live",
             "report live",
             "check live",
             "show odd",
             "show --failures odd",
             "report odd",
             "diff odd same",
             "diff odd other",
             "diff live odd",
             "--help",
             "--version",
             "",
             "frobnicate odd",
             "check missing",
             "check empty",
             "check odd same",
             "diff odd",
             "tables --failures odd",
             "show --since later odd",
             "show --slower=3h odd",
             "show --api=none odd",
             "show --ring=none odd",
             "show --last",
             "show --unknown odd",
         })
        enter(command);
    expect("trace_commands.txt");
}

// Read by a strict reader as well (CMakeLists.txt).
TEST_F(Transcript, OfTimelines) {
    ASSERT_EQ(CL_Init(Story::kObjects, nullptr, &story_.err), 1u);
    story_.live("live");
    Story::rings(100);
    story_.odd(1, 0x7fff00001000, 5);
    CL_DeleteFile_M("\x1b[31m\\\"", &story_.err, POSITION);
    CL_TRC_Out("odd", nullptr);
    for (const std::string name : {"live", "odd"}) {
        EXPECT_EQ(run("export --json " + name), 0);
        expect("trace_" + name + ".json");
    }
}

}  // namespace
