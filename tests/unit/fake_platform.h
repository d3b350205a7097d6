// The platform of the unit tests: records what the daemon's code asks of it, in order, and answers
// what the test has set.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// What the platform's DNS cache says about an address.
struct fake_dns_answer {
    std::string name;
    int result = 0;
    uint32_t words[3] = {1, 1, 1};
};

struct fake_platform {
    std::vector<std::string> calls; // "operation(arguments)"
    bool keeps_records = true;      // otherwise what a packet asks leaves a count of the ioctls
    size_t ioctl_count = 0;
    std::vector<std::vector<uint8_t>> ioctl_records;
    std::vector<std::string> syslog_lines;
    int ioctl_result = 0;
    int mem_support = 0;
    int begin_xact_result = 0;
    std::map<std::string, int> avc_enable; // by interface; the others are 0
    int tm_support = 0;
    std::string fw_version = "1.0";
    std::map<uint32_t, fake_dns_answer> dns; // by address in network byte order; others: no name
    std::string base_mac = "00:1A:2B:3C:4D:5E";
};

// The one instance; a test's set-up assigns a fresh one.
extern fake_platform platform;
