// The steps that the kernel's trailer drives (detect.cpp has their order).
#pragma once

#include "packet/decode/trailer.h"
#include "packet/records/context.h"

#include <cstdint>

// Who says in the log what became of them.
constexpr char DETECT_UTP[] = "jorn_detect_pkt_utp";

// Where a packet goes on behind a step of the trailer.
enum class after_step : uint8_t {
    next,      // to the step behind it
    matched,   // nowhere: the packet is decided
    undecided, // to the steps that need no trailer
};

// The web's: hands the packet to the web decision, finds its policy and its domain, and has a list
// of the policy or the URL-filtering agent say what the domain is. The packet waits for the agent.
after_step filter_url(pkt_ctx &ctx, const trailer_view &trailer);
