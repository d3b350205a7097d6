// Documents of the daemon's configuration tables: JSON in, checked records out.
//
// A document is read whole or refused. What its tables take is said by the rows of *_fields.h, and
// by the rows of documents.cpp which tables there are; what only shows when records are seen
// together, by cross_checks.cpp.
#pragma once

#include "control/records/arc.h"
#include "jornctl/json.h"
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
    // What the daemon takes but the author may not have meant, each with its JSON path.
    std::vector<std::string> warnings;

    void warn(const std::string &path, const std::string &reason) {
        warnings.push_back(path + ": " + reason);
    }
};

// Throws refused with the JSON path and the reason; with line and column for bad syntax.
document read_document(std::string_view text);

// What read_document takes, as JSON Schema, as far as that can say it.
ordered_json document_schema();

} // namespace jornctl
