#include "avcore/bus/tls.h"

#include "shared/counted.h"

#include <cerrno>
#include <cstring>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <optional>
#include <stdexcept>
#include <sys/stat.h>

namespace avcore {
namespace {

constexpr size_t NAME_MAX_SIZE = 64;
constexpr int CHAIN_DEPTH_MAX = 4;
constexpr size_t CHAIN_SIZE_MAX = 16'384;
constexpr int REMARK_DAYS = 30;
// No group whose arithmetic takes longer than a frame may wait.
constexpr char GROUPS[] = "X25519:P-256:P-384";

struct openssl_free {
    void operator()(SSL *ssl) const { SSL_free(ssl); }
};

std::string first_error() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0)
        return "unknown error";
    if (ERR_SYSTEM_ERROR(code))
        return strerror(ERR_GET_REASON(code));
    const char *reason = ERR_reason_error_string(code);
    return reason != nullptr ? reason : "error " + std::to_string(code);
}

// Empty unless there is exactly one.
std::string common_name(X509 *certificate) {
    X509_NAME *subject = X509_get_subject_name(certificate);
    const int at = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (at < 0 || X509_NAME_get_index_by_NID(subject, NID_commonName, at) >= 0)
        return {};
    unsigned char *text = nullptr;
    const int size =
        ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at)));
    if (size < 0)
        return {};
    std::string name(reinterpret_cast<const char *>(text), static_cast<size_t>(size));
    OPENSSL_free(text);
    if (name.size() > NAME_MAX_SIZE || name.find('\0') != std::string::npos)
        return {};
    return name;
}

class tls_transport final : public transport {
public:
    // `expected`: whom we dialled; none when we were.
    tls_transport(unique_fd socket, SSL_CTX *context, std::optional<std::string> expected)
        : transport(std::move(socket)), ssl_(SSL_new(context)), expected_(std::move(expected)) {
        if (!ssl_)
            throw std::runtime_error("bus: " + first_error());
        // It writes without MSG_NOSIGNAL; SIGPIPE is ignored in this process.
        if (SSL_set_fd(ssl_.get(), fd()) != 1)
            throw std::runtime_error("bus: " + first_error());
        SSL_set_app_data(ssl_.get(), this);
        if (expected_)
            SSL_set_connect_state(ssl_.get());
        else
            SSL_set_accept_state(ssl_.get());
    }

    // The acceptor sends a session ticket when it took our certificate. We never use it; it is the
    // one word about it that TLS 1.3 has.
    static int on_ticket(SSL *ssl, SSL_SESSION *) {
        static_cast<tls_transport *>(SSL_get_app_data(ssl))->ticket_seen_ = true;
        return 0;
    }

    outcome authenticate(bool patient) override {
        if (!shaken_) {
            ERR_clear_error();
            const int result = SSL_do_handshake(ssl_.get());
            if (result != 1)
                return judge(result).what;
            shaken_ = true;
            if (const outcome judged = judge_name(); judged != outcome::done)
                return judged;
        }
        if (!expected_ || ticket_seen_)
            return outcome::done;
        std::byte unexpected[1];
        const transfer word = read(unexpected);
        if (word.what == outcome::done)
            return fail("it sends where only we do");
        if (ticket_seen_ || (word.what == outcome::wants_read && !patient))
            return outcome::done;
        return word.what;
    }

    bool awaits_word() const override { return shaken_ && !ticket_seen_; }

    transfer read(std::span<std::byte> bytes) override {
        size_t size = 0;
        ERR_clear_error();
        const int result = SSL_read_ex(ssl_.get(), bytes.data(), bytes.size(), &size);
        return result == 1 ? transfer{outcome::done, size} : judge(result);
    }

    transfer write(std::span<const std::byte> bytes) override {
        size_t size = 0;
        ERR_clear_error();
        const int result = SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &size);
        return result == 1 ? transfer{outcome::done, size} : judge(result);
    }

    bool has_more() const override { return SSL_has_pending(ssl_.get()) == 1; }
    const std::string &peer_name() const override { return name_; }

private:
    outcome judge_name() {
        X509 *certificate = SSL_get0_peer_certificate(ssl_.get());
        name_ = certificate != nullptr ? common_name(certificate) : std::string();
        if (name_.empty())
            return fail("its certificate names nobody");
        if (expected_ && name_ != *expected_)
            return fail("its certificate is of " + name_);
        return outcome::done;
    }

    transfer judge(int result) {
        switch (SSL_get_error(ssl_.get(), result)) {
        case SSL_ERROR_WANT_READ:
            return {outcome::wants_read};
        case SSL_ERROR_WANT_WRITE:
            return {outcome::wants_write};
        case SSL_ERROR_ZERO_RETURN:
            return {outcome::ended};
        case SSL_ERROR_SYSCALL:
            return {fail(strerror(errno))};
        default:
            return {judge_error()};
        }
    }

    outcome judge_error() {
        const int reason = ERR_GET_REASON(ERR_peek_error());
        if (reason == SSL_R_UNEXPECTED_EOF_WHILE_READING)
            return outcome::ended; // messages say themselves where they end
        if (reason == SSL_R_CERTIFICATE_VERIFY_FAILED)
            return fail(std::string("its certificate: ") +
                        X509_verify_cert_error_string(SSL_get_verify_result(ssl_.get())));
        return fail("TLS: " + first_error());
    }

    std::unique_ptr<SSL, openssl_free> ssl_;
    std::optional<std::string> expected_;
    std::string name_;
    bool shaken_ = false;
    bool ticket_seen_ = false;
};

[[noreturn]] void refuse(const std::string &file, const std::string &why) {
    throw std::runtime_error("bus: " + file + ": " + why);
}

// Nobody is there to type a pass phrase.
int no_pass_phrase(char *, int, int, void *) {
    return 0;
}

void check_key_file(const std::string &file) {
    struct stat info = {};
    if (stat(file.c_str(), &info) != 0)
        refuse(file, strerror(errno));
    if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        refuse(file, "the key isn't its owner's alone: chmod 600");
}

void load_files(SSL_CTX *context, const bus_settings &settings) {
    ERR_clear_error();
    SSL_CTX_set_default_passwd_cb(context, no_pass_phrase);
    if (SSL_CTX_load_verify_file(context, settings.ca.c_str()) != 1)
        refuse(settings.ca, first_error());
    if (SSL_CTX_use_certificate_chain_file(context, settings.certificate.c_str()) != 1)
        refuse(settings.certificate, first_error());
    check_key_file(settings.key);
    if (SSL_CTX_use_PrivateKey_file(context, settings.key.c_str(), SSL_FILETYPE_PEM) != 1)
        refuse(settings.key, first_error());
    if (SSL_CTX_check_private_key(context) != 1)
        refuse(settings.key, "isn't the key of " + settings.certificate);
}

void set_rules(SSL_CTX *context) {
    if (SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) != 1 ||
        SSL_CTX_set1_groups_list(context, GROUPS) != 1)
        throw std::runtime_error("bus: " + first_error());
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    SSL_CTX_set_verify_depth(context, CHAIN_DEPTH_MAX);
    SSL_CTX_set_max_cert_list(context, CHAIN_SIZE_MAX);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                  SSL_MODE_RELEASE_BUFFERS);
    // Or endless records that carry no data would keep one read busy.
    SSL_CTX_clear_mode(context, SSL_MODE_AUTO_RETRY);
    // One ticket that nothing can be resumed with: see on_ticket.
    SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
    SSL_CTX_set_num_tickets(context, 1);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_sess_set_new_cb(context, tls_transport::on_ticket);
}

} // namespace

void tls_identity::closer::operator()(ssl_ctx_st *context) const {
    SSL_CTX_free(context);
}

tls_identity::tls_identity(const bus_settings &settings) : context_(SSL_CTX_new(TLS_method())) {
    if (!context_)
        throw std::runtime_error("bus: " + first_error());
    load_files(context_.get(), settings);
    set_rules(context_.get());
    name_ = common_name(SSL_CTX_get0_certificate(context_.get()));
}

tls_identity::~tls_identity() = default;

std::string tls_identity::validity_remark() const {
    const X509 *certificate = SSL_CTX_get0_certificate(context_.get());
    int days = 0;
    int seconds = 0;
    if (X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0)
        return "isn't valid yet";
    if (ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate)) != 1)
        return "doesn't say when it ends";
    if (days < 0 || seconds < 0)
        return "has ended";
    if (days < REMARK_DAYS)
        return "ends in " + counted(static_cast<uint64_t>(days), "day", "days");
    return {};
}

std::unique_ptr<transport> tls_identity::accept(unique_fd fd) const {
    return std::make_unique<tls_transport>(std::move(fd), context_.get(), std::nullopt);
}

std::unique_ptr<transport> tls_identity::dial(unique_fd fd, const std::string &name) const {
    return std::make_unique<tls_transport>(std::move(fd), context_.get(), name);
}

} // namespace avcore
