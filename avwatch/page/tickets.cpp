#include "avwatch/page/tickets.h"

#include "avwatch/base/failure.h"
#include "shared/unique_fd.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <sys/stat.h>
#include <unistd.h>

namespace avwatch {
namespace {

constexpr size_t TOKEN_MIN = 16;
constexpr size_t TOKEN_MAX = 256;
constexpr size_t RANDOM_BYTES = 32;
constexpr size_t NONCE_BYTES = 16;
constexpr size_t DIGEST_BYTES = 32; // SHA-256

std::string hex(const unsigned char *bytes, size_t count) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

template <size_t N>
std::string random_hex() {
    std::array<unsigned char, N> bytes;
    if (gnutls_rnd(GNUTLS_RND_KEY, bytes.data(), bytes.size()) != 0)
        throw refused("the machine has no random numbers");
    return hex(bytes.data(), bytes.size());
}

// `purpose` keeps digests for one purpose from being taken for another's.
std::string digest(const std::string &token, const std::string &purpose, const std::string &text) {
    std::array<unsigned char, DIGEST_BYTES> bytes;
    const std::string whole = purpose + ' ' + text;
    if (gnutls_hmac_fast(GNUTLS_MAC_SHA256, token.data(), token.size(), whole.data(), whole.size(),
                         bytes.data()) != 0)
        throw refused("SHA-256 is out of order on this machine");
    return hex(bytes.data(), bytes.size());
}

std::string text_of(const unique_fd &open, const std::string &file) {
    struct stat found = {};
    if (fstat(open.get(), &found) != 0)
        throw refused(file + ": " + strerror(errno));
    if ((found.st_mode & S_IRWXO) != 0)
        throw refused(file + " may be opened by everybody; take that away: chmod o= " + file);
    std::array<char, TOKEN_MAX + 2> bytes;
    const ssize_t size = read(open.get(), bytes.data(), bytes.size());
    if (size < 0)
        throw refused(file + ": " + strerror(errno));
    std::string text(bytes.data(), static_cast<size_t>(size));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    const bool is_line =
        text.find_first_of(" \t\r\n") == std::string::npos && text.find('\0') == std::string::npos;
    if (text.size() < TOKEN_MIN || text.size() > TOKEN_MAX || !is_line)
        throw refused(file + " holds no token: a line of " + std::to_string(TOKEN_MIN) + " to " +
                      std::to_string(TOKEN_MAX) + " characters, without blanks");
    return text;
}

} // namespace

std::string read_token(const std::string &file) {
    const unique_fd open(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!open.valid())
        throw refused("the token, " + file + ": " + strerror(errno));
    return text_of(open, file);
}

std::string read_or_make_token(const std::string &file) {
    const unique_fd made(::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!made.valid()) {
        if (errno == EEXIST)
            return read_token(file);
        throw refused("the token, " + file + ": " + strerror(errno));
    }
    const std::string line = random_hex<RANDOM_BYTES>() + '\n';
    if (write(made.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        const int error = errno;
        unlink(file.c_str()); // half a token is none
        throw refused("the token, " + file + ": " + strerror(error));
    }
    return read_token(file);
}

// "1764150600-<nonce>-<digest of both>".
std::string make_ticket(const std::string &token, int64_t now_s) {
    const std::string text = std::to_string(now_s + TICKET_S) + '-' + random_hex<NONCE_BYTES>();
    return text + '-' + digest(token, "ticket", text);
}

std::string pass_of(const std::string &token) {
    return digest(token, "pass", "");
}

bool is_same_secret(std::string_view given, std::string_view secret) {
    return given.size() == secret.size() &&
           gnutls_memcmp(given.data(), secret.data(), secret.size()) == 0;
}

bool ticket_counter::take(const std::string &ticket, const std::string &token, int64_t now_s) {
    const size_t dash = ticket.rfind('-');
    if (dash == std::string::npos ||
        !is_same_secret(ticket.substr(dash + 1), digest(token, "ticket", ticket.substr(0, dash))))
        return false;
    int64_t good_until_s = 0; // ours: what follows is as make_ticket writes it
    std::from_chars(ticket.data(), ticket.data() + dash, good_until_s);
    std::erase_if(used_, [now_s](const auto &each) { return each.second < now_s; });
    // A clock that went back doesn't make a ticket good for longer.
    if (now_s > good_until_s || good_until_s > now_s + TICKET_S || used_.size() >= USED_MAX)
        return false;
    return used_.emplace(ticket, good_until_s).second;
}

} // namespace avwatch
