#include "shared/json_text.h"

#include <nlohmann/json.hpp>

namespace {

template <typename any_json>
std::string text_of_json(const any_json &value, bool is_ascii) {
    return value.dump(-1, ' ', is_ascii, any_json::error_handler_t::replace);
}

} // namespace

nlohmann::json read_json(std::string_view text) {
    return nlohmann::json::parse(text, nullptr, false);
}

std::string json_text(const nlohmann::json &value) {
    return text_of_json(value, false);
}

std::string json_text(const nlohmann::ordered_json &value) {
    return text_of_json(value, false);
}

std::string ascii_json_text(const nlohmann::ordered_json &value) {
    return text_of_json(value, true);
}
