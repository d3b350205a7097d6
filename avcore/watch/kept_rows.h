// Rows that the table of flows no longer has, or has as they have become since. Thousands come and
// go in a second, each larger than what an allocator hands out at once.
#pragma once

#include "avcore/flows/flow_table.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace avcore {

class kept_rows {
    struct giving_back {
        kept_rows *to = nullptr;
        void operator()(flow_row *row) const { to->take_back(std::unique_ptr<flow_row>(row)); }
    };

public:
    static constexpr size_t MAX_SPARE = 32'768; // a round over a full gate gives back more at once

    using kept_row = std::unique_ptr<flow_row, giving_back>; // outlived by this

    kept_row keep(const flow_row &row);
    kept_row keep(flow_row &&row);

private:
    kept_row any_row();
    void take_back(std::unique_ptr<flow_row> row);

    std::vector<std::unique_ptr<flow_row>> spare_;
};

} // namespace avcore
