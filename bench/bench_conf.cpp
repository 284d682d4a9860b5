// The configuration reader beside two that people use: 100 sections of 50 members are parsed, and
// every member is looked up.
#include <INIReader.h>
#include <iniparser/iniparser.h>
#include <unistd.h>
#include <cstring>
#include <memory>

#include <qvcl/conf.h>

#include "bench/support.h"

namespace {

using bench::check;

constexpr size_t kSections = 100;
constexpr size_t kMembers = 50;

// The file, and what is in it. Names do not come in order.
struct File {
    struct Member {
        std::string section, key, value;
        std::string path;  // section:key, as iniparser wants it
    };
    std::string path = "/tmp/qvcl-bench-" + std::to_string(getpid());
    std::vector<Member> members;

    File() {
        FILE *file = fopen(path.c_str(), "w");
        check(file != nullptr, "fopen");
        for (size_t s = 0; s < kSections; ++s) {
            const std::string section = "section" + std::to_string(s * 37 % kSections);
            fprintf(file, "; what follows belongs to %s\n[%s]\n", section.c_str(), section.c_str());
            for (size_t m = 0; m < kMembers; ++m) {
                const std::string key = "member" + std::to_string(m * 17 % kMembers);
                const std::string value = "/var/lib/" + section + "/" + key;
                fprintf(file, "%s = %s\n", key.c_str(), value.c_str());
                members.push_back({section, key, value, section + ":" + key});
            }
        }
        check(fclose(file) == 0, "fclose");
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    ~File() { unlink(path.c_str()); }
};
using Shared = std::shared_ptr<const File>;

// ---------------------------------------------------------------- the readers

struct Library {
    CL_Queue conf;
    explicit Library(const std::string &path) {
        uint32_t line;
        CL_QUE_InitQT(&conf, 0);
        check(CL_ReadConf(&conf, path.c_str(), &line) == CL_CONF_OK, "CL_ReadConf");
    }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
    ~Library() { CL_FreeConf(&conf); }
    bool has(const File::Member &member) {
        char value[CL_CONF_VALUE_MAX + 1];
        uint32_t line;
        return CL_GetMember(&conf, member.section.c_str(), member.key.c_str(), value, sizeof value,
                            &line) == CL_CONF_OK &&
               member.value == value;
    }
};

struct Inih {
    INIReader reader;
    explicit Inih(const std::string &path) : reader(path) {
        check(reader.ParseError() == 0, "INIReader");
    }
    bool has(const File::Member &member) {
        return reader.Get(member.section, member.key, "") == member.value;
    }
};

struct Iniparser {
    dictionary *ini;
    explicit Iniparser(const std::string &path) : ini(iniparser_load(path.c_str())) {
        check(ini != nullptr, "iniparser_load");
    }
    Iniparser(const Iniparser &) = delete;
    Iniparser &operator=(const Iniparser &) = delete;
    ~Iniparser() { iniparser_freedict(ini); }
    bool has(const File::Member &member) {
        return member.value == iniparser_getstring(ini, member.path.c_str(), "");
    }
};

// ---------------------------------------------------------------- what is compared

bench::Comparison compared(bench::Side ours, bench::Side inih, bench::Side iniparser) {
    return {{std::move(ours), std::move(inih), std::move(iniparser)},
            {bench::times_of("inih"),
             {"x iniparser", [](const bench::Times &t) { return t[0] / t[2]; }}},
            2e-3};
}

template <class Reader>
bench::Side parse(const char *name, const Shared &file) {
    return bench::local(name, [file](size_t n) {
        while (n-- != 0)
            Reader reader(file->path);
    });
}

template <class Reader>
bench::Side look_up(const char *name, const Shared &file) {
    auto reader = std::make_shared<Reader>(file->path);
    return bench::local(name, [reader, file](size_t n) {
        while (n-- != 0) {
            for (const File::Member &member : file->members) {
                if (!reader->has(member)) bench::give_up(member.path);
            }
        }
    });
}

}  // namespace

int main(int argc, char **argv) {
    bench::pin(bench::processor(1));
    const auto file = std::make_shared<const File>();
    bench::compare(
        "5000 members/parse",
        [file] {
            return compared(parse<Library>("qvcl", file), parse<Inih>("inih", file),
                            parse<Iniparser>("iniparser", file));
        },
        31);
    bench::compare(
        "5000 members/look all up",
        [file] {
            return compared(look_up<Library>("qvcl", file), look_up<Inih>("inih", file),
                            look_up<Iniparser>("iniparser", file));
        },
        31);
    return bench::run(argc, argv);
}
