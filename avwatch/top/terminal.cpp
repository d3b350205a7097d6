#include "avwatch/top/terminal.h"

#include "avwatch/base/failure.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <langinfo.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

// Last, for it defines much; its macros of common words are left out.
#define NCURSES_NOMACROS
#define NCURSES_WIDECHAR 1
#include <ncurses.h>

namespace avwatch {
namespace {

constexpr int ESCAPE_DELAY_MS = 50; // how long the rest of a key's sequence may take
constexpr wint_t ESCAPE = 27;
constexpr wint_t DELETE = 127;
constexpr short TROUBLE_PAIR = 1, DENIED_PAIR = 2, HEADING_PAIR = 3;

constexpr struct {
    int code;
    key_kind kind;
} KEYS[] = {
    {KEY_ENTER, key_kind::enter},   {KEY_BACKSPACE, key_kind::backspace},
    {KEY_UP, key_kind::up},         {KEY_DOWN, key_kind::down},
    {KEY_LEFT, key_kind::left},     {KEY_RIGHT, key_kind::right},
    {KEY_PPAGE, key_kind::page_up}, {KEY_NPAGE, key_kind::page_down},
    {KEY_HOME, key_kind::home},     {KEY_END, key_kind::end},
};

std::optional<pressed_key> character_key(wint_t character) {
    switch (character) {
    case L'\r':
    case L'\n':
        return pressed_key{key_kind::enter};
    case ESCAPE:
        return pressed_key{key_kind::escape};
    case L'\b':
    case DELETE:
        return pressed_key{key_kind::backspace};
    default:
        return pressed_key{key_kind::character, static_cast<char32_t>(character)};
    }
}

std::optional<pressed_key> function_key(wint_t code) {
    for (const auto &each : KEYS) {
        if (static_cast<int>(code) == each.code)
            return pressed_key{each.kind};
    }
    return std::nullopt;
}

attr_t attributes_of(line_style style, bool has_colours) {
    const auto with_pair = [&](attr_t plain, short pair) {
        return has_colours ? plain | static_cast<attr_t>(COLOR_PAIR(pair)) : plain;
    };
    switch (style) {
    case line_style::title:
        return A_BOLD;
    case line_style::heading:
        return has_colours ? static_cast<attr_t>(COLOR_PAIR(HEADING_PAIR)) | A_BOLD : A_UNDERLINE;
    case line_style::chosen:
        return A_REVERSE;
    case line_style::denied:
        return with_pair(has_colours ? A_NORMAL : A_BOLD, DENIED_PAIR);
    case line_style::faded:
    case line_style::path:
        return A_DIM;
    case line_style::trouble:
        return with_pair(A_BOLD, TROUBLE_PAIR);
    case line_style::plain:
        break;
    }
    return A_NORMAL;
}

bool wants_colours() {
    const char *said = getenv("NO_COLOR");
    return said == nullptr || *said == '\0';
}

} // namespace

struct terminal::handle {
    SCREEN *screen = nullptr;
    bool has_colours = false;
};

terminal::terminal() : handle_(std::make_unique<handle>()) {
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0)
        throw refused("top needs a terminal; programs are told more by \"avwatch clients --json\"");
    setlocale(LC_CTYPE, "");
    shows_utf8_ = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    handle_->screen = newterm(nullptr, stdout, stdin);
    if (handle_->screen == nullptr) {
        const char *name = getenv("TERM");
        throw refused("the terminal \"" + std::string(name != nullptr ? name : "") +
                      "\" isn't known: set TERM, as in TERM=vt100");
    }
    set_escdelay(ESCAPE_DELAY_MS);
    cbreak();
    noecho();
    nonl();
    intrflush(stdscr, FALSE);
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    curs_set(0);
    handle_->has_colours = wants_colours() && has_colors() && start_color() == OK;
    if (handle_->has_colours) {
        use_default_colors();
        init_pair(TROUBLE_PAIR, COLOR_RED, -1);
        init_pair(DENIED_PAIR, COLOR_RED, -1);
        init_pair(HEADING_PAIR, COLOR_CYAN, -1);
    }
}

terminal::~terminal() {
    if (handle_->screen == nullptr)
        return;
    endwin();
    delscreen(handle_->screen);
}

int terminal::descriptor() {
    return STDIN_FILENO;
}

std::optional<pressed_key> terminal::next_key() {
    while (true) {
        wint_t code = 0;
        const int kind = get_wch(&code);
        if (kind == ERR) {
            // A terminal that was closed is readable, and says nothing, for ever.
            pollfd waiting = {STDIN_FILENO, POLLIN, 0};
            has_ended_ = poll(&waiting, 1, 0) > 0 && (waiting.revents & (POLLHUP | POLLERR)) != 0;
            return std::nullopt;
        }
        const auto key = kind == KEY_CODE_YES ? function_key(code) : character_key(code);
        if (key)
            return key;
    }
}

screen_size terminal::size() const {
    return {static_cast<size_t>(getmaxy(stdscr)), static_cast<size_t>(getmaxx(stdscr))};
}

void terminal::resize() {
    winsize now = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &now) == 0 && now.ws_row > 0 && now.ws_col > 0)
        resizeterm(now.ws_row, now.ws_col);
    clearok(stdscr, TRUE);
}

void terminal::draw(const std::vector<screen_line> &lines) {
    werase(stdscr);
    for (size_t i = 0; i < lines.size(); ++i) {
        std::wstring text;
        for (std::string_view rest = lines[i].text; !rest.empty();) {
            const char32_t character = take_character(rest);
            text += shows_utf8_ || character < 0x80 ? static_cast<wchar_t>(character) : L'?';
        }
        wattrset(stdscr, static_cast<int>(attributes_of(lines[i].style, handle_->has_colours)));
        mvwaddnwstr(stdscr, static_cast<int>(i), 0, text.c_str(), static_cast<int>(text.size()));
    }
    wattrset(stdscr, A_NORMAL);
    wrefresh(stdscr);
}

} // namespace avwatch
