// Messages of IPFIX (RFC 7011) out of records: what is added is put together, in the order in which
// it comes, to messages of MESSAGE_MAX bytes at most, which are taken away whole.
//
//     message   version 10 (2)  length (2)  export time, s (4)  sequence (4)  domain (4)
//     set       id (2)  length, with these four bytes (2)  records
//
// Sets end with their last record: there is no padding. Time and sequence number are those of
// sending, so who sends stamps them: the number is that of a message's first data record in the
// transport session, those of options count, too, modulo 2^32 (section 3.1). Over UDP nothing says
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

struct ipfix_message {
    std::string bytes;
    uint32_t records = 0; // data records

    void stamp(uint32_t export_s, uint32_t sequence);
};

struct record_field;

class ipfix_messages {
public:
    // With the headers of IPv6 and UDP a packet of 1,420 bytes, which is what WireGuard carries.
    static constexpr size_t MESSAGE_MAX = 1'372;

    explicit ipfix_messages(const ipfix_layout &layout);
    ~ipfix_messages();
    ipfix_messages(const ipfix_messages &) = delete;
    ipfix_messages &operator=(const ipfix_messages &) = delete;

    void add_templates();
    void add_sampling(); // that every packet counts
    // Texts are UTF-8; of a name that is too long the end is said, as of a site's.
    void add_application(const application_id &id, std::string_view description,
                         std::string_view name);
    void add_interface(uint32_t index, std::string_view name);
    void add_record(const exported_record &record);

    // Messages that wait to be taken: those that are full and the one that was begun.
    size_t waiting() const { return full_.size() + (begun_.bytes.empty() ? 0 : 1); }
    std::vector<ipfix_message> take();

private:
    void add_to_set(uint16_t id, std::string_view record);
    void add_data(uint16_t id, std::string_view record);
    void begin_message();
    void end_set();
    void end_message();

    const ipfix_layout layout_;
    std::vector<std::vector<record_field>> flow_fields_; // by template
    ipfix_message begun_;
    size_t set_at_ = 0; // its last set; 0: none
    uint16_t set_id_ = 0;
    std::string record_; // at hand
    std::vector<ipfix_message> full_;
};

} // namespace avwatch
