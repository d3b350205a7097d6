#include "avwatch/base/failure.h"
#include "avwatch/page/tickets.h"
#include "avwatch/serve/http_server.h"
#include "avwatch/serve/serve.h"

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <ctime>
#include <ifaddrs.h>
#include <iostream>
#include <memory>
#include <vector>

namespace avwatch {
namespace {

struct addresses_releaser {
    void operator()(ifaddrs *first) const { freeifaddrs(first); }
};

// This machine's IPv4 addresses but loopback's.
std::vector<std::string> own_addresses() {
    ifaddrs *first = nullptr;
    std::vector<std::string> addresses;
    if (getifaddrs(&first) != 0)
        return addresses;
    const std::unique_ptr<ifaddrs, addresses_releaser> owned(first);
    for (const ifaddrs *each = first; each != nullptr; each = each->ifa_next) {
        if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_INET)
            continue;
        sockaddr_in v4 = {};
        memcpy(&v4, each->ifa_addr, sizeof v4);
        std::array<char, INET_ADDRSTRLEN> text;
        inet_ntop(AF_INET, &v4.sin_addr, text.data(), text.size());
        if (ntohl(v4.sin_addr.s_addr) >> 24 != IN_LOOPBACKNET)
            addresses.emplace_back(text.data());
    }
    return addresses;
}

// By which the page can be asked for: the first name of the configuration, else where it listens.
std::vector<std::string> names_of(const http_settings &http) {
    const size_t colon = http.address.rfind(':');
    const std::string listens = http.address.substr(0, colon);
    std::vector<std::string> names = {listens};
    if (!http.hosts.empty())
        names = {http.hosts.front()};
    else if (listens == "0.0.0.0" || listens == "[::]")
        names = own_addresses();
    for (std::string &each : names)
        each += http.address.substr(colon);
    return names;
}

} // namespace

int print_link(const http_settings &http) {
    if (http.address.empty())
        throw refused("there is no page: \"address\" in [http] says where it is to be");
    std::string path = "/";
    if (!is_loopback(http.address))
        path += "enter?ticket=" + make_ticket(read_token(http.token_file), time(nullptr));
    const std::vector<std::string> names = names_of(http);
    if (names.empty())
        throw refused("this machine has no address: \"hosts\" in [http] gives it a name");
    for (const std::string &each : names)
        std::cout << (http.is_encrypted() ? "https://" : "http://") << each << path << '\n';
    return STATUS_DONE;
}

} // namespace avwatch
