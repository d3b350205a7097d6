// The word by which askers of names see that there is something new to ask about: the first one of
// a sealed page, whose descriptor they are given (op 37 of the AV channel).
#pragma once

#include "shared/unique_fd.h"

#include <cstdint>

namespace avcore {

class name_word {
public:
    // Without sealed memory (Linux before 5.1) there is no page, and askers remember nothing.
    name_word();
    ~name_word();
    name_word(const name_word &) = delete;
    name_word &operator=(const name_word &) = delete;

    int descriptor() const { return page_.get(); } // -1: there is none

    // What askers were told of addresses without a name counts no more.
    void raise();

private:
    unique_fd page_;
    uint32_t *word_ = nullptr;
};

} // namespace avcore
