// A request and what is answered, without the library that speaks HTTP: serve/http_server makes the
// one and sends the other.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace avwatch {

// An empty text: it isn't there.
struct page_request {
    bool is_head = false; // else GET
    std::string path;
    std::map<std::string, std::string> arguments; // behind the question mark, decoded
    std::string host;
    std::string origin;
    std::string authorization;
    std::string cookie;
    // What a browser says of who asks, how, and what for.
    std::string fetch_site, fetch_mode, fetch_dest;
    bool is_from_loopback = false;

    // Empty where it isn't there.
    std::string argument(const std::string &name) const {
        const auto found = arguments.find(name);
        return found != arguments.end() ? found->second : std::string();
    }
};

// What an answer without end has to say, asked for once a second while its reader keeps up: who
// reads slowly is told less often, and never what is old.
class event_source {
public:
    virtual ~event_source() = default;
    // Server-sent events, whole ones; others may be sent the same text.
    virtual std::shared_ptr<const std::string> next() = 0;
};

struct page_reply {
    unsigned status = 200;
    std::string_view type = "text/plain; charset=utf-8";
    std::string body;
    std::string_view constant_body; // in place of `body`: part of the program
    std::vector<std::pair<const char *, std::string>> headers;
    std::unique_ptr<event_source> events; // in place of both
};

} // namespace avwatch
