// The interfaces at which one run keeps the gate: those that were named, and those that an access
// point among them has for single stations or their VLANs (see wireless.h). The latter come and go
// with their stations; the kernel tells of each change.
#pragma once

#include "avcore/gate/interface_news.h"
#include "avcore/gate/traffic_control.h"
#include "avcore/gate/wireless.h"
#include "shared/unique_fd.h"

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace avcore {

class gate_places {
public:
    using list_function = std::function<std::optional<wireless_list>()>;

    // At all that are named the gate stands already. Throws std::runtime_error.
    gate_places(const std::string &pins, const std::vector<std::string> &named,
                list_function list = wireless_interfaces);

    int fd() const { return changes_.get(); } // readable when interfaces have changed
    // Attaches the gate where interfaces came or were made anew, and where that failed before. What
    // fails is told once.
    interface_news follow();
    bool misses_some() const { return misses_some_; } // and wants to be called again, unasked

    // Takes it away where it stands by these pins, but for `names`. Returns where it stood. Nowhere
    // while the radios don't say which interfaces are for stations. Throws std::runtime_error.
    std::vector<std::string> leave_others();
    // Where it was named to stand and somebody took it away since the last call: a teardown, or tc.
    std::vector<std::string> taken_away();
    std::vector<std::string> names() const; // of all
    // By which rules know it: for one of stations that of the access point. Empty where the kernel
    // doesn't know the interface, or no longer.
    const std::string &name_of(unsigned index);

private:
    struct station_place {
        std::string name;
        std::string access_point;
    };

    bool has_changed() const;
    void complain(const std::string &what);
    void follow_named();
    void follow_stations();
    void take(unsigned index, unsigned access_point);
    void leave(unsigned index, const station_place &place);
    bool is_named(unsigned index) const;
    const std::string &remember(unsigned index, const std::string &name);

    std::string pins_;
    gate_programs programs_;
    list_function list_;
    unique_fd changes_;
    std::map<std::string, unsigned> named_; // their indices; 0 while there is none
    std::map<unsigned, station_place> stations_;
    std::map<unsigned, std::string> names_; // of those that were asked for or taken
    std::set<std::string> without_gate_;    // which was told
    interface_news news_;                   // since the last call
    bool misses_some_ = false;
    std::set<std::string> told_; // complaints, as long as some are missed
};

} // namespace avcore
