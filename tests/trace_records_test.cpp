// The records of every operation, and what qvcl-trace says of them: transcripts of the tool over
// dumps of one story, in tests/data. A record that changes in any field, in its length or in its
// place changes a transcript; what a text cannot show is checked byte for byte.
//
// To write the transcripts anew, after a change that is wanted:
//
//     QVCL_TRANSCRIPTS=write ctest --preset release -R trace_records_test
#include <fcntl.h>
#include <sys/stat.h>

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

class Transcript : public testing::Test, protected Story {
  protected:
    Transcript() { std::filesystem::current_path(folder.path("")); }
    // Commands and what a user sees of them; words lie between blanks, a "~" is a blank.
    void enter(const std::string &commands) {
        std::istringstream stream(commands);
        for (std::string command; std::getline(stream, command, ';'); said += "\n") {
            said += "$ qvcl-trace " + command + "\n";
            if (const int status = run(command); status != 0)
                said += "status " + std::to_string(status) + "\n";
        }
    }
    int run(const std::string &command) {
        for (const auto &file : std::filesystem::directory_iterator(".")) {
            const timespec taken[2] = {{Story::kStart + 5, 0}, {Story::kStart + 5, 0}};
            EXPECT_EQ(utimensat(AT_FDCWD, file.path().c_str(), taken, 0), 0);
        }
        std::istringstream stream("qvcl-trace " + command);
        std::vector<std::string> words(std::istream_iterator<std::string>(stream), {});
        std::vector<char *> argv;
        for (std::string &word : words) {
            std::ranges::replace(word, '~', ' ');
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        trace_reader::Text out, complaints;
        const int status =
            trace_reader::run(static_cast<int>(words.size()), argv.data(), out, complaints);
        said += out.str() + complaints.str();
        return status;
    }
    // Without what differs from run to run, or with every edit of a source: addresses get names.
    void expect(const std::string &name) {
        const std::string path = QVCL_TEST_DATA "/" + name;
        const auto mask = [&](const std::string &varying, const std::string &by) {
            said = std::regex_replace(said, std::regex(varying), by);
        };
        for (const auto &[address, word] : names) {
            std::ostringstream digits;
            digits << "0x" << std::hex << address << "\\b";
            mask(digits.str(), "&" + word);
        }
        mask("0x[0-9a-f]{9,}", "&?");
        mask(R"(((?:cl_\w+(?:\.cpp)?|open_descriptor|\w+\.h):)\d+)", "$1*");
        mask(R"((sender=|descriptor(?:_count)? +|sets +read )\d+)", "$1*");
        const char *wanted = getenv("QVCL_TRANSCRIPTS");
        if (wanted != nullptr && wanted == std::string_view("write")) std::ofstream(path) << said;
        EXPECT_EQ(said, test::bytes_of(path)) << name;
        said.clear();
    }
    void expect_exact(const std::vector<Record> &records) const;
    void expect_meaning(const trace_reader::Record &record) const;

    test::Folder folder;
    std::string said;
};

// A record's length, and that whatever means nothing in it is zero.
void Transcript::expect_meaning(const trace_reader::Record &record) const {
    const Bytes bytes = record.bytes;
    const CL_TrcOperation &row = *record.operation;
    const auto head = trace_reader::load<CL_TrcHead>(bytes, 0);
    const bool callback = row.api == CL_API_CALLBACK;
    std::vector<uint8_t> rest(bytes.begin(), bytes.end());
    const auto means = [&](size_t offset, size_t size) {
        ASSERT_LE(offset + size, rest.size());
        std::fill_n(&rest[offset], size, uint8_t{0});
    };
    size_t length = row.length;
    means(0, offsetof(CL_TrcHead, reserved));
    means(offsetof(CL_TrcHead, length),
          offsetof(CL_TrcHead, reserved2) - offsetof(CL_TrcHead, length));
    if (record.exit) means(row.result.offset, row.result.size);
    for (const CL_TrcField &field : trace_reader::fields(row)) {
        if (field.type == CL_TRC_BYTES) continue;  // as many as are shown
        if (field.type == CL_TRC_ERROR && !record.exit && !callback) continue;
        size_t size = field.size;
        if (field.type == CL_TRC_TEXT) {
            size = strnlen(reinterpret_cast<const char *>(&bytes[field.offset]),
                           bytes.size() - field.offset);
            length += bytes.size() == row.length + 7u ? 7 : size + 8;
        }
        means(field.offset, size);
        if (field.name == std::string_view("err_address") && head.caller == 0) {
            EXPECT_EQ(number(bytes, field), test::address(&err));
        }
    }
    const Bytes shown = trace_reader::carried(record).bytes;
    if (!shown.empty()) means(static_cast<size_t>(shown.data() - bytes.data()), shown.size());
    if (row.api == CL_API_SEND_MSGC) {
        const auto send = trace_reader::load<CL_TrcSend>(bytes, 0);
        means(offsetof(CL_TrcSend, data), std::min<size_t>(send.data_length, CL_MSG_PREFIX_SIZE));
        if (!record.exit) length = offsetof(CL_TrcSend, data) + send.data_length;
        EXPECT_TRUE(send.result != 100 || memcmp(send.data, &message, 72) == 0);
    } else if (callback) {
        const CL_Queue queue = head.file == std::string_view("event") ? pattern : CL_Queue{};
        EXPECT_EQ(memcmp(&bytes[offsetof(CL_TrcCallback, block)], &queue, sizeof queue), 0);
        means(offsetof(CL_TrcCallback, block), sizeof queue);
        if (!record.exit) length += shown.size();
    }
    EXPECT_EQ(bytes.size(), length);
    EXPECT_THAT(rest, testing::Each(0));
}

void Transcript::expect_exact(const std::vector<Record> &records) const {
    std::set<std::pair<uint8_t, bool>> seen;  // operation, failure
    std::vector<const Record *> open;
    for (const Record &record : records) {
        const CL_TrcHead head = record.head();
        const auto row = std::ranges::find(CL_TRC_OPERATIONS, head.api, &CL_TrcOperation::api);
        ASSERT_NE(row, std::end(CL_TRC_OPERATIONS));
        SCOPED_TRACE(testing::Message() << row->name << " phase " << int{head.phase} << " #"
                                        << &record - records.data());
        const trace_reader::Record read{.bytes = record.bytes,
                                        .length = head.length,
                                        .operation = row,
                                        .exit = head.phase != 0};
        expect_meaning(read);
        if (!read.exit) {
            if (read.is_call()) open.push_back(&record);
            continue;
        }
        // An exit record is the entry record again, but for what the call has brought.
        ASSERT_FALSE(open.empty());
        const Record &entry = *open.back();
        open.pop_back();
        EXPECT_EQ(memcmp(entry.head().file, head.file, 20), 0);
        EXPECT_EQ(entry.head().caller, head.caller);
        for (const CL_TrcField &field : trace_reader::fields(*row)) {
            if (field.type == CL_TRC_BYTES || field.name == std::string_view("error")) continue;
            const size_t size = std::min<size_t>(field.size, record.bytes.size() - field.offset);
            EXPECT_EQ(memcmp(&entry.bytes[field.offset], &record.bytes[field.offset], size), 0)
                << field.name;
        }
        if (!read.is_callback()) seen.insert({head.api, failed(read)});
    }
    EXPECT_TRUE(open.empty());
    // Each call with success and without.
    EXPECT_EQ(seen.size(), 2 * (std::size(CL_TRC_OPERATIONS) - 2));
}

TEST_F(Transcript, OfEveryOperation) {
    rings(900);
    calls();
    auto records = test::records(CL_MainTable->library_ring);
    CL_TRC_Out("calls", nullptr);
    rings(9);
    err = {};
    CL_End_M(HERE);
    CL_TRC_Out("end", nullptr);
    std::ranges::copy(test::records(CL_MainTable->library_ring), std::back_inserter(records));
    expect_exact(records);
    enter("show calls;check calls;show --api=end end");
    expect("trace_calls.txt");
}

TEST_F(Transcript, OfEveryCommand) {
    live("live");
    // Two runs that differ in what always does, and one that does not do the same.
    odd("odd", 1, 0x7fff00001000, 5);
    odd("same", 2, 0x7fff00002000, 5);
    odd("other", 1, 0x7fff00003000, 6);
    const std::ofstream empty("empty");
    enter(
        "show live;show --api timer live;show --api=66 --api 0xff live;show --handle #6 live;"
        "show --handle=0x1234 live;show --failures live;show --slower=0.02ms live;"
        "show --since 14:13:20.00005 live;show --until 2026-09-21~14:13:20.000036 live;"
        "show --last 2 --failures live;show --ring=user live;tables --all live;report live;"
        "check live;show odd;show --failures odd;report odd;"
        "diff odd same;diff odd other;diff live odd;--help;--version;;frobnicate odd;"
        "check missing;check empty;check odd same;diff odd;tables --failures odd;"
        "show --since later odd;show --slower=3h odd;show --api=none odd;show --ring=none odd;"
        "show --last;show --unknown odd");
    expect("trace_commands.txt");
}

// Read by a strict reader as well (CMakeLists.txt).
TEST_F(Transcript, OfTimelines) {
    live("live");
    odd("odd", 1, 0x7fff00001000, 5);
    CL_DeleteFile_M("\x1b[31m\\\"", HERE);
    CL_TRC_Out("odd", nullptr);
    for (const std::string name : {"live", "odd"}) {
        EXPECT_EQ(run("export --json " + name), 0);
        expect("trace_" + name + ".json");
    }
}

}  // namespace
