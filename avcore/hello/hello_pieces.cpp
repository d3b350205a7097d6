#include "avcore/hello/hello_pieces.h"

namespace avcore {

bool hello_pieces::put(uint64_t offset, byte_view piece) {
    if (offset > MAX_SIZE || piece.size() > MAX_SIZE - offset)
        return false;
    const auto begin = static_cast<size_t>(offset);
    const size_t end = begin + piece.size();
    if (end > bytes_.size()) {
        bytes_.resize(end);
        known_.resize(end);
    }
    bool agrees = true;
    for (size_t i = 0; i < piece.size(); ++i) {
        const size_t at = begin + i;
        if (known_[at]) {
            agrees = agrees && bytes_[at] == piece.u8(i);
            continue;
        }
        bytes_[at] = piece.u8(i);
        known_[at] = true;
        ++known_count_;
    }
    while (whole_ < known_.size() && known_[whole_])
        ++whole_;
    return agrees;
}

} // namespace avcore
