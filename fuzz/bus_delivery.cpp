// What comes to the daemon on the bus socket: a subscription hears of the messages that it asked
// for, whole, with texts that end, and of nothing else; what is no message is dropped and told.
#include "demand.h"
#include "pieces.h"
#include "platform/host/messages/bus_messages.h"
#include "platform/wdlm.h"

#include <array>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

using bytes = std::span<const std::byte>;

constexpr size_t HEAD_SIZE = sizeof(bus_message_head) + sizeof(bus_delivery);
const std::string LONG_NAME(64, 'n'); // fills its field

struct heard {
    std::string sender, topic;
    std::vector<std::byte> payload;
    bool operator==(const heard &) const = default;
};
std::vector<heard> messages;

void hear(void *, const wdlm_message *message) {
    const auto *payload = static_cast<const std::byte *>(message->payload);
    messages.push_back({message->sender, message->topic, {payload, payload + message->length}});
}

template <size_t N>
std::string text_of(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

int listen_for_daemon() {
    static sockaddr_un name = {AF_UNIX, "/tmp/jorn_bus.XXXXXX"};
    close(mkstemp(name.sun_path));
    unlink(name.sun_path);
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0);
    demand(bind(listener, reinterpret_cast<sockaddr *>(&name), sizeof name) == 0 &&
           listen(listener, 1) == 0);
    setenv(BUS_SOCKET_VARIABLE, name.sun_path, 1);
    atexit([] { unlink(name.sun_path); });
    return listener;
}

void subscribe(wdlm_bus *bus, const char *sender, const std::string &topic) {
    wdlm_label *label = wdlm_create_slabel(0, sender, topic.c_str(), 0);
    demand(label != nullptr && wdlm_sub(bus, label, hear, nullptr, 0) == 0);
    wdlm_destroy_slabel(label);
}

// What the subscriptions to all that is said of "topic" and to what LONG_NAME says of LONG_NAME
// have to hear of a message.
std::vector<heard> expected(bytes datagram) {
    bus_delivery head;
    memcpy(&head, datagram.data() + sizeof(bus_message_head), sizeof head);
    const bytes payload = datagram.subspan(HEAD_SIZE);
    const heard said = {
        text_of(head.sender), text_of(head.topic), {payload.begin(), payload.end()}};
    // Bytes behind a text's end make another one of it.
    const bool is_padded = said.topic.size() == sizeof head.topic ||
                           std::string_view(head.topic, sizeof head.topic)
                                   .find_first_not_of('\0', said.topic.size()) == std::string::npos;
    const bool is_wanted = is_padded && (said.topic == "topic" ||
                                         (said.topic == LONG_NAME && said.sender == LONG_NAME));
    return is_wanted ? std::vector{said} : std::vector<heard>();
}

void check_delivery(wdlm_bus *bus, int daemon, bytes datagram) {
    demand(send(daemon, datagram.data(), datagram.size(), 0) ==
           static_cast<ssize_t>(datagram.size()));
    bus_message_head head = {};
    memcpy(&head, datagram.data(), std::min(sizeof head, datagram.size()));
    const bool is_message = head.kind == bus_kind::deliver && datagram.size() >= HEAD_SIZE &&
                            datagram.size() <= HEAD_SIZE + BUS_PAYLOAD_MAX;
    messages.clear();
    demand(wdlm_receive(bus) == (is_message ? 0 : WDLM_ERR_DROPPED));
    demand(messages == (is_message ? expected(datagram) : std::vector<heard>()));
}

// What the daemon says goes out as it is.
void check_publication(wdlm_bus *bus, int daemon, bytes payload) {
    wdlm_label *label = wdlm_create_plabel(0, LONG_NAME.c_str(), "topic", 0);
    const bool fits = payload.size() <= BUS_PAYLOAD_MAX;
    demand((wdlm_pub(bus, label, payload.data(), payload.size()) == 0) == fits);
    wdlm_destroy_plabel(label);
    std::vector<std::byte> sent(HEAD_SIZE + BUS_PAYLOAD_MAX + 1);
    const ssize_t got = recv(daemon, sent.data(), sent.size(), MSG_DONTWAIT);
    demand(fits ? got == static_cast<ssize_t>(HEAD_SIZE + payload.size()) : got < 0);
    demand(!fits || payload.empty() ||
           memcmp(sent.data() + HEAD_SIZE, payload.data(), payload.size()) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int listener = listen_for_daemon();
    wdlm_bus *bus = wdlm_open(0, "jorn");
    const int daemon = accept(listener, nullptr, nullptr);
    demand(bus != nullptr && daemon >= 0 && wdlm_fd(bus) >= 0);
    subscribe(bus, "*", "topic");
    subscribe(bus, LONG_NAME.c_str(), LONG_NAME);
    demand(__wdlm_add_peer("", 0, LONG_NAME.c_str(), "192.0.2.1") == 0);
    std::array<std::byte, 200> told;
    for (const size_t record :
         {sizeof(bus_subscription), sizeof(bus_subscription), sizeof(bus_peer)})
        demand(recv(daemon, told.data(), told.size(), 0) ==
               static_cast<ssize_t>(sizeof(bus_message_head) + record));
    demand(wdlm_receive(bus) == -1);
    pieces input(data, size);
    while (!input.empty()) {
        const bytes message = input.message();
        const std::vector<std::byte> datagram(message.begin(), message.end());
        if (datagram.empty())
            break; // the connection's end
        check_delivery(bus, daemon, datagram);
        check_publication(bus, daemon, datagram);
    }
    close(daemon);
    demand(wdlm_receive(bus) == -1); // not wdlm_fd, which may connect again
    wdlm_close(bus);
    return 0;
}
