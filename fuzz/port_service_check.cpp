// The port-service file, as `jornctl` looks at it before it is uploaded: the daemon makes the same
// list of it without the lines that jornctl says it skips or doesn't reach.
#include "demand.h"
#include "jornctl/documents/port_services.h"
#include "support/fresh_state.h"
#include "support/memory_file.h"
#include "userapps/port_service.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace {

using entry = std::tuple<uint32_t, uint32_t, bool, bool, std::string, uint16_t, uint16_t>;
using list = std::vector<entry>;

list daemons_list(std::string_view text) {
    const memory_file file(text);
    const int result = jorn_parse_port_service_conf_file(file.path(), &jorn_state.port_apps);
    demand(result == 0 || result == PORT_SERVICE_ERR_LIMIT);
    list read;
    for (const port_app *at = jorn_state.port_apps.head; at != nullptr; at = at->next)
        read.emplace_back(at->begin_port, at->end_port, at->tcp_flag != 0, at->udp_flag != 0,
                          at->app_name, at->app_id, at->cat_id);
    port_app_list_clear(&jorn_state.port_apps);
    return read;
}

// The lines that count.
std::string without(const std::vector<jornctl::skipped_line> &skipped, std::string_view text) {
    std::string kept;
    size_t number = 0;
    auto next = skipped.begin();
    while (!text.empty()) {
        const std::string_view line =
            text.substr(0, std::min(text.find('\n'), text.size() - 1) + 1);
        text.remove_prefix(line.size());
        if (next == skipped.end() || next->line != ++number) {
            kept += line;
            continue;
        }
        demand(!next->reason.empty());
        ++next;
    }
    return kept;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int ready = (silence_log(), 1);
    (void)ready;
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const std::vector<jornctl::skipped_line> skipped = jornctl::check_port_services(text);
    demand(daemons_list(text) == daemons_list(without(skipped, text)));
    return 0;
}
