#include "webfilter/safe_search.h"

#include "core/base/log.h"
#include "core/text/text.h"
#include "platform/psms.h"

namespace {

constexpr size_t HOSTS_MAX = 3;

// The engines in the order in which their mappings are removed and added.
struct search_engine {
    const char *hosts[HOSTS_MAX]; // none behind the last
    uint8_t web_policy_wire::*flag;
    uint32_t web_policy_wire::*vip;
    const char *says; // when it is switched on
};

constexpr search_engine ENGINES[] = {
    {{"google.com", "www.google.com", "search.google.com"},
     &web_policy_wire::google_safe_search,
     &web_policy_wire::google_vip,
     "google"},
    {{"bing.com", "www.bing.com"},
     &web_policy_wire::bing_safe_search,
     &web_policy_wire::bing_vip,
     "Bing"},
    {{"youtube.com", "www.youtube.com"},
     &web_policy_wire::youtube_safe_search,
     &web_policy_wire::youtube_vip,
     "Youtube"},
};

// Whose DNS answers are meant.
struct spoofed_side {
    uint32_t utp_id;
    const char *ifname;   // none for a UTP
    unsigned refused = 0; // calls that the platform didn't take

    void count(int result) { refused += result != 0 ? 1 : 0; }
    int mode() const { return ifname != nullptr ? AV_SAFESEARCH_INTERFACE : AV_SAFESEARCH_UTP; }
};

// Calls use(host) for each host of an engine.
template <typename Use>
void for_each_host(const search_engine &engine, Use use) {
    for (const char *host : engine.hosts) {
        if (host != nullptr)
            use(host);
    }
}

void remove_mappings(spoofed_side &side) {
    for (const search_engine &engine : ENGINES) {
        for_each_host(engine, [&side](const char *host) {
            side.count(psms_dnsspoof_del_dn_ip_map_for_safesearch(side.ifname, host, side.mode(),
                                                                  side.utp_id));
        });
    }
}

void add_mappings(spoofed_side &side, const char *shown_ifname, const web_policy_wire &policy) {
    for (const search_engine &engine : ENGINES) {
        if (policy.*engine.flag == 0)
            continue;
        const uint32_t vip = policy.*engine.vip;
        JORN_DEBUG_AS("jorn_process_safe_search",
                      "Enable safe sarch for %s and utp id %d and wlan :%s safe search vip %ld \n",
                      engine.says, static_cast<int>(side.utp_id), shown_ifname,
                      static_cast<long>(static_cast<int32_t>(vip)));
        for_each_host(engine, [&side, vip](const char *host) {
            side.count(psms_dnsspoof_add_dn_ip_map_for_safesearch(side.ifname, host, &vip, 1, 0, 0,
                                                                  side.mode(), side.utp_id));
        });
    }
}

} // namespace

void jorn_process_safe_search(uint32_t utp_id, const char *ifname, const web_policy_wire &policy) {
    spoofed_side side = {utp_id, ifname};
    const printable_text shown_ifname(ifname != nullptr ? ifname : "");
    const bool wanted = policy.google_safe_search != 0 || policy.bing_safe_search != 0 ||
                        policy.youtube_safe_search != 0;
    JORN_DEBUG("Entered in %s final policy value %d bing %d google %d and youtube %d\n", __func__,
               wanted ? 1 : 0, policy.bing_safe_search, policy.google_safe_search,
               policy.youtube_safe_search);
    remove_mappings(side);
    if (ifname != nullptr)
        side.count(psms_dnsspoof_set_enable_for_safesearch(ifname, wanted ? 1 : 0));
    if (wanted)
        add_mappings(side, shown_ifname.c_str(), policy);
    else
        JORN_DEBUG("Disable safe sarch for google and utp id %d and wlan :%s\n",
                   static_cast<int>(utp_id), shown_ifname.c_str());
    if (side.refused != 0)
        JORN_ERROR("safe search of utp id %d and wlan %s: the platform didn't take %u calls\n",
                   static_cast<int>(utp_id), shown_ifname.c_str(), side.refused);
}
