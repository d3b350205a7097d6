#include "avcore/watch/answers.h"

#include "avcore/flows/flow_text.h"
#include "avcore/watch/flow_object.h"
#include "avcore/watch/json_text.h"
#include "avcore/watch/outgoing_lines.h"

#include <algorithm>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

namespace avcore {
namespace {

constexpr int MESSAGES_A_TURN = 16;
constexpr uint32_t PLACES_A_TURN = 1'024;
constexpr size_t MAX_ADDRESSES = 8; // of a client

// A message about one thing, which `append` appends.
template <typename Append>
void add_message(std::string &out, uint32_t id, const char *what, Append append) {
    {
        json_object message(out);
        message.add("id", id);
        append(message.key(what));
    }
    out += '\n';
}

// All flows that fit, as they are after a round of the gate's counts.
class walk_of_flows : public answer {
public:
    walk_of_flows(const watch_question &asked, const watch_sources &sources)
        : asked_(asked), sources_(sources), round_(sources.flows.want_round()) {}

    bool is_ready() const override { return sources_.flows.is_done(round_); }

protected:
    uint32_t id() const { return asked_.id; }
    const watch_sources &sources() const { return sources_; }

    // The next of so many places at most; null: none of them, or none any more.
    const watched_flow *next(uint32_t &places) {
        for (; places > 0 && !is_through(); --places) {
            const watched_flow &flow = sources_.flows.at(next_++);
            if (flow.can_be_told() && !flow.is_over() && asked_.filter.fits(flow))
                return &flow;
        }
        return nullptr;
    }
    bool is_through() const { return next_ >= sources_.flows.places(); }

private:
    watch_question asked_;
    watch_sources sources_;
    uint64_t round_;
    uint32_t next_ = 0;
};

class flows_answer : public walk_of_flows {
public:
    using walk_of_flows::walk_of_flows;

    bool add_some(std::string &out) override {
        uint32_t places = PLACES_A_TURN;
        for (int messages = 0; messages < MESSAGES_A_TURN; ++messages) {
            const watched_flow *flow = next(places);
            if (flow == nullptr)
                break;
            add_message(out, id(), "flow",
                        [&](std::string &text) { append_flow(text, *flow, sources().behind); });
        }
        return !is_through();
    }
};

struct client_sum {
    struct address {
        ip_address ip;
        int64_t last_us;
    };
    std::vector<address> addresses; // the latest of them
    std::string interface;          // of its latest flow, like
    uint32_t utp = 0;
    int64_t last_us = 0;
    sum_of_flows sum;
};

void note_address(client_sum &client, const ip_address &ip, int64_t last_us) {
    auto &known = client.addresses;
    auto found = std::ranges::find(known, ip, &client_sum::address::ip);
    if (found == known.end() && known.size() < MAX_ADDRESSES)
        found = known.insert(known.end(), {ip, last_us});
    else if (found == known.end())
        found = std::ranges::min_element(known, {}, &client_sum::address::last_us);
    if (last_us >= found->last_us)
        *found = {ip, last_us};
}

class clients_answer : public walk_of_flows {
public:
    using walk_of_flows::walk_of_flows;

    bool add_some(std::string &out) override {
        uint32_t places = PLACES_A_TURN;
        while (const watched_flow *flow = next(places))
            note(*flow);
        if (!is_through())
            return true;
        for (int messages = 0; messages < MESSAGES_A_TURN && !clients_.empty(); ++messages) {
            const auto first = clients_.begin();
            add_message(out, id(), "client", [&](std::string &text) {
                append_client(text, first->first.first, first->second);
            });
            clients_.erase(first);
        }
        return !clients_.empty();
    }

private:
    // Whose MAC address isn't known is told by its address.
    using client_key = std::pair<mac_address, ip_address>;

    void note(const watched_flow &flow) {
        const endpoint &side = flow.known().client;
        client_sum &client = clients_[{side.mac, is_known(side.mac) ? ip_address() : side.address}];
        if (flow.known().ipv4 && !side.address.is_unspecified()) // as DHCP has it
            note_address(client, side.address, flow.seen.last_us);
        if (flow.seen.last_us >= client.last_us) {
            client.interface = flow.known().client_interface;
            client.utp = flow.known().client_utp;
            client.last_us = flow.seen.last_us;
        }
        ++client.sum.flows;
        client.sum.counts = client.sum.counts + flow.counts;
    }

    void append_client(std::string &out, const mac_address &mac, client_sum &client) const {
        json_object object(out);
        if (is_known(mac))
            object.add("client_mac", mac_text(mac));
        std::ranges::sort(client.addresses, std::greater(), &client_sum::address::last_us);
        std::string &list = object.key("addresses") += '[';
        for (const client_sum::address &each : client.addresses) {
            if (&each != client.addresses.data())
                list += ',';
            append_json_text(list, each.ip.text());
        }
        list += ']';
        object.add("interface", client.interface);
        object.add("utp", client.utp);
        if (const std::string name = sources().host_name(mac); is_known(mac) && !name.empty())
            object.add("host_name", name);
        object.add("flows", client.sum.flows);
        add_counts(object, client.sum.counts);
        object.add("last_us", client.last_us);
    }

    std::map<client_key, client_sum> clients_;
};

class ready_answer : public answer {
public:
    explicit ready_answer(std::string text) : text_(std::move(text)) {
        if (text_.size() > outgoing_lines::MAX_LINE)
            throw std::runtime_error("the answer is longer than a line may be");
    }

    bool add_some(std::string &out) override {
        out += text_;
        return false;
    }

private:
    std::string text_;
};

void append_counts(std::string &out, const named_counts &counts) {
    json_object object(out);
    for (const named_count &each : counts)
        object.add(each.name.c_str(), each.count);
}

} // namespace

std::unique_ptr<answer> begin_answer(const watch_question &asked, const watch_sources &sources) {
    std::string text;
    switch (asked.what) {
    case asked_thing::flows:
        return std::make_unique<flows_answer>(asked, sources);
    case asked_thing::clients:
        return std::make_unique<clients_answer>(asked, sources);
    case asked_thing::counts:
        add_message(text, asked.id, "counts",
                    [&](std::string &out) { append_counts(out, sources.counts()); });
        break;
    case asked_thing::gate:
        add_message(text, asked.id, "gate", [&](std::string &out) { out += sources.gate_state(); });
        break;
    }
    return std::make_unique<ready_answer>(std::move(text));
}

std::unique_ptr<answer> begin_answer(const profile_question &asked, const watch_sources &sources) {
    std::string text;
    add_message(text, asked.id, "profile",
                [&](std::string &out) { out += sources.profile(asked); });
    return std::make_unique<ready_answer>(std::move(text));
}

} // namespace avcore
