#include "avcore/enforce/held_packets.h"

#include <algorithm>
#include <cstring>

namespace avcore {
namespace {

mac_address client_of(std::span<const uint8_t> frame) {
    mac_address mac = {};
    if (frame.size() >= 2 * mac.size())
        std::copy_n(frame.begin() + mac.size(), mac.size(), mac.begin());
    return mac;
}

} // namespace

uint32_t pieces_of(const gate_copy &head) {
    return gate_pieces(head.payload, head.end, head.segment_size);
}

int64_t due_ms_of(const gate_copy &head) {
    return static_cast<int64_t>(head.time_ns / 1'000'000) + held_packets::WAIT_MS;
}

held_packets::flow_words held_packets::words_of(const gate_flow &flow) {
    flow_words words;
    memcpy(words.data(), &flow, sizeof flow);
    return words;
}

void held_packets::set_due(flow_map::iterator flow, int64_t due_ms) {
    due_.erase({flow->second.due_ms, flow->first});
    flow->second.due_ms = due_ms;
    due_.emplace(due_ms, flow->first);
}

void held_packets::erase(flow_map::iterator flow) {
    due_.erase({flow->second.due_ms, flow->first});
    flows_.erase(flow);
}

bool held_packets::add(const gate_copy &head, std::span<const uint8_t> frame) {
    held_packet packet = {head, {frame.begin(), frame.end()}};
    const uint32_t pieces = pieces_of(head);
    const auto [flow, is_new] = flows_.try_emplace(words_of(head.flow));
    if (flow->second.is_let_go && pieces <= CLIENT_PACKETS) {
        put_back_(packet);
        return true;
    }
    const auto client = clients_.try_emplace(client_of(frame)).first;
    const bool fits = client->second.packets + pieces <= CLIENT_PACKETS &&
                      all_.packets + pieces <= ALL_PACKETS &&
                      client->second.bytes + frame.size() <= CLIENT_BYTES &&
                      all_.bytes + frame.size() <= ALL_BYTES;
    if (!fits) {
        if (client->second.packets == 0)
            clients_.erase(client);
        if (is_new)
            flows_.erase(flow);
        return false;
    }
    for (amount *each : {&client->second, &all_}) {
        each->packets += pieces;
        each->bytes += frame.size();
    }
    if (is_new)
        set_due(flow, due_ms_of(packet.head));
    flow->second.waiting.push_back(std::move(packet));
    return true;
}

held_packet held_packets::take_first(flow_state &state) {
    held_packet packet = std::move(state.waiting.front());
    state.waiting.pop_front();
    const auto client = clients_.find(client_of(packet.frame));
    for (amount *each : {&client->second, &all_}) {
        each->packets -= pieces_of(packet.head);
        each->bytes -= packet.frame.size();
    }
    if (client->second.packets == 0)
        clients_.erase(client);
    return packet;
}

bool held_packets::waits(const gate_flow &flow) const {
    const auto found = flows_.find(words_of(flow));
    return found != flows_.end() && !found->second.is_let_go;
}

bool held_packets::knows(const gate_flow &flow) const {
    return flows_.contains(words_of(flow));
}

void held_packets::let_go(const gate_flow &flow, const gate_verdict &verdict, int64_t now_ms) {
    const auto found = flows_.try_emplace(words_of(flow)).first;
    flow_state &state = found->second;
    state.verdict = verdict;
    if (std::exchange(state.is_let_go, true))
        return;
    while (!state.waiting.empty())
        put_back_(take_first(state));
    set_due(found, now_ms + BEHIND_MS);
}

std::optional<gate_flow> held_packets::first_overdue(int64_t now_ms) const {
    if (now_ms < next_due_ms())
        return std::nullopt;
    gate_flow flow;
    memcpy(&flow, due_.begin()->second.data(), sizeof flow);
    return flow;
}

uint64_t held_packets::drop_overdue(const gate_flow &flow, int64_t now_ms) {
    const auto found = flows_.find(words_of(flow));
    uint64_t dropped = 0;
    if (found == flows_.end())
        return dropped;
    flow_state &state = found->second;
    while (!state.waiting.empty() && due_ms_of(state.waiting.front().head) <= now_ms)
        dropped += pieces_of(take_first(state).head);
    if (state.waiting.empty())
        erase(found);
    else
        set_due(found, due_ms_of(state.waiting.front().head));
    return dropped;
}

gate_verdict held_packets::forget(const gate_flow &flow) {
    const auto found = flows_.find(words_of(flow));
    if (found == flows_.end())
        return {};
    const gate_verdict verdict = found->second.verdict;
    erase(found);
    return verdict;
}

} // namespace avcore
