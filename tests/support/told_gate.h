// The gate's own program, attached nowhere: the kernel runs it for one packet after the other, at
// the time that it is told. Throws std::runtime_error where the kernel refuses anything.
#pragma once

#include "avcore/records/gate_records.h"

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

class told_gate {
public:
    using octets = std::basic_string<uint8_t>;

    struct bounds { // of its maps
        uint32_t flows = GATE_FLOWS;
        uint32_t clients = GATE_CLIENTS;
        uint32_t holds = GATE_HOLDS;
        uint32_t ring_bytes = GATE_RING_BYTES;
    };
    struct packet {
        octets frame;
        gate_direction way = GATE_UP;
        uint32_t if_index = 0;
        uint32_t mark = 0;
        uint32_t priority = 0;
        uint32_t segments = 1;
        uint32_t segment_size = 0;
    };
    struct outcome {
        bool passes;
        octets frame;
        uint32_t mark;
        uint32_t priority;
    };
    struct copy {
        gate_copy head;
        octets frame;
    };

    explicit told_gate(const bounds &sizes);
    ~told_gate();

    static constexpr uint64_t TICK_NS = 4'000'000;
    void tell_time(uint64_t now_ns);
    outcome run(const packet &given);
    std::deque<copy> take_copies();
    std::array<uint64_t, GATE_COUNTS> counts() const;
    gate_counter counter_of(const gate_flow &flow) const;

    template <typename key_type, typename value_type>
    void write(const char *map, const key_type &key, const value_type &value) {
        write_bytes(map, &key, &value);
    }
    // Also where the kernel has forgotten it to make room.
    template <typename key_type>
    bool knows(const char *map, const key_type &key) const {
        return knows_bytes(map, &key);
    }

private:
    struct parts;
    std::unique_ptr<parts> parts_;

    void write_bytes(const char *map, const void *key, const void *value);
    bool knows_bytes(const char *map, const void *key) const;
};
