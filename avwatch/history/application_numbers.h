// Numbers for applications that have none of the DPI engine's, for who exports flows. One never
// means two applications: it is stored before it is used, and the next ones are larger, also when
// some are forgotten. The engine's numbers are smaller, for there are collectors that know no
// engines.
//
// Bounded: when MAX have one, those that nobody has used for the most days make room. Where all
// were used today, what comes is "other".
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

    struct row {
        uint32_t number = 0;
        int64_t used_day = 0; // since 1970
    };
    using row_map = std::map<application_name, row>;

    void restore(application_name name, const row &stored);
    // No number below was given.
    void set_next(uint32_t next) { next_ = stored_below_ = std::max(next_, next); }

    // OTHER_NUMBER where there is no room, UNNAMED_NUMBER without a name.
    uint32_t number_of(const application_name &name, int64_t today);
    // Whether it may be used: after a crash it means the same.
    bool is_stored(uint32_t number) const { return number < FIRST || number < stored_below_; }
    // Null where there is none any more, and of those that stand for others.
    const application_name *name_of(uint32_t number) const;

    uint32_t next() const { return next_; }
    const std::set<const row_map::value_type *> &unwritten() const { return unwritten_; }
    const std::vector<uint32_t> &forgotten() const { return forgotten_; }
    bool is_written() const { return unwritten_.empty() && forgotten_.empty(); }
    void written();
    // Another file takes the former one's place: all are to be written.
    void forget_rows();

private:
    bool make_room(int64_t today);

    row_map rows_;
    std::map<uint32_t, const application_name *> names_; // of them, by number
    uint32_t next_ = FIRST;
    uint32_t stored_below_ = FIRST;
    int64_t full_on_day_ = -1; // when all had been used
    std::set<const row_map::value_type *> unwritten_;
    std::vector<uint32_t> forgotten_; // had a row
};

} // namespace avwatch
