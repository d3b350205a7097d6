#include "avwatch/why/documents.h"

#include "core/files/saved_files_folder.h"
#include "jornctl/base/failure.h"
#include "jornctl/base/files.h"
#include "jornctl/client/client.h"
#include "jornctl/documents/port_services.h"
#include "jornctl/memory/baseline.h"
#include "jornctl/memory/saved_files.h"
#include "jornctl/tables/document_of.h"

#include <algorithm>
#include <chrono>
#include <unistd.h>

namespace avwatch {
namespace {

using jornctl::document;

constexpr std::chrono::seconds PATIENCE{2};
constexpr char EXPORTED[] = "jornctl export";

document read_text(const std::string &name, std::string_view text) {
    document read = jornctl::read_document(text);
    if (read.found.has_mistakes()) {
        const std::vector<std::string> mistakes = read.found.mistakes();
        throw refused(name + ": " + mistakes.front() +
                      (mistakes.size() > 1 ? "; jornctl apply --check says more" : ""));
    }
    return read;
}

bool has_saved_files() {
    return std::ranges::any_of(jornctl::hash_saved_files(SAVED_FILES_FOLDER),
                               [](const auto &each) { return each.second.has_value(); });
}

jornctl::baseline learn_tables(std::vector<std::string> &doubts) {
    if (access(jornctl::DEFAULT_SOCKET, F_OK) == 0 && access(jornctl::DEFAULT_SOCKET, W_OK) != 0)
        throw refused(std::string("you may not ask the daemon what is in force: run "
                                  "avwatch as root, or as a user who may write to ") +
                      jornctl::DEFAULT_SOCKET);
    const jornctl::client daemon(jornctl::DEFAULT_SOCKET, PATIENCE);
    try {
        return jornctl::learn_baseline(&daemon, SAVED_FILES_FOLDER);
    } catch (const jornctl::no_daemon &reason) {
        const bool has_files = has_saved_files();
        doubts.push_back(std::string(reason.what()) +
                         (has_files ? "; its saved files are taken" : "; nothing is in force"));
        if (!has_files)
            return {{}, jornctl::KNOWS_ALL};
        return jornctl::learn_baseline(nullptr, SAVED_FILES_FOLDER);
    }
}

// By way of its text, so that places are those that the reader finds in it.
void load_in_force(loaded_documents &loaded) {
    const jornctl::baseline seen = learn_tables(loaded.doubts);
    if (!seen.are_files_read) // which has been said
        throw refused("what is in force isn't known without the daemon's saved files: run "
                      "avwatch as root, or mend them");
    for (const std::string &each : seen.doubts())
        loaded.doubts.push_back("unknown: " + each);
    document said = jornctl::document_of(seen.tables);
    const std::string text = jornctl::to_text(jornctl::document_words(said));
    document again = jornctl::read_document(text);
    const bool is_sayable = !again.found.has_mistakes();
    if (!is_sayable || !jornctl::says_all(again, seen.tables))
        loaded.doubts.emplace_back("the daemon's tables hold what no document says");
    loaded.made.in_force = std::move(is_sayable ? again : said);
    loaded.in_force = {EXPORTED, jornctl::lines_of_values(text)};
    loaded.port_services.name = jornctl::PORT_SERVICE_FILE;
    loaded.made.port_services =
        jornctl::read_regular_file(jornctl::PORT_SERVICE_FILE).value_or(std::string());
}

} // namespace

loaded_documents documents_from(const std::string &name, std::string_view text) {
    loaded_documents loaded;
    loaded.made.tried = read_text(name, text);
    loaded.tried = {name, jornctl::lines_of_values(text)};
    return loaded;
}

loaded_documents load_documents(const std::string &tried_file) {
    loaded_documents loaded;
    if (!tried_file.empty()) {
        const std::string text = jornctl::read_file(tried_file);
        loaded = documents_from(tried_file == "-" ? "standard input" : tried_file, text);
    }
    load_in_force(loaded);
    return loaded;
}

} // namespace avwatch
