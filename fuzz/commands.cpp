// Command messages through the dispatcher, one after the other against one state: an input is a
// row of messages, each with its length before it (u16).
#include "control/commands.h"
#include "control/tables/arc_tables.h"
#include "core/dns/dns_cache.h"
#include "hostile_answers.h"
#include "support/fresh_state.h"
#include "support/saved_folder.h"
#include "userapps/port_service.h"
#include "userapps/userdef.h"
#include "webfilter/web_tables.h"
#include "wificalling/wificalling_tables.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <vector>

namespace {

int set_up() {
    silence_log();
    if (jorn_dnscache_hash_table_init() != 0 || learn_dns_name(0x0100007F, "name") != 0)
        abort();
    return open("/dev/null", O_WRONLY | O_CLOEXEC);
}

template <typename Policy>
void check_link(const Policy *linked, const record_list<Policy> &list) {
    if (linked != nullptr &&
        list.find([linked](const Policy &policy) { return &policy == linked; }) == nullptr)
        abort();
}

void check_links() {
    for (const utp_entry<arc_policy> &entry : jorn_state.arc_utp_table)
        check_link(entry.policy, jorn_state.arc_policy_list);
    for (const utp_entry<web_policy> &entry : jorn_state.web_utp_table)
        check_link(entry.policy, jorn_state.web_policy_list);
    for (const web_intf &binding : jorn_state.web_intf_list)
        check_link(binding.policy, jorn_state.web_policy_list);
    for (const wificalling_intf &binding : jorn_state.wificalling_intf_list) {
        for (const wificalling_policy *ref : binding.policy_ref)
            check_link(ref, jorn_state.wificalling_policy_list);
    }
}

void run_messages(int reply_fd, const uint8_t *data, size_t size) {
    static std::vector<uint8_t> message(COMMAND_MESSAGE_SIZE);
    while (size >= sizeof(uint16_t)) {
        uint16_t length;
        memcpy(&length, data, sizeof length);
        data += sizeof length;
        size -= sizeof length;
        const size_t received = length < size ? length : size;
        memset(message.data(), 0, message.size());
        memcpy(message.data(), data, received);
        run_command(reply_fd, message.data(), received);
        check_links();
        data += received;
        size -= received;
    }
}

void forget() {
    jorn_process_arc_policy_flush();
    jorn_process_utp_flush();
    jorn_process_web_policy_flush();
    jorn_state.web_intf_list.release_all();
    jorn_process_wificalling_policy_flush();
    jorn_state.wificalling_intf_list.release_all();
    jorn_update_user_def_policy_cfg(nullptr, 0);
    port_app_list_clear(&jorn_state.port_apps);
}

} // namespace

// With debugging off, and on.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const saved_folder folder;
    static const int reply_fd = set_up();
    for (const uint8_t debug : {uint8_t{0}, uint8_t{1}}) {
        jorn_settings.debug = debug;
        folder.write(PORT_SERVICE_FILE, "9000,tcp,4,1201,Portal\n9000,udp,4,1202,Other\n");
        hostile_platform();
        run_messages(reply_fd, data, size);
        forget();
    }
    return 0;
}
