#include "avcore/hello/quic_initial.h"

#include <algorithm>
#include <cstring>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <stdexcept>

namespace avcore {
namespace {

constexpr uint8_t LONG_HEADER = 0x80;
constexpr size_t NUMBER_MAX_SIZE = 4;
constexpr size_t SAMPLE_SIZE = 16;
constexpr size_t TAG_SIZE = 16;
constexpr char SHA256[] = "SHA256";

struct version_facts {
    uint32_t version;
    uint8_t initial, retry; // packet types
    std::array<uint8_t, 20> salt;
    const char *key, *iv, *header_key; // labels
};

constexpr version_facts VERSIONS[] = {
    {QUIC_V1,
     0,
     3,
     {0x38, 0x76, 0x2c, 0xf7, 0xf5, 0x59, 0x34, 0xb3, 0x4d, 0x17,
      0x9a, 0xe6, 0xa4, 0xc8, 0x0c, 0xad, 0xcc, 0xbb, 0x7f, 0x0a},
     "quic key",
     "quic iv",
     "quic hp"},
    {QUIC_DRAFT_29,
     0,
     3,
     {0xaf, 0xbf, 0xec, 0x28, 0x99, 0x93, 0xd2, 0x4c, 0x9e, 0x97,
      0x86, 0xf1, 0x9c, 0x61, 0x11, 0xe0, 0x43, 0x90, 0xa8, 0x99},
     "quic key",
     "quic iv",
     "quic hp"},
    {QUIC_V2,
     1,
     0,
     {0x0d, 0xed, 0xe3, 0xde, 0xf7, 0x00, 0xa6, 0xdb, 0x81, 0x93,
      0x81, 0xbe, 0x6e, 0x26, 0x9d, 0xcb, 0xf9, 0xbd, 0x2e, 0xd9},
     "quicv2 key",
     "quicv2 iv",
     "quicv2 hp"},
};

const version_facts *facts_of(uint32_t version) {
    for (const version_facts &facts : VERSIONS)
        if (facts.version == version)
            return &facts;
    return nullptr;
}

uint8_t type_in(uint8_t first_byte) {
    return first_byte >> 4 & 3;
}

std::optional<quic_id> take_id(byte_view &rest) {
    quic_id id;
    id.size = rest.u8(0);
    if (id.size > id.bytes.size() || !rest.copy(1, id.bytes.data(), id.size))
        return std::nullopt;
    rest = rest.from(1 + size_t{id.size});
    return id;
}

// The number nearest to the one expected next that ends in these bits (RFC 9000, A.3).
uint64_t whole_number(uint64_t expected, uint64_t bits, size_t size) {
    const uint64_t window = uint64_t{1} << (8 * size);
    const uint64_t number = (expected & ~(window - 1)) | bits;
    if (number + window / 2 <= expected)
        return number + window;
    if (number > expected + window / 2 && number >= window)
        return number - window;
    return number;
}

OSSL_PARAM text_param(const char *name, const char *text) {
    return OSSL_PARAM_construct_utf8_string(name, const_cast<char *>(text), 0);
}

OSSL_PARAM bytes_param(const char *name, const void *bytes, size_t size) {
    return OSSL_PARAM_construct_octet_string(name, const_cast<void *>(bytes), size);
}

EVP_KDF_CTX *new_kdf(const char *name) {
    EVP_KDF *kdf = EVP_KDF_fetch(nullptr, name, nullptr);
    EVP_KDF_CTX *context = EVP_KDF_CTX_new(kdf);
    EVP_KDF_free(kdf);
    return context;
}

} // namespace

std::optional<uint64_t> take_varint(byte_view &rest) {
    const size_t size = size_t{1} << (rest.u8(0) >> 6);
    if (!rest.holds(size))
        return std::nullopt;
    uint64_t value = rest.u8(0) & 0x3F;
    for (size_t i = 1; i < size; ++i)
        value = value << 8 | rest.u8(i);
    rest = rest.from(size);
    return value;
}

bool is_quic_retry(uint32_t version, uint8_t first_byte) {
    const version_facts *facts = facts_of(version);
    return facts != nullptr && type_in(first_byte) == facts->retry;
}

std::optional<quic_packet> take_packet(byte_view &datagram) {
    quic_packet packet;
    packet.version = uint32_t{datagram.u16(1)} << 16 | datagram.u16(3);
    const version_facts *facts = facts_of(packet.version);
    const uint8_t first = datagram.u8(0);
    if ((first & LONG_HEADER) == 0 || facts == nullptr || is_quic_retry(packet.version, first))
        return std::nullopt;
    packet.is_initial = type_in(first) == facts->initial;
    byte_view rest = datagram.from(5);
    const std::optional<quic_id> destination = take_id(rest);
    if (!destination || !take_id(rest))
        return std::nullopt;
    packet.destination = *destination;
    if (packet.is_initial) {
        const std::optional<uint64_t> token_size = take_varint(rest);
        if (!token_size || *token_size > rest.size())
            return std::nullopt;
        rest = rest.from(static_cast<size_t>(*token_size));
    }
    const std::optional<uint64_t> size = take_varint(rest);
    if (!size || *size > rest.size())
        return std::nullopt;
    packet.number_at = datagram.size() - rest.size();
    const auto payload = static_cast<size_t>(*size);
    packet.bytes = datagram.first(packet.number_at + payload);
    datagram = rest.from(payload);
    return packet;
}

void quic_crypto::closer::operator()(EVP_CIPHER_CTX *context) const {
    EVP_CIPHER_CTX_free(context);
}

void quic_crypto::closer::operator()(EVP_KDF_CTX *context) const {
    EVP_KDF_CTX_free(context);
}

quic_crypto::quic_crypto()
    : extract_(new_kdf("HKDF")),
      expand_(new_kdf("TLS13-KDF")),
      mask_(EVP_CIPHER_CTX_new()),
      aead_(EVP_CIPHER_CTX_new()) {
    if (!extract_ || !expand_ || !mask_ || !aead_ ||
        EVP_EncryptInit_ex(mask_.get(), EVP_aes_128_ecb(), nullptr, nullptr, nullptr) != 1 ||
        EVP_DecryptInit_ex(aead_.get(), EVP_aes_128_gcm(), nullptr, nullptr, nullptr) != 1)
        throw std::runtime_error("OpenSSL has no AES-128-GCM or HKDF");
}

quic_crypto::~quic_crypto() = default;

// HKDF-Expand-Label without a context (RFC 8446, 7.1).
bool quic_crypto::expand(const std::array<uint8_t, 32> &secret, const char *label, uint8_t *to,
                         size_t size) {
    int mode = EVP_KDF_HKDF_MODE_EXPAND_ONLY;
    const OSSL_PARAM params[] = {text_param(OSSL_KDF_PARAM_DIGEST, SHA256),
                                 OSSL_PARAM_construct_int(OSSL_KDF_PARAM_MODE, &mode),
                                 bytes_param(OSSL_KDF_PARAM_KEY, secret.data(), secret.size()),
                                 bytes_param(OSSL_KDF_PARAM_PREFIX, "tls13 ", 6),
                                 bytes_param(OSSL_KDF_PARAM_LABEL, label, strlen(label)),
                                 OSSL_PARAM_construct_end()};
    EVP_KDF_CTX_reset(expand_.get());
    return EVP_KDF_derive(expand_.get(), to, size, params) == 1;
}

std::optional<quic_keys> quic_crypto::client_keys(uint32_t version, const quic_id &id) {
    const version_facts *facts = facts_of(version);
    if (facts == nullptr)
        return std::nullopt;
    int mode = EVP_KDF_HKDF_MODE_EXTRACT_ONLY;
    const OSSL_PARAM params[] = {
        text_param(OSSL_KDF_PARAM_DIGEST, SHA256),
        OSSL_PARAM_construct_int(OSSL_KDF_PARAM_MODE, &mode),
        bytes_param(OSSL_KDF_PARAM_KEY, id.bytes.data(), id.size),
        bytes_param(OSSL_KDF_PARAM_SALT, facts->salt.data(), facts->salt.size()),
        OSSL_PARAM_construct_end()};
    std::array<uint8_t, 32> initial = {};
    std::array<uint8_t, 32> client = {};
    quic_keys keys;
    EVP_KDF_CTX_reset(extract_.get());
    if (EVP_KDF_derive(extract_.get(), initial.data(), initial.size(), params) != 1 ||
        !expand(initial, "client in", client.data(), client.size()) ||
        !expand(client, facts->key, keys.key.data(), keys.key.size()) ||
        !expand(client, facts->iv, keys.iv.data(), keys.iv.size()) ||
        !expand(client, facts->header_key, keys.header_key.data(), keys.header_key.size()))
        return std::nullopt;
    return keys;
}

// Takes the header's protection off (RFC 9001, 5.4), in `opened_`, and returns the size of the
// packet number.
std::optional<size_t> quic_crypto::unmask(const quic_packet &packet, const quic_keys &keys) {
    std::array<uint8_t, SAMPLE_SIZE> sample = {};
    std::array<uint8_t, 2 *SAMPLE_SIZE> mask = {}; // OpenSSL may write a block more
    int size = 0;
    if (!packet.bytes.copy(packet.number_at + NUMBER_MAX_SIZE, sample.data(), sample.size()) ||
        EVP_EncryptInit_ex(mask_.get(), nullptr, nullptr, keys.header_key.data(), nullptr) != 1 ||
        EVP_EncryptUpdate(mask_.get(), mask.data(), &size, sample.data(), SAMPLE_SIZE) != 1)
        return std::nullopt;
    opened_.resize(packet.bytes.size());
    packet.bytes.copy(0, opened_.data(), opened_.size());
    opened_[0] = static_cast<uint8_t>(opened_[0] ^ (mask[0] & 0x0F));
    const size_t number_size = (opened_[0] & 3u) + 1;
    for (size_t i = 0; i < number_size; ++i)
        opened_[packet.number_at + i] ^= mask[i + 1];
    return number_size;
}

std::optional<byte_view> quic_crypto::open(const quic_packet &packet, const quic_keys &keys,
                                           int64_t &largest) {
    const std::optional<size_t> number_size = unmask(packet, keys);
    if (!number_size)
        return std::nullopt;
    const size_t header_size = packet.number_at + *number_size;
    uint64_t bits = 0;
    for (size_t i = packet.number_at; i < header_size; ++i)
        bits = bits << 8 | opened_[i];
    const uint64_t number = whole_number(static_cast<uint64_t>(largest + 1), bits, *number_size);
    std::array<uint8_t, 12> nonce = keys.iv;
    for (size_t i = 0; i < sizeof number; ++i)
        nonce[nonce.size() - 1 - i] ^= static_cast<uint8_t>(number >> (8 * i));

    // The sample lies in the packet, so there is room for the tag.
    uint8_t *const frames = opened_.data() + header_size;
    const size_t size = opened_.size() - header_size - TAG_SIZE;
    EVP_CIPHER_CTX *const aead = aead_.get();
    int done = 0;
    if (EVP_DecryptInit_ex(aead, nullptr, nullptr, keys.key.data(), nonce.data()) != 1 ||
        EVP_DecryptUpdate(aead, nullptr, &done, opened_.data(), static_cast<int>(header_size)) !=
            1 ||
        EVP_DecryptUpdate(aead, frames, &done, frames, static_cast<int>(size)) != 1 ||
        EVP_CIPHER_CTX_ctrl(aead, EVP_CTRL_AEAD_SET_TAG, TAG_SIZE, frames + size) != 1 ||
        EVP_DecryptFinal_ex(aead, frames + size, &done) != 1)
        return std::nullopt;
    largest = std::max(largest, static_cast<int64_t>(number));
    return byte_view(frames, size);
}

} // namespace avcore
