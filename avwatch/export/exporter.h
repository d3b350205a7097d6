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
#include <map>
#include <set>
#include <vector>

namespace avwatch {

class exporter {
public:
    exporter(const export_settings &settings, application_ids &ids, const interfaces &known,
             int64_t wall_s);
    exporter(const exporter &) = delete;
    exporter &operator=(const exporter &) = delete;

    names_kept names() const { return names_; }

    // A round: tables where they are due, what is due of flows, and off it goes.
    void begin(int64_t now_ms);
    // False where there is no room: the collector is behind, and keeps what it was given so far.
    bool take(const flow_part &part);
    void end();

    collector &place() { return collector_; }
    export_counts counts() const;

private:
    std::vector<ipfix_message> open_session();
    void add_tables();
    size_t table_messages() const; // at most
    void need(const application_id &id);
    void need_interface(uint16_t number);

    const std::string target_;
    const names_kept names_;
    const record_rules rules_;
    const int64_t refresh_ms_;
    application_ids &ids_;
    const interfaces &interfaces_;
    ipfix_messages messages_;
    collector collector_;
    int64_t tables_due_ms_ = 0;
    bool has_opened_ = false;                        // a session, since the last round
    std::set<application_id> listed_;                // since the templates were sent, or with them
    std::set<application_id> used_;                  // since then
    std::map<uint16_t, uint32_t> listed_interfaces_; // by their numbers, with their indexes
    int64_t since_s_;
    uint64_t records_ = 0;
    uint64_t other_ = 0;
};

} // namespace avwatch
