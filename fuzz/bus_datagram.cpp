// What daemons say on avcore's bus socket, and what the network brings for them: each message of
// the network goes to those whose subscriptions ask for it, in its order, and waits where there is
// none; what isn't exactly a message is counted and does nothing.
//
// An input is datagrams, each with a byte before it, whose lower half is: 0 and 1, two daemons that
// say it; 2, the network, whose message it is behind its length, once and as many times more as the
// upper half says sixteens; 3, half a minute that passes; 4 and 5, a daemon that goes and comes
// again; 6, the second daemon stops reading, or reads again.
#include "avcore/bus/local_server.h"
#include "avcore/bus/wire.h"
#include "demand.h"
#include "pieces.h"
#include "support/saved_folder.h"

#include <algorithm>
#include <deque>
#include <set>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>
#include <variant>
#include <vector>

namespace {

using namespace avcore;

using bytes = std::vector<std::byte>;
using view = std::span<const std::byte>;

template <size_t N>
std::string text_of(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

// The record behind the head of a datagram that has it, and no more unless there is a payload.
template <typename Record>
bool has_record(view datagram, Record &record, bool with_payload = false) {
    constexpr size_t size = sizeof(bus_message_head) + sizeof record;
    if (datagram.size() < size || (datagram.size() > size && !with_payload))
        return false;
    memcpy(&record, datagram.data() + sizeof(bus_message_head), sizeof record);
    return true;
}

struct local_daemon {
    unique_fd fd;
    std::set<std::pair<std::string, std::string>> subscriptions; // sender and topic
    std::deque<bytes> due = {};                                  // bodies that it has to be sent
    uint32_t id = 0;

    bool wants(view body) const {
        const message_names names = names_of(body);
        return std::ranges::any_of(subscriptions, [&](const auto &each) {
            return (each.first == "*" || each.first == names.sender) && each.second == names.topic;
        });
    }
};

unique_fd connect_to(const std::string &path) {
    sockaddr_un name = {AF_UNIX, {}};
    memcpy(name.sun_path, path.data(), path.size());
    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0));
    demand(connect(fd.get(), reinterpret_cast<sockaddr *>(&name), sizeof name) == 0);
    return fd;
}

class local_bus {
public:
    explicit local_bus(const std::string &path)
        : path_(path),
          server_(
              ground_, path,
              [this](const local_server::request &asked, int64_t) { taken_.push_back(asked); },
              [](std::string_view topic, view payload) {
                  demand(topic.size() <= sizeof(bus_subscription::topic));
                  demand(payload.size() <= WIRE_BODY_MAX - WIRE_BODY_MIN);
              }) {
        for (local_daemon &each : daemons_)
            come(each);
    }

    void say(size_t who, view datagram) {
        local_daemon &from = daemons_[who];
        if (datagram.empty() || send(from.fd.get(), datagram.data(), datagram.size(), 0) < 0)
            return;
        const uint64_t malformed = ground_.counts.malformed_datagrams;
        taken_.clear();
        server_.serve(from.id, now_ms_);
        const bool is_message = expect(from, datagram);
        demand(ground_.counts.malformed_datagrams == malformed + (is_message ? 0 : 1));
        read_all();
    }

    void bring(view body) {
        if (body.size() < WIRE_BODY_MIN || body.size() > WIRE_BODY_MAX)
            return; // the wire brings none
        server_.deliver(body, now_ms_);
        bool is_wanted = false;
        for (local_daemon &each : daemons_) {
            if (!each.wants(body))
                continue;
            each.due.emplace_back(body.begin(), body.end());
            is_wanted = true;
        }
        if (!is_wanted)
            unclaimed_.emplace_back(body.begin(), body.end());
        if (unclaimed_.size() > waiting_messages::MAX)
            unclaimed_.pop_front();
        read_all();
    }

    void wait() {
        has_waited_ = is_slow_;
        now_ms_ += waiting_messages::MAX_AGE_MS;
        server_.tick(now_ms_);
        unclaimed_.clear();
        demand(server_.waiting() == 0);
    }

    void come_again(size_t who) {
        if (who == 1 && is_slow_)
            turn_slow();
        local_daemon &one = daemons_[who];
        one.fd = unique_fd();
        server_.serve(one.id, now_ms_);
        one.subscriptions.clear();
        come(one);
        read_all();
    }

    // What has room for it no more is dropped, and the newest are kept.
    void turn_slow() {
        is_slow_ = !is_slow_;
        local_daemon &slow = daemons_[1];
        const bytes newest = slow.due.empty() ? bytes() : slow.due.back();
        bool is_newest = slow.due.empty();
        for (bytes got; !is_slow_ && receive(slow, got);) {
            const auto found = std::ranges::find(slow.due, got);
            demand(found != slow.due.end());
            slow.due.erase(slow.due.begin(), found + 1);
            is_newest = got == newest;
            server_.serve(slow.id, now_ms_);
        }
        demand(is_slow_ || is_newest || has_waited_);
        slow.due.clear();
        has_waited_ = false;
    }

private:
    // Whether it is a message, which then did what it has to.
    bool expect(local_daemon &from, view datagram) {
        bus_message_head head = {};
        memcpy(&head, datagram.data(), std::min(sizeof head, datagram.size()));
        bus_subscription wanted;
        bus_peer peer;
        bus_publication published;
        if (head.kind == bus_kind::subscribe && has_record(datagram, wanted))
            return subscribe(from, {text_of(wanted.sender), text_of(wanted.topic)});
        if (head.kind == bus_kind::add_peer && has_record(datagram, peer) && peer.name[0] != '\0') {
            const auto &named = std::get<bus_peer_named>(taken_.at(0));
            demand(named.name == text_of(peer.name) && named.address == text_of(peer.address));
            return true;
        }
        if (head.kind == bus_kind::publish && has_record(datagram, published, true) &&
            datagram.size() <= sizeof head + sizeof published + BUS_PAYLOAD_MAX) {
            const auto &sent = std::get<bus_published>(taken_.at(0));
            demand(sent.destination == text_of(published.destination) &&
                   sent.topic == text_of(published.topic));
            demand(
                std::ranges::equal(sent.payload, datagram.subspan(sizeof head + sizeof published)));
            return true;
        }
        demand(taken_.empty());
        return false;
    }

    bool subscribe(local_daemon &from, std::pair<std::string, std::string> wanted) {
        if (from.subscriptions.size() == SUBSCRIPTIONS_MAX && !from.subscriptions.contains(wanted))
            return false;
        from.subscriptions.insert(std::move(wanted));
        std::erase_if(unclaimed_, [&](const bytes &body) {
            const bool is_wanted = from.wants(body);
            if (is_wanted)
                from.due.push_back(body);
            return is_wanted;
        });
        return true;
    }

    void come(local_daemon &one) {
        one.fd = connect_to(path_);
        one.id = ++ids_;
        server_.accept(now_ms_);
    }

    static bool receive(const local_daemon &from, bytes &body) {
        bytes got(sizeof(bus_message_head) + WIRE_BODY_MAX + 1);
        const ssize_t size = recv(from.fd.get(), got.data(), got.size(), 0);
        demand(size < 0 || size > static_cast<ssize_t>(sizeof(bus_message_head)));
        if (size > 0)
            body.assign(got.begin() + sizeof(bus_message_head), got.begin() + size);
        return size > 0;
    }

    void read_all() {
        for (local_daemon &each : daemons_) {
            if (is_slow_ && &each == &daemons_[1])
                continue;
            bytes got;
            for (; !each.due.empty(); each.due.pop_front())
                demand(receive(each, got) && got == each.due.front());
            demand(!receive(each, got));
        }
        demand(is_slow_ || server_.waiting() == unclaimed_.size());
    }

    static constexpr size_t SUBSCRIPTIONS_MAX = 64;

    const std::string path_;
    bus_ground ground_{[](const std::string &) {}};
    std::vector<local_server::request> taken_; // whose payloads are in the server's buffer
    local_server server_;
    local_daemon daemons_[2];
    std::deque<bytes> unclaimed_; // bodies
    int64_t now_ms_ = 0;
    uint32_t ids_ = 0;
    bool is_slow_ = false;    // the second daemon doesn't read
    bool has_waited_ = false; // what waited for it is gone
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const saved_folder folder;
    local_bus bus(folder.path_of("bus"));
    for (pieces input(data, size); !input.empty();) {
        const uint8_t how = input.byte();
        const auto message = input.message();
        const bytes datagram(message.begin(), message.end()); // of its own size
        switch (how & 7) {
        case 0:
        case 1:
            bus.say(how & 1, datagram);
            break;
        case 2:
            for (int left = how / 16 * 16; left >= 0; --left)
                bus.bring(datagram);
            break;
        case 3:
            bus.wait();
            break;
        case 4:
        case 5:
            bus.come_again(how & 1);
            break;
        default:
            bus.turn_slow();
        }
    }
    return 0;
}
