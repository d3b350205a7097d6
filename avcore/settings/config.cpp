#include "avcore/settings/config.h"

#include "avcore/base/config_text.h"
#include "avcore/bus/address.h"
#include "avcore/settings/toml_reader.h"

#include <algorithm>
#include <iterator>
#include <net/if.h>

namespace avcore {
namespace {

constexpr size_t PLATFORM_VALUE_MAX = sizeof(av_value_answer::value) - 1;
constexpr uint32_t COPIES_MAX = 1'000'000;
constexpr uint32_t SPEED_MAX = 1'000'000; // Mbit/s
constexpr std::string_view PLATFORM_KEYS[] = {AV_KEY_MEMORY, AV_KEY_DPI_ENGINE, AV_KEY_BASE_MAC,
                                              AV_KEY_FIRMWARE, AV_KEY_URL_SERVER};

// Of one file, a line each.
class mistakes {
public:
    // Reads a part of the file that others don't need.
    template <typename Read>
    void in(const Read &read) {
        try {
            read();
        } catch (const config_error &error) {
            lines_ += (lines_.empty() ? "" : "\n") + std::string(error.what());
        }
    }
    void raise() const {
        if (!lines_.empty())
            throw config_error(lines_);
    }

private:
    std::string lines_;
};

void read_side(const toml_reader &in, side_profile &side) {
    in.interface_name("interface", side.if_name);
    in.number("if_index", side.if_index);
    in.number("utp_id", side.utp_id, AV_UTP_ID_MAX);
}

void read_web_utp(const toml_reader &in, client_profile &profile) {
    const toml::node *node = in.find("web_utp");
    if (node == nullptr)
        return;
    const toml::array *words = node->as_array();
    if (words == nullptr || words->size() != 2)
        in.fail(*node, "'web_utp' must hold the two web UTP ids, as in [0, 7]");
    for (size_t i = 0; i < 2; ++i)
        profile.web_utp[i] = in.number_of(*words->get(i), "web_utp");
}

void read_filter_type(const toml_reader &in, client_profile &profile) {
    const toml::array *names = in.array("filter_type", R"(["url", "wificalling"])");
    if (names == nullptr)
        return;
    profile.filter_type = 0;
    for (const toml::node &name : *names) {
        const std::optional<std::string> text = name.value<std::string>();
        if (text == "url")
            profile.filter_type |= AV_FILTER_URL;
        else if (text == "wificalling")
            profile.filter_type |= AV_FILTER_WIFICALLING;
        else
            in.fail(name, "'filter_type' holds something other than \"url\" and \"wificalling\"");
    }
}

void read_client(const toml_reader &in, client_profile &profile) {
    read_side(in, profile.side);
    read_web_utp(in, profile);
    read_filter_type(in, profile);
}

client_rule read_rule(const toml::table &table, const std::string &file,
                      const client_profile &defaults) {
    const toml_reader in(table, file);
    in.expect_keys({"mac", "network", "captured_on", "interface", "if_index", "utp_id", "web_utp",
                    "filter_type"});
    client_rule rule;
    rule.profile = defaults;
    if (const auto text = in.text("mac")) {
        rule.mac = mac_in(*text);
        if (!rule.mac)
            in.fail(*in.find("mac"), "'mac' must look like 00:1a:2b:3c:4d:5e");
    }
    if (const auto text = in.text("network")) {
        rule.network = ip_network::parse(*text);
        if (!rule.network)
            in.fail(*in.find("network"),
                    "'network' must look like 192.168.1.0/24 or 2001:db8::/64");
    }
    in.interface_name("captured_on", rule.captured_on);
    if (!rule.mac && !rule.network && rule.captured_on.empty())
        in.fail(table, "a rule needs 'mac', 'network' or 'captured_on'");
    read_client(in, rule.profile);
    return rule;
}

// The rules by whom they are for, to find those behind another one for the same.
class rule_index {
public:
    // Returns the place of a rule that fits before this one wherever this one would; else none.
    std::optional<size_t> add(const client_rule &rule, size_t place) {
        std::vector<entry> &same = by_client_[{rule.mac, rule.mac ? std::nullopt : rule.network}];
        const auto found = std::find_if(same.begin(), same.end(), [&](const entry &earlier) {
            return hides(earlier.rule, rule);
        });
        if (found != same.end())
            return found->place;
        same.push_back({rule, place});
        return std::nullopt;
    }

private:
    struct entry {
        client_rule rule;
        size_t place;
    };

    static bool hides(const client_rule &earlier, const client_rule &later) {
        return (!earlier.network || earlier.network == later.network) &&
               (earlier.captured_on.empty() || earlier.captured_on == later.captured_on);
    }

    std::map<std::pair<std::optional<mac_address>, std::optional<ip_network>>, std::vector<entry>>
        by_client_;
};

// The daemon judges a packet once: by the web policies or by the rules of applications.
void warn_of_url_filtering(const toml::table &root, const toml_reader &in, config &settings) {
    if (!settings.dpi) // the daemon filters with the engine alone
        return;
    const toml::node *first = root.at_path("client.filter_type").node();
    bool asks = (settings.client.filter_type & AV_FILTER_URL) != 0;
    for (size_t i = 0; !asks && i < settings.rules.size(); ++i) {
        asks = (settings.rules[i].profile.filter_type & AV_FILTER_URL) != 0;
        first = root["rule"][i]["filter_type"].node();
    }
    if (asks && first != nullptr)
        settings.warnings.push_back(
            in.at(*first,
                  "'filter_type' holds \"url\": such a client's traffic, of the web above all, is "
                  "for the web policies and never gets to the rules for applications: no block, "
                  "limit or mark of theirs holds for it"));
}

void read_rules(const toml_reader &in, const std::string &file, config &settings, mistakes &wrong) {
    const toml::node *node = in.find("rule");
    if (node == nullptr)
        return;
    if (!node->is_array_of_tables())
        in.fail(*node, "'rule' must be a list of tables, [[rule]]");
    const toml::array &tables = *node->as_array();
    rule_index index;
    for (const toml::node &rule : tables) {
        const size_t place = settings.rules.size();
        settings.rules.emplace_back();
        wrong.in(
            [&] { settings.rules.back() = read_rule(*rule.as_table(), file, settings.client); });
        const std::optional<size_t> earlier = index.add(settings.rules.back(), place);
        if (!earlier)
            continue;
        const auto line = tables.get(*earlier)->source().begin.line;
        settings.warnings.push_back(in.at(rule, "the rule never holds, for the one in line " +
                                                    std::to_string(line) +
                                                    " fits the same clients before it"));
    }
}

bool is_platform_key(std::string_view key) {
    constexpr std::string_view enable = "avc_enable/wlan";
    if (!key.starts_with(enable))
        return std::find(std::begin(PLATFORM_KEYS), std::end(PLATFORM_KEYS), key) !=
               std::end(PLATFORM_KEYS);
    key.remove_prefix(enable.size());
    return !key.empty() && key.size() <= 3 &&
           key.find_first_not_of("0123456789") == std::string_view::npos;
}

// Keys with a slash may also be written as a table: [platform.avc_enable], wlan0 = 1.
void read_platform(const toml::table &table, const std::string &file, const std::string &prefix,
                   config &settings) {
    const toml_reader in(table, file);
    for (const auto &[name, node] : table) {
        const std::string key = prefix + std::string(name.str());
        if (const toml::table *inner = node.as_table(); inner != nullptr && prefix.empty()) {
            read_platform(*inner, file, key + "/", settings);
            continue;
        }
        if (!is_platform_key(key))
            in.fail(node, "unknown key " + toml_reader::quoted(key));
        std::optional<std::string> value = node.value_exact<std::string>();
        if (const auto number = node.value_exact<int64_t>())
            value = std::to_string(*number);
        if (!value)
            in.fail(node, toml_reader::quoted(key) + " must be a text in quotes or a whole number");
        if (value->size() > PLATFORM_VALUE_MAX)
            in.fail(node, toml_reader::quoted(key) + " must have at most 127 characters");
        if (key == AV_KEY_BASE_MAC && !mac_in(*value))
            in.fail(node, "'base_mac' must look like 00:1A:2B:3C:4D:5E");
        if (key == AV_KEY_BASE_MAC)
            std::transform(value->begin(), value->end(), value->begin(),
                           [](char c) { return c >= 'a' && c <= 'f' ? char(c - 'a' + 'A') : c; });
        settings.platform_values[key] = *value;
    }
}

bus_settings read_bus(const toml::table &table, const std::string &file) {
    const toml_reader in(table, file);
    in.expect_keys({"listen", "ca", "certificate", "key", "insecure"});
    bus_settings bus;
    bus.listen = in.text("listen").value_or(bus.listen);
    const auto address = bus_address::of_listener(bus.listen);
    if (!address)
        in.fail(*in.find("listen"), "'listen' must look like [::]:5670 or 192.0.2.1:5670; "
                                    "without [bus] nothing is listened at");
    bus.ca = in.text("ca").value_or("");
    bus.certificate = in.text("certificate").value_or("");
    bus.key = in.text("key").value_or("");
    const bool none = bus.ca.empty() && bus.certificate.empty() && bus.key.empty();
    if (!none && (bus.ca.empty() || bus.certificate.empty() || bus.key.empty()))
        in.fail(table, "'ca', 'certificate' and 'key' go together");
    in.flag("insecure", bus.insecure);
    if (bus.insecure && bus.secured())
        in.fail(*in.find("insecure"), "'insecure' is for a bus without certificates");
    if (bus.loopback_only() && !address->is_loopback())
        in.fail(table, "[bus] needs 'ca', 'certificate' and 'key', as scripts/bus-keys makes them; "
                       "without them listen = \"127.0.0.1:5670\", which no other machine reaches, "
                       "or insecure = true, with which whoever reaches the port can name "
                       "addresses");
    return bus;
}

std::optional<resolver> parse_resolver(const std::string &text) {
    const size_t blank = text.find(' ');
    const std::optional<ip_address> address = ip_address::parse(text.substr(0, blank));
    if (!address || blank == text.npos)
        return address ? std::optional<resolver>({*address, {}}) : std::nullopt;
    const std::optional<mac_address> mac = mac_in(std::string_view(text).substr(blank + 1));
    return mac ? std::optional<resolver>({*address, mac}) : std::nullopt;
}

void read_names(const toml::table &table, const std::string &file, config &settings) {
    const toml_reader in(table, file);
    in.expect_keys({"resolvers"});
    const toml::array *entries =
        in.array("resolvers", R"(["192.0.2.53", "10.1.0.53 02:00:00:00:00:53"])");
    if (entries == nullptr)
        return;
    std::vector<resolver> &resolvers = settings.resolvers.emplace();
    for (const toml::node &entry : *entries) {
        const auto text = entry.value_exact<std::string>();
        const std::optional<resolver> one = text ? parse_resolver(*text) : std::nullopt;
        if (!one)
            in.fail(entry, "'resolvers' holds something other than an address, or a client's "
                           "address and MAC address with a blank between them");
        resolvers.push_back(*one);
    }
}

void read_enforce(const toml::table &table, const std::string &file, enforce_settings &enforce) {
    using settings = enforce_settings;
    constexpr std::pair<std::string_view, settings::sharing> shares[] = {
        {"application", settings::sharing::application},
        {"flow", settings::sharing::flow},
        {"client", settings::sharing::client}};
    constexpr std::pair<std::string_view, uint64_t> units[] = {
        {"kbit/s", 125}, {"kB/s", 1000}, {"Mbit/s", 125'000}};
    constexpr std::pair<std::string_view, settings::shaping> shapes[] = {
        {"drop", settings::shaping::drop}, {"htb", settings::shaping::htb}};
    constexpr std::pair<std::string_view, bool> fails[] = {{"open", false}, {"closed", true}};
    constexpr std::pair<std::string_view, bool> dropped[] = {{"pass", false}, {"drop", true}};
    constexpr std::pair<std::string_view, bool> undecided[] = {{"pass", false}, {"hold", true}};
    constexpr std::pair<std::string_view, bool> passed[] = {{"pass", true}, {"drop", false}};
    const toml_reader in(table, file);
    in.expect_keys({"reset", "share", "rate_unit", "shape", "fail", "copies", "excess", "fragments",
                    "tags", "undecided", "holds"});
    in.flag("reset", enforce.reset);
    in.choice("share", shares, enforce.share);
    in.choice("rate_unit", units, enforce.bytes_per_rate_unit);
    in.choice("shape", shapes, enforce.shape);
    in.choice("fail", fails, enforce.rules.fail_closed);
    in.choice("excess", dropped, enforce.rules.drop_excess);
    in.choice("fragments", dropped, enforce.rules.drop_fragments);
    in.choice("tags", passed, enforce.rules.pass_tags);
    in.choice("undecided", undecided, enforce.rules.hold_undecided);
    for (const auto &[key, rate] : {std::pair("copies", &enforce.rules.copies_per_second),
                                    std::pair("holds", &enforce.rules.holds_per_second)}) {
        in.number(key, *rate, COPIES_MAX);
        if (*rate == 0)
            in.fail(*in.find(key), "'" + std::string(key) + "' must be 1 at least");
    }
}

void read_capture(const toml::table &table, const std::string &file, capture_settings &capture) {
    constexpr std::pair<std::string_view, capture_kind> kinds[] = {{"veth", capture_kind::veth},
                                                                   {"tap", capture_kind::tap}};
    const toml_reader in(table, file);
    in.expect_keys({"interface", "kind", "speed"});
    in.interface_name("interface", capture.interface);
    in.choice("kind", kinds, capture.kind);
    if (in.find("speed") != nullptr && capture.kind != capture_kind::tap)
        in.fail(*in.find("speed"), "'speed' is for kind = \"tap\": a veth's can't be chosen");
    in.number("speed", capture.speed, SPEED_MAX);
    if (capture.speed == 0)
        in.fail(*in.find("speed"), "'speed' must be 1 at least");
}

void read_inline(const toml::table &table, const std::string &file, config &settings) {
    const toml_reader in(table, file);
    in.expect_keys({"interfaces"});
    const toml::array *names = in.array("interfaces", R"(["wlan0", "wlan1"])");
    if (names == nullptr)
        return;
    for (const toml::node &entry : *names) {
        const auto name = entry.value_exact<std::string>();
        if (!name || name->empty() || name->size() >= IFNAMSIZ)
            in.fail(entry, "'interfaces' holds something other than an interface name of 1 to 15 "
                           "characters");
        settings.inline_interfaces.push_back(*name);
    }
}

void read_web(const toml::table &table, const std::string &file, config &settings) {
    const toml_reader in(table, file);
    in.expect_keys({"categories", "safe_search"});
    settings.safe_search = in.text("safe_search").value_or("");
    const toml::array *lists =
        in.array("categories", R"(["categories.txt", "hosts.txt=Advertising"])");
    if (lists == nullptr)
        return;
    for (const toml::node &entry : *lists) {
        const auto list = entry.value_exact<std::string>();
        if (!list || list->empty())
            in.fail(entry, "'categories' holds something other than \"FILE\" and "
                           "\"FILE=CATEGORY\"");
        settings.categories.push_back(*list);
    }
}

} // namespace

config parse_config(std::string_view text, const std::string &name) {
    const toml::table root = parse_toml(text, name);
    const toml_reader in(root, name);
    config settings;
    mistakes wrong;
    const auto read_table = [&](std::string_view key, const auto &read) {
        wrong.in([&] {
            if (const toml::table *table = in.table(key))
                read(*table);
        });
    };
    wrong.in([&] {
        in.expect_keys({"dpi", "client", "uplink", "rule", "platform", "bus", "enforce", "names",
                        "capture", "inline", "web"});
    });
    wrong.in([&] { in.flag("dpi", settings.dpi); });
    if (!settings.dpi)
        settings.platform_values.clear(); // the daemon's default: no engine
    read_table("client", [&](const toml::table &client) {
        const toml_reader client_in(client, name);
        client_in.expect_keys({"interface", "if_index", "utp_id", "web_utp", "filter_type"});
        read_client(client_in, settings.client);
    });
    read_table("uplink", [&](const toml::table &uplink) {
        const toml_reader uplink_in(uplink, name);
        uplink_in.expect_keys({"interface", "if_index", "utp_id"});
        read_side(uplink_in, settings.uplink);
    });
    wrong.in([&] { read_rules(in, name, settings, wrong); });
    read_table("platform", [&](const auto &table) { read_platform(table, name, "", settings); });
    read_table("bus", [&](const auto &table) { settings.bus = read_bus(table, name); });
    read_table("enforce", [&](const auto &table) { read_enforce(table, name, settings.enforce); });
    read_table("capture", [&](const auto &table) { read_capture(table, name, settings.capture); });
    read_table("names", [&](const auto &table) { read_names(table, name, settings); });
    read_table("inline", [&](const auto &table) { read_inline(table, name, settings); });
    read_table("web", [&](const auto &table) { read_web(table, name, settings); });
    wrong.raise();
    warn_of_url_filtering(root, in, settings);
    return settings;
}

config read_config(const std::string &path) {
    return parse_config(read_config_text(path), path);
}

} // namespace avcore
