// The watch socket: what avcore knows of flows, clients and itself, for whoever may open it
// (docs/watch.md).
//
// Nothing here blocks or takes more than a few milliseconds of a turn, however many readers there
// are and whatever they ask, but for what is looked at once a second (see enforcement); a reader
// who takes nothing costs nothing but memory. While nobody is connected the rows alone are
// followed.
#pragma once

#include "avcore/base/accept_pause.h"
#include "avcore/base/local_listener.h"
#include "avcore/base/loop.h"
#include "avcore/watch/answers.h"
#include "avcore/watch/connection.h"
#include "avcore/watch/watched_flows.h"
#include "shared/unique_fd.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace avcore {

class watch {
public:
    static constexpr size_t MAX_CONNECTIONS = 16;

    // What flows don't say, as it is now.
    struct outside {
        bool has_daemon = false;
        std::string gate;                    // its state in a word; empty: there is none
        std::vector<std::string> interfaces; // of the gate's
    };
    struct surroundings {
        flow_table &flows;
        gate *behind; // null: no gate
        const config &settings;
        bool in_file_time;                 // flows' times are a file's
        std::function<int64_t()> frame_us; // time of the last frame
        std::function<outside()> look_outside;
        std::function<named_counts()> counts;
        std::function<std::string()> gate_state; // JSON; may throw std::runtime_error
        std::function<std::string(const mac_address &client)> host_name;
        std::function<std::string(const profile_question &asked)> profile; // JSON
    };

    // Listens at `path`, in a folder that is made where it can be. Throws std::runtime_error.
    watch(surroundings around, const std::string &path);

    loop::row row();

    // A frame was counted in the row, or its verdict, name or enforcement may have changed.
    void note(flow_row &row) { flows_.note(row); }
    void denied(const flow_row &row) { flows_.denied(row); }
    // All verdicts are outdated.
    void policies_changed();

    // avcore ends: what ends with it is told. True while readers are still at it.
    void stop();
    bool is_busy() const;

private:
    int64_t now_us() const; // of the flows' times
    void serve(int64_t now_ms);
    int64_t due_ms(int64_t now_ms) const;
    int64_t round_due_ms() const;
    void accept_readers(int64_t now_ms);
    void watch_listener(bool on);
    void walk(int64_t now_ms);
    void take_turns(int64_t now_ms);
    void look_around(int64_t now_ms);
    void tell_changes(const outside &before, const outside &now);
    void tell(const char *what, const std::string &members);
    std::string greeting() const;
    bool are_events_followed() const;

    surroundings around_;
    std::string run_;
    int64_t started_us_;
    local_listener listener_;
    accept_pause pause_;
    unique_fd epoll_;
    watched_flows flows_;
    watch_sources sources_;
    struct reader {
        reader(unique_fd fd, const watch_sources &sources, const std::string &greeting)
            : with(std::move(fd), sources, greeting) {}

        connection with;
        uint32_t events = 0; // that epoll waits for
        uint32_t ready = 0;
    };
    std::map<int, reader> readers_; // by descriptor
    int64_t round_wanted_ms_ = 0;
    uint64_t rounds_noted_ = 0;
    int64_t look_due_ms_ = 0;
    std::optional<outside> seen_outside_; // none while nobody follows events
};

} // namespace avcore
