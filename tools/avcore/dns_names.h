// The platform's DNS cache: names by IPv4 address, learnt from the answers that pass, kept for
// their TTL on the frames' time stamps. Bounded in number: the name learnt longest ago gives way.
#pragma once

#include "avcore/dns_answer.h"
#include "avcore/messages.h"

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>

namespace avcore {

class dns_names {
public:
    static constexpr size_t MAX_NAMES = 16'384;

    explicit dns_names(size_t limit = MAX_NAMES) : limit_(limit) {}

    // The newer answer's name holds.
    void learn(const dns_answer &answer, int64_t time_us);
    // Null when there is none, or none any more.
    const std::string *find(uint32_t address_be, int64_t time_us) const;

    size_t size() const { return names_.size(); }

private:
    struct entry {
        uint32_t address_be;
        int64_t expires_us;
        std::string name;
    };
    size_t limit_;
    std::list<entry> names_; // the one learnt last at the front
    std::map<uint32_t, std::list<entry>::iterator> index_;
};

// Op 34 of the AV channel.
std::vector<std::byte> answer_domain_name(const dns_names &names, int64_t time_us,
                                          const question &asked);

} // namespace avcore
