#include "wificalling/fqdn_map.h"

#include "core/base/log.h"
#include "core/text/text.h"

fqdn_map_request make_fqdn_map_request(const pkt_ctx &pkt, fqdn_map_kind kind) {
    fqdn_map_request request = {};
    copy_text(request.ifname, pkt.wfc_if_name);
    request.flow_key = pkt.flow_key;
    if (kind == fqdn_map_kind::announcement) {
        request.ip_be = pkt.wfc_ip;
        copy_text(request.fqdn, pkt.wfc_fqdn);
    }
    return request;
}

void jorn_recv_fqdnmap_from_zeg(const pkt_ctx *pkt) {
    JORN_INFO("[Cache Request] <ifname %s> Do you have FQDN for IPv4 %04X ???\n",
              printable_text(pkt->wfc_if_name).c_str(), pkt->epdg_ip);
    [[maybe_unused]] const fqdn_map_request request =
        make_fqdn_map_request(*pkt, fqdn_map_kind::question);
    JORN_ERROR("Unsupported\n");
}

void jorn_send_fqdnmap_to_zeg(const pkt_ctx *pkt) {
    JORN_INFO("[Cache Request] <ifname %s> Set FQDN  '%s' for IPv4 %04X.\n",
              printable_text(pkt->wfc_if_name).c_str(), printable_text(pkt->wfc_fqdn).c_str(),
              pkt->wfc_ip);
    [[maybe_unused]] const fqdn_map_request request =
        make_fqdn_map_request(*pkt, fqdn_map_kind::announcement);
}
