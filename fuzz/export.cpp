// What collectors get of what a watch socket told: each count once, under a number that means one
// application, in messages that their templates explain to the last byte.
//
// An input is lines: messages of the watch socket, as they come there; "wait" and seconds that
// pass; "set" and seconds by which the wall's clock is set; "full" and "room", of the second of the
// collectors; "boot", another one; "turn", of the numbers; "crowd", which takes all of them, once;
// "tables", which are told again.
#include "avwatch/client/messages.h"
#include "avwatch/export/application_ids.h"
#include "avwatch/export/due_flows.h"
#include "avwatch/export/record_maker.h"
#include "avwatch/history/ledger.h"
#include "avwatch/ipfix/messages.h"
#include "demand.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>

namespace {

using namespace avwatch;

constexpr int64_t STEP_MAX_S = 1'000'000;
constexpr uint16_t APPLICATION_NAME = 96, BEGUN = 152, ENDED = 153, APPLICATION = 95;

// Knows what it was sent.
class reader {
public:
    void read(ipfix_message message) {
        message.stamp(1, sequence_);
        demand(message.bytes.size() <= ipfix_messages::MESSAGE_MAX);
        left_ = message.bytes;
        demand(number(2) == 10 && number(2) == message.bytes.size());
        demand(number(4) == 1 && number(4) == sequence_);
        bytes(4); // the domain
        uint32_t records = 0;
        while (!left_.empty()) {
            const auto id = static_cast<uint16_t>(number(2));
            const auto size = static_cast<size_t>(number(2));
            demand(size > 4 && size - 4 <= left_.size());
            const std::string_view behind = left_.substr(size - 4);
            while (left_.size() > behind.size())
                id < 256 ? read_template(id == 3) : read_record(id, records);
            demand(left_.size() == behind.size());
        }
        demand(records == message.records);
        sequence_ += records;
    }

private:
    struct field {
        uint64_t element;
        size_t size;
    };

    std::string_view bytes(size_t size) {
        demand(size <= left_.size());
        const std::string_view taken = left_.substr(0, size);
        left_.remove_prefix(size);
        return taken;
    }
    static uint64_t value(std::string_view octets) {
        uint64_t value = 0;
        for (const char each : octets)
            value = value << 8 | static_cast<uint8_t>(each);
        return value;
    }
    uint64_t number(size_t size) { return value(bytes(size)); }

    void read_template(bool is_options) {
        std::vector<field> &fields = templates_[static_cast<uint16_t>(number(2))];
        fields.clear();
        const uint64_t count = number(2);
        bytes(is_options ? 2 : 0);
        for (uint64_t i = 0; i < count; ++i) {
            const uint64_t element = number(2);
            fields.push_back({element, static_cast<size_t>(number(2))});
            bytes((element & 0x8000) != 0 ? 4 : 0);
        }
    }

    void read_record(uint16_t id, uint32_t &records) {
        demand(templates_.contains(id));
        std::map<uint64_t, std::string_view> record;
        for (const field &each : templates_[id])
            record[each.element] = bytes(each.size);
        ++records;
        if (id < 264)
            demand(names_.contains(std::string(record[APPLICATION])) &&
                   value(record[BEGUN]) <= value(record[ENDED]));
        if (!record.contains(APPLICATION_NAME))
            return;
        const std::string name(record[APPLICATION_NAME]);
        demand(names_.try_emplace(std::string(record[APPLICATION]), name).first->second == name);
        demand(std::ranges::none_of(name.substr(0, name.find('\0')),
                                    [](unsigned char c) { return c < 0x20 || c == 0x7F; }));
    }

    std::map<uint16_t, std::vector<field>> templates_;
    std::map<std::string, std::string> names_; // by ids
    std::string_view left_;
    uint32_t sequence_ = UINT32_MAX - 1;
};

struct end {
    names_kept names;
    record_rules rules;
    ipfix_messages messages;
    std::set<application_id> listed = {};
    reader taken = {};
    flow_counts given = {};
    bool is_full = false;
};

class play {
public:
    play() {
        for (end *each : ends_)
            each->messages.add_templates();
        flows_.set_clock(0);
        flows_.connected("", -1);
        counted_.listed(now_ms_);
    }

    void take_line(std::string_view line) {
        const size_t space = std::min(line.find(' '), line.size());
        const std::string_view word = line.substr(0, space);
        int64_t number = 0;
        if (space != line.size())
            std::from_chars(line.data() + space + 1, line.data() + line.size(), number);
        if (word == "wait" && number > 0)
            pass(std::min(number, STEP_MAX_S) * 1'000);
        else if (word == "set")
            flows_.set_clock(ahead_us_ += std::clamp(number, -STEP_MAX_S, STEP_MAX_S) * 1'000'000);
        else if (word == "full" || word == "room")
            second_.is_full = word == "full";
        else if (word == "boot")
            begin(std::to_string(++boots_));
        else if (word == "turn")
            numbers_.begin_turn();
        else if (word == "crowd")
            crowd();
        else if (word == "tables")
            list_again();
        else if (const auto parsed = parse_line(line))
            if (const std::optional<message> said = message_of(*parsed))
                std::visit([this](const auto &what) { take(what); }, said->what);
    }

    // Everything is over then, and told.
    void finish() {
        second_.is_full = false;
        begin("none of them");
        pass(0);
        demand(flows_.size() == 0);
        for (const end *each : ends_)
            demand(each->given == told_);
    }

private:
    void begin(const std::string &epoch) {
        counted_.connected(epoch);
        flows_.connected(epoch, now_ms_);
        counted_.listed(now_ms_);
    }

    void crowd() {
        for (; crowd_ < application_numbers::MAX; ++crowd_)
            numbers_.number_of({std::to_string(crowd_), true});
    }

    void take(const flow_record &flow) {
        const application_name *name = counted_.name_of(flow.id);
        const application_name known = name != nullptr ? *name : application_name();
        const auto more =
            counted_.take({flow.id, flow.client, flow.client_mac, flow.application,
                           flow.why.named_by, NO_VERDICT, counts_in(flow), !flow.ended.empty()},
                          now_ms_);
        if (more) {
            flows_.take(flow, *more, now_ms_, known);
            add(more->counts);
        }
    }
    void take(const count_record &count) {
        const auto more =
            counted_.take_counts(count.id, counts_in(count), !count.ended.empty(), now_ms_);
        if (more) {
            flows_.take(count, *more, now_ms_);
            add(more->counts);
        }
    }
    void take(const sum_record &sum) {
        flows_.take(sum, now_ms_);
        add(counts_in(sum));
    }
    void take(const auto & /*other*/) {}

    void add(const flow_counts &more) {
        for (size_t i = 0; i < FLOW_COUNTS; ++i)
            told_[i] += more[i];
    }

    void pass(int64_t ms) {
        now_ms_ += ms;
        counted_.pass(now_ms_);
        counted_.written();
        numbers_.written();
        numbers_.reserve(numbers_.next());
        flows_.give(now_ms_, false, [this](size_t place, const flow_part &part) {
            return give(*ends_[place], part);
        });
        for (end *each : ends_) {
            for (const ipfix_message &message : each->messages.take())
                each->taken.read(message);
        }
    }

    bool give(end &to, const flow_part &part) {
        if (to.is_full)
            return false;
        flow_part usable = part;
        usable.application = ids_.usable(part.application);
        if (to.listed.insert(usable.application).second)
            list(to, usable.application);
        for (const exported_record &each : records_of(usable, {}, to.rules))
            to.messages.add_record(each);
        for (size_t i = 0; i < FLOW_COUNTS; ++i)
            to.given[i] += part.counts[i];
        return true;
    }

    void list(end &to, const application_id &id) {
        to.messages.add_application(id, ids_.description_of(id), ids_.name_of(id));
    }

    void list_again() {
        for (end *to : ends_) {
            to->messages.add_templates();
            to->messages.add_sampling();
            to->messages.add_interface(7, "wlan0");
            for (const application_id &each : to->listed) {
                if (ids_.is_known(each))
                    list(*to, each);
            }
        }
    }

    ledger counted_{names_kept::full};
    application_numbers numbers_;
    application_ids ids_{numbers_};
    end first_{names_kept::full, {}, ipfix_messages({})};
    end second_{names_kept::none, {false, {}}, ipfix_messages({7, false, 99'999})};
    end *ends_[2] = {&first_, &second_};
    due_flows flows_{{{10'000, 10'000}, {60'000, 1'000}},
                     {[this](size_t place, const application_name &name, uint64_t engine_number) {
                          return ids_.id_of(name, engine_number, ends_[place]->names);
                      },
                      [](const std::string &) { return uint16_t{0}; }}};
    flow_counts told_ = {};
    int64_t now_ms_ = 0, ahead_us_ = 0;
    int boots_ = 0;
    size_t crowd_ = 0; // names that nobody else has
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view text(reinterpret_cast<const char *>(data), size);
    play played;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        played.take_line(line);
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    played.finish();
    return 0;
}
