#include "avwatch/top/explanation.h"

#include "avwatch/base/units.h"
#include "avwatch/present/flow_cells.h"
#include "shared/counted.h"

namespace avwatch {
namespace {

// By the watch socket's words.
constexpr struct {
    const char *word;
    const char *text;
} NAMED_BY[] = {
    {"dns", "by what DNS calls the server's address"},
    {"handshake", "by the host that its client asked for"},
    {"earlier handshake", "by the host that an earlier flow to this server asked for"},
    {"dpi", "by the DPI engine"},
    {"administrator", "by an application that the administrator defined"},
    {"address asked for", "by the address that its client asked for"},
    {"carrier", "by a carrier of Wi-Fi calling"},
    {"port", "by its well-known port"},
    {"tables", "by the daemon's own tables"},
};
constexpr struct {
    const char *word;
    const char *text;
} ENDED[] = {
    {"fin", "both sides closed it"},   {"reset", "it was reset"},
    {"idle", "five minutes idle"},     {"forgotten", "forgotten, for the tables were full"},
    {"stopped", "avcore has stopped"},
};

template <size_t N, typename Row>
std::string words_for(const Row (&table)[N], const std::string &word) {
    for (const Row &each : table) {
        if (word == each.word)
            return each.text;
    }
    return word;
}

std::string name_text(const flow_record &flow) {
    if (flow.application.empty())
        return "none";
    std::string text = flow.application;
    if (!flow.why.named_by.empty())
        text += ", " + words_for(NAMED_BY, flow.why.named_by);
    if (!flow.why.name.empty() && flow.why.name != flow.application)
        text += ", \"" + flow.why.name + '"';
    if (flow.why.app_id != 0 || flow.why.cat_id != 0)
        text += " (application " + std::to_string(flow.why.app_id) + ", category " +
                std::to_string(flow.why.cat_id) + ')';
    return text;
}

// Without its words, which have a line of their own.
std::string decider_text(const why_record &why) {
    why_record short_why = why;
    short_why.text.clear();
    std::string text = reason_text(short_why);
    if (text.empty())
        return "nothing fits";
    return why.side.empty() ? text : text + ", by the " + why.side + "'s profile";
}

std::string profile_text(const flow_record &flow) {
    std::string text = "UTP " + std::to_string(flow.utp);
    if (!flow.interface.empty())
        text += ", interface " + flow.interface;
    if (flow.why.rule)
        text += *flow.why.rule == 0 ? ", by [client] of avcore's configuration"
                                    : ", by [[rule]] " + std::to_string(*flow.why.rule) +
                                          " of avcore's configuration";
    return text;
}

std::string traffic_text(const traffic &passed, float rate) {
    return size_text(passed.bytes) + " in " + counted(passed.packets, "packet", "packets") + ", " +
           rate_text(rate) + " now";
}

} // namespace

std::vector<explained_line> explain_flow(const flow_record &flow, const std::string &client,
                                         const traffic_rates &now, bool utc) {
    std::vector<explained_line> lines = {
        {"client", client + ", " + endpoint_text(flow.client, flow.client_port)},
        {"server", endpoint_text(flow.server, flow.server_port) + ", " + flow.protocol},
        {"host", flow.host},
        {"profile", profile_text(flow)},
        {"name", name_text(flow)},
        {"verdict", verdict_text(flow)},
        {"decided by", decider_text(flow.why)},
        {"in words", flow.why.text},
        {"gate", flow.gate},
        {"begun", time_text(flow.begun_us, utc)},
        {"last seen", time_text(flow.last_us, utc)},
        {"ended", words_for(ENDED, flow.ended)},
        {"up", traffic_text(flow.up, now.up)},
        {"down", traffic_text(flow.down, now.down)},
        {"dropped", counted(flow.dropped.denied, "packet", "packets") + " by a denial, " +
                        std::to_string(flow.dropped.limited) + " by a limit"},
    };
    std::erase_if(lines, [](const explained_line &line) { return line.second.empty(); });
    return lines;
}

} // namespace avwatch
