#include "avcore/names/dns_answer.h"

#include "avcore/base/host_text.h"
#include "packet/decode/cursor.h"

#include <algorithm>

namespace avcore {
namespace {

constexpr size_t QUESTION_TAIL_SIZE = 4; // type and class
constexpr size_t NAME_MAX_SIZE = 253;
constexpr unsigned POINTERS_MAX = 127; // one before each label of the longest name
constexpr unsigned RECORDS_MAX = 256;
constexpr unsigned CNAME_CHAIN_MAX = 16;
constexpr uint16_t TYPE_A = 1;
constexpr uint16_t TYPE_CNAME = 5;
constexpr uint16_t TYPE_AAAA = 28;
constexpr uint16_t CLASS_IN = 1;

class reader {
public:
    explicit reader(std::span<const uint8_t> message) : message_(message.data(), message.size()) {}

    bool failed() const { return failed_; }
    size_t offset() const { return offset_; }
    size_t left() const { return message_.size() - offset_; }
    void skip(size_t size) {
        if (size > left())
            failed_ = true;
        else
            offset_ += size;
    }
    uint16_t u16() {
        const uint16_t value = message_.u16(offset_);
        skip(2);
        return value;
    }
    uint32_t u32() {
        const uint32_t high = u16();
        return high << 16 | u16();
    }
    ip_address ipv4() {
        uint32_t value = 0;
        message_.copy(offset_, &value, sizeof value);
        skip(sizeof value);
        return value;
    }
    ip_address ipv6() {
        std::array<uint8_t, ip_address::SIZE> octets = {};
        message_.copy(offset_, octets.data(), octets.size());
        skip(octets.size());
        return ip_address(octets);
    }

    // Reads a name and stops behind it.
    std::string name();

private:
    byte_view message_;
    size_t offset_ = 0;
    bool failed_ = false;
};

bool printable_label(std::string_view label) {
    return std::all_of(label.begin(), label.end(),
                       [](char c) { return c > ' ' && c <= '~' && c != '.'; });
}

std::string reader::name() {
    std::string text;
    size_t at = offset_;
    size_t lowest = offset_; // each pointer leads below this: no loops
    unsigned pointers = 0;
    while (at < message_.size()) {
        const uint8_t length = message_.u8(at);
        if ((length & 0xC0) == 0xC0) {
            const size_t target = message_.u16(at) & 0x3FFFu;
            if (pointers == 0)
                skip(at + 2 - offset_);
            if (target >= lowest || failed_ || ++pointers > POINTERS_MAX)
                break;
            at = lowest = target;
            continue;
        }
        if (length == 0) {
            if (pointers == 0)
                skip(at + 1 - offset_);
            return text;
        }
        const std::string_view label = message_.from(at + 1).first(length).text();
        if ((length & 0xC0) != 0 || label.size() != length || !printable_label(label) ||
            text.size() + 1 + length > NAME_MAX_SIZE)
            break;
        if (!text.empty())
            text += '.';
        text += label;
        at += 1u + length;
    }
    failed_ = true;
    return {};
}

struct records {
    struct alias {
        std::string owner, target;
    };
    struct address {
        std::string owner;
        dns_finding finding;
    };
    std::vector<alias> aliases;
    std::vector<address> addresses;
};

// What was whole before a record that isn't still counts: an answer may be cut by its capture.
records read_records(reader &in, unsigned count) {
    records found;
    for (unsigned i = 0; i < std::min(count, RECORDS_MAX); ++i) {
        const std::string owner = lower_case(in.name());
        const uint16_t type = in.u16();
        const uint16_t record_class = in.u16();
        const uint32_t ttl_s = in.u32();
        const uint16_t size = in.u16();
        if (in.failed() || size > in.left())
            break;
        const size_t end = in.offset() + size;
        if (record_class == CLASS_IN && type == TYPE_A && size == 4)
            found.addresses.push_back({owner, {in.ipv4(), ttl_s}});
        else if (record_class == CLASS_IN && type == TYPE_AAAA && size == ip_address::SIZE)
            found.addresses.push_back({owner, {in.ipv6(), ttl_s}});
        else if (record_class == CLASS_IN && type == TYPE_CNAME)
            found.aliases.push_back({owner, lower_case(in.name())});
        if (in.failed() || in.offset() > end)
            break;
        in.skip(end - in.offset());
    }
    return found;
}

struct header {
    uint16_t id;
    uint16_t flags;
    uint16_t questions;
    uint16_t answers;
    bool response;
};

header read_header(reader &in) {
    header head = {};
    head.id = in.u16();
    head.flags = in.u16();
    head.questions = in.u16();
    head.answers = in.u16();
    in.skip(4);
    head.response = (head.flags & 0x8000) != 0;
    return head;
}

// False unless there is one, of a standard query.
bool read_question(reader &in, const header &head, std::string &name) {
    const bool standard_query = (head.flags & 0x7800) == 0;
    if (in.failed() || !standard_query || head.questions != 1)
        return false;
    name = in.name();
    in.skip(QUESTION_TAIL_SIZE);
    return !in.failed() && !name.empty();
}

} // namespace

std::optional<dns_question> read_dns_question(std::span<const uint8_t> message) {
    reader in(message);
    const header head = read_header(in);
    dns_question asked;
    if (head.response || !read_question(in, head, asked.name))
        return std::nullopt;
    asked.id = head.id;
    return asked;
}

dns_answer read_dns_answer(std::span<const uint8_t> message) {
    dns_answer answer;
    reader in(message);
    const header head = read_header(in);
    const bool success = (head.flags & 0x000F) == 0;
    if (!head.response || !success || !read_question(in, head, answer.name))
        return answer;
    answer.id = head.id;

    const records found = read_records(in, head.answers);
    std::string owner = lower_case(answer.name);
    for (unsigned step = 0; step < CNAME_CHAIN_MAX; ++step) {
        for (const records::address &record : found.addresses) {
            if (record.owner == owner && !record.finding.address.is_reserved())
                answer.findings.push_back(record.finding);
        }
        const auto next = std::find_if(found.aliases.begin(), found.aliases.end(),
                                       [&](const auto &alias) { return alias.owner == owner; });
        if (!answer.findings.empty() || next == found.aliases.end())
            break;
        owner = next->target;
    }
    return answer;
}

} // namespace avcore
