// Every command of qvcl-trace over memory that holds arbitrary bytes at arbitrary addresses.
#include "tests/fuzz/region.h"
#include "tools/cli.h"
#include "tools/snapshot.h"

namespace {

using namespace trace_reader;

class MadeUp final : public Memory {
  public:
    explicit MadeUp(Bytes input) {
        while (input.size() >= sizeof(test::Region) && mappings_.size() < 64) {
            const auto region = load<test::Region>(input, 0);
            const Bytes bytes = part(input, sizeof region, region.size);
            input = part(input, sizeof region + bytes.size());
            const uint64_t begin = region.begin;
            const bool above = mappings_.empty() || begin >= mappings_.back().end;
            if (bytes.empty() || !above || begin + bytes.size() < begin) continue;
            Mapping mapping;
            mapping.begin = begin;
            mapping.end = begin + bytes.size();
            mapping.writable = (region.flags & test::kWritable) != 0;
            mapping.offset = region.offset;
            if ((region.flags & test::kFile) != 0) mapping.path = "/lib/made-up.so";
            mappings_.push_back(std::move(mapping));
            contents_.push_back(bytes);
        }
    }
    uint64_t read(uint64_t address, void *to, uint64_t length) const override {
        uint64_t done = 0;
        for (size_t i = 0; i < mappings_.size() && done < length; ++i) {
            if (address + done < mappings_[i].begin || address + done >= mappings_[i].end) continue;
            const Bytes here =
                part(contents_[i], address + done - mappings_[i].begin, length - done);
            memcpy(static_cast<uint8_t *>(to) + done, here.data(), here.size());
            done += here.size();
        }
        return done;
    }
    const std::vector<Mapping> &mappings() const override { return mappings_; }

  private:
    std::vector<Mapping> mappings_;
    std::vector<Bytes> contents_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const MadeUp memory(Bytes(data, size));
    const Snapshots snapshots(memory);
    if (!snapshots.found()) return 0;
    const Snapshot snapshot = snapshots.of_rest({});
    const Source source((Bytes(snapshot.file)));
    const Source *sources[] = {&source, &source};
    const std::string names[] = {"a", "b"};
    Options options;
    options.all = true;
    for (const Command &command : kCommands) {
        if (!command.only_reads()) continue;
        Text out, err;
        run_command(command, options, std::span(names).first(command.files),
                    std::span(sources).first(command.files), out, err);
    }
    return 0;
}
