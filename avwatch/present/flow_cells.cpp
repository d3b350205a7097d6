#include "avwatch/present/flow_cells.h"

namespace avwatch {

std::string endpoint_text(const std::string &address, uint64_t port) {
    if (port == 0)
        return address;
    const bool is_ipv6 = address.find(':') != std::string::npos;
    return (is_ipv6 ? '[' + address + ']' : address) + ':' + std::to_string(port);
}

std::string verdict_text(const flow_record &flow) {
    std::string text = flow.verdict;
    if (flow.wificalling)
        text += ", wifi calling " + std::to_string(*flow.wificalling);
    return flow.outdated ? text + " (outdated)" : text;
}

std::string reason_text(const why_record &why) {
    if (!why.text.empty())
        return why.text;
    std::string text = why.by;
    if (why.profile)
        text += " of UTP " + std::to_string(*why.profile);
    return why.reason.empty() ? text : text + ", " + why.reason;
}

} // namespace avwatch
