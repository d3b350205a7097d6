// The Initial packets of QUIC's clients (RFC 9000, 17.2.2). They are encrypted with keys from an id
// that the client's first one shows (RFC 9001, 5.2), so that whoever saw it can open them all.
// Known here are version 1, its draft 29, which clients spoke for years, and version 2 (RFC 9369).
#pragma once

#include "packet/decode/cursor.h"

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

struct evp_cipher_ctx_st;
struct evp_kdf_ctx_st;

namespace avcore {

inline constexpr uint32_t QUIC_V1 = 1;
inline constexpr uint32_t QUIC_DRAFT_29 = 0xFF00001D;
inline constexpr uint32_t QUIC_V2 = 0x6B3343CF;

struct quic_id {
    std::array<uint8_t, 20> bytes = {}; // zeros behind `size`
    uint8_t size = 0;

    auto operator<=>(const quic_id &) const = default;
};

// Takes a variable-length integer (RFC 9000, 16) off `rest`; none where it is cut.
std::optional<uint64_t> take_varint(byte_view &rest);

// Whether a long header that begins so is one of a Retry, which has no packets behind it and says
// nothing of a handshake.
bool is_quic_retry(uint32_t version, uint8_t first_byte);

// A packet with a long header, as far as it is readable without keys.
struct quic_packet {
    uint32_t version = 0;
    bool is_initial = false;
    quic_id destination;
    byte_view bytes;      // header included
    size_t number_at = 0; // the packet number's place in them
};

// Takes the first packet off a datagram, which may hold several. None: it has no long header of
// these versions, its lengths don't fit, or it is one of those that no other can follow.
std::optional<quic_packet> take_packet(byte_view &datagram);

struct quic_keys {
    std::array<uint8_t, 16> key = {};
    std::array<uint8_t, 12> iv = {};
    std::array<uint8_t, 16> header_key = {};
};

class quic_crypto {
public:
    quic_crypto(); // throws std::runtime_error
    ~quic_crypto();

    // The keys of a client that has sent its first Initial packet to `id`.
    std::optional<quic_keys> client_keys(uint32_t version, const quic_id &id);

    // The frames in an Initial packet, until the next call; none where these aren't its keys.
    // `largest` is the largest packet number seen so far, -1 before the first, and kept up to date.
    std::optional<byte_view> open(const quic_packet &packet, const quic_keys &keys,
                                  int64_t &largest);

private:
    struct closer {
        void operator()(evp_cipher_ctx_st *context) const;
        void operator()(evp_kdf_ctx_st *context) const;
    };
    bool expand(const std::array<uint8_t, 32> &secret, const char *label, uint8_t *to, size_t size);
    std::optional<size_t> unmask(const quic_packet &packet, const quic_keys &keys);

    std::unique_ptr<evp_kdf_ctx_st, closer> extract_;
    std::unique_ptr<evp_kdf_ctx_st, closer> expand_;
    std::unique_ptr<evp_cipher_ctx_st, closer> mask_;
    std::unique_ptr<evp_cipher_ctx_st, closer> aead_;
    std::vector<uint8_t> opened_; // a packet, unmasked, then decrypted in place
};

} // namespace avcore
