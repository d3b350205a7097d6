// Payloads of commands, whoever made them, as `jornctl decode` shows them: refused, or said in a
// line and, where the command has any, as JSON behind it, in which nothing steers a terminal.
//
// The first byte is the command's number.
#include "demand.h"
#include "jornctl/base/failure.h"
#include "jornctl/base/json.h"
#include "jornctl/client/commands.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace {

using namespace jornctl;

void check(const command &sent, std::string_view text) {
    const size_t end = text.find('\n');
    demand(end != text.npos && text.ends_with('\n'));
    const std::string_view head = text.substr(0, end), fields = text.substr(end + 1);
    demand(head.starts_with(std::to_string(sent.number) + " CMD_"));
    demand(head.find(std::to_string(sent.payload.size()) + " bytes") != head.npos);
    demand(std::ranges::none_of(text, [](unsigned char c) { return c < ' ' && c != '\n'; }));
    if (!fields.empty()) {
        const ordered_json read = ordered_json::parse(fields);
        demand(to_text(read) == fields);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const command sent = {data[0], {reinterpret_cast<const char *>(data) + 1, size - 1}};
    try {
        check(sent, describe(sent));
    } catch (const refused &reason) {
        demand(reason.what()[0] != '\0');
    }
    return 0;
}
