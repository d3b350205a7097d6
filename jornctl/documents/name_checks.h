// The names by which rules, patterns and ePDGs find flows: they fit wherever they stand in a flow's
// name, so that what looks like one host's may be many's, or nobody's.
#pragma once

#include "jornctl/documents/documents.h"

#include <string>
#include <string_view>
#include <vector>

namespace jornctl {

// Names of applications, which have no dot and yet are what a rule may well mean.
class application_names {
public:
    application_names(const document &read, const platform_facts &around);

    // Whether the name, or words that it begins with, are an application's: "Xbox" of "Xbox-Live".
    bool know(std::string_view name) const;
    bool are_all() const { return has_engine_; } // the DPI engine's among them

private:
    std::vector<std::string> names_;
    bool has_engine_;
};

// Why the name may not find what its author means; empty where nothing speaks against it.
std::string doubt_about_rule(std::string_view name, const application_names &known);
// Of a pattern without "*" at its ends, or an ePDG's name. They are compared with domains alone.
std::string doubt_about_domain(std::string_view name);
// Whether it fits whatever name a flow has.
bool fits_every_flow(std::string_view rule_name);

} // namespace jornctl
