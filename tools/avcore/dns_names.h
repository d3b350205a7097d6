// The platform's DNS cache: names by IPv4 address, learnt from the answers that pass, kept for
// their TTL on the frames' time stamps. Bounded in number: the name learnt longest ago gives way.
//
// What an answer teaches holds from the frame on that carried it. Frames are read long before the
// daemon judges them, so `name_timeline` keeps the lessons of the frames between.
#pragma once

#include "avcore/dns_answer.h"
#include "avcore/messages.h"

#include <cstdint>
#include <deque>
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

class name_timeline {
public:
    // What a frame has taught, and when it was captured. Frames are counted up.
    void add(uint64_t frame, int64_t time_us, dns_answer answer);
    // The daemon has come to this frame.
    void advance(uint64_t frame);

    const dns_names &names() const { return names_; }
    int64_t time_us() const { return time_us_; } // of the last frame that the daemon has come to

private:
    struct lesson {
        uint64_t frame;
        int64_t time_us;
        dns_answer answer;
    };
    std::deque<lesson> ahead_; // of frames that the daemon hasn't come to
    dns_names names_;
    int64_t time_us_ = 0;
};

// Op 34 of the AV channel.
std::vector<std::byte> answer_domain_name(const dns_names &names, int64_t time_us,
                                          const question &asked);

} // namespace avcore
