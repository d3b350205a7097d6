// Flows for collectors: messages as a reader finds them who knows nothing but their templates,
// names, numbers that stay, and what of a flow is told when, each count once.
#include "avwatch/export/application_ids.h"
#include "avwatch/export/collector.h"
#include "avwatch/export/due_flows.h"
#include "avwatch/export/record_maker.h"
#include "avwatch/history/export_rows.h"
#include "avwatch/history/schema.h"
#include "avwatch/ipfix/messages.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <netdb.h>
#include <poll.h>
#include <random>
#include <sys/socket.h>

namespace {

std::vector<std::string> looked_up; // addresses of the one name that there is

} // namespace

// In the C library's place.
int getaddrinfo(const char * /*name*/, const char *service, const addrinfo * /*wanted*/,
                addrinfo **found) {
    *found = nullptr;
    for (auto each = looked_up.rbegin(); each != looked_up.rend(); ++each) {
        auto *address = new sockaddr_in();
        address->sin_family = AF_INET;
        address->sin_port = htons(static_cast<uint16_t>(std::stoi(service)));
        inet_pton(AF_INET, each->c_str(), &address->sin_addr);
        *found = new addrinfo{0,       AF_INET,         SOCK_DGRAM,
                              0,       sizeof *address, reinterpret_cast<sockaddr *>(address),
                              nullptr, *found};
    }
    return *found != nullptr ? 0 : EAI_NONAME;
}

void freeaddrinfo(addrinfo *found) {
    while (found != nullptr) {
        addrinfo *next = found->ai_next;
        delete static_cast<sockaddr_in *>(static_cast<void *>(found->ai_addr));
        delete std::exchange(found, next);
    }
}

namespace {

using namespace avwatch;

// Elements by number; those of an enterprise above 2^16.
using read_record = std::map<uint32_t, std::string>;

struct ipfix_reader {
    struct read_field {
        uint32_t element;
        size_t size;
    };
    std::map<uint16_t, std::vector<read_field>> templates;
    std::map<uint16_t, std::vector<read_record>> records; // by template
    uint32_t sequence = 0;                                // that is expected
    std::string_view left;

    uint64_t number(size_t size) {
        uint64_t value = 0;
        for (const char each : bytes(size))
            value = value << 8 | static_cast<uint8_t>(each);
        return value;
    }
    std::string_view bytes(size_t size) {
        EXPECT_LE(size, left.size());
        const std::string_view taken = left.substr(0, size);
        left.remove_prefix(taken.size());
        return taken;
    }
    void read_template(bool is_options) {
        const auto id = static_cast<uint16_t>(number(2));
        const uint64_t count = number(2);
        EXPECT_EQ(is_options ? number(2) : 1, 1u);
        std::vector<read_field> &fields = templates[id];
        fields.clear();
        for (uint64_t i = 0; i < count; ++i) {
            const auto element = static_cast<uint32_t>(number(2));
            const auto size = static_cast<size_t>(number(2));
            const bool is_own = (element & 0x8000) != 0;
            fields.push_back({is_own ? (element & 0x7FFF) | 1u << 16 : element, size});
            EXPECT_EQ(is_own ? number(4) : 99'999, 99'999u);
        }
    }
    void read(ipfix_message message) {
        ASSERT_LE(message.bytes.size(), ipfix_messages::MESSAGE_MAX);
        message.stamp(1'764'150'000, sequence);
        left = message.bytes;
        const uint32_t end = sequence + message.records;
        EXPECT_EQ(number(2), 10u);
        EXPECT_EQ(number(2), message.bytes.size());
        EXPECT_EQ(number(4), 1'764'150'000u);
        EXPECT_EQ(number(4), sequence);
        EXPECT_EQ(number(4), 1u);
        while (!left.empty()) {
            const auto id = static_cast<uint16_t>(number(2));
            std::string_view behind = left;
            const auto size = static_cast<size_t>(number(2));
            behind.remove_prefix(size - 2);
            while (left.size() > behind.size())
                id <= 3 ? read_template(id == 3) : read_data(id);
            EXPECT_EQ(left.data(), behind.data());
        }
        EXPECT_EQ(sequence, end);
    }
    void read_data(uint16_t id) {
        ASSERT_TRUE(templates.contains(id)) << id;
        read_record &record = records[id].emplace_back();
        for (const read_field &each : templates[id])
            record[each.element] = bytes(each.size);
        ++sequence;
    }
};

std::string octets(uint64_t value, size_t size) {
    std::string text;
    for (size_t i = size; i-- > 0;)
        text += static_cast<char>(value >> 8 * i);
    return text;
}

exported_record sample(unsigned kind) {
    exported_record record;
    record.from_client = (kind & 1) == 0;
    record.application = (kind & 2) == 0 ? application_id{NDPI_ENGINE, 0x0124}
                                         : application_id{USER_DEFINED_ENGINE, 0x10203};
    record.is_ipv6 = (kind & 4) != 0;
    for (size_t i = 0; i < record.source.size(); ++i) {
        record.source[i] = static_cast<uint8_t>(i);
        record.destination[i] = static_cast<uint8_t>(0x80 + i);
    }
    record.source_port = 40'000;
    record.protocol = 6;
    record.bytes = 0x0102030405060708;
    record.begun_ms = 1'764'150'000'123;
    record.status = DROPPED_BY_LIMIT;
    record.station = {2, 0, 0, 0, 0, 1};
    record.reason = "category 69 (Games)";
    return record;
}

TEST(AvwatchExport, MessagesAreReadByTheirTemplates) {
    for (const bool with_clients : {true, false}) {
        ipfix_messages messages(
            {1, with_clients, with_clients ? std::optional(99'999u) : std::nullopt});
        messages.add_templates();
        messages.add_sampling();
        messages.add_interface(7, "wlan0");
        for (unsigned i = 0; i < 8'000; ++i)
            messages.add_record(sample(i % 8));
        ipfix_reader reader;
        EXPECT_GT(messages.waiting(), 1u);
        for (const ipfix_message &each : messages.take())
            reader.read(each);
        EXPECT_EQ(messages.waiting(), 0u);
        EXPECT_EQ(reader.records[267].at(0)[34], octets(1, 4));
        EXPECT_EQ(reader.records[266].at(0)[82], std::string("wlan0").append(11, '\0'));
        for (unsigned kind = 0; kind < 8; ++kind) {
            const auto &read = reader.records[static_cast<uint16_t>(256 + kind)];
            ASSERT_EQ(read.size(), 1'000u);
            read_record record = read.back();
            EXPECT_EQ(record.count((kind & 1) == 0 ? 56 : 80), with_clients);
            EXPECT_EQ(record.count(365), with_clients);
            EXPECT_EQ(record[1], octets(0x0102030405060708, 8));
            EXPECT_EQ(record[152], octets(1'764'150'000'123, 8));
            EXPECT_EQ(record[61], octets(kind & 1, 1));
            EXPECT_EQ(record[89], "\x8A");
            EXPECT_EQ(record[95], (kind & 2) == 0 ? octets(0x160124, 3) : octets(0x0600010203, 5));
            EXPECT_EQ(record[(kind & 4) == 0 ? 8 : 27].substr(0, 2),
                      (kind & 4) == 0 ? "\x0C\x0D" : octets(1, 2));
            EXPECT_EQ(record.count(1 << 16 | 2), with_clients);
            EXPECT_EQ(record[1 << 16 | 2],
                      with_clients ? std::string("category 69 (Games)").append(45, '\0') : "");
        }
    }
}

// As RFC 7011 draws them, byte by byte: the message's header and the first template.
TEST(AvwatchExport, TemplatesAreThese) {
    ipfix_messages messages({});
    messages.add_templates();
    std::vector<ipfix_message> made = messages.take();
    made.at(0).stamp(0x01020304, 0);
    const std::string expected(
        "\0\x0A\3\x30\1\2\3\4\0\0\0\0\0\0\0\1\0\2\2\xC4\1\0\0\x15\0\x08\0\4\0\x0C\0\4\0\7\0\2\0"
        "\x0B\0\2\0"
        "\4\0\1\0\xC3\0\1\0\x3D\0\1\0\1\0\x08\0\2\0\x08\0\x85\0\x08\0\x98\0\x08\0\x99\0\x08\0\x0A\0"
        "\4\0\x0E"
        "\0\4\0\x88\0\1\0\x59\0\1\0\xE9\0\1\0\x5F\0\3\1\x6D\0\6\0\x38\0\6\1\x6F\0\6\1\1\0\x15",
        112);
    EXPECT_EQ(made.at(0).bytes.substr(0, expected.size()), expected);
}

TEST(AvwatchExport, NamesAreCutAtACharacter) {
    application_numbers numbers;
    application_ids ids(numbers);
    ipfix_messages messages({});
    messages.add_templates();
    const std::string euro = "\xE2\x82\xAC";
    std::string longest;
    for (int i = 0; i < 100; ++i)
        longest += euro;
    for (const std::string &name :
         {longest, std::string("a\x1B[2J\n\0\xFF\xE2\x80\xAE.example", 19)}) {
        const application_id id = ids.id_of({name, false}, 0, names_kept::full);
        messages.add_application(id, ids.description_of(id), ids.name_of(id));
    }
    ipfix_reader reader;
    for (const ipfix_message &each : messages.take())
        reader.read(each);
    EXPECT_EQ(reader.records[265].at(0)[96], longest.substr(0, 63) + '\0');
    EXPECT_EQ(reader.records[265].at(1)[96].substr(0, 18),
              std::string("a?[2J????.example", 17) + '\0');
}

TEST(AvwatchExport, NumbersMeanTheSameForEver) {
    std::string folder = "/tmp/export-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    std::string path = folder + "/history.db";
    std::map<uint32_t, int> meant;
    const auto run = [&](int from, int to) { // a turn of its own
        database file(path, database::access::create);
        prepare_history(file);
        application_numbers numbers;
        read_numbers(file, numbers);
        const uint32_t next = numbers.next();
        int other = 0;
        for (int i = from; i < to; ++i) {
            const uint32_t number = numbers.number_of({"site" + std::to_string(i), true});
            if (number == application_numbers::OTHER_NUMBER)
                ++other;
            else
                EXPECT_EQ(meant.try_emplace(number, i).first->second, i);
        }
        // One that isn't reserved means nothing, for the next run may give it to another one.
        const uint32_t last = numbers.next() - 1;
        EXPECT_FALSE(numbers.use(last));
        write_numbers(file, numbers);
        EXPECT_EQ(numbers.use(last), numbers.next() != next);
        return other;
    };
    constexpr int max = application_numbers::MAX;
    constexpr int room = application_numbers::ROOM;
    EXPECT_EQ(run(0, 1'000), 0);
    EXPECT_EQ(run(500, max), 0); // all have a number
    EXPECT_EQ(run(1'000, max), 0);
    EXPECT_EQ(run(max, max + 500), 0); // of the first turn
    EXPECT_EQ(run(500, max), 0);       // of whom some made room
    EXPECT_EQ(meant.size(), size_t{max} + room);
    EXPECT_GT(run(0, 2 * max), 0); // in one turn no more than there is room for
    const size_t before = meant.size();
    EXPECT_EQ(run(3 * max, 3 * max + room), 0);
    EXPECT_EQ(meant.size(), before + room); // not one was given twice
    path = folder + "/another.db";          // nor by a file that knows nothing of them
    EXPECT_EQ(run(4 * max, 4 * max + 100), 0);
    EXPECT_EQ(meant.size(), before + room + 100);

    database file(path, database::access::create); // nor after a power cut, which takes the latest
    application_numbers numbers, again;
    read_numbers(file, numbers);
    numbers.number_of({"kept", true});
    write_numbers(file, numbers);
    file.run("VACUUM INTO '" + folder + "/left.db'");
    numbers.number_of({"lost", true});
    write_numbers(file, numbers);
    database left(folder + "/left.db", database::access::read_only);
    read_numbers(left, again);
    EXPECT_GE(again.next(), numbers.next());
    std::filesystem::remove_all(folder);
}

TEST(AvwatchExport, ANumberThatIsInUseStays) {
    application_numbers numbers;
    const uint32_t long_lived = numbers.number_of({"vpn", false});
    const uint32_t unused = numbers.number_of({"gone", false});
    numbers.reserve(numbers.next());
    numbers.begin_turn();
    EXPECT_TRUE(numbers.use(long_lived)); // of a flow that goes on, and is named no more
    for (size_t i = 0; i < application_numbers::MAX; ++i)
        numbers.number_of({std::to_string(i), false});
    EXPECT_TRUE(numbers.use(long_lived));
    EXPECT_FALSE(numbers.use(unused));
}

TEST(AvwatchExport, EngineNumbersKeepTheirNames) {
    application_numbers numbers;
    application_ids ids(numbers);
    const application_id id = ids.id_of({"youtube", false}, 124, names_kept::none);
    EXPECT_EQ(id, (application_id{NDPI_ENGINE, 124}));
    EXPECT_EQ(ids.name_of(id), "youtube");
    const application_id another = ids.id_of({"vimeo", false}, 124, names_kept::none);
    EXPECT_EQ(another.engine, USER_DEFINED_ENGINE);
    EXPECT_EQ(ids.name_of(another), "vimeo");
    EXPECT_EQ(ids.name_of(ids.id_of({"www.example.com", true}, 0, names_kept::none)), "by name");
    EXPECT_EQ(ids.name_of(ids.id_of({}, 0, names_kept::full)), "unnamed");
}

struct AvwatchCollector : testing::Test {
    int64_t now_ms = 0;
    int opened = 0;
    uint16_t port = 0;
    unique_fd first = listen_at("127.0.0.1"), second = listen_at("127.0.0.2");
    collector to{{"udp://x", "x", std::to_string(port)}, [this] {
                     ++opened;
                     return made(3);
                 }};

    unique_fd listen_at(const char *text) {
        unique_fd fd(socket(AF_INET, SOCK_DGRAM, 0));
        sockaddr_in address = {AF_INET, htons(port), {}, {}};
        socklen_t size = sizeof address;
        inet_pton(AF_INET, text, &address.sin_addr);
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&address), size), 0);
        getsockname(fd.get(), reinterpret_cast<sockaddr *>(&address), &size);
        port = ntohs(address.sin_port);
        return fd;
    }
    static std::vector<ipfix_message> made(int records) {
        ipfix_messages messages({});
        for (int i = 0; i < records; ++i)
            messages.add_sampling();
        return messages.take();
    }
    void look_up(std::vector<std::string> addresses) {
        looked_up = std::move(addresses);
        now_ms += collector::LOOK_UP_MS;
        to.serve(now_ms);
        pollfd done = {to.descriptor(), POLLIN, 0};
        EXPECT_EQ(poll(&done, 1, 10'000), 1);
        serve();
    }
    void serve() {
        to.serve(now_ms += collector::PACE_MS);
        to.serve(now_ms += collector::PACE_MS);
    }
    static std::vector<int> sequences(const unique_fd &at) {
        std::vector<int> all;
        for (char message[1'500]; recv(at.get(), message, sizeof message, MSG_DONTWAIT) > 0;)
            all.push_back(message[11]);
        return all;
    }
};

TEST_F(AvwatchCollector, SessionsBeginWithWhatExplainsThem) {
    testing::internal::CaptureStderr();
    to.send(made(5)); // and waits
    look_up({});
    look_up({});
    look_up({"127.0.0.1"});
    to.send(made(7));
    look_up({"127.0.0.2", "127.0.0.1"}); // in another order each time
    EXPECT_EQ(sequences(first), (std::vector<int>{0, 3, 8}));
    EXPECT_EQ(opened, 1);
    to.send(made(1));
    look_up({"127.0.0.2"});
    look_up({}); // it may be so for a while
    to.send(made(1));
    serve();
    EXPECT_EQ(sequences(first), std::vector<int>{15});
    EXPECT_EQ(sequences(second), (std::vector<int>{0, 3}));
    EXPECT_EQ(to.failed(), 0u);

    second = unique_fd();
    const uint64_t sent = to.sent();
    for (int i = 0; i < 20; ++i) {
        to.send(made(1));
        serve();
    }
    EXPECT_EQ(to.sent(), sent + 20);
    EXPECT_EQ(to.failed(), 19u); // the last one's refusal isn't known yet
    now_ms += collector::CALM_MS;
    second = listen_at("127.0.0.2");
    to.send(made(1)); // that refusal is told now
    serve();
    now_ms += collector::CALM_MS;
    to.send(made(1));
    serve();
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::ranges::count(said, '\n'), 4) << said;
}

struct AvwatchDueFlows : testing::Test {
    application_numbers numbers;
    application_ids ids{numbers};
    due_flows flows{{{10'000, 10'000}, {60'000, 5'000}},
                    {[this](size_t, const application_name &name, uint64_t) {
                         return ids.id_of(name, 0, names_kept::full);
                     },
                     [](const std::string &) { return uint16_t{0}; }}};
    std::string application = "first";
    flow_counts told = {}, given[2] = {};
    std::vector<exported_record> records[2];
    bool has_room[2] = {true, true};

    flow_record flow(uint64_t last_us, const std::string &ended = "") {
        flow_record record;
        record.id = "f";
        record.client = "192.0.2.1";
        record.server = "198.51.100.7";
        record.protocol = "TCP";
        record.application = application;
        record.begun_us = 1'000'000;
        record.last_us = last_us;
        record.ended = ended;
        record.up = {told[UP_PACKETS], told[UP_BYTES]};
        record.down = {told[DOWN_PACKETS], told[DOWN_BYTES]};
        record.dropped = {told[DENIED_PACKETS], told[LIMITED_PACKETS]};
        return record;
    }
    void grow(const flow_counts &more, uint64_t last_us, int64_t now_ms,
              const std::string &ended = "") {
        for (size_t i = 0; i < FLOW_COUNTS; ++i)
            told[i] += more[i];
        flows.take(flow(last_us, ended), {more, ledger::HELD_MS}, now_ms);
    }
    void give(int64_t now_ms, bool all = false) {
        flows.give(now_ms, all, [&](size_t place, const flow_part &part) {
            if (!has_room[place])
                return false;
            for (size_t i = 0; i < FLOW_COUNTS; ++i)
                given[place][i] += part.counts[i];
            for (const exported_record &each : records_of(part, {}, {}))
                records[place].push_back(each);
            return true;
        });
    }
};

TEST_F(AvwatchDueFlows, EachCountOnceWhateverTheTimeouts) {
    std::mt19937 random(7);
    for (int64_t now_ms = 0; now_ms < 600'000; now_ms += 1'000) {
        application = random() % 50 == 0 ? std::to_string(random() % 9) : application;
        if (random() % 5 == 0)
            grow({random() % 3, random() % 900, random() % 9, random() % 9'000, random() % 2,
                  random() % 2},
                 static_cast<uint64_t>(now_ms) * 1'000 + 1'000'000, now_ms);
        has_room[0] = random() % 4 != 0;
        has_room[1] = random() % 4 != 0;
        give(now_ms);
    }
    has_room[0] = has_room[1] = true;
    grow({1, 40, 0, 0, 0, 0}, 601'000'000, 600'000, "fin");
    give(600'000);
    EXPECT_EQ(flows.size(), 0u);
    for (size_t place = 0; place < 2; ++place) {
        EXPECT_EQ(given[place], told);
        uint64_t bytes = 0, packets = 0, dropped = 0;
        for (const exported_record &each : records[place]) {
            bytes += each.bytes;
            packets += each.packets;
            dropped += each.dropped;
            EXPECT_LE(each.begun_ms, each.ended_ms);
        }
        EXPECT_EQ(bytes, told[UP_BYTES] + told[DOWN_BYTES]);
        EXPECT_EQ(packets, told[UP_PACKETS] + told[DOWN_PACKETS]);
        EXPECT_EQ(dropped, told[DENIED_PACKETS] + told[LIMITED_PACKETS]);
        EXPECT_EQ(records[place].back().end_reason, END_DETECTED);
    }
    EXPECT_NE(records[0].size(), records[1].size());
}

TEST_F(AvwatchDueFlows, TimeoutsEndsAndClocks) {
    flows.set_clock(1'000'000);
    grow({1, 60, 1, 60, 0, 0}, 2'000'000, 3'000); // two seconds ago
    give(5'999);
    EXPECT_EQ(records[1].size(), 0u);
    give(6'000);
    ASSERT_EQ(records[1].size(), 2u);
    EXPECT_EQ(records[1][0].end_reason, END_INACTIVE);
    EXPECT_EQ(records[1][0].event, FLOW_CREATED);
    EXPECT_EQ(records[0].size(), 0u);
    flows.set_clock(-400'000);
    grow({0, 0, 0, 0, 0, 3}, 9'600'000, 10'000); // the clock was set back by 1.4 s, after it
    give(13'000);
    ASSERT_EQ(records[0].size(), 2u);
    EXPECT_EQ(records[0][0].end_reason, END_ACTIVE_TIMEOUT);
    EXPECT_EQ(records[0][0].begun_ms, 0u);
    EXPECT_EQ(records[0][0].ended_ms, 9'600u);
    EXPECT_EQ(records[0][0].status, DROPPED_BY_LIMIT);
    EXPECT_EQ(records[0][0].dropped, 3u);
    EXPECT_EQ(records[0][1].dropped, 0u); // once, not in each direction
    give(15'000);
    EXPECT_EQ(records[1].back().begun_ms, 7'100u); // behind the silence
    grow({0, 0, 5, 5, 0, 0}, 3'000'000, 16'000);
    flows.connected("another boot", -1); // where no flow goes on
    give(16'000);
    EXPECT_EQ(records[0].back().end_reason, END_FORCED);
    EXPECT_FALSE(records[0].back().from_client);
    EXPECT_EQ(flows.size(), 0u);

    sum_record sum;
    sum.client_mac = "02:00:00:00:00:01";
    sum.verdict = "deny";
    sum.dropped.denied = 4;
    flows.take(sum, 16'000);
    give(16'000);
    EXPECT_EQ(records[0].back().station, (exported_record::mac_address{2, 0, 0, 0, 0, 1}));
    EXPECT_EQ(records[0].back().event, FLOW_DENIED);
    EXPECT_EQ(records[0].back().dropped, 4u);

    // A flow that an earlier run has told of, at the end of this one.
    flows.connected("another boot", 18'000);
    told = {9, 900, 0, 0, 0, 0};
    grow({1, 100, 0, 0, 0, 0}, 19'000'000, 20'000);
    give(20'000, true);
    EXPECT_EQ(records[0].back().event, FLOW_UPDATED);
    EXPECT_EQ(records[0].back().bytes, 100u);
    EXPECT_EQ(records[0].back().begun_ms, 17'600u);
    EXPECT_EQ(records[0].back().end_reason, END_FORCED);
    give(20'000 + due_flows::SILENT_MS);
    EXPECT_EQ(flows.size(), 0u);
}

// What a flow has until it is held no longer is its later name's, as in the history.
TEST_F(AvwatchDueFlows, NamesThatComeLater) {
    const auto sums = [&] {
        std::map<std::string, uint64_t> by_name;
        for (const exported_record &each : records[0])
            by_name[ids.name_of(each.application)] += each.bytes;
        return by_name;
    };
    application = "";
    grow({1, 100, 0, 0, 0, 0}, 1'000'000, 0);
    application = "second";
    grow({1, 20, 0, 0, 0, 0}, 9'000'000, 8'000);
    give(10'000);
    grow({1, 3, 0, 0, 0, 0}, 12'000'000, 11'000);
    application = "third";
    grow({1, 5'000, 0, 0, 0, 0}, 13'000'000, 12'000);
    give(12'000);
    EXPECT_EQ(records[0].back().event, FLOW_UPDATED);
    give(30'000);
    using by_name = std::map<std::string, uint64_t>;
    EXPECT_EQ(sums(), (by_name{{"second", 123}, {"third", 5'000}}));
    EXPECT_EQ(given[0], told);
}

TEST_F(AvwatchDueFlows, OnesTroubleIsNotAnothers) {
    has_room[1] = false;
    constexpr size_t count = due_flows::FLOWS_MAX + 20'000;
    for (size_t i = 0; i < count; ++i) {
        flow_record many = flow(1, "fin");
        many.id = std::to_string(i);
        flows.take(many, {{1, 100, 0, 0, 0, 0}, 0}, 0);
        if (i % 10'000 == 0)
            give(0);
    }
    give(0);
    EXPECT_EQ(given[0][UP_PACKETS], count);
    EXPECT_EQ(flows.left_out(0), 0u);
    has_room[1] = true;
    give(0);
    EXPECT_EQ(flows.size(), 0u);
    EXPECT_GT(given[1][UP_PACKETS], 0u);
    EXPECT_EQ(given[1][UP_PACKETS] + flows.left_out(1), count);

    for (size_t i = 0; i < due_flows::FLOWS_MAX + 5; ++i) {
        flow_record many = flow(1);
        many.id = std::to_string(i);
        flows.take(many, {}, 0);
    }
    EXPECT_EQ(flows.size(), due_flows::FLOWS_MAX);
    EXPECT_EQ(flows.left_out(0), 5u);
}

} // namespace
