#include "jornctl/memory/baseline.h"

#include "control/records/commands.h"
#include "core/text/text.h"
#include "jornctl/base/complain.h"
#include "jornctl/base/failure.h"
#include "jornctl/client/apply.h"
#include "jornctl/memory/applied.h"
#include "jornctl/memory/listed_tables.h"
#include "jornctl/tables/differing_commands.h"
#include "jornctl/tables/document_of.h"

#include <algorithm>

namespace jornctl {
namespace {

constexpr char NOT_USED[] = "; what the last apply left isn't used";

bool has_utps(const utp_table &table) {
    return std::ranges::any_of(table, [](const linked_utp &each) { return each.entry.id != 0; });
}

// Why the memory is no longer true, or nothing.
std::string outdated(const applied &memory, const daemon_tables &tables, const client *daemon,
                     const std::string &folder) {
    const pid_t pid = daemon != nullptr ? daemon->listener() : memory.daemon.pid;
    if (start_of(pid) != memory.daemon)
        return daemon != nullptr ? "the daemon was started since" : "the daemon has ended since";
    const file_hashes hashes = hash_saved_files(folder);
    for (const auto &[name, hash] : hashes) {
        const auto known = memory.files.find(name);
        if (known == memory.files.end() || known->second != hash)
            return name + " was written since by somebody else";
    }
    const std::string other = daemon != nullptr ? contradiction(tables, *daemon) : std::string();
    return other.empty() ? other : other + " were changed since by somebody else";
}

// Carriers that a flush took are in the file until a command writes it.
bool is_wificalling_file_behind(const daemon_tables &tables, const std::string &folder) {
    return !std::ranges::equal(tables_in_files(folder).carriers, tables.carriers,
                               same_bytes<wificalling_policy_wire>);
}

std::optional<baseline> remembered(const client *daemon, const std::string &folder) {
    try {
        const std::optional<applied> memory = read_applied(folder);
        if (!memory)
            return std::nullopt;
        daemon_tables tables = tables_of(memory->made);
        const std::string reason = outdated(*memory, tables, daemon, folder);
        if (reason.empty()) {
            tables.wificalling_file_behind = is_wificalling_file_behind(tables, folder);
            return baseline{.tables = std::move(tables),
                            .known = KNOWS_ALL,
                            .is_remembered = true,
                            .daemon = memory->daemon};
        }
        complain(reason + NOT_USED);
    } catch (const refused &reason) {
        complain(reason.what() + std::string(NOT_USED));
    }
    return std::nullopt;
}

// What isn't as it was sent, or nothing.
std::string spoiled(const daemon_tables &tables, const client &daemon, const std::string &folder) {
    std::string other = contradiction(tables, daemon);
    if (other.empty() && !are_saved(tables, folder))
        other = "the saved files";
    return other;
}

} // namespace

std::vector<std::string> baseline::doubts() const {
    std::vector<std::string> doubts;
    if ((known & KNOWS_OTHERS) == 0)
        doubts.emplace_back("whether bindings have their policies and carriers");
    if ((known & KNOWS_POLICIES) == 0)
        doubts.emplace_back("the uuids of the ARC policies");
    if ((known & KNOWS_UTPS) == 0)
        doubts.emplace_back("by which uuid UTPs have their policies");
    if ((known & KNOWS_WEB_POLICIES) == 0)
        doubts.emplace_back("which UTP a web policy is for that no web UTP shows");
    if ((known & KNOWS_WEB_UTPS) == 0)
        doubts.emplace_back("by which uuid web UTPs have their policies");
    if ((known & KNOWS_CARRIERS) == 0)
        doubts.emplace_back("which carriers of the file are still there");
    return doubts;
}

baseline learn_baseline(const client *daemon, const std::string &folder) {
    if (std::optional<baseline> kept = remembered(daemon, folder))
        return *kept;
    baseline seen;
    if (daemon != nullptr)
        seen.daemon = start_of(daemon->listener());
    try {
        seen.tables = tables_in_files(folder);
    } catch (const refused &reason) {
        complain(reason.what());
        seen.are_files_read = false;
        return seen;
    }
    daemon_tables &tables = seen.tables;
    const listings_fit fit =
        daemon != nullptr ? complete_from_listings(tables, *daemon) : listings_fit();
    const auto knows = [&](table_bit table, bool is_known) {
        if (is_known)
            seen.known |= table;
    };
    knows(KNOWS_OTHERS, fit.bindings);
    knows(KNOWS_POLICIES, fit.arc && tables.policies.empty());
    knows(KNOWS_UTPS, fit.arc && !has_utps(tables.utps));
    knows(KNOWS_WEB_POLICIES, fit.web_utps && tables.web_policies.empty());
    knows(KNOWS_WEB_UTPS, fit.web_utps && !has_utps(tables.web_utps));
    knows(KNOWS_CARRIERS, fit.bindings && tables.carriers.empty());
    return seen;
}

baseline after_all(const baseline &before, const document &wanted) {
    baseline after = {.tables = before.tables, .known = before.known, .daemon = before.daemon};
    const std::vector<command> all = commands_of(wanted);
    after.tables.take(all);
    // With their policies UTP entries lose their links, but for those that the new ones make.
    if (wanted.policies)
        after.known |= KNOWS_POLICIES | KNOWS_UTPS;
    if (wanted.web_policies)
        after.known |= KNOWS_WEB_POLICIES | KNOWS_WEB_UTPS;
    if (wanted.carriers)
        after.known |= KNOWS_CARRIERS;
    const bool are_utps_new = std::ranges::any_of(
        all, [](const command &each) { return each.number == CMD_UTP_FLUSH_REQ; });
    const auto knows_utps = [&](uint8_t policies, uint8_t utps) {
        if ((after.known & policies) == 0)
            after.known &= static_cast<uint8_t>(~utps);
        else if (are_utps_new)
            after.known |= utps;
    };
    knows_utps(KNOWS_POLICIES, KNOWS_UTPS);
    knows_utps(KNOWS_WEB_POLICIES, KNOWS_WEB_UTPS);
    return after;
}

void remember(const baseline &left, const client &daemon, const std::string &folder) {
    const std::optional<process_start> start = start_of(daemon.listener());
    if (start != left.daemon) {
        complain("warning: the daemon was started meanwhile and may have only a part; apply again");
        return;
    }
    if (!left.is_whole() || !start)
        return;
    try {
        // First: what somebody writes meanwhile is then seen by what follows, or by the next apply.
        const file_hashes files = hash_saved_files(folder);
        const std::string other = spoiled(left.tables, daemon, folder);
        const document again = read_document(to_text(document_words(document_of(left.tables))));
        if (!other.empty())
            complain("warning: " + other +
                     " aren't what was sent: somebody else sends, too, or the daemon refused it or "
                     "couldn't write it, which its log says");
        else if (!again.found.has_mistakes() && says_all(again, left.tables))
            write_applied(folder, {*start, files, again});
    } catch (const refused &reason) {
        complain(std::string("warning: what was applied isn't remembered: ") + reason.what());
    }
}

void assume_unknown(baseline &seen, const document &wanted) {
    const daemon_tables goal = after_all(seen, wanted).tables;
    if ((seen.known & KNOWS_POLICIES) == 0) {
        for (arc_policy_wire &each : seen.tables.policies) {
            const auto same =
                std::ranges::find(goal.policies, each.utp_id, &arc_policy_wire::utp_id);
            if (same != goal.policies.end())
                copy_text(each.uuid, field_text(same->uuid));
        }
        // Of policies that stay, a UTP has the one that it shows. One without a name is likely of
        // the file, which brings no uuid back either.
        for (size_t i = 0; !wanted.policies && i < goal.utps.size(); ++i) {
            if (const link &policy = seen.tables.utps[i].policy) {
                arc_policy_wire &shown = seen.tables.policies[*policy];
                if (shown.name[0] != '\0' && shown.uuid[0] == '\0')
                    copy_text(shown.uuid, field_text(goal.utps[i].entry.uuid));
            }
        }
    }
    if ((seen.known & KNOWS_WEB_POLICIES) == 0) {
        for (web_policy_wire &each : seen.tables.web_policies) {
            const auto same = std::ranges::find_if(goal.web_policies, [&](const auto &other) {
                return equals_ignoring_case(each.uuid, other.uuid) &&
                       (each.uuid[0] != '\0' || field_text(each.name) == field_text(other.name));
            });
            if (same != goal.web_policies.end())
                each.utp_id = same->utp_id;
        }
    }
    for (linked_wificalling_interface &each : seen.tables.wificalling_interfaces) {
        const auto *const same = find_wificalling_interface(goal, each.binding.ifname);
        if (same != nullptr && !seen.is_whole())
            memcpy(each.binding.profile_alt, same->binding.profile_alt,
                   sizeof each.binding.profile_alt);
    }
}

} // namespace jornctl
