// What QUIC's clients send first: hellos, frames, and the Initial packets that hold them.
#pragma once

#include "avcore/hello/quic_initial.h"
#include "support/frames.h"

#include <algorithm>
#include <openssl/evp.h>

// A ClientHello with nothing but a server's name, or without it, and further extensions.
inline octets client_hello_for(std::string_view host, const octets &extensions = {}) {
    const octets list = octets{0} + be16(host.size()) + octets_of(host);
    const octets named = be16(0) + be16(list.size() + 2) + be16(list.size()) + list + extensions;
    const octets body = octets{3, 3} + octets(32, 7) + octets{0, 0, 2, 0x13, 1, 1, 0} +
                        (host.empty() ? octets() : be16(named.size()) + named);
    return octets{1, 0} + be16(body.size()) + body;
}

inline octets crypto_frame(size_t offset, const octets &data) {
    return octets{6} + be32(0x80000000 | static_cast<uint32_t>(offset)) +
           be16(0x4000 | data.size()) + data;
}

struct initial_words {
    uint32_t version = avcore::QUIC_V1;
    octets id = octets_of("its id.."); // of the destination
    octets first_id = id;              // that the keys are from
    uint64_t number = 0;               // of which the packet says four bytes
    size_t frames_size = 1162;         // at least; 1,200 bytes in all
};

// One cipher's work on `data`, and a tag where it makes one.
inline octets encrypted(const EVP_CIPHER *cipher, const uint8_t *key, const octets &nonce,
                        const octets &header, const octets &data) {
    EVP_CIPHER_CTX *context = EVP_CIPHER_CTX_new();
    octets result(data.size() + 16, 0);
    int size = 0;
    EVP_EncryptInit_ex(context, cipher, nullptr, key, nonce.data());
    if (!header.empty())
        EVP_EncryptUpdate(context, nullptr, &size, header.data(), static_cast<int>(header.size()));
    EVP_EncryptUpdate(context, result.data(), &size, data.data(), static_cast<int>(data.size()));
    EVP_EncryptFinal_ex(context, result.data() + size, &size);
    EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, 16, result.data() + data.size());
    EVP_CIPHER_CTX_free(context);
    return result;
}

inline octets initial_packet(octets frames, const initial_words &words = {}) {
    static avcore::quic_crypto crypto;
    avcore::quic_id id;
    id.size = static_cast<uint8_t>(words.first_id.copy(id.bytes.data(), id.bytes.size()));
    const avcore::quic_keys keys = *crypto.client_keys(words.version, id);
    octets nonce(keys.iv.begin(), keys.iv.end());
    for (size_t i = 0; i < 8; ++i)
        nonce[nonce.size() - 1 - i] ^= static_cast<uint8_t>(words.number >> (8 * i));
    frames.resize(std::max(frames.size(), words.frames_size));
    const octets head = octets{uint8_t(words.version == avcore::QUIC_V2 ? 0xD3 : 0xC3)} +
                        be32(words.version) + octets{uint8_t(words.id.size())} + words.id +
                        octets{0, 0} + be16(0x4000 | (4 + frames.size() + 16)) +
                        be32(static_cast<uint32_t>(words.number));
    octets packet = head + encrypted(EVP_aes_128_gcm(), keys.key.data(), nonce, head, frames);
    const octets sample = packet.substr(head.size(), 16);
    const octets mask = encrypted(EVP_aes_128_ecb(), keys.header_key.data(), {}, {}, sample);
    packet[0] = static_cast<uint8_t>(packet[0] ^ (mask[0] & 0x0F));
    for (size_t i = 0; i < 4; ++i)
        packet[head.size() - 4 + i] ^= mask[i + 1];
    return packet;
}
