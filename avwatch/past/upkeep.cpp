#include "avwatch/base/failure.h"
#include "avwatch/history/export_rows.h"
#include "avwatch/history/schema.h"
#include "avwatch/history/usage.h"
#include "avwatch/past/history_file.h"
#include "avwatch/past/past.h"
#include "avwatch/serve/serve.h"
#include "shared/counted.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace avwatch {
namespace {

struct upkeep_request {
    std::string history;
    std::string client;
    std::string target;
    std::string http;

    std::string file(const settings &read) const {
        return history.empty() ? read.history.file : history;
    }
};

// Of applications that nobody else used. Series of the metrics stay: they are everybody's.
void drop_unused_names(database &file) {
    file.run("DELETE FROM applications WHERE id != 0 AND id NOT IN (SELECT application FROM days);"
             "DELETE FROM candidates WHERE (application, is_name) NOT IN "
             "(SELECT name, is_name FROM applications);"
             "DELETE FROM application_numbers WHERE (name, is_name) NOT IN "
             "(SELECT name, is_name FROM applications)");
}

// Overwritten, also where the file has it behind what is deleted.
int forget(const invocation &asked, const upkeep_request &wanted) {
    const settings read = read_settings(asked.settings_file);
    database file = open_history(wanted.file(read), database::access::read_write);
    const std::string key = find_client(file, read.aliases, wanted.client);
    file.run("PRAGMA secure_delete = ON");
    uint64_t rows = 0;
    transaction all(file);
    const auto remove = [&](const std::string &sql) {
        statement row(file, sql);
        row.bind(0, std::string_view(key)).run();
        rows += static_cast<uint64_t>(file.changes());
    };
    for (const period &each : PERIODS)
        remove(std::string("DELETE FROM ") + each.table +
               " WHERE client = (SELECT id FROM clients WHERE client = ?)");
    remove("DELETE FROM client_totals WHERE client = ?");
    remove("DELETE FROM clients WHERE client = ? AND id != 0");
    drop_unused_names(file);
    all.commit();
    file.run("PRAGMA wal_checkpoint(TRUNCATE)");
    if (rows == 0)
        throw refused("the history has no client " + key);
    std::cout << counted(rows, "row", "rows") << " deleted\n";
    return STATUS_DONE;
}

int back_up(const invocation &asked, const upkeep_request &wanted) {
    const settings read = read_settings(asked.settings_file);
    database file = open_history(wanted.file(read), database::access::read_only);
    if (access(wanted.target.c_str(), F_OK) == 0)
        throw refused(wanted.target + " is there already");
    umask(077);
    statement copy(file, "VACUUM INTO ?");
    try {
        copy.bind(0, std::string_view(wanted.target)).run();
        database copied(wanted.target, database::access::read_write);
        forget_numbers(copied);
    } catch (const database_error &) {
        unlink(wanted.target.c_str()); // what there is of it
        throw;
    }
    return STATUS_DONE;
}

int start_serving(const invocation &asked, const upkeep_request &wanted) {
    settings used = read_settings(asked.settings_file);
    used.history.file = wanted.file(used);
    if (!wanted.http.empty())
        used.http.address = wanted.http;
    return serve(used, asked.watch_socket, asked.utc);
}

using task = int (*)(const invocation &asked, const upkeep_request &wanted);

std::shared_ptr<upkeep_request> add(subcommand &command, invocation &asked, task chosen) {
    auto wanted = std::make_shared<upkeep_request>();
    add_history(command, wanted->history);
    command.callback([&asked, wanted, chosen] {
        asked.action = [&asked, wanted, chosen] { return chosen(asked, *wanted); };
    });
    return wanted;
}

} // namespace

void add_history(subcommand &command, std::string &path) {
    command.add_option("--history", path, "The history's file, in place of the TOML file's",
                       {.type_name = "PATH"});
}

database open_history(const std::string &path, database::access wanted) {
    if (access(path.c_str(), F_OK) != 0 && errno == ENOENT)
        throw refused("there is no history at " + path + ": \"avwatch serve\" keeps one");
    if (access(path.c_str(), wanted == database::access::read_only ? R_OK : W_OK) != 0)
        throw refused(path + ": " + strerror(errno) + "; run avwatch as root, or as its owner");
    database file(path, wanted);
    check_history(file);
    return file;
}

std::string find_client(database &file, const client_aliases &aliases, const std::string &meant) {
    const auto alias = aliases.find(meant);
    const std::string &text = alias != aliases.end() ? alias->second : meant;
    return known_clients(aliases, read_clients_meant(file, text)).find(meant);
}

void add_serve(CLI::App &app, invocation &asked) {
    subcommand command(
        app, "serve", "Keep the history, and show it and the present on a page",
        "It runs until it is told to stop (SIGTERM), also while there is no avcore.");
    const auto wanted = add(command, asked, start_serving);
    command.add_option("--http", wanted->http,
                       "Where the page and /metrics are to be, as in 127.0.0.1:8080",
                       {.type_name = "ADDR:PORT"});
}

void add_forget(CLI::App &app, invocation &asked) {
    subcommand command(
        app, "forget", "Delete what the history has of a client",
        "Its open flows stay until they end, and count on: they are stored so that nothing is\n"
        "counted twice.");
    const auto wanted = add(command, asked, forget);
    command.add_option("--client", wanted->client, "A MAC or IP address, an alias, a host name",
                       {.is_required = true});
}

void add_backup(CLI::App &app, invocation &asked) {
    subcommand command(app, "backup", "Copy the history, also while it is written");
    const auto wanted = add(command, asked, back_up);
    command.add_option("FILE", wanted->target, "The copy, which is not there yet",
                       {.is_required = true});
}

} // namespace avwatch
