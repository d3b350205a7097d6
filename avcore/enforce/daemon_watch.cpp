#include "avcore/enforce/daemon_watch.h"

#include <utility>

namespace avcore {
namespace {

constexpr int64_t BEAT_MS = 1'000;
constexpr int64_t UNDECIDED_MS = 1'000;
constexpr int64_t TELL_AGAIN_MS = 60'000;

} // namespace

// A closed gate stays shut until a daemon comes, however often this program is started.
daemon_watch::daemon_watch(gate &gate, const enforce_settings &settings,
                           const channel_server &channel, feeder &feeder, say_function say,
                           int64_t now_ms)
    : gate_(gate),
      settings_(settings),
      channel_(channel),
      feeder_(feeder),
      say_(std::move(say)),
      somebody_decides_(!settings.rules.fail_closed),
      next_beat_ms_(somebody_decides_ ? now_ms : NEVER_MS) {
    gate_.ask_although_unattended(!somebody_decides_);
    const gate_counts counts = gate_.counts();
    for (shortage *each : {&refused_, &lost_, &tags_, &much_, &holds_refused_, &holds_lost_})
        each->told = counts[each->which];
    refused_before_ = gate_.refused_copies();
}

// A restarted daemon has connected anew, also when its old connection still seems to be there or
// both changes show at one look. Silence alone is no restart: it may be the machine's load.
void daemon_watch::look(bool link_down, int64_t now_ms) {
    const size_t connections_before = std::exchange(connections_, channel_.connections());
    const uint64_t connects_before = std::exchange(connects_, channel_.connects());
    if (connects_before > 0 && connects_ != connects_before)
        may_be_new_ = true;
    const bool has_ended = connections_before > 0 && connections_ == 0;
    if (has_ended)
        leave_time();
    if (has_ended || link_down || feeder_.silent(now_ms, UNDECIDED_MS))
        decides(false, now_ms);
    else if (connections_ > connections_before)
        decides(true, now_ms);
    if (has_ended)
        feeder_.daemon_ended(now_ms);
    if (!somebody_decides_ || now_ms < next_beat_ms_)
        return;
    gate_.beat();
    next_beat_ms_ = now_ms + BEAT_MS;
    for (const std::string &name : gate_.taken_away())
        say_("the gate at " + name +
             " was taken away: what passes there isn't judged until avcore is started again");
    if (gate_.renew_way_back())
        say_("the device by which held packets go back was taken down or away, and made anew");
    tell_shortages(now_ms);
}

bool daemon_watch::answered(int64_t now_ms) {
    decides(true, now_ms);
    return std::exchange(may_be_new_, false);
}

void daemon_watch::decides(bool does, int64_t now_ms) {
    const bool has_come = std::exchange(has_come_, has_come_ || does);
    if (std::exchange(somebody_decides_, does) == does)
        return;
    next_beat_ms_ = does ? now_ms : NEVER_MS;
    gate_.ask_although_unattended(!does);
    if (!does) {
        has_left_ = true;
        say_(std::string(has_come ? "the daemon is gone" : "no daemon answers yet") +
             ": the gate is told so, and waits for it");
        feeder_.link_lost(now_ms);
        return;
    }
    if (has_left_)
        say_(has_come ? "the daemon is back" : "the daemon is there");
    lost_.told = gate_.counts()[lost_.which]; // nobody took the others, for nobody was there
}

uint64_t daemon_watch::take_news(shortage &of, const gate_counts &counts, int64_t now_ms) {
    if (now_ms < of.silent_until_ms)
        return 0;
    const uint64_t told = std::exchange(of.told, counts[of.which]);
    if (of.told <= told)
        return 0;
    of.silent_until_ms = now_ms + TELL_AGAIN_MS;
    return of.told - told;
}

// Which one had most refused since it was last told, as far as the gate remembers.
std::string daemon_watch::refused_clients() {
    std::map<mac_address, uint64_t> refused = gate_.refused_copies();
    mac_address worst = {};
    uint64_t most = 0;
    size_t clients = 0;
    for (const auto &[mac, count] : refused) {
        const auto before = refused_before_.find(mac);
        const bool known = before != refused_before_.end() && before->second <= count;
        const uint64_t news = count - (known ? before->second : 0);
        clients += news > 0 ? 1 : 0;
        if (news > most) {
            worst = mac;
            most = news;
        }
    }
    refused_before_ = std::move(refused);
    if (clients == 0)
        return "a client has";
    return "client " + mac_text(worst) +
           (clients > 1 ? " and " + std::to_string(clients - 1) + " more have" : " has");
}

void daemon_watch::tell_shortages(int64_t now_ms) {
    const gate_counts counts = gate_.counts();
    if (const uint64_t refused = take_news(refused_, counts, now_ms); refused > 0)
        say_(refused_clients() + " more than " + std::to_string(settings_.rules.copies_per_second) +
             " undecided packets a second: " + std::to_string(refused) +
             (settings_.rules.drop_excess
                  ? " weren't looked at, and dropped where no verdict was there"
                  : " passed without being looked at"));
    if (const uint64_t lost = take_news(lost_, counts, now_ms); lost > 0)
        say_("more undecided packets than can be taken: " + std::to_string(lost) +
             " passed without being looked at");
    if (const uint64_t refused = take_news(holds_refused_, counts, now_ms); refused > 0)
        say_("a client has more than " + std::to_string(settings_.rules.holds_per_second) +
             " packets a second to be held: " + std::to_string(refused) + " were dropped");
    if (const uint64_t lost = take_news(holds_lost_, counts, now_ms); lost > 0)
        say_("more packets to be held than can be taken: " + std::to_string(lost) +
             " were dropped");
    if (const uint64_t tags = take_news(tags_, counts, now_ms); tags > 0)
        say_("too many VLAN tags: " + std::to_string(tags) +
             " frames were dropped; with tags = \"pass\" in [enforce] they pass unjudged");
    if (const uint64_t much = take_news(much_, counts, now_ms); much > 0)
        say_("a client sends too much of what always passes (ARP, LLC, errors of ICMP): " +
             std::to_string(much) + " packets were dropped");
}

} // namespace avcore
