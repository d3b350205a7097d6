// The gate: a small program in the kernel at the interfaces of the clients. It does to packets what
// avcore has decided about their flows, and copies up the packets of flows that are undecided.
//
// Its maps are pinned in a file system of the kernel's, so that verdicts hold while no avcore runs;
// the records are those of gate_records.h. Where avcore was built without it (JORN_INLINE), every
// function that would open it throws and says so.
#pragma once

#include "avcore/gate/attach_way.h"
#include "avcore/gate/counts.h"
#include "avcore/gate/flow_state.h"
#include "avcore/gate/interface_news.h"
#include "avcore/records/enforce_settings.h"
#include "avcore/records/gate_records.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace avcore {

inline constexpr char GATE_PINS[] = JORN_GATE_PINS;

struct gate_copy_seen {
    gate_copy head;
    std::span<const uint8_t> frame; // valid until the next one is taken
};

class gate {
public:
    // Loads the gate where it isn't, keeps what is pinned there, and attaches it to the interfaces
    // that it isn't attached to. What others attached stays. Mounts a bpffs at `pins` where there
    // is none. `wanted`: by which way; otherwise by the better one that the kernel has. Where it
    // stands by the other one it is moved. `first`: what a new gate goes by from its first packet
    // on, also one that takes the place of an older build's; but nothing is held yet. Throws
    // std::runtime_error with a reason for the user; nothing that it began is left behind then.
    gate(const std::string &pins, const std::vector<std::string> &interfaces,
         std::optional<attach_way> wanted = std::nullopt, const gate_rules &first = {});
    ~gate(); // the gate itself stays where it is
    gate(gate &&) noexcept;

    int interfaces_fd() const; // readable when interfaces may have come or gone
    // Attaches it again where one of the interfaces was made anew, and where an access point among
    // them has one for single stations. Returns what is new since the last call.
    interface_news follow_interfaces();
    bool misses_interfaces() const; // an attempt failed: it is to be made again, in a second
    std::vector<std::string> interfaces() const; // where it is attached in this run
    // Detaches it everywhere else, where earlier runs attached it. Returns where it stood. Throws
    // std::runtime_error.
    std::vector<std::string> leave_others();
    std::vector<std::string> taken_away(); // from which of them, since the last call
    // What rules know the interface of a copy by: the access point's, where it is one for single
    // stations. Empty where the interface is gone.
    const std::string &interface_of(uint32_t if_index);

    void set_rules(const gate_rules &rules);

    int fd() const; // readable when there are copies
    // Takes one copy or held packet; false when there is none now.
    bool take(gate_copy_seen &copy);
    // The head of the one that would be taken next.
    std::optional<gate_copy> next_head() const;

    // Packets can be held from here on, which is the rules' business. Throws std::runtime_error.
    void open_way_back();
    // Opens it again where somebody has taken it down or away; true then. Throws as well.
    bool renew_way_back();
    // A held packet, as on the wire, goes on as if it had come in at the interface now. False when
    // the kernel doesn't take it.
    bool put_back(uint32_t if_index, std::vector<uint8_t> &&frame);
    // Whether packets of the flow were taken that aren't back. Without a way back: none.
    bool has_taken(const gate_flow &flow) const;
    // All packets of the flow that will come back are back.
    void forget_holds(const gate_flow &flow);
    // Held packets that won't come back; for status, too.
    void add_ending(__u64 gate_endings::*which, uint64_t packets);

    // False when the kernel refuses it.
    bool decide(const gate_flow &flow, const gate_verdict &verdict);
    // What it does to the flow's packets; none where it knows no verdict, or no longer.
    std::optional<gate_verdict> verdict_of(const gate_flow &flow) const;
    // All 0 where the gate doesn't know the flow, or no longer. With those of the flows that had
    // its addresses and ports earlier.
    gate_counter counter_of(const gate_flow &flow) const;
    // None where the gate doesn't know the flow, or no longer.
    std::optional<gate_flow_state> flow_of(const gate_flow &flow) const;
    // Shows `max` of the flows at most (256 where that is less), from `cursor` on, which is 0 at
    // first, and again when these were the last. Flows that come or go during a walk may be passed
    // over or come twice; those that stay come once.
    flow_walk walk_flows(uint32_t &cursor, size_t max, const flow_visitor &visit) const;
    gate_census census() const;
    bool set_limit(uint32_t bucket, const gate_limit &limit);

    // Readers know the ends of flows whose last packet came before that, CLOCK_MONOTONIC.
    void note_told(uint64_t ns);
    uint64_t told_ns() const; // noted last, in this run or one before; 0: never

    void beat();
    // Packets of undecided flows are copied without a beat, too: one of them will show that there
    // is a daemon again.
    // Counted are flows from now on in either case, also when this program is killed.
    void ask_although_unattended(bool ask);
    // In order: what passes without a beat is to cost as little as it can.
    void leave();
    uint32_t generation() const;
    // All verdicts so far are to be asked for again, and hold until then.
    void next_generation();

    gate_counts counts() const;
    gate_endings endings() const;
    // By the clients' MAC addresses, as long as the gate remembers them.
    std::map<std::array<uint8_t, 6>, uint64_t> refused_copies() const;

private:
    struct parts;
    std::unique_ptr<parts> parts_;
};

// Throws std::runtime_error where a gate can't stand at the interface.
void check_gate_place(const std::string &interface);

// Detaches the gate from all interfaces of this network namespace and removes the pins and, where
// nothing else is in it, the mount. Returns where it was attached; nowhere where there is none.
// Throws std::runtime_error.
std::vector<std::string> tear_down_gate(const std::string &pins);

struct gate_status {
    bool there = false;
    std::vector<std::string> interfaces; // it is attached to, but for those of single stations:
    std::map<std::string, std::vector<std::string>> stations; // by the access point's
    std::map<std::string, std::vector<attach_way>> ways;      // of all of them
    gate_rules rules;
    uint32_t generation = 0;
    int64_t beat_age_ms = -1; // none yet
    gate_counts counts = {};
    gate_endings endings = {};
    gate_census census;
};
// `census`: one that is late enough; null: it is taken. Throws std::runtime_error.
gate_status look_at_gate(const std::string &pins, const gate_census *census = nullptr);

// What carries packets past the gate at these interfaces, a line each: hardware offload of
// switching, flow tables of nftables, programs and actions of others at the ingress that redirect
// before it, XDP programs.
std::vector<std::string> ways_past_gate(const std::string &pins,
                                        const std::vector<std::string> &interfaces);

} // namespace avcore
