// The service library's operations, exported by the platform's library libpsms: the kernel module's
// ioctl channel, its flow table and switches, and the DNS cache of the platform.
//
// Declarations only, in plain C; psm.h says who supplies them and who waits when one blocks. Two
// may, for half a second: the question to the DNS cache, asked for each packet whose addresses the
// daemon has no name for, and the one for a roaming station's flows. The others hand something over
// and return.
//
// records.h has the records: what is behind each captured frame, what psms_wdl_ioctl takes, and the
// structs named below. An interface's name has 16 characters at most, a host's 63.
#pragma once

#include "platform/records.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Hands a record of `length` bytes down the ioctl channel of the kernel's application-visibility
// module. The daemon knows one command, AV_IOCTL_SET_VERDICT, whose argument is 0 and whose record
// is an av_verdict. The record is only read. Returns 0 when the record was delivered, nonzero
// otherwise.
int psms_wdl_ioctl(int command, int arg, unsigned int length, void *record);

// Asks the platform's DNS cache for the name of an IPv4 address, which is in network byte order.
// Writes at most `size` bytes into `name`, the NUL included, and three words; `size` is 65, or 255
// for Wi-Fi calling. A name was found when the second and the third word are nonzero; what else the
// words say is the platform's. Returns 0 when the platform answered, nonzero on error.
int psms_dnscache_get_dn_by_ip(uint32_t address_be, char *name, unsigned int size, uint32_t *word1,
                               uint32_t *word2, uint32_t *word3);

// Asks for the flows of a roaming station that the next access point should know: writes at most
// ROAM_FLOWS_MAX of them, and how many they are. Returns 0 on success. Blocks until the answer is
// there.
int psms_rflow_get_roam(const struct roam_notify *notify, struct roam_flow *flows, int *count);

// Switches the kernel's DPI engine on (1) or off (0). Returns 0 on success.
int psms_av_set_tm_en(int enable);

// Makes the kernel's flow table forget the application policy of every flow. Returns 0 on success.
int psms_rflow_reset_app_policy(void);

// Switches application visibility, URL filtering or Wi-Fi calling on or off for a network device.
// Each returns 0 when the kernel was told, nonzero otherwise.
int psms_av_set_dev_av(const char *ifname, int enable);
int psms_av_set_dev_url(const char *ifname, int enable);
int psms_av_set_dev_wfc(const char *ifname, int enable);

// Sets the application and the verdict of one flow: its key, what is done with it, the
// application's name (at most 63 characters, or AV_ANY_APPLICATION), its web category (an id of
// g_cat_map) and a verdict: AV_VERDICT_DENY or AV_SET_APP_ALLOW. `a4` and `a7` are always 0,
// `a8` 2. Returns 0 on success.
int psms_rflow_set_app(const struct flow_key *key, const struct av_qos *action, const char *name,
                       int a4, uint16_t category, uint32_t verdict, int a7, int a8);

// The DNS spoofing service behind safe search. `mode` is an av_safesearch_mode: `ifname` is NULL
// for a UTP, `utp_id` 0 for an interface. They remove and add the mapping of a host name to an
// address in network byte order, and switch the service on (1) or off (0) for an interface. `a4` is
// always 1, `a5` and `a6` 0. Each returns 0 on success.
int psms_dnsspoof_del_dn_ip_map_for_safesearch(const char *ifname, const char *host, int mode,
                                               uint32_t utp_id);
int psms_dnsspoof_add_dn_ip_map_for_safesearch(const char *ifname, const char *host,
                                               const uint32_t *address_be, int a4, int a5, int a6,
                                               int mode, uint32_t utp_id);
int psms_dnsspoof_set_enable_for_safesearch(const char *ifname, int enable);

#ifdef __cplusplus
}
#endif
