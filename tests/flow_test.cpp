// Joining the traces of two processes: what they exchanged is known, so every message has to be
// joined with itself, or called ambiguous, or said to be outside; however little the traces hold.
#include <poll.h>
#include <sys/wait.h>

#include "tests/folder.h"
#include "tests/support.h"
#include "tools/commands.h"
#include "tools/join.h"

namespace {

using test::Pipe;
using trace_reader::Dump;
using trace_reader::Fate;
using trace_reader::Flow;
using trace_reader::Trace;

constexpr uint32_t kRequest = 1, kReply = 2, kUnread = 9;

struct Round {
    uint32_t requests, replies;
};

// One of the two processes. The payloads are numbers, of which there are `numbers`.
class Talker {
  public:
    explicit Talker(uint32_t numbers) : numbers_(numbers) { CL_Init(5, nullptr, &err_); }
    CL_Object *create(uint32_t kind) { return CL_CreateFD(kind, nullptr, 0, 0, &err_); }
    bool connect(CL_Object *client, const char *path) {
        return CL_CnctMSGC(client, path, CL_MODE_SYNC, &err_) != 0;
    }
    CL_Object *accept(const char *path, const Pipe &listening, const Pipe &connected) {
        CL_Object *server = create(CL_KIND_MSGS);
        EXPECT_EQ(CL_OpenMSGS(server, path, 5, &err_), 1u) << err_;
        listening.fill();
        wait(connected);
        return CL_AcceptMSGS(server, nullptr, 0, 0, &err_);
    }
    void send(CL_Object *connection, uint32_t type, uint32_t count) {
        for (; count != 0; --count) {
            struct {
                CL_MsgBlock block;
                uint32_t number;
            } message{{}, sent_++ % numbers_};
            message.block.header.type = type;
            EXPECT_GT(CL_SendMSGC(connection, &message, 60, CL_MODE_IMMEDIATE, 0, &err_), 0);
        }
    }
    void receive(CL_Object *connection, uint32_t count) {
        for (uint32_t buffer[16]; count != 0; --count) {
            EXPECT_EQ(CL_RecvMSGC(connection, buffer, sizeof buffer, CL_MODE_SYNC, 5, &err_), 20)
                << err_;
        }
    }
    static void wait(const Pipe &pipe) {
        pollfd ready{pipe.out(), POLLIN, 0};
        EXPECT_EQ(poll(&ready, 1, 5000), 1);
    }

  private:
    CL_ErrInfo err_{};
    uint32_t numbers_, sent_ = 0;
};

class Talk : public testing::Test {
  protected:
    void SetUp() override { std::filesystem::current_path(folder.path("")); }
    // The client asks, the server replies; what the client says last is never read.
    void talk(const std::vector<Round> &rounds, uint32_t numbers) {
        const Pipe listening, connected;
        const pid_t client = test::child_process([&] {
            Talker talker(numbers);
            Talker::wait(listening);
            CL_Object *connection = talker.create(CL_KIND_MSGC);
            if (!talker.connect(connection, "socket")) return 1;
            connected.fill();
            for (const auto &[requests, replies] : rounds) {
                talker.send(connection, kRequest, requests);
                talker.receive(connection, replies);
            }
            talker.send(connection, kUnread, 1);
            CL_TRC_Out("client", nullptr);
            return testing::Test::HasFailure() ? 1 : 0;
        });
        Talker talker(numbers);
        CL_Object *connection = talker.accept("socket", listening, connected);
        for (const auto &[requests, replies] : rounds) {
            talker.receive(connection, requests);
            talker.send(connection, kReply, replies);
        }
        int status = -1;
        EXPECT_EQ(waitpid(client, &status, 0), client);
        EXPECT_EQ(status, 0);
        talker.create(CL_KIND_TIMER);  // what the client said last lies within this trace
        CL_TRC_Out("server", nullptr);
        for (const char *name : {"client", "server"})
            files.push_back(test::bytes_of(name));
    }

    test::Folder folder;
    std::vector<std::string> files;
};

// The flow over dumps in memory; the oldest entries of each ring are cut off.
struct Joined {
    Joined(std::vector<std::string> files, std::vector<uint32_t> cuts) : dumps(files.size()) {
        for (size_t i = 0; i < files.size(); ++i) {
            auto &ring = *reinterpret_cast<CL_TraceRing *>(&files[i][files[i].find(CL_EYE_LIBTRC)]);
            ring.oldest = cuts[i];
            ring.wrapped = cuts[i] != 0 ? 1 : 0;
            const auto *bytes = reinterpret_cast<const uint8_t *>(files[i].data());
            dumps[i].load(trace_reader::Source({bytes, files[i].size()}), true);
            traces.emplace_back(dumps[i]);
        }
        flow.emplace(dumps, traces);
    }
    size_t count(Fate fate, bool sent) const {
        return static_cast<size_t>(std::ranges::count_if(flow->messages, [&](const auto &message) {
            return message.fate == fate && message.sent == sent;
        }));
    }
    // Trace, and where in its file the record of a message is; a cut leaves it there.
    using Place = std::pair<uint32_t, uint64_t>;
    Place place(const trace_reader::Message &message) const {
        const uint32_t number = flow->ends[message.end].trace;
        const auto &told = traces[number].records[message.record];
        return {number, traces[number].fuller(told).offset};
    }
    // For each sending that is joined, the reading.
    std::map<Place, Place> pairs(Fate fate) const {
        std::map<Place, Place> found;
        for (const auto &message : flow->messages) {
            if (message.sent && message.fate == fate) {
                found[place(message)] = place(flow->messages[message.other]);
            }
        }
        return found;
    }

    std::vector<Dump> dumps;
    std::vector<Trace> traces;
    std::optional<Flow> flow;
};

TEST_F(Talk, IsJoinedWithNothingLeft) {
    talk({{3, 1}, {1, 2}, {40, 4}}, 2);  // most messages look like others
    Joined whole(files, {0, 0});
    EXPECT_EQ(whole.count(Fate::joined, true), 51u);
    EXPECT_EQ(whole.count(Fate::joined, false), 51u);
    EXPECT_EQ(whole.flow->messages.size(), 103u);
    ASSERT_EQ(whole.count(Fate::lost, true), 1u);
    EXPECT_EQ(std::ranges::find(whole.flow->messages, Fate::lost, &trace_reader::Message::fate)
                  ->header()
                  .type,
              kUnread);
    trace_reader::Text text, later, json;
    EXPECT_TRUE(flow(whole.dumps, {}, text));
    EXPECT_THAT(text.str(), testing::HasSubstr("51 joined\n         1 sent and not read\n"));
    EXPECT_THAT(text.str(), Not(testing::HasSubstr("quiet")));
    for (Dump &dump : whole.dumps) {
        dump.time = whole.flow->spans[1].end + 5000000;
        dump.time_from = trace_reader::TimeFrom::snapshot;
    }
    EXPECT_TRUE(flow(whole.dumps, {}, later));
    EXPECT_THAT(later.str(), testing::ContainsRegex("quiet for 5[^\n]* bytes, not read\n"));
    EXPECT_TRUE(export_json(whole.dumps, {}, json));
    for (const char *phase : {R"("ph":"s")", R"("ph":"f")"}) {
        size_t arrows = 0;
        for (size_t at = 0; (at = json.str().find(phase, at)) != std::string::npos; ++at)
            ++arrows;
        EXPECT_EQ(arrows, 51u);
    }
    // Without the other process nothing is lost.
    Joined one({files[0]}, {0});
    EXPECT_EQ(one.count(Fate::untraced, true), 45u);
    EXPECT_EQ(one.count(Fate::untraced, false), 7u);
}

class CutTalk : public Talk, public testing::WithParamInterface<uint32_t> {};

// With both traces cut at many records.
TEST_P(CutTalk, IsJoinedRightOrCalledAmbiguous) {
    test::Random random;
    constexpr size_t kStep = 7;
    std::vector<Round> rounds;
    for (int i = 0; i < 8; ++i)
        rounds.push_back({random.below(4), random.below(3)});
    talk(rounds, GetParam());
    const Joined whole(files, {0, 0});
    const auto truth = whole.pairs(Fate::joined);
    EXPECT_EQ(whole.count(Fate::lost, true) + truth.size(), whole.count(Fate::joined, false) + 1);
    const auto cuts = [&](size_t i) {
        std::vector<uint32_t> entries;
        const auto &ring = whole.dumps[i].rings[CL_RING_LIBRARY];
        const auto &records = whole.traces[i].records;
        for (size_t k = random.below(kStep); k < records.size(); k += kStep) {
            entries.push_back(
                static_cast<uint32_t>((records[k].offset - ring.offset_of(0)) / ring.stride()));
        }
        return entries;
    };
    for (const uint32_t client : cuts(0)) {
        for (const uint32_t server : cuts(1)) {
            const Joined cut(files, {client, server});
            for (const auto &[sent, read] : cut.pairs(Fate::joined)) {
                ASSERT_TRUE(truth.contains(sent)) << client << ' ' << server;
                ASSERT_EQ(truth.at(sent), read) << client << ' ' << server;
            }
            ASSERT_LE(cut.count(Fate::lost, true), 1u) << client << ' ' << server;
            ASSERT_EQ(cut.count(Fate::lost, false), 0u) << client << ' ' << server;
            if (GetParam() > 100) {
                ASSERT_EQ(cut.count(Fate::ambiguous, true), 0u);
            }
        }
    }
}
INSTANTIATE_TEST_SUITE_P(Numbers, CutTalk, testing::Values(1, 3, 1000));

// With calls missing from the middle of both, each with one of its records or with both.
TEST_F(Talk, IsJoinedRightOverGaps) {
    test::Random random;
    talk({{3, 1}, {1, 2}, {2, 2}, {4, 1}}, 1000);
    const Joined whole(files, {0, 0});
    const auto truth = whole.pairs(Fate::joined);
    std::map<Joined::Place, Joined::Place> exits;
    for (uint32_t i = 0; i < 2; ++i) {
        for (const auto &record : whole.traces[i].records)
            exits[{i, record.offset}] = {i, whole.traces[i].fuller(record).offset};
    }
    size_t joined = 0;
    for (int round = 0; round < 300; ++round) {
        auto damaged = files;
        for (uint32_t n = 1 + random.below(8); n != 0; --n) {
            const uint32_t side = random.below(2);
            const auto &records = whole.traces[side].records;
            const auto &record = records[random.below(static_cast<uint32_t>(records.size()))];
            memset(&damaged[side][record.offset], 0, sizeof(CL_TraceEntry));
        }
        const Joined gap(damaged, {0, 0});
        for (const auto &[sent, read] : gap.pairs(Fate::joined)) {
            ASSERT_TRUE(truth.contains(exits.at(sent)));
            ASSERT_EQ(truth.at(exits.at(sent)), exits.at(read));
            ++joined;
        }
    }
    EXPECT_GT(joined, 300 * truth.size() / 2);
    // Whatever the records hold, joining ends, and both sides of a pair know each other.
    for (int round = 0; round < 300; ++round) {
        auto damaged = files;
        for (uint32_t n = 1 + random.below(30); n != 0; --n) {
            const uint32_t side = random.below(2);
            const auto &records = whole.traces[side].records;
            const auto &record = records[random.below(static_cast<uint32_t>(records.size()))];
            damaged[side][record.offset + sizeof(CL_TraceEntry) + random.below(record.length)] =
                static_cast<char>(random.below(3) * 127);
        }
        const Joined odd(damaged, {0, 0});
        for (const auto &message : odd.flow->messages) {
            if (!Flow::is_joined(message)) continue;
            const auto &other = odd.flow->messages[message.other];
            ASSERT_EQ(&odd.flow->messages[other.other], &message);
            ASSERT_NE(other.sent, message.sent);
        }
    }
}

}  // namespace
