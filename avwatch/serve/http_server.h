// What speaks HTTP: GET and HEAD, over TLS where there is a certificate. Whoever gives the answers
// is handed requests and returns replies; one of the loop's descriptors, and no thread.
//
// Whoever reaches it may ask, slowly or for ever: CONNECTIONS_MAX at once, of them ADDRESS_MAX of
// one address, each with HEAD_MAX bytes for what it asks, one request, and CONNECTION_MS for all of
// it. LOOPBACK_KEPT of the connections are for this machine alone, whoever else asks. Answers
// without end are STREAMS_MAX at most and end after STREAM_MS: who looks on asks again.
#pragma once

#include "avwatch/page/exchange.h"
#include "avwatch/settings/http_settings.h"
#include "shared/unique_fd.h"

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>

struct MHD_Connection;
struct MHD_Daemon;
struct sockaddr;

namespace avwatch {

class http_server {
public:
    static constexpr unsigned CONNECTIONS_MAX = 64;
    static constexpr unsigned ADDRESS_MAX = 40; // or of one /64 of IPv6
    static constexpr unsigned LOOPBACK_KEPT = 8;
    static constexpr size_t STREAMS_MAX = 24;
    static constexpr size_t HEAD_MAX = 16'384; // what it keeps of each connection
    static constexpr int64_t CONNECTION_MS = 30'000;
    static constexpr int64_t STREAM_MS = 600'000;
    static constexpr int64_t STREAM_EVERY_MS = 1'000;

    using answerer = std::function<page_reply(const page_request &asked)>;

    // Listens at the address, "127.0.0.1:8080" or "[::1]:8080". Throws refused.
    http_server(const http_settings &settings, answerer answer);
    ~http_server();
    http_server(const http_server &) = delete;
    http_server &operator=(const http_server &) = delete;

    int descriptor() const { return descriptor_; }
    int64_t due_ms(int64_t now_ms) const; // NEVER_MS: when its descriptor can be read
    void serve(int64_t now_ms);

private:
    struct callbacks; // of the library
    struct stream;
    struct admitted {
        int64_t deadline_ms = 0;
        uint64_t site = 0;
        bool is_from_loopback = false;
    };

    bool has_place_for(const sockaddr *from) const;
    void end_overdue(int64_t now_ms);
    void feed_streams(int64_t now_ms);
    bool feed_round(int64_t begun_ms); // false: not to its end

    struct stopper {
        void operator()(MHD_Daemon *running) const;
    };
    answerer answer_;
    std::map<MHD_Connection *, admitted> connections_;
    std::list<stream> streams_;
    int64_t now_ms_ = 0;
    int64_t streams_due_ms_ = 0;
    uint64_t round_ = 1; // of feeding, the one that goes on or comes next; a new stream had none
    std::unique_ptr<MHD_Daemon, stopper> running_; // calls back until it has stopped
    int descriptor_ = -1;
};

// Whether only this machine's own programs reach it. Throws refused, where it is no address.
bool is_loopback(const std::string &address);

} // namespace avwatch
