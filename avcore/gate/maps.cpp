#include "avcore/gate/maps.h"

#include "avcore/gate/mapping.h"
#include "avcore/gate/pins.h"

#include <algorithm>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <optional>
#include <stdexcept>
#include <system_error>

namespace avcore {
namespace {

bool has_name(int fd, const char *name) {
    bpf_map_info info = {};
    uint32_t size = sizeof info;
    return bpf_obj_get_info_by_fd(fd, &info, &size) == 0 &&
           strncmp(info.name, name, sizeof info.name) == 0;
}

// A map of a gate whose pins are lost, for their mount lay in a namespace that ended: the attached
// programs still hold it. With CAP_SYS_ADMIN alone.
unique_fd attached_map(const std::string &pins, const char *name) {
    for (const auto &[index, interface] : all_interfaces()) {
        const std::optional<tc_program> program = gate_at(pins, index, tc_side::ingress);
        for (const uint32_t id : program ? program->map_ids : std::vector<uint32_t>()) {
            unique_fd fd(bpf_map_get_fd_by_id(id));
            if (fd.valid() && has_name(fd.get(), name))
                return fd;
        }
    }
    return {};
}

} // namespace

unique_fd find_map(const std::string &pins, const char *name) {
    const std::string pin = pin_of(pins, name);
    unique_fd fd(bpf_obj_get(pin.c_str()));
    if (fd.valid())
        return fd;
    if (errno != ENOENT)
        throw std::runtime_error(pin +
                                 " can't be opened: " + std::generic_category().message(errno));
    // What is attached beside pins of another layout is of that one, whatever its maps' sizes.
    return has_other_layouts(pins) ? unique_fd() : attached_map(pins, name);
}

unique_fd pinned_map(const std::string &pins, const char *name) {
    unique_fd fd = find_map(pins, name);
    if (!fd.valid())
        throw std::runtime_error("no map of the gate at " + pin_of(pins, name));
    return fd;
}

uint32_t id_of_map(int fd) {
    bpf_map_info info = {};
    uint32_t size = sizeof info;
    return bpf_obj_get_info_by_fd(fd, &info, &size) == 0 ? info.id : 0;
}

void write_rules(gate_settings &settings, const gate_rules &rules) {
    write_word(settings.fail_closed, uint32_t{rules.fail_closed});
    write_word(settings.copies_per_second, rules.copies_per_second);
    uint32_t bits = 0;
    bits |= rules.pass_tags ? uint32_t{GATE_PASS_TAGS} : 0;
    bits |= rules.drop_fragments ? uint32_t{GATE_DROP_FRAGMENTS} : 0;
    bits |= rules.drop_excess ? uint32_t{GATE_DROP_EXCESS} : 0;
    bits |= rules.hold_undecided ? uint32_t{GATE_HOLD} : 0;
    write_word(settings.holds_per_second, rules.holds_per_second);
    write_word(settings.rules, bits);
}

size_t possible_processors() {
    const int processors = libbpf_num_possible_cpus();
    if (processors <= 0) // the kernel would write more records than there is room for
        throw std::runtime_error("/sys doesn't say how many processors the kernel may have");
    return static_cast<size_t>(processors);
}

bool uses(const tc_program &program, uint32_t map_id) {
    return std::find(program.map_ids.begin(), program.map_ids.end(), map_id) !=
           program.map_ids.end();
}

std::vector<std::pair<unsigned, std::string>> all_interfaces() {
    struct if_nameindex *list = if_nameindex();
    std::vector<std::pair<unsigned, std::string>> interfaces;
    for (struct if_nameindex *at = list; at && at->if_index != 0; at++)
        interfaces.emplace_back(at->if_index, at->if_name);
    if_freenameindex(list);
    return interfaces;
}

} // namespace avcore
