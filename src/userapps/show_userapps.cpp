#include "userapps/show_userapps.h"

#include "core/base/reply.h"
#include "core/state/state.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"

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
    numbered.format("NO:%d\n", number);
    numbered.append(formatted);
    numbered.append("\n");
    text.append(numbered.text());
}

void list_userdef_apps(line_buffer &text) {
    const userdef_table &table = jorn_state.userdef_apps;
    text.append("\n====User Defined Applications Policies====\n");
    if (table.count < 1 || table.count > USERDEF_APPS_MAX)
        return;
    for (int32_t i = 0; i < table.count; ++i)
        list_record<USERDEF_APP_TEXT>(text, i + 1, table.records[i], jorn_format_userdef_app);
}

void list_port_apps(line_buffer &text) {
    text.append("\n====JORN port app list====\n");
    text.format("TOTAL:%d\n", static_cast<int>(jorn_state.port_apps.port_app_count()));
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
    to.format("\t bitmap: %x \n", record->bitmap);
    to.format("\t dst ip family:%s", family_word(record->dst_family));
    if (record->dst_family == AF_INET) {
        to.format("\tdst ip:%s\n", ipv4_text(ipv4_of(record->dst_ip)).c_str());
        to.format("\t dst netmask:%s", ipv4_text(record->netmask).c_str());
    }
    to.format("\t dst port :%d", record->dst_port);
    to.format("\t protocol type:%s\n", protocol_word(record->protocol));
    to.format("\t application name:%s ", printable_text(field_text(record->app_name)).c_str());
    to.format("\t application id: %d", record->app_id);
    to.format("\t category id: %d\n", record->cat_id);
    return 0;
}

int jorn_show_port_apps(int fd) {
    return answer(fd, list_port_apps);
}

int jorn_format_port_app(char *text, size_t size, const port_app *entry) {
    line_buffer to(text, size, when_full::leave_out);
    to.format("\t application name: %s\n", printable_text(field_text(entry->app_name)).c_str());
    to.format("\t begin port: %d\n", static_cast<int>(entry->begin_port));
    to.format("\t end port: %d\n", static_cast<int>(entry->end_port));
    to.format("\t tcp proto flag: %d\n", entry->tcp_flag);
    to.format("\t udp proto flag: %d\n", entry->udp_flag);
    return 0;
}
