#include "avcore/base/host_text.h"
#include "avcore/flows/flow_text.h"
#include "avcore/watch/questions.h"
#include "core/text/text.h"

namespace avcore {
namespace {

bool has_part(const std::string &text, const std::string &part) {
    return lower_case(text).find(part) != std::string::npos;
}

} // namespace

bool flow_filter::fits(const watched_flow &flow) const {
    const flow_row &row = flow.known();
    if ((client_mac && row.client.mac != *client_mac) ||
        (client && (!row.ipv4 || row.client.address != *client)) ||
        (since_us && flow.seen.last_us < *since_us))
        return false;
    if (!verdict.empty() && verdict_word(row.verdict) != verdict)
        return false;
    if (!application.empty() && !equals_ignoring_case(name_of(row), application))
        return false;
    return name.empty() || has_part(name_of(row), name) || has_part(row.host, name);
}

} // namespace avcore
