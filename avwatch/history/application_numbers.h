// Numbers for applications that have none of the DPI engine's, for who exports flows. One never
// means two applications, for collectors keep what it means: it is never given again, also when its
// name is forgotten, or lost with the power; numbers only grow. So they are reserved before they
// are told, many at once, and each start goes on behind those that were. A file that has none yet
// begins at a place of its own, for a collector may remember those of the file before it. The
// engine's numbers are smaller, for there are collectors that know no engines.
//
// Bounded: when MAX have one, some that haven't been used for the longest make room; an application
// that comes back gets another number. Which was used when is counted in turns, of this process or
// of a day of it, for the wall's clock jumps. Where all were used in this turn, what comes is
// "other".
//
// No database here: the store writes `unwritten` and says `written`.
#pragma once

#include "avwatch/history/application_names.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <vector>

namespace avwatch {

class application_numbers {
public:
    static constexpr uint32_t OTHER_NUMBER = 65'536;
    static constexpr uint32_t UNNAMED_NUMBER = 65'537;
    static constexpr uint32_t FIRST = 65'538;
    static constexpr size_t MAX = 16'384;
    static constexpr size_t ROOM = 1'024; // is made at once

    struct row {
        uint32_t number = 0;
        int64_t turn = 0; // the last one in which it was used
    };
    using row_map = std::map<application_name, row>;

    // First those that are stored, then from where on they are given, and the next turn.
    void restore(application_name name, const row &stored);
    void set_next(uint32_t next) { next_ = reserved_below_ = std::max(next_, next); }
    void begin_turn() { ++turn_; }
    // Now and then: days begin turns.
    void pass(int64_t now_ms);

    // OTHER_NUMBER where there is no room, UNNAMED_NUMBER without a name.
    uint32_t number_of(const application_name &name);
    // Whether it may be told: no later run will give it. It is used then.
    bool use(uint32_t number);
    // Null where there is none any more, and of those that stand for others.
    const application_name *name_of(uint32_t number) const;

    uint32_t next() const { return next_; }
    uint32_t reserved_below() const { return reserved_below_; }
    void reserve(uint32_t below) { reserved_below_ = below; } // that stays, whatever happens
    const std::set<const row_map::value_type *> &unwritten() const { return unwritten_; }
    const std::vector<uint32_t> &forgotten() const { return forgotten_; }
    bool is_written() const { return unwritten_.empty() && forgotten_.empty(); }
    void written();
    // Another file takes the former one's place: all are to be written.
    void forget_rows();

private:
    void use(row_map::value_type &of);
    bool make_room();

    row_map rows_;
    std::map<uint32_t, row_map::value_type *> by_number_;
    uint32_t next_ = FIRST;
    uint32_t reserved_below_ = FIRST;
    int64_t turn_ = 0;
    int64_t turn_due_ms_ = 0;   // the next one; 0: nobody has said yet what time it is
    int64_t full_in_turn_ = -1; // when all had been used
    std::set<const row_map::value_type *> unwritten_;
    std::vector<uint32_t> forgotten_; // had a row
};

} // namespace avwatch
