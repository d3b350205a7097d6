#include "avcore/watch/kept_rows.h"

#include <utility>

namespace avcore {

kept_rows::kept_row kept_rows::any_row() {
    if (spare_.empty())
        return {new flow_row, {this}};
    kept_row row(spare_.back().release(), {this});
    spare_.pop_back();
    return row;
}

kept_rows::kept_row kept_rows::keep(const flow_row &row) {
    kept_row kept = any_row();
    *kept = row;
    return kept;
}

kept_rows::kept_row kept_rows::keep(flow_row &&row) {
    kept_row kept = any_row();
    *kept = std::move(row);
    return kept;
}

void kept_rows::take_back(std::unique_ptr<flow_row> row) {
    if (spare_.size() < MAX_SPARE)
        spare_.push_back(std::move(row));
}

} // namespace avcore
