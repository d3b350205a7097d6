#include "avcore/gate/gate_filters.h"

#include "unique_fd.h"

#include <algorithm>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstring>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <stdexcept>
#include <string_view>
#include <sys/socket.h>

namespace avcore {
namespace {

constexpr size_t ANSWER_SIZE = 32'768;

bpf_tc_hook hook_of(int if_index, bpf_tc_attach_point point) {
    bpf_tc_hook hook = {};
    hook.sz = sizeof hook;
    hook.ifindex = if_index;
    hook.attach_point = point;
    return hook;
}

bpf_tc_attach_point point_of(gate_direction direction) {
    return direction == GATE_UP ? BPF_TC_INGRESS : BPF_TC_EGRESS;
}

std::string text_of(const rtattr *attribute) {
    const auto *text = static_cast<const char *>(RTA_DATA(attribute));
    return {text, strnlen(text, RTA_PAYLOAD(attribute))};
}

// Without the flag that says that it holds others.
unsigned type_of(const rtattr *attribute) {
    return attribute->rta_type & static_cast<unsigned>(NLA_TYPE_MASK);
}

template <typename Use>
void each_attribute(const rtattr *first, size_t size, Use use) {
    auto left = static_cast<int>(size);
    for (const rtattr *one = first; RTA_OK(one, left); one = RTA_NEXT(one, left))
        use(one);
}

tc_filter filter_of(const nlmsghdr *message) {
    tcmsg head;
    memcpy(&head, NLMSG_DATA(message), sizeof head);
    tc_filter filter;
    filter.handle = head.tcm_handle;
    filter.priority = static_cast<uint16_t>(head.tcm_info >> 16);
    const auto *attributes =
        static_cast<const char *>(NLMSG_DATA(message)) + NLMSG_ALIGN(sizeof head);
    each_attribute(reinterpret_cast<const rtattr *>(attributes),
                   message->nlmsg_len - NLMSG_SPACE(sizeof head), [&](const rtattr *one) {
                       if (type_of(one) == TCA_KIND)
                           filter.kind = text_of(one);
                       if (type_of(one) != TCA_OPTIONS || filter.kind != "bpf")
                           return;
                       each_attribute(static_cast<const rtattr *>(RTA_DATA(one)), RTA_PAYLOAD(one),
                                      [&](const rtattr *option) {
                                          if (type_of(option) == TCA_BPF_NAME)
                                              filter.name = text_of(option);
                                      });
                   });
    return filter;
}

// Takes the messages of one datagram; false at the end of the dump.
bool take_filters(const char *bytes, size_t size, std::vector<tc_filter> &filters) {
    auto left = static_cast<unsigned>(size);
    for (const auto *message = reinterpret_cast<const nlmsghdr *>(bytes); NLMSG_OK(message, left);
         message = NLMSG_NEXT(message, left)) {
        if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR)
            return false;
        if (message->nlmsg_type != RTM_NEWTFILTER ||
            message->nlmsg_len < NLMSG_SPACE(sizeof(tcmsg)))
            continue;
        // A chain without a filter is listed, too, with handle 0.
        if (const tc_filter filter = filter_of(message); filter.handle != 0)
            filters.push_back(filter);
    }
    return true;
}

} // namespace

bool tc_filter::is_gate() const {
    return kind == "bpf" && handle == GATE_FILTER_HANDLE &&
           (name.starts_with(GATE_PROGRAM_UP) || name.starts_with(GATE_PROGRAM_DOWN));
}

std::vector<tc_filter> filters_at(int if_index, gate_direction direction) {
    std::vector<tc_filter> filters;
    const unique_fd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    struct {
        nlmsghdr head;
        tcmsg body;
    } request = {};
    request.head.nlmsg_len = sizeof request;
    request.head.nlmsg_type = RTM_GETTFILTER;
    request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.body.tcm_family = AF_UNSPEC;
    request.body.tcm_ifindex = if_index;
    request.body.tcm_parent =
        TC_H_MAKE(TC_H_CLSACT, direction == GATE_UP ? TC_H_MIN_INGRESS : TC_H_MIN_EGRESS);
    if (!socket.valid() || send(socket.get(), &request, sizeof request, 0) < 0)
        return filters;
    alignas(nlmsghdr) char answer[ANSWER_SIZE];
    for (;;) {
        const ssize_t size = recv(socket.get(), answer, sizeof answer, 0);
        if (size <= 0 || !take_filters(answer, static_cast<size_t>(size), filters))
            return filters;
    }
}

void attach_gate(const std::string &interface, int if_index, gate_direction direction,
                 int program_fd) {
    bpf_tc_hook hook = hook_of(if_index, point_of(direction));
    const auto fail = [&](int error) {
        throw std::runtime_error("can't attach the gate to " + interface + ": " + strerror(-error));
    };
    if (const int error = bpf_tc_hook_create(&hook); error != 0 && error != -EEXIST)
        fail(error);
    bpf_tc_opts options = {};
    options.sz = sizeof options;
    options.prog_fd = program_fd;
    options.handle = GATE_FILTER_HANDLE;
    options.priority = GATE_FILTER_PRIORITY;
    options.flags = BPF_TC_F_REPLACE;
    if (const int error = bpf_tc_attach(&hook, &options); error != 0)
        fail(error);
}

void detach_gate(int if_index) {
    bool others = false;
    for (const gate_direction direction : {GATE_UP, GATE_DOWN}) {
        for (const tc_filter &filter : filters_at(if_index, direction)) {
            if (!filter.is_gate()) {
                others = true;
                continue;
            }
            bpf_tc_hook hook = hook_of(if_index, point_of(direction));
            bpf_tc_opts options = {};
            options.sz = sizeof options;
            options.handle = filter.handle;
            options.priority = filter.priority;
            bpf_tc_detach(&hook, &options);
        }
    }
    if (others)
        return;
    bpf_tc_hook whole =
        hook_of(if_index, static_cast<bpf_tc_attach_point>(BPF_TC_INGRESS | BPF_TC_EGRESS));
    bpf_tc_hook_destroy(&whole);
}

} // namespace avcore
