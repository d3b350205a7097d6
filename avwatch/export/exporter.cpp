#include "avwatch/export/exporter.h"

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

exporter::exporter(const export_settings &settings, application_ids &ids, const interfaces &known,
                   int64_t wall_s)
    : target_(settings.target),
      names_(settings.names),
      rules_(rules_of(settings)),
      refresh_ms_(int64_t{settings.refresh_s} * 1'000),
      ids_(ids),
      interfaces_(known),
      messages_(layout_of(settings)),
      collector_({settings.target, settings.host, settings.port},
                 [this] { return open_session(); }),
      since_s_(wall_s) {}

void exporter::begin(int64_t now_ms) {
    if (std::exchange(has_opened_, false))
        tables_due_ms_ = now_ms + refresh_ms_;
    if (now_ms < tables_due_ms_ || !collector_.is_open() || !collector_.has_room(table_messages()))
        return;
    tables_due_ms_ = now_ms + refresh_ms_;
    listed_.clear();
    for (const application_id &each : std::exchange(used_, {}))
        listed_.insert(each);
    add_tables();
}

bool exporter::take(const flow_part &part) {
    // What a part adds is less than a message, but may begin one.
    if (!collector_.has_room(messages_.waiting() + 1))
        return false;
    need_interface(part.facts.interface);
    flow_part usable = part;
    usable.application = ids_.usable(part.application);
    need(usable.application);
    for (const exported_record &each :
         records_of(usable, interfaces_.at(part.facts.interface), rules_)) {
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
    return {target_, since_s_, records_, collector_.sent(), 0, collector_.failed(), other_};
}

// Between rounds, so that nothing is begun. What waits was explained by what waits before it, or
// since the templates were sent last.
std::vector<ipfix_message> exporter::open_session() {
    has_opened_ = true;
    add_tables();
    return messages_.take();
}

// Templates, and what they are to be explained with.
void exporter::add_tables() {
    messages_.add_templates();
    messages_.add_sampling();
    for (auto &[number, index] : listed_interfaces_) {
        const interfaces::interface &known = interfaces_.at(number);
        index = known.index;
        if (index != 0) // else it may be the far side
            messages_.add_interface(index, known.name);
    }
    for (const application_id &each : listed_) {
        if (ids_.is_known(each))
            messages_.add_application(each, ids_.description_of(each), ids_.name_of(each));
    }
}

size_t exporter::table_messages() const {
    constexpr size_t templates_and_interfaces = 4;
    constexpr size_t applications_a_message = 12;
    return templates_and_interfaces + used_.size() / applications_a_message;
}

// A name's index is another one where the interface was made anew.
void exporter::need_interface(uint16_t number) {
    const interfaces::interface &known = interfaces_.at(number);
    const auto [at, is_new] = listed_interfaces_.try_emplace(number, 0);
    if (at->second == known.index)
        return;
    at->second = known.index;
    if (known.index != 0)
        messages_.add_interface(known.index, known.name);
}

void exporter::need(const application_id &id) {
    used_.insert(id);
    if (listed_.insert(id).second)
        messages_.add_application(id, ids_.description_of(id), ids_.name_of(id));
}

} // namespace avwatch
