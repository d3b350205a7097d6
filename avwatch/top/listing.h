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

    bool operator==(const list_wanted &) const = default;
};

// Which rows there were, and their order, when it was made: to put as many as a gate has flows in
// order takes its time. The cells of a row are of the moment in which they are asked for.
class listing {
public:
    listing(const present &shown, const list_wanted &wanted, int64_t now_ms);

    const list_wanted &wanted() const { return wanted_; }
    size_t size() const { return numbers_.size() + keys_.size(); }
    // The client's, the application's name, the flow's id.
    std::string key(size_t row) const;
    std::optional<size_t> row_of(const std::string &key) const;

    std::span<const screen_column> columns() const;
    std::vector<std::string> cells(size_t row, int64_t now_ms) const;
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

    std::vector<listed> found(int64_t now_ms) const;
    std::vector<const flow_sum *> sums() const;
    void add(std::vector<listed> &rows, listed added, int64_t now_ms) const;
    static void sort(std::vector<listed> &rows);
    figures figures_of(const listed &of, int64_t now_ms) const;
    std::string name_of(const listed &of) const;
    bool fits_filter(const listed &tried) const;
    const flow_sum *sum_with(const std::string &key) const;
    std::vector<std::string> sum_cells(const flow_sum &sum) const;
    std::vector<std::string> flow_cells(const watched_flow &flow, int64_t now_ms) const;

    const present &shown_;
    const list_wanted wanted_;
    const std::string filter_;      // in lower case
    std::vector<uint64_t> numbers_; // of flows, in place of `keys_`
    std::vector<std::string> keys_;
};

// What a client is called: its name, or else its key.
std::string client_text(const present &shown, const std::string &key);
const char *kind_word(list_kind kind);
const char *order_word(list_order order);

} // namespace avwatch
