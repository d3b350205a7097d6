// avwatch's TOML file, as somebody may have left it: refused with a line that names it and can be
// printed, or each value is within its bounds.
#include "avcore/base/config_text.h"
#include "avcore/base/host_text.h"
#include "avwatch/settings/settings.h"
#include "demand.h"
#include "settings_lines.h"
#include "support/memory_file.h"

namespace {

using namespace avwatch;

void check(const settings &read) {
    for (const auto &[name, whom] : read.aliases)
        demand(name != whom && whom.find_first_of(".:") != whom.npos);
    demand(read.history.limit_mb >= LIMIT_MB_MIN && read.history.limit_mb <= LIMIT_MB_MAX);
    demand(read.history.commit_s != 0 && read.history.commit_s <= COMMIT_S_MAX);
    for (const std::string &host : read.http.hosts)
        demand(avcore::is_host_text(host) && host == avcore::lower_case(host));
    demand(read.http.certificate.empty() == read.http.key.empty());
    demand(read.exports.size() <= EXPORTS_MAX);
    for (const export_settings &each : read.exports) {
        const unsigned long port = std::stoul(each.port);
        demand(!each.host.empty() && port != 0 && port <= UINT16_MAX);
        demand(each.active_s != 0 && each.inactive_s != 0 && each.refresh_s != 0);
        demand(each.names >= read.history.names);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const memory_file file({reinterpret_cast<const char *>(data), size});
    try {
        check(read_settings(file.path()));
    } catch (const avcore::config_error &error) {
        check_lines(error.what(), file.path());
    }
    return 0;
}
