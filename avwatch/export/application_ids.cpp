#include "avwatch/export/application_ids.h"

#include "avwatch/base/shown_text.h"

namespace avwatch {
application_id application_ids::id_of(const application_name &name, uint64_t engine_number,
                                      names_kept names) {
    if (engine_number != 0 && engine_number <= UINT16_MAX && !name.text.empty()) {
        const auto number = static_cast<uint32_t>(engine_number);
        const auto known = engine_names_.find(number);
        // A later version of the engine may call the same number something else.
        if (known == engine_names_.end() && engine_names_.size() < ENGINE_MAX)
            engine_names_.emplace(number, name.text);
        else if (known == engine_names_.end() || known->second != name.text)
            return {USER_DEFINED_ENGINE, numbers_.number_of(name)};
        return {NDPI_ENGINE, number};
    }
    return {USER_DEFINED_ENGINE, numbers_.number_of(reduced(name, names))};
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

bool application_ids::is_known(const application_id &id) const {
    return id.engine == NDPI_ENGINE || id.number < application_numbers::FIRST ||
           numbers_.name_of(id.number) != nullptr;
}

application_id application_ids::usable(const application_id &id) {
    if (id.engine == NDPI_ENGINE || numbers_.use(id.number))
        return id;
    return {USER_DEFINED_ENGINE, application_numbers::OTHER_NUMBER};
}

} // namespace avwatch
