// qvcl for C++: configuration files (conf.h), with typed look-ups.
//
//     const Conf conf = Conf::read("/etc/mydaemon.conf").value();
//     auto interval = conf.get("clock", "interval", 250).value();
#pragma once

#include <qvcl/conf.h>
#include <qvcl/cpp/result.hpp>

#include <charconv>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qvcl {
inline namespace cpp {

/// A configuration that was read. It moves.
class Conf {
  public:
    /// Reads a file. The Error's record has the CL_CONF_... code as `detail`, and the line of the
    /// file as `line`; `err` is ENOENT, ENOMEM or EINVAL.
    static Result<Conf> read(const char *path) {
        Conf conf;
        conf.queue_.reset(new (std::nothrow) CL_Queue);
        if (conf.queue_ == nullptr) return detail::failure("CL_ReadConf", ENOMEM);
        CL_QUE_InitQT(conf.queue_.get(), 0);
        uint32_t line = 0;
        const uint32_t code = path != nullptr ? CL_ReadConf(conf.queue_.get(), path, &line)
                                              : uint32_t{CL_CONF_NO_FILE};
        if (code == CL_CONF_OK) return conf;
        const int err = code == CL_CONF_NO_FILE     ? ENOENT
                        : code == CL_CONF_NO_MEMORY ? ENOMEM
                                                    : EINVAL;
        return Error("CL_ReadConf", {static_cast<uint32_t>(err), code, kModule, line, CL_VERSION});
    }

    /// Names of all sections, sorted.
    std::vector<std::string> sections() const {
        std::vector<std::string> names;
        char name[CL_CONF_NAME_MAX + 1] = "";
        uint32_t line = 0;
        CL_ConfSection *cursor = nullptr;
        while (CL_EnumSection(queue_.get(), name, sizeof name, &line, &cursor) == CL_CONF_OK)
            names.emplace_back(name);
        return names;
    }
    /// Keys of a section, sorted; none when there is no such section.
    std::vector<std::string> keys(const char *section) const {
        std::vector<std::string> names;
        CL_ConfSection *found = nullptr;
        if (CL_GetSectionIndex(queue_.get(), section, &found) != CL_CONF_OK) return names;
        char key[CL_CONF_NAME_MAX + 1] = "", value[CL_CONF_VALUE_MAX + 1] = "";
        uint32_t line = 0;
        CL_ConfMember *cursor = nullptr;
        while (CL_EnumMember(found, key, sizeof key, value, sizeof value, &line, &cursor) ==
               CL_CONF_OK)
            names.emplace_back(key);
        return names;
    }

    /// A value as text, or none.
    std::optional<std::string> text(const char *section, const char *key) const {
        char value[CL_CONF_VALUE_MAX + 1] = "";
        uint32_t line = 0;
        if (CL_GetMember(queue_.get(), section, key, value, sizeof value, &line) != CL_CONF_OK)
            return std::nullopt;
        return std::string(value);
    }
    /// A value as text; `instead` when there is none.
    std::string get(const char *section, const char *key, const char *instead) const {
        return text(section, key).value_or(instead);
    }
    /// A value as a number or bool (yes, no, true, false, on, off, 1, 0); `instead` when there is
    /// none. EINVAL when it is something else, or does not fit; the record's `line` is that of the
    /// file.
    template <class T>
    requires std::is_arithmetic_v<T> Result<T> get(const char *section, const char *key, T instead)
    const {
        char value[CL_CONF_VALUE_MAX + 1] = "";
        uint32_t line = 0;
        if (CL_GetMember(queue_.get(), section, key, value, sizeof value, &line) != CL_CONF_OK)
            return instead;
        T number = instead;
        if (parse(std::string_view(value), number)) return number;
        return Error("Conf::get", {EINVAL, EINVAL, kModule, line, CL_VERSION});
    }

  private:
    struct Free {
        void operator()(CL_Queue *queue) const {
            CL_FreeConf(queue);
            delete queue;
        }
    };

    Conf() = default;

    template <class T>
    static bool parse(std::string_view text, T &number) {
        if constexpr (std::is_same_v<T, bool>) {
            number = text == "yes" || text == "true" || text == "on" || text == "1";
            return number || text == "no" || text == "false" || text == "off" || text == "0";
        } else {
            const char *end = text.data() + text.size();
            const auto result = std::from_chars(text.data(), end, number);
            return result.ec == std::errc() && result.ptr == end;
        }
    }

    std::unique_ptr<CL_Queue, Free> queue_;
};

}  // namespace cpp
}  // namespace qvcl
