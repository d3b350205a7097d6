#include "jornctl/documents/documents.h"

#include "jornctl/documents/cross_checks.h"
#include "jornctl/fields/arc_fields.h"
#include "jornctl/fields/userapps_fields.h"
#include "jornctl/fields/web_fields.h"
#include "jornctl/fields/wificalling_fields.h"
#include "shared/suggestion.h"

namespace jornctl {
namespace {

constexpr char SCHEMA_KEY[] = "$schema";

// For editors, which find the schema by it.
constexpr binding<document> IGNORED_TEXT = {
    [](const node &from, document &) { string_in(from); },
    [](const document &) { return ordered_json(); },
    [] {
        return ordered_json{{"type", "string"}};
    },
};

template <typename Kind, size_t Most>
using table = maybe<list<Kind, Most>>;

constexpr field<document> DOCUMENT_FIELDS[] = {
    {"policies", at<&document::policies, table<record<POLICY_FIELDS>, UTP_ID_MAX>>, OPTIONAL,
     "all ARC policies; the others go"},
    {"utps", at<&document::utps, table<record<UTP_FIELDS>, UTP_ID_MAX>>, OPTIONAL,
     "all UTP entries; the others go, and those of web policies"},
    {"applications",
     at<&document::applications, table<record<APPLICATION_FIELDS>, USERDEF_APPS_MAX>>, OPTIONAL,
     "all user-defined applications; the others go"},
    {"web_policies", at<&document::web_policies, table<web_policy_kind, WEB_POLICIES_MAX>>,
     OPTIONAL, "all web policies; the others go, and bindings lose them"},
    {"web_utps", at<&document::web_utps, table<record<UTP_FIELDS>, UTP_ID_MAX>>, OPTIONAL,
     "all web UTP entries; the others go, and those of ARC policies"},
    {"web_interfaces", at<&document::web_interfaces, table<web_intf_kind, WEB_INTFS_MAX>>, OPTIONAL,
     "bindings of web policies to interfaces; the others stay"},
    {"carriers", at<&document::carriers, table<record<CARRIER_FIELDS>, WIFICALLING_POLICIES_MAX>>,
     OPTIONAL, "all carriers of Wi-Fi calling; the others go, and bindings lose them"},
    {"wificalling_interfaces",
     at<&document::wificalling_interfaces, table<wificalling_intf_kind, WIFICALLING_INTFS_MAX>>,
     OPTIONAL, "bindings of carriers to interfaces; the others stay"},
    {SCHEMA_KEY, IGNORED_TEXT},
};

std::vector<std::string> table_keys() {
    std::vector<std::string> keys;
    for (const field<document> &row : DOCUMENT_FIELDS) {
        if (std::string_view(row.key) != SCHEMA_KEY)
            keys.emplace_back(row.key);
    }
    return keys;
}

void check_has_table(const node &root) {
    const std::vector<std::string> keys = table_keys();
    const auto is_there = [&](const std::string &key) { return root.has(key.c_str()); };
    if (std::none_of(keys.begin(), keys.end(), is_there))
        root.refuse("has no table; the tables are " + joined(keys));
}

} // namespace

document read_document(std::string_view text, const platform_facts &around) {
    document read;
    findings found; // beside the document, which the rows reset
    const nlohmann::json parsed = parse_json(text, found);
    const node root{parsed, nlohmann::json::json_pointer(), found};
    root.attempt([&] {
        record<DOCUMENT_FIELDS>::read(root, read);
        check_has_table(root);
    });
    read.found = std::move(found);
    check_across(read, root, around);
    read.found.name_records(parsed);
    return read;
}

ordered_json document_words(const document &said) {
    ordered_json words = ordered_json::object();
    for (const field<document> &row : DOCUMENT_FIELDS) {
        if (ordered_json table = row.value.words(said); !table.is_null())
            words[row.key] = std::move(table);
    }
    return words;
}

ordered_json document_schema() {
    ordered_json schema = {{SCHEMA_KEY, "http://json-schema.org/draft-07/schema#"},
                           {"title", "A document of jornctl apply"}};
    schema.update(record<DOCUMENT_FIELDS>::schema<document>());
    for (const std::string &key : table_keys())
        schema["anyOf"].push_back({{"required", {key}}});
    return schema;
}

} // namespace jornctl
