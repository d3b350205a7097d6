// The rate limits in force: which bucket of the gate a flow's limit is.
//
// Bounded: when all buckets are in use the one that was asked for longest ago is given to another
// limit. A flow that still refers to it would be under that one, at its rate. So all flows are to
// be judged anew whenever a quarter of the buckets was handed out: the limits of those that send
// are asked for again long before their turn comes, and the next packet of any other brings a new
// verdict.
//
// Pinned verdicts of an earlier run refer to buckets as well. So the first one is anywhere, or each
// run would begin with the buckets of the last one's first flows.
#pragma once

#include "avcore/frames/frame.h"
#include "avcore/records/gate_records.h"

#include <array>
#include <compare>
#include <cstdint>
#include <list>
#include <map>
#include <string>

namespace avcore {

// Whose limit it is: of a client's application, with a flow of that flow alone, or, with rates and
// no application, of all flows of the client that have these limits.
struct limit_owner {
    mac_address client = {};
    std::string application;
    uint32_t flow = 0;
    std::array<uint16_t, 2> rates = {}; // by direction, in the controller's unit
    gate_direction direction = GATE_UP;

    auto operator<=>(const limit_owner &) const = default;
};

// What a bucket holds of a limit of `bytes_per_second`: enough for TCP to fill the limit although
// what exceeds it is dropped, and for one large packet that segmentation offload will cut.
gate_limit limit_of(uint64_t bytes_per_second);

class limit_book {
public:
    // Bucket 0 is none.
    explicit limit_book(uint32_t buckets = GATE_BUCKETS);

    struct place {
        uint32_t bucket;
        bool changed;    // its limit has to be told to the gate
        bool judge_anew; // all flows
    };
    place place_of(const limit_owner &owner, uint64_t bytes_per_second);

private:
    struct entry {
        limit_owner owner;
        uint32_t bucket;
        uint64_t bytes_per_second;
    };
    uint32_t buckets_;
    uint32_t first_;
    uint32_t handed_out_ = 0;  // since all flows were last to be judged anew
    std::list<entry> entries_; // the one asked for last at the front
    std::map<limit_owner, std::list<entry>::iterator> index_;
};

} // namespace avcore
