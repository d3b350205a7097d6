// The platform's names by address: those in the DNS answers that pass, kept for their TTL. They age
// on the frames' time stamps and are bounded in number: the one learnt longest ago gives way.
//
// The daemon keeps what it is told of an address for all clients. So what a client shows in a
// handshake is none of these names.
//
// What a frame teaches holds from it on. Frames are read long before the daemon judges them, so
// `name_timeline` keeps the lessons of the frames between.
//
// Askers remember which addresses have no name until the word is raised. So it is raised before a
// frame is written from which on one may have a name: when the frame is read. What is told of such
// an address until the frame's turn comes mustn't be remembered under the new word either. Whoever
// asks has read the word before, so it is raised once more before he is told.
#pragma once

#include "avcore/base/ip_address.h"
#include "avcore/base/messages.h"
#include "avcore/names/dns_answer.h"
#include "avcore/names/name_word.h"
#include "avcore/names/stand_ins.h"

#include <cstdint>
#include <deque>
#include <limits>
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
    // When its name expires, or did: it is kept, for time stamps may go back. None: there is none.
    std::optional<int64_t> expiry_us(const ip_address &address) const;
    int64_t learnt_us(const ip_address &address) const; // of one that has a name
    // Whether an address of the answer's has no name at this time.
    bool has_news(const dns_answer &answer, int64_t time_us) const;

    size_t size() const { return names_.size(); }

private:
    struct entry {
        ip_address address;
        int64_t learnt_us;
        int64_t expires_us;
        std::string name;
    };

    void learn(entry learnt);

    size_t limit_;
    std::list<entry> names_; // the one learnt last at the front
    std::map<ip_address, std::list<entry>::iterator> index_;
};

// What one frame teaches.
struct name_lesson {
    int64_t time_us = 0; // of its capture
    dns_answer answer;
    bool has_news = false; // an address gets a name that had none at the frame before
};

class name_timeline {
public:
    // Before the frame is written. Frames are counted up.
    void add(uint64_t frame, name_lesson lesson);
    // The daemon has come to this frame.
    void advance(uint64_t frame);

    // The name at the frame that the daemon has come to. Null: there is none, and whoever is told
    // so may remember it under the word that there was when he asked.
    const std::string *find(const ip_address &address);

    const name_word &word() const { return word_; }

private:
    struct later_lesson {
        uint64_t frame;
        name_lesson lesson;
    };
    static constexpr int64_t NEVER_US = std::numeric_limits<int64_t>::min();

    void raise_word();

    std::deque<later_lesson> ahead_; // of frames that the daemon hasn't come to
    dns_names names_;
    int64_t time_us_ = 0; // of the last frame that the daemon has come to
    name_word word_;
    // Since the word was raised: of the names that askers were told of as expired, the latest
    // expiry. A frame from before it could have the name again.
    int64_t told_expiry_us_ = NEVER_US;
};

// Op 34 of the AV channel. The name of a stand-in is that of the address that it stands in for.
std::vector<std::byte> answer_domain_name(name_timeline &names, const stand_in_table &stand_ins,
                                          const question &asked);

} // namespace avcore
