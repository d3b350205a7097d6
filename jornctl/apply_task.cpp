#include "jornctl/apply_task.h"

#include "control/lines/arc_listing.h"
#include "jornctl/base/complain.h"
#include "jornctl/base/failure.h"
#include "jornctl/base/files.h"
#include "jornctl/base/printable.h"
#include "jornctl/base/suggestion.h"
#include "jornctl/client/apply.h"
#include "jornctl/client/commands.h"
#include "jornctl/client/listings.h"
#include "shared/counted.h"

#include <algorithm>
#include <iostream>

namespace jornctl {
namespace {

// What the document's tables do to those of the daemon, which has to be asked.
class daemon_checks {
public:
    daemon_checks(document &read, const client &daemon) : read_(read), daemon_{daemon} {}

    void warn_beforehand() {
        warn_of_unnamed_bindings();
        warn_of_lost_utps();
        warn_of_web_utps();
        if (leaves_policies_to_daemon() && !daemon_.has_policies())
            warn_of_lonely_utps([](const utp_entry_wire &) { return true; });
    }

    // Of UTP entries whose policies only the daemon may have: whether they found them. It shows no
    // uuid of a policy beforehand, only whether there is any.
    void warn_afterwards() {
        if (leaves_policies_to_daemon() && daemon_.has_policies())
            warn_of_utps_left_lonely();
        if (read_.web_utps && !read_.web_policies)
            warn_of_lonely_web_utps();
    }

private:
    bool leaves_policies_to_daemon() const {
        return read_.utps && !read_.policies &&
               std::ranges::any_of(*read_.utps,
                                   [](const auto &entry) { return entry.uuid[0] != '\0'; });
    }

    // Carriers that go take those of every binding with them, until it is set again.
    void warn_of_unnamed_bindings() {
        if (!read_.carriers || !read_.wificalling_interfaces)
            return;
        for (const ordered_json &binding : daemon_.list(CMD_WIFICALLING_INTF_SHOW_REQ)) {
            const std::string ifname = binding["ifname"].get<std::string>();
            const auto is_named = [&](const wificalling_intf_wire &named) {
                return ifname == named.ifname;
            };
            if (std::ranges::none_of(*read_.wificalling_interfaces, is_named))
                read_.found.warning("/carriers",
                                    "interface " + ifname +
                                        " loses its carriers, for the document doesn't name it");
        }
    }

    // One command empties both tables of UTPs.
    void warn_of_lost_utps() {
        if (!read_.web_utps || read_.utps)
            return;
        std::vector<std::string> lost;
        for (const ordered_json &entry : daemon_.list(CMD_UTP_SHOW_REQ)) {
            const auto id = entry["id"].get<uint32_t>();
            if (!read_.policies || !has_policy_of(*read_.policies, id))
                lost.push_back(std::to_string(id));
        }
        if (!lost.empty())
            read_.found.warning("/web_utps",
                                "the ARC UTP table is emptied with this one: " + joined(lost));
    }

    // Those that go, or that are left without a policy: no command frees one of them alone.
    void warn_of_web_utps() {
        if (read_.web_utps || (!read_.utps && !read_.web_policies))
            return;
        std::vector<std::string> lost;
        for (uint32_t id = UTP_ID_MIN; id <= UTP_ID_MAX; ++id) {
            const bool comes_back = read_.web_policies && has_policy_of(*read_.web_policies, id);
            if (!comes_back && daemon_.web_utp(id))
                lost.push_back(std::to_string(id));
        }
        if (lost.empty())
            return;
        if (read_.utps)
            read_.found.warning("/utps",
                                "the web UTP table is emptied with this one: " + joined(lost));
        else
            read_.found.warning("/web_policies",
                                "web UTPs stay in use, without a policy: " + joined(lost));
    }

    template <typename Policy>
    static bool has_policy_of(const std::vector<Policy> &policies, uint32_t utp_id) {
        return std::ranges::any_of(policies,
                                   [=](const auto &each) { return each.utp_id == utp_id; });
    }

    template <typename IsLonely>
    void warn_of_lonely_utps(const IsLonely &is_lonely) {
        for (size_t i = 0; i < read_.utps->size(); ++i) {
            const utp_entry_wire &entry = (*read_.utps)[i];
            if (entry.uuid[0] != '\0' && is_lonely(entry))
                warn_of_lonely("utps", i, entry);
        }
    }

    void warn_of_utps_left_lonely() {
        const ordered_json listed = daemon_.list(CMD_UTP_SHOW_REQ);
        warn_of_lonely_utps([&](const utp_entry_wire &entry) {
            return std::ranges::any_of(listed, [&](const ordered_json &each) {
                return each["id"] == entry.id && each["arc_policy"] == LISTED_NO_POLICY;
            });
        });
    }

    void warn_of_lonely_web_utps() {
        for (size_t i = 0; i < read_.web_utps->size(); ++i) {
            const utp_entry_wire &entry = (*read_.web_utps)[i];
            if (entry.uuid[0] == '\0')
                continue;
            const std::optional<ordered_json> listed = daemon_.web_utp(entry.id);
            if (listed && (*listed)["policy"].is_null())
                warn_of_lonely("web_utps", i, entry);
        }
    }

    void warn_of_lonely(const char *table, size_t index, const utp_entry_wire &entry) {
        read_.found.warning("/" + std::string(table) + '/' + std::to_string(index) + "/uuid",
                            "the daemon has no policy of this uuid, so all of UTP " +
                                std::to_string(entry.id) + " passes");
    }

    // The daemon's listings as JSON.
    struct lister {
        const client &daemon;

        ordered_json list(command_number command) const {
            const listing &wanted = listing_of(command);
            return wanted.parse(ask(daemon, wanted, {}));
        }
        bool has_policies() const {
            for (uint32_t id = UTP_ID_MIN; id <= UTP_ID_MAX; ++id) {
                const std::string reply = daemon.send({CMD_CHECK_PRIORITY_REQ, record_bytes(id)});
                if (refusal_in(CMD_CHECK_PRIORITY_REQ, reply).empty())
                    return true;
            }
            return false;
        }
        std::optional<ordered_json> web_utp(uint32_t id) const {
            const listing &wanted = listing_of(CMD_UTP_WEB_POLICY_SHOW_REQ);
            const std::string reply = daemon.send({wanted.command, record_bytes(id)});
            if (!refusal_in(wanted.command, reply).empty())
                return std::nullopt;
            return wanted.parse(reply);
        }
    };

    document &read_;
    lister daemon_;
};

void print_warnings(const document &read, const std::string &file) {
    for (const std::string &warning : read.found.warnings())
        complain(std::string("warning: ").append(file).append(": ").append(warning));
}

// Nothing, and everything said, for a document that isn't to be sent.
std::optional<document> load_document(const apply_settings &wanted, const client &daemon) {
    const std::string text = read_file(wanted.file);
    try {
        document read = read_document(text, ask_platform());
        if (!read.found.has_mistakes() && !wanted.check_only && !wanted.dry_run)
            daemon_checks(read, daemon).warn_beforehand();
        for (const std::string &mistake : read.found.mistakes())
            complain(std::string(wanted.file).append(": ").append(mistake));
        print_warnings(read, wanted.file);
        if (read.found.has_mistakes())
            return std::nullopt;
        if (wanted.strict && read.found.has_warnings())
            throw refused("--strict takes no warnings");
        return read;
    } catch (const refused &reason) {
        throw refused(wanted.file + ": " + reason.what());
    }
}

void send_all(const std::vector<command> &commands, const client &daemon) {
    size_t sent = 0;
    try {
        for (; sent < commands.size(); ++sent) {
            const std::string reply = daemon.send(commands[sent]);
            if (commands[sent].number == CMD_WRITE_CFG_REQ)
                check_answer(reply, CMD_WRITE_CFG_REQ);
        }
    } catch (const no_daemon &reason) {
        if (sent == 0)
            throw;
        throw no_daemon(reason.what() + std::string("; the tables are half made (") +
                        std::to_string(sent) + " of " + std::to_string(commands.size()) +
                        " commands sent), apply again");
    }
}

struct table_count {
    const char *one;
    const char *more;
    std::optional<size_t> (*of)(const document &sent); // nothing for a table that isn't mentioned
};

template <auto Table>
std::optional<size_t> size_of(const document &sent) {
    return sent.*Table ? std::optional((sent.*Table)->size()) : std::nullopt;
}

constexpr table_count COUNTS[] = {
    {"policy", "policies", size_of<&document::policies>},
    {"UTP", "UTPs", size_of<&document::utps>},
    {"application", "applications", size_of<&document::applications>},
    {"web policy", "web policies", size_of<&document::web_policies>},
    {"web UTP", "web UTPs", size_of<&document::web_utps>},
    {"web interface", "web interfaces", size_of<&document::web_interfaces>},
    {"carrier", "carriers", size_of<&document::carriers>},
    {"Wi-Fi calling interface", "Wi-Fi calling interfaces",
     size_of<&document::wificalling_interfaces>},
};

std::string counts_of(const document &sent) {
    std::string text;
    for (const table_count &each : COUNTS) {
        const std::optional<size_t> count = each.of(sent);
        if (count)
            text += (text.empty() ? "" : ", ") + counted(*count, each.one, each.more);
    }
    return text;
}

} // namespace

int apply_document(const apply_settings &wanted, const client &daemon) {
    std::optional<document> read = load_document(wanted, daemon);
    if (!read)
        return STATUS_REFUSED;
    if (wanted.check_only)
        return STATUS_DONE;
    const std::vector<command> commands = commands_of(*read);
    if (wanted.dry_run) {
        for (const command &each : commands)
            std::cout << printable(describe(each), "\n");
        return STATUS_DONE;
    }
    send_all(commands, daemon);
    read->found.forget_warnings();
    daemon_checks(*read, daemon).warn_afterwards();
    print_warnings(*read, wanted.file);
    std::cout << "sent " << counts_of(*read) << '\n';
    if (wanted.strict && read->found.has_warnings())
        throw refused(wanted.file + ": --strict takes no warnings, but this one shows only when "
                                    "all is sent");
    return STATUS_DONE;
}

} // namespace jornctl
