#include "jornctl/arc_fields.h"

namespace jornctl {

void qos_bits::read(const node &from, uint8_t &to) {
    qos_settings read;
    record<QOS_FIELDS>::read(from, read);
    const qos_mark mark = read.mark.value_or(qos_mark());
    to = static_cast<uint8_t>((read.mark ? 0x01 : 0) | (read.classify ? 0x02 : 0) | mark.kind << 2 |
                              mark.type << 4 | read.classify.value_or(0) << 6);
}

ordered_json qos_bits::words(uint8_t from) {
    qos_settings settings;
    if (arc_qos_marking(from))
        settings.mark = {arc_qos_mark_kind(from), arc_qos_mark_type(from)};
    if (arc_qos_classification(from))
        settings.classify = arc_qos_classify_type(from);
    return record<QOS_FIELDS>::words(settings);
}

void arc_rule_kind::read(const node &from, arc_rule &to) {
    record::read(from, to);
    // Attachment looks at the name, so the id alone would attach nothing.
    if (to.cat_id == CATEGORY_USER_DEFINED && to.cat_name[0] == '\0')
        memcpy(to.cat_name, CATEGORY_NAME_USER_DEFINED, sizeof CATEGORY_NAME_USER_DEFINED);
}

} // namespace jornctl
