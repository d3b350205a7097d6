#include "jornctl/client/apply.h"

#include "jornctl/base/failure.h"
#include "jornctl/client/commands.h"

namespace jornctl {
namespace {

// What a table of the document becomes; nothing when the document doesn't mention it.
template <auto Table>
void flush(const document &wanted, uint32_t number, std::vector<command> &commands) {
    if (wanted.*Table)
        commands.push_back({number, {}});
}

template <auto Table>
void each_record(const document &wanted, uint32_t number, std::vector<command> &commands) {
    if (!(wanted.*Table))
        return;
    for (const auto &record : *(wanted.*Table))
        commands.push_back({number, record_bytes(record)});
}

void all_applications(const document &wanted, uint32_t number, std::vector<command> &commands) {
    if (wanted.applications)
        commands.push_back({number, applications_payload(*wanted.applications)});
}

// One command empties both UTP tables.
void flush_utps(const document &wanted, uint32_t number, std::vector<command> &commands) {
    if (wanted.utps || wanted.web_utps)
        commands.push_back({number, {}});
}

void each_carrier(const document &wanted, uint32_t number, std::vector<command> &commands) {
    if (!wanted.carriers)
        return;
    for (const wificalling_policy_wire &carrier : *wanted.carriers)
        commands.push_back({number, carrier_payload(carrier)});
}

// Each binding is deleted before it is made: an update would leave some of its fields.
void renewed_bindings(const document &wanted, uint32_t number, std::vector<command> &commands) {
    if (!wanted.wificalling_interfaces)
        return;
    for (const wificalling_intf_wire &binding : *wanted.wificalling_interfaces) {
        wificalling_intf_wire deleted = binding;
        deleted.enable = 0;
        commands.push_back({number, record_bytes(deleted)});
        if (binding.enable != 0)
            commands.push_back({number, record_bytes(binding)});
    }
}

struct step {
    command_number number;
    void (*add)(const document &wanted, uint32_t number, std::vector<command> &commands);
};

// The flush of the UTP entries takes those that policies make, so it stands before the policies. A
// policy wipes the name and uuid of its UTP's entry, which finds its policy by uuid; so entries
// come behind them. Bindings, too, find their policies when they arrive. A carrier that is known is
// only updated, so they all go first.
constexpr step STEPS[] = {
    {CMD_POLICY_USERDEF_CFG_REQ, all_applications},
    {CMD_ARC_POLICY_FLUSH_REQ, flush<&document::policies>},
    {CMD_UTP_FLUSH_REQ, flush_utps},
    {CMD_WEB_POLICY_FLUSH_REQ, flush<&document::web_policies>},
    {CMD_ARC_POLICY_CFG_REQ, each_record<&document::policies>},
    {CMD_ARC_UTP_CFG_REQ, each_record<&document::utps>},
    {CMD_WEB_POLICY_CFG_REQ, each_record<&document::web_policies>},
    {CMD_WEB_UTP_CFG_REQ, each_record<&document::web_utps>},
    {CMD_WEB_INTF_CFG_REQ, each_record<&document::web_interfaces>},
    {CMD_WIFICALLING_POLICY_FLUSH_REQ, flush<&document::carriers>},
    {CMD_WIFICALLING_POLICY_CFG_REQ, each_carrier},
    {CMD_WIFICALLING_INTF_CFG_REQ, renewed_bindings},
};

} // namespace

std::string carrier_payload(const wificalling_policy_wire &carrier) {
    return record_bytes(carrier).substr(0, WIFICALLING_POLICY_PAYLOAD);
}

std::string applications_payload(const std::vector<userdef_app> &applications) {
    std::string bytes = record_bytes(static_cast<int32_t>(applications.size()));
    for (const userdef_app &each : applications)
        bytes += record_bytes(each);
    return bytes;
}

std::vector<command> commands_of(const document &wanted) {
    if (wanted.found.has_mistakes())
        throw refused("a document with mistakes isn't sent");
    std::vector<command> commands;
    for (const step &each : STEPS)
        each.add(wanted, each.number, commands);
    if (leave_file_behind(commands))
        commands.push_back({CMD_WRITE_CFG_REQ, {}});
    return commands;
}

} // namespace jornctl
