#include "control/files/configuration.h"

#include "core/base/log.h"
#include "core/base/saved_file.h"
#include "core/state/state.h"
#include "core/text/text.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <sys/socket.h>

namespace {

constexpr size_t LINE_SIZE = 256; // holds the longest line there is

[[gnu::format(printf, 4, 5)]] int append_format(char *text, size_t *length, size_t capacity,
                                                const char *format, ...) {
    char line[LINE_SIZE];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    return jorn_buf_append(text, line, length, capacity);
}

int append_rule(char *text, const arc_rule &rule, size_t *length, size_t capacity) {
    return append_format(text, length, capacity, "%d,%d,%.63s,%.31s,%u,%u,%u,%u,%u,%u,%d,%d;\n",
                         rule.app_id, rule.cat_id, rule.app_name, rule.cat_name, rule.deny,
                         ARC_QOS_MARKING.of(rule.qos), ARC_QOS_CLASSIFICATION.of(rule.qos),
                         ARC_QOS_MARK_KIND.of(rule.qos), ARC_QOS_MARK_TYPE.of(rule.qos),
                         ARC_QOS_CLASSIFY_TYPE.of(rule.qos), rule.rate_up, rule.rate_down);
}

// An address as the file has it: its word in network byte order, printed as a signed number.
int32_t address_word(const uint8_t (&address)[16]) {
    int32_t word;
    memcpy(&word, address, sizeof word);
    return word;
}

} // namespace

int jorn_write_arc_policy_configuration(FILE *file) {
    bool written = write_flushed(file, "[appPolicy]\n");
    for (const arc_policy &policy : jorn_state.arc_policy_list) {
        if (!written)
            break;
        char block[ARC_BLOCK_LIMIT + 1] = {};
        size_t length = 0;
        if (jorn_format_arc_policy(block, &policy, &length, ARC_BLOCK_LIMIT) == 0)
            written = write_flushed(file, {block, length});
    }
    if (!written || !write_flushed(file, "[appPolicy end]\n")) {
        JORN_ERRNO(errno, "write configuration file error!\n");
        return CONFIGURATION_ERR_WRITE;
    }
    return 0;
}

int jorn_format_arc_policy(char *text, const arc_policy_wire *policy, size_t *length,
                           size_t capacity) {
    if (append_format(text, length, capacity, "[policy]\n%d;%d;%d;%d;%d;\n", policy->attr1,
                      policy->attr3, policy->attr4, policy->log_enable,
                      static_cast<int>(policy->utp_id)) != 0)
        return -1;
    for (const arc_rule &rule : policy->rules) {
        if (rule.app_name[0] != '\0' && append_rule(text, rule, length, capacity) != 0)
            return -1;
    }
    if (jorn_buf_append(text, "[policy end]\n", length, capacity) != 0)
        return -1;
    return jorn_buf_append(text, "\n", length, capacity);
}

int jorn_write_userdef_configuration(FILE *file) {
    const userdef_table &table = jorn_state.userdef_apps;
    bool written = write_flushed(file, "[userdef]\n");
    for (int32_t i = 0; written && i < table.count; ++i) {
        char line[USERDEF_LINE_LIMIT] = {};
        size_t length = 0;
        if (jorn_format_userdef_entry(line, &table.records[i], &length, USERDEF_LINE_LIMIT) == 0)
            written = write_flushed(file, {line, length});
    }
    if (!written || !write_flushed(file, "[userdef end]\n")) {
        JORN_ERRNO(errno, "write to configuration file error!\n");
        return CONFIGURATION_ERR_WRITE;
    }
    return 0;
}

int jorn_format_userdef_entry(char *text, const userdef_app *record, size_t *length,
                              size_t capacity) {
    const int32_t source =
        record->src_family == AF_INET ? address_word(record->src_ip) : record->src_family;
    return append_format(text, length, capacity, "%d;%d;%d;%d;%d;%d;%d;%d;%d;%d;%.63s;%d;\n",
                         record->src_family, source, record->dst_family,
                         address_word(record->dst_ip), static_cast<int>(record->netmask),
                         record->src_port, record->dst_port, static_cast<int>(record->protocol),
                         record->app_id, record->cat_id, record->app_name, record->bitmap);
}
