#include "avcore/gate/gate.h"
#include "avcore/gate/gate_filters.h"

#include <bpf/libbpf.h>
#include <cstdio>
#include <fstream>
#include <memory>
#include <net/if.h>

namespace avcore {
namespace {

// Whether the interface is a port of a chip that forwards by itself.
bool is_switch_port(const std::string &interface) {
    std::ifstream file("/sys/class/net/" + interface + "/phys_switch_id");
    std::string id;
    return std::getline(file, id) && !id.empty();
}

std::string flow_tables() {
    const auto close = [](FILE *pipe) { pclose(pipe); };
    const std::unique_ptr<FILE, decltype(close)> pipe(
        popen("nft list flowtables 2>/dev/null", "re"), close);
    std::string text;
    char part[1024];
    while (pipe && fgets(part, sizeof part, pipe.get()) != nullptr)
        text += part;
    return text;
}

// As a word of its own: "eth1" isn't in "eth10".
bool names_interface(const std::string &text, const std::string &interface) {
    constexpr char separators[] = " \t\n,{};\"";
    for (size_t at = text.find(interface); at != text.npos; at = text.find(interface, at + 1)) {
        const size_t end = at + interface.size();
        const auto separates = [&](size_t place) {
            return std::string_view(separators).find(text[place]) != std::string_view::npos;
        };
        if ((at == 0 || separates(at - 1)) && (end == text.size() || separates(end)))
            return true;
    }
    return false;
}

} // namespace

std::vector<std::string> ways_past_gate(const std::vector<std::string> &interfaces) {
    std::vector<std::string> ways;
    const std::string tables = flow_tables();
    for (const std::string &name : interfaces) {
        const auto if_index = static_cast<int>(if_nametoindex(name.c_str()));
        if (is_switch_port(name))
            ways.push_back(name + " is a port of a switch chip: what the chip forwards itself");
        if (names_interface(tables, name))
            ways.push_back(name + " is in a flow table of nftables: the packets of its flows");
        uint32_t program = 0;
        if (bpf_xdp_query_id(if_index, 0, &program) == 0 && program != 0)
            ways.push_back(name + " has an XDP program: what it redirects");
        for (const tc_filter &filter : filters_at(if_index, GATE_UP)) {
            if (!filter.is_gate() && filter.priority < GATE_FILTER_PRIORITY)
                ways.push_back(name + " has a filter (" + filter.kind + ", priority " +
                               std::to_string(filter.priority) +
                               ") before the gate: what it redirects");
        }
    }
    return ways;
}

} // namespace avcore
