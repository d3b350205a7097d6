#include "avcore/gate/clsact.h"

#include "avcore/netlink/netlink.h"
#include "shared/unique_fd.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <chrono>
#include <linux/pkt_cls.h>
#include <linux/rtnetlink.h>
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

// What stands in the gate's place, whose it may be.
std::optional<tc_program> program_in_place(const std::string &pins, unsigned if_index,
                                           tc_side side) {
    const bpf_tc_hook hook = hook_at(if_index, point_of(side));
    bpf_tc_opts options = own_place();
    if (bpf_tc_query(&hook, &options) != 0)
        return std::nullopt;
    const unique_fd fd = open_program(pins, options.prog_id, if_index);
    if (fd.valid())
        return program_of(fd.get());
    for (const tc_filter &filter : filters_at(if_index, side)) // which say what they are called
        if (filter.priority == GATE_PRIORITY)
            return tc_program{options.prog_id, filter.name, {}, {}};
    return std::nullopt;
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

std::optional<tc_program> clsact_gate(const std::string &pins, unsigned if_index, tc_side side) {
    std::optional<tc_program> program = program_in_place(pins, if_index, side);
    return program && program->is_gate() ? program : std::nullopt;
}

bool make_hooks(unsigned if_index) {
    bpf_tc_hook hook = hook_at(if_index, BPF_TC_INGRESS | BPF_TC_EGRESS);
    const int error = bpf_tc_hook_create(&hook);
    if (error != 0 && error != -EEXIST)
        fail_at(if_index, "no clsact at", error);
    if (error == -EEXIST && !has_clsact(if_index))
        throw std::runtime_error(interface_name(if_index) +
                                 " has a qdisc in the place of clsact: `tc qdisc del dev " +
                                 interface_name(if_index) + " ingress` removes it");
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
        fail_at(if_index, "clsact can't be removed from", error);
}

void attach_to_clsact(const std::string &pins, unsigned if_index, tc_side side, int program_fd) {
    const std::optional<tc_program> there = program_in_place(pins, if_index, side);
    if (there && !there->is_gate())
        throw std::runtime_error("another program, " + there->name + ", has the gate's place at " +
                                 interface_name(if_index));
    const bpf_tc_hook hook = hook_at(if_index, point_of(side));
    bpf_tc_opts options = own_place();
    options.prog_fd = program_fd;
    options.flags = BPF_TC_F_REPLACE;
    const int error = bpf_tc_attach(&hook, &options);
    if (error != 0)
        fail_at(if_index, "the gate can't be attached to", error);
}

void detach_from_clsact(unsigned if_index, tc_side side) {
    const bpf_tc_hook hook = hook_at(if_index, point_of(side));
    const bpf_tc_opts options = own_place();
    const int error = bpf_tc_detach(&hook, &options);
    if (error != 0 && error != -ENOENT)
        fail_at(if_index, "the gate can't be detached from", error);
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
