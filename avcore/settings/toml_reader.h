// A TOML file table by table: each value is of the kind and within the bounds that it has to be, or
// a config_error names the file, the line and the key. avwatch reads its own file with it, too.
#pragma once

#include "avcore/base/config_text.h"

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <toml++/toml.h>
#include <utility>

namespace avcore {

// `name` stands for the file in messages. Throws config_error.
toml::table parse_toml(std::string_view text, const std::string &name);

// One table of the file; both outlive the reader. What isn't there leaves a value as it is.
class toml_reader {
public:
    toml_reader(const toml::table &table, const std::string &file) : table_(table), file_(file) {}

    [[noreturn]] void fail(const toml::node &where, const std::string &what) const;
    // A message about a place of the file.
    std::string at(const toml::node &where, const std::string &what) const;

    // A misspelt key would otherwise be a setting that silently doesn't hold.
    void expect_keys(std::initializer_list<std::string_view> known) const;

    const toml::node *find(std::string_view key) const { return table_.get(key); }
    const toml::table *table(std::string_view key) const;
    // `example`: for whoever wrote something else.
    const toml::array *array(std::string_view key, std::string_view example) const;
    std::optional<std::string> text(std::string_view key) const;
    void number(std::string_view key, uint32_t &value, uint32_t most = UINT32_MAX) const;
    uint32_t number_of(const toml::node &node, std::string_view key,
                       uint32_t most = UINT32_MAX) const;
    void flag(std::string_view key, bool &value) const;
    void interface_name(std::string_view key, std::string &name) const;

    // A text that is one of a few.
    template <typename Value, size_t N>
    void choice(std::string_view key, const std::pair<std::string_view, Value> (&choices)[N],
                Value &value) const {
        const std::optional<std::string> chosen = text(key);
        if (!chosen)
            return;
        std::string names;
        for (const auto &[name, meant] : choices) {
            if (*chosen == name) {
                value = meant;
                return;
            }
            names += (names.empty() ? "\"" : " or \"") + std::string(name) + '"';
        }
        fail(*find(key), quoted(key) + " must be " + names);
    }

    static std::string quoted(std::string_view key);

private:
    const toml::table &table_;
    const std::string &file_;
};

} // namespace avcore
