#include "jornctl/document_tasks.h"

#include "core/files/saved_files_folder.h"
#include "jornctl/base/complain.h"
#include "jornctl/base/failure.h"
#include "jornctl/base/files.h"
#include "jornctl/base/printable.h"
#include "jornctl/memory/baseline.h"
#include "jornctl/tables/differences.h"
#include "jornctl/tables/document_of.h"

#include <iostream>
#include <optional>

namespace jornctl {
namespace {

constexpr char UNSAID[] = "warning: no document says it: ";

void say_doubts(const baseline &seen) {
    complain_of(seen.doubts(), "unknown: ");
}

// What is to be, but for the records: a mapping of safe search, a file that is behind.
bool differs_unseen(const baseline &seen, const daemon_tables &goal) {
    return seen.is_whole() && !same(seen.tables, goal);
}

int print_differences(const baseline &seen, const daemon_tables &goal, bool as_json) {
    const std::vector<difference> found = differences(seen.tables, goal);
    const bool is_unseen = found.empty() && differs_unseen(seen, goal);
    if (as_json) {
        const ordered_json said = {
            {"changes", json_of(found)}, {"beside", is_unseen}, {"unknown", seen.doubts()}};
        std::cout << printable(to_text(said), "\n");
    } else {
        for (const difference &each : found) {
            for (const std::string &line : lines_of(each))
                std::cout << printable(line) << '\n';
        }
        if (is_unseen)
            std::cout << "~ beside the records: a saved file, or safe search\n";
        say_doubts(seen);
    }
    return found.empty() && !is_unseen ? STATUS_DONE : STATUS_DIFFERS;
}

// Nothing, and everything said, for one that is wrong.
std::optional<document> load_document(const std::string &file) {
    const std::string text = read_file(file);
    try {
        document read = read_document(text);
        complain_of(read.found.mistakes(), file + ": ");
        return read.found.has_mistakes() ? std::nullopt : std::optional(std::move(read));
    } catch (const refused &reason) {
        throw refused(file + ": " + reason.what());
    }
}

} // namespace

int show_differences(const std::string &file, bool as_json, const client &daemon) {
    const std::optional<document> wanted = load_document(file);
    if (!wanted)
        return STATUS_NOT_COMPARED;
    baseline seen = learn_baseline(&daemon, SAVED_FILES_FOLDER);
    if (!seen.are_files_read)
        return STATUS_NOT_COMPARED;
    if (!seen.is_whole())
        assume_unknown(seen, *wanted);
    return print_differences(seen, after_all(seen, *wanted).tables, as_json);
}

int export_document(const client *daemon) {
    const baseline seen = learn_baseline(daemon, SAVED_FILES_FOLDER);
    if (!seen.are_files_read) // an empty document would be taken for what is in force
        return STATUS_REFUSED;
    const std::string text = to_text(document_words(document_of(seen.tables)));
    std::cout << printable(text, "\n");
    const document again = read_document(text);
    complain_of(again.found.mistakes(), UNSAID);
    if (!again.found.has_mistakes()) {
        for (const difference &each : differences(tables_of(again), seen.tables))
            complain_of(lines_of(each), UNSAID);
    }
    say_doubts(seen);
    return STATUS_DONE;
}

} // namespace jornctl
