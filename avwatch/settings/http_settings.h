// [http] of the TOML file: where the page and the metrics are, and who may look.
#pragma once

#include <string>
#include <vector>

namespace avwatch {

inline constexpr char TOKEN_FILE[] = JORN_WATCH_DIR "/http.token";

struct http_settings {
    std::string address;            // "127.0.0.1:8080"; empty: nowhere
    std::vector<std::string> hosts; // names of this machine, in small letters
    std::string token_file = TOKEN_FILE;
    std::string certificate, key; // files; both or none

    bool is_encrypted() const { return !certificate.empty(); }
};

} // namespace avwatch
