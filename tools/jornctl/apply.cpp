#include "jornctl/apply.h"

#include "control/records/commands.h"

namespace jornctl {

std::vector<command> commands_of(const document &wanted) {
    std::vector<command> commands;
    if (wanted.applications) {
        std::string table = record_bytes(static_cast<int32_t>(wanted.applications->size()));
        for (const userdef_app &application : *wanted.applications)
            table += record_bytes(application);
        commands.push_back({CMD_POLICY_USERDEF_CFG_REQ, table});
    }
    if (wanted.policies)
        commands.push_back({CMD_ARC_POLICY_FLUSH_REQ, {}});
    if (wanted.utps)
        commands.push_back({CMD_UTP_FLUSH_REQ, {}});
    for (const arc_policy_wire &policy : wanted.policies.value_or(std::vector<arc_policy_wire>()))
        commands.push_back({CMD_ARC_POLICY_CFG_REQ, record_bytes(policy)});
    for (const utp_entry_wire &utp : wanted.utps.value_or(std::vector<utp_entry_wire>()))
        commands.push_back({CMD_ARC_UTP_CFG_REQ, record_bytes(utp)});
    return commands;
}

} // namespace jornctl
