// A hash of bytes that strangers choose: who doesn't know the secret can't make them collide.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

struct sip_state {
    uint64_t v0, v1, v2, v3;

    void round() {
        v0 += v1;
        v1 = std::rotl(v1, 13) ^ v0;
        v0 = std::rotl(v0, 32);
        v2 += v3;
        v3 = std::rotl(v3, 16) ^ v2;
        v0 += v3;
        v3 = std::rotl(v3, 21) ^ v0;
        v2 += v1;
        v1 = std::rotl(v1, 17) ^ v2;
        v2 = std::rotl(v2, 32);
    }
    void take(uint64_t word) {
        v3 ^= word;
        round();
        v0 ^= word;
    }
};

// SipHash-1-3, but for its byte order, which is this machine's: the result never leaves it.
inline uint64_t keyed_hash(const uint64_t (&secret)[2], const uint8_t *key, size_t size) {
    sip_state state = {secret[0] ^ 0x736f6d6570736575u, secret[1] ^ 0x646f72616e646f6du,
                       secret[0] ^ 0x6c7967656e657261u, secret[1] ^ 0x7465646279746573u};
    uint64_t last = uint64_t{size} << 56;
    for (; size >= sizeof last; key += sizeof last, size -= sizeof last) {
        uint64_t word;
        memcpy(&word, key, sizeof word);
        state.take(word);
    }
    for (size_t i = 0; i < size; ++i)
        last |= uint64_t{key[i]} << (8 * i);
    state.take(last);
    state.v2 ^= 0xFF;
    for (int i = 0; i < 3; ++i)
        state.round();
    return state.v0 ^ state.v1 ^ state.v2 ^ state.v3;
}
