#include "userapps/settle.h"

#include "control/tables/arc_tables.h"
#include "core/state/state.h"
#include "core/text/text.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr uint32_t ALL_BITS = ~uint32_t{0};

userdef_criteria criteria_of(const userdef_app &app) {
    userdef_criteria criteria = {};
    if ((app.bitmap & USERDEF_DST_IP) != 0) {
        memcpy(&criteria.network_be, app.dst_ip, sizeof criteria.network_be);
        criteria.netmask_be = app.netmask;
    }
    if ((app.bitmap & USERDEF_DST_PORT) != 0) {
        criteria.port = app.dst_port;
        criteria.port_mask = ALL_BITS;
    }
    if ((app.bitmap & USERDEF_PROTOCOL) != 0) {
        criteria.protocol = app.protocol;
        criteria.protocol_mask = ALL_BITS;
    }
    return criteria;
}

std::string_view name_of(const settled_apps &apps, unsigned number) {
    if (number < USERDEF_APPS_MAX)
        return field_text(jorn_state.userdef_apps.records[number].app_name);
    return field_text(apps.port_apps[number - USERDEF_APPS_MAX]->app_name);
}

void sort_by_name(settled_apps &apps) {
    struct named_app {
        std::string_view name;
        uint16_t number;
    };
    std::array<named_app, APPS_MAX> named;
    unsigned count = 0;
    const auto add = [&](unsigned number) {
        named[count++] = {name_of(apps, number), static_cast<uint16_t>(number)};
    };
    for (unsigned i = 0; i < apps.userdef_count; ++i)
        add(i);
    for (unsigned place = 0; place < apps.port_app_count; ++place)
        add(USERDEF_APPS_MAX + place);
    std::sort(named.begin(), named.begin() + count,
              [](const named_app &a, const named_app &b) { return a.name < b.name; });
    apps.app_count = count;
    for (unsigned i = 0; i < count; ++i)
        apps.by_name[i] = named[i].number;
}

// Marks every application of one name.
void attach(app_attachment &attachment, const settled_apps &apps, std::string_view name) {
    const auto end = apps.by_name.begin() + apps.app_count;
    auto found = std::lower_bound(
        apps.by_name.begin(), end, name,
        [&](uint16_t number, std::string_view wanted) { return name_of(apps, number) < wanted; });
    for (; found != end && name_of(apps, *found) == name; ++found) {
        uint64_t &word = attachment.attached[*found / 64];
        const uint64_t bit = uint64_t{1} << *found % 64;
        if ((word & bit) != 0)
            return; // an earlier rule has the same name
        word |= bit;
    }
}

void settle_attachment(app_attachment &attachment, const settled_apps &apps,
                       const arc_policy &policy) {
    attachment.attached = {};
    for (const arc_rule &rule : policy.rules) {
        if (field_text(rule.cat_name) == CATEGORY_NAME_USER_DEFINED)
            attach(attachment, apps, field_text(rule.app_name));
    }
    attachment.arc_stamp = jorn_state.arc_generation + 1;
    attachment.apps_stamp = apps.stamp;
}

} // namespace

void port_app_index::build(const port_app *head) {
    present_ = {};
    std::array<const port_app *, PORT_APPS_MAX> entries;
    unsigned count = 0;
    for (const port_app *entry = head; entry != nullptr && count < PORT_APPS_MAX;
         entry = entry->next) {
        const unsigned key = key_of(entry->udp_flag != 0, entry->begin_port);
        present_[key / 64] |= uint64_t{1} << key % 64;
        entries[count++] = entry;
    }
    unsigned before = 0;
    for (unsigned i = 0; i < WORDS; ++i) {
        before_[i] = static_cast<uint16_t>(before);
        before += static_cast<unsigned>(std::popcount(present_[i]));
    }
    for (unsigned place = 0; place < count; ++place) {
        const unsigned key = key_of(entries[place]->udp_flag != 0, entries[place]->begin_port);
        const uint64_t lower = (uint64_t{1} << key % 64) - 1;
        places_[before_[key / 64] +
                static_cast<unsigned>(std::popcount(present_[key / 64] & lower))] =
            static_cast<uint16_t>(place);
    }
}

void settle_userapps() {
    settled_apps &apps = jorn_state.settled_userapps;
    ++apps.stamp;
    apps.userdef_count = static_cast<uint32_t>(jorn_state.userdef_apps.count);
    for (unsigned i = 0; i < apps.userdef_count; ++i)
        apps.criteria[i] = criteria_of(jorn_state.userdef_apps.records[i]);

    const port_app_list &list = jorn_state.port_apps;
    apps.ports.build(list.head);
    apps.port_app_count = 0;
    for (const port_app &entry : list) {
        if (apps.port_app_count < PORT_APPS_MAX)
            apps.port_apps[apps.port_app_count++] = &entry;
    }
    sort_by_name(apps);
}

const settled_apps &settled() {
    if (jorn_state.settled_userapps.stamp == 0)
        settle_userapps();
    return jorn_state.settled_userapps;
}

const arc_policy *arc_policy_of(uint32_t utp_id) {
    const utp_entry<arc_policy> *entry = utp_lookup(jorn_state.arc_utp_table, utp_id);
    return entry != nullptr ? entry->policy : nullptr;
}

allowed_apps allowed_for(uint32_t utp_id) {
    const arc_policy *policy = arc_policy_of(utp_id);
    if (policy == nullptr)
        return allowed_apps(nullptr);
    const settled_apps &apps = settled();
    app_attachment &attachment = jorn_state.settled_userapps.attachments[utp_id - 1];
    if (attachment.arc_stamp != jorn_state.arc_generation + 1 ||
        attachment.apps_stamp != apps.stamp)
        settle_attachment(attachment, apps, *policy);
    return allowed_apps(&attachment);
}
