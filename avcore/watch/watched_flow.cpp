#include "avcore/watch/watched_flow.h"

#include "avcore/flows/flow_text.h"

#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <functional>
#include <span>
#include <string_view>

namespace avcore {
namespace {

// The gate, whose clock is coarser, takes the next packet for another flow's by then.
constexpr int64_t IDLE_US = FLOW_IDLE_US + 2'000'000;

class row_hash {
public:
    row_hash &operator<<(std::string_view text) {
        return *this << std::hash<std::string_view>()(text);
    }
    row_hash &operator<<(uint64_t number) {
        value_ = (value_ ^ number) * 0x9E37'79B9'7F4A'7C15;
        value_ ^= value_ >> 29;
        return *this;
    }
    uint64_t value() const { return value_; }

private:
    uint64_t value_ = 0;
};

void append_octets(std::string &text, std::span<const uint8_t> octets) {
    constexpr char digits[] = "0123456789abcdef";
    for (const uint8_t octet : octets) {
        text += digits[octet >> 4];
        text += digits[octet & 15];
    }
}

template <int BASE>
void append_in_base(std::string &text, uint64_t number) {
    std::array<char, 20> digits; // of the highest
    const auto end = std::to_chars(digits.begin(), digits.end(), number, BASE).ptr;
    text.append(digits.begin(), end);
}

} // namespace

flow_ending ending_by(uint8_t ends) {
    return (ends & GATE_RST) != 0 ? flow_ending::reset : flow_ending::fin;
}

flow_ending ending_of(const flow_sight &seen, int64_t now_us) {
    if (now_us < ends_us(seen))
        return flow_ending::none;
    return is_closed(seen.ends) ? ending_by(seen.ends) : flow_ending::idle;
}

int64_t ends_us(const flow_sight &seen) {
    return seen.last_us + (is_closed(seen.ends) ? LINGER_US : IDLE_US);
}

row_digest digest_of(const flow_row &row) {
    row_digest digest;
    const std::string &name = name_of(row);
    digest.name = name.empty() ? 0 : std::hash<std::string>()(name);
    digest.verdict = row.outdated ? 0 : row.verdict;
    row_hash hash;
    const verdict_reason &why = row.reason;
    const row_enforcement &gate = row.enforcement;
    hash << digest.name << row.host << row.wfc_fqdn << row.server_name << why.web_reason
         << why.denial_text << row.client_interface << row.verdict << row.outdated
         << row.wificalling << row.wfc_priority << static_cast<uint64_t>(why.named_by)
         << static_cast<uint64_t>(why.by) << why.profile << why.of_client << row.client_utp
         << row.client_rule << row.dscp[0] << row.dscp[1] << gate.settled << gate.denied
         << gate.generation << gate.not_final.has_value();
    digest.all = hash.value();
    return digest;
}

const std::string &name_of(const flow_row &row) {
    static const std::string none;
    const bool has_name = shows_own_name(row) || row.reason.named_by != name_source::none;
    return has_name ? application_of(row) : none;
}

void write_id(watched_flow &flow, const std::string &run) {
    std::string &id = flow.id;
    id.clear();
    if (flow.at_gate) {
        const auto is_short = ip_address(std::to_array(flow.key.client)).is_ipv4() &&
                              ip_address(std::to_array(flow.key.server)).is_ipv4();
        const size_t from = is_short ? ip_address::SIZE - sizeof(uint32_t) : 0;
        append_octets(id, std::span(flow.key.client).subspan(from));
        append_octets(id, std::span(flow.key.server).subspan(from));
        append_in_base<16>(id += '-', ntohs(flow.key.client_port_be));
        append_in_base<16>(id += '-', ntohs(flow.key.server_port_be));
        append_in_base<16>(id += '-', flow.key.proto + 256u * flow.key.fragments);
        append_in_base<16>(id += '-', flow.seen.begun);
    } else {
        id += run;
        append_in_base<10>(id += '-', flow.row->id);
        append_in_base<10>(id += '-', flow.seen.begun);
    }
    if (flow.continued != 0)
        append_in_base<10>(id += '.', flow.continued);
}

} // namespace avcore
