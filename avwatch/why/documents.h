// What decides, with the lines of its parts: the document in force, one to try, and the
// port-service file.
#pragma once

#include "avwatch/why/judge.h"

#include <map>
#include <string>
#include <vector>

namespace avwatch {

struct document_text {
    std::string name; // as it is shown
    std::map<std::string, size_t> lines;
};

struct loaded_documents {
    configuration made; // but for the DPI engine
    document_text in_force;
    document_text tried;
    document_text port_services;     // each of whose lines is a part
    std::vector<std::string> doubts; // about what is in force, in words

    const jornctl::document &owner_of(part_kind kind) const {
        return has_table_of(kind, made.tried) ? made.tried : made.in_force;
    }
    const document_text &text_of(part_kind kind) const {
        if (kind == part_kind::PORT_LINE)
            return port_services;
        return has_table_of(kind, made.tried) ? tried : in_force;
    }
};

// Of a document that is tried, "-" is standard input; empty: none is. What is in force is found out
// as `jornctl export` does it, and read only. Throws refused.
loaded_documents load_documents(const std::string &tried_file);

// The same without any daemon, for documents alone.
loaded_documents documents_from(const std::string &name, std::string_view text);

} // namespace avwatch
