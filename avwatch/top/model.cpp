#include "avwatch/top/model.h"

#include "avwatch/base/units.h"
#include "shared/counted.h"

#include <algorithm>
#include <utility>

namespace avwatch {
namespace {

constexpr size_t LINES_AROUND = 4;                         // title, path, heading, bottom
constexpr size_t COLUMNS_FOR_ALL = 80, LINES_FOR_ALL = 24; // what is left out on less is missed
constexpr size_t FILTER_MAX_BYTES = 128;
constexpr size_t LABEL_COLUMNS = 12;
constexpr char KEYS[] = "q leave  ? help  / filter  c a f lists  Enter in  Esc back";

constexpr std::pair<char32_t, list_kind> KIND_LETTERS[] = {
    {U'c', list_kind::clients}, {U'a', list_kind::applications}, {U'f', list_kind::flows}};
constexpr std::pair<char32_t, list_order> ORDER_LETTERS[] = {
    {U'r', list_order::rate},  {U'u', list_order::up},      {U'd', list_order::down},
    {U't', list_order::total}, {U'x', list_order::dropped}, {U's', list_order::seen},
    {U'n', list_order::name},
};
constexpr const char *HELP[] = {
    "Lists    c clients   a applications   f flows",
    "Order    r rate   u rate up   d rate down   t bytes",
    "         x dropped   s last seen   n name",
    "Place    Up Down PgUp PgDn Home End; at the top it stays there,",
    "         elsewhere it goes with its row",
    "In       Enter or Right: a client's applications, an application's",
    "         clients, the flows of both, why a flow is passed or denied",
    "Back     Esc, Left or Backspace",
    "Filter   / and a part of a name or an address; Enter keeps it,",
    "         Esc takes it away",
    "Leave    q or Ctrl-C",
    "",
    "Rates are of the last three seconds, a flow's of its last one. Sums",
    "are of the flows that are there, since they began, and of those that",
    "ended while you looked on.",
};

std::string utf8_of(char32_t character) {
    std::string bytes;
    if (character < 0x80) {
        bytes += static_cast<char>(character);
        return bytes;
    }
    const int more = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
    constexpr unsigned leads[] = {0xC0, 0xE0, 0xF0};
    bytes += static_cast<char>(leads[more - 1] | character >> (6 * more));
    for (int i = more - 1; i >= 0; --i)
        bytes += static_cast<char>(0x80 | (character >> (6 * i) & 0x3F));
    return bytes;
}

void drop_last_character(std::string &text) {
    while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80)
        text.pop_back();
    if (!text.empty())
        text.pop_back();
}

template <typename Value, size_t N>
std::optional<Value> with_letter(const std::pair<char32_t, Value> (&table)[N], char32_t letter) {
    for (const auto &[key, value] : table) {
        if (key == letter)
            return value;
    }
    return std::nullopt;
}

// Both ends of a line, of which the left one gives way.
std::string two_ends(const std::string &left, const std::string &right, size_t columns) {
    const std::string end = right.empty() ? "" : "  " + right;
    if (end.size() >= columns)
        return fitted(left, columns);
    return fitted(left, columns - end.size()) + end;
}

} // namespace

top_model::top_model(const present &shown, bool utc) : shown_(shown), utc_(utc), levels_(1) {}

bool top_model::press(const pressed_key &key) {
    if (is_typing_) {
        type(key);
        return true;
    }
    if (std::exchange(is_helping_, false))
        return true; // any key ends the help
    switch (key.kind) {
    case key_kind::character:
        return press_letter(key.character);
    case key_kind::enter:
    case key_kind::right:
        enter();
        break;
    case key_kind::escape:
        if (!now().wanted.filter.empty())
            set_filter("");
        else
            leave();
        break;
    case key_kind::backspace:
    case key_kind::left:
        leave();
        break;
    case key_kind::up:
        move(-1);
        break;
    case key_kind::down:
        move(1);
        break;
    case key_kind::page_up:
        move(-static_cast<int64_t>(page_));
        break;
    case key_kind::page_down:
        move(static_cast<int64_t>(page_));
        break;
    case key_kind::home:
        move(-static_cast<int64_t>(present::FLOWS_MAX));
        break;
    case key_kind::end:
        move(static_cast<int64_t>(present::FLOWS_MAX));
        break;
    }
    return true;
}

bool top_model::press_letter(char32_t letter) {
    if (letter == U'q')
        return false;
    if (letter == U'?')
        is_helping_ = true;
    else if (letter == U'/')
        is_typing_ = now().flow_id.empty();
    else if (const auto kind = with_letter(KIND_LETTERS, letter))
        begin(*kind);
    else if (const auto order = with_letter(ORDER_LETTERS, letter))
        now().wanted.order = *order;
    return true;
}

void top_model::type(const pressed_key &key) {
    std::string filter = now().wanted.filter;
    if (key.kind == key_kind::enter) {
        is_typing_ = false;
    } else if (key.kind == key_kind::escape) {
        is_typing_ = false;
        set_filter("");
    } else if (key.kind == key_kind::backspace) {
        drop_last_character(filter);
        set_filter(filter);
    } else if (key.kind == key_kind::character && filter.size() < FILTER_MAX_BYTES &&
               key.character >= U' ') {
        set_filter(filter + utf8_of(key.character));
    }
}

void top_model::set_filter(const std::string &filter) {
    now().wanted.filter = filter;
    now().selected.reset();
}

void top_model::begin(list_kind kind) {
    const list_order order = levels_.front().wanted.order;
    levels_.assign(1, {});
    now().wanted.kind = kind;
    now().wanted.order = order;
}

// The row that was drawn where the place is, whatever has come since.
void top_model::enter() {
    const level &from = now();
    if (!from.flow_id.empty() || from.place < from.first || from.place - from.first >= keys_.size())
        return;
    const std::string key = keys_[from.place - from.first];
    level next;
    next.wanted.order = from.wanted.order;
    next.wanted.chosen = from.wanted.chosen;
    const bool was_chosen = from.wanted.chosen.client || from.wanted.chosen.application;
    if (from.wanted.kind == list_kind::clients) {
        next.wanted.chosen.client = key;
        next.wanted.kind = was_chosen ? list_kind::flows : list_kind::applications;
    } else if (from.wanted.kind == list_kind::applications) {
        next.wanted.chosen.application = key;
        next.wanted.kind = was_chosen ? list_kind::flows : list_kind::clients;
    } else {
        const watched_flow *flow = shown_.flow(key);
        if (flow == nullptr)
            return; // it has just gone
        next.wanted.kind = list_kind::flows;
        next.flow_id = key;
        next.flow = flow->record();
    }
    now().selected = key;
    levels_.push_back(std::move(next));
}

void top_model::leave() {
    if (levels_.size() > 1)
        levels_.pop_back();
}

void top_model::move(int64_t rows) {
    level &at = now();
    const auto sum = [rows](size_t place) {
        return static_cast<size_t>(std::max<int64_t>(static_cast<int64_t>(place) + rows, 0));
    };
    if (!at.flow_id.empty()) {
        at.scrolled = sum(at.scrolled);
        return;
    }
    const size_t target = sum(at.place);
    if (target < at.first || target >= at.first + keys_.size()) {
        moved_ += rows;
        return;
    }
    at.place = target;
    at.selected = keys_[target - at.first];
}

// Where the selected row is now, and what of the list is on the screen.
void top_model::find_place(const listing &rows) {
    level &at = now();
    size_t place = 0;
    if (at.selected)
        place = rows.row_of(*at.selected).value_or(at.place);
    const auto last = static_cast<int64_t>(rows.size()) - 1;
    const int64_t moved = std::exchange(moved_, 0);
    at.place = static_cast<size_t>(
        std::clamp<int64_t>(static_cast<int64_t>(place) + moved, 0, std::max<int64_t>(last, 0)));
    if (at.place == 0 || rows.size() == 0)
        at.selected.reset();
    else
        at.selected = rows.key(at.place);
    if (at.place < at.first)
        at.first = at.place;
    if (at.place >= at.first + page_)
        at.first = at.place - page_ + 1;
    at.first = std::min(at.first, rows.size() - std::min(rows.size(), page_));
}

std::optional<flow_record> top_model::take_question() {
    level &at = now();
    if (at.flow_id.empty() || std::exchange(at.is_asked, true))
        return std::nullopt;
    return at.flow;
}

void top_model::take_answer(const std::string &flow_id, std::vector<explained_line> what_else) {
    if (now().flow_id == flow_id)
        now().what_else = std::move(what_else);
}

std::vector<screen_line> top_model::draw(const screen_size &size, int64_t now_ms,
                                         const std::string &trouble) {
    page_ = std::max<size_t>(size.lines, LINES_AROUND + 1) - LINES_AROUND;
    const std::string worry = worry_of(trouble);
    std::vector<screen_line> lines = {title(size.columns)};
    lines.push_back(
        {two_ends(path(!worry.empty()), beside_path(size), size.columns), line_style::path});
    for (screen_line &each : body(size, now_ms))
        lines.push_back(std::move(each));
    const size_t above = size.lines - std::min<size_t>(size.lines, 1);
    lines.resize(above, {std::string(size.columns, ' '), line_style::plain});
    if (size.lines > 0)
        lines.push_back(bottom(size.columns, worry));
    return lines;
}

std::vector<screen_line> top_model::body(const screen_size &size, int64_t now_ms) {
    if (is_helping_)
        return help_lines(size);
    return now().flow_id.empty() ? list_lines(size, now_ms) : explanation_lines(size, now_ms);
}

const listing &top_model::list(int64_t now_ms) {
    const bool is_new = listed_ && listed_ticks_ == shown_.ticks() &&
                        listed_told_ == shown_.is_told() && listed_->wanted() == now().wanted;
    if (!is_new) {
        listed_.emplace(shown_, now().wanted, now_ms);
        listed_ticks_ = shown_.ticks();
        listed_told_ = shown_.is_told();
    }
    return *listed_;
}

std::vector<screen_line> top_model::list_lines(const screen_size &size, int64_t now_ms) {
    // A cell for the mark before a right-to-left name: at a line's begin it would have none.
    const std::string margin = " ";
    const listing &rows = list(now_ms);
    const row_layout layout(rows.columns(), size.columns - std::min(size.columns, margin.size()));
    find_place(rows);
    std::vector<screen_line> lines = {
        {fitted_shown(margin + layout.heading(), size.columns), line_style::heading}};
    keys_.clear();
    for (size_t i = now().first; i < rows.size() && keys_.size() < page_; ++i) {
        const line_style style = i == now().place ? line_style::chosen : rows.style(i);
        lines.push_back(
            {fitted_shown(margin + layout.row(rows.cells(i, now_ms)), size.columns), style});
        keys_.push_back(rows.key(i));
    }
    return lines;
}

std::vector<screen_line> top_model::explanation_lines(const screen_size &size, int64_t now_ms) {
    level &at = now();
    const watched_flow *flow = shown_.flow(at.flow_id);
    traffic_rates rates;
    if (flow != nullptr) {
        flow_record next = flow->record();
        if (next.verdict != at.flow.verdict || next.why.text != at.flow.why.text)
            at.is_asked = false;
        at.flow = std::move(next);
        rates = shown_.rates_of(*flow, now_ms);
    }
    const std::string client =
        client_text(shown_, shown_.clients().key_of(at.flow.client_mac, at.flow.client));
    std::vector<screen_line> all;
    std::vector<explained_line> said = explain_flow(at.flow, client, rates, utc_);
    said.insert(said.end(), at.what_else.begin(), at.what_else.end());
    for (const auto &[label, text] : said) {
        const size_t label_columns = std::min(LABEL_COLUMNS, size.columns / 2);
        std::string shown_label = label;
        for (const std::string &piece : wrapped(text, size.columns - label_columns)) {
            all.push_back({fitted(shown_label, label_columns) + piece, line_style::plain});
            shown_label.clear();
        }
    }
    if (flow == nullptr)
        all.push_back(
            {fitted("It has ended; this is what it was.", size.columns), line_style::faded});
    at.scrolled = std::min(at.scrolled, all.size() - std::min(all.size(), page_));
    std::vector<screen_line> lines = {{std::string(size.columns, ' '), line_style::heading}};
    for (size_t i = at.scrolled; i < all.size() && i < at.scrolled + page_; ++i)
        lines.push_back(std::move(all[i]));
    return lines;
}

std::vector<screen_line> top_model::help_lines(const screen_size &size) {
    std::vector<screen_line> lines = {{fitted("KEYS", size.columns), line_style::heading}};
    for (const char *each : HELP)
        lines.push_back({fitted(each, size.columns), line_style::plain});
    return lines;
}

screen_line top_model::title(size_t columns) const {
    const level &at = levels_.back();
    const std::string what = at.flow_id.empty() ? std::string(kind_word(at.wanted.kind)) + " by " +
                                                      order_word(at.wanted.order)
                                                : "a flow";
    const flow_sum *all = shown_.sum();
    return {two_ends("avwatch top: " + what,
                     counted(all->flows, "flow", "flows") + "  up " + rate_text(all->now.up) +
                         "  down " + rate_text(all->now.down),
                     columns),
            line_style::title};
}

// A filter is typed on the last line, or here where that is taken.
std::string top_model::path(bool is_bottom_taken) const {
    std::string path = kind_word(levels_.front().wanted.kind);
    for (size_t i = 1; i < levels_.size(); ++i) {
        const level &to = levels_[i];
        const flow_choice &before = levels_[i - 1].wanted.chosen;
        path += " > ";
        if (!to.flow_id.empty())
            path += "flow";
        else if (to.wanted.chosen.client && !before.client)
            path += client_text(shown_, *to.wanted.chosen.client);
        else
            path += to.wanted.chosen.application->empty() ? "without a name"
                                                          : *to.wanted.chosen.application;
    }
    const std::string &filter = levels_.back().wanted.filter;
    if (is_typing_)
        return is_bottom_taken ? path + "  /" + filter + '_' : path;
    return filter.empty() ? path : path + "  / " + filter;
}

std::string top_model::beside_path(const screen_size &size) const {
    if (shown_.left_out() != 0)
        return counted(shown_.left_out(), "message", "messages") + " left out";
    return size.lines < LINES_FOR_ALL || size.columns < COLUMNS_FOR_ALL ? "wants 80 x 24" : "";
}

std::string top_model::worry_of(const std::string &trouble) const {
    if (!trouble.empty())
        return trouble + "; tried again";
    return shown_.is_told() ? "" : "avcore is asked what there is";
}

screen_line top_model::bottom(size_t columns, const std::string &worry) const {
    if (!worry.empty())
        return {fitted(worry, columns), line_style::trouble};
    if (is_typing_)
        return {fitted("/" + levels_.back().wanted.filter + '_', columns), line_style::chosen};
    return {fitted(KEYS, columns), line_style::path};
}

} // namespace avwatch
