#include "jornctl/apply.h"

#include "jornctl/commands.h"

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

template <auto Table>
void counted_records(const document &wanted, uint32_t number, std::vector<command> &commands) {
    if (!(wanted.*Table))
        return;
    std::string bytes = record_bytes(static_cast<int32_t>((wanted.*Table)->size()));
    for (const auto &record : *(wanted.*Table))
        bytes += record_bytes(record);
    commands.push_back({number, bytes});
}

struct step {
    command_number number;
    void (*add)(const document &wanted, uint32_t number, std::vector<command> &commands);
};

// The flush of the UTP entries takes those that policies make, so it stands before the policies. A
// policy wipes the name and uuid of its UTP's entry, which finds its policy by uuid; so entries
// come last.
constexpr step STEPS[] = {
    {CMD_POLICY_USERDEF_CFG_REQ, counted_records<&document::applications>},
    {CMD_ARC_POLICY_FLUSH_REQ, flush<&document::policies>},
    {CMD_UTP_FLUSH_REQ, flush<&document::utps>},
    {CMD_ARC_POLICY_CFG_REQ, each_record<&document::policies>},
    {CMD_ARC_UTP_CFG_REQ, each_record<&document::utps>},
};

} // namespace

std::vector<command> commands_of(const document &wanted) {
    std::vector<command> commands;
    for (const step &each : STEPS)
        each.add(wanted, each.number, commands);
    if (leave_file_behind(commands))
        commands.push_back({CMD_WRITE_CFG_REQ, {}});
    return commands;
}

} // namespace jornctl
