#include "avwatch/client/records.h"

#include "avwatch/base/addresses.h"
#include "shared/json_text.h"

#include <algorithm>
#include <limits>
#include <string_view>

namespace avwatch {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr size_t TEXT_MAX = 1'024;
constexpr size_t ADDRESSES_MAX = 8;
constexpr size_t ELEMENTS_MAX = 100; // of other lists

// Members of a record that are addresses: of hardware, and of either kind.
struct mac_text {
    std::string &text;
};
struct side_text {
    std::string &text;
};
struct address_texts {
    std::vector<std::string> &texts;
};

// Takes a record's members out of an object. After the first one that is wrong it is not good any
// more.
class reading {
public:
    explicit reading(const json &object) : object_(object), is_good_(object.is_object()) {}

    bool is_good() const { return is_good_; }

    template <typename Value>
    void needed(const char *key, Value &&value) {
        const json *member = find(key);
        is_good_ = is_good_ && member != nullptr && take(*member, value);
    }

    template <typename Value>
    void may(const char *key, Value &&value) {
        const json *member = find(key);
        is_good_ = is_good_ && (member == nullptr || take(*member, value));
    }

private:
    const json *find(const char *key) const {
        if (!is_good_)
            return nullptr;
        const auto found = object_.find(key);
        return found != object_.end() && !found->is_null() ? &*found : nullptr;
    }

    static bool take(const json &member, std::string &text) {
        const auto *said = member.get_ptr<const std::string *>();
        if (said == nullptr || said->size() > TEXT_MAX)
            return false;
        text = *said;
        return true;
    }

    static bool take(const json &member, uint64_t &number) {
        const auto *said = member.get_ptr<const uint64_t *>();
        if (said == nullptr || *said > uint64_t{std::numeric_limits<int64_t>::max()})
            return false;
        number = *said;
        return true;
    }

    static bool take(const json &member, bool &flag) {
        const auto *said = member.get_ptr<const bool *>();
        flag = said != nullptr && *said;
        return said != nullptr;
    }

    static bool take(const json &member, mac_text mac) {
        std::string said;
        if (!take(member, said))
            return false;
        const std::optional<std::string> canonical = canonical_mac(said);
        mac.text = canonical.value_or("");
        return canonical.has_value();
    }

    static bool take(const json &member, side_text side) {
        std::string said;
        if (!take(member, said))
            return false;
        std::optional<std::string> canonical = canonical_address(said);
        if (!canonical)
            canonical = canonical_mac(said);
        side.text = canonical.value_or("");
        return canonical.has_value();
    }

    static bool take(const json &member, address_texts addresses) {
        if (!member.is_array() || member.size() > ADDRESSES_MAX)
            return false;
        return std::ranges::all_of(member, [&](const json &each) {
            return take(each, side_text{addresses.texts.emplace_back()});
        });
    }

    template <typename Element>
    static bool take(const json &member, std::vector<Element> &elements) {
        if (!member.is_array() || member.size() > ELEMENTS_MAX)
            return false;
        return std::ranges::all_of(
            member, [&](const json &each) { return take(each, elements.emplace_back()); });
    }

    static bool take_pair(const json &member, uint64_t &first, uint64_t &second) {
        return member.is_array() && member.size() == 2 && take(member[0], first) &&
               take(member[1], second);
    }
    static bool take(const json &member, traffic &passed) {
        return take_pair(member, passed.packets, passed.bytes);
    }
    static bool take(const json &member, dropped_packets &dropped) {
        return take_pair(member, dropped.denied, dropped.limited);
    }
    static bool take(const json &member, code_points &dscp) {
        return take_pair(member, dscp.up, dscp.down);
    }

    template <typename Value>
    static bool take(const json &member, std::optional<Value> &value) {
        return take(member, value.emplace());
    }

    template <typename Record>
    static bool take(const json &member, Record &record) {
        reading fields(member);
        walk(fields, record);
        return fields.is_good();
    }

    const json &object_;
    bool is_good_;
};

// The same members into an object.
class writing {
public:
    template <typename Value>
    void needed(const char *key, const Value &value) {
        object[key] = written(value);
    }

    template <typename Value>
    void may(const char *key, const Value &value) {
        if (!(written(value) == written(Value())))
            needed(key, value);
    }
    void may(const char *key, const mac_text &mac) { may(key, mac.text); }
    void may(const char *key, const address_texts &addresses) { may(key, addresses.texts); }

    ordered_json object = ordered_json::object();

private:
    static ordered_json written(const std::string &text) { return text; }
    static ordered_json written(uint64_t number) { return number; }
    static ordered_json written(bool flag) { return flag; }
    static ordered_json written(const side_text &side) { return side.text; }
    static ordered_json written(const std::vector<std::string> &texts) { return texts; }
    static ordered_json written(const traffic &passed) {
        return ordered_json::array({passed.packets, passed.bytes});
    }
    static ordered_json written(const dropped_packets &dropped) {
        return ordered_json::array({dropped.denied, dropped.limited});
    }
    static ordered_json written(const code_points &dscp) {
        return ordered_json::array({dscp.up, dscp.down});
    }
    template <typename Value>
    static ordered_json written(const std::optional<Value> &value) {
        return value ? written(*value) : ordered_json();
    }
    template <typename Record>
    static ordered_json written(Record record) {
        writing fields;
        walk(fields, record);
        return std::move(fields.object);
    }
};

// Which members a record has, in the order in which they are written.

template <typename Fields>
void walk(Fields &fields, greeting_record &greeting) {
    fields.needed("version", greeting.version);
    fields.needed("run", greeting.run);
    fields.needed("boot", greeting.boot);
    fields.needed("started_us", greeting.started_us);
    fields.needed("inline", greeting.is_inline);
    fields.needed("counts", greeting.counts);
}

template <typename Fields>
void walk(Fields &fields, count_record &count) {
    fields.needed("id", count.id);
    fields.needed("last_us", count.last_us);
    fields.needed("up", count.up);
    fields.needed("down", count.down);
    fields.needed("dropped", count.dropped);
    fields.may("ended", count.ended);
}

template <typename Fields>
void walk(Fields &fields, why_record &why) {
    fields.may("named_by", why.named_by);
    fields.may("app_id", why.app_id);
    fields.may("cat_id", why.cat_id);
    fields.may("name", why.name);
    fields.may("name_us", why.name_us);
    fields.may("rule", why.rule);
    fields.may("by", why.by);
    fields.may("profile", why.profile);
    fields.may("side", why.side);
    fields.may("reason", why.reason);
    fields.may("text", why.text);
}

template <typename Fields>
void walk(Fields &fields, flow_record &flow) {
    fields.needed("id", flow.id);
    fields.needed("client", side_text{flow.client});
    fields.may("client_port", flow.client_port);
    fields.may("client_mac", mac_text{flow.client_mac});
    fields.needed("server", side_text{flow.server});
    fields.may("server_port", flow.server_port);
    fields.needed("protocol", flow.protocol);
    fields.may("interface", flow.interface);
    fields.may("utp", flow.utp);
    fields.needed("begun_us", flow.begun_us);
    fields.needed("last_us", flow.last_us);
    fields.needed("up", flow.up);
    fields.needed("down", flow.down);
    fields.needed("dropped", flow.dropped);
    fields.may("application", flow.application);
    fields.may("host", flow.host);
    fields.may("verdict", flow.verdict);
    fields.may("wificalling", flow.wificalling);
    fields.may("outdated", flow.outdated);
    fields.may("gate", flow.gate);
    fields.may("dscp", flow.dscp);
    fields.may("why", flow.why);
    fields.may("ended", flow.ended);
}

template <typename Fields>
void walk(Fields &fields, brief_record &brief) {
    walk(fields, static_cast<count_record &>(brief));
    fields.may("client", side_text{brief.client});
    fields.may("client_mac", mac_text{brief.client_mac});
    fields.may("application", brief.application);
    fields.may("named_by", brief.named_by);
    fields.may("verdict", brief.verdict);
}

template <typename Fields>
void walk(Fields &fields, sum_record &sum) {
    fields.may("client_mac", mac_text{sum.client_mac});
    fields.may("client", side_text{sum.client});
    fields.may("application", sum.application);
    fields.may("verdict", sum.verdict);
    fields.needed("flows", sum.flows);
    fields.needed("up", sum.up);
    fields.needed("down", sum.down);
    fields.needed("dropped", sum.dropped);
}

template <typename Fields>
void walk(Fields &fields, client_record &client) {
    fields.may("client_mac", mac_text{client.client_mac});
    fields.may("addresses", address_texts{client.addresses});
    fields.may("interface", client.interface);
    fields.may("utp", client.utp);
    fields.may("host_name", client.host_name);
    fields.needed("flows", client.flows);
    fields.needed("up", client.up);
    fields.needed("down", client.down);
    fields.needed("dropped", client.dropped);
    fields.needed("last_us", client.last_us);
}

template <typename Fields>
void walk(Fields &fields, event_record &event) {
    fields.needed("what", event.what);
    fields.needed("us", event.us);
    fields.may("flow", event.flow);
    fields.may("state", event.state);
    fields.may("interface", event.interface);
}

template <typename Fields>
void walk(Fields &fields, profile_record &profile) {
    fields.may("rule", profile.rule);
    fields.may("interface", profile.interface);
    fields.may("utp", profile.utp);
    fields.may("if_index", profile.if_index);
    fields.may("server_interface", profile.server_interface);
    fields.may("server_utp", profile.server_utp);
    fields.may("server_if_index", profile.server_if_index);
    fields.may("web_utp", profile.web_utp);
    fields.may("filter", profile.filter);
    fields.may("engine", profile.engine);
    fields.may("name", profile.name);
    fields.may("name_us", profile.name_us);
    fields.may("application", profile.application);
    fields.may("app_id", profile.app_id);
    fields.may("cat_id", profile.cat_id);
    fields.may("categories", profile.categories);
}

template <typename Record>
std::optional<Record> record_of(const json &object) {
    Record record;
    reading fields(object);
    walk(fields, record);
    return fields.is_good() ? std::optional(std::move(record)) : std::nullopt;
}

template <typename Record>
ordered_json written(Record record) {
    writing fields;
    walk(fields, record);
    return std::move(fields.object);
}

} // namespace

std::optional<greeting_record> greeting_of(const json &object) {
    return record_of<greeting_record>(object);
}

std::optional<flow_record> flow_of(const json &object) {
    return record_of<flow_record>(object);
}

std::optional<brief_record> brief_of(const json &object) {
    return record_of<brief_record>(object);
}

std::optional<count_record> count_of(const json &object) {
    return record_of<count_record>(object);
}

std::optional<sum_record> sum_of(const json &object) {
    return record_of<sum_record>(object);
}

std::optional<client_record> client_of(const json &object) {
    std::optional<client_record> client = record_of<client_record>(object);
    const bool is_somebody = client && !(client->client_mac.empty() && client->addresses.empty());
    return is_somebody ? client : std::nullopt;
}

std::optional<event_record> event_of(const json &object) {
    return record_of<event_record>(object);
}

std::optional<profile_record> profile_of(const json &object) {
    return record_of<profile_record>(object);
}

std::optional<counts_record> counts_of(const json &object) {
    if (!object.is_object())
        return std::nullopt;
    counts_record counts;
    for (const auto &[name, value] : object.items()) {
        if (const auto *count = value.get_ptr<const uint64_t *>())
            counts.emplace(name, *count);
    }
    return counts;
}

ordered_json object_of(const greeting_record &greeting) {
    return written(greeting);
}

ordered_json object_of(const flow_record &flow) {
    return written(flow);
}

ordered_json object_of(const client_record &client) {
    return written(client);
}

ordered_json object_of(const event_record &event) {
    return written(event);
}

std::string to_line(const ordered_json &object) {
    return ascii_json_text(object);
}

} // namespace avwatch
