// What lets somebody from elsewhere look: a secret that "serve" and "link" share by a file, and
// what is made of it.
//
// - The token is the file's text. A program sends it as it is.
// - A link carries a ticket, which is good once and for TICKET_S: a link stays in a browser's list
//   of what it visited, and in the terminal.
// - A browser gets a pass for it, a cookie that is good for PASS_S. All of them end when the file
// has
//   another token.
//
// Tickets and passes are keyed digests (HMAC-SHA256, RFC 2104) with the token for a key, so nobody
// has to remember them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace avwatch {

inline constexpr int64_t TICKET_S = 600;
inline constexpr int64_t PASS_S = int64_t{30} * 86'400;

// The token in the file. Throws refused: it can't be read, others may read it, or what it holds is
// too short to be a secret.
std::string read_token(const std::string &file);
// The same, of a file that is made where there is none, for its owner alone.
std::string read_or_make_token(const std::string &file);

std::string make_ticket(const std::string &token, int64_t now_s);
std::string make_pass(const std::string &token, int64_t now_s);
bool is_pass(std::string_view given, const std::string &token, int64_t now_s);

// Compares in a time that says nothing of where they differ.
bool is_same_secret(std::string_view given, std::string_view secret);

// Which tickets were used already.
class ticket_counter {
public:
    // As many links in TICKET_S are used at most; a forged one takes no place.
    static constexpr size_t USED_MAX = 1'024;

    // Whether it is a good one, which it won't be again.
    bool take(const std::string &ticket, const std::string &token, int64_t now_s);

private:
    std::map<std::string, int64_t> used_; // until when each would be good
};

} // namespace avwatch
