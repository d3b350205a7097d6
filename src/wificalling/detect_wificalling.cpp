#include "wificalling/detect_wificalling.h"

#include "core/base/log.h"
#include "core/dns/dns_look_up.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"
#include "wificalling/fqdn_map.h"
#include "wificalling/wificalling_tables.h"

#include <iterator>
#include <netinet/in.h>
#include <span>

namespace {

constexpr char POLICY_REF[] = "jorn_get_wificalling_policy_ref";
constexpr char IP_MATCH[] = "check_cfg_ip_addr_match";
constexpr char FQDN_MATCH[] = "check_cfg_fqdn_match";
constexpr char DETECT[] = "jorn_detect_wificalling";

constexpr uint16_t PORT_IKE = 500;
constexpr uint16_t PORT_IPSEC_NAT_T = 4500;

bool is_ipsec_port(uint16_t port) {
    return port == PORT_IKE || port == PORT_IPSEC_NAT_T;
}

bool may_be_wificalling(const pkt_ctx &pkt) {
    return pkt.ip_proto == IPPROTO_UDP &&
           (is_ipsec_port(pkt.src_port) || is_ipsec_port(pkt.dst_port));
}

// The binding of an interface as the trailer names it, unless it is switched off.
const wificalling_intf *enabled_binding(const char (&if_name)[16]) {
    char name[sizeof if_name + 1];
    copy_text(name, field_text(if_name));
    const wificalling_intf *binding = __jorn_get_wificalling_intf(name);
    return binding != nullptr && binding->enable != 0 ? binding : nullptr;
}

void log_references(const wificalling_intf &binding) {
    for (int i = 0; i < PROFILES_PER_INTF; ++i)
        JORN_DEBUG_AS(POLICY_REF, "I-Node[%d] = %p\n", i,
                      static_cast<const void *>(binding.policy_ref[i]));
}

void use_binding(pkt_ctx &pkt, const wificalling_intf &binding, uint32_t epdg_ip) {
    pkt.wfc_ref_count = static_cast<uint32_t>(binding.num_profiles);
    std::copy(std::begin(binding.policy_ref), std::end(binding.policy_ref), pkt.wfc_refs);
    copy_text(pkt.wfc_if_name, binding.ifname);
    pkt.epdg_ip = epdg_ip;
}

// The destination's binding counts only where the source has none, whatever the source's leads to.
bool find_references(pkt_ctx &pkt) {
    if (const wificalling_intf *source = enabled_binding(pkt.src_if_name)) {
        JORN_DEBUG_AS(POLICY_REF, "Src interface - %s, num_profiles = %d\n",
                      printable_text(source->ifname).c_str(), source->num_profiles);
        log_references(*source);
        if (source->num_profiles != 0) {
            use_binding(pkt, *source, pkt.dst_ip);
            return true;
        }
        JORN_INFO_AS(POLICY_REF, "No reference found for SRC Interface\n");
    }
    if (const wificalling_intf *destination = enabled_binding(pkt.dst_if_name)) {
        JORN_DEBUG_AS(POLICY_REF, "Dst interface - %s, num_profiles = %d\n",
                      printable_text(destination->ifname).c_str(), destination->num_profiles);
        log_references(*destination);
        if (destination->num_profiles != 0) {
            use_binding(pkt, *destination, pkt.src_ip);
            return true;
        }
        JORN_INFO_AS(POLICY_REF, "No reference found for DST Interface\n");
    }
    JORN_INFO_AS(POLICY_REF, "No WiFiCalling policy found\n");
    JORN_DEBUG_AS(POLICY_REF, "Unable to find any policy reference... Exit!\n");
    return false;
}

// An ePDG of a carrier that the packet's interface has.
struct candidate {
    int ref;
    const wificalling_policy *policy;
    int epdg_index;
    const epdg_entry *epdg;
};

// Calls matches(candidate) for one ePDG after the other until it returns true; tags the packet with
// that one's carrier. Returns whether there was one.
template <typename Matches>
bool tag_first(pkt_ctx &pkt, Matches matches) {
    for (int ref = 0; ref < static_cast<int>(pkt.wfc_ref_count); ++ref) {
        const wificalling_policy *policy = pkt.wfc_refs[ref];
        if (policy == nullptr)
            continue;
        for (int i = 0; i < policy->num_epdg; ++i) {
            if (!matches(candidate{ref, policy, i, &policy->epdg[i]}))
                continue;
            pkt.wfc_priority = static_cast<uint8_t>(policy->priority);
            pkt.wfc_ref_index = static_cast<uint8_t>(ref);
            return true;
        }
    }
    return false;
}

bool check_cfg_ip_addr_match(pkt_ctx &pkt) {
    const bool matched = tag_first(pkt, [&pkt](const candidate &of) {
        const uint32_t ip = of.epdg->ipaddr;
        if (ip == 0 || (pkt.src_ip != ip && pkt.dst_ip != ip)) {
            JORN_DEBUG_AS(IP_MATCH,
                          "Ip at ref(%d) = %p, epdg(%d)  SIP/DIP/epdg_IP =%04X/%04X/%04X \n",
                          of.ref, static_cast<const void *>(of.policy), of.epdg_index, pkt.src_ip,
                          pkt.dst_ip, ip);
            return false;
        }
        copy_text(pkt.wfc_fqdn, of.epdg->fqdn);
        JORN_INFO_AS(IP_MATCH,
                     "IP match at ref(%d) = %p and epdg index = %d. SIP/DIP/epdg_IP "
                     "=%04X/%04X/%04X, prio = %d\n",
                     of.ref, static_cast<const void *>(of.policy), of.epdg_index, pkt.src_ip,
                     pkt.dst_ip, ip, of.policy->priority);
        return true;
    });
    JORN_INFO_AS(IP_MATCH, "%s", matched ? "Match in IP Address!\n" : "No match!!!\n");
    return matched;
}

bool check_cfg_fqdn_match(pkt_ctx &pkt) {
    JORN_DEBUG_AS(FQDN_MATCH, " Domain retrieved from cache is %s\n",
                  printable_text(pkt.wfc_fqdn).c_str());
    const bool matched = tag_first(pkt, [&pkt](const candidate &of) {
        if (!contains_ignoring_case(pkt.wfc_fqdn, of.epdg->fqdn))
            return false;
        JORN_INFO_AS(FQDN_MATCH,
                     "FQDN match at ref(%d) = %p and epdg index = %d. strcasestr(%s,%s), prio = %d "
                     ")\n",
                     of.ref, static_cast<const void *>(of.policy), of.epdg_index,
                     printable_text(pkt.wfc_fqdn).c_str(), printable_text(of.epdg->fqdn).c_str(),
                     static_cast<uint8_t>(of.policy->priority));
        return true;
    });
    if (matched)
        copy_text(pkt.app_name, pkt.wfc_fqdn);
    JORN_INFO_AS(FQDN_MATCH, "%s", matched ? "Match in FQDN!\n" : "No match!!!\n");
    return matched;
}

bool match_by_name(pkt_ctx &pkt) {
    if (jorn_wificalling_get_fqdn_from_dns_cache(&pkt) != 0)
        JORN_INFO_AS(DETECT, " detect_dns_app did not return JORN_DETECT_MATCH \n");
    else if (check_cfg_fqdn_match(pkt))
        return true;
    JORN_INFO_AS(DETECT, "No Match in FQDN. Lets see if ZEG cache has FQDN-IP map\n");
    return false;
}

} // namespace

int jorn_detect_wificalling(pkt_ctx *pkt) {
    if (!may_be_wificalling(*pkt)) {
        JORN_DEBUG("Not a WiFiCalling packet!\n");
        return 0;
    }
    JORN_DEBUG("WiFiCalling packet detected!\n");
    if (!find_references(*pkt))
        return 0;
    JORN_INFO("************ Epdg IP = %04X/%s *****\n", pkt->epdg_ip,
              ipv4_text(pkt->epdg_ip).c_str());
    if (check_cfg_ip_addr_match(*pkt))
        return 1;
    if (match_by_name(*pkt)) {
        jorn_send_fqdnmap_to_zeg(pkt);
        return 1;
    }
    jorn_recv_fqdnmap_from_zeg(pkt);
    return 0;
}

int jorn_wificalling_get_fqdn_from_dns_cache(pkt_ctx *pkt) {
    char name[256] = {};
    const std::span limited(name, sizeof name - 1);
    uint32_t ip = pkt->dst_ip;
    const char *side = "DIP";
    dns_look_up found = look_up_dns_name(ip, limited, JORN_HERE);
    if (found == dns_look_up::not_asked || found == dns_look_up::no_name) {
        ip = pkt->src_ip;
        side = "SIP";
        found = look_up_dns_name(ip, limited, JORN_HERE);
    }
    if (found != dns_look_up::named)
        return -1;
    JORN_INFO("Found FQDN %s for %s %04X\n", printable_text(name).c_str(), side, ip);
    pkt->wfc_ip = ip;
    if (name[0] == '\0') {
        JORN_INFO("No domain found\n");
        return -1;
    }
    copy_text(pkt->wfc_fqdn, name);
    return 0;
}
