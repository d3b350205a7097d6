#include "avcore/bus/bus.h"

#include "avcore/bus/wire.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

namespace avcore {
namespace {

bus_address listening_address(const bus_settings &settings) {
    const std::optional<bus_address> address = bus_address::of_listener(settings.listen);
    if (!address)
        throw std::runtime_error("bus: no address to listen at: " + settings.listen);
    return *address;
}

} // namespace

message_bus::message_bus(const bus_settings &settings, surroundings around)
    : around_(std::move(around)),
      address_(listening_address(settings)),
      loopback_only_(settings.loopback_only()),
      ground_(around_.say),
      local_(
          ground_, around_.socket_path,
          [this](const local_server::request &asked, int64_t now_ms) { take(asked, now_ms); },
          around_.delivered),
      incoming_(ground_, address_,
                [this](std::span<const std::byte> body) { deliver(body, now_ms_); }),
      outgoing_(ground_) {
    if (settings.secured()) {
        ground_.tls = std::make_unique<tls_identity>(settings);
        remark_on_certificate();
    } else if (settings.insecure) {
        around_.say("bus: insecure = true: without certificates whoever reaches port " +
                    std::to_string(address_.port()) + " can name addresses");
    }
}

void message_bus::remark_on_certificate() {
    const std::string name = around_.name();
    const std::string &certified = ground_.tls->name();
    if (certified.empty())
        around_.say("bus: the certificate doesn't have one common name: nobody will take it");
    else if (!name.empty() && certified != name)
        around_.say("bus: the certificate is of " + certified + ", this is " + name);
    if (const std::string remark = ground_.tls->validity_remark(); !remark.empty())
        around_.say("bus: the certificate " + remark);
}

void message_bus::take(const local_server::request &asked, int64_t now_ms) {
    if (const auto *named = std::get_if<bus_peer_named>(&asked))
        add_peer(*named, now_ms);
    else if (const auto *published = std::get_if<bus_published>(&asked))
        publish(*published, now_ms);
}

void message_bus::add_peer(const bus_peer_named &named, int64_t now_ms) {
    const auto address = bus_address::of_peer(named.address, address_.port());
    const char *refusal = !address ? "which is no host's" : nullptr;
    if (address && loopback_only_ && !address->is_loopback())
        refusal = "for without certificates only loopback is dialled";
    if (refusal != nullptr) {
        ++ground_.counts.refused_addresses;
        ground_.complain(named.name + ": refused the address \"" + named.address + "\", " +
                             refusal + "; what was known of it holds",
                         now_ms);
        return;
    }
    outgoing_.add_peer(named.name, *address, now_ms);
}

void message_bus::publish(const bus_published &published, int64_t now_ms) {
    const std::string name = around_.name();
    if (name.empty()) {
        ++ground_.counts.nameless;
        ground_.complain("this access point has no base MAC address: nothing is sent", now_ms);
    } else if (published.destination == name) {
        ++ground_.counts.own_name;
    } else if (!outgoing_.publish(published.destination,
                                  encode_message(name, published.topic, published.payload),
                                  now_ms)) {
        ++ground_.counts.unknown_peer;
    }
}

void message_bus::deliver(std::span<const std::byte> body, int64_t now_ms) {
    if (names_of(body).sender == around_.name())
        ++ground_.counts.own_name;
    else
        local_.deliver(body, now_ms);
}

void message_bus::dispatch(const poller::event &event, int64_t now_ms) {
    switch (event.part) {
    case bus_part::listener:
        incoming_.accept(now_ms);
        break;
    case bus_part::incoming:
        incoming_.serve(event.id, now_ms);
        break;
    case bus_part::outgoing:
        outgoing_.serve(event.id, now_ms);
        break;
    case bus_part::local_listener:
        local_.accept(now_ms);
        break;
    case bus_part::local:
        local_.serve(event.id, now_ms);
        break;
    }
}

void message_bus::serve(int64_t now_ms) {
    now_ms_ = now_ms;
    ground_.step_taken = false;
    for (const poller::event &event : ground_.poll.ready())
        dispatch(event, now_ms);
    outgoing_.tick(now_ms);
    incoming_.tick(now_ms);
    local_.tick(now_ms);
    next_tick_ms_ = std::min(
        {outgoing_.next_tick_ms(now_ms), incoming_.next_tick_ms(now_ms), local_.next_tick_ms()});
}

void message_bus::report(std::ostream &out) const {
    const bus_counts &counts = ground_.counts;
    out << "bus: messages: " << counts.published << " for peers, " << counts.sent << " sent, "
        << counts.received << " received, " << counts.delivered << " delivered\n";
    const struct {
        uint64_t count;
        const char *what;
    } remarks[] = {
        {outgoing_.waiting(), "waiting for peers"},
        {local_.waiting(), "waiting for the daemon"},
        {counts.outgoing.crowded_out, "dropped, more than 16 waited for a peer"},
        {counts.outgoing.too_old, "dropped, a peer wasn't reached in 30 seconds"},
        {counts.with_forgotten_peers, "dropped with a peer that was used longest ago"},
        {counts.unknown_peer, "dropped, nobody said where the peer is"},
        {counts.own_name, "dropped, under this access point's own name"},
        {counts.nameless, "dropped for want of a base MAC address"},
        {counts.local.crowded_out, "dropped, more than 16 waited for the daemon"},
        {counts.local.too_old, "dropped, no daemon took them in 30 seconds"},
        {counts.refused_addresses, "addresses refused"},
        {counts.malformed_datagrams, "malformed messages on the bus socket"},
        {counts.refused, "connections refused"},
        {counts.bad_lengths, "of them for a message's length"},
        {counts.unauthenticated, "connections that didn't say who they are in two seconds"},
        {counts.gave_way, "connections that gave way to others"},
        {counts.unsaid, "lines left out, said before or too many"},
    };
    for (const auto &remark : remarks) {
        if (remark.count != 0)
            out << "bus: " << remark.what << ": " << remark.count << '\n';
    }
}

} // namespace avcore
