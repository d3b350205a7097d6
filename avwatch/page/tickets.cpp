#include "avwatch/page/tickets.h"

#include "avwatch/base/failure.h"
#include "shared/unique_fd.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace avwatch {
namespace {

constexpr size_t TOKEN_MIN = 16;
constexpr size_t TOKEN_MAX = 256;
constexpr char TICKET[] = "ticket";
constexpr char PASS[] = "pass";
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
    if (!S_ISREG(found.st_mode))
        throw refused(file + " is no regular file");
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

[[noreturn]] void fail(const std::string &file) {
    throw refused("the token, " + file + ": " + strerror(errno));
}

// FIFOs and the like are opened without waiting, and refused then.
unique_fd open_token(const std::string &file) {
    return unique_fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
}

// A name that is there has all of it, also for who reads meanwhile and behind a power cut.
void write_token(const std::string &file) {
    const std::string beside = file + ".new";
    unlink(beside.c_str()); // of one that didn't come to an end
    const unique_fd made(::open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!made.valid())
        fail(beside);
    const std::string line = random_hex<RANDOM_BYTES>() + '\n';
    errno = ENOSPC; // which a short write leaves unsaid
    if (write(made.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()) ||
        fsync(made.get()) != 0 || rename(beside.c_str(), file.c_str()) != 0) {
        const int error = errno;
        unlink(beside.c_str());
        errno = error;
        fail(file);
    }
    const std::string folder = std::filesystem::path(file).parent_path();
    const unique_fd around(
        ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!around.valid() || fsync(around.get()) != 0)
        fail(folder);
}

// "1764150600-<text>-<digest of both>".
std::string sign(const std::string &token, const char *purpose, int64_t end_s, std::string text) {
    text = std::to_string(end_s) + '-' + text;
    return text + '-' + digest(token, purpose, text);
}

// Until when a text of sign()'s is good; nothing where it isn't one, or isn't good now. A clock
// that went back makes none good for longer than `span_s`.
std::optional<int64_t> end_of(std::string_view given, const std::string &token, const char *purpose,
                              int64_t span_s, int64_t now_s) {
    const size_t dash = given.rfind('-');
    if (dash == std::string_view::npos ||
        !is_same_secret(given.substr(dash + 1),
                        digest(token, purpose, std::string(given.substr(0, dash)))))
        return std::nullopt;
    int64_t end_s = 0; // ours: what follows is as sign() writes it
    std::from_chars(given.data(), given.data() + dash, end_s);
    return now_s <= end_s && end_s <= now_s + span_s ? std::optional(end_s) : std::nullopt;
}

} // namespace

std::string read_token(const std::string &file) {
    const unique_fd open = open_token(file);
    if (!open.valid())
        fail(file);
    return text_of(open, file);
}

std::string read_or_make_token(const std::string &file) {
    if (!open_token(file).valid() && errno == ENOENT)
        write_token(file);
    return read_token(file);
}

std::string make_ticket(const std::string &token, int64_t now_s) {
    return sign(token, TICKET, now_s + TICKET_S, random_hex<NONCE_BYTES>());
}

std::string make_pass(const std::string &token, int64_t now_s) {
    return sign(token, PASS, now_s + PASS_S, "");
}

bool is_pass(std::string_view given, const std::string &token, int64_t now_s) {
    return end_of(given, token, PASS, PASS_S, now_s).has_value();
}

bool is_same_secret(std::string_view given, std::string_view secret) {
    return given.size() == secret.size() &&
           gnutls_memcmp(given.data(), secret.data(), secret.size()) == 0;
}

bool ticket_counter::take(const std::string &ticket, const std::string &token, int64_t now_s) {
    const std::optional<int64_t> end_s = end_of(ticket, token, TICKET, TICKET_S, now_s);
    std::erase_if(used_, [now_s](const auto &each) { return each.second < now_s; });
    return end_s && used_.size() < USED_MAX && used_.emplace(ticket, *end_s).second;
}

} // namespace avwatch
