// Lines that a watch socket says, and names in them on their way to a terminal: what is read as a
// record is the same record again when it is written, and nothing shown steers the terminal.
#include "avwatch/base/shown_text.h"
#include "avwatch/client/messages.h"
#include "demand.h"

#include <algorithm>
#include <cstdlib>

namespace {

using namespace avwatch;

void check_shown(std::string_view text) {
    constexpr std::string_view mark = "\u200E";
    std::string shown = shown_text(text);
    demand(columns_of(shown) <= shown.size());
    demand(std::ranges::none_of(shown, [](unsigned char c) { return c < 0x20 || c == 0x7F; }));
    const std::string once = shown;
    if (shown.starts_with(mark))
        shown = shown.substr(mark.size(), shown.size() - 2 * mark.size());
    demand(shown_text(shown) == once);
}

template <typename Record>
void check_again(const Record &record, std::optional<Record> (*read)(const nlohmann::json &)) {
    const std::string line = to_line(object_of(record));
    demand(std::ranges::all_of(line, [](unsigned char c) { return c >= 0x20 && c < 0x7F; }));
    const std::optional<nlohmann::json> parsed = parse_line(line);
    const std::optional<Record> again = parsed ? read(*parsed) : std::nullopt;
    demand(again && to_line(object_of(*again)) == line);
}

void check_line(std::string_view line) {
    check_shown(line);
    const std::optional<nlohmann::json> parsed = parse_line(line);
    if (!parsed)
        return;
    if (const auto greeting = greeting_of(*parsed))
        check_again(*greeting, greeting_of);
    const std::optional<message> said = message_of(*parsed);
    if (!said)
        return;
    if (const auto *flow = std::get_if<flow_record>(&said->what))
        check_again(*flow, flow_of);
    if (const auto *client = std::get_if<client_record>(&said->what))
        check_again(*client, client_of);
    if (const auto *event = std::get_if<event_record>(&said->what))
        check_again(*event, event_of);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view text(reinterpret_cast<const char *>(data), size);
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        check_line(line);
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return 0;
}
