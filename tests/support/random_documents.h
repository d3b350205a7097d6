// Random documents of the daemon's tables, each a change of the last one.
#pragma once

#include "jornctl/documents/documents.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

const std::vector<uint32_t> IDS = {1, 2, 3, 64};
const std::vector<std::string> INTERFACES = {"2", "wlan1", "Wlan1"}; // a UTP has the first's name
const std::vector<std::string> NAMES = {"one.example", "two.example", "tor"};
const std::vector<std::string> APPLICATIONS = {"clock", "door"};
const std::vector<std::string> PATTERNS = {"x.example", "y.example", "*.two*"};

// Documents of few names, so that they meet.
class document_author {
public:
    jornctl::document write() {
        while (true) {
            nlohmann::json text;
            // Tables that belong together mostly come together.
            const bool partly = one_in(3);
            for (const auto &[key, make] : TABLES) {
                if (!(partly && one_in(2)))
                    text[key] = changed(key, make);
            }
            jornctl::document read =
                text.empty() ? jornctl::document() : jornctl::read_document(text.dump());
            if (text.empty() || read.found.has_mistakes())
                continue;
            last_.update(text);
            written_ = std::move(text);
            return read;
        }
    }

    const nlohmann::json &written() const { return written_; } // last
    // Each table as it was written last.
    const nlohmann::json &all() const { return last_; }

private:
    using json = nlohmann::json;
    struct table {
        const char *key;
        json (document_author::*make)();
    };
    static const table TABLES[8];

    bool one_in(unsigned n) { return random_() % n == 0; }
    template <typename T>
    T pick(const std::vector<T> &from) {
        return from[random_() % from.size()];
    }
    std::string name() { return pick<std::string>({"", "a", "b", "B", "c"}); }

    // What it was, with one record more, less or another, or all anew.
    json changed(const char *key, json (document_author::*make)()) {
        json records = last_.contains(key) ? last_[key] : json::array();
        const auto position = [&] {
            return static_cast<json::difference_type>(records.empty() ? 0
                                                                      : random_() % records.size());
        };
        switch (random_() % 8) {
        case 0:
            records.push_back((this->*make)());
            break;
        case 1:
            if (!records.empty())
                records.erase(records.begin() + position());
            break;
        case 2:
        case 3:
            if (!records.empty())
                records[static_cast<size_t>(position())] = (this->*make)();
            break;
        case 4:
            records = json::array();
            for (size_t count = random_() % 4; count > 0; --count)
                records.push_back((this->*make)());
            break;
        default:
            break;
        }
        return records;
    }

    json policy() {
        json made = {{"utp_id", pick(IDS)},
                     {"name", name()},
                     {"uuid", name()},
                     {"log_enable", one_in(4)},
                     {"rules", json::array()}};
        for (size_t count = 1 + random_() % 4; count > 0; --count)
            made["rules"].push_back(rule());
        return made;
    }
    json rule() {
        json made = {{"app_name", pick(NAMES)}, {"deny", one_in(2)}};
        if (one_in(4))
            made.update({{"app_name", pick(APPLICATIONS)}, {"cat_name", "User Defined"}});
        else if (one_in(4))
            made.update({{"app_id", 1 + random_() % 2}, {"cat_id", 3}});
        if (one_in(4))
            made[pick<std::string>({"rate_down", "rate_up"})] = 100;
        if (one_in(4))
            made["qos"] = pick<json>(
                {{{"classify", "Video"}}, {{"mark", {{"kind", "both"}, {"type", "Voice"}}}}});
        return made;
    }
    json utp() { return {{"id", pick(IDS)}, {"name", name()}, {"uuid", name()}}; }
    json application() {
        json made = {{"app_name", pick(APPLICATIONS)}};
        if (one_in(3))
            made.update({{"dst_ip", "192.0.2.6"}, {"netmask", "255.255.255.254"}});
        if (!made.contains("dst_ip") || one_in(2))
            made["dst_port"] = 1 + random_() % 2;
        if (one_in(3))
            made["protocol"] = pick<std::string>({"tcp", "udp"});
        if (one_in(4))
            made.update({{"app_id", 1 + random_() % 2}, {"cat_id", 3}});
        return made;
    }
    json web_policy() {
        json made = {{"name", name()},
                     {"uuid", name()},
                     {"categories", {random_() % 3, 3 + random_() % 2}},
                     {"blacklist", {pick(PATTERNS), pick(PATTERNS)}}};
        if (!one_in(4))
            made["whitelist"] = {pick(PATTERNS)};
        if (one_in(2))
            made["utp_id"] = pick(IDS);
        if (one_in(3))
            made.update({{"google_safe_search", true}, {"google_vip", "203.0.113.1"}});
        return made;
    }
    json web_interface() {
        json made = {{"ifname", pick(INTERFACES)}, {"enable", !one_in(4)}, {"policy_uuid", name()}};
        if (const json policies = last_.value("web_policies", json::array()); !policies.empty())
            made["policy_uuid"] = policies[random_() % policies.size()]["uuid"];
        if (one_in(5))
            made["delete"] = true;
        return made;
    }
    json carrier() {
        json made = {{"pname", pick<std::string>({"a", "b", "B", "c"})},
                     {"priority", random_() % 2},
                     {"alt_name", one_in(8) ? "x" : ""},
                     {"epdg", json::array()}};
        for (size_t count = random_() % 3; count > 0; --count)
            made["epdg"].push_back(
                {{"fqdn", pick<std::string>({"e.example", "f.example"})},
                 {"ipaddr", pick<std::string>({"192.0.2.5", "192.0.2.6", "0.0.0.0"})}});
        return made;
    }
    json wificalling_interface() {
        json made = {
            {"ifname", pick(INTERFACES)},
            {"intf_value", random_() % 2},
            {"profile", {pick<std::string>({"a", "b", "c"}), pick<std::string>({"A", "d"})}}};
        if (one_in(5))
            made["delete"] = true;
        return made;
    }

    std::mt19937 random_{20261126};
    json last_ = json::object();
    json written_;
};

inline const document_author::table document_author::TABLES[8] = {
    {"policies", &document_author::policy},
    {"utps", &document_author::utp},
    {"applications", &document_author::application},
    {"web_policies", &document_author::web_policy},
    {"web_utps", &document_author::utp},
    {"web_interfaces", &document_author::web_interface},
    {"carriers", &document_author::carrier},
    {"wificalling_interfaces", &document_author::wificalling_interface}};
