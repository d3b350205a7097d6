// Messages of IPFIX (RFC 7011) out of records: what is added is put together, in the order in which
// it comes, to messages of MESSAGE_MAX bytes at most, which are taken away whole.
//
//     message   version 10 (2)  length (2)  export time, s (4)  sequence (4)  domain (4)
//     set       id (2)  length, with these four bytes (2)  records
//
// Sets end with their last record: there is no padding. The sequence number is that of a message's
// first data record, those of options count, too, modulo 2^32 (section 3.1). Over UDP nothing says
// that a template arrived, so all are sent again and again (section 8.1): who calls says when.
#pragma once

#include "avwatch/ipfix/exported_record.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace avwatch {

struct ipfix_layout {
    uint32_t domain = 1;                // observation domain
    bool with_clients = true;           // the station's MAC address
    std::optional<uint32_t> enterprise; // whose elements our own are; nothing: there are none
};

struct record_field;

class ipfix_messages {
public:
    // With the headers of IPv6 and UDP it is a packet that passes where there is a tunnel, too.
    static constexpr size_t MESSAGE_MAX = 1'400;

    explicit ipfix_messages(const ipfix_layout &layout);
    ~ipfix_messages();
    ipfix_messages(const ipfix_messages &) = delete;
    ipfix_messages &operator=(const ipfix_messages &) = delete;

    // What the messages that begin from now on say of when they were sent; seconds since 1970.
    void set_time(uint32_t export_s) { export_s_ = export_s; }

    void add_templates();
    void add_sampling(); // that every packet counts
    // Texts are UTF-8; of a name that is too long the end is said, as of a site's.
    void add_application(const application_id &id, std::string_view description,
                         std::string_view name);
    void add_interface(uint32_t index, std::string_view name);
    void add_record(const exported_record &record);

    size_t full() const { return full_.size(); } // messages that wait to be taken
    // Those that are full and the one that was begun.
    std::vector<std::string> take();

    uint32_t sequence() const { return sequence_; } // of the next data record

private:
    void add_to_set(uint16_t id, std::string_view record);
    void add_data(uint16_t id, std::string_view record);
    void begin_message();
    void end_set();
    void end_message();

    const ipfix_layout layout_;
    std::vector<std::vector<record_field>> flow_fields_; // by template
    uint32_t export_s_ = 0;
    uint32_t sequence_ = 0;
    std::string message_; // that was begun
    size_t set_at_ = 0;   // its last set; 0: none
    uint16_t set_id_ = 0;
    std::string record_; // at hand
    std::vector<std::string> full_;
};

} // namespace avwatch
