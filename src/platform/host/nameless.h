// The addresses that the platform had no name for. While it says that it has learnt nothing new
// they have none, and no packet of theirs has to wait for that answer again.
//
// It says so by a word in a page that it shares (op 37 of the AV channel), asked for once on a
// connection. The page can't fault: its seals keep its size. The word is read before the question
// about a name goes out, not behind its answer, so a platform whose "none" is about to become
// untrue, or does so on its way, need only raise the word before it sends it: what is remembered
// under the earlier word no longer counts. A platform without such a page, or with another than
// agreed, is asked each time.
//
// The network chooses the addresses, so the table is fixed, and a look-up reads one cache line of
// it. In a line the address used longest ago gives way: a scan that sees each address once drives
// out flows that hardly send, and which addresses share a line is a secret, so nobody can drive out
// one flow with a few. What was driven out is asked about, as it was before.
#pragma once

#include "platform/host/av_channel.h"

#include <array>
#include <cstddef>
#include <cstdint>

class nameless_addresses {
public:
    // No system call.
    bool has(uint32_t address_be);

    // Before the platform is asked for a name. The page is asked for at the first such question of
    // a connection.
    void prepare();
    // The answer was: none.
    void remember(uint32_t address_be);

private:
    static constexpr size_t LINE_ADDRESSES = 15;
    static constexpr unsigned LINE_BITS = 8;

    struct alignas(64) line {
        uint32_t word;                                     // under which all of it was learnt
        std::array<uint32_t, LINE_ADDRESSES> addresses_be; // the one used last first; 0: none
    };
    static_assert(sizeof(line) == 64);

    void ask_for_page();
    void forget();
    bool knows() const; // of this connection
    uint32_t word_now() const;
    line &line_of(uint32_t address_be);

    const uint32_t *page_ = nullptr;       // null: nothing is remembered
    uint32_t connection_ = 0;              // that was asked for it
    uint32_t word_ = 0;                    // before the question
    uint64_t secret_ = 0x9E3779B97F4A7C15; // until one is drawn
    std::array<line, size_t{1} << LINE_BITS> lines_ = {};
};
