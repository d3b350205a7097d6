// The platform's names by address: those in the DNS answers that pass, kept for their TTL. They age
// on the frames' time stamps and are bounded in number: the one learnt longest ago gives way.
//
// The daemon keeps what it is told of an address for all clients. So what a client shows in a
// handshake is none of these names.
//
// What a frame teaches holds from it on. Frames are read long before the daemon judges them, so
// `name_timeline` keeps the lessons of the frames between.
#pragma once

#include "avcore/base/ip_address.h"
#include "avcore/base/messages.h"
#include "avcore/names/dns_answer.h"
#include "avcore/names/stand_ins.h"

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

    // The newer name holds.
    void learn(const dns_answer &answer, int64_t time_us);
    // Null when there is none, or none any more.
    const std::string *find(const ip_address &address, int64_t time_us) const;

    size_t size() const { return names_.size(); }

private:
    struct entry {
        ip_address address;
        int64_t expires_us;
        std::string name;
    };

    void learn(const ip_address &address, int64_t expires_us, const std::string &name);

    size_t limit_;
    std::list<entry> names_; // the one learnt last at the front
    std::map<ip_address, std::list<entry>::iterator> index_;
};

// What one frame teaches.
struct name_lesson {
    int64_t time_us = 0; // of its capture
    dns_answer answer;
};

class name_timeline {
public:
    // Frames are counted up.
    void add(uint64_t frame, name_lesson lesson);
    // The daemon has come to this frame.
    void advance(uint64_t frame);

    const dns_names &names() const { return names_; }
    int64_t time_us() const { return time_us_; } // of the last frame that the daemon has come to

private:
    struct later_lesson {
        uint64_t frame;
        name_lesson lesson;
    };
    std::deque<later_lesson> ahead_; // of frames that the daemon hasn't come to
    dns_names names_;
    int64_t time_us_ = 0;
};

// Op 34 of the AV channel. The name of a stand-in is that of the address that it stands in for.
std::vector<std::byte> answer_domain_name(const dns_names &names, const stand_in_table &stand_ins,
                                          int64_t time_us, const question &asked);

} // namespace avcore
