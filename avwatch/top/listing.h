// The rows of one list of `top`: which there are, in which order, and their cells.
#pragma once

#include "avwatch/present/present.h"
#include "avwatch/top/layout.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace avwatch {

enum class list_kind : uint8_t { clients, applications, flows };
enum class list_order : uint8_t { rate, up, down, total, dropped, seen, name };

struct list_wanted {
    list_kind kind = list_kind::clients;
    flow_choice chosen; // whose applications, which one's clients, whose flows
    list_order order = list_order::rate;
    std::string filter; // a part of a name, in any case
};

// Of the present at one moment: it is to be made anew when that has changed.
class listing {
public:
    listing(const present &shown, const list_wanted &wanted, int64_t now_ms);

    size_t size() const { return rows_.size(); }
    std::string key(size_t row) const; // the client's, the application's name, the flow's id
    std::optional<size_t> row_of(const std::string &key) const;

    std::span<const screen_column> columns() const;
    std::vector<std::string> cells(size_t row) const;
    line_style style(size_t row) const;

private:
    struct figures {
        traffic_rates now;
        traffic up, down;
        dropped_packets dropped;
        uint64_t last_us = 0;
    };
    struct listed {
        const flow_sum *sum; // or else
        const watched_flow *flow;
        double amount; // to order by
        double total;  // where that is the same
        std::string name;
    };

    std::vector<const flow_sum *> sums() const;
    void add(listed added);
    void sort();
    figures figures_of(const listed &of) const;
    std::string name_of(const listed &of) const;
    bool fits_filter(const listed &tried) const;
    std::vector<std::string> sum_cells(const listed &of) const;
    std::vector<std::string> flow_cells(const listed &of) const;

    const present &shown_;
    const list_wanted &wanted_;
    const std::string filter_; // in lower case
    const int64_t now_ms_;
    std::vector<listed> rows_;
};

// What a client is called: its name, or else its key.
std::string client_text(const present &shown, const std::string &key);
const char *kind_word(list_kind kind);
const char *order_word(list_order order);

} // namespace avwatch
