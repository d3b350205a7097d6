#include "avcore/gate/clsact.h"
#include "avcore/gate/gate.h"
#include "avcore/gate/tcx.h"
#include "avcore/netlink/netlink.h"
#include "shared/json_text.h"
#include "shared/unique_fd.h"

#include <algorithm>
#include <array>
#include <bpf/libbpf.h>
#include <cstdio>
#include <cstring>
#include <linux/ethtool.h>
#include <linux/rtnetlink.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <sys/ioctl.h>

namespace avcore {
namespace {

constexpr uint32_t STRINGS_MAX = 256;

using lines = std::vector<std::string>;

bool ethtool(const std::string &name, void *command) {
    const unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request = {};
    memcpy(request.ifr_name, name.data(), std::min(name.size(), sizeof request.ifr_name - 1));
    request.ifr_data = static_cast<char *>(command);
    return ioctl(fd.get(), SIOCETHTOOL, &request) == 0;
}

// A command with room for what the kernel writes behind it.
template <typename Head, size_t Room>
class ethtool_command {
public:
    explicit ethtool_command(uint32_t number) { head().cmd = number; }
    Head &head() { return *static_cast<Head *>(static_cast<void *>(bytes_.data())); }

private:
    alignas(8) std::array<std::byte, sizeof(Head) + Room> bytes_ = {};
};

// The place of a feature among the kernel's, which is another in each version.
std::optional<uint32_t> feature_bit(const std::string &name, std::string_view feature) {
    ethtool_command<ethtool_sset_info, sizeof(uint32_t)> info(ETHTOOL_GSSET_INFO);
    info.head().sset_mask = 1ULL << ETH_SS_FEATURES;
    if (!ethtool(name, &info.head()) || info.head().data[0] > STRINGS_MAX)
        return std::nullopt;
    ethtool_command<ethtool_gstrings, size_t{STRINGS_MAX} * ETH_GSTRING_LEN> strings(
        ETHTOOL_GSTRINGS);
    strings.head().string_set = ETH_SS_FEATURES;
    strings.head().len = info.head().data[0];
    if (!ethtool(name, &strings.head()))
        return std::nullopt;
    for (uint32_t bit = 0; bit < info.head().data[0]; bit++) {
        const auto *text =
            reinterpret_cast<const char *>(strings.head().data) + size_t{bit} * ETH_GSTRING_LEN;
        if (feature == std::string_view(text, strnlen(text, ETH_GSTRING_LEN)))
            return bit;
    }
    return std::nullopt;
}

bool has_feature(const std::string &name, std::string_view feature) {
    constexpr uint32_t BLOCKS = STRINGS_MAX / 32;
    ethtool_command<ethtool_gfeatures, BLOCKS * sizeof(ethtool_get_features_block)> features(
        ETHTOOL_GFEATURES);
    features.head().size = BLOCKS;
    const std::optional<uint32_t> bit = feature_bit(name, feature);
    return bit && ethtool(name, &features.head()) &&
           (features.head().features[*bit / 32].active >> (*bit % 32) & 1) != 0;
}

void add_offload(const std::string &name, unsigned index, lines &found) {
    if (has_feature(name, "hw-tc-offload"))
        found.push_back(name + ": the hardware may switch packets itself (hw-tc-offload is on)");
    ifinfomsg request = {};
    request.ifi_index = static_cast<int>(index);
    const auto see = [&](const nlmsghdr &message) {
        each_attribute(message, sizeof request, [&](const nlattr &attribute) {
            if (mnl_attr_get_type(&attribute) == IFLA_PHYS_SWITCH_ID &&
                mnl_attr_get_payload_len(&attribute) > 0)
                found.push_back(name +
                                ": a port of a switch, which forwards between its ports itself");
        });
    };
    netlink_ask(NETLINK_ROUTE, {RTM_GETLINK, 0, request}, see);
}

void add_programs(const std::string &pins, const std::string &name, unsigned index, lines &found) {
    uint32_t id = 0;
    if (bpf_xdp_query_id(static_cast<int>(index), 0, &id) == 0 && id != 0)
        found.push_back(name + ": an XDP program (id " + std::to_string(id) +
                        ") sees packets before the gate");
    const std::optional<tc_program> gate = tcx_gate(pins, index, tc_side::ingress);
    for (const uint32_t before : tcx_programs(index, tc_side::ingress)) {
        if (gate && gate->id == before)
            return; // which sees them before any filter, too
        found.push_back(name + ": a tcx program (id " + std::to_string(before) +
                        ") sees packets before the gate");
    }
    for (const tc_filter &filter : filters_at(index, tc_side::ingress)) {
        const bool own = filter.name.starts_with(GATE_PROGRAM);
        const bool may_redirect = filter.redirects || filter.kind == "bpf";
        if (!own && may_redirect && filter.priority <= GATE_PRIORITY)
            found.push_back(name + ": an ingress filter before the gate may redirect (tc pref " +
                            std::to_string(filter.priority) + " " + filter.kind +
                            (filter.name.empty() ? "" : " " + filter.name) + ")");
    }
}

std::string output_of(const char *command) {
    std::string output;
    FILE *pipe = popen(command, "re");
    if (!pipe)
        return output;
    char chunk[4096];
    while (const size_t size = fread(chunk, 1, sizeof chunk, pipe))
        output.append(chunk, size);
    pclose(pipe);
    return output;
}

// Also those of other interfaces: a bridge's table carries what its ports bring.
void add_flow_tables(lines &found) {
    const nlohmann::json said = read_json(output_of("nft -j list flowtables 2>/dev/null"));
    if (!said.is_object() || !said.contains("nftables"))
        return;
    for (const nlohmann::json &item : said["nftables"]) {
        const nlohmann::json table = item.value("flowtable", nlohmann::json::object());
        nlohmann::json devices = table.value("dev", nlohmann::json::array());
        if (devices.is_string())
            devices = nlohmann::json::array({devices});
        for (const nlohmann::json &device : devices)
            if (device.is_string())
                found.push_back(device.get<std::string>() + ": nftables' flow table " +
                                table.value("name", "") + " forwards packets itself");
    }
}

} // namespace

std::vector<std::string> ways_past_gate(const std::string &pins,
                                        const std::vector<std::string> &interfaces) {
    lines found;
    for (const std::string &name : interfaces) {
        const unsigned index = if_nametoindex(name.c_str());
        if (index == 0)
            continue;
        add_offload(name, index, found);
        add_programs(pins, name, index, found);
    }
    add_flow_tables(found);
    return found;
}

} // namespace avcore
