// The templates of what is exported: which elements a record has, in which order and of which
// length (RFC 7011, section 3.4). Element numbers are those of IANA's registry "IPFIX Information
// Elements"; multi-byte values go in network byte order.
//
//     id        scope   elements
//     256..263          a direction of a flow, below
//     264, 265  95      94 (32), 96 (64)       applications whose ids have 3 and 5 bytes
//     266       10      82 (16)                interfaces
//     267       149     34, 304, 305, 306      sampling
//
// Of flows there are eight, for the length of a value is the template's: addresses are IPv4's or
// IPv6's, an application's id (RFC 6759, section 4) has 3 or 5 bytes, and the station's MAC address
// stands a second time as the source's or the destination's, for collectors that know no
// staMacAddress. Texts have fixed lengths, with zeros behind them, for some take no others.
#pragma once

#include "avwatch/ipfix/exported_record.h"
#include "avwatch/ipfix/messages.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace avwatch {

inline constexpr uint16_t TEMPLATE_SET = 2;
inline constexpr uint16_t OPTIONS_TEMPLATE_SET = 3;

enum template_id : uint16_t {
    FLOW_TEMPLATES = 256, // and a bit each for the other direction, longer ids, IPv6
    SHORT_APPLICATIONS = 264,
    LONG_APPLICATIONS = 265,
    INTERFACES = 266,
    SAMPLING = 267,
};
inline constexpr uint16_t TO_CLIENT = 1, LONG_APPLICATION = 2, IPV6 = 4;
inline constexpr uint16_t FLOW_TEMPLATE_COUNT = 8;

inline constexpr size_t INTERFACE_NAME_SIZE = 16; // the kernel's, with its end
inline constexpr size_t APPLICATION_NAME_SIZE = 64;
inline constexpr size_t APPLICATION_DESCRIPTION_SIZE = 32;

struct record_field {
    uint16_t element;
    uint16_t size;
    void (*append)(std::string &out, const exported_record &record);
    bool is_own = false; // of the layout's enterprise
};

// `bits` of the id, behind FLOW_TEMPLATES.
std::vector<record_field> flow_fields(uint16_t bits, const ipfix_layout &layout);
uint16_t flow_template_of(const exported_record &record);

// Template records, without their set's header.
std::string flow_templates(const ipfix_layout &layout);
std::vector<std::string> options_templates();

void append_number(std::string &out, uint64_t value, size_t size);
// As much as fits of a text's beginning, or of its end, in whole characters.
void append_text(std::string &out, std::string_view text, size_t size);
void append_end(std::string &out, std::string_view text, size_t size);
void append_application(std::string &out, const application_id &id);
// 3 or 5 bytes.
bool has_long_id(const application_id &id);

} // namespace avwatch
