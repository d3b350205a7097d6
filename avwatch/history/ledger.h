// The open flows with what has been counted of them, and what is to be added to the history's sums:
// from what the watch socket says of each flow to what the next transaction writes. No database
// here: the store writes `pending`, `changed` and `removed` in one transaction and says `written`;
// when it fails they stay, and grow, until another one succeeds.
//
// Exactly once: a flow's counts are those since it began, so what is new is what they have beyond
// those that the ledger was told last. Those are stored with the sums, so that a flow that comes
// again after a restart of either side goes on where it was.
//
// A flow gets its name and its verdict a moment after its first packets. What it has in its first
// HELD_MS is therefore counted once that is over, or it ends: under the name and the verdict that
// it has then. Until then its counts stand with the open flows, so a crash doesn't lose them.
//
// Bounded: MAX_FLOWS open flows, the others go uncounted and are said to; MAX_KEYS of them
// all and MAX_CLIENT_KEYS of a client's, beyond which a flow is of the client's other applications;
// MAX_PENDING sums; what doesn't fit waits in its flow, and of flows that end adds to the sum of
// all others.
#pragma once

#include "avwatch/history/amounts.h"
#include "avwatch/history/application_names.h"
#include "avwatch/history/ended_flows.h"

#include <compare>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace avwatch {

// As stored, and in the order of VERDICT_WORDS.
enum verdict_code : uint8_t { NO_VERDICT, ALLOW, WHITE_LIST, DENY, RATE_LIMIT, QOS, VERDICTS };
inline constexpr std::string_view VERDICT_WORDS[] = {"none", "allow",      "white list",
                                                     "deny", "rate limit", "qos"};
static_assert(std::size(VERDICT_WORDS) == VERDICTS);

struct sum_key {
    std::string client; // a MAC address, or an address where that isn't known
    application_name application;
    uint8_t verdict = NO_VERDICT;
    auto operator<=>(const sum_key &) const = default;
};

struct open_flow {
    static constexpr size_t UNCHANGED = SIZE_MAX;

    const sum_key *key = nullptr; // the ledger's: many flows have the same
    flow_counts told = {};        // the latest, added to the sums unless it is held
    bool held = true;
    bool has_mac = false;
    bool stored = false;           // has a row in the database
    size_t changed_at = UNCHANGED; // its place among those that changed since that was written
    int64_t since_ms = 0;          // that this run knows it
    int64_t heard_ms = 0;          // of it, last
};

// What the socket says; empty is what it left out.
struct flow_message {
    std::string_view id;
    std::string_view client;
    std::string_view client_mac;
    std::string_view application;
    std::string_view named_by;
    uint8_t verdict = NO_VERDICT;
    flow_counts counts = {};
    bool ended = false;
};

// In place of an id, which would take as much memory as all else that is known of a flow. An id has
// the nanosecond in which the gate met the flow, so that no client chooses its number. Stored: it
// is the same in each run.
uint64_t flow_number(std::string_view id);

class ledger {
public:
    static constexpr int64_t HELD_MS = 10'000;
    static constexpr int64_t SILENT_MS = 600'000; // after five idle ones a flow has ended
    static constexpr size_t MAX_FLOWS = 69'632;   // the gate's, and some that end
    static constexpr size_t MAX_KEYS = 16'384;
    static constexpr size_t MAX_CLIENT_KEYS = 1'024; // of an hour the history keeps fewer
    static constexpr size_t MAX_PENDING = 8'192;

    explicit ledger(names_kept kept) : kept_(kept) {}

    // From the database, at the start.
    void restore(uint64_t number, sum_key key, open_flow flow, int64_t now_ms);
    void restore(const ended_flows::entry &ended) { ended_.restore(ended); }

    // Both of the same boot and, where only frames are counted, of the same run: the flows go on.
    // Otherwise none of them comes again.
    void connected(std::string_view epoch);
    void listed(int64_t now_ms);
    // The rest of what is said was heard, too, up to now.
    void heard(int64_t now_ms);
    void disconnected() { listed_ms_ = -1; }

    struct growth {
        flow_counts counts = {}; // what the flow has beyond what was told before
        int64_t named_ms = 0;    // until then all of them are counted under its later name
    };
    // Nothing of a flow that isn't counted.
    std::optional<growth> take(const flow_message &news, int64_t now_ms);
    std::optional<growth> take_counts(std::string_view id, const flow_counts &counts, bool ended,
                                      int64_t now_ms);
    // Of flows that ended unseen; its `id` and `ended` mean nothing.
    void take_sum(const flow_message &sum, uint64_t flows);

    // What it calls the flow; null: nothing is known of it.
    const application_name *name_of(std::string_view id) const;

    // To be called every few seconds: looks at all open flows.
    void pass(int64_t now_ms);
    // Nothing is held any longer: others are told what there is.
    void release_all();

    const std::map<sum_key, amounts> &pending() const { return pending_; }
    using flow_map = std::unordered_map<uint64_t, open_flow>; // by flow_number
    // Null for those that have ended since.
    const std::vector<flow_map::pointer> &changed() const { return changed_; }
    const std::vector<uint64_t> &removed() const { return removed_; } // had a row
    const ended_flows &ended() const { return ended_; }
    // When avcore was last heard, once it had listed its flows; CLOCK_MONOTONIC, of the epoch's
    // boot. -1: never.
    int64_t heard_ms() const { return heard_ms_; }
    void set_heard(int64_t at_ms) { heard_ms_ = at_ms; }
    // How far back avcore is to be asked for ends: since it was last heard and somewhat longer, for
    // they are told late; in another boot all. None: it never was heard.
    std::optional<int64_t> ends_to_ask_for_ms(int64_t now_ms) const;
    const std::string &epoch() const { return epoch_; }
    void set_epoch(std::string epoch) { epoch_ = std::move(epoch); }
    void written();
    // Another file takes the former one's place: all open flows are to be written.
    void forget_rows();

    size_t open() const { return flows_.size(); }
    // Messages about flows beyond MAX_FLOWS, since the history began.
    uint64_t uncounted() const { return uncounted_; }
    void set_uncounted(uint64_t count) { uncounted_ = count; }

private:
    struct key_hash {
        size_t operator()(const sum_key &key) const {
            const std::hash<std::string> hash;
            return (hash(key.client) * 31 + hash(key.application.text)) * 31 + key.verdict;
        }
    };

    flow_map::iterator enter(const flow_message &news, int64_t now_ms);
    bool rename(open_flow &flow, const flow_message &news);
    growth take(flow_map::iterator at, const flow_counts &counts, bool ended, int64_t now_ms);
    const sum_key *share(sum_key key);
    bool has_room_for_name(const std::string &client) const;
    void give_up(const sum_key *key);
    flow_counts update(flow_map::iterator at, const flow_counts &counts, int64_t now_ms,
                       bool is_last);
    bool is_to_be_released(const open_flow &flow, int64_t now_ms) const;
    void release(open_flow &flow);
    flow_map::iterator close(flow_map::iterator at);
    void note_changed(flow_map::iterator at);
    void drop_ended_changes();
    bool has_room(const sum_key &key) const;
    void count(const sum_key &key, const amounts &more);

    const names_kept kept_;
    std::string epoch_;
    int64_t listed_ms_ = -1;
    int64_t heard_ms_ = -1;
    flow_map flows_;
    std::unordered_map<sum_key, uint32_t, key_hash> keys_;  // and how many flows have each
    std::unordered_map<std::string, uint32_t> client_keys_; // how many each client has
    ended_flows ended_;
    std::map<sum_key, amounts> pending_;
    std::vector<flow_map::pointer> changed_;
    std::vector<uint64_t> removed_;
    uint64_t uncounted_ = 0;
};

} // namespace avwatch
