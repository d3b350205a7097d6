// The HTTP server: GET and HEAD of /metrics, nothing else. One of the loop's descriptors; no
// thread.
//
// Whoever reaches it may ask, slowly or for ever: CONNECTIONS_MAX at once, each with HEAD_MAX bytes
// for what it asks, one request, and CONNECTION_MS for all of it.
#pragma once

#include "shared/unique_fd.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

struct MHD_Connection;
struct MHD_Daemon;

namespace avwatch {

class http_server {
public:
    static constexpr unsigned CONNECTIONS_MAX = 8;
    static constexpr size_t HEAD_MAX = 16'384; // what it keeps of each connection
    static constexpr int64_t CONNECTION_MS = 30'000;

    // Listens at "127.0.0.1:8080" or "[::1]:8080". Throws refused.
    http_server(const std::string &address, std::function<std::string()> metrics);
    ~http_server();
    http_server(const http_server &) = delete;
    http_server &operator=(const http_server &) = delete;

    int descriptor() const { return descriptor_; }
    int64_t due_ms(int64_t now_ms) const; // NEVER_MS: when its descriptor can be read
    void serve(int64_t now_ms);

private:
    struct callbacks; // of the library

    struct stopper {
        void operator()(MHD_Daemon *running) const;
    };
    std::function<std::string()> metrics_;
    std::map<MHD_Connection *, int64_t> deadlines_ms_;
    int64_t now_ms_ = 0;
    std::unique_ptr<MHD_Daemon, stopper> running_; // calls back until it has stopped
    int descriptor_ = -1;
};

// Whether only this machine's own programs reach it. Throws refused, where it is no address.
bool is_loopback(const std::string &address);

} // namespace avwatch
