// One TCP connection between access points, with TLS on it or without. Nothing here blocks or
// signals; whoever holds it waits for the descriptor and says when to go on.
#pragma once

#include "shared/unique_fd.h"

#include <cstddef>
#include <memory>
#include <span>
#include <string>

namespace avcore {

class transport {
public:
    enum class outcome {
        done,
        wants_read, // nothing now: again when the descriptor is readable
        wants_write,
        ended,  // the other side closed it
        failed, // `why` says how
    };
    struct transfer {
        outcome what;
        size_t size = 0; // when done, at least 1
    };

    explicit transport(unique_fd fd) : fd_(std::move(fd)) {}
    virtual ~transport() = default;
    transport(const transport &) = delete;
    transport &operator=(const transport &) = delete;

    // One step towards `done`: both sides know who the other is, as far as they can. The side that
    // dialled may have done its part (`awaits_word`) before the other has judged its certificate;
    // whoever has no patience left takes the other's silence for consent.
    virtual outcome authenticate(bool patient) = 0;
    virtual bool awaits_word() const { return false; }

    virtual transfer read(std::span<std::byte> bytes) = 0;
    virtual transfer write(std::span<const std::byte> bytes) = 0;
    // Whether bytes can be read that the descriptor no longer shows.
    virtual bool has_more() const { return false; }

    // The name in the other side's certificate; empty where there are none.
    virtual const std::string &peer_name() const = 0;
    const std::string &why() const { return why_; }
    int fd() const { return fd_.get(); }

protected:
    outcome fail(std::string why) {
        why_ = std::move(why);
        return outcome::failed;
    }

private:
    unique_fd fd_;
    std::string why_;
};

// Without TLS: everybody is let in, nobody has a name.
std::unique_ptr<transport> plain_transport(unique_fd fd);

} // namespace avcore
