// Documents of the daemon's configuration tables: JSON in, checked records out.
//
// A document is read to its end, and all that is wrong with it is said at once. What its tables
// take is said by the rows of *_fields.h, and by the rows of documents.cpp which tables there are;
// what only shows when records are seen together, by cross_checks.cpp.
#pragma once

#include "control/records/arc.h"
#include "jornctl/base/json.h"
#include "jornctl/documents/platform_facts.h"
#include "userapps/records/apps.h"
#include "webfilter/records/web.h"
#include "wificalling/records/wificalling.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace jornctl {

// A table that the document doesn't mention has no value; one that it empties has an empty one.
struct document {
    std::optional<std::vector<arc_policy_wire>> policies;
    std::optional<std::vector<utp_entry_wire>> utps;
    std::optional<std::vector<userdef_app>> applications;
    std::optional<std::vector<web_policy_wire>> web_policies;
    std::optional<std::vector<utp_entry_wire>> web_utps;
    std::optional<std::vector<web_intf_wire>> web_interfaces;
    std::optional<std::vector<wificalling_policy_wire>> carriers;
    std::optional<std::vector<wificalling_intf_wire>> wificalling_interfaces;
    // Mistakes, for which nothing of it may be sent, and as warnings what the daemon takes but the
    // author may not have meant.
    findings found;
};

// Throws refused for bad syntax, with line and column. `around` is what is known of the machine
// that the document is for.
document read_document(std::string_view text, const platform_facts &around = {});

// The document in words, as read_document takes it; all tables that it has, empty ones too.
ordered_json document_words(const document &said);

// What read_document takes, as JSON Schema, as far as that can say it.
ordered_json document_schema();

} // namespace jornctl
