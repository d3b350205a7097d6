// The interface that avcore makes for the daemon to capture on, and takes away at its end: the far
// end of a veth pair, or a TAP device. Nothing but avcore's frames is on it: it has no ARP, no IPv6
// and no address.
//
// It is known by its alias. A TAP device goes with the process that made it; a pair is left over by
// one that was killed, and the next avcore takes it over as it is, so that the daemon notices
// nothing. An interface that avcore didn't make is never touched.
#pragma once

#include "avcore/records/capture_settings.h"
#include "shared/unique_fd.h"

#include <cstdint>
#include <string>
#include <vector>

namespace avcore {

// Throws std::runtime_error where the constructor would, but for an interface that an avcore which
// runs has: before a restart it is that one's.
void check_capture_name(const std::string &name);

// Those of killed avcores, whatever their names; what can't be taken away stays.
void remove_leftover_pairs();

class capture_interface {
public:
    // Throws std::runtime_error.
    explicit capture_interface(const capture_settings &wanted);

    const std::string &name() const { return name_; }
    // Of a pair: the interface into which frames are written; empty: they are written to `tap`.
    const std::string &entry() const { return entry_; }
    int tap() const { return tap_.get(); }
    // Once `entry` is written into: two that were started at once may have taken the same pair. Who
    // finds another there leaves it to him, and throws std::runtime_error; that may be both.
    void refuse_company();
    // After how many milliseconds the daemon's capture closes a block.
    int64_t timer_ms() const { return timer_ms_; }
    // What is other than it was wanted, for people.
    const std::vector<std::string> &remarks() const { return remarks_; }

private:
    // Removed with this object.
    class pair {
    public:
        pair() = default;
        pair(const pair &) = delete;
        pair &operator=(const pair &) = delete;
        ~pair();
        void own(int index) { index_ = index; }
        int index() const { return index_; }

    private:
        int index_ = 0; // of its near end
    };

    void make_tap(const capture_settings &wanted);
    void make_pair(int near_end);
    void finish(const std::string &made_as, const std::string &name, uint32_t mtu,
                const char *alias);

    std::string name_;
    std::string entry_;
    pair pair_;
    unique_fd tap_;
    int64_t timer_ms_ = 1;
    std::vector<std::string> remarks_;
};

} // namespace avcore
