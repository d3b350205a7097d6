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

void read_history(const toml::table &table, const std::string &file, history_settings &history) {
    constexpr std::pair<std::string_view, names_kept> kinds[] = {
        {"full", names_kept::full}, {"domain", names_kept::domain}, {"none", names_kept::none}};
    const toml_reader in(table, file);
    in.expect_keys({"file", "names", "limit", "commit"});
    history.file = in.text("file").value_or(history.file);
    in.choice("names", kinds, history.names);
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
    const toml::node *found = in.find("hosts");
    const toml::array *names = found != nullptr ? found->as_array() : nullptr;
    if (found != nullptr && names == nullptr)
        in.fail(*found, "'hosts' must be a list of names, as in [\"ap.example\"]");
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

} // namespace

settings read_settings(const std::string &path) {
    settings read;
    if (path == SETTINGS_FILE && access(path.c_str(), F_OK) != 0 && errno == ENOENT)
        return read;
    const toml::table root = avcore::parse_toml(avcore::read_config_text(path), path);
    const toml_reader in(root, path);
    in.expect_keys({"alias", "history", "http", "metrics"});
    if (const toml::table *aliases = in.table("alias"))
        read.aliases = read_aliases(*aliases, path);
    if (const toml::table *history = in.table("history"))
        read_history(*history, path, read.history);
    if (const toml::table *metrics = in.table("metrics"))
        read_metrics(*metrics, path, read);
    if (const toml::table *http = in.table("http"))
        read_http(*http, path, read.http);
    return read;
}

} // namespace avwatch
