// The configuration reader beside three that people use: 100 sections of 50 members are parsed, and
// every member is looked up, in the order of the file. inih is a parser without a store: INIReader
// keeps what it parses, and its bare callbacks are the floor of a parse.
#include <INIReader.h>
#include <glib.h>
#include <ini.h>
#include <iniparser/iniparser.h>
#include <malloc.h>
#include <unistd.h>
#include <cstring>
#include <memory>

#include <qvcl/conf.h>

#include "bench/support.h"

namespace {

using bench::check;

constexpr size_t kSections = 100;
constexpr size_t kMembers = 50;

// The file, and what is in it. Names do not come in order, and there are no comments: GKeyFile
// begins them otherwise than the library.
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
            fprintf(file, "\n[%s]\n", section.c_str());
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

struct GLib {
    GKeyFile *file = g_key_file_new();
    explicit GLib(const std::string &path) {
        check(g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, nullptr) != 0,
              "g_key_file_load_from_file");
    }
    GLib(const GLib &) = delete;
    GLib &operator=(const GLib &) = delete;
    ~GLib() { g_key_file_free(file); }
    bool has(const File::Member &member) {
        char *value =
            g_key_file_get_value(file, member.section.c_str(), member.key.c_str(), nullptr);
        const bool same = value != nullptr && member.value == value;
        g_free(value);
        return same;
    }
};

// Parses and forgets.
struct Bare {
    explicit Bare(const std::string &path) {
        size_t members = 0;
        const auto count = [](void *to, const char *, const char *, const char *) {
            return static_cast<int>(++*static_cast<size_t *>(to));
        };
        check(ini_parse(path.c_str(), count, &members) == 0 && members == kSections * kMembers,
              "ini_parse");
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

// The first side in units of each of the others; it is to be ahead of the next `ahead_of`.
bench::Comparison compared(std::vector<bench::Side> sides, size_t ahead_of) {
    bench::Comparison comparison = {std::move(sides), {}, 2e-3};
    for (size_t i = 1; i < comparison.sides.size(); ++i) {
        comparison.figures.push_back(
            {"x " + comparison.sides[i].name, [i](const bench::Times &t) { return t[0] / t[i]; },
             i <= ahead_of ? bench::Figure::at_most : bench::Figure::none, 1});
    }
    return comparison;
}

// `fresh`: the kernel gets the memory back every time, as if the file was parsed once in a process.
// Its pages then cost more than the parsing, and an element has room for the longest value.
template <class Reader>
bench::Side parse(const char *name, const Shared &file, bool fresh) {
    return bench::local(name, [file, fresh](size_t n) {
        while (n-- != 0) {
            { const Reader reader(file->path); }
            if (fresh) malloc_trim(0);
        }
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

void compare_parsing(const char *name, const Shared &file, bool fresh) {
    bench::compare(
        name,
        [file, fresh] {
            return compared(
                {parse<Library>("qvcl", file, fresh), parse<GLib>("GKeyFile", file, fresh),
                 parse<Inih>("INIReader", file, fresh), parse<Iniparser>("iniparser", file, fresh),
                 parse<Bare>("inih's callbacks", file, fresh)},
                fresh ? 0 : 3);
        },
        31);
}

}  // namespace

int main(int argc, char **argv) {
    bench::pin(bench::processor(1));
    // Otherwise it is chance whether the heap shrinks after a turn, and whose turn that is.
    check(mallopt(M_TRIM_THRESHOLD, 1 << 30) == 1, "mallopt");
    const auto file = std::make_shared<const File>();
    compare_parsing("5000 members/parse", file, false);
    compare_parsing("5000 members/parse into memory that the kernel has to give", file, true);
    bench::compare(
        "5000 members/look all up",
        [file] {
            return compared(
                {look_up<Library>("qvcl", file), look_up<GLib>("GKeyFile", file),
                 look_up<Inih>("INIReader", file), look_up<Iniparser>("iniparser", file)},
                3);
        },
        31);
    return bench::run(argc, argv);
}
