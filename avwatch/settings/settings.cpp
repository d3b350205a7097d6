#include "avwatch/settings/settings.h"

#include "avcore/base/host_text.h"
#include "avcore/settings/toml_reader.h"
#include "avwatch/base/addresses.h"

#include <cerrno>
#include <unistd.h>

namespace avwatch {
namespace {

using avcore::toml_reader;

client_aliases read_aliases(const toml::table &table, const std::string &file) {
    const toml_reader in(table, file);
    client_aliases aliases;
    for (const auto &[key, node] : table) {
        const std::string name(key.str());
        const std::string text = in.text(name).value_or("");
        const std::optional<std::string> mac = canonical_mac(text);
        const std::optional<std::string> whom = mac ? mac : canonical_address(text);
        if (!whom)
            in.fail(node, toml_reader::quoted(name) +
                              " must be a MAC address or an IP address, as in "
                              "\"02:00:00:00:00:01\" or \"192.0.2.10\"");
        if (canonical_mac(name) || canonical_address(name))
            in.fail(node, toml_reader::quoted(name) + " is an address; an alias is a name");
        aliases.emplace(name, *whom);
    }
    return aliases;
}

constexpr std::pair<std::string_view, names_kept> KINDS_OF_NAMES[] = {
    {"full", names_kept::full}, {"domain", names_kept::domain}, {"none", names_kept::none}};

void read_history(const toml::table &table, const std::string &file, history_settings &history) {
    const toml_reader in(table, file);
    in.expect_keys({"file", "names", "limit", "commit"});
    history.file = in.text("file").value_or(history.file);
    in.choice("names", KINDS_OF_NAMES, history.names);
    in.number("limit", history.limit_mb, LIMIT_MB_MAX);
    if (history.limit_mb < LIMIT_MB_MIN)
        in.fail(*in.find("limit"), "'limit' must be at least " + std::to_string(LIMIT_MB_MIN));
    in.number("commit", history.commit_s, COMMIT_S_MAX);
    if (history.commit_s == 0)
        in.fail(*in.find("commit"), "'commit' must be at least 1");
}

void read_metrics(const toml::table &table, const std::string &file, settings &read) {
    const toml_reader in(table, file);
    in.expect_keys({"http", "clients"});
    read.http.address = in.text("http").value_or(read.http.address);
    in.flag("clients", read.history.client_metrics);
}

std::vector<std::string> read_hosts(const toml_reader &in) {
    std::vector<std::string> hosts;
    const toml::array *names = in.array("hosts", R"(["ap.example"])");
    for (size_t i = 0; names != nullptr && i < names->size(); ++i) {
        std::string name = (*names)[i].value_or(std::string());
        if (!avcore::is_host_text(name))
            in.fail((*names)[i], "'hosts' must have names as in \"ap.example\", without ports");
        if (name.ends_with('.'))
            name.pop_back(); // as of what is asked for
        hosts.push_back(avcore::lower_case(name));
    }
    return hosts;
}

void read_http(const toml::table &table, const std::string &file, http_settings &http) {
    const toml_reader in(table, file);
    in.expect_keys({"address", "hosts", "token", "certificate", "key"});
    http.address = in.text("address").value_or(http.address);
    http.hosts = read_hosts(in);
    http.token_file = in.text("token").value_or(http.token_file);
    http.certificate = in.text("certificate").value_or("");
    http.key = in.text("key").value_or("");
    if (http.certificate.empty() != http.key.empty())
        in.fail(*in.find(http.key.empty() ? "certificate" : "key"),
                "'certificate' and 'key' go together");
}

// "udp://collector:4739", "udp://[2001:db8::1]"
void read_target(const toml::table &table, const toml_reader &in, export_settings &wanted) {
    constexpr std::string_view scheme = "udp://";
    const std::optional<std::string> text = in.text("ipfix");
    wanted.target = text.value_or("");
    std::string rest = wanted.target.starts_with(scheme) ? wanted.target.substr(scheme.size()) : "";
    const bool is_bracketed = rest.starts_with('[');
    const size_t end = is_bracketed ? rest.find(']') : rest.find(':');
    wanted.host =
        avcore::lower_case(rest.substr(is_bracketed ? 1 : 0, end - (is_bracketed ? 1 : 0)));
    rest = end == std::string::npos ? "" : rest.substr(end + (is_bracketed ? 1 : 0));
    wanted.port = rest.empty() ? IPFIX_PORT : rest.substr(1);
    const bool is_host = is_bracketed ? canonical_address(wanted.host) && end != std::string::npos
                                      : avcore::is_host_text(wanted.host);
    const bool is_port = !wanted.port.empty() && wanted.port.size() <= 5 &&
                         wanted.port.find_first_not_of("0123456789") == std::string::npos &&
                         std::stoul(wanted.port) <= UINT16_MAX && std::stoul(wanted.port) != 0;
    if (!is_host || !is_port || (!rest.empty() && rest.front() != ':'))
        in.fail(
            text ? *in.find("ipfix") : table,
            "'ipfix' must say where the collector is, as in \"udp://collector.example:4739\" or "
            "\"udp://[2001:db8::1]\"");
}

void read_seconds(const toml_reader &in, std::string_view key, uint32_t &seconds) {
    in.number(key, seconds, TIMEOUT_S_MAX);
    if (seconds == 0)
        in.fail(*in.find(key), toml_reader::quoted(key) + " must be at least 1");
}

export_settings read_export(const toml::table &table, const std::string &file,
                            names_kept most_names) {
    const toml_reader in(table, file);
    in.expect_keys({"ipfix", "active_timeout", "inactive_timeout", "refresh", "clients", "names",
                    "enterprise", "access_point"});
    export_settings wanted;
    read_target(table, in, wanted);
    read_seconds(in, "active_timeout", wanted.active_s);
    read_seconds(in, "inactive_timeout", wanted.inactive_s);
    read_seconds(in, "refresh", wanted.refresh_s);
    in.flag("clients", wanted.clients);
    wanted.names = most_names;
    in.choice("names", KINDS_OF_NAMES, wanted.names);
    if (wanted.names < most_names)
        in.fail(*in.find("names"), "'names' tells more than 'names' in [history], whose file has "
                                   "the applications' numbers");
    if (in.find("enterprise") != nullptr) {
        in.number("enterprise", wanted.enterprise.emplace());
        if (*wanted.enterprise == 0)
            in.fail(*in.find("enterprise"), "'enterprise' must be at least 1: 0 is IANA");
    }
    if (const std::optional<std::string> mac = in.text("access_point")) {
        wanted.access_point = canonical_mac(*mac).value_or("");
        if (wanted.access_point.empty())
            in.fail(*in.find("access_point"), "'access_point' must be a MAC address");
    }
    return wanted;
}

void read_exports(const toml::table &root, const std::string &file, settings &read) {
    const toml::node *found = root.get("export");
    if (found == nullptr)
        return;
    const toml_reader in(root, file);
    const toml::array *tables = found->as_array();
    if (tables == nullptr || !tables->is_homogeneous(toml::node_type::table))
        in.fail(*found, "'export' must be [[export]] tables");
    if (tables->size() > EXPORTS_MAX)
        in.fail((*tables)[EXPORTS_MAX],
                "there may be " + std::to_string(EXPORTS_MAX) + " [[export]] tables");
    for (const toml::node &each : *tables) {
        export_settings wanted = read_export(*each.as_table(), file, read.history.names);
        for (const export_settings &other : read.exports) {
            if (other.host == wanted.host && other.port == wanted.port)
                in.fail(each, "there are two [[export]] tables for " + wanted.target);
        }
        read.exports.push_back(std::move(wanted));
    }
}

} // namespace

settings read_settings(const std::string &path) {
    settings read;
    if (path == SETTINGS_FILE && access(path.c_str(), F_OK) != 0 && errno == ENOENT)
        return read;
    const toml::table root = avcore::parse_toml(avcore::read_config_text(path), path);
    const toml_reader in(root, path);
    in.expect_keys({"alias", "export", "history", "http", "metrics"});
    if (const toml::table *aliases = in.table("alias"))
        read.aliases = read_aliases(*aliases, path);
    if (const toml::table *history = in.table("history"))
        read_history(*history, path, read.history);
    if (const toml::table *metrics = in.table("metrics"))
        read_metrics(*metrics, path, read);
    if (const toml::table *http = in.table("http"))
        read_http(*http, path, read.http);
    read_exports(root, path, read);
    return read;
}

} // namespace avwatch
