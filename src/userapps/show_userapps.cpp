#include "userapps/show_userapps.h"

#include "core/base/reply.h"
#include "core/state/state.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"

#include <cstring>
#include <netinet/in.h>

namespace {

constexpr size_t RECORD_TEXT = 8192;
constexpr size_t ENTRY_TEXT = 1024;

const char *family_text(uint16_t family) {
    if (family == AF_INET)
        return "IPv4";
    return family == AF_INET6 ? "IPv6" : "Unknown";
}

const char *protocol_text(uint32_t protocol) {
    if (protocol == IPPROTO_TCP)
        return "TCP";
    return protocol == IPPROTO_UDP ? "UDP" : "Unknown";
}

// Each record in one piece: a listing ends with the last one that fits.
void list_userdef_apps(line_buffer &text) {
    text.append("\n====User Defined Applications Policies====\n");
    const userdef_table &table = jorn_state.userdef_apps;
    for (int i = 0; i < table.count && table.count <= USERDEF_APPS_MAX; ++i) {
        char record[RECORD_TEXT];
        jorn_format_userdef_app(record, sizeof record, &table.records[i]);
        text.format("NO:%d\n%s\n", i + 1, record);
    }
}

void list_port_apps(line_buffer &text) {
    text.append("\n====JORN port app list====\n");
    text.format("TOTAL:%d\n", static_cast<int>(jorn_state.port_apps.port_app_count()));
    int number = 0;
    for (const port_app &listed : jorn_state.port_apps) {
        char entry[ENTRY_TEXT];
        jorn_format_port_app(entry, sizeof entry, &listed);
        text.format("NO:%d\n%s\n", ++number, entry);
    }
}

} // namespace

int jorn_show_userdef_apps(int fd) {
    return answer(fd, list_userdef_apps);
}

int jorn_show_port_apps(int fd) {
    return answer(fd, list_port_apps);
}

int jorn_format_userdef_app(char *text, size_t size, const userdef_app *record) {
    line_buffer to(text, size);
    to.format("\t bitmap: %x \n", static_cast<unsigned>(record->bitmap));
    to.format("\t dst ip family:%s", family_text(record->dst_family));
    if (record->dst_family == AF_INET) {
        uint32_t address_be;
        memcpy(&address_be, record->dst_ip, sizeof address_be);
        to.format("\tdst ip:%s\n", ipv4_text(address_be).c_str());
        to.format("\t dst netmask:%s", ipv4_text(record->netmask).c_str());
    }
    to.format("\t dst port :%d", record->dst_port);
    to.format("\t protocol type:%s\n", protocol_text(record->protocol));
    to.format("\t application name:%s \t application id: %d\t category id: %d\n",
              printable_text(field_text(record->app_name)).c_str(), record->app_id, record->cat_id);
    return 0;
}

int jorn_format_port_app(char *text, size_t size, const port_app *entry) {
    line_buffer to(text, size);
    to.format("\t application name: %s\n", printable_text(field_text(entry->app_name)).c_str());
    to.format("\t begin port: %d\n", static_cast<int>(entry->begin_port));
    to.format("\t end port: %d\n", static_cast<int>(entry->end_port));
    to.format("\t tcp proto flag: %d\n", entry->tcp_flag);
    to.format("\t udp proto flag: %d\n", entry->udp_flag);
    return 0;
}
