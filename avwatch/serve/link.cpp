#include "avwatch/base/failure.h"
#include "avwatch/page/tickets.h"
#include "avwatch/serve/http_server.h"
#include "avwatch/serve/serve.h"
#include "shared/command_line.h"

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

std::string text_of(const sockaddr *address) {
    std::array<char, INET6_ADDRSTRLEN> text = {};
    if (address->sa_family == AF_INET) {
        sockaddr_in v4 = {};
        memcpy(&v4, address, sizeof v4);
        inet_ntop(AF_INET, &v4.sin_addr, text.data(), text.size());
        return text.data();
    }
    sockaddr_in6 v6 = {};
    memcpy(&v6, address, sizeof v6);
    inet_ntop(AF_INET6, &v6.sin6_addr, text.data(), text.size());
    // One of a link alone is none that a browser takes.
    return IN6_IS_ADDR_LINKLOCAL(&v6.sin6_addr) != 0 ? std::string()
                                                     : '[' + std::string(text.data()) + ']';
}

// This machine's addresses but loopback's.
std::vector<std::string> own_addresses(bool with_ipv6) {
    ifaddrs *first = nullptr;
    std::vector<std::string> addresses;
    if (getifaddrs(&first) != 0)
        return addresses;
    const std::unique_ptr<ifaddrs, addresses_releaser> owned(first);
    for (const ifaddrs *each = first; each != nullptr; each = each->ifa_next) {
        const int family = each->ifa_addr != nullptr ? each->ifa_addr->sa_family : AF_UNSPEC;
        if (family != AF_INET && (family != AF_INET6 || !with_ipv6))
            continue;
        const std::string text = text_of(each->ifa_addr);
        if (!text.empty() && !text.starts_with("127.") && text != "[::1]")
            addresses.push_back(text);
    }
    return addresses;
}

// By which the page can be asked for: the first name of the configuration, else where it listens.
std::vector<std::string> names_of(const http_settings &http) {
    const size_t colon = http.address.rfind(':');
    const std::string listens = http.address.substr(0, colon);
    std::vector<std::string> names = {listens};
    if (!http.hosts.empty() && !is_loopback(http.address))
        names = {http.hosts.front()};
    else if (listens == "0.0.0.0" || listens == "[::]")
        names = own_addresses(listens == "[::]");
    for (std::string &each : names)
        each += http.address.substr(colon);
    return names;
}

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

int show_link(const invocation &asked, const std::string &address) {
    http_settings http = read_settings(asked.settings_file).http;
    if (!address.empty())
        http.address = address;
    return print_link(http);
}

} // namespace

void add_link(CLI::App &app, invocation &asked) {
    subcommand command(
        app, "link", "Print a link to the page, for who looks from elsewhere",
        "It is good once, for ten minutes; the browser that follows it may look for thirty days.");
    const auto address = std::make_shared<std::string>();
    command.add_option("--http", *address, "Where \"serve\" has the page",
                       {.type_name = "ADDR:PORT"});
    command.callback([&asked, address] {
        asked.action = [&asked, address] { return show_link(asked, *address); };
    });
}

} // namespace avwatch
