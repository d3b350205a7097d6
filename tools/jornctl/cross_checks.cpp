#include "jornctl/cross_checks.h"

#include "core/text/text.h"
#include "jornctl/table_checks.h"

#include <algorithm>

namespace jornctl {
namespace {

void warn_of_applications(document &read) {
    for (size_t i = 0; i < read.applications->size(); ++i) {
        const userdef_app &app = (*read.applications)[i];
        if (app.dst_family == 0 && app.dst_port == 0 && app.protocol == 0)
            read.warn(place("applications", i),
                      "every packet fits, for there is no dst_ip, dst_port or protocol");
    }
}

// One command empties both tables of UTPs.
void warn_of_other_utps(document &read) {
    if (read.utps && !read.web_utps)
        read.warn("/utps", "the web UTP table is emptied with this one");
    if (read.web_utps && !read.utps)
        read.warn("/web_utps", "the ARC UTP table is emptied with this one");
}

} // namespace

std::string place(const char *table, size_t index, const char *key) {
    return std::string("/") + table + '/' + std::to_string(index) + key;
}

std::string folded(const char *name) {
    std::string text = name;
    std::transform(text.begin(), text.end(), text.begin(), ascii_lower);
    return text;
}

void warn_of_far_utp(uint32_t id, const std::string &path, document &read) {
    if (id > UTP_ID_LOOKUP_MAX)
        read.warn(path, "packets never find a UTP beyond 63");
}

void check_across(document &read, const node &written) {
    warn_of_other_utps(read);
    check_arc(read, written);
    if (read.applications)
        warn_of_applications(read);
    check_web(read);
    check_wificalling(read);
}

} // namespace jornctl
