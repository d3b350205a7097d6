#include "avcore/names/dns_names.h"

#include "core/text/text.h"

#include <cstring>

namespace avcore {
namespace {

constexpr uint32_t TTL_MAX_S = 0x7FFFFFFF; // RFC 2181: beyond it, zero is meant
constexpr int64_t US_A_SECOND = 1'000'000;

} // namespace

void dns_names::learn(const ip_address &address, int64_t expires_us, const std::string &name) {
    auto found = index_.find(address);
    if (found == index_.end()) {
        if (names_.size() >= limit_) {
            index_.erase(names_.back().address);
            names_.pop_back();
        }
        names_.emplace_front();
        found = index_.emplace(address, names_.begin()).first;
    }
    names_.splice(names_.begin(), names_, found->second);
    names_.front() = {address, expires_us, name};
}

const std::string *dns_names::find(const ip_address &address, int64_t time_us) const {
    const auto found = index_.find(address);
    if (found == index_.end() || time_us >= found->second->expires_us)
        return nullptr;
    return &found->second->name;
}

void dns_names::learn(const dns_answer &answer, int64_t time_us) {
    for (const dns_finding &finding : answer.findings) {
        const int64_t ttl_s = finding.ttl_s <= TTL_MAX_S ? finding.ttl_s : 0;
        learn(finding.address, time_us + ttl_s * US_A_SECOND, answer.name);
    }
}

void name_timeline::add(uint64_t frame, name_lesson lesson) {
    ahead_.push_back({frame, std::move(lesson)});
}

void name_timeline::advance(uint64_t frame) {
    for (; !ahead_.empty() && ahead_.front().frame <= frame; ahead_.pop_front()) {
        const name_lesson &lesson = ahead_.front().lesson;
        time_us_ = lesson.time_us;
        names_.learn(lesson.answer, time_us_);
    }
}

std::vector<std::byte> answer_domain_name(const dns_names &names, const stand_in_table &stand_ins,
                                          int64_t time_us, const question &asked) {
    av_name_question request;
    av_name_answer reply = {};
    if (asked.body.size() < sizeof request)
        return make_answer(asked, -1);
    memcpy(&request, asked.body.data(), sizeof request);
    const ip_address address = stand_ins.real(request.address_be).value_or(request.address_be);
    const std::string *name = names.find(address, time_us);
    if (name != nullptr && request.buffer_size > 1) {
        for (uint32_t &word : reply.words)
            word = 1;
        copy_text(reply.name, std::string_view(*name).substr(0, request.buffer_size - 1));
    }
    return make_answer(asked, 0, std::as_bytes(std::span(&reply, 1)));
}

} // namespace avcore
