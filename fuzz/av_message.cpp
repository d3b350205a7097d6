// What a daemon, or whoever plays one, says on the AV channel: a question gets one answer, of the
// size that its op has, and nothing else gets any; what is said of it is printable. What is none
// may have come to the daemon by the bus, which names servers of its flows.
//
// An input is messages. Frames await their verdicts: a DNS answer that names 192.0.2.7, one of
// 10.1.0.2:1000 to that address (TCP), and one of IPv6, whose addresses have stand-ins.
#include "avcore/base/messages.h"
#include "avcore/conversation.h"
#include "avcore/names/dns_answer.h"
#include "demand.h"
#include "pieces.h"
#include "shared/av_questions.h"
#include "support/frames.h"
#include "support/fresh_state.h"
#include "support/saved_folder.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <variant>
#include <vector>

namespace {

using namespace avcore;

constexpr size_t SWITCHES_MAX = 256;
constexpr char CATEGORIES[] = "ads.example 69\nnews.example 1 2 3 4 5\n";
constexpr char SETTINGS[] = "dpi = false\n[platform]\nfw_version = \"1.2\"\n"
                            "[[rule]]\nnetwork = \"10.1.0.0/16\"\nutp_id = 7\nweb_utp = [0, 9]\n"
                            "filter_type = [\"url\"]\ninterface = \"wlan1\"\n";

bool is_printable(std::string_view text) {
    return std::ranges::none_of(text, [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

// What the channel's messages are for, fresh for each input.
struct platform_parts {
    config settings = parse_config(SETTINGS, "f");
    frame_builder builder{settings, ""};
    feeder frames;
    name_timeline names;
    url_agent agent{{true, false, {}, ""}, category_list::parse(CATEGORIES, "c")};
    safe_search resolvers;
    conversation talk;

    explicit platform_parts(const std::string &folder)
        : resolvers(folder),
          talk({settings,
                {"lan0", "lan1"},
                builder,
                frames,
                names,
                agent,
                &resolvers,
                nullptr,
                nullptr,
                [](const std::string &line) { demand(is_printable(line)); }}) {
        const std::string named = std::string("\4host\7example\0\0\1\0\1", 18);
        const std::string answer = std::string("\0\1\x81\x80\0\1\0\1\0\0\0\0", 12) + named +
                                   std::string("\xC0\x0C\0\1\0\1\0\0\0\x3C\0\4\xC0\0\2\7", 16);
        pass(ethernet(0x0800,
                      ipv4(17, udp(53, 1024, answer), {.src = 0xC0000235, .dst = 0x0A010002}),
                      false));
        const octets stream = tcp(1000, 443, {});
        pass(ethernet(0x0800, ipv4(6, stream, {.src = 0x0A010002, .dst = 0xC0000207})));
        pass(ethernet(0x86DD, be32(6u << 28) + be16(stream.size()) + octets{6, 64} +
                                  octets(32, 0x20) + stream));
        names.add(1, {0, {"host.example", {{ip("192.0.2.7"), 60}}}, true});
    }

    void pass(const octets &frame) {
        auto built = builder.build({frame, 0, {}, nullptr});
        demand(built.has_value());
        frames.add(std::move(built->frame), 0);
        while (frames.next_to_send(0) != nullptr)
            frames.sent(0);
    }
};

// Of a whole answer that says yes; 0: any.
size_t body_size(av_op op) {
    switch (op) {
    case av_op::dnscache_get_name:
        return sizeof(av_name_answer);
    case av_op::urlfilter_get_category:
        return sizeof(urlf_reply);
    case av_op::platform_value:
        return sizeof(av_value_answer);
    default:
        return 0;
    }
}

void check_answer(const question &asked, const channel_answer &answer) {
    av_answer_head head;
    demand(answer.bytes.size() >= sizeof head);
    memcpy(&head, answer.bytes.data(), sizeof head);
    demand(head.question.op == asked.head.op && head.question.seq == asked.head.seq);
    const size_t body = answer.bytes.size() - sizeof head;
    const size_t wanted = body_size(asked.head.op);
    demand(head.rc == 0 ? wanted == 0 || body == wanted : body == 0);
    demand(body <= std::max(sizeof(roam_message), size_t{AV_TOOL_ANSWER_MAX}));
    demand(answer.descriptor < 0 || asked.head.op == av_op::name_page);
}

void name_servers(const byte_span message, flow_table &flows) {
    named_servers named;
    named.add(ROAM_TOPIC, message, 0);
    const bool is_taken = !message.empty() && message.size() <= sizeof(roam_message);
    demand(named.due_ms() == (is_taken ? named_servers::DELAY_MS : NEVER_MS));
    for (const flow_row *row : named.take_flows(flows))
        demand(memmem(message.data(), message.size(), &row->server.ip_be, sizeof(uint32_t)));
    demand(named.due_ms() == NEVER_MS);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const saved_folder folder;
    silence_log(1);
    platform_parts parts(folder.path_of("safe"));
    for (pieces input(data, size); !input.empty();) {
        const byte_span message = input.message();
        const std::vector<std::byte> datagram(message.begin(), message.end()); // of its own size
        const uint64_t malformed = parts.talk.malformed();
        const std::optional<channel_message> parsed = parse_message(datagram);
        const channel_answer answer = parts.talk.take(datagram);
        demand(parts.talk.malformed() == malformed + (parsed ? 0 : 1));
        const auto *asked = parsed ? std::get_if<question>(&*parsed) : nullptr;
        if (asked != nullptr)
            check_answer(*asked, answer);
        else
            demand(answer.bytes.empty());
        if (!parsed)
            name_servers(datagram, parts.builder.flows());
    }
    demand(parts.talk.switches().size() <= SWITCHES_MAX);
    for (const auto &[name, value] : parts.talk.switches())
        demand(is_printable(name));
    demand(parts.frames.counts().answered <= 3);
    return 0;
}
