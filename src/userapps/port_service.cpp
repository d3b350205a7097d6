#include "userapps/port_service.h"

#include "core/base/log.h"
#include "core/base/shell.h"
#include "core/files/regular_file.h"
#include "core/files/saved_file.h"
#include "core/files/text_file.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "platform/psms.h"
#include "userapps/port_file/port_service_line.h"
#include "userapps/settle.h"
#include "userapps/walk.h"

#include <algorithm>
#include <cstdio>
#include <netinet/in.h>
#include <new>

namespace {

constexpr char READER[] = "jorn_parse_port_service_conf_file";

port_app *find_same_port(const port_app_list &list, const port_service &row) {
    return list.find([&row](const port_app &entry) {
        return entry.begin_port == row.begin_port &&
               (row.tcp_flag != 0 ? entry.tcp_flag : entry.udp_flag) != 0;
    });
}

int insert_by_name(port_app_list &list, const port_service &row) {
    auto *entry = new (std::nothrow) port_app{row, nullptr};
    if (entry == nullptr) {
        JORN_ERROR_AS(READER, "alloc memory failed");
        return PORT_SERVICE_ERR_MEMORY;
    }
    list.insert(entry, [entry](const port_app &listed) {
        return strcmp(listed.app_name, entry->app_name) >= 0;
    });
    return 0;
}

int add_record(port_app_list &list, const port_service &row) {
    if (list.port_app_count() >= PORT_APPS_MAX) {
        JORN_ERROR_AS(READER, "MAX port/app entry number reached, cannot insert\n");
        return PORT_SERVICE_ERR_LIMIT;
    }
    port_app *same = find_same_port(list, row);
    if (same == nullptr)
        return insert_by_name(list, row);
    *static_cast<port_service *>(same) = row;
    return 0;
}

int read_records(FILE *file, const char *path, port_app_list &list) {
    line_reader reader(file, path, JORN_AS(READER), PORT_SERVICE_LINE_MAX);
    for (std::string_view line; reader.next(line);) {
        port_service row;
        std::string_view version;
        const port_service_line kind = parse_port_service_line(line, row, version);
        if (kind == port_service_line::VERSION)
            JORN_DEBUG_AS(READER, "port service file version: %s\n",
                          printable_text(version).c_str());
        if (kind != port_service_line::RECORD)
            continue;
        if (const int result = add_record(list, row); result != 0)
            return result;
    }
    if (reader.read_error() != 0)
        JORN_ERRNO_AS(READER, reader.read_error(),
                      "%s can't be read to its end, what was read counts\n", path);
    return 0;
}

} // namespace

int jorn_parse_port_service_conf_file(const char *path, port_app_list *list) {
    FILE *file = open_to_read(path);
    if (file == nullptr) {
        JORN_ERROR("open %s fail \n", path);
        remove_by_shell(path, JORN_HERE);
        return PORT_SERVICE_ERR_FILE;
    }
    port_app_list_clear(list);
    const int result = read_records(file, path, *list);
    fclose(file);
    settle_userapps();
    return result;
}

int jorn_process_cmd_port_service_cfg_req() {
    JORN_DEBUG("process the CMD_PORT_SERVICE_CFG_REQ \n");
    const int result = jorn_parse_port_service_conf_file(saved_file_path(PORT_SERVICE_FILE).c_str(),
                                                         &jorn_state.port_apps);
    if (result != 0) {
        JORN_ERROR("parse the port/app configuration file fail\n");
        return result;
    }
    psms_rflow_reset_app_policy();
    JORN_DEBUG("parse the port/app configuration file successfully\n");
    return 0;
}

void port_app_list_clear(port_app_list *list) {
    list->release_all();
    settle_userapps(); // nothing of it may point at what was released
}

int jorn_detect_pkt_userdef_port_service_app(pkt_ctx *pkt) {
    trace_port_search(*pkt);
    const port_app *entry = find_port_app(*pkt);
    if (entry == nullptr)
        return 0;
    JORN_INFO("Match in Port-Mapping App\n");
    copy_text(pkt->app_name, field_text(entry->app_name));
    pkt->app_source = APP_SOURCE_USER_PORT;
    pkt->app_id = entry->app_id;
    pkt->app_cat_id = entry->cat_id;
    pkt->match_info = 1;
    return 1;
}

const port_app *find_port_app(const pkt_ctx &pkt) {
    if (pkt.ip_proto != IPPROTO_TCP && pkt.ip_proto != IPPROTO_UDP)
        return nullptr;
    const settled_apps &apps = settled();
    if (apps.port_app_count == 0) // the index would be cold memory, asked in vain
        return nullptr;
    const bool udp = pkt.ip_proto == IPPROTO_UDP;
    const uint16_t by_dst = apps.ports.find(udp, pkt.dst_port);
    const uint16_t by_src = apps.ports.find(udp, pkt.src_port);
    if (by_dst == port_app_index::NONE && by_src == port_app_index::NONE)
        return nullptr;
    const auto [first, second] = std::minmax(by_dst, by_src); // NONE comes behind every place
    for (const uint32_t utp_id : {pkt.src_utp_id, pkt.dst_utp_id}) {
        const allowed_apps allowed = allowed_for(utp_id);
        if (allowed.has_port_app(first))
            return apps.port_apps[first];
        if (second != port_app_index::NONE && allowed.has_port_app(second))
            return apps.port_apps[second];
    }
    return nullptr;
}
