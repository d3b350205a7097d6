#include "avwatch/present/shared_text.h"

#include "avwatch/base/failure.h"
#include "core/text/keyed_hash.h"

#include <sys/random.h>

namespace avwatch {
namespace {

constexpr char TOO_MANY[] = "...";
constexpr size_t ENTRY_BYTES = 80; // what a text takes beside its characters

struct run_secret {
    uint64_t words[2];

    run_secret() {
        if (getrandom(words, sizeof words, 0) != static_cast<ssize_t>(sizeof words))
            throw refused("the machine has no random numbers");
    }
};

} // namespace

uint64_t hash_of(std::string_view text) {
    static const run_secret secret;
    return keyed_hash(secret.words, reinterpret_cast<const uint8_t *>(text.data()), text.size());
}

shared_text text_pool::share(std::string_view text) {
    if (text.empty())
        return {};
    const auto found = entries_.find(text);
    if (found != entries_.end())
        return shared_text(*found);
    if (bytes_ + text.size() + ENTRY_BYTES > bytes_max_)
        text = TOO_MANY;
    const auto [entry, is_new] = entries_.try_emplace(std::string(text));
    if (is_new)
        bytes_ += text.size() + ENTRY_BYTES;
    return shared_text(*entry);
}

std::optional<shared_text> text_pool::find(std::string_view text) const {
    if (text.empty())
        return shared_text();
    const auto found = entries_.find(text);
    return found != entries_.end() ? std::optional(shared_text(*found)) : std::nullopt;
}

void text_pool::sweep() {
    std::erase_if(entries_, [&](const auto &entry) {
        if (entry.second.count == 0)
            bytes_ -= entry.first.size() + ENTRY_BYTES;
        return entry.second.count == 0;
    });
}

} // namespace avwatch
