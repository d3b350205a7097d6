// What `avwatch top` shows: which list, how far drilled down, where in it; made into lines for a
// screen of any size. It knows keys and lines, and nothing of a terminal.
//
// A client leads to its applications, an application to its clients, either to the flows of both,
// a flow to its explanation, and back.
#pragma once

#include "avwatch/present/present.h"
#include "avwatch/top/explanation.h"
#include "avwatch/top/layout.h"
#include "avwatch/top/listing.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace avwatch {

enum class key_kind : uint8_t {
    character,
    enter,
    escape,
    backspace,
    up,
    down,
    left,
    right,
    page_up,
    page_down,
    home,
    end,
};

struct pressed_key {
    key_kind kind = key_kind::character;
    char32_t character = 0;
};

class top_model {
public:
    top_model(const present &shown, bool utc);

    // False: it leaves.
    bool press(const pressed_key &key);

    // The flow that is explained, once for each verdict: who can say what else would decide is to
    // be asked.
    std::optional<flow_record> take_question();
    // Where that flow is explained still.
    void take_answer(const std::string &flow_id, std::vector<explained_line> what_else);

    // As many lines as the screen has. `trouble` is why nobody tells, empty where avcore does.
    std::vector<screen_line> draw(const screen_size &size, int64_t now_ms,
                                  const std::string &trouble);

private:
    struct level {
        list_wanted wanted;
        // A row's key, which the place follows; none: it's the top.
        std::optional<std::string> selected;
        size_t place = 0;    // where that was
        size_t first = 0;    // row on the screen
        std::string flow_id; // of an explanation; empty: it is a list
        flow_record flow;    // as it was when it was there last
        bool is_asked = false;
        std::vector<explained_line> what_else; // would decide
        size_t scrolled = 0;
    };

    level &now() { return levels_.back(); }
    bool press_letter(char32_t letter);
    void type(const pressed_key &key);
    void begin(list_kind kind);
    void enter();
    void leave();
    void move(int64_t rows);
    void set_filter(const std::string &filter);

    std::vector<screen_line> body(const screen_size &size, int64_t now_ms);
    std::vector<screen_line> list_lines(const screen_size &size, int64_t now_ms);
    std::vector<screen_line> explanation_lines(const screen_size &size, int64_t now_ms);
    static std::vector<screen_line> help_lines(const screen_size &size);
    const listing &list(int64_t now_ms);
    void find_place(const listing &rows);
    screen_line title(size_t columns) const;
    std::string worry_of(const std::string &trouble) const;
    std::string path(bool is_bottom_taken) const;
    std::string beside_path(const screen_size &size) const;
    screen_line bottom(size_t columns, const std::string &worry) const;

    const present &shown_;
    const bool utc_;
    std::vector<level> levels_;     // the last one is shown
    std::optional<listing> listed_; // made anew by each tick, and when another one is wanted
    uint64_t listed_ticks_ = 0;
    bool listed_told_ = false;
    std::vector<std::string> keys_; // of the rows on the screen, as they were drawn
    int64_t moved_ = 0;             // rows, since then
    size_t page_ = 1;               // rows that fit
    bool is_typing_ = false;        // a filter
    bool is_helping_ = false;
};

} // namespace avwatch
