#include "jornctl/documents/cross_checks.h"

#include "core/text/text.h"
#include "jornctl/documents/table_checks.h"
#include "shared/suggestion.h"

#include <algorithm>

namespace jornctl {
namespace {

void warn_of_applications(document &read) {
    for (size_t i = 0; i < read.applications->size(); ++i) {
        const userdef_app &app = (*read.applications)[i];
        if (app.dst_family == 0 && app.dst_port == 0 && app.protocol == 0)
            read.found.warning(place("applications", i),
                               "every packet fits, for there is no dst_ip, dst_port or protocol");
    }
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

void warn_of_utp(uint32_t id, const std::string &path, const std::set<uint32_t> *given,
                 document &read) {
    if (id > UTP_ID_LOOKUP_MAX)
        read.found.warning(path,
                           "packets never find a UTP beyond " + std::to_string(UTP_ID_LOOKUP_MAX));
    else if (given != nullptr && !given->contains(id))
        read.found.remark(path, "no client has it: neither [client] nor a [[rule]] of avcore's "
                                "configuration gives it");
}

void warn_of_interface(const char *ifname, const std::string &path, const platform_facts &around,
                       document &read) {
    if (!around.clients || around.clients->interfaces.contains(ifname))
        return;
    std::vector<std::string> known(around.clients->interfaces.begin(),
                                   around.clients->interfaces.end());
    read.found.remark(path, "no packet comes from there: the interfaces of avcore's "
                            "configuration are " +
                                joined(known));
}

void check_across(document &read, const node &written, const platform_facts &around) {
    check_arc(read, written, around);
    if (read.applications)
        warn_of_applications(read);
    check_web(read, around);
    check_wificalling(read, around);
}

} // namespace jornctl
