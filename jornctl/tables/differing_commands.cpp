#include "jornctl/tables/differing_commands.h"

#include "control/records/commands.h"
#include "jornctl/client/apply.h"
#include "jornctl/client/commands.h"

#include <algorithm>
#include <iterator>

namespace jornctl {
namespace {

// Commands with what the tables are behind them.
class march {
public:
    explicit march(const daemon_tables &from) : at_(from) {}

    const daemon_tables &at() const { return at_; }
    void send(uint32_t number, std::string payload = {}) { send({number, std::move(payload)}); }
    void send(command sent) {
        at_.take(sent);
        if (!is_open_)
            groups_.emplace_back();
        is_open_ = is_together_;
        groups_.back().push_back(std::move(sent));
    }
    // What is sent until end_together belongs to one group.
    void begin_together() { is_together_ = true; }
    void end_together() { is_together_ = is_open_ = false; }

    std::vector<command> commands() const {
        std::vector<command> all;
        for (const command_group &group : groups_)
            std::ranges::copy(group, std::back_inserter(all));
        return all;
    }
    way finish() && { return {std::move(groups_), std::move(at_)}; }

private:
    daemon_tables at_;
    std::vector<command_group> groups_;
    bool is_together_ = false;
    bool is_open_ = false; // the last group takes more
};

// What belongs to ARC and the web, whose UTP tables one command empties.
constexpr uint32_t WIFICALLING_COMMANDS[] = {
    CMD_WIFICALLING_POLICY_CFG_REQ, CMD_WIFICALLING_INTF_CFG_REQ, CMD_WIFICALLING_POLICY_FLUSH_REQ};

bool is_of_wificalling(const command &sent) {
    return std::ranges::find(WIFICALLING_COMMANDS, sent.number) != std::end(WIFICALLING_COMMANDS);
}

// Running flows are judged anew.
bool resets_flows(const command &sent) {
    return sent.number == CMD_POLICY_USERDEF_CFG_REQ || sent.number == CMD_ARC_POLICY_CFG_REQ ||
           sent.number == CMD_ARC_POLICY_FLUSH_REQ;
}

// What is emptied on the way. The first that leads to the goal is taken.
struct emptied {
    uint32_t policies; // the command that does it, or 0
    bool web_policies;
    bool utps;
};
constexpr emptied WAYS[] = {
    {0, false, false},
    {CMD_POLICY_CLEAN, false, false},
    {CMD_ARC_POLICY_FLUSH_REQ, false, false},
    {0, true, false},
    {CMD_POLICY_CLEAN, true, false},
    {CMD_ARC_POLICY_FLUSH_REQ, true, false},
    {0, false, true},
    {CMD_POLICY_CLEAN, false, true},
    {0, true, true},
    {CMD_POLICY_CLEAN, true, true},
};

template <typename Policy>
bool same_but_utp(Policy a, const Policy &b) {
    a.utp_id = b.utp_id;
    return same_bytes(a, b);
}

// Sends the policies behind those that are there already.
template <typename Policy>
void send_policies(const std::optional<std::vector<Policy>> &wanted, size_t there, uint32_t number,
                   march &on) {
    for (size_t i = there; wanted && i < wanted->size(); ++i)
        on.send(number, record_bytes((*wanted)[i]));
}

template <auto Table, auto Policies>
bool is_settled(const daemon_tables &at, const daemon_tables &goal, uint32_t id) {
    const linked_utp &now = (at.*Table)[id - 1];
    return same_entry(now, (goal.*Table)[id - 1]) &&
           (!now.policy ||
            (at.*Policies)[*now.policy].utp_id == (goal.*Policies)[*now.policy].utp_id);
}

// Sends the entries that differ; all of them where a policy is another UTP's even so, for each
// takes its policy along.
template <auto Table, auto Policies>
void send_utps(const std::optional<std::vector<utp_entry_wire>> &wanted, const daemon_tables &goal,
               uint32_t number, march &on) {
    if (!wanted)
        return;
    const auto is_open = [&](const utp_entry_wire &entry) {
        return !is_settled<Table, Policies>(on.at(), goal, entry.id);
    };
    for (const utp_entry_wire &entry : *wanted) {
        if (is_open(entry))
            on.send(number, record_bytes(entry));
    }
    if (std::ranges::none_of(*wanted, is_open))
        return;
    for (const utp_entry_wire &entry : *wanted)
        on.send(number, record_bytes(entry));
}

search_addresses mapped(const daemon_tables &in, const char *ifname) {
    const auto found = in.safe_search.find({0, ifname});
    return found != in.safe_search.end() ? found->second : search_addresses();
}

void send_web_interfaces(const document &wanted, const daemon_tables &goal, march &on) {
    if (!wanted.web_interfaces)
        return;
    for (const web_intf_wire &binding : *wanted.web_interfaces) {
        const linked_web_interface *const now = find_web_interface(on.at(), binding.ifname);
        const linked_web_interface *const then = find_web_interface(goal, binding.ifname);
        const bool is_settled =
            now != nullptr && then != nullptr ? same_binding(*now, *then) : now == then;
        if (!is_settled || mapped(on.at(), binding.ifname) != mapped(goal, binding.ifname))
            on.send(CMD_WEB_INTF_CFG_REQ, record_bytes(binding));
    }
}

// How many policies of the list may stay: all, where the goal begins with them, or none of a list
// that is emptied. Nothing where neither is so.
template <typename Policy>
std::optional<size_t> staying(const std::vector<Policy> &have, const std::vector<Policy> &goal,
                              bool is_emptied) {
    if (is_emptied)
        return 0;
    const bool begins =
        have.size() <= goal.size() &&
        std::ranges::equal(have, std::span(goal).first(have.size()), same_but_utp<Policy>);
    return begins ? std::optional(have.size()) : std::nullopt;
}

// ARC and the web, by what is emptied; nothing where the goal isn't reached so.
std::optional<march> policies_by(const emptied &by, const daemon_tables &from,
                                 const document &wanted, const daemon_tables &goal) {
    const auto arc_stay = staying(from.policies, goal.policies, by.policies != 0);
    const auto web_stay = staying(from.web_policies, goal.web_policies, by.web_policies);
    if (!arc_stay || !web_stay)
        return std::nullopt;
    march on(from);
    if (by.policies != 0 || by.utps)
        on.begin_together();
    if (by.policies != 0)
        on.send(by.policies);
    if (by.utps)
        on.send(CMD_UTP_FLUSH_REQ);
    send_policies(wanted.policies, *arc_stay, CMD_ARC_POLICY_CFG_REQ, on);
    send_utps<&daemon_tables::utps, &daemon_tables::policies>(wanted.utps, goal,
                                                              CMD_ARC_UTP_CFG_REQ, on);
    if (!by.utps)
        on.end_together();
    if (by.web_policies) {
        on.begin_together();
        on.send(CMD_WEB_POLICY_FLUSH_REQ);
    }
    send_policies(wanted.web_policies, *web_stay, CMD_WEB_POLICY_CFG_REQ, on);
    send_utps<&daemon_tables::web_utps, &daemon_tables::web_policies>(wanted.web_utps, goal,
                                                                      CMD_WEB_UTP_CFG_REQ, on);
    send_web_interfaces(wanted, goal, on);
    on.end_together();
    if (leave_file_behind(on.commands()))
        on.send(CMD_WRITE_CFG_REQ);
    const bool is_there = same_arc(on.at(), goal) && same_web(on.at(), goal);
    return is_there ? std::optional(std::move(on)) : std::nullopt;
}

// An update brings a carrier's priority and one ePDG.
void update_carrier(const wificalling_policy_wire &wanted, size_t place, march &on) {
    for (size_t i = 0; i < std::max<size_t>(wanted.num_epdg, 1); ++i) {
        const wificalling_policy_wire &now = on.at().carriers[place];
        const bool is_last = i + 1 >= wanted.num_epdg;
        if (same_bytes(now.epdg[i], wanted.epdg[i]) &&
            (now.priority == wanted.priority || !is_last))
            continue;
        wificalling_policy_wire update = wanted;
        update.epdg[0] = wanted.epdg[i];
        on.send(CMD_WIFICALLING_POLICY_CFG_REQ, carrier_payload(update));
    }
}

void send_carriers(const std::vector<wificalling_policy_wire> &wanted, march &on) {
    for (size_t i = 0; i < wanted.size(); ++i) {
        if (i >= on.at().carriers.size())
            on.send(CMD_WIFICALLING_POLICY_CFG_REQ, carrier_payload(wanted[i]));
        else if (!same_bytes(on.at().carriers[i], wanted[i]))
            update_carrier(wanted[i], i, on);
    }
}

// A binding is deleted before it is made: an update would leave some of its fields.
void send_wificalling_interfaces(const document &wanted, const daemon_tables &goal, march &on) {
    if (!wanted.wificalling_interfaces)
        return;
    for (const wificalling_intf_wire &binding : *wanted.wificalling_interfaces) {
        const auto *const now = find_wificalling_interface(on.at(), binding.ifname);
        const auto *const then = find_wificalling_interface(goal, binding.ifname);
        if (now != nullptr && then != nullptr ? same_binding(*now, *then) : now == then)
            continue;
        wificalling_intf_wire deleted = binding;
        deleted.enable = 0;
        if (now != nullptr)
            on.send(CMD_WIFICALLING_INTF_CFG_REQ, record_bytes(deleted));
        if (binding.enable != 0)
            on.send(CMD_WIFICALLING_INTF_CFG_REQ, record_bytes(binding));
    }
}

std::optional<march> wificalling_by(bool is_emptied, const daemon_tables &from,
                                    const document &wanted, const daemon_tables &goal) {
    if (!wanted.carriers && is_emptied)
        return std::nullopt;
    march on(from);
    on.begin_together();
    if (is_emptied)
        on.send(CMD_WIFICALLING_POLICY_FLUSH_REQ);
    else
        on.end_together();
    if (wanted.carriers)
        send_carriers(*wanted.carriers, on);
    on.begin_together();
    send_wificalling_interfaces(wanted, goal, on);
    on.end_together();
    return same_wificalling(on.at(), goal) ? std::optional(std::move(on)) : std::nullopt;
}

// The document's own commands, of Wi-Fi calling or the others.
march all_commands(const daemon_tables &from, const std::vector<command> &all,
                   bool of_wificalling) {
    march on(from);
    on.begin_together();
    for (const command &each : all) {
        if (is_of_wificalling(each) == of_wificalling)
            on.send(each);
    }
    on.end_together();
    return on;
}

} // namespace

way whole_way(const daemon_tables &from, const document &wanted) {
    const std::vector<command> all = commands_of(wanted);
    march on = all_commands(from, all, false);
    march then = all_commands(on.at(), all, true);
    way first = std::move(on).finish();
    way second = std::move(then).finish();
    std::ranges::move(second.groups, std::back_inserter(first.groups));
    return {std::move(first.groups), std::move(second.end)};
}

way shortest_way(const daemon_tables &from, const document &wanted) {
    const std::vector<command> all = commands_of(wanted);
    daemon_tables goal = from;
    goal.take(all);

    std::optional<march> on;
    for (size_t i = 0; !on && i < std::size(WAYS); ++i)
        on = policies_by(WAYS[i], from, wanted, goal);
    if (!on)
        on = all_commands(from, all, false);

    // Applications are replaced in one step, and a reset of the flows is a part of it.
    const bool has_news = !same_arc(from, goal) || !same_applications(from, goal);
    const bool is_reset = std::ranges::any_of(on->commands(), resets_flows);
    if (!same_applications(on->at(), goal) ||
        (has_news && !is_reset && std::ranges::any_of(all, resets_flows)))
        on->send(CMD_POLICY_USERDEF_CFG_REQ, applications_payload(goal.applications));

    std::optional<march> then = wificalling_by(false, on->at(), wanted, goal);
    if (!then)
        then = wificalling_by(true, on->at(), wanted, goal);
    if (!then)
        then = all_commands(on->at(), all, true);
    way first = std::move(*on).finish();
    way second = std::move(*then).finish();
    std::ranges::move(second.groups, std::back_inserter(first.groups));
    return {std::move(first.groups), std::move(second.end)};
}

} // namespace jornctl
