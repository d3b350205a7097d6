#include "avwatch/export/application_ids.h"

#include "avwatch/base/shown_text.h"

namespace avwatch {
namespace {

constexpr char BY_ENGINE[] = "dpi";

} // namespace

application_id application_ids::id_of(const std::string &application, const why_record &why,
                                      names_kept names, int64_t today) {
    const application_name name = classify(application, why.named_by);
    const bool has_number =
        why.named_by == BY_ENGINE && why.app_id != 0 && why.app_id <= UINT16_MAX;
    if (has_number && !name.text.empty()) {
        const auto number = static_cast<uint32_t>(why.app_id);
        const auto known = engine_names_.find(number);
        // A later version of the engine may call the same number something else.
        if (known == engine_names_.end() && engine_names_.size() < ENGINE_MAX)
            engine_names_.emplace(number, name.text);
        else if (known == engine_names_.end() || known->second != name.text)
            return {USER_DEFINED_ENGINE, numbers_.number_of(name, today)};
        return {NDPI_ENGINE, number};
    }
    return {USER_DEFINED_ENGINE, numbers_.number_of(reduced(name, names), today)};
}

std::string application_ids::name_of(const application_id &id) const {
    if (id.engine == NDPI_ENGINE) {
        const auto known = engine_names_.find(id.number);
        return known != engine_names_.end() ? shown_text(known->second) : std::string();
    }
    if (id.number == application_numbers::UNNAMED_NUMBER)
        return UNNAMED;
    const application_name *name = numbers_.name_of(id.number);
    return name != nullptr ? shown_text(name->text) : OTHER;
}

std::string application_ids::description_of(const application_id &id) const {
    if (id.engine == NDPI_ENGINE)
        return "named by the DPI engine";
    const application_name *name = numbers_.name_of(id.number);
    if (name == nullptr)
        return {};
    return name->is_name ? "a site's name or address" : "a definition's or a port's name";
}

application_id application_ids::usable(const application_id &id) const {
    if (id.engine == NDPI_ENGINE ||
        (numbers_.is_stored(id.number) &&
         (id.number < application_numbers::FIRST || numbers_.name_of(id.number) != nullptr)))
        return id;
    return {USER_DEFINED_ENGINE, application_numbers::OTHER_NUMBER};
}

} // namespace avwatch
