// Listings: the texts with which the daemon answers what it is asked to show.
//
// A listing is made of cells, which line feeds and tabs divide; no value holds either. The cells of
// each stand in a table of its room, from which the daemon writes it and jornctl reads it, with the
// room that there is for the text and its NUL.
#pragma once

#include <cstddef>
#include <string_view>

struct listing_cell {
    std::string_view before; // line feeds and tabs
    std::string_view label;
    std::string_view behind; // the value: blanks or a word, then line feeds and tabs
};

inline constexpr size_t REPLY_SIZE = 122'880; // of a whole answer

// Of listings that number their entries.
inline constexpr listing_cell LISTED_TOTAL = {"", "TOTAL:", "\n"};
inline constexpr listing_cell LISTED_NUMBER = {"", "NO:", "\n"};
// A line behind the cell that it belongs to.
inline constexpr listing_cell LISTED_ITEM = {"\t", "", "\n"};
