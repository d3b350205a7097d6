// JSON on one line, read and written. The templates that do it take a source seconds to compile;
// here they are made once.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

// Discarded where the text isn't JSON.
nlohmann::json read_json(std::string_view text);

// Bytes that aren't UTF-8 are replaced.
std::string json_text(const nlohmann::json &value);
std::string json_text(const nlohmann::ordered_json &value);
// All beyond ASCII as escapes, too.
std::string ascii_json_text(const nlohmann::ordered_json &value);
