#include "avcore/gate/traffic_control.h"

#include "avcore/netlink/netlink.h"
#include "shared/unique_fd.h"

#include <array>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <linux/pkt_cls.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>

namespace avcore {
namespace {

constexpr uint32_t HANDLE = 0x6A6F;
constexpr int BUSY_TRIES = 20;
constexpr std::chrono::milliseconds BUSY_PAUSE(10);

bpf_tc_hook hook_at(unsigned if_index, int points) {
    bpf_tc_hook hook = {};
    hook.sz = sizeof hook;
    hook.ifindex = static_cast<int>(if_index);
    hook.attach_point = static_cast<bpf_tc_attach_point>(points);
    return hook;
}

int point_of(tc_side side) {
    return side == tc_side::ingress ? BPF_TC_INGRESS : BPF_TC_EGRESS;
}

bpf_tc_opts own_place() {
    bpf_tc_opts options = {};
    options.sz = sizeof options;
    options.handle = HANDLE;
    options.priority = GATE_PRIORITY;
    return options;
}

std::string name_of(unsigned if_index) {
    char name[IF_NAMESIZE] = {};
    return if_indextoname(if_index, name) ? name : std::to_string(if_index);
}

[[noreturn]] void fail(const std::string &what, unsigned if_index, int error) {
    throw std::runtime_error(what + " " + name_of(if_index) + ": " +
                             std::generic_category().message(error < 0 ? -error : error));
}

// An action stands in the options with the name of its kind.
bool names_redirect(std::string_view options) {
    return options.find("mirred") != std::string_view::npos;
}

tc_filter filter_in(const nlmsghdr &message, const tcmsg &head) {
    tc_filter filter;
    filter.priority = head.tcm_info >> 16;
    each_attribute(message, sizeof(tcmsg), [&](const nlattr &attribute) {
        if (mnl_attr_get_type(&attribute) == TCA_KIND)
            filter.kind = text_of(attribute);
        if (mnl_attr_get_type(&attribute) != TCA_OPTIONS)
            return;
        filter.redirects =
            names_redirect({static_cast<const char *>(mnl_attr_get_payload(&attribute)),
                            mnl_attr_get_payload_len(&attribute)});
        each_nested(attribute, [&](const nlattr &option) {
            if (filter.kind == "bpf" && mnl_attr_get_type(&option) == TCA_BPF_NAME)
                filter.name = text_of(option);
        });
    });
    return filter;
}

// An older kind of it, "ingress", would take what is meant for the egress for the ingress, too.
bool has_clsact(unsigned if_index) {
    tcmsg request = {};
    request.tcm_ifindex = static_cast<int>(if_index);
    bool found = false;
    netlink_ask(NETLINK_ROUTE, {RTM_GETQDISC, NLM_F_DUMP, request}, [&](const nlmsghdr &message) {
        const std::optional<tcmsg> head = head_of<tcmsg>(message);
        if (!head || head->tcm_ifindex != request.tcm_ifindex)
            return;
        each_attribute(message, sizeof *head, [&](const nlattr &attribute) {
            if (mnl_attr_get_type(&attribute) == TCA_KIND)
                found = found || text_of(attribute) == "clsact";
        });
    });
    return found;
}

} // namespace

unsigned ethernet_interface(const std::string &name) {
    const unsigned index = name.size() < IF_NAMESIZE ? if_nametoindex(name.c_str()) : 0;
    if (index == 0)
        throw std::runtime_error("there is no interface " + name);
    ifinfomsg request = {};
    request.ifi_index = static_cast<int>(index);
    bool ethernet = false;
    netlink_ask(NETLINK_ROUTE, {RTM_GETLINK, 0, request}, [&](const nlmsghdr &message) {
        const std::optional<ifinfomsg> link = head_of<ifinfomsg>(message);
        ethernet = link && link->ifi_type == ARPHRD_ETHER;
    });
    if (!ethernet)
        throw std::runtime_error("the gate can't stand at " + name +
                                 ", which has no Ethernet frames");
    return index;
}

tc_program program_of(int fd) {
    std::array<uint32_t, 64> ids = {};
    bpf_prog_info info = {};
    uint32_t size = sizeof info;
    info.nr_map_ids = ids.size();
    info.map_ids = reinterpret_cast<uintptr_t>(ids.data());
    if (bpf_obj_get_info_by_fd(fd, &info, &size) != 0)
        return {};
    tc_program program;
    program.id = info.id;
    program.name.assign(info.name, strnlen(info.name, sizeof info.name));
    program.tag.assign(reinterpret_cast<const char *>(info.tag), sizeof info.tag);
    program.map_ids.assign(ids.begin(),
                           ids.begin() + std::min<size_t>(info.nr_map_ids, ids.size()));
    return program;
}

std::optional<tc_program> gate_at(unsigned if_index, tc_side side) {
    const bpf_tc_hook hook = hook_at(if_index, point_of(side));
    bpf_tc_opts options = own_place();
    if (bpf_tc_query(&hook, &options) != 0)
        return std::nullopt;
    const unique_fd fd(bpf_prog_get_fd_by_id(options.prog_id));
    if (!fd.valid())
        fail("there is no telling what the program is at", if_index, errno);
    tc_program program = program_of(fd.get());
    if (program.name.starts_with(GATE_PROGRAM))
        return program;
    throw std::runtime_error("another program, " + program.name + ", has the gate's place at " +
                             name_of(if_index));
}

bool make_hooks(unsigned if_index) {
    bpf_tc_hook hook = hook_at(if_index, BPF_TC_INGRESS | BPF_TC_EGRESS);
    const int error = bpf_tc_hook_create(&hook);
    if (error != 0 && error != -EEXIST)
        fail("no clsact at", if_index, error);
    if (error == -EEXIST && !has_clsact(if_index))
        throw std::runtime_error(name_of(if_index) +
                                 " has a qdisc in the place of clsact: `tc qdisc del dev " +
                                 name_of(if_index) + " ingress` removes it");
    return error == 0;
}

void remove_hooks(unsigned if_index) {
    for (const tc_side side : TC_SIDES)
        if (!filters_at(if_index, side).empty())
            return;
    bpf_tc_hook hook = hook_at(if_index, BPF_TC_INGRESS | BPF_TC_EGRESS);
    int error = bpf_tc_hook_destroy(&hook);
    for (int i = 0; i < BUSY_TRIES && error == -EBUSY; i++) { // somebody lists what is attached
        std::this_thread::sleep_for(BUSY_PAUSE);
        error = bpf_tc_hook_destroy(&hook);
    }
    if (error != 0 && error != -ENOENT && error != -EINVAL) // there is none any more
        fail("clsact can't be removed from", if_index, error);
}

void attach(unsigned if_index, tc_side side, int program_fd) {
    const bpf_tc_hook hook = hook_at(if_index, point_of(side));
    bpf_tc_opts options = own_place();
    options.prog_fd = program_fd;
    options.flags = BPF_TC_F_REPLACE;
    const int error = bpf_tc_attach(&hook, &options);
    if (error != 0)
        fail("the gate can't be attached to", if_index, error);
}

void detach(unsigned if_index, tc_side side) {
    const bpf_tc_hook hook = hook_at(if_index, point_of(side));
    const bpf_tc_opts options = own_place();
    const int error = bpf_tc_detach(&hook, &options);
    if (error != 0 && error != -ENOENT)
        fail("the gate can't be detached from", if_index, error);
}

gate_programs gate_programs_at(unsigned if_index) {
    gate_programs programs;
    for (size_t i = 0; i < programs.size(); i++) {
        const std::optional<tc_program> there = gate_at(if_index, TC_SIDES[i]);
        if (!there)
            throw std::runtime_error("there is no gate at " + name_of(if_index));
        programs[i] = unique_fd(bpf_prog_get_fd_by_id(there->id));
    }
    return programs;
}

void attach_all(unsigned if_index, const gate_programs &programs) {
    make_hooks(if_index);
    for (size_t i = 0; i < programs.size(); i++) {
        const std::optional<tc_program> there = gate_at(if_index, TC_SIDES[i]);
        if (!there || there->id != program_of(programs[i].get()).id)
            attach(if_index, TC_SIDES[i], programs[i].get());
    }
}

bool take_gate_from(unsigned if_index) {
    bool had_gate = false;
    for (const tc_side side : TC_SIDES) {
        if (!gate_at(if_index, side))
            continue;
        detach(if_index, side);
        had_gate = true;
    }
    if (had_gate)
        remove_hooks(if_index);
    return had_gate;
}

std::vector<tc_filter> filters_at(unsigned if_index, tc_side side) {
    tcmsg request = {};
    request.tcm_family = AF_UNSPEC;
    request.tcm_ifindex = static_cast<int>(if_index);
    request.tcm_parent =
        TC_H_MAKE(TC_H_CLSACT, side == tc_side::ingress ? TC_H_MIN_INGRESS : TC_H_MIN_EGRESS);
    std::vector<tc_filter> filters;
    netlink_ask(NETLINK_ROUTE, {RTM_GETTFILTER, NLM_F_DUMP, request}, [&](const nlmsghdr &message) {
        const std::optional<tcmsg> head = head_of<tcmsg>(message);
        if (head && head->tcm_handle != 0) // else it is what filters of one priority hang on
            filters.push_back(filter_in(message, *head));
    });
    return filters;
}

} // namespace avcore
