#include "userapps/lines/userdef_line.h"

#include <sys/socket.h>

namespace {

void read_address(std::string_view text, uint8_t (&address)[16]) {
    const auto word = static_cast<uint32_t>(leading_decimal(text));
    memcpy(address, &word, sizeof word);
}

// An address as the file has it: its word in network byte order, printed as a signed number.
void write_address(text_appender &to, const uint8_t (&address)[16]) {
    int32_t word;
    memcpy(&word, address, sizeof word);
    to.number(word);
}

void read_source(std::string_view text, userdef_app &to) {
    if (to.src_family == AF_INET)
        read_address(text, to.src_ip);
}

void write_source(text_appender &to, const userdef_app &from) {
    if (from.src_family == AF_INET)
        write_address(to, from.src_ip);
    else
        to.number(from.src_family);
}

void read_destination(std::string_view text, userdef_app &to) {
    if (to.dst_family == AF_INET)
        read_address(text, to.dst_ip);
}

void write_destination(text_appender &to, const userdef_app &from) {
    write_address(to, from.dst_ip);
}

constexpr line_field<userdef_app> FIELDS[] = {
    number_field<&userdef_app::src_family>("src_family"),
    {"src_ip", read_source, write_source},
    number_field<&userdef_app::dst_family>("dst_family"),
    {"dst_ip", read_destination, write_destination},
    number_field<&userdef_app::netmask>("netmask"),
    number_field<&userdef_app::src_port>("src_port"),
    number_field<&userdef_app::dst_port>("dst_port"),
    number_field<&userdef_app::protocol>("protocol"),
    number_field<&userdef_app::app_id>("app_id"),
    number_field<&userdef_app::cat_id>("cat_id"),
    text_field<&userdef_app::app_name, USERDEF_NAME_MAX>("app_name"),
    number_field<&userdef_app::bitmap>("bitmap"),
};

} // namespace

constexpr line_format<userdef_app> USERDEF_LINE = {{.separator = ';', .trimmed = true}, FIELDS};
