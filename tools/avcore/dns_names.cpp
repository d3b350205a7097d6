#include "avcore/dns_names.h"

#include "core/text/text.h"

#include <cstring>

namespace avcore {
namespace {

constexpr uint32_t TTL_MAX_S = 0x7FFFFFFF; // RFC 2181: beyond it, zero is meant
constexpr int64_t US_A_SECOND = 1'000'000;

} // namespace

void dns_names::learn(const dns_answer &answer, int64_t time_us) {
    for (const dns_finding &finding : answer.findings) {
        const int64_t ttl_s = finding.ttl_s <= TTL_MAX_S ? finding.ttl_s : 0;
        auto found = index_.find(finding.address_be);
        if (found == index_.end()) {
            if (names_.size() >= limit_) {
                index_.erase(names_.back().address_be);
                names_.pop_back();
            }
            names_.emplace_front();
            found = index_.emplace(finding.address_be, names_.begin()).first;
        }
        names_.splice(names_.begin(), names_, found->second);
        names_.front() = {finding.address_be, time_us + ttl_s * US_A_SECOND, answer.name};
    }
}

const std::string *dns_names::find(uint32_t address_be, int64_t time_us) const {
    const auto found = index_.find(address_be);
    if (found == index_.end() || time_us >= found->second->expires_us)
        return nullptr;
    return &found->second->name;
}

std::vector<std::byte> answer_domain_name(const dns_names &names, int64_t time_us,
                                          const question &asked) {
    av_name_question request;
    av_name_answer reply = {};
    if (asked.body.size() < sizeof request)
        return make_answer(asked, -1);
    memcpy(&request, asked.body.data(), sizeof request);
    const std::string *name = names.find(request.address_be, time_us);
    if (name != nullptr && request.buffer_size > 1) {
        for (uint32_t &word : reply.words)
            word = 1;
        copy_text(reply.name, std::string_view(*name).substr(0, request.buffer_size - 1));
    }
    return make_answer(asked, 0, std::as_bytes(std::span(&reply, 1)));
}

} // namespace avcore
