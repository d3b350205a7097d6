#include "userapps/show_userapps.h"

#include "core/base/reply.h"
#include "core/state/state.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"
#include "userapps/lines/userapps_listing.h"

#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

// A record with its number, in one piece: the listing ends with the last one that fits.
template <size_t Size, typename Record>
void list_record(line_buffer &text, int number, const Record &record,
                 int (*format)(char *, size_t, const Record *)) {
    char formatted[Size];
    format(formatted, sizeof formatted, &record);
    char piece[Size + 32];
    line_buffer numbered(piece, sizeof piece);
    numbered.cell(LISTED_NUMBER, number);
    numbered.append(formatted);
    numbered.append("\n");
    text.append(numbered.text());
}

void list_userdef_apps(line_buffer &text) {
    const userdef_table &table = jorn_state.userdef_apps;
    text.cell(USERDEF_LISTING.title);
    if (table.count < 1 || table.count > USERDEF_APPS_MAX)
        return;
    for (int32_t i = 0; i < table.count; ++i)
        list_record<USERDEF_APP_TEXT>(text, i + 1, table.records[i], jorn_format_userdef_app);
}

void list_port_apps(line_buffer &text) {
    text.cell(PORT_APP_LISTING.title);
    text.cell(LISTED_TOTAL, static_cast<int>(jorn_state.port_apps.port_app_count()));
    int number = 0;
    for (const port_app &entry : jorn_state.port_apps)
        list_record<PORT_APP_TEXT>(text, ++number, entry, jorn_format_port_app);
}

uint32_t ipv4_of(const uint8_t (&address)[16]) {
    uint32_t word;
    memcpy(&word, address, sizeof word);
    return word;
}

const char *family_word(uint16_t family) {
    return family == AF_INET ? "IPv4" : family == AF_INET6 ? "IPv6" : "Unknown";
}

const char *protocol_word(uint32_t protocol) {
    return protocol == IPPROTO_TCP ? "TCP" : protocol == IPPROTO_UDP ? "UDP" : "Unknown";
}

} // namespace

int jorn_show_userdef_apps(int fd) {
    return answer(fd, list_userdef_apps);
}

int jorn_format_userdef_app(char *text, size_t size, const userdef_app *record) {
    line_buffer to(text, size, when_full::leave_out);
    const userdef_listing &cells = USERDEF_LISTING;
    char bitmap[3];
    snprintf(bitmap, sizeof bitmap, "%x", record->bitmap);
    to.cell(cells.bitmap, bitmap);
    to.cell(cells.dst_family, family_word(record->dst_family));
    if (record->dst_family == AF_INET) {
        to.cell(cells.dst_ip, ipv4_text(ipv4_of(record->dst_ip)).c_str());
        to.cell(cells.netmask, ipv4_text(record->netmask).c_str());
    }
    to.cell(cells.dst_port, record->dst_port);
    to.cell(cells.protocol, protocol_word(record->protocol));
    to.cell(cells.app_name, printable_text(field_text(record->app_name)).c_str());
    to.cell(cells.app_id, record->app_id);
    to.cell(cells.cat_id, record->cat_id);
    return 0;
}

int jorn_show_port_apps(int fd) {
    return answer(fd, list_port_apps);
}

int jorn_format_port_app(char *text, size_t size, const port_app *entry) {
    line_buffer to(text, size, when_full::leave_out);
    const port_app_listing &cells = PORT_APP_LISTING;
    to.cell(cells.app_name, printable_text(field_text(entry->app_name)).c_str());
    to.cell(cells.begin_port, static_cast<int>(entry->begin_port));
    to.cell(cells.end_port, static_cast<int>(entry->end_port));
    to.cell(cells.tcp_flag, entry->tcp_flag);
    to.cell(cells.udp_flag, entry->udp_flag);
    return 0;
}
