// The configuration reader told in the plainest way, and what the library makes of the same file,
// in the same words: "a@1{k=v@2 }b@3{}" is two sections and a member with their lines. The test and
// the fuzz target compare the two; what the library's functions disagree about among themselves
// shows as a "!" in the words.
#pragma once

#include <qvcl/conf.h>
#include <qvcl/memory.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace conf_model {

struct Outcome {
    uint32_t code;
    uint32_t line;
    std::string content;
    bool operator==(const Outcome &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const Outcome &o) {
    return out << "code " << o.code << " line " << o.line << " " << o.content.substr(0, 300);
}

inline bool is_blank(char c) {
    const auto code = static_cast<unsigned char>(c);
    return code <= ' ' || code == 127;
}

inline std::string trimmed(std::string_view text) {
    while (!text.empty() && is_blank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && is_blank(text.back()))
        text.remove_suffix(1);
    return std::string(text);
}

class Model {
  public:
    // What is found in a file.
    Outcome read(std::string_view file) {
        for (line_ = 1; !file.empty(); ++line_) {
            const size_t length = std::min(file.find('\n'), file.size() - 1) + 1;
            const std::string_view line = file.substr(0, length);
            const uint32_t code =
                length > 1000 ? 3 : take(trimmed(line.substr(0, line.find('\0'))));
            if (code != 0) return {code, line_, ""};
            file.remove_prefix(length);
        }
        std::string content;
        for (const auto &[name, section] : sections_) {
            content += name + section.at + "{";
            for (const auto &[key, value] : section.members)
                content += key + "=" + value + " ";
            content += "}";
        }
        return {0, line_, content};
    }

  private:
    struct Section {
        std::string at;
        std::map<std::string, std::string> members;
    };

    uint32_t take(const std::string &text) {
        const std::string at = "@" + std::to_string(line_);
        if (text.empty() || text[0] == ';') return 0;
        if (text[0] == '[') {
            const size_t close = text.find(']');
            const std::string name = trimmed(std::string_view(text).substr(1, close - 1));
            const bool bad = std::any_of(name.begin(), name.end(), [](char c) {
                return c == '=' || (c != ' ' && is_blank(c));
            });
            if (close == text.npos || bad || name.empty() || name.size() > 50) return 5;
            const auto [place, fresh] = sections_.try_emplace(name, Section{at, {}});
            section_ = &place->second;
            return fresh ? 0 : 7;
        }
        if (section_ == nullptr) return 4;
        const size_t equals = text.find('=');
        if (equals == text.npos) return 8;
        const std::string key = trimmed(text.substr(0, equals));
        const std::string value = trimmed(text.substr(equals + 1));
        if (key.empty() || key.size() > 50 || value.size() > 500) return 8;
        return section_->members.try_emplace(key, value + at).second ? 0 : 9;
    }

    std::map<std::string, Section> sections_;
    Section *section_ = nullptr;
    uint32_t line_ = 1;
};

// What the enumerations give; every member is then looked up in the order of the file, backwards,
// and all over the place, because a look-up begins where the last one ended.
inline std::string walk(CL_Queue *conf) {
    struct Found {
        uint32_t line;
        std::string section, key, value;
    };
    std::vector<Found> found;
    std::string all;
    char name[64], value[512];
    uint32_t line = 0, code;
    CL_ConfSection *section = nullptr;
    while ((code = CL_EnumSection(conf, name, sizeof name, &line, &section)) == CL_CONF_OK) {
        all += name + ("@" + std::to_string(line)) + "{";
        CL_ConfMember *member = nullptr;
        const size_t before = found.size();
        while ((code = CL_EnumMember(section, name, sizeof name, value, sizeof value, &line,
                                     &member)) == CL_CONF_OK) {
            all += name + ("=" + std::string(value)) + "@" + std::to_string(line) + " ";
            found.push_back({line, section->name, name, value});
        }
        if (code != CL_CONF_END || CL_GetMemberNum(section) != found.size() - before) all += "!";
        all += "}";
    }
    if (code != CL_CONF_END) all += "!";
    std::sort(found.begin(), found.end(),
              [](const Found &a, const Found &b) { return a.line < b.line; });
    const size_t count = found.size();
    for (const size_t step : {size_t{1}, count - 1, count / 3 * 2 + 1}) {
        for (size_t i = 0; i < count; ++i) {
            const Found &member = found[i * step % count];
            const char *in = member.section.c_str();
            if (CL_GetMember(conf, in, member.key.c_str(), value, sizeof value, &line) != 0 ||
                member.value != value || member.line != line ||
                CL_GetMember(conf, in, "\x01", value, 1, &line) != CL_CONF_NOT_FOUND)
                all += "!" + member.key;
        }
    }
    return all;
}

// What the library reads; nothing is left.
inline Outcome read(const char *path) {
    const uint32_t blocks = CL_nmem_M(1);
    CL_Queue conf;
    CL_QUE_InitQT(&conf, 0);
    Outcome outcome{0, 4711, ""};
    outcome.code = CL_ReadConf(&conf, path, &outcome.line);
    outcome.content = walk(&conf);
    if (outcome.code != CL_CONF_OK && conf.count != 0) outcome.content += "!";
    if (CL_FreeConf(&conf) != 1 || CL_nmem_M(1) != blocks) outcome.content += "!";
    return outcome;
}

}  // namespace conf_model
