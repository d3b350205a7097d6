#include "packet/app_visibility.h"

#include "control/records.h"
#include "core/log.h"
#include "core/text.h"
#include "platform/psm.h"

#include <arpa/inet.h>
#include <cstdio>
#include <netinet/in.h>

void report_app_visibility(const pkt_ctx &ctx) {
    if (ctx.arc_cfg == nullptr || ctx.arc_cfg->log_enable == 0)
        return;
    char src_ip[INET_ADDRSTRLEN];
    char dst_ip[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &ctx.src_ip, src_ip, sizeof src_ip);
    inet_ntop(AF_INET, &ctx.dst_ip, dst_ip, sizeof dst_ip);
    const uint8_t *mac = ctx.src_mac;
    char line[384];
    snprintf(line, sizeof line,
             "\"ueMac\"=\"%02X:%02X:%02X:%02X:%02X:%02X\", \"srcIP\"=\"%s\", \"srcPort\"=\"%d\", "
             "\"destIP\"=\"%s\", \"destPort\"=\"%d\", \"proto\"=\"%s\", \"appName\"=\"%s\",",
             mac[0], mac[1], mac[2], mac[3], mac[4], mac[5], src_ip, ctx.src_port, dst_ip,
             ctx.dst_port, ctx.ip_proto == IPPROTO_TCP ? "TCP" : "UDP",
             printable_text(ctx.app_name).c_str());
    psm_log_syslog(JORN_LOG_INFO, line);
}
