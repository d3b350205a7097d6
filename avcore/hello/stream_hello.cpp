#include "avcore/hello/stream_hello.h"

#include "avcore/base/host_text.h"
#include "core/text/text.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <vector>

namespace avcore {
namespace {

using std::string_view;
using state = client_hello::state;

constexpr uint8_t CHANGE_CIPHER_SPEC = 20; // the first of the records' types
constexpr uint8_t HANDSHAKE = 22;
constexpr uint8_t HEARTBEAT = 24; // the last one
constexpr size_t RECORD_HEADER_SIZE = 5;
constexpr unsigned LINES_BEFORE_MAX = 4; // a request's line; text of another protocol has more
constexpr string_view BLANKS = " \t";

bool is_record(byte_view stream) {
    const uint8_t type = stream.u8(0);
    return type >= CHANGE_CIPHER_SPEC && type <= HEARTBEAT &&
           (!stream.holds(2) || stream.u8(1) == 3);
}

// Records of other types are passed over, as an alert is that only warns.
client_hello read_records(byte_view stream) {
    std::vector<uint8_t> message;
    client_hello read;
    while (read.is == state::partial && stream.size() != 0) {
        if (!is_record(stream))
            return {state::malformed, {}};
        const size_t size = stream.u16(3);
        const byte_view fragment = stream.from(RECORD_HEADER_SIZE).first(size);
        for (size_t i = 0; stream.u8(0) == HANDSHAKE && i < fragment.size(); ++i)
            message.push_back(fragment.u8(i));
        read = read_client_hello({message.data(), message.size()});
        stream = stream.from(RECORD_HEADER_SIZE + size);
    }
    return read;
}

string_view without_blanks(string_view text) {
    const size_t from = text.find_first_not_of(BLANKS);
    return from == text.npos ? "" : text.substr(from, text.find_last_not_of(BLANKS) + 1 - from);
}

// Takes a line off `rest`; none where its end is missing.
std::optional<string_view> take_line(string_view &rest) {
    const size_t end = rest.find('\n');
    if (end == rest.npos)
        return std::nullopt;
    string_view line = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    return line;
}

string_view take_word(string_view &line) {
    line = without_blanks(line);
    const string_view word = line.substr(0, line.find_first_of(BLANKS));
    line.remove_prefix(word.size());
    return word;
}

bool is_text(string_view line) {
    return std::none_of(line.begin(), line.end(), [](char c) {
        return static_cast<unsigned char>(c) < ' ' && c != '\r' && c != '\t';
    });
}

// Of an absolute URI, which goes before the header (RFC 9112, 3.2.2); else empty.
string_view host_in_target(string_view target) {
    const size_t scheme = target.find("://");
    if (target.starts_with('/') || scheme == target.npos)
        return {};
    target.remove_prefix(scheme + 3);
    target = target.substr(0, target.find_first_of("/?#"));
    const size_t user = target.rfind('@');
    return user == target.npos ? target : target.substr(user + 1);
}

client_hello shown(string_view host) {
    const bool is_host = is_host_text(host.substr(0, host.find(':')));
    return {is_host ? state::whole : state::malformed, is_host ? lower_case(host) : std::string()};
}

client_hello read_headers(string_view rest) {
    while (const std::optional<string_view> line = take_line(rest)) {
        const size_t colon = line->find(':');
        if (line->empty())
            return {state::malformed, {}};
        if (colon != line->npos &&
            equals_ignoring_case(without_blanks(line->substr(0, colon)), "host"))
            return shown(without_blanks(line->substr(colon + 1)));
    }
    return {};
}

client_hello read_request(string_view rest) {
    for (unsigned before = 0; before <= LINES_BEFORE_MAX; ++before) {
        std::optional<string_view> line = take_line(rest);
        if (!is_text(line.value_or(rest)))
            return {state::malformed, {}};
        if (!line)
            return {};
        const string_view method = take_word(*line);
        const string_view target = take_word(*line);
        if (!without_blanks(*line).starts_with("HTTP/1."))
            continue;
        if (equals_ignoring_case(method, "CONNECT")) // what is named is behind the server
            return {state::malformed, {}};
        const string_view host = host_in_target(target);
        return host.empty() ? read_headers(rest) : shown(host);
    }
    return {state::malformed, {}};
}

} // namespace

stream_hello read_stream_hello(byte_view stream) {
    if (stream.size() != 0 && is_record(stream))
        return {handshake::tls, read_records(stream)};
    return {handshake::http, read_request(stream.text())};
}

} // namespace avcore
