// The platform of the unit tests, fuzz targets and benchmarks: does nothing, and answers at once
// what has been set. A new operation is one line in fake_platform.cpp, `return done(what it is
// handed)`.
#pragma once

#include "platform/records.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

// What the platform's DNS cache says about an address.
struct fake_dns_answer {
    std::string_view name;
    int result = 0;
    uint32_t words[3] = {1, 1, 1};
};

struct fake_platform {
    bool is_thorough = true; // reads every byte that it is handed, so that a sanitizer sees it
    uint64_t calls = 0;
    uint64_t verdicts = 0;
    uint32_t last_verdict = 0;
    av_verdict last_record = {}; // the whole of it, where it is thorough

    std::map<std::string, int> avc_enable;       // by interface; of the others 0
    std::map<std::string, uint32_t> safe_search; // addresses by UTP, interface and host
    std::string base_mac = "00:1A:2B:3C:4D:5E";
    std::map<uint32_t, fake_dns_answer> dns; // by address in network byte order; others: no name

    // In place of `dns`, and of an agent that knows every domain and no category. They allocate
    // nothing.
    fake_dns_answer (*dns_answer)(uint32_t address_be) = nullptr;
    int (*category_answer)(const urlf_request *request, urlf_reply *reply) = nullptr;
};

// The one instance; a test's set-up assigns a fresh one.
extern fake_platform platform;
