#include "avcore/gate/places.h"

#include "avcore/gate/maps.h"
#include "avcore/gate/pins.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <stdexcept>
#include <sys/socket.h>
#include <system_error>
#include <utility>

namespace avcore {
namespace {

// Stations make new ones as often as they like.
constexpr size_t NAMES_MAX = 4096;

unique_fd open_changes() {
    unique_fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        throw std::runtime_error("the kernel doesn't tell of its interfaces: " +
                                 std::generic_category().message(errno));
    return fd;
}

bool stands_at(const std::string &pins, unsigned index) {
    try {
        return gate_at(pins, index, tc_side::ingress) && gate_at(pins, index, tc_side::egress);
    } catch (const std::runtime_error &) { // there is no telling: it goes this moment
        return false;
    }
}

std::string current_name(unsigned index) {
    char name[IF_NAMESIZE] = {};
    return if_indextoname(index, name) ? name : std::string();
}

} // namespace

gate_places::gate_places(const std::string &pins, const std::vector<std::string> &named,
                         list_function list)
    : pins_(pins), list_(std::move(list)), changes_(open_changes()) {
    for (const std::string &name : named) {
        named_[name] = if_nametoindex(name.c_str());
        names_[named_[name]] = name;
    }
    if (!named.empty())
        programs_ = gate_programs_at(pins_, named_[named.front()]);
    follow_stations();
}

interface_news gate_places::follow() {
    if (has_changed() || misses_some_) {
        misses_some_ = false;
        follow_named();
        follow_stations();
        if (!misses_some_)
            told_.clear();
    }
    return std::exchange(news_, {});
}

// What changed is looked up, so that messages that were lost for want of room are no loss.
bool gate_places::has_changed() const {
    std::array<std::byte, 8192> message;
    bool changed = false;
    while (recv(changes_.get(), message.data(), message.size(), 0) > 0 || errno == ENOBUFS)
        changed = true;
    return changed;
}

void gate_places::complain(const std::string &what) {
    misses_some_ = true;
    if (told_.insert(what).second)
        news_.failures.push_back(what);
}

void gate_places::follow_named() {
    for (auto &[name, index] : named_) {
        const unsigned now = if_nametoindex(name.c_str());
        if (index == now)
            continue;
        if (now == 0) {
            index = now;
            news_.changes.push_back(name + " is gone, and the gate there with it");
            continue;
        }
        names_[now] = name;
        try {
            const unique_fd lock = lock_beside(pins_);
            attach_all(pins_, ethernet_interface(name), programs_);
            index = now;
            news_.changes.push_back(name + " was made anew: the gate is attached there again");
        } catch (const std::runtime_error &error) {
            complain(error.what());
        }
    }
}

void gate_places::follow_stations() {
    const std::optional<wireless_list> all = list_();
    if (!all) {
        complain("nl80211 doesn't say which interfaces the radios have");
        return;
    }
    std::map<unsigned, unsigned> wanted; // and the access point's
    for (const wireless_interface &each : *all) {
        const unsigned access_point = access_point_of(each.index, *all);
        if (access_point != 0 && is_named(access_point) && !is_named(each.index))
            wanted[each.index] = access_point;
    }
    for (const auto &[index, access_point] : wanted)
        if (!stations_.contains(index))
            take(index, access_point);
    std::erase_if(stations_, [&](const auto &place) {
        if (wanted.contains(place.first))
            return false;
        leave(place.first, place.second);
        return true;
    });
}

// Not where somebody took the gate down meanwhile.
void gate_places::take(unsigned index, unsigned access_point) {
    const station_place place = {current_name(index), current_name(access_point)};
    if (place.name.empty())
        return; // gone already
    try {
        const unique_fd lock = lock_beside(pins_);
        attach_all(pins_, index, gate_programs_at(pins_, access_point));
        news_.changes.push_back(place.name + " has stations of " + place.access_point +
                                ": the gate is attached there");
    } catch (const std::runtime_error &error) {
        if (!current_name(index).empty())
            complain(error.what());
        return;
    }
    remember(index, place.access_point);
    stations_[index] = place;
}

void gate_places::leave(unsigned index, const station_place &place) {
    if (current_name(index).empty()) {
        news_.changes.push_back(place.name + " is gone, and the gate there with it");
        return;
    }
    try {
        const unique_fd lock = lock_beside(pins_);
        take_gate_from(pins_, index);
        news_.changes.push_back(place.name + " has no more stations of " + place.access_point +
                                ": the gate is detached there");
    } catch (const std::runtime_error &error) {
        news_.failures.emplace_back(error.what());
    }
}

std::vector<std::string> gate_places::leave_others() {
    std::vector<std::string> left;
    if (misses_some_)
        return left;
    const unique_fd lock = lock_beside(pins_);
    for (const auto &[index, name] : all_interfaces()) {
        if (is_named(index) || stations_.contains(index))
            continue;
        const std::optional<tc_program> there = gate_at(pins_, index, tc_side::ingress);
        if (there && pinned_program(pins_, there->id).valid() && take_gate_from(pins_, index))
            left.push_back(name);
    }
    return left;
}

// Where an interface itself is gone, or was made anew, `follow` says so.
std::vector<std::string> gate_places::taken_away() {
    std::vector<std::string> names;
    for (const auto &[name, index] : named_) {
        if (index == 0 || index != if_nametoindex(name.c_str()))
            continue;
        if (stands_at(pins_, index))
            without_gate_.erase(name);
        else if (without_gate_.insert(name).second)
            names.push_back(name);
    }
    return names;
}

std::vector<std::string> gate_places::names() const {
    std::vector<std::string> names;
    for (const auto &[name, index] : named_)
        names.push_back(name);
    for (const auto &[index, place] : stations_)
        names.push_back(place.name);
    return names;
}

// Also where another run has attached the gate.
const std::string &gate_places::name_of(unsigned index) {
    static const std::string unknown;
    if (const auto known = names_.find(index); known != names_.end())
        return known->second;
    const std::string own = current_name(index);
    if (own.empty())
        return unknown;
    const std::string access_point =
        current_name(access_point_of(index, list_().value_or(wireless_list())));
    return remember(index, access_point.empty() ? own : access_point);
}

const std::string &gate_places::remember(unsigned index, const std::string &name) {
    if (names_.size() >= NAMES_MAX && !names_.contains(index))
        names_.erase(std::prev(names_.end())); // a station's: access points have been there longer
    return names_[index] = name;
}

bool gate_places::is_named(unsigned index) const {
    return std::any_of(named_.begin(), named_.end(),
                       [&](const auto &each) { return each.second == index; });
}

} // namespace avcore
