// Which id an application has, and what it is called (RFC 6759): those that the DPI engine named
// have its number, all others one of application_numbers.
#pragma once

#include "avwatch/history/application_numbers.h"
#include "avwatch/ipfix/exported_record.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace avwatch {

class application_ids {
public:
    static constexpr size_t ENGINE_MAX = 4'096; // names of the engine's

    explicit application_ids(application_numbers &numbers) : numbers_(numbers) {}

    // `engine_number`: the DPI engine's, where it named the application; else 0.
    application_id id_of(const application_name &name, uint64_t engine_number, names_kept names);
    // As it may be shown.
    std::string name_of(const application_id &id) const;
    std::string description_of(const application_id &id) const;
    bool is_known(const application_id &id) const;
    // The same, or where another run might give it to another application, that of "other".
    application_id usable(const application_id &id);

private:
    application_numbers &numbers_;
    std::map<uint32_t, std::string> engine_names_;
};

} // namespace avwatch
