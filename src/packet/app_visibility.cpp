#include "packet/app_visibility.h"

#include "control/records/arc.h"
#include "core/base/log.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"
#include "platform/psm.h"

#include <cstdio>
#include <netinet/in.h>

void report_app_visibility(const pkt_ctx &ctx) {
    if (ctx.arc_cfg == nullptr || ctx.arc_cfg->log_enable == 0)
        return;
    const uint8_t *mac = ctx.src_mac;
    char line[384];
    snprintf(line, sizeof line,
             "\"ueMac\"=\"%02X:%02X:%02X:%02X:%02X:%02X\", \"srcIP\"=\"%s\", \"srcPort\"=\"%d\", "
             "\"destIP\"=\"%s\", \"destPort\"=\"%d\", \"proto\"=\"%s\", \"appName\"=\"%.64s\",",
             mac[0], mac[1], mac[2], mac[3], mac[4], mac[5], ipv4_text(ctx.src_ip).c_str(),
             ctx.src_port, ipv4_text(ctx.dst_ip).c_str(), ctx.dst_port,
             ctx.ip_proto == IPPROTO_TCP ? "TCP" : "UDP", printable_text(ctx.app_name).c_str());
    psm_log_syslog(JORN_LOG_INFO, line);
}
