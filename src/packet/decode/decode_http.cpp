#include "packet/decode/decode.h"

#include "core/base/log.h"
#include "core/text/text.h"

#include <algorithm>
#include <string_view>

namespace {

using std::string_view;

constexpr size_t STATUS_LINE_MAX = 64;
constexpr int STATUS_FOUND = 302;

// The second blank-separated piece of the status line as a number; 0 when it is none.
int64_t status_code(string_view payload) {
    string_view line = payload.substr(0, STATUS_LINE_MAX);
    line = line.substr(0, line.find("\r\n"));
    line = line.substr(0, line.find('\0'));

    const size_t first = line.find_first_not_of(' ');
    const size_t gap = first == line.npos ? line.npos : line.find(' ', first);
    const size_t second = gap == line.npos ? line.npos : line.find_first_not_of(' ', gap);
    if (second == line.npos)
        return 0;
    return leading_decimal(line.substr(second, line.find(' ', second) - second));
}

// What follows the first "Location:" in any letter case, up to the end of the payload; empty when
// there is none or no line end behind it.
string_view location_value(string_view payload) {
    constexpr string_view name = "location:";
    const auto found =
        std::search(payload.begin(), payload.end(), name.begin(), name.end(),
                    [](char in_payload, char wanted) { return ascii_lower(in_payload) == wanted; });
    if (found == payload.end())
        return {};
    const string_view value =
        payload.substr(static_cast<size_t>(found - payload.begin()) + name.size());
    return value.find("\r\n") == value.npos ? string_view() : value;
}

} // namespace

int jorn_decode_http_pkt(pkt_ctx *ctx, byte_view payload) {
    const string_view response = payload.text();
    if (status_code(response) != STATUS_FOUND)
        return 0;
    JORN_DEBUG("JORn get the http response code 302, the buf is %.*s\n",
               static_cast<int>(std::min<size_t>(response.size(), 256)), response.data());

    // The copy is not cut at the line's end: who reads the value looks for an address in it.
    const string_view value = location_value(response);
    ctx->http_redirect = value.empty() ? 0 : 1;
    if (value.empty())
        return 0;
    const string_view kept = value.substr(0, sizeof ctx->http_location);
    strncpy(ctx->http_location, kept.data(), kept.size());
    JORN_DEBUG("Http location: %.*s\n", static_cast<int>(sizeof ctx->http_location),
               ctx->http_location);
    return 0;
}
