#include "avwatch/client/known_clients.h"

#include "avcore/base/host_text.h"
#include "avwatch/base/addresses.h"
#include "avwatch/base/failure.h"

#include <algorithm>
#include <utility>

namespace avwatch {
namespace {

void add_to(traffic &sum, const traffic &more) {
    sum.packets += more.packets;
    sum.bytes += more.bytes;
}

// Of one client, however many records name it: a few times what one record has.
constexpr size_t CLIENT_ADDRESSES_MAX = 64;

// The record that was heard later says what there is one of.
void join(client_record &whole, const client_record &part) {
    for (const std::string &address : part.addresses) {
        if (whole.addresses.size() < CLIENT_ADDRESSES_MAX &&
            std::ranges::find(whole.addresses, address) == whole.addresses.end())
            whole.addresses.push_back(address);
    }
    if (whole.host_name.empty())
        whole.host_name = part.host_name;
    if (part.last_us > whole.last_us && !part.interface.empty()) {
        whole.interface = part.interface;
        whole.utp = part.utp;
    }
    whole.flows += part.flows;
    add_to(whole.up, part.up);
    add_to(whole.down, part.down);
    whole.dropped.denied += part.dropped.denied;
    whole.dropped.limited += part.dropped.limited;
    whole.last_us = std::max(whole.last_us, part.last_us);
}

} // namespace

// An address that several have had is the one's that was heard last; who has no MAC address is
// whoever has the address.
known_clients::known_clients(client_aliases aliases, std::vector<client_record> said)
    : aliases_(std::move(aliases)) {
    std::ranges::sort(said, [](const client_record &a, const client_record &b) {
        return std::pair(a.client_mac.empty(), b.last_us) <
               std::pair(b.client_mac.empty(), a.last_us);
    });
    for (client_record &each : said)
        add(std::move(each));
}

void known_clients::add(client_record client) {
    const std::string first = client.addresses.empty() ? "" : client.addresses.front();
    const std::string key = key_of(client.client_mac, first);
    if (!client.client_mac.empty()) {
        for (const std::string &address : client.addresses)
            owners_.emplace(address, key);
    }
    const auto [place, is_new] = places_.emplace(key, clients_.size());
    if (is_new)
        clients_.push_back({key, "", std::move(client)});
    else
        join(clients_[place->second].said, client);
    known_client &known = clients_[place->second];
    known.alias = alias_of(key);
    for (const std::string &address : known.said.addresses) {
        if (known.alias.empty())
            known.alias = alias_of(address);
    }
}

std::string known_clients::key_of(const std::string &mac, const std::string &address) const {
    if (!mac.empty())
        return mac;
    const auto owner = owners_.find(address);
    return owner != owners_.end() ? owner->second : address;
}

const known_client *known_clients::with_key(const std::string &key) const {
    const auto place = places_.find(key);
    return place != places_.end() ? &clients_[place->second] : nullptr;
}

std::string known_clients::name_of(const std::string &key) const {
    const known_client *known = with_key(key);
    if (known == nullptr)
        return alias_of(key);
    const std::string &said = known->said.host_name;
    return known->alias.empty() && !said.empty() ? '"' + said + '"' : known->alias;
}

std::string known_clients::find(const std::string &meant) const {
    const auto alias = aliases_.find(meant);
    const std::string &text = alias != aliases_.end() ? alias->second : meant;
    if (const std::optional<std::string> mac = canonical_mac(text))
        return *mac;
    if (const std::optional<std::string> address = canonical_address(text))
        return key_of("", *address);
    std::vector<std::string> found;
    for (const known_client &each : clients_) {
        if (avcore::lower_case(each.said.host_name) == avcore::lower_case(meant))
            found.push_back(each.key);
    }
    if (found.empty() || meant.empty())
        throw refused("no client is called \"" + meant +
                      "\": name one by a MAC address, an IP address, the host name that it said, "
                      "or an alias of the configuration");
    if (found.size() > 1)
        throw refused(std::to_string(found.size()) + " clients say that they are called \"" +
                      meant + "\", " + found[0] + " and " + found[1] +
                      " among them: name one by its address");
    return found.front();
}

std::string known_clients::alias_of(const std::string &key) const {
    const auto alias = std::ranges::find(aliases_, key, &client_aliases::value_type::second);
    return alias != aliases_.end() ? alias->first : std::string();
}

} // namespace avwatch
