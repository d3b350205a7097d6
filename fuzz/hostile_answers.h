// What a platform may answer, decided by the bytes of the question: nothing, an error, texts of
// every length and any bytes, numbers at their limits.
#pragma once

#include "support/fake_platform.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

// The address decides: an error, no name, or a name of every length, its end unmarked when it fills
// the buffer.
inline fake_dns_answer hostile_dns_answer(uint32_t address_be) {
    static char name[255];
    uint8_t octets[4];
    memcpy(octets, &address_be, sizeof octets);
    memset(name, octets[2], sizeof name);
    return {{name, std::min<size_t>(octets[3], sizeof name)},
            octets[1] == 0xFF ? -1 : 0,
            {0, octets[1] & 1u, octets[1] & 2u}};
}

// The domain decides, letter by letter: whether there is an answer, its status, five categories and
// how many of them count.
inline int hostile_category_answer(const urlf_request *request, urlf_reply *reply) {
    const char *domain = request->domain;
    if (memchr(domain, '\0', sizeof request->domain) == nullptr)
        abort();
    int32_t words[sizeof(urlf_answer) / sizeof(int32_t)];
    for (size_t i = 0; i < std::size(words); ++i)
        words[i] = domain[i + 1] == 'Z'   ? INT32_MAX
                   : domain[i + 1] == 'Y' ? INT32_MIN
                                          : domain[i + 1] - 'a';
    memset(reply, domain[9], sizeof *reply);
    memcpy(reply, words, sizeof words);
    return domain[0] == 'n' ? -1 : domain[0] == 'p' ? 1 : 0;
}

inline void hostile_platform() {
    platform.dns_answer = hostile_dns_answer;
    platform.category_answer = hostile_category_answer;
}
