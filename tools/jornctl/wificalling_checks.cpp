#include "jornctl/table_checks.h"

namespace jornctl {
namespace {

constexpr int32_t PRIORITY_MAX = 254; // of a packet's tag, where 255 is none

void warn_of_carrier(const wificalling_policy_wire &carrier, size_t index, document &read) {
    if (carrier.priority < 0 || carrier.priority > PRIORITY_MAX)
        read.warn(place("carriers", index, "/priority"),
                  "packets keep its low 8 bits, and 255 counts as none");
    for (size_t i = 0; i < carrier.num_epdg; ++i) {
        if (carrier.epdg[i].fqdn[0] == '\0')
            read.warn(place("carriers", index, "/epdg/") + std::to_string(i),
                      "without an fqdn it fits every flow of UDP ports 500 and 4500 whose address "
                      "has a name");
    }
}

void check_carriers(document &read) {
    const std::vector<wificalling_policy_wire> &carriers = *read.carriers;
    check_unique(
        carriers, [](const wificalling_policy_wire &carrier) { return folded(carrier.pname); },
        "carriers", "/pname");
    for (size_t i = 0; i < carriers.size(); ++i)
        warn_of_carrier(carriers[i], i, read);
    if (!read.wificalling_interfaces)
        read.warn("/carriers", "the daemon's bindings stay without carriers, for the document has "
                               "no wificalling_interfaces");
    if (carriers.empty() && (!read.wificalling_interfaces || read.wificalling_interfaces->empty()))
        read.warn("/carriers", "the daemon's file keeps the old ones until a carrier or a binding "
                               "changes");
}

bool has_carrier(const document &read, const char *name) {
    for (const wificalling_policy_wire &carrier : *read.carriers) {
        if (strcasecmp(carrier.pname, name) == 0)
            return true;
    }
    return false;
}

// Throws refused for a binding that the daemon would refuse, its old form deleted.
void check_profiles(const wificalling_intf_wire &binding, size_t index, document &read) {
    const std::string profiles = place("wificalling_interfaces", index, "/profile");
    std::vector<std::string> warnings;
    for (int32_t i = 0; i < binding.num_profiles; ++i) {
        if (!has_carrier(read, binding.profile[i]))
            warnings.push_back(profiles + '/' + std::to_string(i));
    }
    if (std::cmp_equal(warnings.size(), binding.num_profiles))
        throw refused(profiles + ": the document has none of these carriers, and the others go");
    for (const std::string &path : warnings)
        read.warn(path, "no carrier of the document has this name, and the others go");
}

void check_bindings(document &read) {
    const std::vector<wificalling_intf_wire> &bindings = *read.wificalling_interfaces;
    check_unique(
        bindings, [](const wificalling_intf_wire &binding) { return folded(binding.ifname); },
        "wificalling_interfaces", "/ifname");
    for (size_t i = 0; read.carriers && i < bindings.size(); ++i) {
        if (bindings[i].enable != 0)
            check_profiles(bindings[i], i, read);
    }
}

} // namespace

void check_wificalling(document &read) {
    if (read.carriers)
        check_carriers(read);
    if (read.wificalling_interfaces)
        check_bindings(read);
}

} // namespace jornctl
