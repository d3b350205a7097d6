// Who is meant by a client's name, and what a client is called. A client is one by its MAC address,
// with all of its IP addresses; where nobody knows that, by its one address.
#pragma once

#include "avwatch/client/records.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace avwatch {

// Names that the administrator gives: a MAC address or an IP address by name, in the form of
// base/addresses.h.
using client_aliases = std::map<std::string, std::string>;

struct known_client {
    std::string key; // the MAC address, else the address
    std::string alias;
    client_record said; // what there is of it, of all of its records together
};

class known_clients {
public:
    known_clients(client_aliases aliases, std::vector<client_record> said);

    const std::vector<known_client> &all() const { return clients_; }

    // Null where nothing was said of it.
    const known_client *with_key(const std::string &key) const;

    // The key of a client whose flow has this MAC address, or none, and this address.
    std::string key_of(const std::string &mac, const std::string &address) const;
    // What a client with this key is called: its alias, else in quotes the host name that it said,
    // which may be anybody's, or nothing.
    std::string name_of(const std::string &key) const;

    // The key of who is meant: by a MAC address or an IP address, by an alias, or by a host name in
    // any case. Somebody who isn't there has the address for a key. Throws refused where nobody has
    // this name, and where several clients say that they are called so.
    std::string find(const std::string &meant) const;

private:
    void add(client_record client);
    std::string alias_of(const std::string &key) const;

    client_aliases aliases_;
    std::vector<known_client> clients_;
    std::map<std::string, size_t> places_;      // of clients_, by key
    std::map<std::string, std::string> owners_; // keys by address
};

} // namespace avwatch
