// TLS 1.3 between access points, through OpenSSL, which stays behind this header. Both sides show a
// certificate of the common authority; its common name is the access point's name.
#pragma once

#include "avcore/bus/settings.h"
#include "avcore/bus/transport.h"

#include <ctime>
#include <memory>
#include <string>

struct ssl_ctx_st;

namespace avcore {

class tls_identity {
public:
    // Reads the three files. Throws std::runtime_error, which names the file.
    explicit tls_identity(const bus_settings &settings);
    ~tls_identity();
    tls_identity(const tls_identity &) = delete;
    tls_identity &operator=(const tls_identity &) = delete;

    // The common name of the own certificate; empty when it hasn't exactly one.
    const std::string &name() const { return name_; }
    // What is to be said about its time; empty while it is good for another month.
    std::string validity_remark() const;

    // The other side must be authenticated before anything is read or written, and, when dialled,
    // be `name`.
    std::unique_ptr<transport> accept(unique_fd fd) const;
    std::unique_ptr<transport> dial(unique_fd fd, const std::string &name) const;

private:
    struct closer {
        void operator()(ssl_ctx_st *context) const;
    };
    std::unique_ptr<ssl_ctx_st, closer> context_;
    std::string name_;
};

} // namespace avcore
