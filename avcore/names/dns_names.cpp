#include "avcore/names/dns_names.h"

#include "core/text/text.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace avcore {
namespace {

constexpr uint32_t TTL_MAX_S = 0x7FFFFFFF; // RFC 2181: beyond it, zero is meant
constexpr int64_t US_A_SECOND = 1'000'000;

} // namespace

void dns_names::learn(entry learnt) {
    auto found = index_.find(learnt.address);
    if (found == index_.end()) {
        if (names_.size() >= limit_) {
            index_.erase(names_.back().address);
            names_.pop_back();
        }
        names_.emplace_front();
        found = index_.emplace(learnt.address, names_.begin()).first;
    }
    names_.splice(names_.begin(), names_, found->second);
    names_.front() = std::move(learnt);
}

const std::string *dns_names::find(const ip_address &address, int64_t time_us) const {
    const auto found = index_.find(address);
    if (found == index_.end() || time_us >= found->second->expires_us)
        return nullptr;
    return &found->second->name;
}

std::optional<int64_t> dns_names::expiry_us(const ip_address &address) const {
    const auto found = index_.find(address);
    return found != index_.end() ? std::optional(found->second->expires_us) : std::nullopt;
}

int64_t dns_names::learnt_us(const ip_address &address) const {
    return index_.at(address)->learnt_us;
}

bool dns_names::has_news(const dns_answer &answer, int64_t time_us) const {
    return std::ranges::any_of(answer.findings, [&](const dns_finding &finding) {
        return find(finding.address, time_us) == nullptr;
    });
}

void dns_names::learn(const dns_answer &answer, int64_t time_us) {
    for (const dns_finding &finding : answer.findings) {
        const int64_t ttl_s = finding.ttl_s <= TTL_MAX_S ? finding.ttl_s : 0;
        learn({finding.address, time_us, time_us + ttl_s * US_A_SECOND, answer.name});
    }
}

void name_timeline::add(uint64_t frame, name_lesson lesson) {
    if (lesson.has_news || lesson.time_us < told_expiry_us_)
        raise_word();
    ahead_.push_back({frame, std::move(lesson)});
}

void name_timeline::advance(uint64_t frame) {
    for (; !ahead_.empty() && ahead_.front().frame <= frame; ahead_.pop_front()) {
        const name_lesson &lesson = ahead_.front().lesson;
        time_us_ = lesson.time_us;
        names_.learn(lesson.answer, time_us_);
    }
}

const std::string *name_timeline::find(const ip_address &address) {
    if (const std::string *name = names_.find(address, time_us_))
        return name;
    const int64_t expiry_us = names_.expiry_us(address).value_or(NEVER_US);
    const bool may_have_one = std::ranges::any_of(ahead_, [&](const later_lesson &later) {
        return later.lesson.time_us < expiry_us ||
               std::ranges::count(later.lesson.answer.findings, address, &dns_finding::address) > 0;
    });
    if (may_have_one)
        raise_word();
    else
        told_expiry_us_ = std::max(told_expiry_us_, expiry_us);
    return nullptr;
}

void name_timeline::raise_word() {
    word_.raise();
    told_expiry_us_ = NEVER_US;
}

std::vector<std::byte> answer_domain_name(name_timeline &names, const stand_in_table &stand_ins,
                                          const question &asked) {
    av_name_question request;
    av_name_answer reply = {};
    if (asked.body.size() < sizeof request)
        return make_answer(asked, -1);
    memcpy(&request, asked.body.data(), sizeof request);
    const ip_address address = stand_ins.real(request.address_be).value_or(request.address_be);
    const std::string *name = names.find(address);
    if (name != nullptr && request.buffer_size > 1) {
        for (uint32_t &word : reply.words)
            word = 1;
        copy_text(reply.name, std::string_view(*name).substr(0, request.buffer_size - 1));
    }
    return make_answer(asked, 0, std::as_bytes(std::span(&reply, 1)));
}

} // namespace avcore
