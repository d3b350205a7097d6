#include "jornctl/fields/arc_fields.h"

namespace jornctl {

std::string policy_file_separators() {
    return {ARC_RULE_LINE.split.separator, USERDEF_LINE.split.separator};
}

bool fits_policy_file(const arc_policy_wire &policy) {
    std::array<char, ARC_BLOCK_LIMIT> block;
    size_t length = 0;
    return jorn_format_arc_policy(block.data(), &policy, &length, block.size()) == 0;
}

void qos_bits::read(const node &from, uint8_t &to) {
    qos_settings read;
    record<QOS_FIELDS>::read(from, read);
    const qos_mark mark = read.mark.value_or(qos_mark());
    to = static_cast<uint8_t>(ARC_QOS_MARKING.in_place(read.mark.has_value()) |
                              ARC_QOS_CLASSIFICATION.in_place(read.classify.has_value()) |
                              ARC_QOS_MARK_KIND.in_place(mark.kind) |
                              ARC_QOS_MARK_TYPE.in_place(mark.type) |
                              ARC_QOS_CLASSIFY_TYPE.in_place(read.classify.value_or(0)));
}

ordered_json qos_bits::words(uint8_t from) {
    qos_settings settings;
    if (ARC_QOS_MARKING.of(from) != 0)
        settings.mark = {ARC_QOS_MARK_KIND.of(from), ARC_QOS_MARK_TYPE.of(from)};
    if (ARC_QOS_CLASSIFICATION.of(from) != 0)
        settings.classify = ARC_QOS_CLASSIFY_TYPE.of(from);
    return record<QOS_FIELDS>::words(settings);
}

void arc_rule_kind::read(const node &from, arc_rule &to) {
    record::read(from, to);
    // Attachment looks at the name, so the id alone would attach nothing.
    if (to.cat_id == CATEGORY_USER_DEFINED && to.cat_name[0] == '\0')
        memcpy(to.cat_name, CATEGORY_NAME_USER_DEFINED, sizeof CATEGORY_NAME_USER_DEFINED);
}

} // namespace jornctl
