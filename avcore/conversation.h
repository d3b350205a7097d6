// What daemons and tools say on the AV channel: each message goes to whom it concerns, and each
// question is answered by whoever knows.
#pragma once

#include "avcore/base/messages.h"
#include "avcore/enforce/enforcement.h"
#include "avcore/feed/feeder.h"
#include "avcore/flows/frame_builder.h"
#include "avcore/flows/roam_flows.h"
#include "avcore/names/dns_names.h"
#include "avcore/settings/config.h"
#include "avcore/watch/watch.h"
#include "avcore/web/safe_search.h"
#include "avcore/web/url_agent.h"

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace avcore {

class conversation {
public:
    // All of them outlive it.
    struct partners {
        const config &settings;
        std::vector<std::string> inputs; // the interfaces by which frames come
        frame_builder &builder;
        feeder &frames;
        name_timeline &names;
        url_agent &agent;
        safe_search *resolvers; // null: nobody carries safe search out
        enforcement *at_gate;   // null: verdicts aren't enforced
        watch *watched_by;      // null: there is no watch socket
        std::function<void(const std::string &)> say;
    };
    explicit conversation(partners with) : with_(std::move(with)) {}

    channel_answer take(byte_span datagram);

    // Policies changed, or what else a verdict depends on.
    void outdate_verdicts();

    // The bus has brought this to the daemon.
    void brought(std::string_view topic, std::span<const std::byte> payload);
    int64_t names_due_ms() const { return named_.due_ms(); }
    void use_names();

    uint64_t malformed() const { return malformed_; }
    // What the daemon switched, printable: "av wlan0" and the like.
    const std::map<std::string, int32_t> &switches() const { return switches_; }
    // The DPI engine is there, and a daemon showed that it does without.
    bool engine_missed() const;

private:
    struct question_row;
    static const question_row QUESTIONS[];

    void judged(flow_row &row, bool was_denied);
    bool is_denied(const flow_row &row) const;
    void hear(const av_verdict &verdict);
    void hear(const av_app_setting &setting);
    void hear(const policy_reset &) { outdate_verdicts(); }
    void hear(const switch_setting &setting);
    void hear(const av_safesearch_setting &setting);
    void hear(const syslog_line &line);
    void hear(const ignored_message &) {}

    channel_answer answer(const question &asked);
    channel_answer roam_flows(const question &asked);
    channel_answer domain_name(const question &asked);
    channel_answer category(const question &asked);
    channel_answer platform_value(const question &asked);
    channel_answer name_page(const question &asked);

    partners with_;
    named_servers named_;
    std::map<std::string, int32_t> switches_;
    bool engine_asked_ = false;
    bool engine_ignored_ = false;
    uint64_t malformed_ = 0;
};

} // namespace avcore
