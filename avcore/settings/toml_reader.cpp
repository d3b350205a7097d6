#include "avcore/settings/toml_reader.h"

#include "avcore/base/printable.h"

#include <algorithm>
#include <net/if.h>
#include <sstream>

namespace avcore {
namespace {

std::string list(std::initializer_list<std::string_view> words) {
    std::string text;
    for (const std::string_view word : words)
        text += (text.empty() ? "" : ", ") + std::string(word);
    return text;
}

} // namespace

toml::table parse_toml(std::string_view text, const std::string &name) {
    refuse_deep_keys(text, name);
    try {
        return toml::parse(text, name);
    } catch (const toml::parse_error &error) {
        std::ostringstream message;
        message << name << ", line " << error.source().begin.line << ": "
                << printable(error.description());
        // A MAC address without quotes is taken for a time.
        if (!error.description().starts_with("Error while parsing key") &&
            !error.description().starts_with("Error while parsing table"))
            message << " (texts stand in quotes)";
        throw config_error(message.str());
    }
}

void toml_reader::fail(const toml::node &where, const std::string &what) const {
    throw config_error(at(where, what));
}

std::string toml_reader::at(const toml::node &where, const std::string &what) const {
    std::ostringstream message;
    message << file_ << ", line " << where.source().begin.line << ": " << what;
    return message.str();
}

void toml_reader::expect_keys(std::initializer_list<std::string_view> known) const {
    for (const auto &[key, node] : table_) {
        if (std::find(known.begin(), known.end(), key.str()) == known.end())
            fail(node, "unknown key " + quoted(key.str()) + "; the keys are " + list(known));
    }
}

const toml::table *toml_reader::table(std::string_view key) const {
    const toml::node *node = find(key);
    if (node != nullptr && !node->is_table())
        fail(*node, quoted(key) + " must be a table, [" + std::string(key) + "]");
    return node != nullptr ? node->as_table() : nullptr;
}

const toml::array *toml_reader::array(std::string_view key, std::string_view example) const {
    const toml::node *node = find(key);
    if (node != nullptr && !node->is_array())
        fail(*node, quoted(key) + " must be a list, as in " + std::string(example));
    return node != nullptr ? node->as_array() : nullptr;
}

std::optional<std::string> toml_reader::text(std::string_view key) const {
    const toml::node *node = find(key);
    if (node != nullptr && !node->is_string())
        fail(*node, quoted(key) + " must be a text in quotes");
    return node != nullptr ? node->value<std::string>() : std::nullopt;
}

void toml_reader::number(std::string_view key, uint32_t &value, uint32_t most) const {
    if (const toml::node *node = find(key); node != nullptr)
        value = number_of(*node, key, most);
}

uint32_t toml_reader::number_of(const toml::node &node, std::string_view key, uint32_t most) const {
    const std::optional<int64_t> value = node.value_exact<int64_t>();
    if (!value || *value < 0 || *value > most)
        fail(node, quoted(key) + " must be a whole number from 0 to " + std::to_string(most));
    return static_cast<uint32_t>(*value);
}

void toml_reader::flag(std::string_view key, bool &value) const {
    const toml::node *node = find(key);
    if (node == nullptr)
        return;
    const std::optional<bool> on = node->value_exact<bool>();
    if (!on)
        fail(*node, quoted(key) + " must be true or false");
    value = *on;
}

void toml_reader::interface_name(std::string_view key, std::string &name) const {
    const std::optional<std::string> value = text(key);
    if (!value)
        return;
    if (value->empty() || value->size() >= IFNAMSIZ)
        fail(*find(key), quoted(key) + " must be an interface name of 1 to 15 characters");
    name = *value;
}

std::string toml_reader::quoted(std::string_view key) {
    return '\'' + printable(key) + '\'';
}

} // namespace avcore
