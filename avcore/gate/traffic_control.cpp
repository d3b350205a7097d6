#include "avcore/gate/traffic_control.h"

#include "avcore/gate/clsact.h"
#include "avcore/gate/tcx.h"
#include "avcore/netlink/netlink.h"

#include <algorithm>
#include <cstdint>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <stdexcept>
#include <utility>

namespace avcore {
namespace {

struct standing_gate {
    attach_way way;
    tc_program program;
};

// The first is looked at again: a gate that another process moves meanwhile is no missing one.
std::optional<standing_gate> find_gate(const std::string &pins, unsigned if_index, tc_side side) {
    for (const attach_way way : {attach_way::tcx, attach_way::clsact, attach_way::tcx})
        if (std::optional<tc_program> program = gate_at(pins, if_index, side, way))
            return standing_gate{way, std::move(*program)};
    return std::nullopt;
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

attach_way way_to_attach(unsigned if_index, std::optional<attach_way> wanted) {
    if (wanted == attach_way::clsact)
        return attach_way::clsact;
    if (has_tcx(if_index))
        return attach_way::tcx;
    if (wanted == attach_way::tcx)
        throw std::runtime_error("this kernel has no tcx, which is Linux's since 6.6");
    return attach_way::clsact;
}

std::optional<tc_program> gate_at(const std::string &pins, unsigned if_index, tc_side side,
                                  attach_way way) {
    return way == attach_way::tcx ? tcx_gate(pins, if_index, side)
                                  : clsact_gate(pins, if_index, side);
}

std::optional<tc_program> gate_at(const std::string &pins, unsigned if_index, tc_side side) {
    const std::optional<standing_gate> gate = find_gate(pins, if_index, side);
    return gate ? std::optional(gate->program) : std::nullopt;
}

std::vector<attach_way> ways_of_gate(const std::string &pins, unsigned if_index, tc_side side) {
    std::vector<attach_way> ways;
    for (const attach_way way : ATTACH_WAYS)
        if (gate_at(pins, if_index, side, way))
            ways.push_back(way);
    return ways;
}

void attach(const std::string &pins, unsigned if_index, tc_side side, attach_way way,
            int program_fd) {
    if (way == attach_way::tcx)
        attach_to_tcx(pins, if_index, side, program_fd);
    else
        attach_to_clsact(pins, if_index, side, program_fd);
}

void detach(const std::string &pins, unsigned if_index, tc_side side, attach_way way) {
    if (way == attach_way::tcx)
        detach_from_tcx(pins, if_index, side);
    else
        detach_from_clsact(if_index, side);
}

gate_programs gate_programs_at(const std::string &pins, unsigned if_index) {
    gate_programs programs;
    for (size_t i = 0; i < TC_SIDE_COUNT; i++) {
        const std::optional<standing_gate> there = find_gate(pins, if_index, TC_SIDES[i]);
        if (!there)
            throw std::runtime_error("there is no gate at " + interface_name(if_index));
        programs.fds[i] = open_program(pins, there->program.id, if_index);
        if (TC_SIDES[i] == tc_side::ingress)
            programs.way = there->way;
    }
    return programs;
}

void attach_all(const std::string &pins, unsigned if_index, const gate_programs &programs) {
    if (programs.way == attach_way::clsact)
        make_hooks(if_index);
    for (size_t i = 0; i < TC_SIDE_COUNT; i++) {
        const int fd = programs.fds[i].get();
        const std::optional<tc_program> there = gate_at(pins, if_index, TC_SIDES[i], programs.way);
        if (!there || there->id != program_of(fd).id)
            attach(pins, if_index, TC_SIDES[i], programs.way, fd);
    }
}

bool take_gate_from(const std::string &pins, unsigned if_index, attach_way way) {
    bool had_gate = false;
    for (const tc_side side : TC_SIDES) {
        if (!gate_at(pins, if_index, side, way))
            continue;
        detach(pins, if_index, side, way);
        had_gate = true;
    }
    if (had_gate && way == attach_way::clsact)
        remove_hooks(if_index);
    return had_gate;
}

bool take_gate_from(const std::string &pins, unsigned if_index) {
    bool had_gate = false;
    for (const attach_way way : ATTACH_WAYS)
        had_gate = take_gate_from(pins, if_index, way) || had_gate;
    return had_gate;
}

} // namespace avcore
