#include "shared/suggestion.h"

#include "core/text/text.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr size_t COMPARED_MAX = 64; // no word is longer, and time is quadratic in it

// How many letters to add, drop or exchange, neighbours that changed places counting once (optimal
// string alignment). Letter case is no difference.
size_t distance(std::string_view a, std::string_view b) {
    std::vector<size_t> before_last(b.size() + 1);
    std::vector<size_t> last(b.size() + 1);
    std::vector<size_t> row(b.size() + 1);
    std::iota(last.begin(), last.end(), 0);
    for (size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const bool same = same_letter(a[i - 1], b[j - 1]);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (same ? 0 : 1)});
            if (i > 1 && j > 1 && same_letter(a[i - 1], b[j - 2]) &&
                same_letter(a[i - 2], b[j - 1]))
                row[j] = std::min(row[j], before_last[j - 2] + 1);
        }
        std::swap(before_last, last);
        std::swap(last, row);
    }
    return last[b.size()];
}

} // namespace

std::string joined(const std::vector<std::string> &words) {
    std::string list;
    for (const std::string &word : words)
        list += (list.empty() ? "" : ", ") + word;
    return list;
}

std::string did_you_mean(std::string_view mistyped, const std::vector<std::string> &known) {
    const std::string *closest = nullptr;
    size_t least = COMPARED_MAX;
    for (const std::string &word : known) {
        const size_t longer = std::max(word.size(), mistyped.size());
        if (longer > COMPARED_MAX)
            continue;
        const size_t away = distance(mistyped, word);
        if (away < least && away <= std::max<size_t>(1, longer * 2 / 5)) {
            least = away;
            closest = &word;
        }
    }
    return closest == nullptr ? std::string() : " (did you mean \"" + *closest + "\"?)";
}
