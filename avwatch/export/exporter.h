// What one collector is sent: records, the tables that explain them, and templates. A table's row
// goes before the first record that needs it, and all that were needed of late go again with the
// templates, for a collector may have missed them or have been started anew.
#pragma once

#include "avwatch/export/application_ids.h"
#include "avwatch/export/collector.h"
#include "avwatch/export/interfaces.h"
#include "avwatch/export/record_maker.h"
#include "avwatch/history/export_rows.h"
#include "avwatch/ipfix/messages.h"
#include "avwatch/settings/export_settings.h"

#include <cstdint>
#include <set>

namespace avwatch {

class exporter {
public:
    exporter(const export_settings &settings, const application_ids &ids, const interfaces &known,
             int64_t wall_s);

    names_kept names() const { return names_; }

    // A round: the time, what is due, and off it goes.
    void begin(int64_t now_ms, int64_t wall_s);
    // False where there is no room: the collector is behind.
    bool take(const flow_part &part);
    void end();

    collector &place() { return collector_; }
    export_counts counts() const;

private:
    void add_tables();
    void need(const application_id &id);
    void add_interface(uint16_t number);

    const std::string target_;
    const names_kept names_;
    const record_rules rules_;
    const int64_t refresh_ms_;
    const application_ids &ids_;
    const interfaces &interfaces_;
    ipfix_messages messages_;
    collector collector_;
    int64_t tables_due_ms_ = 0;
    std::set<application_id> listed_; // since the templates were sent, or with them
    std::set<application_id> used_;   // since then
    std::set<uint16_t> used_interfaces_;
    int64_t since_s_;
    uint64_t records_ = 0;
    uint64_t other_ = 0;
};

} // namespace avwatch
