#include "avcore/flows/resolvers.h"

#include "avcore/base/host_text.h"

#include <algorithm>
#include <optional>

namespace avcore {

resolver_watch::exchange resolver_watch::exchange_of(const endpoint &client, const endpoint &server,
                                                     uint16_t id, const std::string &name) {
    return {client.address, client.port, server.address, id, lower_case(name)};
}

bool resolver_watch::is_resolver_among_clients(const endpoint &side) const {
    return settings_.resolvers &&
           std::ranges::any_of(*settings_.resolvers, [&side](const resolver &one) {
               return one.mac && one.address == side.address;
           });
}

bool resolver_watch::may_teach_at_all(const endpoint &sender, bool is_client) const {
    if (!settings_.resolvers)
        return !is_client;
    const std::optional<mac_address> mac = is_client ? std::optional(sender.mac) : std::nullopt;
    return std::ranges::any_of(*settings_.resolvers, [&](const resolver &one) {
        return one.address == sender.address && one.mac == mac;
    });
}

// A question from beyond the clients could be made up to fit an answer, but for a resolver among
// them, who answers that itself.
void resolver_watch::saw_question(const frame_facts &frame, const gate_copy &copy,
                                  std::span<const uint8_t> message, int64_t time_us) {
    if (copy.direction != GATE_UP && !is_resolver_among_clients(frame.receiver))
        return;
    if (const std::optional<dns_question> asked = read_dns_question(message))
        questions_.put(frame.sender.mac,
                       exchange_of(frame.sender, frame.receiver, asked->id, asked->name), {},
                       time_us);
}

bool resolver_watch::may_teach(const frame_facts &frame, const gate_copy &copy,
                               const dns_answer &answer, int64_t time_us) {
    if (copy.direction == GATE_DOWN && copy.came_up != 0)
        return false; // seen on its way up
    const bool is_client = copy.direction == GATE_UP;
    const bool listed = may_teach_at_all(frame.sender, is_client);
    const bool asked_for =
        questions_.find(exchange_of(frame.receiver, frame.sender, answer.id, answer.name),
                        time_us) != nullptr;
    if (!listed || !asked_for)
        refuse(frame, !listed, is_client);
    return listed && asked_for;
}

// Without a question there is nothing to write; it may have passed before this run.
void resolver_watch::refuse(const frame_facts &frame, bool unlisted, bool is_client) {
    ++refused_;
    bool &said = !unlisted ? said_unasked_ : is_client ? said_of_client_ : said_unlisted_;
    if (std::exchange(said, true))
        return;
    const std::string sender = frame.sender.address.text();
    const std::string mac = mac_text(frame.sender.mac);
    remark_ = "a DNS answer to " + frame.receiver.address.text() + " wasn't taken: ";
    if (!unlisted) {
        remark_ += "no question that it answers was seen; it names " + sender + " as its sender";
        return;
    }
    const std::string entry = '"' + sender + (is_client ? ' ' + mac : "") + '"';
    remark_ += "its sender, " + sender + (is_client ? " (" + mac + "), is a client" : "") +
               (is_client ? "" : ", isn't among the resolvers of [names]") +
               "; should it name servers for all, " +
               (settings_.resolvers
                    ? "add " + entry + " to resolvers there"
                    : "write [names] resolvers = [" + entry + "], with all others that may");
}

} // namespace avcore
