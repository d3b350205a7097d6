#include "jornctl/apply.h"

namespace jornctl {

std::vector<command> commands_of(const document &wanted) {
    std::vector<command> commands;
    if (wanted.applications) {
        std::string table = record_bytes(static_cast<int32_t>(wanted.applications->size()));
        for (const userdef_app &application : *wanted.applications)
            table += record_bytes(application);
        commands.push_back({6, table});
    }
    if (wanted.policies)
        commands.push_back({24, {}});
    if (wanted.utps)
        commands.push_back({22, {}});
    for (const arc_policy_wire &policy : wanted.policies.value_or(std::vector<arc_policy_wire>()))
        commands.push_back({23, record_bytes(policy)});
    for (const utp_entry_wire &utp : wanted.utps.value_or(std::vector<utp_entry_wire>()))
        commands.push_back({20, record_bytes(utp)});
    const uint32_t last = commands.back().number;
    if (wanted.policies && last != 23 && last != 20)
        commands.push_back({WRITE_COMMAND, {}});
    return commands;
}

} // namespace jornctl
