#include "avwatch/export/exports.h"

#include "avcore/base/monotonic_clock.h"

#include <algorithm>
#include <ctime>

namespace avwatch {
namespace {

using avcore::monotonic_ms;

constexpr int64_t FINISH_MS = 3'000;

std::vector<due_flows::view> views_of(const std::vector<export_settings> &settings) {
    std::vector<due_flows::view> views;
    views.reserve(settings.size());
    for (const export_settings &each : settings)
        views.push_back({int64_t{each.active_s} * 1'000, int64_t{each.inactive_s} * 1'000});
    return views;
}

} // namespace

exports::exports(const std::vector<export_settings> &settings)
    : flows_(views_of(settings),
             {[this](size_t place, const application_name &name, uint64_t engine_number) {
                  return ids_.id_of(name, engine_number, exporters_[place].names());
              },
              [this](const std::string &name) { return interfaces_.number_of(name); }}) {
    for (const export_settings &each : settings)
        exporters_.emplace_back(each, ids_, interfaces_, time(nullptr));
    look_at_clocks();
}

void exports::look_at_clocks() {
    flows_.set_clock(avcore::wall_ahead_us());
}

void exports::send(int64_t now_ms, bool all) {
    interfaces_.look_again(now_ms);
    numbers_.pass(now_ms);
    look_at_clocks();
    for (exporter &each : exporters_)
        each.begin(now_ms);
    flows_.give(now_ms, all, [this](size_t place, const flow_part &part) {
        return exporters_[place].take(part);
    });
    for (exporter &each : exporters_)
        each.end();
}

void exports::finish() {
    const int64_t until_ms = monotonic_ms() + FINISH_MS;
    const auto is_busy = [](exporter &each) { return each.place().is_busy(); };
    send(monotonic_ms(), true);
    while (monotonic_ms() < until_ms && std::ranges::any_of(exporters_, is_busy)) {
        for (exporter &each : exporters_)
            each.place().serve(monotonic_ms());
        constexpr timespec pause = {0, collector::PACE_MS * 1'000'000};
        nanosleep(&pause, nullptr);
        send(monotonic_ms(), true);
    }
}

void exports::add_to(avcore::loop &loop) {
    for (exporter &each : exporters_) {
        collector &place = each.place();
        loop.add({.descriptor = [&place] { return place.descriptor(); },
                  .due_ms = [&place](int64_t) { return place.due_ms(); },
                  .serve = [&place](int64_t now_ms) { place.serve(now_ms); }});
    }
}

std::vector<export_counts> exports::counts() const {
    std::vector<export_counts> all;
    all.reserve(exporters_.size());
    for (size_t i = 0; i < exporters_.size(); ++i) {
        all.push_back(exporters_[i].counts());
        all.back().dropped = flows_.left_out(i);
    }
    return all;
}

} // namespace avwatch
