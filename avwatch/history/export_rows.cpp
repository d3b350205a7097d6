#include "avwatch/history/export_rows.h"

#include <algorithm>
#include <random>
#include <string_view>

namespace avwatch {
namespace {

constexpr char NEXT_NUMBER[] = "next application number";
constexpr uint32_t PLACES = UINT32_MAX / 2; // and as many numbers behind the last one
constexpr uint32_t AT_ONCE = 1'024;

uint32_t place_of_its_own() {
    std::random_device random;
    return std::uniform_int_distribution(application_numbers::FIRST, PLACES)(random);
}

void write_next(database &file, uint32_t next) {
    statement row(file, "INSERT OR REPLACE INTO state VALUES (?, ?)");
    row.bind(0, std::string_view(NEXT_NUMBER)).bind(1, int64_t{next}).run();
}

// On the disk before any of them is told: a power cut may take what else was written of late.
void reserve_more(database &file, application_numbers &numbers) {
    const uint32_t below = numbers.next() + std::min(AT_ONCE, UINT32_MAX - numbers.next());
    file.run("PRAGMA synchronous = FULL"); // and once more, where it fails
    write_next(file, below);
    file.run("PRAGMA synchronous = NORMAL");
    numbers.reserve(below);
}

} // namespace

void read_numbers(database &file, application_numbers &numbers) {
    statement row(file, "SELECT number, name, is_name, used FROM application_numbers");
    while (row.step())
        numbers.restore({row.text(1), row.number(2) != 0},
                        {static_cast<uint32_t>(row.number(0)), row.number(3)});
    statement next(file, "SELECT value FROM state WHERE name = ?");
    const bool has_next = next.bind(0, std::string_view(NEXT_NUMBER)).step();
    numbers.set_next(has_next ? static_cast<uint32_t>(next.number(0)) : place_of_its_own());
    numbers.begin_turn();
}

void write_numbers(database &file, application_numbers &numbers) {
    if (numbers.is_written())
        return;
    if (numbers.next() > numbers.reserved_below())
        reserve_more(file, numbers);
    transaction all(file);
    statement gone(file, "DELETE FROM application_numbers WHERE number = ?");
    for (const uint32_t number : numbers.forgotten())
        gone.bind(0, int64_t{number}).run();
    statement row(file, "INSERT OR REPLACE INTO application_numbers VALUES (?, ?, ?, ?)");
    for (const auto *each : numbers.unwritten()) {
        const auto &[name, kept] = *each;
        row.bind(0, int64_t{kept.number}).bind(1, std::string_view(name.text));
        row.bind(2, int64_t{name.is_name}).bind(3, kept.turn).run();
    }
    // Once more, for another file may have taken the former one's place.
    write_next(file, numbers.reserved_below());
    all.commit();
    numbers.written();
}

void forget_numbers(database &file) {
    transaction all(file);
    file.run("DELETE FROM application_numbers");
    statement next(file, "DELETE FROM state WHERE name = ?");
    next.bind(0, std::string_view(NEXT_NUMBER)).run();
    all.commit();
}

void write_exports(database &file, const std::vector<export_counts> &exports) {
    transaction all(file);
    file.run("DELETE FROM exports");
    statement row(file, "INSERT OR REPLACE INTO exports VALUES (?, ?, ?, ?, ?, ?, ?)");
    for (const export_counts &each : exports) {
        row.bind(0, std::string_view(each.target)).bind(1, each.since_s);
        row.bind(2, each.records).bind(3, each.messages).bind(4, each.dropped);
        row.bind(5, each.failed).bind(6, each.other).run();
    }
    all.commit();
}

std::vector<export_counts> read_exports(database &file) {
    std::vector<export_counts> exports;
    statement row(file, "SELECT * FROM exports ORDER BY target");
    while (row.step())
        exports.push_back({row.text(0), row.number(1), row.count(2), row.count(3), row.count(4),
                           row.count(5), row.count(6)});
    return exports;
}

} // namespace avwatch
