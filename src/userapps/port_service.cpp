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

const port_app *walk_for(const pkt_ctx &pkt, uint32_t utp_id) {
    const arc_policy *policy = arc_policy_of(utp_id);
    for (const port_app &entry : jorn_state.port_apps) {
        if (policy != nullptr && __is_userdef_port_attached_to_arc(policy, &entry) == 0)
            continue;
        if (entry.begin_port != pkt.dst_port && entry.begin_port != pkt.src_port)
            continue;
        if ((entry.tcp_flag != 0 && pkt.ip_proto == IPPROTO_TCP) ||
            (entry.udp_flag != 0 && pkt.ip_proto == IPPROTO_UDP))
            return &entry;
    }
    return nullptr;
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
    if (jorn_log_enabled(JORN_LOG_DEBUG))
        walk_port_apps(*pkt);
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

const port_app *walk_port_apps(const pkt_ctx &pkt) {
    const port_app *entry = walk_for(pkt, pkt.src_utp_id);
    return entry != nullptr ? entry : walk_for(pkt, pkt.dst_utp_id);
}

int __is_userdef_port_attached_to_arc(const arc_policy *policy, const port_app *entry) {
    for (const arc_rule &rule : policy->rules) {
        if (field_text(rule.cat_name) == CATEGORY_NAME_USER_DEFINED &&
            field_text(rule.app_name) == field_text(entry->app_name)) {
            JORN_DEBUG("userdef attached %s attached to arc policy %s\n",
                       printable_text(field_text(entry->app_name)).c_str(),
                       printable_text(policy->name).c_str());
            return 1;
        }
    }
    return 0;
}
