#include "jornctl/documents/name_checks.h"
#include "jornctl/documents/table_checks.h"

namespace jornctl {
namespace {

constexpr int32_t PRIORITY_MAX = 254; // of a packet's tag, where 255 is none

void warn_of_carrier(const wificalling_policy_wire &carrier, size_t index, document &read) {
    if (carrier.priority < 0 || carrier.priority > PRIORITY_MAX)
        read.found.warning(place("carriers", index, "/priority"),
                           "packets keep its low 8 bits, and 255 counts as none");
    for (size_t i = 0; i < carrier.num_epdg; ++i) {
        const char *fqdn = carrier.epdg[i].fqdn;
        const std::string path = place("carriers", index, "/epdg/") + std::to_string(i);
        if (fqdn[0] == '\0')
            read.found.warning(path, "without an fqdn it fits every flow of UDP ports 500 and 4500 "
                                     "whose address has a name");
        else if (const std::string doubt = doubt_about_domain(fqdn); !doubt.empty())
            read.found.warning(path + "/fqdn", doubt);
    }
}

void check_carriers(document &read) {
    const std::vector<wificalling_policy_wire> &carriers = *read.carriers;
    check_unique(
        carriers, [](const wificalling_policy_wire &carrier) { return folded(carrier.pname); },
        "carriers", "/pname", read);
    for (size_t i = 0; i < carriers.size(); ++i)
        warn_of_carrier(carriers[i], i, read);
    if (!read.wificalling_interfaces)
        read.found.warning("/carriers", "the daemon's bindings stay without carriers, for the "
                                        "document has no wificalling_interfaces");
    if (carriers.empty() && (!read.wificalling_interfaces || read.wificalling_interfaces->empty()))
        read.found.warning("/carriers", "the daemon's file keeps the old ones until a carrier or a "
                                        "binding changes");
}

bool has_carrier(const document &read, const char *name) {
    for (const wificalling_policy_wire &carrier : *read.carriers) {
        if (equals_ignoring_case(carrier.pname, name))
            return true;
    }
    return false;
}

// A binding without a carrier is a mistake, for the daemon would refuse it, its old form deleted.
void check_profiles(const wificalling_intf_wire &binding, size_t index, document &read) {
    const std::string profiles = place("wificalling_interfaces", index, "/profile");
    std::vector<std::string> unknown;
    for (int32_t i = 0; i < binding.num_profiles; ++i) {
        if (!has_carrier(read, binding.profile[i]))
            unknown.push_back(profiles + '/' + std::to_string(i));
    }
    if (std::cmp_equal(unknown.size(), binding.num_profiles)) {
        read.found.mistake(profiles, "the document has none of these carriers, and the others go");
        return;
    }
    for (const std::string &path : unknown)
        read.found.warning(path, "no carrier of the document has this name, and the others go");
}

void check_wificalling_bindings(document &read, const platform_facts &around) {
    const std::vector<wificalling_intf_wire> &bindings = *read.wificalling_interfaces;
    check_unique(
        bindings, [](const wificalling_intf_wire &binding) { return folded(binding.ifname); },
        "wificalling_interfaces", "/ifname", read);
    const bool knows_carriers = read.carriers && !read.found.has_mistake_in("/carriers");
    for (size_t i = 0; i < bindings.size(); ++i) {
        if (bindings[i].enable == 0)
            continue;
        warn_of_interface(bindings[i].ifname, place("wificalling_interfaces", i, "/ifname"), around,
                          read);
        if (knows_carriers && bindings[i].num_profiles != 0)
            check_profiles(bindings[i], i, read);
    }
}

} // namespace

void check_wificalling(document &read, const platform_facts &around) {
    if (read.carriers)
        check_carriers(read);
    if (read.wificalling_interfaces)
        check_wificalling_bindings(read, around);
}

} // namespace jornctl
