#include "avwatch/ipfix/messages.h"

#include "avwatch/ipfix/templates.h"

#include <utility>

namespace avwatch {
namespace {

constexpr uint16_t VERSION = 10;
constexpr size_t LENGTH_AT = 2; // in a message, and in a set
constexpr size_t TIME_AT = 4;
constexpr size_t SEQUENCE_AT = 8;
constexpr size_t MESSAGE_HEADER = 16;
constexpr size_t SET_HEADER = 4;
constexpr uint16_t SYSTEMATIC_COUNT_BASED = 1; // selectorAlgorithm; IANA's "PSAMP Parameters"

void put_length(std::string &out, size_t at, size_t length) {
    out[at + LENGTH_AT] = static_cast<char>(length >> 8);
    out[at + LENGTH_AT + 1] = static_cast<char>(length);
}

void put_number(std::string &out, size_t at, uint32_t number) {
    std::string octets;
    append_number(octets, number, sizeof number);
    out.replace(at, octets.size(), octets);
}

} // namespace

void ipfix_message::stamp(uint32_t export_s, uint32_t sequence) {
    put_number(bytes, TIME_AT, export_s);
    put_number(bytes, SEQUENCE_AT, sequence);
}

ipfix_messages::ipfix_messages(const ipfix_layout &layout) : layout_(layout) {
    for (uint16_t bits = 0; bits < FLOW_TEMPLATE_COUNT; ++bits)
        flow_fields_.push_back(flow_fields(bits, layout));
}
ipfix_messages::~ipfix_messages() = default;

void ipfix_messages::add_templates() {
    add_to_set(TEMPLATE_SET, flow_templates(layout_));
    for (const std::string &each : options_templates()) {
        end_set(); // there are collectors that take only the first of a set (pmacct 1.7.7)
        add_to_set(OPTIONS_TEMPLATE_SET, each);
    }
}

void ipfix_messages::add_sampling() {
    record_.clear();
    append_number(record_, layout_.domain, 4);
    append_number(record_, 1, 4); // samplingInterval, which older collectors look for
    append_number(record_, SYSTEMATIC_COUNT_BASED, 2);
    append_number(record_, 1, 4); // samplingPacketInterval
    append_number(record_, 0, 4); // samplingPacketSpace
    add_data(SAMPLING, record_);
}

void ipfix_messages::add_application(const application_id &id, std::string_view description,
                                     std::string_view name) {
    record_.clear();
    append_application(record_, id);
    append_text(record_, description, APPLICATION_DESCRIPTION_SIZE);
    append_end(record_, name, APPLICATION_NAME_SIZE);
    add_data(has_long_id(id) ? LONG_APPLICATIONS : SHORT_APPLICATIONS, record_);
}

void ipfix_messages::add_interface(uint32_t index, std::string_view name) {
    record_.clear();
    append_number(record_, index, 4);
    append_text(record_, name, INTERFACE_NAME_SIZE);
    add_data(INTERFACES, record_);
}

void ipfix_messages::add_record(const exported_record &record) {
    const uint16_t id = flow_template_of(record);
    record_.clear();
    for (const record_field &each : flow_fields_[id - FLOW_TEMPLATES])
        each.append(record_, record);
    add_data(id, record_);
}

std::vector<ipfix_message> ipfix_messages::take() {
    end_message();
    return std::exchange(full_, {});
}

void ipfix_messages::add_data(uint16_t id, std::string_view record) {
    add_to_set(id, record);
    ++begun_.records;
}

void ipfix_messages::add_to_set(uint16_t id, std::string_view record) {
    const size_t with_header = record.size() + (set_at_ == 0 || set_id_ != id ? SET_HEADER : 0);
    if (!begun_.bytes.empty() && begun_.bytes.size() + with_header > MESSAGE_MAX)
        end_message();
    if (begun_.bytes.empty())
        begin_message();
    if (set_at_ == 0 || set_id_ != id) {
        end_set();
        set_at_ = begun_.bytes.size();
        set_id_ = id;
        append_number(begun_.bytes, id, 2);
        append_number(begun_.bytes, 0, 2);
    }
    begun_.bytes += record;
}

void ipfix_messages::begin_message() {
    append_number(begun_.bytes, VERSION, 2);
    append_number(begun_.bytes, 0, 2);
    append_number(begun_.bytes, 0, 4); // until it is stamped
    append_number(begun_.bytes, 0, 4);
    append_number(begun_.bytes, layout_.domain, 4);
    static_assert(MESSAGE_HEADER == 2 + 2 + 4 + 4 + 4);
}

void ipfix_messages::end_set() {
    if (set_at_ != 0)
        put_length(begun_.bytes, set_at_, begun_.bytes.size() - set_at_);
    set_at_ = 0;
}

void ipfix_messages::end_message() {
    if (begun_.bytes.empty())
        return;
    end_set();
    put_length(begun_.bytes, 0, begun_.bytes.size());
    full_.push_back(std::exchange(begun_, {}));
}

} // namespace avwatch
