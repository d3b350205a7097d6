// What clients call themselves in DHCP, by MAC address: their own word, and anybody's who can send
// with that address.
//
// Bounded: the latest name wins, and the client heard longest ago goes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>

namespace avcore {

class client_name_table {
public:
    using mac = std::array<uint8_t, 6>;
    static constexpr size_t MAX_CLIENTS = 4096;

    explicit client_name_table(size_t limit = MAX_CLIENTS) : limit_(limit) {}

    void learn(const mac &client, std::string name);
    // Null where it has said none.
    const std::string *find(const mac &client) const;

private:
    struct entry {
        mac client;
        std::string name;
    };

    size_t limit_;
    std::list<entry> names_; // the one heard last at the front
    std::map<mac, std::list<entry>::iterator> index_;
};

} // namespace avcore
