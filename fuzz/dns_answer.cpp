// DNS as it passes: a name that an address gets is one that can be printed and was asked for, holds
// for its TTL and no longer; what the daemon is told of it ends within its buffer; and whom it was
// told to have no name has none while the word stays, though answers are read ahead of it.
//
// An input is messages, each with a byte before it: the seconds since the last one, and in its
// highest bit whether the daemon stays behind.
#include "avcore/names/dns_answer.h"
#include "avcore/names/dns_names.h"
#include "demand.h"
#include "pieces.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <sys/mman.h>
#include <vector>

namespace {

using namespace avcore;

constexpr size_t NAME_MAX_SIZE = 253;
constexpr size_t NAMES = 4; // few, so that they give way
constexpr int64_t US_A_SECOND = 1'000'000;

void check_name(const std::string &name) {
    demand(name.size() <= NAME_MAX_SIZE);
    demand(std::ranges::all_of(name, [](char c) { return c > ' ' && c <= '~'; }));
}

struct known_name {
    std::string name;
    int64_t ends_us;
};

using names_told = std::map<ip_address, known_name>;

class teacher {
public:
    teacher()
        : word_(static_cast<const uint32_t *>(mmap(nullptr, AV_NAME_PAGE_SIZE, PROT_READ,
                                                   MAP_SHARED, timeline_.word().descriptor(), 0))) {
        demand(word_ != MAP_FAILED);
    }
    ~teacher() { munmap(const_cast<uint32_t *>(word_), AV_NAME_PAGE_SIZE); }
    teacher(const teacher &) = delete;
    teacher &operator=(const teacher &) = delete;

    void learn(const dns_answer &answer, int64_t time_us, bool stays_behind) {
        const bool has_news = ahead_.has_news(answer, time_us);
        ahead_.learn(answer, time_us);
        few_.learn(answer, time_us);
        demand(few_.size() <= NAMES);
        timeline_.add(++frames_, {time_us, answer, has_news});
        to_come_.push_back({time_us, answer, has_news});
        note(answer, time_us, told_ahead_);
        for (const auto &[address, told] : told_ahead_) {
            const std::string *name = few_.find(address, time_us); // may have given way
            demand(name == nullptr || (*name == told.name && time_us < told.ends_us));
        }
        if (!stays_behind)
            come_to_last();
        for (const auto &[address, told] : told_ahead_)
            check(address);
    }

private:
    static void note(const dns_answer &answer, int64_t time_us, names_told &told) {
        for (const dns_finding &finding : answer.findings) {
            demand(!finding.address.is_reserved());
            const int64_t ttl_s = finding.ttl_s > INT32_MAX ? 0 : finding.ttl_s;
            told[finding.address] = {answer.name, time_us + ttl_s * US_A_SECOND};
        }
    }

    void come_to_last() {
        timeline_.advance(frames_);
        for (const name_lesson &each : to_come_) {
            time_us_ = each.time_us;
            note(each.answer, time_us_, told_);
        }
        to_come_.clear();
    }

    void check(const ip_address &address) {
        const uint32_t word = *word_;
        const std::string *name = timeline_.find(address);
        const auto told = told_.find(address);
        const bool has_name = told != told_.end() && time_us_ < told->second.ends_us;
        demand((name != nullptr) == has_name && (!has_name || *name == told->second.name));
        const auto none = nameless_.find(address);
        demand(!has_name || none == nameless_.end() || none->second != word);
        if (!has_name)
            nameless_[address] = word;
        if (address.is_ipv4())
            check_answer(address, name);
    }

    // The daemon has room for 65 or 255 bytes; others may say anything.
    void check_answer(const ip_address &address, const std::string *name) {
        for (const uint32_t room : {0u, 1u, 2u, 65u, 255u, UINT32_MAX}) {
            av_name_question asked = {0, room};
            memcpy(&asked.address_be, address.octets().data() + 12, sizeof asked.address_be);
            const auto bytes = answer_domain_name(
                timeline_, stand_ins_,
                {{av_op::dnscache_get_name, 1}, std::as_bytes(std::span(&asked, 1))});
            av_name_answer said;
            demand(bytes.size() == sizeof(av_answer_head) + sizeof said);
            memcpy(&said, bytes.data() + sizeof(av_answer_head), sizeof said);
            const size_t length = strnlen(said.name, sizeof said.name);
            demand(length < sizeof said.name && length <= std::max(room, 1u) - 1);
            demand(name == nullptr ? length == 0 : name->starts_with(said.name));
        }
    }

    dns_names few_{NAMES};
    dns_names ahead_; // as of the last message
    name_timeline timeline_;
    const uint32_t *word_;
    stand_in_table stand_ins_{1, stand_in_table::FIRST};
    uint64_t frames_ = 0;
    std::vector<name_lesson> to_come_;
    int64_t time_us_ = 0; // of the message that the daemon has come to
    names_told told_;     // as of it
    names_told told_ahead_;
    std::map<ip_address, uint32_t> nameless_; // by the word under which that was told
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    teacher names;
    int64_t time_us = 0;
    for (pieces input(data, size); !input.empty();) {
        const uint8_t how = input.byte();
        time_us += (how & 0x7F) * US_A_SECOND;
        const auto piece = input.message();
        const auto *first = reinterpret_cast<const uint8_t *>(piece.data());
        const std::vector<uint8_t> message(first, first + piece.size()); // of its own size
        const dns_answer answer = read_dns_answer(message);
        check_name(answer.name);
        names.learn(answer, time_us, (how & 0x80) != 0);
        if (const auto asked = read_dns_question(message)) {
            check_name(asked->name);
            demand(!asked->name.empty() && answer.findings.empty());
        }
    }
    return 0;
}
