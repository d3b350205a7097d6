#include "avwatch/export/exporter.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace avwatch {
namespace {

ipfix_layout layout_of(const export_settings &settings) {
    ipfix_layout layout;
    layout.with_clients = settings.clients;
    layout.enterprise = settings.enterprise;
    return layout;
}

record_rules rules_of(const export_settings &settings) {
    return {settings.clients, mac_address_in(settings.access_point)};
}

} // namespace

exporter::exporter(const export_settings &settings, const application_ids &ids,
                   const interfaces &known, int64_t wall_s)
    : target_(settings.target),
      names_(settings.names),
      rules_(rules_of(settings)),
      refresh_ms_(int64_t{settings.refresh_s} * 1'000),
      ids_(ids),
      interfaces_(known),
      messages_(layout_of(settings)),
      collector_({settings.target, settings.host, settings.port}),
      since_s_(wall_s) {}

void exporter::begin(int64_t now_ms, int64_t wall_s) {
    messages_.set_time(static_cast<uint32_t>(wall_s));
    if (now_ms < tables_due_ms_ || !collector_.has_room())
        return;
    tables_due_ms_ = now_ms + refresh_ms_;
    add_tables();
}

bool exporter::take(const flow_part &part) {
    if (!collector_.has_room(messages_.full()))
        return false;
    const uint16_t interface = part.facts.interface;
    if (interface != 0 && used_interfaces_.insert(interface).second)
        add_interface(interface);
    flow_part usable = part;
    usable.application = ids_.usable(part.application);
    need(usable.application);
    for (const exported_record &each : records_of(usable, interfaces_.at(interface), rules_)) {
        messages_.add_record(each);
        ++records_;
        other_ += each.application.number == application_numbers::OTHER_NUMBER ? 1 : 0;
    }
    return true;
}

void exporter::end() {
    collector_.send(messages_.take());
}

export_counts exporter::counts() const {
    return {
        target_, since_s_, records_, collector_.sent(), collector_.dropped(), collector_.failed(),
        other_};
}

// What has been used since the templates were sent last.
void exporter::add_tables() {
    messages_.add_templates();
    messages_.add_sampling();
    for (const uint16_t each : used_interfaces_)
        add_interface(each);
    listed_.clear();
    for (const application_id &each : std::exchange(used_, {}))
        need(each);
    used_.clear();
}

void exporter::add_interface(uint16_t number) {
    const interfaces::interface &known = interfaces_.at(number);
    if (known.index != 0) // else it may be the far side
        messages_.add_interface(known.index, known.name);
}

void exporter::need(const application_id &id) {
    used_.insert(id);
    if (listed_.insert(id).second)
        messages_.add_application(id, ids_.description_of(id), ids_.name_of(id));
}

} // namespace avwatch
