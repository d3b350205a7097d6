// The history: nothing lost or counted twice over restarts, clocks that jump, what is kept how
// long, and bounds for what the network makes up.
#include "avwatch/history/schema.h"
#include "avwatch/history/store.h"
#include "avwatch/history/usage.h"
#include "avwatch/metrics/metrics.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>

namespace {

using namespace avwatch;

constexpr int64_t NOW_S = 1'764'150'000; // within an hour and a day
constexpr char MAC[] = "02:00:00:00:00:01";

struct AvwatchHistory : testing::Test {
    AvwatchHistory() {
        settings.file = folder + "/history.db";
        open();
    }
    ~AvwatchHistory() override { std::filesystem::remove_all(folder); }

    // A start of the program, which knows what was committed.
    void open() {
        kept.reset();
        flows.emplace(settings.names);
        kept.emplace(settings);
        kept->restore(*flows, mono_ms);
    }
    void write(int64_t wall_s) { kept->write(*flows, wall_s, mono_ms); }
    void add(const std::string &application, uint64_t bytes, const std::string &client = MAC) {
        flow_message sum;
        sum.client_mac = client;
        sum.application = application;
        sum.counts[DOWN_BYTES] = bytes;
        flows->take_sum(sum, 1);
    }
    void tidy() {
        while (kept->tidy()) {
        }
    }
    struct usage_result {
        std::vector<usage_row> rows;
        usage_reach reach;
    };
    usage_result read(int64_t since_s, grouping by = grouping::none) {
        database file(settings.file, database::access::read_only);
        usage_query query;
        query.since_s = since_s;
        query.now_s = NOW_S;
        query.by = by;
        usage_result result;
        result.reach = read_usage(file, query, [&](const usage_row &row, const usage_reach &) {
            result.rows.push_back(row);
        });
        return result;
    }
    // Bytes by start; the starts of UTC days, which come first, below 0.
    std::map<int64_t, uint64_t> bytes_by(grouping by, int64_t since_s = 0) {
        std::map<int64_t, uint64_t> bytes;
        for (const usage_row &row : read(since_s, by).rows)
            bytes[row.start_s] += row.values[DOWN_BYTES];
        return bytes;
    }
    uint64_t bytes(int64_t since_s = 0) {
        const auto all = bytes_by(grouping::none, since_s);
        return all.empty() ? 0 : all.begin()->second;
    }
    int64_t number(const std::string &sql) {
        return database(settings.file, database::access::read_only).number(sql);
    }

    std::string folder = [] {
        std::string name = testing::TempDir() + "historyXXXXXX";
        return std::string(mkdtemp(name.data()));
    }();
    history_settings settings;
    int64_t mono_ms = 1'000'000;
    std::optional<ledger> flows;
    std::optional<store> kept;
};

// Flows of an avcore that may start anew and then know their counts alone, told to a program that
// may end between any two messages. Ends are told again for some time.
TEST_F(AvwatchHistory, CountsExactlyOnceOverRestarts) {
    std::mt19937 random(7); // NOLINT(cert-msc51-cpp): the same each time
    const auto one_of = [&](unsigned count) { return static_cast<unsigned>(random() % count); };
    struct told_flow {
        flow_counts counts = {};
        bool has_ended = false;
        int64_t ended_ms = 0;
    };
    using told_flows = std::map<std::string, told_flow>;
    told_flows world, committed;
    const auto client_of = [](const std::string &id) {
        return "02:00:00:00:00:0" + id.substr(0, 1);
    };
    const auto tell = [&](const std::string &id, const told_flow &flow, bool with_names) {
        const std::string mac = client_of(id);
        flow_message news;
        news.id = id;
        news.client = "192.0.2.1";
        news.counts = flow.counts;
        news.ended = flow.has_ended;
        if (with_names) {
            news.client_mac = mac;
            news.application = "application";
            news.verdict = ALLOW;
        }
        flows->take(news, mono_ms);
    };
    flows->connected("boot");
    flows->listed(mono_ms);
    for (unsigned step = 0; step < 20'000; ++step) {
        mono_ms += one_of(400);
        const std::string id =
            std::to_string(one_of(9)) + "-" + std::to_string(step / 100 + one_of(2));
        told_flow &flow = world[id];
        if (!flow.has_ended) {
            flow.counts[UP_BYTES] += 1 + one_of(1'000);
            flow.counts[DENIED_PACKETS] += one_of(2);
            flow.has_ended = one_of(4) == 0;
            flow.ended_ms = mono_ms;
            tell(id, flow, !committed.contains(id) || one_of(2) == 0);
            flows->heard(mono_ms);
        }
        if (one_of(50) == 0)
            flows->pass(mono_ms);
        if (one_of(20) == 0) {
            write(NOW_S + step / 100);
            committed = world;
        }
        if (one_of(200) == 0) {
            if (one_of(2) == 0)
                open();
            flows->connected("boot");
            for (const auto &[each, there] : world) {
                if (!there.has_ended || there.ended_ms >= flows->heard_ms() - 20'000)
                    tell(each, there, !committed.contains(each));
            }
            flows->listed(mono_ms);
        }
    }
    flows->connected("the next boot");
    write(NOW_S + 300);
    std::map<std::string, amounts> expected, counted;
    for (const auto &[id, flow] : world) {
        amounts &sum = expected[client_of(id)];
        sum[UP_BYTES] += flow.counts[UP_BYTES];
        sum[DENIED_PACKETS] += flow.counts[DENIED_PACKETS];
        ++sum[FLOWS];
    }
    for (const usage_row &row : read(0).rows) {
        EXPECT_EQ(row.application, "application");
        avwatch::add(counted[row.client], row.values);
    }
    EXPECT_EQ(counted, expected);
    EXPECT_EQ(number("SELECT count(*) FROM open_flows"), 0);
}

TEST_F(AvwatchHistory, NobodyFallsOverWhatADamagedFileSays) {
    flows->connected("boot");
    for (int i = 0; i < 300; ++i) {
        flow_message news;
        const std::string id = std::to_string(i);
        news.id = news.application = id;
        news.client_mac = MAC;
        news.counts[UP_BYTES] = 1;
        news.ended = i % 2 == 0;
        flows->take(news, mono_ms);
    }
    write(NOW_S);
    kept.reset();
    std::ostringstream whole;
    whole << std::ifstream(settings.file, std::ios::binary).rdbuf();
    std::mt19937 random(3); // NOLINT(cert-msc51-cpp): the same each time
    int refused = 0;
    for (int i = 0; i < 100; ++i) {
        std::string bytes = whole.str();
        for (int damages = 1 << i % 10; damages > 0; --damages)
            bytes[random() % bytes.size()] = static_cast<char>(random());
        std::ofstream(settings.file, std::ios::binary) << bytes;
        for (const char *end : {"-wal", "-shm"})
            std::filesystem::remove(settings.file + end);
        try {
            open();
            add("new", 1);
            write(NOW_S + 60);
            tidy();
            read(0, grouping::hour);
        } catch (const std::runtime_error &) {
            ++refused;
        }
        kept.reset();
    }
    EXPECT_TRUE(0 < refused && refused < 100) << refused;
}

TEST_F(AvwatchHistory, FlowsGetTheNameTheyHaveAMomentLater) {
    flow_message news;
    news.id = "a";
    news.client = "192.0.2.1";
    news.counts[UP_BYTES] = 100;
    flows->connected("boot");
    flows->take(news, mono_ms);
    write(NOW_S);
    EXPECT_EQ(bytes(), 0U);
    open(); // what is held is stored
    news.client_mac = MAC;
    news.application = "tube";
    news.verdict = DENY;
    flows->take(news, mono_ms);
    mono_ms += ledger::HELD_MS;
    flows->pass(mono_ms);
    news.application = "other tube"; // what it has from now on
    news.counts[UP_BYTES] = 107;
    flows->take(news, mono_ms);
    // Silent, but avcore hasn't listed its flows; then it has.
    mono_ms += ledger::SILENT_MS;
    flows->pass(mono_ms);
    EXPECT_EQ(flows->open(), 1U);
    flows->listed(mono_ms);
    flows->pass(mono_ms + ledger::SILENT_MS);
    EXPECT_EQ(flows->open(), 0U);
    write(NOW_S);
    const auto rows = read(0).rows;
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[0].client, MAC);
    for (const usage_row &row : rows) {
        const bool is_first = row.application == "tube";
        EXPECT_EQ(row.values[UP_BYTES], is_first ? 100U : 7U);
        EXPECT_EQ(row.values[FLOWS], is_first ? 1U : 0U);
        EXPECT_EQ(row.values[DENIALS], is_first ? 1U : 0U);
    }
}

// More sums than wait for a transaction: what doesn't fit comes with the next ones, under its name.
TEST_F(AvwatchHistory, ManyFlowsKeepTheirNames) {
    constexpr unsigned many = 2 * ledger::MAX_PENDING;
    const auto tell = [&](uint64_t up_bytes) {
        for (unsigned i = 0; i < many; ++i) {
            const std::string name = std::to_string(i);
            flow_message news;
            news.id = news.application = name;
            news.client_mac = MAC;
            news.counts[UP_BYTES] = up_bytes;
            flows->take(news, mono_ms);
        }
        write(NOW_S);
        mono_ms += ledger::HELD_MS;
        flows->pass(mono_ms);
        write(NOW_S);
    };
    for (const uint64_t up_bytes : {1U, 2U, 3U, 3U})
        tell(up_bytes);
    EXPECT_EQ(number("SELECT sum(up_bytes) FROM hours"), many * 3);
    EXPECT_EQ(number("SELECT count(*) FROM hours WHERE client = 0"), 0);
}

TEST_F(AvwatchHistory, MadeUpNamesOfOpenFlowsTakeNoOtherClientsRoom) {
    const auto tell = [&](const std::string &mac, const std::string &name) {
        flow_message news;
        news.id = news.application = name;
        news.client_mac = mac;
        news.counts[UP_BYTES] = 1;
        flows->take(news, mono_ms);
    };
    for (unsigned i = 0; i < ledger::MAX_FLOWS - 1; ++i)
        tell(MAC, std::to_string(i));
    tell("02:00:00:00:00:02", "one.example");
    flows->connected("the next boot");
    write(NOW_S);
    EXPECT_EQ(number("SELECT sum(up_bytes) FROM hours"), ledger::MAX_FLOWS);
    EXPECT_LE(number("SELECT count(*) FROM applications"), store::APPLICATIONS_MAX + 3);
    EXPECT_EQ(number("SELECT count(*) FROM hours JOIN applications a ON a.id = application "
                     "WHERE a.name = 'one.example'"),
              1);
}

// What avcore doesn't know any more after a restart stays, and an address is the latest one's.
TEST_F(AvwatchHistory, ClientsKeepWhatTheySaid) {
    const std::string other = "02:00:00:00:00:02";
    client_record said;
    said.client_mac = other;
    add("application", 1, other);
    write(NOW_S);
    kept->write_clients({said});
    said.addresses = {"192.0.2.1"};
    said.host_name = "laptop";
    kept->write_clients({said});
    said.host_name = "";
    kept->write_clients({said});
    add("application", 1);
    write(NOW_S + DAY_S);
    said.client_mac = MAC;
    kept->write_clients({said});
    database file(settings.file, database::access::read_only);
    for (const auto &[meant, key] : {std::pair("Laptop", other.c_str()), {"192.0.2.1", MAC}})
        EXPECT_EQ(known_clients({}, read_clients_meant(file, meant)).find(meant), key);
}

TEST_F(AvwatchHistory, ClocksThatJump) {
    const auto minutes = [&] { return number("SELECT max(start) FROM minutes"); };
    const auto count_at = [&](int64_t wall_s) {
        add("application", 1);
        write(wall_s);
        tidy();
    };
    const int64_t minute_s = NOW_S - NOW_S % 60;
    count_at(NOW_S);
    for (const int64_t back_s : {90, 3'000, 86'400 * 365 * 50}) { // the last: a start in 1970
        count_at(NOW_S - back_s);
        EXPECT_EQ(minutes(), minute_s) << back_s;
    }
    EXPECT_EQ(number("SELECT count(*) FROM minutes"), 1);
    open();
    // Four years ahead: nothing old goes before the clock has stayed there.
    const int64_t ahead_s = NOW_S + 4 * 365 * DAY_S;
    count_at(ahead_s);
    mono_ms += timeline::DOUBT_MS - 1;
    count_at(ahead_s + 60);
    EXPECT_EQ(number("SELECT min(start) FROM minutes"), minute_s);
    // It was wrong. What was counted then isn't left in the future for ever.
    count_at(NOW_S + 120);
    EXPECT_GT(minutes(), ahead_s);
    mono_ms += timeline::DOUBT_MS;
    count_at(NOW_S + 180);
    EXPECT_EQ(minutes(), minute_s + 180);
    EXPECT_EQ(number("SELECT max(start) FROM days"), begin_of(PERIODS[DAYS], NOW_S));
    EXPECT_EQ(bytes(), 8U);
    EXPECT_EQ(bytes(NOW_S + 120), 4U);
    // And if it is right, what is old goes.
    count_at(ahead_s);
    mono_ms += timeline::DOUBT_MS;
    count_at(ahead_s + 60);
    EXPECT_EQ(number("SELECT count(DISTINCT start) FROM days"), 1);
    EXPECT_EQ(bytes(), 2U);
}

// A byte more each hour of four months, at the half; minutes, hours and days end where they should,
// and what is left of them together has no gap and nothing twice.
TEST_F(AvwatchHistory, PeriodsAreCutWithoutAGap) {
    setenv("TZ", "XYZ-5:30", 1);
    tzset();
    constexpr int hours = 120 * 24;
    const int64_t first_s = NOW_S - hours * HOUR_S;
    for (int hour = 0; hour <= hours; ++hour) {
        add("application", 1);
        write(first_s + hour * HOUR_S);
        mono_ms += HOUR_S * 1'000;
    }
    tidy();
    EXPECT_EQ(bytes(), hours + 1U);
    EXPECT_EQ(number("SELECT min(start) FROM minutes"),
              begin_of(PERIODS[HOURS], NOW_S - 2 * DAY_S) + NOW_S % HOUR_S / 60 * 60);
    EXPECT_EQ(number("SELECT min(start) FROM hours"), begin_of(PERIODS[DAYS], NOW_S - 60 * DAY_S));
    const int64_t hours_from_s = read(0).reach.hours_from_s;
    const auto days = bytes_by(grouping::day);
    uint64_t sum = 0;
    for (const auto &[start_s, count] : days) {
        sum += count;
        const bool is_whole_day = start_s > first_s && start_s < hours_from_s - DAY_S;
        EXPECT_TRUE(!is_whole_day || count == 24) << count;
        const bool is_local_day = start_s > hours_from_s;
        EXPECT_TRUE(!is_local_day || (start_s + 5 * HOUR_S + HOUR_S / 2) % DAY_S == 0) << start_s;
    }
    EXPECT_EQ(sum, hours + 1U);
    EXPECT_EQ(bytes_by(grouping::hour).size(), size_t((NOW_S - hours_from_s) / HOUR_S + 1));
    EXPECT_EQ(bytes(NOW_S - 60), 1U); // minutes, where they are
    EXPECT_EQ(bytes(NOW_S - HOUR_S), 2U);
    EXPECT_EQ(bytes(NOW_S - 30 * DAY_S + 60), 30 * 24 + 1U); // whole hours
    unsetenv("TZ");
    tzset();
}

TEST_F(AvwatchHistory, MadeUpNamesFillNeitherRowsNorSeriesNorFile) {
    settings.limit_mb = LIMIT_MB_MIN;
    settings.client_metrics = true;
    open();
    constexpr uint64_t big = totals::SERIES_BYTES;
    for (unsigned i = 0; i < 250; ++i)
        add("site" + std::to_string(i) + ".example", i % 2 == 0 ? big : 1);
    write(NOW_S);
    EXPECT_EQ(number("SELECT count(*) FROM hours"), int64_t{store::APPLICATIONS_MAX} + 1);
    EXPECT_EQ(kept->committed().applications().size(), totals::SERIES_MAX + 1);
    add("one.example", 5, "02:00:00:00:00:02"); // another client has room of its own
    write(NOW_S);
    EXPECT_EQ(number("SELECT count(*) FROM hours"), int64_t{store::APPLICATIONS_MAX} + 2);
    // Four days of clients and names that are never seen again.
    uint64_t expected = 125 * big + 125 + 5;
    for (unsigned i = 0; i < 100'000; ++i) {
        add(std::to_string(i) + ".example", 3, "02:00:00:01:" + std::to_string(i));
        expected += 3;
        if (i % 1'000 == 0) {
            mono_ms += HOUR_S * 1'000;
            write(NOW_S + i / 1'000 * HOUR_S);
            tidy();
        }
    }
    write(NOW_S + 100 * HOUR_S);
    tidy();
    EXPECT_LE(kept->size_bytes(), LIMIT_MB_MIN * 1'000'000U);
    EXPECT_EQ(number("SELECT count(DISTINCT start) FROM minutes"), 1);
    EXPECT_GT(number("SELECT count(DISTINCT start) FROM days"), 1);
    EXPECT_EQ(bytes(), uint64_t(number("SELECT sum(down_bytes) FROM days")));
    EXPECT_EQ(number("SELECT count(*) FROM days WHERE client NOT IN (SELECT id FROM clients) OR "
                     "application NOT IN (SELECT id FROM applications)"),
              0);
    EXPECT_EQ(kept->committed().clients().size(), totals::CLIENTS_MAX + 1);
    uint64_t counted = 0;
    open(); // the totals are the file's
    for (const auto &[series, values] : kept->committed().applications())
        counted += values[DOWN_BYTES];
    EXPECT_EQ(counted, expected);
}

TEST_F(AvwatchHistory, NamesAreCutDown) {
    const struct {
        const char *application, *named_by, *domain, *none;
    } rows[] = {
        {"www.a.example.co.uk", "dns", "example.co.uk", "by name"},
        {"WWW.Example.org", "handshake", "example.org", "by name"},
        {"router", "dns", "router", "by name"},
        {"co.uk", "tables", "co.uk", "by name"},
        {"intranet.example.org", "administrator", "intranet.example.org", "intranet.example.org"},
        {"tube", "dpi", "tube", "tube"},
        {"192.0.2.1", "", "by address", "by name"},
        {"2001:db8::1", "tables", "by address", "by name"},
        {"", "", "", ""},
    };
    for (const auto &row : rows) {
        const application_name name = classify(row.application, row.named_by);
        EXPECT_EQ(reduced(name, names_kept::full).text, row.application);
        const application_name domain = reduced(name, names_kept::domain);
        EXPECT_EQ(domain.text, row.domain);
        EXPECT_EQ(reduced(domain, names_kept::domain), domain);
        EXPECT_EQ(reduced(name, names_kept::none).text, row.none);
    }
    const application_name cut = classify("\xC3\xA4" + std::string(NAME_MAX_BYTES - 1, 'x'), "dns");
    EXPECT_EQ(cut.text, std::string(NAME_MAX_BYTES - 1, 'x'));
}

TEST_F(AvwatchHistory, MetricsAreEscapedAndLabelledOnce) {
    for (const char *name : {"a\"b\\c\n.example", "a\"b\\c\r.example", ""})
        add(name, totals::SERIES_BYTES);
    write(NOW_S);
    health state;
    state.gate =
        numbers_in({{"there", true}, {"counts", {{"denied", 7U}}}, {"fail", "open"}, {"beat", -1}});
    const std::string text = metrics_text(kept->committed(), state, {});
    for (const char *line :
         {"jorn_bytes_total{application=\"a\\\"b\\\\c?.example\",verdict=\"none\",direction="
          "\"down\"} 2000000\n",
          "jorn_bytes_total{application=\"unnamed\",verdict=\"none\",direction=\"down\"} 1000000\n",
          "jorn_bytes_total{application=\"other\",verdict=\"deny\",direction=\"up\"} 0\n",
          "jorn_gate_value{name=\"there\"} 1\n", "jorn_gate_value{name=\"counts.denied\"} 7\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line << text;
    EXPECT_EQ(text.find("open"), text.find("open_flows")); // what isn't a number isn't there
}

} // namespace
