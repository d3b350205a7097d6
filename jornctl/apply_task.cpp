#include "jornctl/apply_task.h"

#include "control/lines/arc_listing.h"
#include "core/files/saved_files_folder.h"
#include "jornctl/base/complain.h"
#include "jornctl/base/failure.h"
#include "jornctl/base/files.h"
#include "jornctl/base/printable.h"
#include "jornctl/client/apply.h"
#include "jornctl/client/commands.h"
#include "jornctl/client/listings.h"
#include "jornctl/client/sending.h"
#include "jornctl/memory/applied.h"
#include "jornctl/memory/baseline.h"
#include "jornctl/tables/differing_commands.h"
#include "shared/counted.h"
#include "shared/suggestion.h"

#include <algorithm>
#include <iostream>

namespace jornctl {
namespace {

// What the document's tables do to those of the daemon, which has to be asked.
class daemon_checks {
public:
    daemon_checks(document &read, const client &daemon) : read_(read), daemon_(daemon) {}

    void warn_beforehand() {
        warn_of_unnamed_bindings();
        warn_of_lost_utps();
        warn_of_web_utps();
        if (leaves_policies_to_daemon() && !has_policies())
            warn_of_lonely_utps([](const utp_entry_wire &) { return true; });
    }

    // Of UTP entries whose policies only the daemon may have: whether they found them. It shows no
    // uuid of a policy beforehand, only whether there is any.
    void warn_afterwards() {
        if (leaves_policies_to_daemon() && has_policies())
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
        for (const ordered_json &binding : listed(daemon_, CMD_WIFICALLING_INTF_SHOW_REQ)) {
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
        for (const ordered_json &entry : listed(daemon_, CMD_UTP_SHOW_REQ)) {
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
            if (!comes_back && web_utp(id))
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
        const ordered_json entries = listed(daemon_, CMD_UTP_SHOW_REQ);
        warn_of_lonely_utps([&](const utp_entry_wire &entry) {
            return std::ranges::any_of(entries, [&](const ordered_json &each) {
                return each["id"] == entry.id && each["arc_policy"] == LISTED_NO_POLICY;
            });
        });
    }

    void warn_of_lonely_web_utps() {
        for (size_t i = 0; i < read_.web_utps->size(); ++i) {
            const utp_entry_wire &entry = (*read_.web_utps)[i];
            if (entry.uuid[0] == '\0')
                continue;
            const std::optional<ordered_json> shown = web_utp(entry.id);
            if (shown && (*shown)["policy"].is_null())
                warn_of_lonely("web_utps", i, entry);
        }
    }

    void warn_of_lonely(const char *table, size_t index, const utp_entry_wire &entry) {
        read_.found.warning("/" + std::string(table) + '/' + std::to_string(index) + "/uuid",
                            "the daemon has no policy of this uuid, so all of UTP " +
                                std::to_string(entry.id) + " passes");
    }

    bool has_policies() const {
        for (uint32_t id = UTP_ID_MIN; id <= UTP_ID_MAX; ++id) {
            const std::string reply = daemon_.send({CMD_CHECK_PRIORITY_REQ, record_bytes(id)});
            if (refusal_in(CMD_CHECK_PRIORITY_REQ, reply).empty())
                return true;
        }
        return false;
    }

    std::optional<ordered_json> web_utp(uint32_t id) const {
        return listed(daemon_, CMD_UTP_WEB_POLICY_SHOW_REQ, record_bytes(id));
    }

    document &read_;
    const client &daemon_;
};

void print_warnings(const document &read, const std::string &file) {
    complain_of(read.found.warnings(), std::string("warning: ").append(file).append(": "));
}

// Nothing, and everything said, for a document that isn't to be sent.
std::optional<document> load_document(const apply_settings &wanted, const client &daemon) {
    const std::string text = read_file(wanted.file);
    try {
        document read = read_document(text, ask_platform());
        if (!read.found.has_mistakes() && !wanted.check_only && !wanted.dry_run)
            daemon_checks(read, daemon).warn_beforehand();
        complain_of(read.found.mistakes(), wanted.file + ": ");
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

// Whoever breaks off from here on leaves no memory of what isn't there.
void forget_before_sending() {
    try {
        forget_applied(SAVED_FILES_FOLDER);
    } catch (const refused &reason) {
        complain(std::string("warning: ") + reason.what());
    }
}

// What differs, where it is known what is there.
way way_to(const document &wanted, const baseline &before) {
    return before.is_remembered ? shortest_way(before.tables, wanted)
                                : whole_way(before.tables, wanted);
}

// Where no daemon can be asked what it has, all is sent.
void print_commands(const document &wanted, const client &daemon) {
    baseline before;
    try {
        before = learn_baseline(&daemon, SAVED_FILES_FOLDER);
    } catch (const no_daemon &) {
    } catch (const refused &reason) { // whoever may not use the socket may see what they would send
        complain(reason.what());
    }
    for (const command_group &group : way_to(wanted, before).groups) {
        for (const command &each : group)
            std::cout << printable(describe(each), "\n");
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
    if (wanted.dry_run) {
        print_commands(*read, daemon);
        return STATUS_DONE;
    }
    const apply_lock alone(SAVED_FILES_FOLDER);
    const baseline before = learn_baseline(&daemon, SAVED_FILES_FOLDER);
    const way taken = way_to(*read, before);
    const size_t count = count_of(taken.groups);
    if (count > 0) {
        forget_before_sending();
        send_all(taken.groups, daemon);
        baseline after = after_all(before, *read);
        after.tables = taken.end;
        remember(after, daemon, SAVED_FILES_FOLDER);
    }
    read->found.forget_warnings();
    daemon_checks(*read, daemon).warn_afterwards();
    print_warnings(*read, wanted.file);
    if (!before.is_remembered)
        std::cout << "sent " << counts_of(*read) << '\n';
    else if (count > 0)
        std::cout << "sent what differs, "
                  << counted(count, "command of ", "commands of ") +
                         std::to_string(commands_of(*read).size())
                  << '\n';
    else
        std::cout << "nothing differs, nothing is sent\n";
    if (wanted.strict && read->found.has_warnings())
        throw refused(wanted.file + ": --strict takes no warnings, but this one shows only when "
                                    "all is sent");
    return STATUS_DONE;
}

} // namespace jornctl
