// The interfaces of this machine that clients are at: the kernel's index and the MAC address, which
// is that of the access point there. They are looked up when they are heard of first, and again
// every LOOK_MS.
#pragma once

#include "avwatch/ipfix/exported_record.h"
#include "shared/unique_fd.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace avwatch {

class interfaces {
public:
    static constexpr size_t MAX = 64;

    struct interface {
        std::string name;
        uint32_t index = 0; // 0: there is none of this name
        exported_record::mac_address mac = {};
    };

    interfaces();

    // From 1; 0: not known, for they are too many.
    uint16_t number_of(const std::string &name);
    const interface &at(uint16_t number) const { return known_[number]; }
    void look_again(int64_t now_ms);

private:
    static constexpr int64_t LOOK_MS = 10'000;

    void look(interface &known) const;

    unique_fd asked_; // a socket, for questions
    std::vector<interface> known_ = {{}};
    int64_t due_ms_ = 0;
};

} // namespace avwatch
