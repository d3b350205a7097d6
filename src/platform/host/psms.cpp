// The service library's operations on a plain Linux machine: each call becomes one message.
#include "platform/psms.h"

#include "platform/host/av_channel.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

constexpr unsigned INTERFACE_NAME_SIZE = 24;

// Which switch a message of av_op::av_set_device turns.
enum class av_switch : uint32_t {
    av = 1,
    tm = 4,
};

// The body of a DNS answer.
struct dns_answer {
    uint32_t words[3];
    char name[256];
};
static_assert(sizeof(dns_answer) == 268);

int set_switch(av_switch which, int32_t value, const char (&interface_name)[INTERFACE_NAME_SIZE]) {
    const av_bytes parts[] = {av_part(which), av_part(value), av_part(interface_name)};
    return av_send(av_op::av_set_device, parts);
}

} // namespace

int psms_wdl_ioctl(int command, int arg, unsigned int length, void *record) {
    const int32_t command_word = command;
    const int32_t arg_word = arg;
    const uint32_t length_word = length;
    const av_bytes parts[] = {av_part(command_word),
                              av_part(arg_word),
                              av_part(length_word),
                              {static_cast<const std::byte *>(record), length}};
    return av_send(av_op::ioctl, parts);
}

int psms_rflow_reset_app_policy() {
    return av_send(av_op::rflow_reset_app_policy, {});
}

int psms_av_set_dev_av(const char *ifname, int enable) {
    char padded_ifname[INTERFACE_NAME_SIZE] = {};
    const std::string_view name(ifname);
    if (name.size() >= sizeof padded_ifname)
        return -1;
    memcpy(padded_ifname, name.data(), name.size());
    return set_switch(av_switch::av, enable, padded_ifname);
}

int psms_av_set_tm_en(int enable) {
    return set_switch(av_switch::tm, enable, {});
}

int psms_dnscache_get_dn_by_ip(uint32_t address_be, char *name, unsigned int size, uint32_t *word1,
                               uint32_t *word2, uint32_t *word3) {
    const uint32_t size_word = size;
    const av_bytes parts[] = {av_part(address_be), av_part(size_word)};
    dns_answer answer = {};
    int32_t rc = 0;
    // A platform that is silent or absent knows no name; that is not an error.
    if (!av_ask(av_op::dnscache_get_name, parts, rc,
                std::as_writable_bytes(std::span(&answer, 1)))) {
        answer = {};
        rc = 0;
    }
    if (rc != 0)
        return rc;
    *word1 = answer.words[0];
    *word2 = answer.words[1];
    *word3 = answer.words[2];
    if (size != 0) {
        const size_t length = std::min<size_t>(strnlen(answer.name, sizeof answer.name), size - 1);
        memcpy(name, answer.name, length);
        name[length] = '\0';
    }
    return 0;
}
