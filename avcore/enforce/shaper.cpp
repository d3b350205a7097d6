#include "avcore/enforce/shaper.h"

#include "avcore/netlink/netlink.h"

#include <algorithm>
#include <cerrno>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <system_error>

namespace avcore {
namespace {

constexpr uint32_t ROOT = 0xA40C'0000; // shaper::MAJOR
constexpr uint64_t QUEUES_A_SECOND = 10;
constexpr uint64_t SMALLEST_QUEUE = 15'140; // bytes: ten full frames
constexpr uint32_t FULL_FRAME = 1514;
constexpr uint32_t BURST = 1600; // bytes that a class sends without waiting
constexpr uint32_t FLOWS = 128;  // that fq_codel tells apart; each takes 64 bytes
constexpr uint64_t TICK_NS = 64; // of the packet schedulers' times
constexpr uint32_t RATE_TO_QUANTUM = 10;

tcmsg at(uint32_t if_index, uint32_t parent, uint32_t handle) {
    tcmsg head = {};
    head.tcm_ifindex = static_cast<int>(if_index);
    head.tcm_parent = parent;
    head.tcm_handle = handle;
    return head;
}

netlink_request request_for(uint16_t type, uint16_t flags, const tcmsg &head, const char *kind) {
    netlink_request request(type, flags, head);
    mnl_attr_put_strz(request.message(), TCA_KIND, kind);
    return request;
}

template <typename Value>
void put(netlink_request &request, uint16_t type, const Value &value) {
    mnl_attr_put(request.message(), type, sizeof value, &value);
}

// 0 or an errno value: EEXIST where the interface has a root that isn't the kernel's default.
int add_root(uint32_t if_index) {
    netlink_request request =
        request_for(RTM_NEWQDISC, NLM_F_CREATE | NLM_F_EXCL, at(if_index, TC_H_ROOT, ROOT), "htb");
    nlattr *options = mnl_attr_nest_start(request.message(), TCA_OPTIONS);
    tc_htb_glob all = {};
    all.version = 3;
    all.rate2quantum = RATE_TO_QUANTUM;
    put(request, TCA_HTB_INIT, all);
    mnl_attr_nest_end(request.message(), options);
    return netlink_order(request);
}

// Rates of 4 GiB a second and more have an attribute of their own.
tc_ratespec rate_of(uint64_t bytes_per_second) {
    tc_ratespec rate = {};
    rate.linklayer = TC_LINKLAYER_ETHERNET;
    rate.rate = static_cast<uint32_t>(std::min<uint64_t>(bytes_per_second, UINT32_MAX));
    return rate;
}

int set_class(uint32_t if_index, uint32_t number, uint64_t bytes_per_second) {
    netlink_request request = request_for(RTM_NEWTCLASS, NLM_F_CREATE | NLM_F_REPLACE,
                                          at(if_index, ROOT, ROOT | number), "htb");
    tc_htb_opt limit = {};
    limit.rate = limit.ceil = rate_of(bytes_per_second);
    const uint64_t ticks = BURST * 1'000'000'000ULL / bytes_per_second / TICK_NS;
    limit.buffer = limit.cbuffer =
        static_cast<uint32_t>(std::clamp<uint64_t>(ticks, 1, UINT32_MAX));
    limit.quantum = FULL_FRAME;
    nlattr *options = mnl_attr_nest_start(request.message(), TCA_OPTIONS);
    if (bytes_per_second > UINT32_MAX) {
        put(request, TCA_HTB_RATE64, bytes_per_second);
        put(request, TCA_HTB_CEIL64, bytes_per_second);
    }
    put(request, TCA_HTB_PARMS, limit);
    mnl_attr_nest_end(request.message(), options);
    return netlink_order(request);
}

// EINVAL says that a run before left one, whose number of flows can't be set again.
int queue_flows(uint32_t if_index, uint32_t number) {
    netlink_request request = request_for(RTM_NEWQDISC, NLM_F_CREATE | NLM_F_REPLACE,
                                          at(if_index, ROOT | number, 0), "fq_codel");
    nlattr *options = mnl_attr_nest_start(request.message(), TCA_OPTIONS);
    put(request, TCA_FQ_CODEL_FLOWS, FLOWS);
    mnl_attr_nest_end(request.message(), options);
    const int refused = netlink_order(request);
    return refused == EINVAL ? 0 : refused;
}

int queue_bytes(uint32_t if_index, uint32_t number, uint64_t bytes) {
    netlink_request request = request_for(RTM_NEWQDISC, NLM_F_CREATE | NLM_F_REPLACE,
                                          at(if_index, ROOT | number, 0), "bfifo");
    tc_fifo_qopt size = {};
    size.limit = static_cast<uint32_t>(std::min<uint64_t>(bytes, UINT32_MAX));
    put(request, TCA_OPTIONS, size);
    return netlink_order(request);
}

} // namespace

// Where the root can't be added the one that is there may be ours, of a run before.
bool shaper::has_root(uint32_t if_index) {
    if (const auto known = roots_.find(if_index); known != roots_.end())
        return known->second;
    const int refused = add_root(if_index);
    const int error = refused == 0 ? 0 : set_class(if_index, QUEUES, 1'000'000);
    char name[IF_NAMESIZE] = {};
    if (error != 0 && if_indextoname(if_index, name) != nullptr)
        say_("no queues at " + std::string(name) + " (" + std::generic_category().message(refused) +
             "), for there is no HTB or the interface has another root qdisc: limits are kept by "
             "drops");
    return roots_[if_index] = error == 0;
}

shaper::queue shaper::queue_of(uint32_t if_index, const limit_owner &owner,
                               uint64_t bytes_per_second) {
    if (!has_root(if_index))
        return {};
    const limit_book::place place = limits_.place_of(owner, bytes_per_second);
    uint64_t &rate = rates_[{if_index, place.bucket}];
    if (rate != bytes_per_second) {
        if (set_class(if_index, place.bucket, bytes_per_second) != 0)
            return {0, place.judge_anew};
        if (rate == 0 && queue_flows(if_index, place.bucket) != 0)
            queue_bytes(if_index, place.bucket,
                        std::max(SMALLEST_QUEUE, bytes_per_second / QUEUES_A_SECOND));
        rate = bytes_per_second;
    }
    return {MAJOR << 16 | place.bucket, place.judge_anew};
}

void shaper::remove_from(const std::vector<std::string> &interfaces) {
    for (const std::string &name : interfaces)
        remove_shaping(name);
    roots_.clear();
    rates_.clear();
}

void shaper::forget_gone() {
    char name[IF_NAMESIZE];
    std::erase_if(roots_, [&](const auto &each) { return !if_indextoname(each.first, name); });
    std::erase_if(rates_, [&](const auto &each) { return !roots_.contains(each.first.first); });
}

void remove_shaping(const std::string &interface) {
    if (const uint32_t if_index = if_nametoindex(interface.c_str()); if_index != 0)
        netlink_order(netlink_request(RTM_DELQDISC, 0, at(if_index, TC_H_ROOT, ROOT)));
}

} // namespace avcore
