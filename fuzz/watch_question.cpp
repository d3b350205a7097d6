// Lines that readers of the watch socket send, and texts on their way to them: whatever bytes they
// are, what is written is JSON, and says the same again when it was read.
#include "avcore/watch/json_text.h"
#include "avcore/watch/questions.h"
#include "demand.h"
#include "shared/json_text.h"

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <variant>

namespace {

using namespace avcore;

std::string written(std::string_view text, bool flag) {
    std::string line;
    {
        json_object object(line);
        object.add("text", text);
        object.add("flag", flag);
        object.add("number", text.size());
        object.add_pair("pair", text.size(), 0);
    }
    return line;
}

void check_text(std::string_view text) {
    const std::string line = written(text, !text.empty());
    const nlohmann::json object = read_json(line);
    demand(object.is_object() && object.size() == 4);
    const std::string said = object["text"].get<std::string>();
    demand(said.size() >= text.size());
    std::string quoted;
    append_json_text(quoted, said);
    demand(line.find(quoted) != std::string::npos);
    demand(std::ranges::none_of(line, [](unsigned char c) { return c < 0x20 || c == 0x7F; }));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view text(reinterpret_cast<const char *>(data), size);
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        check_text(line);
        const watch_line read = read_question(line);
        if (const auto *wish = std::get_if<follow_wish>(&read))
            demand(wish->every_ms >= 200 && wish->every_ms <= 60'000);
        if (const auto *refused = std::get_if<refusal>(&read))
            demand(!refused->why.empty());
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return 0;
}
